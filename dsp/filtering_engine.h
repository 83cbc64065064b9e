// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace korvodsp {

/// The filter bank of one processor: for every channel one filter slot per sample rate, a delay line and a
/// gain. A filter is never switched hard. It is faded against the unfiltered signal over one block, and one
/// filter is exchanged for another through the unfiltered signal: a block out, a block in.
///
/// Filters are borrowed handles of dsp/fiir_filter.h. Their owner may discard one when hasFilters() has
/// become false, or after removeAllFiltersHard(), and a process() call that was under way has returned: see
/// passCount().
///
/// Threads: process() and processDelayAndGain() belong to the audio thread. Constructor, destructor,
/// initFilters, init, freeProcessBuffer, resetFilters and removeAllFiltersHard must not overlap them.
/// Everything else may, from one control thread. The audio thread meets the control thread in single words,
/// which it loads once per block; where the control thread clears the memory of a delay or a filter, the race
/// is left as it is: see resetChannel. Channel indexes are trusted unless an operation says otherwise.
class CFilteringEngine
{
public:
    /// As a pending filter: the current one is to go, and nothing takes its place.
    static inline void* const kInactiveFilter = reinterpret_cast<void*>(~std::uintptr_t{0});

    explicit CFilteringEngine(unsigned channels);
    ~CFilteringEngine();
    CFilteringEngine(const CFilteringEngine&) = delete;
    CFilteringEngine& operator=(const CFilteringEngine&) = delete;

    /// Makes the empty slots, one per channel and rate. Comes before the first block.
    void initFilters(const unsigned* rates, unsigned count);

    /// Sets the rate at which filters run and provides for blocks of blockFrames * channels samples and
    /// delays of up to maxDelaySamples. False if there is no memory for the block, or if it has no size:
    /// process() then refuses every block that has frames. A delay line that cannot be had is not reported:
    /// its channel goes undelayed.
    bool init(unsigned rate, unsigned blockFrames, unsigned channels, unsigned maxDelaySamples);
    unsigned getNumChannels() const { return numChannels; }
    /// The rate of the last init(), 0 before. Control thread.
    std::uint32_t getSampleRate() const { return sampleRate; }
    void freeProcessBuffer();
    /// Does nothing: the delay lines go with the engine.
    void freeDelayBuffers() {}

    /// Has `filter` (a handle, null or kInactiveFilter) take the place of the slot's filter, of every slot's
    /// if `rate` is 0, and resets it and the channel. A filter that is there or on its way already is left
    /// alone. Nothing happens for a channel that does not exist. Always 0.
    int setFilterForChannel(unsigned rate, unsigned channel, void* filter);
    /// Whether the slot holds `filter` or is about to.
    bool hasFilter(unsigned rate, unsigned channel, void* filter) const;
    /// Whether any slot holds a filter now; one that is only pending does not count.
    bool hasFilters() const;
    /// Has every filter faded out and let go of. The result is always empty: what was let go of shows in
    /// hasFilters().
    std::vector<void*> removeAllFilters();
    /// Lets go of every filter at once, with no fade.
    void removeAllFiltersHard();

    /// Odd while the audio thread is inside process(). Where it is odd, a change of the number says that the
    /// call which was under way has returned, and with it the last use of what it found in the slots.
    std::uint32_t passCount() const { return passes.load(std::memory_order_acquire); }

    void enable(bool on);
    bool isEnabled() const;
    /// Switching on starts all delays from silence, also when they were on.
    void enableDelayAndGain(bool on);
    bool isDelayAndGainEnabled() const;
    void setChannelGain(unsigned channel, float gain);
    float getChannelGain(unsigned channel) const;
    /// Negative values and NaN are 0. The upper limit of init() holds for what is heard and not for what is
    /// stored.
    void setChannelDelay(unsigned channel, float ms);
    float getChannelDelay(unsigned channel) const;
    /// At most 1.0, and 1.0 for a NaN. Negative values are taken as they are.
    void setOverallGain(float gain);
    float getOverallGain() const;
    /// Empties the channel's delay line and all its filters, and ends its gain ramp.
    void resetChannel(unsigned channel);
    void resetFilters();
    /// Empties the delay lines; gains stay.
    void resetDelays();

    /// Runs one channel of an interleaved block: sample i lies at i * channelCount + channel of `in` and of
    /// `out`, which may be the same block. While the channel's filter is off, `out` keeps what it holds, but
    /// for the overall gain. `bypass` takes the filter out for this block as enable(false) would. *retired
    /// receives what the last slot that changed held before, null if it was empty. False, with nothing done,
    /// if the block is too large. Real time: no allocation, no lock, no system call; one cosine in a block
    /// that fades.
    bool process(bool bypass, const float* in, float* out, unsigned frames, unsigned channel,
                 unsigned channelCount, void** retired);
    bool process(const float* in, float* out, unsigned frames, unsigned channel, unsigned channelCount,
                 void** retired);
    /// The delay and gain of a channel without its filter. Blocks may be of any size.
    void processDelayAndGain(const float* in, float* out, unsigned frames, unsigned channel,
                             unsigned channelCount);

private:
    struct SFilterSlot
    {
        bool holds(const void* filter) const;

        std::atomic<void*> current = nullptr; ///< written by the audio thread
        std::atomic<void*> pending = nullptr; ///< written by the control thread, cleared by the audio thread
    };

    struct SRatedSlot
    {
        std::uint32_t rate;
        SFilterSlot* slot;
    };

    /// What one block knows of a slot, however the control thread changes it meanwhile.
    struct SSlotSnapshot
    {
        void* current;
        void* pending;
    };

    struct SDspFilter
    {
        void resizeDelay(unsigned bytes);
        void setDelayToZero();

        std::map<std::uint32_t, SFilterSlot> filterMap; ///< by sample rate
        std::vector<SRatedSlot> slots;                  ///< the same in a row, for process()
        std::atomic<float> delayMs = 0.0F;
        std::atomic<float> gain = 1.0F;
        std::unique_ptr<float[]> delayBuffer;
        std::uint32_t delayBytes = 0;              ///< as asked for, also where there was no memory
        std::atomic<float> appliedGain = 1.0F;     ///< reached at the end of the last block
        std::atomic<std::uint32_t> writeIndex = 0; ///< of the delay line; runs free, masked on use
        bool active = false; ///< the filtered signal is heard; of the channel, not of a slot
    };

    struct SBlock
    {
        const float* in;
        float* out;
        std::uint32_t frames;
        std::uint32_t channel;
        std::uint32_t channelCount;
    };

    void runSlots(SDspFilter& dsp, bool filterWanted, const SBlock& block, void** retired);
    void runFilter(SDspFilter& dsp, void* filter, bool wanted, const SBlock& block);
    void runSteadily(SDspFilter& dsp, void* filter, const SBlock& block);
    void delayAndGain(SDspFilter& dsp, const float* src, std::size_t srcStride, float* dst,
                      std::size_t dstStride, unsigned frames);
    static void exchange(SFilterSlot& slot, const SSlotSnapshot& snapshot, void** retired);

    std::uint32_t numChannels;
    float* processBuffer = nullptr; ///< aligned; holds the filtered signal: one column, or interleaved as the
                                    ///< block is during a fade
    std::uint32_t sampleRate = 0;
    std::uint32_t bufferChannels = 0;
    float samplesPerMs = 0.0F;
    std::uint32_t processBufferBytes = 0;
    std::uint32_t maxDelaySamples = 0;
    std::uint32_t delayBufferBytes = 0;
    std::uint32_t delayMask = 0;
    std::atomic<bool> enabled = true;
    std::atomic<bool> delayAndGainEnabled = true;
    std::vector<SDspFilter> filters;
    std::atomic<float> overallGain = 1.0F;
    std::atomic<std::uint32_t> passes = 0; ///< see passCount(); written by the audio thread
};

} // namespace korvodsp

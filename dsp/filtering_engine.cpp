// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/filtering_engine.h"

#include <algorithm>
#include <limits>
#include <new>

#include "dsp/aligned_memory.h"
#include "dsp/channel_delay.h"
#include "dsp/fade.h"
#include "dsp/fiir_filter.h"

// Order of memory. Gains, delays and flags stand alone: nothing else is published with them, so they are
// relaxed; the audio thread loads each once per block, lest a change should tear a block in two. Handles
// carry what they point at: they are stored with release and loaded with acquire, as the pairs below say.

namespace korvodsp {

CFilteringEngine::CFilteringEngine(unsigned channels) : numChannels(channels), filters(channels) {}

CFilteringEngine::~CFilteringEngine()
{
    freeProcessBuffer();
}

void CFilteringEngine::initFilters(const unsigned* rates, unsigned count)
{
    for (SDspFilter& dsp : filters)
    {
        for (unsigned i = 0; i < count; ++i)
        {
            SFilterSlot& slot = dsp.filterMap[rates[i]];
            slot.current.store(nullptr, std::memory_order_relaxed);
            slot.pending.store(nullptr, std::memory_order_relaxed);
        }
        dsp.slots.clear();
        dsp.slots.reserve(dsp.filterMap.size());
        for (auto& [rate, slot] : dsp.filterMap)
            dsp.slots.push_back({rate, &slot});
    }
}

bool CFilteringEngine::init(unsigned rate, unsigned blockFrames, unsigned channels, unsigned maxDelay)
{
    sampleRate = rate;
    samplesPerMs = static_cast<float>(rate) / 1000.0F;

    const std::uint64_t samples = std::uint64_t{channels} * blockFrames;
    const std::uint64_t bytes = samples * sizeof(float);
    if (samples == 0 || bytes != processBufferBytes)
    {
        freeProcessBuffer();
        if (samples == 0 || samples > std::numeric_limits<std::uint32_t>::max() / sizeof(float))
            return false;
        processBuffer = static_cast<float*>(alignedAlloc(bytes));
        if (processBuffer == nullptr)
            return false;
        processBufferBytes = static_cast<std::uint32_t>(bytes);
        bufferChannels = channels;
    }

    if (maxDelay != maxDelaySamples)
    {
        const std::uint32_t ringBytes = delayRingBytes(maxDelay);
        for (SDspFilter& dsp : filters)
        {
            dsp.resizeDelay(ringBytes);
            dsp.setDelayToZero();
        }
        maxDelaySamples = maxDelay;
        delayBufferBytes = ringBytes;
        delayMask = ringBytes != 0 ? ringBytes / 4 - 1 : 0;
    }

    resetFilters();
    return true;
}

void CFilteringEngine::freeProcessBuffer()
{
    alignedFree(processBuffer);
    processBuffer = nullptr;
    processBufferBytes = 0;
}

void CFilteringEngine::SDspFilter::resizeDelay(unsigned bytes)
{
    if (bytes != delayBytes && delayBuffer != nullptr)
    {
        delayBuffer.reset();
        delayBytes = 0;
    }
    if (bytes != 0 && delayBuffer == nullptr)
    {
        delayBuffer.reset(new (std::nothrow) float[bytes / sizeof(float)]());
        delayBytes = bytes;
    }
}

void CFilteringEngine::SDspFilter::setDelayToZero()
{
    if (delayBuffer != nullptr)
        std::fill_n(delayBuffer.get(), delayBytes / sizeof(float), 0.0F);
}

int CFilteringEngine::setFilterForChannel(unsigned rate, unsigned channel, void* filter)
{
    if (channel >= numChannels)
        return 0;
    for (auto& [slotRate, slot] : filters[channel].filterMap)
    {
        if ((rate != 0 && rate != slotRate) || slot.holds(filter))
            continue;
        // All clearing comes first, while nobody else knows of the filter: once it is pending, the audio
        // thread may be fading it in, and a clearing would be heard.
        if (filter != kInactiveFilter)
            FIIR_Reset(filter);
        resetChannel(channel);
        // Release, with the acquire of process(): the filter's coefficients and cleared state come along.
        slot.pending.store(filter, std::memory_order_release);
    }
    return 0;
}

bool CFilteringEngine::SFilterSlot::holds(const void* filter) const
{
    // Acquire, with the releases of exchange(), and pending first: the audio thread puts a filter into
    // current before it clears pending, so whoever sees the cleared word sees the filter in its new place.
    // The other way round it could be missed in both.
    return pending.load(std::memory_order_acquire) == filter ||
           current.load(std::memory_order_acquire) == filter;
}

bool CFilteringEngine::hasFilter(unsigned rate, unsigned channel, void* filter) const
{
    const auto& slots = filters[channel].filterMap;
    const auto found = slots.find(rate);
    return found != slots.end() && found->second.holds(filter);
}

bool CFilteringEngine::hasFilters() const
{
    // Acquire, with the release of exchange(): the audio thread's last use of a filter comes before its end.
    const auto holdsOne = [](const auto& entry) {
        return entry.second.current.load(std::memory_order_acquire) != nullptr;
    };
    return std::any_of(filters.begin(), filters.end(), [&](const SDspFilter& dsp) {
        return std::any_of(dsp.filterMap.begin(), dsp.filterMap.end(), holdsOne);
    });
}

std::vector<void*> CFilteringEngine::removeAllFilters()
{
    for (SDspFilter& dsp : filters)
    {
        // Release, with the acquire of process(), as for any pending handle.
        for (auto& entry : dsp.filterMap)
            entry.second.pending.store(kInactiveFilter, std::memory_order_release);
    }
    return {};
}

void CFilteringEngine::removeAllFiltersHard()
{
    // `active` stays: a filter that comes next starts at full level if one was heard now. Relaxed, since no
    // process() call is running; should one be after all, it finishes its block on the filters that it has
    // loaded.
    for (SDspFilter& dsp : filters)
    {
        for (auto& entry : dsp.filterMap)
        {
            entry.second.current.store(nullptr, std::memory_order_relaxed);
            entry.second.pending.store(nullptr, std::memory_order_relaxed);
        }
    }
}

void CFilteringEngine::enable(bool on)
{
    enabled.store(on, std::memory_order_relaxed);
}

bool CFilteringEngine::isEnabled() const
{
    return enabled.load(std::memory_order_relaxed);
}

void CFilteringEngine::enableDelayAndGain(bool on)
{
    if (on)
        resetDelays();
    delayAndGainEnabled.store(on, std::memory_order_relaxed);
}

bool CFilteringEngine::isDelayAndGainEnabled() const
{
    return delayAndGainEnabled.load(std::memory_order_relaxed);
}

void CFilteringEngine::setChannelGain(unsigned channel, float gain)
{
    filters[channel].gain.store(gain, std::memory_order_relaxed);
}

float CFilteringEngine::getChannelGain(unsigned channel) const
{
    return filters[channel].gain.load(std::memory_order_relaxed);
}

void CFilteringEngine::setChannelDelay(unsigned channel, float ms)
{
    filters[channel].delayMs.store(ms > 0.0F ? ms : 0.0F, std::memory_order_relaxed);
}

float CFilteringEngine::getChannelDelay(unsigned channel) const
{
    return filters[channel].delayMs.load(std::memory_order_relaxed);
}

void CFilteringEngine::setOverallGain(float gain)
{
    overallGain.store(gain < 1.0F ? gain : 1.0F, std::memory_order_relaxed);
}

float CFilteringEngine::getOverallGain() const
{
    return overallGain.load(std::memory_order_relaxed);
}

// A race that is left as it is. The control thread gets here (setFilterForChannel) while the audio thread may
// be running this very channel: it then clears delay line and filters under a block, which is heard as a
// click at worst, where a lock would stop the audio thread. Memory stays safe: the audio thread loads each
// position once per block and masks it, every position that is ever stored lies in its ring, and neither side
// frees anything.
void CFilteringEngine::resetChannel(unsigned channel)
{
    SDspFilter& dsp = filters[channel];
    dsp.setDelayToZero();
    dsp.writeIndex.store(0, std::memory_order_relaxed);
    dsp.appliedGain.store(dsp.gain.load(std::memory_order_relaxed), std::memory_order_relaxed);
    for (auto& entry : dsp.filterMap)
    {
        // Null and kInactiveFilter are passed over. Acquire as in holds(); pending is of this thread's own
        // storing.
        FIIR_Reset(entry.second.current.load(std::memory_order_acquire));
        FIIR_Reset(entry.second.pending.load(std::memory_order_relaxed));
    }
}

void CFilteringEngine::resetFilters()
{
    for (unsigned channel = 0; channel < numChannels; ++channel)
        resetChannel(channel);
    if (processBuffer != nullptr)
        std::fill_n(processBuffer, processBufferBytes / sizeof(float), 0.0F);
}

// The same race as in resetChannel, over the delay lines alone.
void CFilteringEngine::resetDelays()
{
    for (SDspFilter& dsp : filters)
    {
        dsp.setDelayToZero();
        dsp.writeIndex.store(0, std::memory_order_relaxed);
    }
}

bool CFilteringEngine::process(const float* in, float* out, unsigned frames, unsigned channel,
                               unsigned channelCount, void** retired)
{
    return process(false, in, out, frames, channel, channelCount, retired);
}

bool CFilteringEngine::process(bool bypass, const float* in, float* out, unsigned frames, unsigned channel,
                               unsigned channelCount, void** retired)
{
    // In 64 bits: the product of a block that no host can mean must not wrap to one that fits.
    if (std::uint64_t{frames} * channelCount > processBufferBytes / sizeof(float))
        return false;

    // Plain stores, since only the audio thread writes this word. The release pairs with passCount(): whoever
    // sees the call over sees all its uses of a filter over, and may free that filter.
    const std::uint32_t pass = passes.load(std::memory_order_relaxed);
    passes.store(pass + 1, std::memory_order_relaxed);
    runSlots(filters[channel], enabled.load(std::memory_order_relaxed) && !bypass,
             {in, out, frames, channel, channelCount}, retired);
    passes.store(pass + 2, std::memory_order_release);

    const float gain = overallGain.load(std::memory_order_relaxed);
    if (gain != 1.0F) // in every state, and as a step
        rampColumn(out + channel, channelCount, out + channel, channelCount, frames, {gain, 0.0F});
    return true;
}

void CFilteringEngine::runSlots(SDspFilter& dsp, bool filterWanted, const SBlock& block, void** retired)
{
    for (const auto& [rate, slotOfRate] : dsp.slots)
    {
        SFilterSlot& slot = *slotOfRate;
        // One look at the slot for the whole block. Pending: acquire, with the release of
        // setFilterForChannel. Current: stored by this very thread, or while it was not running.
        const SSlotSnapshot snapshot{slot.current.load(std::memory_order_relaxed),
                                     slot.pending.load(std::memory_order_acquire)};
        const bool leaving = snapshot.pending != nullptr && snapshot.pending != snapshot.current;
        if (rate == sampleRate && snapshot.current != nullptr)
            runFilter(dsp, snapshot.current, filterWanted && !leaving, block);
        if (snapshot.pending != nullptr)
            exchange(slot, snapshot, retired);
    }
}

void CFilteringEngine::runFilter(SDspFilter& dsp, void* filter, bool wanted, const SBlock& block)
{
    const auto [in, out, frames, channel, stride] = block;
    if (!wanted && !dsp.active)
        return; // the delay line stands still as well

    if (wanted == dsp.active)
        return runSteadily(dsp, filter, block);

    float* const wet = processBuffer;
    FIIR_Process(filter, in, wet, frames, channel, stride);
    if (delayAndGainEnabled.load(std::memory_order_relaxed))
        delayAndGain(dsp, wet + channel, stride, wet + channel, stride, frames);

    // Dry is the input as it came: a channel with a delay or a gain steps into them during the fade.
    const float* const from = wanted ? in : wet;
    const float* const to = wanted ? wet : in;
    if (frames != 0)
        fadeColumn(from + channel, to + channel, out + channel, frames, stride);
    if (!wanted)
        FIIR_Reset(filter);
    dsp.active = wanted;
}

void CFilteringEngine::runSteadily(SDspFilter& dsp, void* filter, const SBlock& block)
{
    const auto [in, out, frames, channel, stride] = block;
    // On the way in a column of its own: to pick samples from between those of other channels takes longer
    // than anything that is done to them but the filter.
    float* const column = stride == 1 ? out : processBuffer;
    if (stride != 1)
        copyColumn(in + channel, stride, column, 1, frames);
    FIIR_Process(filter, stride == 1 ? in : column, column, frames);
    if (delayAndGainEnabled.load(std::memory_order_relaxed))
        delayAndGain(dsp, column, 1, out + channel, stride, frames);
    else if (stride != 1)
        copyColumn(column, 1, out + channel, stride, frames);
}

void CFilteringEngine::exchange(SFilterSlot& slot, const SSlotSnapshot& snapshot, void** retired)
{
    // What the control thread has made pending since the snapshot stays so, for the next block to see.
    // Without this look, it would be lost whenever it came while the block was running. What is left is the
    // moment between the look and the last store below: closing that takes a read-modify-write. What comes in
    // that moment is lost, and whoever waits for hasFilters() to turn false waits in vain.
    if (slot.pending.load(std::memory_order_relaxed) != snapshot.pending)
        return;
    if (snapshot.pending != snapshot.current)
    {
        *retired = snapshot.current;
        void* const next = snapshot.pending == kInactiveFilter ? nullptr : snapshot.pending;
        // Release, with the acquire of hasFilters() and holds(): all use of the old filter comes before.
        slot.current.store(next, std::memory_order_release);
    }
    // Release, with the acquire of holds(): by now current is in place.
    slot.pending.store(nullptr, std::memory_order_release);
}

void CFilteringEngine::processDelayAndGain(const float* in, float* out, unsigned frames, unsigned channel,
                                           unsigned channelCount)
{
    delayAndGain(filters[channel], in + channel, channelCount, out + channel, channelCount, frames);
}

void CFilteringEngine::delayAndGain(SDspFilter& dsp, const float* src, std::size_t srcStride, float* dst,
                                    std::size_t dstStride, unsigned frames)
{
    // Relaxed here and below: resetChannel and resetDelays may step in between and are then undone by the
    // stores, which costs them a block and nothing else.
    const float start = dsp.appliedGain.load(std::memory_order_relaxed);
    const float target = dsp.gain.load(std::memory_order_relaxed);
    dsp.appliedGain.store(target, std::memory_order_relaxed);
    if (frames == 0)
        return; // the ramp is skipped, not put off

    const SGainRamp ramp{start, (target - start) / static_cast<float>(frames)};
    if (dsp.delayBuffer == nullptr)
    {
        // No memory for the delay line: gain is what is left of the stage.
        rampColumn(src, srcStride, dst, dstStride, frames, ramp);
        return;
    }
    const SDelayRing ring{dsp.delayBuffer.get(), delayMask, dsp.writeIndex.load(std::memory_order_relaxed)};
    const std::uint32_t delay =
        delayInSamples(dsp.delayMs.load(std::memory_order_relaxed), samplesPerMs, maxDelaySamples);
    const std::uint32_t next = delayColumn(ring, delay, src, srcStride, dst, dstStride, frames, ramp);
    dsp.writeIndex.store(next, std::memory_order_relaxed);
}

} // namespace korvodsp

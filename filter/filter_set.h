// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include <juce_core/juce_core.h>

#include "dsp/filtering_engine.h"
#include "filter/filter_document.h"

namespace korvotoolbox {
class CDelayGainEstimator;
}

namespace korvo::filter {

/// Between the filter document and the engine: builds one FIIR filter per channel, sample rate and operating
/// mode of a document, owns them all, hands those of one mode to the engine and takes them away again when
/// another document comes. It also keeps, per channel, the delay and gain that the high band needs to stay in
/// step with the corrected low band.
///
/// Threads: the host's control thread; while it waits for a document, a pool thread in the IFIIRCallback
/// operations. The audio thread reads getHighBand() and getOperatingMode() and nothing else.
class CFIIRFilter : public korvo::parser::FIIR::IFIIRCallback
{
public:
    static constexpr unsigned kMaxChannels = 8;

    enum EMode : unsigned
    {
        kModeNone = 0,     ///< nothing active: no load has completed
        kModeStandard = 1, ///< the document's sets without MinPhase
        kModeMinPhase = 2  ///< the document's sets with MinPhase
    };

    /// Signed linear gain, and delay in samples of the base rate; a negative gain inverts polarity.
    struct SHighBand
    {
        float gain = 1.0F;
        std::uint32_t delay = 0;
    };

    explicit CFIIRFilter(korvodsp::CFilteringEngine& engine);
    /// Runs clear(), with its wait.
    ~CFIIRFilter() override;
    CFIIRFilter(const CFIIRFilter&) = delete;
    CFIIRFilter& operator=(const CFIIRFilter&) = delete;

    /// Reads a document and activates mode 2 if `minPhase`, else mode 1. Returns a status of krv.h: 3 if
    /// there is no such file (nothing has changed then), 2 if it cannot be read or is refused (the old filter
    /// is gone), else 0.
    unsigned loadAndReadFilter(juce::String path, bool minPhase);

    /// Takes every filter out of the engine, waits for the audio thread to let go, and discards them all.
    /// Without an audio thread the wait takes 1.01 s. Always 0.
    unsigned clear();

    /// Activates the sets of one mode; nothing happens if they are active already.
    void loadFilter(bool minPhase);

    /// Puts the gains and delays of the document's mode 1 sets into the engine, whichever mode is active.
    void setDefaultGainAndDelay();

    /// Whether any channel has a filter for `rate` in the active mode, or the document names it as a high
    /// rate.
    bool supportsSampleRate(unsigned rate) const;

    /// Latency of the active mode in ms, mode 1 if none is active; negative while unknown.
    float getlatency() const;
    bool isUsingMinPhase() const { return getOperatingMode() == kModeMinPhase; }

    /// Largest MaxFilterGaindB of the document in dB, at least 0.
    float getMaxGain() const { return maxGain; }
    const juce::String& getName() const { return name; }
    /// The file last loaded with success.
    const juce::String& getPath() const { return path; }
    /// Channel numbers from 1, in document order, ended by a zero; nine words.
    const std::uint32_t* getOutputRouting() const { return outputRouting; }

    /// One of EMode. Real time: yes.
    unsigned getOperatingMode() const { return operatingMode.load(std::memory_order_relaxed); }

    /// What the high band of `channel`, below kMaxChannels, needs in the active mode at base rate 88200 or
    /// 96000. Without an active mode: gain 1, delay 0. Real time: yes.
    SHighBand getHighBand(unsigned baseRate, unsigned channel) const;

    unsigned IFIIRCallback_Wants() const override;
    bool IFIIRCallback_FilterInfo(const char* projectName, const char* technology, unsigned channelCount,
                                  const char* creationDate, const char* fileName,
                                  const char* numberRepresentation) override;
    bool IFIIRCallback_ChannelInfo(unsigned channelIndex, const char* name, unsigned number, float gaindB,
                                   float delayms, float maxFilterGaindB) override;
    bool IFIIRCallback_FilterData(unsigned channelIndex, unsigned fs, bool minPhase, const float* taps,
                                  unsigned nbrOfTaps, const korvo::parser::FIIR::SSection* sections,
                                  unsigned nbrOfSections) override;

private:
    /// One channel of one mode.
    struct _tag_SFilter
    {
        std::map<std::uint32_t, void*> filters; ///< by rate in Hz; handles owned here, borrowed by the engine
        float gaindB = 0.0F;
        float delayms = 0.0F;
    };
    using FilterMap = std::map<std::uint32_t, _tag_SFilter>; ///< by channel index

    /// High-band parameters by mode index (0 for mode 1, 1 for mode 2) and channel.
    template<typename T>
    using HighBandTable = std::atomic<T>[2][kMaxChannels];

    unsigned loadFilter(const FilterMap& map);
    void giveToEngine(unsigned channel, const _tag_SFilter& filter);
    static void discardFilter(const FilterMap& map);
    void waitForRelease();
    void resetRouting();
    void permuteChannelBits(unsigned channelIndex, unsigned target);
    void estimateHighBand(unsigned fs, bool minPhase, const float* taps, unsigned nbrOfTaps);
    void noteLatency(unsigned fs, bool minPhase, const float* taps, unsigned nbrOfTaps);
    FilterMap& filtersOf(bool minPhase) { return minPhase ? minPhaseFilters : standardFilters; }

    FilterMap standardFilters;
    FilterMap minPhaseFilters;
    std::uint32_t currentChannel = 0;
    std::uint32_t maxChannelNumber = 0;
    float currentGaindB = 0.0F;
    float currentDelayms = 0.0F;
    std::uint32_t channelBits[kMaxChannels]; ///< one bit per channel index, permuted as the numbers are
    std::uint32_t outputRouting[kMaxChannels + 1] = {};
    juce::String name;
    juce::String path;
    float maxGain = 0.0F;
    float minPhaseLatency = -1.0F;
    float standardLatency = -1.0F;
    // The audio thread reads single words of these tables while a load may be writing others: each word is
    // whole, and there is nothing that a gain and its delay could break between them.
    HighBandTable<float> highBandGain96000;
    HighBandTable<std::int32_t> highBandDelay96000;
    HighBandTable<float> highBandGain88200;
    HighBandTable<std::int32_t> highBandDelay88200;
    std::vector<std::uint32_t> highRates; ///< as the document lists them, repeats included
    std::unique_ptr<korvotoolbox::CDelayGainEstimator> estimator; ///< while a document is read
    korvodsp::CFilteringEngine& engine;
    std::atomic<unsigned> operatingMode{kModeNone};
};

} // namespace korvo::filter

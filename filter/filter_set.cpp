// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_set.h"

#include <algorithm>
#include <cmath>

#include "dsp/fiir_filter.h"
#include "filter/filter_folder.h"
#include "filter/filter_jobs.h"
#include "toolbox/delay_gain_estimate.h"
#include "toolbox/delay_gain_estimator.h"

namespace korvo::filter {

namespace {

using korvo::parser::FIIR::SSection;
using korvodsp::CFilteringEngine;

constexpr unsigned kHighestFilterRate = 96000;
constexpr int kReleasePolls = 100;
constexpr int kReleasePollMs = 10;

/// The estimate is taken at half the base rate's Nyquist frequency, next to the crossover of the two bands.
constexpr float kHighBandCentre = 0.5F;

enum EStatus : unsigned
{
    kStatusOk = 0,
    kStatusFileError = 2,
    kStatusNoFile = 3
};

struct SDiscardFilter
{
    void operator()(void* handle) const { korvodsp::FIIR_Discard(handle); }
};
using FilterHandle = std::unique_ptr<void, SDiscardFilter>;

FilterHandle makeFilter(const float* taps, unsigned nbrOfTaps, const SSection* sections,
                        unsigned nbrOfSections)
{
    void* raw = nullptr;
    if (!korvodsp::FIIR_InitRaw(korvodsp::kInitAuto, &raw))
        return nullptr;
    FilterHandle handle(raw);
    if (!korvodsp::FIIR_SetFIRCoefficients(raw, taps, nbrOfTaps))
        return nullptr;
    for (unsigned i = 0; i < nbrOfSections; ++i)
    {
        const float coefs[] = {sections[i].a1, sections[i].a2, sections[i].b0, sections[i].b1};
        if (!korvodsp::FIIR_AddBQSection(raw, coefs))
            return nullptr;
    }
    if (!korvodsp::FIIR_CookBQSections(raw))
        return nullptr;
    return handle;
}

/// The call of the engine's process() that was running when this was made, if there was one.
class CPassInProgress
{
public:
    explicit CPassInProgress(const CFilteringEngine& engineToWatch)
        : engine(engineToWatch), number(engineToWatch.passCount())
    {
    }
    bool isUnderWay() const { return number % 2 != 0 && engine.passCount() == number; }

private:
    const CFilteringEngine& engine;
    std::uint32_t number;
};

unsigned modeIndex(bool minPhase)
{
    return minPhase ? 1 : 0;
}

/// Index of the tap of largest magnitude, the first of equals; -1 where no tap is other than zero.
int largestTap(const float* taps, unsigned nbrOfTaps)
{
    int index = -1;
    float largest = 0.0F;
    for (unsigned i = 0; i < nbrOfTaps; ++i)
        if (std::fabs(taps[i]) > largest)
        {
            largest = std::fabs(taps[i]);
            index = static_cast<int>(i);
        }
    return index;
}

} // namespace

CFIIRFilter::CFIIRFilter(CFilteringEngine& engineToServe) : engine(engineToServe)
{
    for (unsigned mode = 0; mode < 2; ++mode)
        for (unsigned channel = 0; channel < kMaxChannels; ++channel)
        {
            highBandGain96000[mode][channel] = 1.0F;
            highBandGain88200[mode][channel] = 1.0F;
            highBandDelay96000[mode][channel] = 0;
            highBandDelay88200[mode][channel] = 0;
        }
    resetRouting();
}

CFIIRFilter::~CFIIRFilter()
{
    clear();
}

unsigned CFIIRFilter::loadAndReadFilter(juce::String newPath, bool minPhase)
{
    // A path that is not absolute counts from the working directory, where juce::File alone would object to
    // it.
    const juce::File file = juce::File::getCurrentWorkingDirectory().getChildFile(newPath);
    if (!file.existsAsFile())
        return kStatusNoFile;
    std::unique_ptr<juce::InputStream> stream = openFilterFile(file);
    clear();
    const int result = readFilterDocument(std::move(stream), this);
    estimator.reset();
    if (result != kJobDone)
        return kStatusFileError;
    loadFilter(minPhase);
    path = newPath;
    return kStatusOk;
}

unsigned CFIIRFilter::clear()
{
    engine.removeAllFilters();
    waitForRelease();
    discardFilter(standardFilters);
    discardFilter(minPhaseFilters);
    minPhaseFilters.clear();
    standardFilters.clear();
    operatingMode.store(kModeNone, std::memory_order_relaxed);
    resetRouting();
    return kStatusOk;
}

/// No handle may die while the audio thread can still use it. The engine lets go of a filter inside its
/// process(), one faded block after the mark. A call that was under way at the mark may have missed it,
/// though: it may take over a filter that was only pending, which no slot shows until then, and wipe the mark
/// out. So that call has to return, and the mark is set again with every poll.
void CFIIRFilter::waitForRelease()
{
    if (standardFilters.empty() && minPhaseFilters.empty())
        return;
    // The first sleep comes before any look: the audio thread announces its calls with a plain store, which
    // may stay unseen for a moment.
    int pollsLeft = kReleasePolls - 1;
    juce::Thread::sleep(kReleasePollMs);
    const CPassInProgress pass(engine);
    while (pollsLeft >= 0 && (engine.hasFilters() || pass.isUnderWay()))
    {
        engine.removeAllFilters();
        --pollsLeft;
        juce::Thread::sleep(kReleasePollMs);
    }
    if (pollsLeft > 0)
        return;
    engine.removeAllFiltersHard();
    const CPassInProgress lastPass(engine);
    for (int polls = kReleasePolls; polls > 0 && lastPass.isUnderWay(); --polls)
        juce::Thread::sleep(kReleasePollMs);
}

void CFIIRFilter::resetRouting()
{
    for (unsigned i = 0; i < kMaxChannels; ++i)
        channelBits[i] = 1U << i;
    std::fill(std::begin(outputRouting), std::end(outputRouting), 0U);
}

void CFIIRFilter::loadFilter(bool minPhase)
{
    const unsigned mode = minPhase ? kModeMinPhase : kModeStandard;
    if (getOperatingMode() == mode)
        return;
    operatingMode.store(mode, std::memory_order_relaxed);
    loadFilter(filtersOf(minPhase));
}

unsigned CFIIRFilter::loadFilter(const FilterMap& map)
{
    for (unsigned channel = 0; channel < kMaxChannels; ++channel)
    {
        const auto found = map.find(channel);
        if (found == map.end())
        {
            engine.setFilterForChannel(0, channel, CFilteringEngine::kInactiveFilter); // rate 0: every slot
            continue;
        }
        giveToEngine(channel, found->second);
    }
    return kStatusOk;
}

/// Each filter that the engine takes clears the whole channel. The one that is heard comes last, so that
/// nothing clears it while the audio thread fades it in already.
void CFIIRFilter::giveToEngine(unsigned channel, const _tag_SFilter& filter)
{
    const std::uint32_t heardRate = engine.getSampleRate();
    for (const auto& [rate, handle] : filter.filters)
        if (rate != heardRate)
            engine.setFilterForChannel(rate, channel, handle);
    if (const auto heard = filter.filters.find(heardRate); heard != filter.filters.end())
        engine.setFilterForChannel(heardRate, channel, heard->second);
}

void CFIIRFilter::discardFilter(const FilterMap& map)
{
    for (const auto& [channel, filter] : map)
        for (const auto& [rate, handle] : filter.filters)
            korvodsp::FIIR_Discard(handle);
}

void CFIIRFilter::setDefaultGainAndDelay()
{
    for (const auto& [channel, filter] : standardFilters)
    {
        // A document may have more channels than the processor, and the engine does not test these calls.
        if (channel >= engine.getNumChannels() || filter.filters.empty())
            continue;
        engine.setChannelGain(channel, powf(10.0F, filter.gaindB / 20.0F));
        engine.setChannelDelay(channel, filter.delayms);
    }
}

bool CFIIRFilter::supportsSampleRate(unsigned rate) const
{
    const unsigned mode = getOperatingMode();
    if (mode == kModeNone)
        return false;
    const FilterMap& map = mode == kModeStandard ? standardFilters : minPhaseFilters;
    const bool filtered = std::any_of(map.begin(), map.end(), [rate](const auto& entry) {
        return entry.first < kMaxChannels && entry.second.filters.count(rate) != 0;
    });
    return filtered || std::find(highRates.begin(), highRates.end(), rate) != highRates.end();
}

float CFIIRFilter::getlatency() const
{
    return isUsingMinPhase() ? minPhaseLatency : standardLatency;
}

CFIIRFilter::SHighBand CFIIRFilter::getHighBand(unsigned baseRate, unsigned channel) const
{
    const unsigned mode = getOperatingMode();
    if (mode == kModeNone || channel >= kMaxChannels)
        return {};
    const unsigned index = mode - 1;
    const auto& gain = baseRate == 96000 ? highBandGain96000 : highBandGain88200;
    const auto& delay = baseRate == 96000 ? highBandDelay96000 : highBandDelay88200;
    return {gain[index][channel].load(std::memory_order_relaxed),
            static_cast<std::uint32_t>(delay[index][channel].load(std::memory_order_relaxed))};
}

unsigned CFIIRFilter::IFIIRCallback_Wants() const
{
    return 7;
}

bool CFIIRFilter::IFIIRCallback_FilterInfo(const char* projectName, const char*, unsigned, const char*,
                                           const char*, const char*)
{
    name = decodeUtf8(projectName);
    operatingMode.store(kModeNone, std::memory_order_relaxed);
    maxChannelNumber = 0;
    maxGain = 0.0F;
    minPhaseLatency = -1.0F;
    standardLatency = -1.0F;
    highRates.clear();
    return true;
}

bool CFIIRFilter::IFIIRCallback_ChannelInfo(unsigned channelIndex, const char*, unsigned number, float gaindB,
                                            float delayms, float maxFilterGaindB)
{
    currentChannel = channelIndex;
    currentDelayms = delayms;
    currentGaindB = gaindB;
    if (channelIndex < kMaxChannels)
    {
        outputRouting[channelIndex] = number;
        if (number >= 1 && number <= kMaxChannels)
            permuteChannelBits(channelIndex, number - 1);
    }
    maxChannelNumber = std::max(maxChannelNumber, number);
    if (maxFilterGaindB > maxGain)
        maxGain = maxFilterGaindB;
    return true;
}

void CFIIRFilter::permuteChannelBits(unsigned channelIndex, unsigned target)
{
    const std::uint32_t bit = 1U << target;
    if (bit == channelBits[channelIndex])
        return;
    channelBits[target] = channelBits[channelIndex];
    channelBits[channelIndex] = bit;
}

bool CFIIRFilter::IFIIRCallback_FilterData(unsigned, unsigned fs, bool minPhase, const float* taps,
                                           unsigned nbrOfTaps, const SSection* sections,
                                           unsigned nbrOfSections)
{
    if (fs > kHighestFilterRate)
    {
        highRates.push_back(fs);
        return true;
    }
    if ((fs == 96000 || fs == 88200) && currentChannel < kMaxChannels)
        estimateHighBand(fs, minPhase, taps, nbrOfTaps);
    noteLatency(fs, minPhase, taps, nbrOfTaps);

    FilterHandle handle = makeFilter(taps, nbrOfTaps, sections, nbrOfSections);
    if (handle == nullptr)
        return false;
    _tag_SFilter& filter = filtersOf(minPhase)[currentChannel];
    filter.gaindB = currentGaindB;
    filter.delayms = currentDelayms;
    // The first filter of a rate is the one that runs, however many follow.
    const bool inserted = filter.filters.emplace(fs, handle.get()).second;
    if (inserted)
        handle.release();
    return true;
}

void CFIIRFilter::estimateHighBand(unsigned fs, bool minPhase, const float* taps, unsigned nbrOfTaps)
{
    if (estimator == nullptr)
        estimator = std::make_unique<korvotoolbox::CDelayGainEstimator>();
    // A count beyond int is negative here, and refused as too short.
    korvotoolbox::SEstimate estimate =
        estimator->estimate(taps, static_cast<int>(nbrOfTaps), kHighBandCentre);
    // A filter of a few taps is refused, and memory can be out; the filter loads all the same. Its largest
    // tap is then what comes nearest to it.
    if (estimate.status != korvotoolbox::kEstimateDone)
    {
        const int peak = largestTap(taps, nbrOfTaps);
        estimate.gain = peak < 0 ? 0.0F : taps[peak];
        estimate.delay = std::max(peak, 0);
    }
    const unsigned index = modeIndex(minPhase);
    auto& gains = fs == 96000 ? highBandGain96000 : highBandGain88200;
    auto& delays = fs == 96000 ? highBandDelay96000 : highBandDelay88200;
    gains[index][currentChannel].store(estimate.gain, std::memory_order_relaxed);
    delays[index][currentChannel].store(estimate.delay, std::memory_order_relaxed);
}

/// The first set of a mode with any tap other than zero decides, at its own rate.
void CFIIRFilter::noteLatency(unsigned fs, bool minPhase, const float* taps, unsigned nbrOfTaps)
{
    float& latency = minPhase ? minPhaseLatency : standardLatency;
    if (latency < 0.0F)
        latency = static_cast<float>(largestTap(taps, nbrOfTaps)) / static_cast<float>(fs) * 1000.0F;
}

} // namespace korvo::filter

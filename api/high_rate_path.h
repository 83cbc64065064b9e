// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

#include "api/multirate_filter.h"

/// The block path of 176400, 192000, 352800 and 384000 Hz, for one channel:
///
///   inputBuffer --+--> delay ring --> high-pass x gain -------> highBandBuffer --+
///                 |                                                              +--> inputBuffer
///                 +--> decimator --> decimatedBuffer --> engine --> interpolator-+
///
/// Each pass runs over the whole block before the next one begins. Apart from the engine, the low band is 41
/// frames late at ratio 2 and 81 at ratio 4; the high band as much, and totalDelay + 1 frames more.
namespace korvo {

constexpr std::size_t kDelayBufferSize = 40000; ///< floats per channel
constexpr uint32_t kMaxTotalDelay = kDelayBufferSize - 1;

bool isHighRate(uint32_t rate);

/// Rate that the engine runs at for a high rate: 88200 or 96000 Hz.
uint32_t baseRateOf(uint32_t highRate);

/// Row of resamplingFilters for a high rate.
std::size_t resamplingRowOf(uint32_t highRate);

/// What one channel keeps between blocks. It is reset by prepareChannel() alone.
struct SHighRateChannel
{
    FIR_MULTIRATE_FILTER_tag& decimator;
    FIR_MULTIRATE_FILTER_tag& interpolator;
    FIR_MULTIRATE_FILTER_tag& highPass;
    float* delayBuffer; ///< kDelayBufferSize floats
    uint32_t& delayIndex;
};

/// One channel of a block. All three buffers are interleaved with the stride `channels`; the low band's m-th
/// sample is at decimatedBuffer[m * channels + channel].
struct SHighRateBlock
{
    float* inputBuffer;
    float* decimatedBuffer;
    float* highBandBuffer;
    uint32_t frames;
    uint32_t channel;
    uint32_t channels;
};

/// Gain and delay of the high band for one block. `totalDelay` is in frames, at most kMaxTotalDelay.
struct SHighBand
{
    float gain;
    uint32_t totalDelay;
};

/// What the loaded filter and the host say about a channel's high band.
struct SHighBandSettings
{
    float filterGain;
    uint32_t filterDelay; ///< samples at the base rate
    bool delayAndGainEnabled;
    float channelGain;
    float channelDelay; ///< milliseconds
};

/// Gain and delay in frames for these settings. Any values will do, NaN and infinity included: they may reach
/// the gain, but the delay stays in its range.
SHighBand highBandFor(const SHighBandSettings& settings, uint32_t internalRate, uint32_t ratio);

/// Prepares the three filters for a row of resamplingFilters (ratio 2 for row 0, 4 for row 1) and clears all
/// that the channel keeps. False if memory ran out; the channel then passes its blocks through.
/// Real time: no.
bool prepareChannel(const SHighRateChannel& channel, std::size_t row);

/// False after prepareChannel() ran out of memory, or without a delay buffer: no pass may run then.
bool isPrepared(const SHighRateChannel& channel);

/// Delay and high-pass, from inputBuffer to highBandBuffer. A delay other than the last block's changes where
/// the ring wraps next and moves nothing in it.
void highBandPass(const SHighRateChannel& channel, const SHighRateBlock& block, SHighBand band);

/// Low-pass, from inputBuffer to decimatedBuffer: frames / ratio samples, rounded down.
void decimate(const SHighRateChannel& channel, const SHighRateBlock& block);

/// From decimatedBuffer, frames / ratio samples rounded up, to inputBuffer.
void interpolate(const SHighRateChannel& channel, const SHighRateBlock& block);

/// Adds highBandBuffer to inputBuffer.
void sumBands(const SHighRateBlock& block);

/// All five passes. `runEngine(frames)` corrects that many samples of decimatedBuffer in place.
/// The phases of decimator and interpolator start anew with every block: a length that is no multiple of the
/// ratio is accepted and loses them. Real time: yes.
template<typename TRunEngine>
void processHighRate(const SHighRateChannel& channel, const SHighRateBlock& block, SHighBand band,
                     TRunEngine&& runEngine)
{
    if (!isPrepared(channel))
        return;
    highBandPass(channel, block, band);
    decimate(channel, block);
    runEngine(block.frames / channel.highPass.ratio);
    interpolate(channel, block);
    sumBands(block);
}

} // namespace korvo

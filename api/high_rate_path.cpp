// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/high_rate_path.h"

#include <algorithm>
#include <limits>

#include "api/multirate_tables.h"
#include "dsp/ring_dot.h"

namespace korvo {

namespace {

/// Toward zero, clamped to what 32 bits hold; NaN gives 0.
uint32_t truncated(float value)
{
    if (!(value > 0.0F))
        return 0;
    if (value >= 0x1p32F)
        return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(value);
}

korvodsp::SColumn columnOf(float* buffer, const SHighRateBlock& block)
{
    return {buffer + block.channel, block.channels};
}

korvodsp::SConstColumn constColumnOf(const float* buffer, const SHighRateBlock& block)
{
    return {buffer + block.channel, block.channels};
}

/// Out comes what the ring holds, in goes the new sample, at falling positions. In runs from wrap to wrap.
void delay(const SHighRateChannel& channel, const SHighRateBlock& block, uint32_t totalDelay)
{
    const float* in = block.inputBuffer + block.channel;
    float* out = block.highBandBuffer + block.channel;
    const std::size_t stride = block.channels;
    uint32_t index = channel.delayIndex;
    for (uint32_t frame = 0; frame < block.frames;)
    {
        const uint32_t run = std::min(block.frames - frame, index + 1);
        float* slot = channel.delayBuffer + index;
#pragma GCC unroll 8
        for (uint32_t i = 0; i < run; ++i)
        {
            *out = *slot;
            *slot = *in;
            --slot;
            in += stride;
            out += stride;
        }
        index = run <= index ? index - run : totalDelay;
        frame += run;
    }
    channel.delayIndex = index;
}

bool prepareFilter(FIR_MULTIRATE_FILTER_tag& filter, const float* coefs, int32_t length, uint32_t ratio,
                   int kind)
{
    filter.ratio = ratio;
    filter.length = length;
    filter.coefs = coefs;
    filter.delayIndex = 0;
    return prepareFIRcoefs(&filter, kind);
}

} // namespace

bool isHighRate(uint32_t rate)
{
    return rate == 176400 || rate == 192000 || rate == 352800 || rate == 384000;
}

uint32_t baseRateOf(uint32_t highRate)
{
    return highRate % 96000 == 0 ? 96000 : 88200;
}

std::size_t resamplingRowOf(uint32_t highRate)
{
    return highRate / (2 * baseRateOf(highRate)) - 1;
}

SHighBand highBandFor(const SHighBandSettings& settings, uint32_t internalRate, uint32_t ratio)
{
    float gain = settings.filterGain;
    uint32_t delay = settings.filterDelay;
    if (settings.delayAndGainEnabled)
    {
        // A whole number of samples per millisecond: 88 in the 44.1 kHz family, though the engine uses 88.2.
        const auto samplesPerMs = static_cast<float>(internalRate / 1000);
        gain *= settings.channelGain;
        delay = truncated(static_cast<float>(delay) + (settings.channelDelay * samplesPerMs + 0.5F));
    }
    // The product wraps in 32 bits; clamped after that, it still stays in the buffer.
    return {gain, std::min(delay * ratio, kMaxTotalDelay)};
}

bool prepareChannel(const SHighRateChannel& channel, std::size_t row)
{
    const SResamplingFilter& tables = resamplingFilters[row];
    const uint32_t ratio = row == 0 ? 2 : 4;
    bool done =
        prepareFilter(channel.interpolator, tables.lowPass, tables.lowPassLength, ratio, kInterpolatorKind);
    done &= prepareFilter(channel.decimator, tables.lowPass, tables.lowPassLength, ratio, kDecimatorKind);
    done &= prepareFilter(channel.highPass, tables.highPass, tables.highPassLength, ratio, kHighPassKind);
    channel.delayIndex = 0;
    if (channel.delayBuffer != nullptr)
        std::fill_n(channel.delayBuffer, kDelayBufferSize, 0.0F);
    return done && channel.delayBuffer != nullptr;
}

bool isPrepared(const SHighRateChannel& channel)
{
    return channel.decimator.paddedLength != 0 && channel.interpolator.paddedLength != 0 &&
           channel.highPass.paddedLength != 0 && channel.delayBuffer != nullptr;
}

void highBandPass(const SHighRateChannel& channel, const SHighRateBlock& block, SHighBand band)
{
    delay(channel, block, band.totalDelay);
    korvodsp::SRing ring = ringOf(channel.highPass);
    korvodsp::ringFilter(ring, channel.highPass.banks, constColumnOf(block.highBandBuffer, block),
                         columnOf(block.highBandBuffer, block), block.frames, band.gain);
    channel.highPass.delayIndex = ring.index;
}

void decimate(const SHighRateChannel& channel, const SHighRateBlock& block)
{
    korvodsp::SRing ring = ringOf(channel.decimator);
    korvodsp::ringDecimate(ring, channel.decimator.banks, channel.decimator.ratio,
                           constColumnOf(block.inputBuffer, block), columnOf(block.decimatedBuffer, block),
                           block.frames);
    channel.decimator.delayIndex = ring.index;
}

void interpolate(const SHighRateChannel& channel, const SHighRateBlock& block)
{
    const uint32_t ratio = channel.interpolator.ratio;
    korvodsp::SRing ring = ringOf(channel.interpolator);
    korvodsp::ringInterpolate(ring, channel.interpolator.banks, ratio,
                              constColumnOf(block.decimatedBuffer, block), columnOf(block.inputBuffer, block),
                              block.frames, static_cast<float>(ratio));
    channel.interpolator.delayIndex = ring.index;
}

void sumBands(const SHighRateBlock& block)
{
    const std::size_t stride = block.channels;
    float* sum = block.inputBuffer + block.channel;
    const float* high = block.highBandBuffer + block.channel;
    for (std::size_t i = 0; i < block.frames * stride; i += stride)
        sum[i] = high[i] + sum[i];
}

} // namespace korvo

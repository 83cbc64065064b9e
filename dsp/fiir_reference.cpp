// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/fiir_filter.h"
#include "dsp/fiir_kernels.h"

#include <cstddef>

namespace korvodsp {

namespace {

// Both kernels read delayPos once per sample and go on with what they read: FIIR_Reset may set it to 0 from
// another thread meanwhile.

float firSumDownwards(const FIIR_FILTER_tag& filter, std::uint32_t position)
{
    const float* taps = filter.firCoefs[0];
    const std::uint32_t untilWrap = filter.paddedTaps - position;
    float sum = 0.0F;
    for (std::uint32_t i = 0; i < untilWrap; ++i)
        sum += taps[i] * filter.delayLine[position + i];
    for (std::uint32_t i = 0; i < position; ++i)
        sum += taps[untilWrap + i] * filter.delayLine[i];
    return sum;
}

float addDirectFormTwo(const FIIR_FILTER_tag& filter, float delayed, float sum)
{
    for (std::uint32_t s = 0; s < filter.numSections; ++s)
    {
        FIIR_SECTION_tag& section = filter.sections[s];
        const float w =
            ((delayed - section.state1 * section.a1) - section.a2 * section.state2) + filter.denormalBias;
        const float y = section.state1 * section.b1 + w * section.b0;
        section.state2 = section.state1;
        section.state1 = w;
        sum += y;
    }
    return sum;
}

float addDirectFormOne(const FIIR_FILTER_tag& filter, float delayed, float sum)
{
    for (std::uint32_t s = 0; s < filter.numSections; ++s)
    {
        FIIR_SECTION_tag& section = filter.sections[s];
        const float forward = delayed * section.b0 + section.b1 * filter.prevInput;
        const float y =
            ((forward - section.state1 * section.a1) - section.a2 * section.state2) + filter.denormalBias;
        section.state2 = section.state1;
        section.state1 = y;
        sum += y;
    }
    return sum;
}

} // namespace

void FIIR_Ref(void* handle, const float* in, float* out, unsigned frames, unsigned channel, unsigned stride)
{
    FIIR_FILTER_tag& filter = *static_cast<FIIR_FILTER_tag*>(handle);
    const std::uint32_t length = filter.paddedTaps;
    for (unsigned i = 0; i < frames; ++i)
    {
        const std::size_t at = std::size_t{i} * stride + channel;
        const std::uint32_t position = filter.delayPos;
        // With no padding this is the slot that the new sample overwrites.
        const float delayed =
            filter.delayLine[position >= filter.tapPadding ? position - filter.tapPadding
                                                           : length + position - filter.tapPadding];
        filter.delayLine[position] = in[at];
        const float fir = firSumDownwards(filter, position);
        filter.delayPos = position == 0 ? length - 1 : position - 1;
        out[at] = addDirectFormTwo(filter, delayed, fir);
    }
    filter.denormalBias = -filter.denormalBias;
}

void FIIR_KorvoBaseReference(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                             unsigned stride)
{
    FIIR_FILTER_tag& filter = *static_cast<FIIR_FILTER_tag*>(handle);
    const std::uint32_t taps = filter.numTaps;
    for (unsigned i = 0; i < frames; ++i)
    {
        const std::size_t at = std::size_t{i} * stride + channel;
        const std::uint32_t newest = filter.delayPos;
        std::uint32_t position = newest;
        filter.delayLine[position] = in[at];
        float fir = 0.0F;
        for (std::uint32_t tap = 0; tap < taps; ++tap)
        {
            fir += filter.firCoefs[0][tap] * filter.delayLine[position];
            position = position == 0 ? taps : position - 1;
        }
        const float delayed = filter.delayLine[position];
        const float sum = addDirectFormOne(filter, delayed, fir);
        filter.prevInput = delayed;
        filter.delayPos = newest == taps ? 0 : newest + 1;
        out[at] = sum;
    }
    filter.denormalBias = -filter.denormalBias;
}

} // namespace korvodsp

// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/buffer_operations.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "dsp/fade.h"

// No result depends on the alignment of a buffer, so the vector paths run at any: a gain is one product per
// sample either way, and a maximum does not depend on its order. Only Saturate() calculates otherwise in a
// vector, and there the place of a sample in its buffer decides, and nothing else.

namespace korvodsp {

namespace {

__m128 magnitude(__m128 x)
{
    return _mm_andnot_ps(_mm_set1_ps(-0.0F), x);
}

/// The larger of both lane by lane, and `running` where `x` is NaN: the instruction gives its second operand
/// then, which is what `x > running ? x : running` does too.
__m128 larger(__m128 x, __m128 running)
{
    return _mm_max_ps(x, running);
}

/// Largest of prepare(data[i]) and 0.
template<typename Prepare>
float runningMax(const float* data, std::size_t count, Prepare prepare)
{
    // Four maxima of four lanes side by side, since one alone waits for its own result in every step.
    __m128 max0 = _mm_setzero_ps();
    __m128 max1 = max0;
    __m128 max2 = max0;
    __m128 max3 = max0;
    std::size_t i = 0;
    for (; i + 16 <= count; i += 16)
    {
        max0 = larger(prepare(_mm_loadu_ps(data + i)), max0);
        max1 = larger(prepare(_mm_loadu_ps(data + i + 4)), max1);
        max2 = larger(prepare(_mm_loadu_ps(data + i + 8)), max2);
        max3 = larger(prepare(_mm_loadu_ps(data + i + 12)), max3);
    }
    for (; i + 4 <= count; i += 4)
        max0 = larger(prepare(_mm_loadu_ps(data + i)), max0);
    for (; i < count; ++i)
        max1 = larger(prepare(_mm_load_ss(data + i)), max1);
    max0 = larger(larger(max0, max1), larger(max2, max3));
    max0 = larger(max0, _mm_movehl_ps(max0, max0));
    max0 = larger(max0, _mm_shuffle_ps(max0, max0, 1));
    return _mm_cvtss_f32(max0);
}

/// Four frames of two channels at `out`, the frames `stride` floats apart.
void storePairs(__m128 a, __m128 b, float* out, std::size_t stride)
{
    const __m128 low = _mm_unpacklo_ps(a, b);
    const __m128 high = _mm_unpackhi_ps(a, b);
    _mm_storel_pi(reinterpret_cast<__m64*>(out), low);
    _mm_storeh_pi(reinterpret_cast<__m64*>(out + stride), low);
    _mm_storel_pi(reinterpret_cast<__m64*>(out + 2 * stride), high);
    _mm_storeh_pi(reinterpret_cast<__m64*>(out + 3 * stride), high);
}

/// Two samples at each of two places.
__m128 loadPairs(const float* first, const float* second)
{
    const __m128 low = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(first));
    return _mm_loadh_pi(low, reinterpret_cast<const __m64*>(second));
}

/// Interleaves frames [f, f + 4).
void interleaveFour(const float* const* channels, float* out, std::size_t f, std::size_t numChannels)
{
    float* target = out + f * numChannels;
    std::size_t c = 0;
    for (; c + 4 <= numChannels; c += 4)
    {
        __m128 rows[4];
        for (std::size_t k = 0; k < 4; ++k)
            rows[k] = _mm_loadu_ps(channels[c + k] + f);
        _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
        for (std::size_t k = 0; k < 4; ++k)
            _mm_storeu_ps(target + k * numChannels + c, rows[k]);
    }
    for (; c + 2 <= numChannels; c += 2)
        storePairs(_mm_loadu_ps(channels[c] + f), _mm_loadu_ps(channels[c + 1] + f), target + c, numChannels);
    for (; c < numChannels; ++c)
        for (std::size_t k = 0; k < 4; ++k)
            target[k * numChannels + c] = channels[c][f + k];
}

/// Interleaves whole groups of four frames of two channels, the layout that is met most often.
/// @return the frames done
std::size_t interleaveStereo(const float* left, const float* right, float* out, std::size_t frames)
{
    std::size_t f = 0;
    for (; f + 4 <= frames; f += 4)
    {
        const __m128 a = _mm_loadu_ps(left + f);
        const __m128 b = _mm_loadu_ps(right + f);
        _mm_storeu_ps(out + 2 * f, _mm_unpacklo_ps(a, b));
        _mm_storeu_ps(out + 2 * f + 4, _mm_unpackhi_ps(a, b));
    }
    return f;
}

/// The reverse of interleaveStereo().
std::size_t deinterleaveStereo(const float* in, float* left, float* right, std::size_t frames)
{
    std::size_t f = 0;
    for (; f + 4 <= frames; f += 4)
    {
        const __m128 low = _mm_loadu_ps(in + 2 * f);
        const __m128 high = _mm_loadu_ps(in + 2 * f + 4);
        _mm_storeu_ps(left + f, _mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
        _mm_storeu_ps(right + f, _mm_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1)));
    }
    return f;
}

/// Deinterleaves frames [f, f + 4).
void deinterleaveFour(const float* in, float** channels, std::size_t f, std::size_t numChannels)
{
    const float* source = in + f * numChannels;
    std::size_t c = 0;
    for (; c + 4 <= numChannels; c += 4)
    {
        __m128 rows[4];
        for (std::size_t k = 0; k < 4; ++k)
            rows[k] = _mm_loadu_ps(source + k * numChannels + c);
        _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
        for (std::size_t k = 0; k < 4; ++k)
            _mm_storeu_ps(channels[c + k] + f, rows[k]);
    }
    for (; c + 2 <= numChannels; c += 2)
    {
        const float* pair = source + c;
        const __m128 low = loadPairs(pair, pair + numChannels);
        const __m128 high = loadPairs(pair + 2 * numChannels, pair + 3 * numChannels);
        _mm_storeu_ps(channels[c] + f, _mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
        _mm_storeu_ps(channels[c + 1] + f, _mm_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1)));
    }
    for (; c < numChannels; ++c)
        for (std::size_t k = 0; k < 4; ++k)
            channels[c][f + k] = source[k * numChannels + c];
}

} // namespace

void FadeBuffers(const float* from, const float* to, float* out, unsigned frames, unsigned channel,
                 unsigned stride)
{
    fadeColumn(from + channel, to + channel, out + channel, frames, stride);
}

void FadeOutBuffer(float* data, unsigned frames, unsigned channel, unsigned stride)
{
    CRaisedCosine window(frames);
    for (std::size_t k = 0, i = channel; k < frames; ++k, i += stride)
        data[i] *= window.next() + 0.5F;
}

void FadeInBuffer(float* data, unsigned frames, unsigned channel, unsigned stride)
{
    CRaisedCosine window(frames);
    for (std::size_t k = 0, i = channel; k < frames; ++k, i += stride)
        data[i] *= 0.5F - window.next();
}

void RouteAndMix(const float* in, float* out, unsigned firstFrame, unsigned endFrame, unsigned inChannels,
                 unsigned outChannels, const unsigned* routing)
{
    std::fill_n(out, std::size_t{endFrame} * outChannels, 0.0F);
    const unsigned routable = std::min(inChannels, 32U);
    for (unsigned o = 0; o < outChannels; ++o)
    {
        for (unsigned i = 0; i < routable; ++i)
        {
            if ((routing[o] >> i & 1U) == 0)
                continue;
            for (std::size_t f = firstFrame; f < endFrame; ++f)
                out[f * outChannels + o] += in[f * inChannels + i];
        }
    }
}

void ApplyGainRamp(float startGain, float endGain, const float* in, float* out, unsigned frames,
                   unsigned channels)
{
    const float step = (endGain - startGain) / static_cast<float>(frames);
    for (unsigned c = 0; c < channels; ++c)
    {
        float gain = startGain;
        for (std::size_t f = 0, i = c; f < frames; ++f, i += channels)
        {
            out[i] = in[i] * gain;
            gain += step;
        }
    }
}

void ApplyGain(float gain, const float* in, float* out, unsigned count)
{
    _mm_prefetch(in, _MM_HINT_T0);
    const __m128 factor = _mm_set1_ps(gain);
    std::size_t i = 0;
    for (; i + 16 <= count; i += 16)
    {
        const __m128 x0 = _mm_mul_ps(factor, _mm_loadu_ps(in + i));
        const __m128 x1 = _mm_mul_ps(factor, _mm_loadu_ps(in + i + 4));
        const __m128 x2 = _mm_mul_ps(factor, _mm_loadu_ps(in + i + 8));
        const __m128 x3 = _mm_mul_ps(factor, _mm_loadu_ps(in + i + 12));
        _mm_storeu_ps(out + i, x0);
        _mm_storeu_ps(out + i + 4, x1);
        _mm_storeu_ps(out + i + 8, x2);
        _mm_storeu_ps(out + i + 12, x3);
    }
    for (; i < count; ++i)
        out[i] = gain * in[i];
}

bool Saturate(const float* in, float* out, unsigned count, float threshold)
{
    _mm_prefetch(in, _MM_HINT_T0);
    const float k = threshold * threshold - threshold;
    const __m128 limit = _mm_set1_ps(threshold);
    const __m128 numerator = _mm_set1_ps(k);
    const __m128 offset = _mm_set1_ps(1e-20F);
    const __m128 one = _mm_set1_ps(1.0F);
    __m128 anyOver = _mm_setzero_ps();
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4)
    {
        const __m128 x = _mm_loadu_ps(in + i);
        const __m128 a = magnitude(x);
        const __m128 over = _mm_cmpgt_ps(a, limit);
        anyOver = _mm_or_ps(anyOver, over);
        const __m128 bent = _mm_add_ps(_mm_div_ps(numerator, _mm_add_ps(a, offset)), one);
        // The difference goes through the mask, as a product with 1 or 0 would, without the NaN of 0 *
        // infinity. A choice between `bent` and `a` looks the same but rounds otherwise.
        const __m128 result = _mm_add_ps(a, _mm_and_ps(over, _mm_sub_ps(bent, a)));
        _mm_storeu_ps(out + i, _mm_or_ps(result, _mm_and_ps(_mm_set1_ps(-0.0F), x)));
    }
    bool clean = _mm_movemask_ps(anyOver) == 0;
    for (; i < count; ++i)
    {
        const float a = std::fabs(in[i]);
        const bool over = a > threshold;
        clean = clean && !over;
        out[i] = over ? std::copysign(k / a + 1.0F, in[i]) : in[i];
    }
    return clean;
}

float MaxValue(const float* data, unsigned count)
{
    return runningMax(data, count, [](__m128 x) { return x; });
}

float AbsMaxValue(const float* data, unsigned count)
{
    return runningMax(data, count, magnitude);
}

bool AbsMax(const float* data, unsigned count, float threshold)
{
    return AbsMaxValue(data, count) >= threshold;
}

void Interleave(const float* const* channels, float* out, unsigned frames, unsigned numChannels)
{
    std::size_t f = 0;
    if (numChannels == 2 && frames > 0)
        f = interleaveStereo(channels[0], channels[1], out, frames);
    for (; f + 4 <= frames; f += 4)
        interleaveFour(channels, out, f, numChannels);
    for (; f < frames; ++f)
        for (std::size_t c = 0; c < numChannels; ++c)
            out[f * numChannels + c] = channels[c][f];
}

void Deinterleave(const float* in, float** channels, unsigned frames, unsigned numChannels)
{
    std::size_t f = 0;
    if (numChannels == 2 && frames > 0)
        f = deinterleaveStereo(in, channels[0], channels[1], frames);
    for (; f + 4 <= frames; f += 4)
        deinterleaveFour(in, channels, f, numChannels);
    for (; f < frames; ++f)
        for (std::size_t c = 0; c < numChannels; ++c)
            channels[c][f] = in[f * numChannels + c];
}

} // namespace korvodsp

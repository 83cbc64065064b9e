// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/biquad.h"

#include <cmath>
#include <cstddef>
#include <new>

namespace korvodsp {

namespace {

constexpr float kDenormalBias = 1e-20F;
constexpr float kPi = 3.1415927F;

struct SBiquad
{
    float a1, a2;
    float b0, b1, b2;
    float z1, z2;
    float denormalBias;
};
static_assert(sizeof(SBiquad) == 8 * sizeof(float));

SBiquad& section(void* handle)
{
    return *static_cast<SBiquad*>(handle);
}

/// The quantities that both designs are made of.
struct SPrototype
{
    float c;     ///< cosine of the normalised angular frequency
    float alpha; ///< half the bandwidth
    float r;     ///< 1 / a0

    SPrototype(float sampleRate, float cutoff, float q)
    {
        const float omega = (cutoff + cutoff) * kPi / sampleRate;
        alpha = std::sin(omega) / (q + q);
        c = std::cos(omega);
        r = 1.0F / (alpha + 1.0F);
    }
};

/// Filters `count` samples, the first at `sample` and the next `step` further on.
void process(SBiquad& s, float* sample, unsigned count, std::ptrdiff_t step)
{
    const float a1 = s.a1;
    const float a2 = s.a2;
    const float b0 = s.b0;
    const float b1 = s.b1;
    const float b2 = s.b2;
    const float bias = s.denormalBias;
    float z1 = s.z1;
    float z2 = s.z2;
    for (unsigned i = 0; i < count; ++i)
    {
        float& x = sample[static_cast<std::ptrdiff_t>(i) * step];
        const float w = ((x - z1 * a1) - z2 * a2) + bias;
        x = (z1 * b1 + z2 * b2) + w * b0;
        z2 = z1;
        z1 = w;
    }
    s.z1 = z1;
    s.z2 = z2;
    s.denormalBias = -bias;
}

} // namespace

bool BQ_Init(void** handle)
{
    return BQ_Init(handle, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F);
}

bool BQ_Init(void** handle, float b0, float b1, float b2, float a1, float a2)
{
    auto* made = new (std::nothrow) SBiquad{a1, a2, b0, b1, b2, 0.0F, 0.0F, kDenormalBias};
    if (made == nullptr)
        return false;
    *handle = made;
    return true;
}

void BQ_SetCoeffs(void* handle, float b0, float b1, float b2, float a1, float a2)
{
    SBiquad& s = section(handle);
    s.a1 = a1;
    s.a2 = a2;
    s.b0 = b0;
    s.b1 = b1;
    s.b2 = b2;
}

void BQ_SetCoeffsRaw(void* handle, float b0, float b1, float b2, float a0, float a1, float a2)
{
    const float r = 1.0F / a0;
    BQ_SetCoeffs(handle, r * b0, r * b1, r * b2, r * a1, r * a2);
}

void BQ_Reset(void* handle)
{
    SBiquad& s = section(handle);
    s.z1 = 0.0F;
    s.z2 = 0.0F;
}

void BQ_Discard(void* handle)
{
    delete static_cast<SBiquad*>(handle);
}

void BQ_Process(void* handle, float* data, unsigned count)
{
    process(section(handle), data, count, 1);
}

void BQ_ProcessBackwards(void* handle, float* data, unsigned count)
{
    process(section(handle), count == 0 ? data : data + (count - 1), count, -1);
}

void BQ_MakeLoPass(void* handle, float sampleRate, float cutoff, float q)
{
    const SPrototype p(sampleRate, cutoff, q);
    const float b0 = ((1.0F - p.c) * 0.5F) * p.r;
    BQ_SetCoeffs(handle, b0, (1.0F - p.c) * p.r, b0, (p.c * -2.0F) * p.r, (1.0F - p.alpha) * p.r);
}

void BQ_MakeHiPass(void* handle, float sampleRate, float cutoff, float q)
{
    const SPrototype p(sampleRate, cutoff, q);
    const float b0 = ((p.c + 1.0F) * 0.5F) * p.r;
    BQ_SetCoeffs(handle, b0, -(p.c + 1.0F) * p.r, b0, (p.c * -2.0F) * p.r, (1.0F - p.alpha) * p.r);
}

} // namespace korvodsp

// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/peak.h"

#include <immintrin.h>

namespace korvobench {

namespace {

constexpr int kSums = 12;
constexpr long kRounds = 20000;

// The product is made anew in every round: the empty statement makes the compiler believe that x has changed.
#define KORVO_PEAK_LOOP(name, isa, Vector, set1, add, multiply)                                              \
    __attribute__((target(isa))) void name(float* result)                                                    \
    {                                                                                                        \
        Vector sums[kSums];                                                                                  \
        for (Vector & sum : sums)                                                                            \
            sum = set1(0.0F);                                                                                \
        Vector x = set1(1.0F);                                                                               \
        const Vector tap = set1(0.5F);                                                                       \
        for (long round = 0; round < kRounds; ++round)                                                       \
        {                                                                                                    \
            _Pragma("GCC unroll 12") for (Vector & sum : sums)                                               \
            {                                                                                                \
                asm volatile("" : "+v"(x));                                                                  \
                sum = add(sum, multiply(x, tap));                                                            \
            }                                                                                                \
        }                                                                                                    \
        _Pragma("GCC unroll 12") for (const Vector& sum : sums) x = add(x, sum);                             \
        *result = x[0];                                                                                      \
    }

KORVO_PEAK_LOOP(loop512, "avx512f", __m512, _mm512_set1_ps, _mm512_add_ps, _mm512_mul_ps)
KORVO_PEAK_LOOP(loop256, "avx", __m256, _mm256_set1_ps, _mm256_add_ps, _mm256_mul_ps)
KORVO_PEAK_LOOP(loop128, "sse2", __m128, _mm_set1_ps, _mm_add_ps, _mm_mul_ps)
#undef KORVO_PEAK_LOOP

volatile float s_sink;

template<void (*loop)(float*)>
void runToSink()
{
    float result = 0.0F;
    loop(&result);
    s_sink = result;
}

constexpr double kMultiplyAddsPerLane = static_cast<double>(kRounds) * kSums;

} // namespace

SPeakLoop multiplyAddPeak()
{
    if (__builtin_cpu_supports("avx512f") != 0)
        return {runToSink<loop512>, 16 * kMultiplyAddsPerLane};
    if (__builtin_cpu_supports("avx") != 0)
        return {runToSink<loop256>, 8 * kMultiplyAddsPerLane};
    return {runToSink<loop128>, 4 * kMultiplyAddsPerLane};
}

} // namespace korvobench

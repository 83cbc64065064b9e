// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/multirate_tables.h"

namespace korvo {

namespace {

// Both low-pass tables begin with zeros and are symmetric about their last entry here. The zeros shift them,
// so that the centres of both bands meet: twice the low-pass, less what the order of the passes saves, is the
// high-pass's centre.
// clang-format off
constexpr std::array<float, 23> kLowPass2Half = {
                0.0F,             0.0F, -6.40006783e-06F,  -3.3648299e-05F, -6.96251955e-05F,
    -1.39377444e-05F,  0.000276050239F,  0.000694055634F,  0.000584037742F, -0.000874189136F,
     -0.00328438706F,  -0.00393849192F,  0.000592408061F,   0.00974439271F,    0.0154221207F,
      0.00616530608F,    -0.020179173F,   -0.0454617068F,   -0.0364474878F,    0.0307212584F,
        0.144072324F,     0.252997011F,     0.298080266F};
// clang-format on

// clang-format off
constexpr std::array<float, 45> kLowPass4Half = {
                0.0F,             0.0F,             0.0F,             0.0F, -9.81993026e-07F,
    -3.69924123e-06F, -9.15786859e-06F, -1.71990123e-05F, -2.52785958e-05F,  -2.7398828e-05F,
    -1.43172365e-05F,  2.39700512e-05F,  9.30445749e-05F,  0.000186988735F,   0.00028184909F,
     0.000333425094F,  0.000283414149F,  7.63230564e-05F, -0.000314114324F, -0.000855305465F,
     -0.00143400393F,  -0.00185563264F,  -0.00187564734F,  -0.00126595516F,  9.30439055e-05F,
       0.0021179847F,   0.00445904536F,   0.00650240434F,   0.00746312412F,   0.00657042069F,
      0.00331722084F,  -0.00228340598F,   -0.0095108198F,   -0.0168930888F,   -0.0223569274F,
       -0.023575848F,   -0.0184653159F,  -0.00572288223F,    0.0147183286F,    0.0414511599F,
       0.0716596544F,     0.101508148F,     0.126793668F,     0.143729702F,     0.149688333F};
// clang-format on

/// One piece of memory, in an order that matters: the interpolator of ratio 4 reads on behind b_lp4, over the
/// three zeros and into b_hp2.
struct SConstantBlock
{
    static constexpr std::size_t kHighPass4 = 0;
    static constexpr std::size_t kLowPass4 = kHighPass4 + kHighPass4Size;
    static constexpr std::size_t kHighPass2 = kLowPass4 + kLowPass4Size + 3;
    static constexpr std::size_t kLowPass2 = kHighPass2 + kHighPass2Size;

    std::array<float, kLowPass2 + kLowPass2Size> floats = {};
};

/// What two passes of a symmetric low-pass leave of a unit impulse at `centre`: d(n, centre) - (g * g)[n +
/// shift], g being the half table mirrored about its last entry. In double precision, where all products are
/// exact.
template<std::size_t half>
constexpr void fillHighPass(float* out, std::size_t size, const std::array<float, half>& table,
                            std::size_t centre, std::size_t shift)
{
    const auto g = [&table](std::size_t i) {
        return static_cast<double>(table[i < half ? i : 2 * half - 2 - i]);
    };
    for (std::size_t n = 0; n < size; ++n)
    {
        const std::size_t sum = n + shift;
        double convolved = 0.0;
        for (std::size_t i = 0; i < 2 * half - 1; ++i)
            if (i <= sum && sum - i < 2 * half - 1)
                convolved += g(i) * g(sum - i);
        out[n] = static_cast<float>((n == centre ? 1.0 : 0.0) - convolved);
    }
}

template<std::size_t half>
constexpr void fillLowPass(float* out, std::size_t size, const std::array<float, half>& table)
{
    for (std::size_t i = 0; i < size; ++i)
        out[i] = table[i < half ? i : 2 * half - 2 - i];
}

constexpr SConstantBlock makeConstantBlock()
{
    SConstantBlock block;
    float* floats = block.floats.data();
    fillHighPass(floats + SConstantBlock::kHighPass4, kHighPass4Size, kLowPass4Half, 81, 7);
    fillLowPass(floats + SConstantBlock::kLowPass4, kLowPass4Size, kLowPass4Half);
    fillHighPass(floats + SConstantBlock::kHighPass2, kHighPass2Size, kLowPass2Half, 41, 3);
    fillLowPass(floats + SConstantBlock::kLowPass2, kLowPass2Size, kLowPass2Half);
    return block;
}

constexpr SConstantBlock s_block = makeConstantBlock();

} // namespace

const std::array<SResamplingFilter, 2> resamplingFilters = {
    {{&s_block.floats[SConstantBlock::kLowPass2], 42, &s_block.floats[SConstantBlock::kHighPass2], 82},
     {&s_block.floats[SConstantBlock::kLowPass4], 82, &s_block.floats[SConstantBlock::kHighPass4], 162}}};

} // namespace korvo

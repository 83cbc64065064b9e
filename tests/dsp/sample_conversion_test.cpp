// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/sample_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>
#include <xmmintrin.h>

#include "dsp/sample_conversion_blocks.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"

namespace {

using namespace korvodsp;
using korvotest::CGuardedBuffer;
using bytes_t = std::vector<unsigned char>;

constexpr unsigned kRounding = 0x6000;
constexpr unsigned kTowardNegative = 0x2000;
constexpr unsigned kFlags = 0x3F;

struct SFormat
{
    int bits;
    std::size_t size;
    unsigned leastCount; ///< for the vector path
    bool (*read)(const void*, float*, unsigned);
    bool (*write)(const float*, void*, unsigned);
};

const SFormat kFormats[] = {{16, 2, 8, NativeInt16ToFloat32_X86, Float32ToNativeInt16_X86},
                            {20, 3, 6, NativeInt20ToFloat32_X86, Float32ToNativeInt20_X86},
                            {24, 3, 6, NativeInt24ToFloat32_X86, Float32ToNativeInt24_X86},
                            {32, 4, 4, NativeInt32ToFloat32_X86, Float32ToNativeInt32_X86}};

bool onBoundary(const void* pointer, std::size_t boundary)
{
    return reinterpret_cast<std::uintptr_t>(pointer) % boundary == 0;
}

bool readsByVector(const SFormat& format, const void* dst, unsigned count)
{
    return count >= format.leastCount && (format.size == 3 || onBoundary(dst, 4));
}

bool writesByVector(const SFormat& format, const void* src, const void* dst, unsigned count)
{
    return count >= format.leastCount &&
           (format.size == 3 ? onBoundary(src, 4) : onBoundary(dst, format.size));
}

// Plain models in integers and extended precision.

int64_t integerAt(const unsigned char* bytes, std::size_t size)
{
    int64_t word = 0;
    std::memcpy(&word, bytes, size);
    const int unused = 64 - 8 * static_cast<int>(size);
    return word << unused >> unused;
}

float modelRead(const SFormat& format, int64_t value)
{
    return static_cast<float>(
        std::ldexp(static_cast<long double>(value), 1 - static_cast<int>(8 * format.size)));
}

/// The largest float that is not above `value`.
float roundedDown(long double value)
{
    const auto nearest = static_cast<float>(value);
    return nearest > value ? std::nextafterf(nearest, -std::numeric_limits<float>::infinity()) : nearest;
}

/// What a float of the vector path becomes: bytes and clipping.
int64_t modelVectorWrite(const SFormat& format, float x, bool& clipped)
{
    const long double lowest = format.bits == 16 ? -0x1p15L : -0x1p31L;
    const long double highest = format.bits == 16 ? 32767.0L : 2147483520.0L;
    int64_t result = static_cast<int64_t>(lowest);
    if (!std::isnan(x))
    {
        const float product = roundedDown(static_cast<long double>(x) * -lowest);
        const long double v = static_cast<long double>(roundedDown(static_cast<long double>(product) + 0.5L));
        clipped = clipped || v > highest || v < lowest;
        result = static_cast<int64_t>(std::floor(std::clamp(v, lowest, highest)));
    }
    return format.size != 3 ? result : result >> 8 & (format.bits == 20 ? 0x000FFFFF : 0x00FFFFFF);
}

int64_t modelScalarWrite(const SFormat& format, float x)
{
    const long double v = static_cast<long double>(x) * 0x1p31L + (format.bits == 16 ? 0x1p15L : 0.5L);
    const auto word = static_cast<int64_t>(v > -0x1p31L ? std::min(v, 0x1p31L - 1) : -0x1p31L); // NaN as well
    return word >> (32 - 8 * format.size);
}

// The public functions take the best vector path that the machine has. Every one that it has is tested beside
// them, by name; `variant` is null for the public functions.

bool read(const SBlockConversions* variant, const SFormat& format, const void* src, float* dst,
          unsigned count)
{
    if (variant == nullptr || !readsByVector(format, dst, count))
        return format.read(src, dst, count);
    const auto byVariant = format.size == 2   ? variant->readInt16
                           : format.size == 3 ? variant->readInt24
                                              : variant->readInt32;
    return byVariant(static_cast<const unsigned char*>(src), reinterpret_cast<unsigned char*>(dst), count,
                     format.bits == 20 ? 0xFFFFF000 : 0xFFFFFF00);
}

bool write(const SBlockConversions* variant, const SFormat& format, const float* src, void* dst,
           unsigned count)
{
    if (variant == nullptr || !writesByVector(format, src, dst, count))
        return format.write(src, dst, count);
    const auto byVariant = format.size == 2   ? variant->writeInt16
                           : format.size == 3 ? variant->writeInt24
                                              : variant->writeInt32;
    const unsigned control = _mm_getcsr();
    _mm_setcsr((control & ~kRounding) | kTowardNegative);
    const bool clipped =
        byVariant(reinterpret_cast<const unsigned char*>(src), static_cast<unsigned char*>(dst), count,
                  format.bits == 20 ? 0x0FFFFF : 0xFFFFFF);
    _mm_setcsr(control);
    return clipped;
}

/// Noise, now and then a value at an edge, and any bit pattern whatever.
std::vector<float> makeHardFloats(std::mt19937& random, std::size_t count)
{
    const float edges[] = {0.0F,           1.0F,           1e30F,           INFINITY,      NAN,
                           1e-42F,         1e-20F,         0x1p-32F,        0x1.8p-31F,    0x1.8p-15F,
                           0x1.fffffep-1F, 0x1.000002p+0F, 0x1.fffffep-17F, 0x1.fffffep-8F};
    std::vector<float> floats = korvotest::makeNoise(random, count, 1.1F);
    for (float& x : floats)
    {
        if (random() % 8 == 0)
            x = std::copysign(edges[random() % std::size(edges)], x);
        else if (random() % 8 == 0)
            x = std::bit_cast<float>(uint32_t(random()));
    }
    return floats;
}

/// Memory that ends where it must not be read any further, so that AddressSanitizer sees it.
struct SSource
{
    unsigned char* data() { return storage.data() + misalignment; }

    std::size_t misalignment;
    bytes_t storage;
};

void expectModelRead(const SBlockConversions* variant, const SFormat& format, unsigned count, SSource src,
                     std::size_t dstOffset, std::mt19937& random)
{
    CGuardedBuffer<float> dst(count, dstOffset);
    const auto kind = random() % 3; // silence, one quiet sample, noise
    if (kind == 1 && count > 0)
        src.data()[random() % count * format.size] = 15;
    for (std::size_t i = 0; kind == 2 && i < count * format.size; ++i)
        src.data()[i] = static_cast<unsigned char>(random());

    const bool silent = read(variant, format, src.data(), dst.data(), count);
    const bool masked = format.bits == 20 && readsByVector(format, dst.data(), count);
    int64_t seen = 0;
    std::vector<float> expected;
    for (unsigned i = 0; i < count; ++i)
    {
        const int64_t value = integerAt(src.data() + i * format.size, format.size) & (masked ? ~15LL : ~0LL);
        seen |= value;
        expected.push_back(modelRead(format, value));
    }
    EXPECT_TRUE(korvotest::sameBits(dst.values(), expected));
    EXPECT_EQ(silent, seen == 0);
    EXPECT_TRUE(dst.intact());
}

void expectModelWrite(const SBlockConversions* variant, const SFormat& format, unsigned count, SSource src,
                      std::size_t dstOffset, std::mt19937& random)
{
    CGuardedBuffer<unsigned char> dst(count * format.size, dstOffset);
    const std::vector<float> floats =
        random() % 3 == 0 ? korvotest::makeNoise(random, count) : makeHardFloats(random, count);
    std::copy_n(reinterpret_cast<const unsigned char*>(floats.data()), 4 * count, src.data());

    // Two bits of rounding, two that flush to zero, exceptions masked and one flag raised: the caller's
    // rounding makes no difference, and the caller gets it all back.
    const auto mode = static_cast<unsigned>(random());
    const unsigned before = 0x1F88U | (mode & 3) << 13 | (mode & 4) << 13 | (mode & 8) << 3;
    const unsigned callers = _mm_getcsr();
    _mm_setcsr(before);
    const auto* const data = reinterpret_cast<const float*>(src.data());
    const bool clipped = write(variant, format, data, dst.data(), count);
    const unsigned after = _mm_getcsr();
    _mm_setcsr(callers);
    EXPECT_EQ(after & ~kFlags, before & ~kFlags);
    EXPECT_EQ(after & before & kFlags, before & kFlags);
    bool shouldClip = false;
    for (unsigned i = 0; i < count; ++i)
    {
        const int64_t expected = writesByVector(format, data, dst.data(), count)
                                     ? modelVectorWrite(format, floats[i], shouldClip)
                                     : modelScalarWrite(format, floats[i]);
        ASSERT_EQ(std::memcmp(dst.data() + i * format.size, &expected, format.size), 0)
            << "sample " << i << ": " << floats[i];
    }
    EXPECT_EQ(clipped, shouldClip);
    EXPECT_TRUE(dst.intact());
}

TEST(SampleConversion, IsThePlainModelInEveryShape)
{
    std::mt19937 random = korvotest::makeRandom(351);
    const std::pair<std::size_t, std::size_t> misalignments[] = {{0, 0}, {4, 0}, {0, 4},   {12, 8}, {1, 0},
                                                                 {0, 1}, {2, 6}, {13, 14}, {20, 15}};
    std::vector<const SBlockConversions*> variants = {nullptr};
    variants.insert(variants.end(), availableConversions().begin(), availableConversions().end());
    ASSERT_EQ(variants.back(), &kSse2Conversions);
    for (const SBlockConversions* variant : variants)
        for (const SFormat& format : kFormats)
            for (unsigned count = 0; count <= 141; ++count)
                for (const auto& [src, dst] : misalignments)
                {
                    const unsigned n = count == 141 ? 4096 : count;
                    SCOPED_TRACE(std::to_string(n) + " of " + std::to_string(format.bits) + " bits at " +
                                 std::to_string(src) + " to " + std::to_string(dst) +
                                 (variant != nullptr ? std::string(", ") + variant->name : ""));
                    expectModelRead(variant, format, n, {src, bytes_t(src + n * format.size)}, dst, random);
                    expectModelWrite(variant, format, n, {src, bytes_t(src + n * sizeof(float))}, dst,
                                     random);
                    ASSERT_FALSE(HasFailure());
                }
}

// A load under a mask is one that AddressSanitizer does not see.
TEST(SampleConversion, ReadsNothingBehindItsSource)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    unsigned char* const end = static_cast<unsigned char*>(memory) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    bytes_t dst(141 * sizeof(float));
    for (const SBlockConversions* variant : availableConversions())
        for (const SFormat& format : kFormats)
            for (unsigned count = 0; count <= 141; ++count)
            {
                auto* const floats = reinterpret_cast<float*>(dst.data());
                EXPECT_TRUE(read(variant, format, end - count * format.size, floats, count));
                const auto* const silence = reinterpret_cast<const float*>(end - count * sizeof(float));
                EXPECT_FALSE(write(variant, format, silence, dst.data(), count));
            }
    munmap(memory, 2 * page);
}

TEST(SampleConversion, WritesKnownValues)
{
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    struct
    {
        int bits;
        unsigned count;
        float x;
        int64_t expected;
        bool clipped;
    } const rows[] = {
        {16, 8, 65537.0F, 0x7FFF, true},         // beyond 32 bits before the clamp
        {16, 8, 32767.0F / 32768, 0x7FFF, true}, // v is 32767.5
        {16, 7, kNaN, -32768, false},
        {16, 8, 0.49999997F / 32768, 0, false}, // 0.99999997 is no float: 1.0 to nearest, below 1.0 downward
        {16, 7, -1.6F / 32768, -2, false},      // the shift floors
        {32, 4, 1.0F, 0x7FFFFF80, true},
        {32, 3, 1.0F, 0x7FFFFFFF, false},
        {32, 4, kNaN, -2147483648LL, false},
        {32, 4, 16777215.0F * 0x1p-31F, 16777215, false}, // 16777216 to nearest
        {32, 3, -1.6F * 0x1p-31F, -1, false},             // the truncation does not floor
        {24, 6, 1.0F, 0x7FFFFF, true},
        {20, 6, -0.5F, 0, false},
        {20, 5, -0.5F, -0x400000, false},
    };
    for (const auto& row : rows)
        for (const SFormat& format : kFormats)
            if (format.bits == row.bits)
            {
                SCOPED_TRACE(std::to_string(row.bits) + " bits, " + std::to_string(row.x));
                const std::vector<float> src(row.count, row.x);
                bytes_t dst(row.count * format.size);
                EXPECT_EQ(format.write(src.data(), dst.data(), row.count), row.clipped);
                for (std::size_t at = 0; at < dst.size(); at += format.size)
                    EXPECT_EQ(integerAt(dst.data() + at, format.size), row.expected);
            }
}

} // namespace

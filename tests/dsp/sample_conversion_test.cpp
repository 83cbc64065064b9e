// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/sample_conversion.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>

#include <sys/mman.h>
#include <unistd.h>
#include <xmmintrin.h>

#include "dsp/sample_conversion_blocks.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace {

using namespace korvodsp;
using korvotest::CGuardedBuffer;
using bytes_t = std::vector<unsigned char>;

constexpr unsigned kRounding = 0x6000;
constexpr unsigned kTowardNegative = 0x2000;
constexpr unsigned kFlags = 0x3F;

/// What the format means: bytes per sample, and the condition for the vector path.
struct SFormat
{
    const char* name;
    int bits;
    std::size_t size;
    unsigned leastCount;
    bool (*read)(const void*, float*, unsigned);
    bool (*write)(const float*, void*, unsigned);
};

const std::array<SFormat, 4> kFormats = {
    {{"Int16", 16, 2, 8, NativeInt16ToFloat32_X86, Float32ToNativeInt16_X86},
     {"Int20", 20, 3, 6, NativeInt20ToFloat32_X86, Float32ToNativeInt20_X86},
     {"Int24", 24, 3, 6, NativeInt24ToFloat32_X86, Float32ToNativeInt24_X86},
     {"Int32", 32, 4, 4, NativeInt32ToFloat32_X86, Float32ToNativeInt32_X86}}};

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
    uint64_t word = 0;
    for (std::size_t i = 0; i < size; ++i)
        word |= uint64_t{bytes[i]} << (8 * i);
    const uint64_t sign = uint64_t{1} << (8 * size - 1);
    return static_cast<int64_t>(word ^ sign) - static_cast<int64_t>(sign);
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
    const bool is16 = format.bits == 16;
    const long double lowest = is16 ? -32768.0L : -2147483648.0L;
    const long double highest = is16 ? 32767.0L : 2147483520.0L;
    int64_t result = static_cast<int64_t>(lowest);
    if (!std::isnan(x))
    {
        const float product = roundedDown(static_cast<long double>(x) * (is16 ? 32768.0L : 2147483648.0L));
        const float v = roundedDown(static_cast<long double>(product) + 0.5L);
        clipped = clipped || v > highest || v < lowest;
        result = static_cast<int64_t>(std::floor(std::min(std::max<long double>(v, lowest), highest)));
    }
    if (format.size == 3)
        result = (result >> 8) & (format.bits == 20 ? 0x000FFFFF : 0x00FFFFFF);
    return result;
}

int64_t modelScalarWrite(const SFormat& format, float x)
{
    const bool is16 = format.bits == 16;
    const long double v = static_cast<long double>(x) * 2147483648.0L + (is16 ? 32768.0L : 0.5L);
    int64_t result = -2147483648LL;
    if (v >= (is16 ? 2147450879.0L : 2147483646.5L))
        result = is16 ? 0x7FFF0000LL : 0x7FFFFFFFLL;
    else if (v > -2147483648.0L)
        result = static_cast<int64_t>(std::trunc(v));
    return result >> (32 - 8 * format.size);
}

/// Public functions and the vector paths of every instruction set that this machine has.
struct SConversions
{
    std::string name;
    const SBlockConversions* blocks = nullptr;

    bool read(const SFormat& format, const void* src, float* dst, unsigned count) const
    {
        if (blocks == nullptr || !readsByVector(format, dst, count))
            return format.read(src, dst, count);
        const auto* from = static_cast<const unsigned char*>(src);
        auto* to = reinterpret_cast<unsigned char*>(dst);
        if (format.size == 3)
            return blocks->readInt24(from, to, count, format.bits == 20 ? 0xFFFFF000 : 0xFFFFFF00);
        return (format.size == 2 ? blocks->readInt16 : blocks->readInt32)(from, to, count);
    }

    bool write(const SFormat& format, const float* src, void* dst, unsigned count) const
    {
        if (blocks == nullptr || !writesByVector(format, src, dst, count))
            return format.write(src, dst, count);
        const auto* from = reinterpret_cast<const unsigned char*>(src);
        auto* to = static_cast<unsigned char*>(dst);
        const unsigned control = _mm_getcsr();
        _mm_setcsr((control & ~kRounding) | kTowardNegative);
        bool clipped;
        if (format.size == 3)
            clipped = blocks->writeInt24(from, to, count, format.bits == 20 ? 0x000FFFFF : 0x00FFFFFF);
        else
            clipped = (format.size == 2 ? blocks->writeInt16 : blocks->writeInt32)(from, to, count);
        _mm_setcsr(control);
        return clipped;
    }
};

std::vector<SConversions> allConversions()
{
    std::vector<SConversions> all = {{"public", nullptr}, {kSse2Conversions.name, &kSse2Conversions}};
    if (cpuHasAvx2())
        all.push_back({kAvx2Conversions.name, &kAvx2Conversions});
    return all;
}

/// Calls `check` with every conversion, format, length and pair of misalignments.
void forAllShapes(
    const std::function<void(const SConversions&, const SFormat&, unsigned, std::size_t, std::size_t)>& check)
{
    std::vector<unsigned> counts = {4096};
    for (unsigned count = 0; count <= 40; ++count)
        counts.push_back(count);
    for (const SConversions& conversions : allConversions())
        for (const SFormat& format : kFormats)
            for (const unsigned count : counts)
                for (const auto& [src, dst] : {std::pair<std::size_t, std::size_t>{0, 0},
                                               {4, 0},
                                               {0, 4},
                                               {12, 8},
                                               {1, 0},
                                               {0, 1},
                                               {2, 6},
                                               {13, 14},
                                               {20, 15}})
                    if (count <= 40 || src + dst < 8)
                        check(conversions, format, count, src, dst);
}

/// Full-range noise, now and then a value at an edge, and any bit pattern whatever.
std::vector<float> makeHardFloats(std::mt19937& random, std::size_t count, float amplitude)
{
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const std::vector<float> edges = {0.0F,
                                      -0.0F,
                                      1.0F,
                                      -1.0F,
                                      0x1.fffffep-1F,
                                      0.49999997F / 32768,
                                      -0x1p-32F,
                                      -0x1.8p-31F,
                                      -0x1.8p-15F,
                                      1e30F,
                                      -1e30F,
                                      kInf,
                                      -kInf,
                                      std::nanf(""),
                                      1e-42F,
                                      -1e-42F,
                                      16777215.0F * 0x1p-31F,
                                      -0x1.000002p+0F};
    std::vector<float> floats = korvotest::makeNoise(random, count, amplitude);
    for (float& x : floats)
        if (random() % 4 == 0)
            x = random() % 2 == 0 ? edges[random() % edges.size()] : std::bit_cast<float>(uint32_t(random()));
    return floats;
}

TEST(SampleConversion, ReadsEveryShapeAsThePlainModel)
{
    std::mt19937 random = korvotest::makeRandom(351);
    forAllShapes([&](const auto& conversions, const SFormat& format, unsigned count, auto srcOffset,
                     auto dstOffset) {
        CGuardedBuffer<unsigned char> src(count * format.size, srcOffset);
        CGuardedBuffer<float> dst(count, dstOffset);
        const auto kind = random() % 3; // silence, one quiet sample, noise
        for (std::size_t i = 0; i < src.size(); ++i)
            src.set(i, kind == 2 ? static_cast<unsigned char>(random()) : 0);
        if (kind == 1 && count > 0)
            src.set(random() % count * format.size, 15);

        const bool silent = conversions.read(format, src.data(), dst.data(), count);
        const bool masked = format.bits == 20 && readsByVector(format, dst.data(), count);
        int64_t seen = 0;
        for (unsigned i = 0; i < count; ++i)
        {
            const int64_t value =
                integerAt(src.data() + i * format.size, format.size) & (masked ? ~15LL : ~0LL);
            seen |= value;
            ASSERT_EQ(std::bit_cast<uint32_t>(dst.get(i)), std::bit_cast<uint32_t>(modelRead(format, value)))
                << conversions.name << ' ' << format.name << " sample " << i << " of " << count;
        }
        ASSERT_EQ(silent, seen == 0) << conversions.name << ' ' << format.name << ' ' << count;
        ASSERT_TRUE(dst.intact() && src.intact()) << conversions.name << ' ' << format.name << ' ' << count;
    });
}

TEST(SampleConversion, WritesEveryShapeAsThePlainModel)
{
    std::mt19937 random = korvotest::makeRandom(352);
    forAllShapes([&](const auto& conversions, const SFormat& format, unsigned count, auto srcOffset,
                     auto dstOffset) {
        CGuardedBuffer<float> src(count, srcOffset);
        CGuardedBuffer<unsigned char> dst(count * format.size, dstOffset);
        src.assign(random() % 3 == 0 ? korvotest::makeNoise(random, count)
                                     : makeHardFloats(random, count, 1.1F));

        const bool clipped = conversions.write(format, src.data(), dst.data(), count);
        const bool byVector = writesByVector(format, src.data(), dst.data(), count);
        bool shouldClip = false;
        for (unsigned i = 0; i < count; ++i)
        {
            const float x = src.get(i);
            const int64_t expected =
                byVector ? modelVectorWrite(format, x, shouldClip) : modelScalarWrite(format, x);
            const uint64_t bytesOfSample = ~uint64_t{0} >> (64 - 8 * format.size);
            ASSERT_EQ(static_cast<uint64_t>(integerAt(dst.data() + i * format.size, format.size)) &
                          bytesOfSample,
                      static_cast<uint64_t>(expected) & bytesOfSample)
                << conversions.name << ' ' << format.name << " sample " << i << " of " << count << ": " << x;
        }
        ASSERT_EQ(clipped, shouldClip) << conversions.name << ' ' << format.name << ' ' << count;
        ASSERT_TRUE(dst.intact() && src.intact()) << conversions.name << ' ' << format.name << ' ' << count;
    });
}

TEST(SampleConversion, ReadsNothingBehindTheSource)
{
    // Sources end where a page begins that nobody may touch.
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    unsigned char* const end = static_cast<unsigned char*>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    std::vector<float> floats(40);
    bytes_t integers(40 * 4);
    for (const SConversions& conversions : allConversions())
        for (const SFormat& format : kFormats)
            for (unsigned count = 0; count <= 40; ++count)
            {
                EXPECT_TRUE(conversions.read(format, end - count * format.size, floats.data(), count));
                const auto* source = reinterpret_cast<const float*>(end - count * sizeof(float));
                EXPECT_FALSE(conversions.write(format, source, integers.data(), count));
            }
    munmap(pages, 2 * page);
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
        {16, 8, 1.0F, 0x7FFF, true},
        {16, 7, 1.0F, 0x7FFF, false},
        {16, 8, -1.0F, -32768, false},
        {16, 8, 65537.0F, 0x7FFF, true},         // beyond 32 bits before the clamp
        {16, 8, 32767.0F / 32768, 0x7FFF, true}, // v is 32767.5
        {16, 8, kNaN, -32768, false},
        {16, 7, kNaN, -32768, false},
        {16, 8, 0.49999997F / 32768, 0, false}, // 0.99999997 is no float: 1.0 to nearest, below 1.0 downward
        {16, 8, 0.5F / 32768, 1, false},
        {16, 8, -1.5F / 32768, -1, false},
        {16, 8, -1.6F / 32768, -2, false},
        {16, 7, -1.6F / 32768, -2, false}, // the shift floors
        {32, 4, 1.0F, 0x7FFFFF80, true},
        {32, 3, 1.0F, 0x7FFFFFFF, false},
        {32, 4, -1.0F, -2147483648LL, false},
        {32, 4, 0x1.fffffep-1F, 0x7FFFFF80, false},
        {32, 4, 16777215.0F * 0x1p-31F, 16777215, false}, // 16777216 to nearest
        {32, 4, -1.6F * 0x1p-31F, -2, false},
        {32, 3, -1.6F * 0x1p-31F, -1, false}, // the truncation does not floor
        {32, 4, kNaN, -2147483648LL, false},
        {24, 6, 1.0F, 0x7FFFFF, true},
        {24, 6, -0.5F, -0x400000, false},
        {20, 6, -0.5F, 0, false},
        {20, 5, -0.5F, -0x400000, false},
    };
    for (const auto& row : rows)
        for (const SFormat& format : kFormats)
            if (format.bits == row.bits)
            {
                const std::vector<float> src(row.count, row.x);
                bytes_t dst(row.count * format.size);
                EXPECT_EQ(format.write(src.data(), dst.data(), row.count), row.clipped)
                    << row.bits << ' ' << row.x;
                for (unsigned i = 0; i < row.count; ++i)
                    EXPECT_EQ(integerAt(dst.data() + i * format.size, format.size), row.expected)
                        << row.bits << " bits, " << row.count << " of " << row.x;
            }
}

TEST(SampleConversion, GivesBackTheCallersControlWordAndIgnoresItsRounding)
{
    std::mt19937 random = korvotest::makeRandom(353);
    const std::vector<float> src = makeHardFloats(random, 67, 1.0F);
    const unsigned callers = _mm_getcsr();
    for (const SFormat& format : kFormats)
        for (const unsigned count : {3U, 67U})
        {
            bytes_t expected(src.size() * format.size);
            format.write(src.data(), expected.data(), count);
            for (const unsigned mode : {0x0000U, 0x2000U, 0x4000U, 0x6000U})
                for (const unsigned flush : {0x0000U, 0x8000U, 0x0040U, 0x8040U})
                {
                    const unsigned before =
                        0x1F80U | mode | flush | 0x0008U; // exceptions masked, one flag raised
                    bytes_t dst(src.size() * format.size);
                    _mm_setcsr(before);
                    format.write(src.data(), dst.data(), count);
                    const unsigned after = _mm_getcsr();
                    _mm_setcsr(callers);
                    EXPECT_EQ(after & ~kFlags, before & ~kFlags) << format.name << ' ' << count;
                    EXPECT_EQ(after & before & kFlags, before & kFlags) << "a flag of the caller is gone";
                    EXPECT_EQ(dst, expected) << format.name << ' ' << count << " mode " << mode;
                }
        }
}

} // namespace

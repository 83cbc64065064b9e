// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <immintrin.h>

// From here on, and not for the whole file: inline functions of the standard headers are shared with files
// for lesser processors.
#pragma GCC target("avx2")

#include "dsp/sample_conversion_blocks.h"

namespace korvodsp {

namespace {

using byte_t = unsigned char;

/// Below this the blocks are too long; the SSE2 variant gives the same bits.
constexpr std::size_t kLeastCount = 16;

inline __m128i load(const byte_t* src)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
}

inline __m256i loadWide(const byte_t* src)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
}

inline void store(byte_t* dst, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), value);
}

inline void storeWide(byte_t* dst, __m256i value)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), value);
}

/// Eight integers, left-justified in their lanes, to float.
inline void storeAsFloat(byte_t* dst, __m256i samples)
{
    storeWide(dst, _mm256_castps_si256(_mm256_mul_ps(_mm256_cvtepi32_ps(samples), _mm256_set1_ps(0x1p-31F))));
}

struct SInt16Reader
{
    static constexpr std::size_t kAlignment = 32, kBlock = 8, kRoom = 8, kSrcSize = 2, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m256i seen = _mm256_setzero_si256();

    void whole(const byte_t* src, byte_t* dst)
    {
        const __m256i samples = _mm256_slli_epi32(_mm256_cvtepu16_epi32(load(src)), 16);
        seen = _mm256_or_si256(seen, samples);
        storeAsFloat(dst, samples);
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt32Reader
{
    static constexpr std::size_t kAlignment = 32, kBlock = 8, kRoom = 8, kSrcSize = 4, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m256i seen = _mm256_setzero_si256();

    void whole(const byte_t* src, byte_t* dst)
    {
        const __m256i samples = loadWide(src);
        seen = _mm256_or_si256(seen, samples);
        storeAsFloat(dst, samples);
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt24Reader
{
    static constexpr std::size_t kAlignment = 32, kBlock = 8, kRoom = 8, kSrcSize = 3, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m256i mask;
    __m256i seen = _mm256_setzero_si256();

    explicit SInt24Reader(uint32_t maskIn) : mask(_mm256_set1_epi32(static_cast<int>(maskIn & 0xFFFFFF00U)))
    {
    }

    void whole(const byte_t* src, byte_t* dst)
    {
        // The upper load starts at byte 8 and not at the upper samples' byte 12, to end with the block.
        const __m256i packed = _mm256_inserti128_si256(_mm256_castsi128_si256(load(src)), load(src + 8), 1);
        const __m256i toTop = _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, //
                                               -1, 4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15);
        const __m256i samples = _mm256_and_si256(_mm256_shuffle_epi8(packed, toTop), mask);
        seen = _mm256_or_si256(seen, samples);
        storeAsFloat(dst, samples);
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

/// v = x * scale + 0.5, clamped and rounded down, eight at a time. Minimum and maximum give their second
/// operand where a comparison with NaN fails: NaN arrives unchanged at the conversion, which answers with the
/// most negative integer, and, like every sample that clamping has not changed, it leaves no bit in
/// `clipped`.
struct SRounder
{
    __m256 scale, low, high;
    __m256i clipped = _mm256_setzero_si256();

    SRounder(float scaleIn, float lowIn, float highIn)
        : scale(_mm256_set1_ps(scaleIn)), low(_mm256_set1_ps(lowIn)), high(_mm256_set1_ps(highIn))
    {
    }

    __m256i operator()(const byte_t* src)
    {
        const __m256 x = pinned(_mm256_castsi256_ps(loadWide(src)));
        const __m256 v = _mm256_add_ps(_mm256_mul_ps(x, scale), _mm256_set1_ps(0.5F));
        const __m256 clamped = _mm256_max_ps(low, _mm256_min_ps(high, v));
        clipped = _mm256_or_si256(clipped, _mm256_castps_si256(_mm256_xor_ps(v, clamped)));
        return pinned(_mm256_cvtps_epi32(clamped));
    }
};

SRounder toInt32()
{
    return {0x1p31F, -2147483648.0F, 2147483520.0F};
}

struct SInt16Writer
{
    static constexpr std::size_t kAlignment = 32, kBlock = 16, kRoom = 16, kSrcSize = 4, kDstSize = 2;
    static constexpr bool kAlignsDst = true;
    SRounder round = {0x1p15F, -32768.0F, 32767.0F};

    void whole(const byte_t* src, byte_t* dst)
    {
        const __m256i lanesInterleaved = _mm256_packs_epi32(round(src), round(src + 32));
        storeWide(dst, _mm256_permute4x64_epi64(lanesInterleaved, 0xD8));
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt32Writer
{
    static constexpr std::size_t kAlignment = 32, kBlock = 8, kRoom = 8, kSrcSize = 4, kDstSize = 4;
    static constexpr bool kAlignsDst = false;
    SRounder round = toInt32();

    void whole(const byte_t* src, byte_t* dst) { storeWide(dst, round(src)); }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt24Writer
{
    static constexpr std::size_t kAlignment = 32, kBlock = 8, kRoom = 10, kSrcSize = 4, kDstSize = 3;
    static constexpr bool kAlignsDst = false;
    __m256i mask;
    SRounder round = toInt32();

    explicit SInt24Writer(uint32_t maskIn) : mask(_mm256_set1_epi32(static_cast<int>(maskIn << 8))) {}

    // The four bytes behind the block are zeroed; they belong to samples that a later block writes.
    void whole(const byte_t* src, byte_t* dst)
    {
        const __m256i halves = packed(src);
        store(dst, _mm256_castsi256_si128(halves));
        store(dst + 12, _mm256_extracti128_si256(halves, 1));
    }
    void lastBlock(const byte_t* src, byte_t* dst)
    {
        byte_t block[28];
        whole(src, block);
        std::memcpy(dst, block, 24);
    }

private:
    __m256i packed(const byte_t* src)
    {
        const __m256i upperBytes =
            _mm256_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1, //
                             1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1);
        return _mm256_shuffle_epi8(_mm256_and_si256(round(src), mask), upperBytes);
    }
};

template<typename TReader>
bool read(TReader reader, const byte_t* src, byte_t* dst, std::size_t count)
{
    convertBlocks(reader, src, dst, count);
    return _mm256_testz_si256(reader.seen, reader.seen) != 0;
}

template<typename TWriter>
bool write(TWriter writer, const byte_t* src, byte_t* dst, std::size_t count)
{
    convertBlocks(writer, src, dst, count);
    return _mm256_testz_si256(writer.round.clipped, writer.round.clipped) == 0;
}

bool readInt16(const byte_t* src, byte_t* dst, std::size_t count)
{
    return count < kLeastCount ? kSse2Conversions.readInt16(src, dst, count)
                               : read(SInt16Reader{}, src, dst, count);
}

bool readInt24(const byte_t* src, byte_t* dst, std::size_t count, uint32_t mask)
{
    return count < kLeastCount ? kSse2Conversions.readInt24(src, dst, count, mask)
                               : read(SInt24Reader(mask), src, dst, count);
}

bool readInt32(const byte_t* src, byte_t* dst, std::size_t count)
{
    return count < kLeastCount ? kSse2Conversions.readInt32(src, dst, count)
                               : read(SInt32Reader{}, src, dst, count);
}

bool writeInt16(const byte_t* src, byte_t* dst, std::size_t count)
{
    return count < kLeastCount ? kSse2Conversions.writeInt16(src, dst, count)
                               : write(SInt16Writer{}, src, dst, count);
}

bool writeInt24(const byte_t* src, byte_t* dst, std::size_t count, uint32_t mask)
{
    return count < kLeastCount ? kSse2Conversions.writeInt24(src, dst, count, mask)
                               : write(SInt24Writer(mask), src, dst, count);
}

bool writeInt32(const byte_t* src, byte_t* dst, std::size_t count)
{
    return count < kLeastCount ? kSse2Conversions.writeInt32(src, dst, count)
                               : write(SInt32Writer{}, src, dst, count);
}

} // namespace

const SBlockConversions kAvx2Conversions = {"avx2",     readInt16,  readInt24, readInt32,
                                            writeInt16, writeInt24, writeInt32};

} // namespace korvodsp

// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstring>

#include <emmintrin.h>

#include "dsp/sample_conversion_blocks.h"

namespace korvodsp {

namespace {

using byte_t = unsigned char;

inline __m128i load(const byte_t* src)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
}

inline void store(byte_t* dst, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), value);
}

inline bool anyBit(__m128i words)
{
    return _mm_movemask_epi8(_mm_cmpeq_epi8(words, _mm_setzero_si128())) != 0xFFFF;
}

/// Four integers, left-justified in their lanes, to float.
inline void storeAsFloat(byte_t* dst, __m128i samples)
{
    store(dst, _mm_castps_si128(_mm_mul_ps(_mm_cvtepi32_ps(samples), _mm_set1_ps(0x1p-31F))));
}

struct SInt16Reader
{
    static constexpr std::size_t kAlignment = 16, kBlock = 8, kRoom = 8, kSrcSize = 2, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m128i seen = _mm_setzero_si128();

    void whole(const byte_t* src, byte_t* dst)
    {
        const __m128i samples = load(src);
        seen = _mm_or_si128(seen, samples);
        storeAsFloat(dst, _mm_unpacklo_epi16(_mm_setzero_si128(), samples));
        storeAsFloat(dst + 16, _mm_unpackhi_epi16(_mm_setzero_si128(), samples));
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt32Reader
{
    static constexpr std::size_t kAlignment = 16, kBlock = 4, kRoom = 4, kSrcSize = 4, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m128i seen = _mm_setzero_si128();

    void whole(const byte_t* src, byte_t* dst)
    {
        const __m128i samples = load(src);
        seen = _mm_or_si128(seen, samples);
        storeAsFloat(dst, samples);
    }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt24Reader
{
    static constexpr std::size_t kAlignment = 16, kBlock = 4, kRoom = 6, kSrcSize = 3, kDstSize = 4;
    static constexpr bool kAlignsDst = true;
    __m128i evenMask, oddMask;
    __m128i seen = _mm_setzero_si128();

    explicit SInt24Reader(uint32_t mask)
        : evenMask(_mm_set1_epi64x(static_cast<int64_t>(mask & 0xFFFFFF00U))),
          oddMask(_mm_slli_epi64(evenMask, 32))
    {
    }

    void whole(const byte_t* src, byte_t* dst) { convert(load(src), dst); }
    void lastBlock(const byte_t* src, byte_t* dst)
    {
        byte_t block[16] = {};
        std::memcpy(block, src, 12);
        convert(load(block), dst);
    }

private:
    void convert(__m128i packed, byte_t* dst)
    {
        // Two samples to each 64-bit half, then each to the top of its own 32-bit lane.
        const __m128i pairs = _mm_unpacklo_epi64(packed, _mm_srli_si128(packed, 6));
        const __m128i even = _mm_and_si128(_mm_slli_epi64(pairs, 8), evenMask);
        const __m128i odd = _mm_and_si128(_mm_slli_epi64(pairs, 16), oddMask);
        const __m128i samples = _mm_or_si128(even, odd);
        seen = _mm_or_si128(seen, samples);
        storeAsFloat(dst, samples);
    }
};

/// v = x * scale + 0.5, clamped and rounded down, four at a time. Minimum and maximum give their second
/// operand where a comparison with NaN fails: NaN arrives unchanged at the conversion, which answers with the
/// most negative integer, and, like every sample that clamping has not changed, it leaves no bit in
/// `clipped`.
struct SRounder
{
    __m128 scale, low, high;
    __m128i clipped = _mm_setzero_si128();

    SRounder(float scaleIn, float lowIn, float highIn)
        : scale(_mm_set1_ps(scaleIn)), low(_mm_set1_ps(lowIn)), high(_mm_set1_ps(highIn))
    {
    }

    __m128i operator()(const byte_t* src)
    {
        const __m128 x = pinned(_mm_castsi128_ps(load(src)));
        const __m128 v = _mm_add_ps(_mm_mul_ps(x, scale), _mm_set1_ps(0.5F));
        const __m128 clamped = _mm_max_ps(low, _mm_min_ps(high, v));
        clipped = _mm_or_si128(clipped, _mm_castps_si128(_mm_xor_ps(v, clamped)));
        return pinned(_mm_cvtps_epi32(clamped));
    }
};

SRounder toInt32()
{
    return {0x1p31F, -2147483648.0F, 2147483520.0F};
}

struct SInt16Writer
{
    static constexpr std::size_t kAlignment = 16, kBlock = 8, kRoom = 8, kSrcSize = 4, kDstSize = 2;
    static constexpr bool kAlignsDst = true;
    SRounder round = {0x1p15F, -32768.0F, 32767.0F};

    // The pack saturates, which matters for the 32-bit answer to NaN alone.
    void whole(const byte_t* src, byte_t* dst) { store(dst, _mm_packs_epi32(round(src), round(src + 16))); }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt32Writer
{
    static constexpr std::size_t kAlignment = 16, kBlock = 4, kRoom = 4, kSrcSize = 4, kDstSize = 4;
    static constexpr bool kAlignsDst = false;
    SRounder round = toInt32();

    void whole(const byte_t* src, byte_t* dst) { store(dst, round(src)); }
    void lastBlock(const byte_t* src, byte_t* dst) { whole(src, dst); }
};

struct SInt24Writer
{
    static constexpr std::size_t kAlignment = 16, kBlock = 4, kRoom = 6, kSrcSize = 4, kDstSize = 3;
    static constexpr bool kAlignsDst = false;
    __m128i evenMask, oddMask;
    SRounder round = toInt32();

    explicit SInt24Writer(uint32_t mask)
        : evenMask(_mm_set1_epi64x(static_cast<int64_t>(mask & 0xFFFFFFU))),
          oddMask(_mm_slli_epi64(evenMask, 24))
    {
    }

    // The four bytes behind the block are zeroed; they belong to samples that a later block writes.
    void whole(const byte_t* src, byte_t* dst) { store(dst, packed(src)); }
    void lastBlock(const byte_t* src, byte_t* dst)
    {
        byte_t block[16];
        store(block, packed(src));
        std::memcpy(dst, block, 12);
    }

private:
    __m128i packed(const byte_t* src)
    {
        // The upper three bytes of both 32-bit lanes to the low six bytes of their half, then the halves
        // together.
        const __m128i samples = round(src);
        const __m128i even = _mm_and_si128(_mm_srli_epi64(samples, 8), evenMask);
        const __m128i odd = _mm_and_si128(_mm_srli_epi64(samples, 16), oddMask);
        const __m128i pairs = _mm_or_si128(even, odd);
        return _mm_or_si128(_mm_move_epi64(pairs),
                            _mm_srli_si128(_mm_unpackhi_epi64(_mm_setzero_si128(), pairs), 2));
    }
};

template<typename TReader>
bool read(TReader reader, const byte_t* src, byte_t* dst, std::size_t count)
{
    convertBlocks(reader, src, dst, count);
    return !anyBit(reader.seen);
}

template<typename TWriter>
bool write(TWriter writer, const byte_t* src, byte_t* dst, std::size_t count)
{
    convertBlocks(writer, src, dst, count);
    return anyBit(writer.round.clipped);
}

bool readInt16(const byte_t* src, byte_t* dst, std::size_t count)
{
    return read(SInt16Reader{}, src, dst, count);
}

bool readInt24(const byte_t* src, byte_t* dst, std::size_t count, uint32_t mask)
{
    return read(SInt24Reader(mask), src, dst, count);
}

bool readInt32(const byte_t* src, byte_t* dst, std::size_t count)
{
    return read(SInt32Reader{}, src, dst, count);
}

bool writeInt16(const byte_t* src, byte_t* dst, std::size_t count)
{
    return write(SInt16Writer{}, src, dst, count);
}

bool writeInt24(const byte_t* src, byte_t* dst, std::size_t count, uint32_t mask)
{
    return write(SInt24Writer(mask), src, dst, count);
}

bool writeInt32(const byte_t* src, byte_t* dst, std::size_t count)
{
    return write(SInt32Writer{}, src, dst, count);
}

} // namespace

const SBlockConversions kSse2Conversions = {"sse2",     readInt16,  readInt24, readInt32,
                                            writeInt16, writeInt24, writeInt32};

} // namespace korvodsp

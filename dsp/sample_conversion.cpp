// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/sample_conversion.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dsp/sample_conversion_blocks.h"

namespace korvodsp {

namespace {

using byte_t = unsigned char;

const SBlockConversions& s_blocks = *availableConversions().front();

/// Rounds toward negative infinity while it lives. Gives back the caller's rounding mode and nothing else:
/// flags that the arithmetic in between has raised stay raised, as after any arithmetic.
class CRoundDown
{
public:
    CRoundDown() : m_callersMode(read() & kRounding) { write((read() & ~kRounding) | kTowardNegative); }
    ~CRoundDown() { write((read() & ~kRounding) | m_callersMode); }
    CRoundDown(const CRoundDown&) = delete;
    CRoundDown& operator=(const CRoundDown&) = delete;

private:
    static constexpr uint32_t kRounding = 0x6000;
    static constexpr uint32_t kTowardNegative = 0x2000;

    // Volatile assembly keeps its order with pinned(), which the intrinsics for this register do not promise.
    static uint32_t read()
    {
        uint32_t control;
        __asm__ volatile("stmxcsr %0" : "=m"(control) : : "memory");
        return control;
    }
    static void write(uint32_t control) { __asm__ volatile("ldmxcsr %0" : : "m"(control) : "memory"); }

    uint32_t m_callersMode;
};

template<typename T>
T readAs(const byte_t* src)
{
    T value;
    std::memcpy(&value, src, sizeof value);
    return value;
}

template<typename T>
void writeAs(byte_t* dst, T value)
{
    std::memcpy(dst, &value, sizeof value);
}

std::size_t beyondBoundary(const void* pointer, std::size_t boundary)
{
    return reinterpret_cast<std::uintptr_t>(pointer) % boundary;
}

int32_t truncated(double value)
{
    return value > -2147483648.0 ? static_cast<int32_t>(value) : INT32_MIN; // NaN as well
}

// The sums of the scalar writers come out alike in every rounding mode: they are exact, or too close to zero
// or a half for the truncation to see a difference.
int16_t int16From(float x)
{
    const double v = static_cast<double>(x) * 2147483648.0 + 32768.0;
    return v >= 2147450879.0 ? int16_t{0x7FFF} : static_cast<int16_t>(truncated(v) >> 16);
}

int32_t int32From(float x)
{
    const double v = static_cast<double>(x) * 2147483648.0 + 0.5;
    return v >= 2147483646.5 ? INT32_MAX : truncated(v);
}

int32_t int24At(const byte_t* src)
{
    const uint32_t word = uint32_t{src[0]} << 8 | uint32_t{src[1]} << 16 | uint32_t{src[2]} << 24;
    return static_cast<int32_t>(word) >> 8;
}

template<typename T>
bool readScalar(const byte_t* src, byte_t* dst, std::size_t count, double scale)
{
    T seen = 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        const T sample = readAs<T>(src + sizeof(T) * i);
        seen = static_cast<T>(seen | sample);
        writeAs(dst + 4 * i, static_cast<float>(sample * scale));
    }
    return seen == 0;
}

} // namespace

std::span<const SBlockConversions* const> availableConversions()
{
    static constexpr const SBlockConversions* s_bestFirst[] = {&kAvx512Conversions, &kAvx2Conversions,
                                                               &kSse2Conversions};
    __builtin_cpu_init(); // may run before the constructor that does it otherwise
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512vbmi");
    return std::span(s_bestFirst).subspan(avx512 ? 0 : avx2 ? 1 : 2);
}

bool NativeInt16ToFloat32_X86(const void* src, float* dst, unsigned count)
{
    const auto* from = static_cast<const byte_t*>(src);
    auto* to = reinterpret_cast<byte_t*>(dst);
    if (count >= 8 && beyondBoundary(dst, 4) == 0)
        return s_blocks.readInt16(from, to, count, 0);
    return readScalar<int16_t>(from, to, count, 0x1p-15);
}

bool NativeInt32ToFloat32_X86(const void* src, float* dst, unsigned count)
{
    const auto* from = static_cast<const byte_t*>(src);
    auto* to = reinterpret_cast<byte_t*>(dst);
    if (count >= 4 && beyondBoundary(dst, 4) == 0)
        return s_blocks.readInt32(from, to, count, 0);
    return readScalar<int32_t>(from, to, count, 0x1p-31);
}

bool InternalNativeInt24ToFloat32_X86(const void* src, float* dst, unsigned count, unsigned long mask)
{
    const auto* from = static_cast<const byte_t*>(src);
    auto* to = reinterpret_cast<byte_t*>(dst);
    if (count >= 6)
        return s_blocks.readInt24(from, to, count, static_cast<uint32_t>(mask));
    int32_t seen = 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        const int32_t sample = int24At(from + 3 * i); // no mask: a short call keeps all 24 bits, as is meant
        seen |= sample;
        writeAs(to + 4 * i, static_cast<float>(sample * 0x1p-23));
    }
    return seen == 0;
}

bool NativeInt20ToFloat32_X86(const void* src, float* dst, unsigned count)
{
    return InternalNativeInt24ToFloat32_X86(src, dst, count, 0xFFFFF000);
}

bool NativeInt24ToFloat32_X86(const void* src, float* dst, unsigned count)
{
    return InternalNativeInt24ToFloat32_X86(src, dst, count, 0xFFFFFF00);
}

bool Float32ToNativeInt16_X86(const float* src, void* dst, unsigned count)
{
    const auto* from = reinterpret_cast<const byte_t*>(src);
    auto* to = static_cast<byte_t*>(dst);
    if (count >= 8 && beyondBoundary(dst, 2) == 0)
    {
        const CRoundDown roundDown;
        return s_blocks.writeInt16(from, to, count, 0);
    }
    for (std::size_t i = 0; i < count; ++i)
        writeAs(to + 2 * i, int16From(readAs<float>(from + 4 * i)));
    return false;
}

bool Float32ToNativeInt32_X86(const float* src, void* dst, unsigned count)
{
    const auto* from = reinterpret_cast<const byte_t*>(src);
    auto* to = static_cast<byte_t*>(dst);
    if (count >= 4 && beyondBoundary(dst, 4) == 0)
    {
        const CRoundDown roundDown;
        return s_blocks.writeInt32(from, to, count, 0);
    }
    for (std::size_t i = 0; i < count; ++i)
        writeAs(to + 4 * i, int32From(readAs<float>(from + 4 * i)));
    return false;
}

bool InternalFloat32ToNativeInt24_X86(const float* src, void* dst, unsigned count, unsigned long mask)
{
    const auto* from = reinterpret_cast<const byte_t*>(src);
    auto* to = static_cast<byte_t*>(dst);
    if (count >= 6 && beyondBoundary(src, 4) == 0)
    {
        const CRoundDown roundDown;
        return s_blocks.writeInt24(from, to, count, static_cast<uint32_t>(mask));
    }
    for (std::size_t i = 0; i < count; ++i)
    {
        const int32_t sample = int32From(readAs<float>(from + 4 * i)); // no mask here either
        const uint32_t word = static_cast<uint32_t>(sample) >> 8;
        const byte_t bytes[3] = {static_cast<byte_t>(word), static_cast<byte_t>(word >> 8),
                                 static_cast<byte_t>(word >> 16)};
        std::memcpy(to + 3 * i, bytes, 3);
    }
    return false;
}

bool Float32ToNativeInt20_X86(const float* src, void* dst, unsigned count)
{
    return InternalFloat32ToNativeInt24_X86(src, dst, count, 0x000FFFFF);
}

bool Float32ToNativeInt24_X86(const float* src, void* dst, unsigned count)
{
    return InternalFloat32ToNativeInt24_X86(src, dst, count, 0x00FFFFFF);
}

} // namespace korvodsp

// SPDX-License-Identifier: GPL-3.0-or-later
// Sample conversions against memcpy() of as many bytes (the mean of what goes in and what comes out) and
// against JUCE's converters. "block" is the largest block of a processor, which lives in the second-level
// cache; "stream" comes from beyond it, in a size that memcpy() still copies through the caches.
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <juce_audio_basics/juce_audio_basics.h>

#include "bench/ratio.h"
#include "dsp/sample_conversion.h"

namespace {

using juce::AudioData;
using korvobench::EBetter;

constexpr std::size_t kBlock = 4096 * 8;
constexpr std::size_t kStream = std::size_t{1} << 20;

/// Floats at 0.9 of full scale, room for as many integer samples, and something for memcpy() to do.
struct SBuffers
{
    std::vector<float> floats;
    std::vector<unsigned char> integers;
    std::vector<unsigned char> copyFrom, copyTo;

    explicit SBuffers(std::size_t count)
        : floats(count), integers(count * 4), copyFrom(count * 4, 1), copyTo(count * 4)
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> uniform(-0.9F, 0.9F);
        for (float& sample : floats)
            sample = uniform(random);
        for (unsigned char& byte : integers)
            byte = static_cast<unsigned char>(random());
    }
};

template<typename TFormat>
using read_only_t =
    AudioData::Pointer<TFormat, AudioData::LittleEndian, AudioData::Interleaved, AudioData::Const>;
template<typename TFormat>
using writable_t =
    AudioData::Pointer<TFormat, AudioData::LittleEndian, AudioData::Interleaved, AudioData::NonConst>;

template<typename TFormat>
std::shared_ptr<AudioData::Converter> juceReader()
{
    return std::make_shared<
        AudioData::ConverterInstance<read_only_t<TFormat>, writable_t<AudioData::Float32>>>();
}

template<typename TFormat>
std::shared_ptr<AudioData::Converter> juceWriter()
{
    return std::make_shared<
        AudioData::ConverterInstance<read_only_t<AudioData::Float32>, writable_t<TFormat>>>();
}

struct SSubject
{
    std::string name;
    std::size_t integerSize;
    std::function<void(SBuffers&)> convert;
    std::function<void(SBuffers&)> convertByJuce;
};

void againstMemcpy(const SSubject& subject, const std::string& place, std::size_t count, double floor,
                   double aim)
{
    korvobench::SRow row{"convert/" + subject.name + "/" + place, "memcpy of the same bytes", floor, aim,
                         EBetter::Larger};
    korvobench::registerRow(row, [subject, count] {
        SBuffers buffers(count);
        const std::size_t bytes = count * (4 + subject.integerSize) / 2;
        return korvobench::speedUp([&] { subject.convert(buffers); },
                                   [&] {
                                       std::memcpy(buffers.copyTo.data(), buffers.copyFrom.data(), bytes);
                                       __asm__ volatile("" : : "r"(buffers.copyTo.data()) : "memory");
                                   });
    });
}

void againstJuce(const SSubject& subject, double floor, double aim)
{
    korvobench::SRow row{"convert/" + subject.name + "/juce", "JUCE's AudioData converter", floor, aim,
                         EBetter::Larger};
    korvobench::registerRow(row, [subject] {
        SBuffers buffers(kBlock);
        return korvobench::speedUp([&] { subject.convert(buffers); },
                                   [&] { subject.convertByJuce(buffers); });
    });
}

template<typename TFormat>
SSubject reader(const char* name, std::size_t size, bool (*convert)(const void*, float*, unsigned))
{
    return {name, size,
            [convert](SBuffers& b) {
                convert(b.integers.data(), b.floats.data(), static_cast<unsigned>(b.floats.size()));
            },
            [juce = juceReader<TFormat>()](SBuffers& b) {
                juce->convertSamples(b.floats.data(), b.integers.data(), static_cast<int>(b.floats.size()));
            }};
}

template<typename TFormat>
SSubject writer(const char* name, std::size_t size, bool (*convert)(const float*, void*, unsigned))
{
    return {name, size,
            [convert](SBuffers& b) {
                convert(b.floats.data(), b.integers.data(), static_cast<unsigned>(b.floats.size()));
            },
            [juce = juceWriter<TFormat>()](SBuffers& b) {
                juce->convertSamples(b.integers.data(), b.floats.data(), static_cast<int>(b.floats.size()));
            }};
}

const bool s_registered = [] {
    using namespace korvodsp;
    for (const SSubject& subject : {reader<AudioData::Int16>("in16", 2, NativeInt16ToFloat32_X86),
                                    reader<AudioData::Int24>("in24", 3, NativeInt24ToFloat32_X86),
                                    reader<AudioData::Int32>("in32", 4, NativeInt32ToFloat32_X86),
                                    writer<AudioData::Int16>("out16", 2, Float32ToNativeInt16_X86),
                                    writer<AudioData::Int24>("out24", 3, Float32ToNativeInt24_X86),
                                    writer<AudioData::Int32>("out32", 4, Float32ToNativeInt32_X86)})
    {
        againstMemcpy(subject, "block", kBlock, 0.35, 0.7);
        againstMemcpy(subject, "stream", kStream, 0.7, 0.9);
        againstJuce(subject, 3.0, 5.0);
    }
    return true;
}();

} // namespace

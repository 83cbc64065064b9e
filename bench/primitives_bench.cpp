// SPDX-License-Identifier: GPL-3.0-or-later
#include <benchmark/benchmark.h>
#include <juce_audio_basics/juce_audio_basics.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "dsp/buffer_operations.h"
#include "dsp/measurer.h"

/// The DSP primitives in samples per second, and as ratios to a plain loop of the same compiler and to JUCE's
/// operation where it has the same one. The plain loops say what a programmer would write first.
namespace {

constexpr unsigned kSamples = 4096;
constexpr unsigned kWindow = 4800;
constexpr unsigned kMeterBlock = 512;
constexpr float kThreshold = 0.8F;
constexpr float kGain = 0.7F;

struct SBuffers
{
    std::vector<float> in, out, window;
    std::vector<std::vector<float>> planes;
    std::vector<float*> channels;

    SBuffers() : in(kSamples), out(kSamples), window(kWindow), planes(8, std::vector<float>(kSamples))
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> distribution(-1.0F, 1.0F);
        for (float& sample : in)
            sample = distribution(random);
        for (auto& plane : planes)
            channels.push_back(plane.data());
    }
};

SBuffers& buffers()
{
    static SBuffers all;
    return all;
}

[[gnu::noinline]] void plainGain(float gain, const float* in, float* out, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        out[i] = gain * in[i];
}

[[gnu::noinline]] bool plainSaturate(const float* in, float* out, unsigned count, float threshold)
{
    const float k = threshold * threshold - threshold;
    bool clean = true;
    for (unsigned i = 0; i < count; ++i)
    {
        const float a = std::fabs(in[i]);
        const bool over = a > threshold;
        clean &= !over;
        out[i] = std::copysign(over ? k / a + 1.0F : a, in[i]);
    }
    return clean;
}

[[gnu::noinline]] float plainAbsMax(const float* data, unsigned count)
{
    float largest = 0.0F;
    for (unsigned i = 0; i < count; ++i)
        largest = std::max(largest, std::fabs(data[i]));
    return largest;
}

[[gnu::noinline]] float plainMax(const float* data, unsigned count)
{
    float largest = 0.0F;
    for (unsigned i = 0; i < count; ++i)
        largest = std::max(largest, data[i]);
    return largest;
}

[[gnu::noinline]] void plainMeter(std::vector<float>& window, unsigned& pos, double& sum, const float* in,
                                  float& rms, float& peak)
{
    for (unsigned i = 0; i < kMeterBlock; ++i)
    {
        sum -= static_cast<double>(window[pos]);
        window[pos] = in[i] * in[i];
        sum += static_cast<double>(window[pos]);
        pos = (pos + 1) % kWindow;
    }
    rms = std::sqrt(static_cast<float>(sum / kWindow));
    peak = std::sqrt(plainMax(window.data(), kWindow));
}

[[gnu::noinline]] void plainInterleave(const float* const* channels, float* out, unsigned frames,
                                       unsigned count)
{
    for (unsigned f = 0; f < frames; ++f)
        for (unsigned c = 0; c < count; ++c)
            out[f * count + c] = channels[c][f];
}

[[gnu::noinline]] void plainDeinterleave(const float* in, float** channels, unsigned frames, unsigned count)
{
    for (unsigned f = 0; f < frames; ++f)
        for (unsigned c = 0; c < count; ++c)
            channels[c][f] = in[f * count + c];
}

/// Samples per second of one contestant, beside the ratios in the same run.
void registerRate(const std::string& name, unsigned samples, const std::function<void()>& work)
{
    benchmark::RegisterBenchmark(name.c_str(), [samples, work](benchmark::State& state) {
        for (auto _ : state)
            work();
        state.SetItemsProcessed(state.iterations() * samples);
    })->MinTime(0.05);
}

/// `samples` is what one call handles, `juce` is empty where there is no such operation.
void registerPrimitive(const std::string& name, unsigned samples, const std::function<void()>& subject,
                       const std::function<void()>& plain, const std::function<void()>& juce = nullptr)
{
    const std::string row = std::string("primitives/").append(name);
    registerRate(row + "/rate", samples, subject);
    registerRate(row + "/rate-plain", samples, plain);
    korvobench::registerRow({row + "/vs-plain", "plain loop", 1.0, 0.0},
                            [=] { return korvobench::speedUp(subject, plain); });
    if (!juce)
        return;
    registerRate(row + "/rate-juce", samples, juce);
    korvobench::registerRow({row + "/vs-juce", "juce::FloatVectorOperations", 0.0, 1.0},
                            [=] { return korvobench::speedUp(subject, juce); });
}

template<typename T>
void keep(T value)
{
    benchmark::DoNotOptimize(value);
    benchmark::ClobberMemory();
}

void registerSampleOperations()
{
    SBuffers& b = buffers();
    registerPrimitive(
        "applyGain", kSamples, [&b] { korvodsp::ApplyGain(kGain, b.in.data(), b.out.data(), kSamples); },
        [&b] { plainGain(kGain, b.in.data(), b.out.data(), kSamples); },
        [&b] {
            juce::FloatVectorOperations::copyWithMultiply(b.out.data(), b.in.data(), kGain, int{kSamples});
        });
    registerPrimitive(
        "saturate", kSamples,
        [&b] { keep(korvodsp::Saturate(b.in.data(), b.out.data(), kSamples, kThreshold)); },
        [&b] { keep(plainSaturate(b.in.data(), b.out.data(), kSamples, kThreshold)); });
    registerPrimitive(
        "absMaxValue", kSamples, [&b] { keep(korvodsp::AbsMaxValue(b.in.data(), kSamples)); },
        [&b] { keep(plainAbsMax(b.in.data(), kSamples)); },
        [&b] {
            const auto range = juce::FloatVectorOperations::findMinAndMax(b.in.data(), int{kSamples});
            keep(std::max(std::fabs(range.getStart()), std::fabs(range.getEnd())));
        });
}

void registerMeter()
{
    static korvodsp::CFMeasurer meter(kWindow);
    static unsigned pos = 0;
    static double sum = 0.0;
    SBuffers& b = buffers();
    registerPrimitive(
        "measurer", kMeterBlock,
        [&b] {
            meter.process(b.in.data(), kMeterBlock);
            keep(meter.getCurrentRMS() + meter.getCurrentPeak());
        },
        [&b] {
            float rms = 0.0F;
            float peak = 0.0F;
            plainMeter(b.window, pos, sum, b.in.data(), rms, peak);
            keep(rms + peak);
        });
}

void registerLayouts()
{
    SBuffers& b = buffers();
    for (const unsigned count : {2U, 8U})
    {
        const unsigned frames = kSamples / count;
        const std::string channels = std::string("/").append(std::to_string(count)).append("ch");
        registerPrimitive(
            "interleave" + channels, kSamples,
            [&b, frames, count] { korvodsp::Interleave(b.channels.data(), b.out.data(), frames, count); },
            [&b, frames, count] { plainInterleave(b.channels.data(), b.out.data(), frames, count); });
        registerPrimitive(
            "deinterleave" + channels, kSamples,
            [&b, frames, count] { korvodsp::Deinterleave(b.in.data(), b.channels.data(), frames, count); },
            [&b, frames, count] { plainDeinterleave(b.in.data(), b.channels.data(), frames, count); });
    }
}

const bool s_registered = [] {
    registerSampleOperations();
    registerMeter();
    registerLayouts();
    return true;
}();

} // namespace

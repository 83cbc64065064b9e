// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/processor_stream.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <random>
#include <stdexcept>

#include "tests/support/document_builder.h"
#include "tests/support/random.h"

namespace korvobench {

namespace {

template<typename Function>
Function symbol(void* library, const char* name)
{
    void* found = dlsym(library, name);
    if (found == nullptr)
        throw std::runtime_error(std::string("the plain build lacks ") + name);
    return reinterpret_cast<Function>(found);
}

SLibrary openPlainLibrary()
{
    const auto file = std::filesystem::read_symlink("/proc/self/exe").replace_filename("libkorvo_plain.so");
    void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw std::runtime_error(dlerror());
    return {symbol<decltype(&krv_create)>(library, "krv_create"),
            symbol<decltype(&krv_destroy)>(library, "krv_destroy"),
            symbol<decltype(&krv_process)>(library, "krv_process"),
            symbol<decltype(&krv_setSamplerate)>(library, "krv_setSamplerate"),
            symbol<decltype(&krv_loadFilterFromFile)>(library, "krv_loadFilterFromFile"),
            symbol<decltype(&krv_setFilterOperatingMode)>(library, "krv_setFilterOperatingMode")};
}

/// A decaying response, as a correction of a room has it, and resonances that ring for a third of a second.
korvotest::SSet makeSet(unsigned rate, bool minPhase, unsigned taps, unsigned sections)
{
    std::mt19937 random(rate + (minPhase ? 1 : 0)); // NOLINT: the same filter in every run
    korvotest::SSet set{rate, minPhase, korvotest::makeNoise(random, taps, 0.2F), {}};
    for (unsigned i = 0; i < taps; ++i)
        set.taps[i] *= std::exp(-static_cast<float>(i) / 60.0F);
    set.taps[minPhase ? 0 : taps / 4] = 1.0F;
    for (unsigned i = 0; i < sections; ++i)
    {
        const double radius = 0.999 - 0.0001 * i;
        const double angle = 0.005 * (i + 1);
        set.sections.push_back({static_cast<float>(-2.0 * radius * std::cos(angle)),
                                static_cast<float>(radius * radius), 0.001F, -0.0005F});
    }
    return set;
}

} // namespace

const SLibrary& ourLibrary()
{
    static const SLibrary library = {krv_create,
                                     krv_destroy,
                                     krv_process,
                                     krv_setSamplerate,
                                     krv_loadFilterFromFile,
                                     krv_setFilterOperatingMode};
    return library;
}

const SLibrary& plainLibrary()
{
    static const SLibrary library = openPlainLibrary();
    return library;
}

CFilterFile::CFilterFile(unsigned channels, const std::vector<unsigned>& rates, unsigned taps,
                         unsigned sections)
{
    std::vector<korvotest::SSet> sets;
    for (const unsigned rate : rates)
        for (const bool minPhase : {false, true})
        {
            const bool high = rate > 96000; // such a set only names its rate
            sets.push_back(makeSet(rate, minPhase, high ? 1 : taps, high ? 1 : sections));
        }
    std::string name = (std::filesystem::temp_directory_path() / "korvo-bench-XXXXXX").string();
    const int file = mkstemp(name.data());
    if (file < 0)
        throw std::runtime_error("no temporary file");
    close(file);
    m_path = name;
    std::ofstream(m_path) << korvotest::documentText(korvotest::sameChannels(channels, sets));
}

CFilterFile::~CFilterFile()
{
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
}

CStream::CStream(const SLibrary& library, const CFilterFile& filter, unsigned rate, unsigned channels,
                 unsigned frames)
    : m_library(library), m_channels(channels), m_silence(frames * channels), m_output(frames * channels)
{
    std::mt19937 random(5); // NOLINT: the same noise in every run
    m_noise = korvotest::makeNoise(random, frames * channels, 0.25F);
    if (library.create(&m_handle, static_cast<int>(channels), static_cast<int>(frames), KRV_FORMAT_FLOAT32,
                       KRV_FORMAT_FLOAT32) != KRV_STATUS_OK ||
        library.loadFilterFromFile(m_handle, filter.path().c_str()) != KRV_STATUS_OK ||
        library.setSamplerate(m_handle, rate) != KRV_STATUS_OK)
        throw std::runtime_error("no processor");
    for (int i = 0; i < 3; ++i)
        processSilence(); // the filter takes its slot and fades in
}

CStream::~CStream()
{
    m_library.destroy(m_handle);
}

void CStream::process(const std::vector<float>& input)
{
    m_library.process(m_handle, input.data(), m_output.data(),
                      static_cast<unsigned>(input.size()) / m_channels, m_channels);
}

} // namespace korvobench

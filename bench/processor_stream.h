// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "api/krv.h"

namespace korvobench {

/// The calls of one build of the library.
struct SLibrary
{
    decltype(&krv_create) create;
    decltype(&krv_destroy) destroy;
    decltype(&krv_process) process;
    decltype(&krv_setSamplerate) setSamplerate;
    decltype(&krv_loadFilterFromFile) loadFilterFromFile;
    decltype(&krv_setFilterOperatingMode) setFilterOperatingMode;
};

/// The library as it ships.
const SLibrary& ourLibrary();
/// The same with the plain four-lane loops for all its kernels, and with every estimate done by transforms.
const SLibrary& plainLibrary();

/// A filter document, in a file that goes with the object.
class CFilterFile
{
public:
    CFilterFile(unsigned channels, const std::vector<unsigned>& rates, unsigned taps, unsigned sections);
    ~CFilterFile();
    CFilterFile(const CFilterFile&) = delete;
    CFilterFile& operator=(const CFilterFile&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// A processor with a filter loaded and a block of noise for it.
class CStream
{
public:
    CStream(const SLibrary& library, const CFilterFile& filter, unsigned rate, unsigned channels,
            unsigned frames);
    ~CStream();
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;

    void processNoise() { process(m_noise); }
    void processSilence() { process(m_silence); }
    krv_handle handle() const { return m_handle; }

private:
    void process(const std::vector<float>& input);

    const SLibrary& m_library;
    krv_handle m_handle = nullptr;
    unsigned m_channels;
    std::vector<float> m_noise;
    std::vector<float> m_silence;
    std::vector<float> m_output;
};

} // namespace korvobench

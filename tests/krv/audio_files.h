// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sndfile.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvotest {

struct SAudio
{
    int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16; ///< libsndfile's
    int rate = 48000;
    int channels = 2;
    std::vector<double> samples; ///< interleaved, full scale 1.0; holds every format exactly

    std::size_t frames() const { return samples.size() / static_cast<std::size_t>(channels); }
};

inline void writeAudio(const std::filesystem::path& path, const SAudio& audio)
{
    SF_INFO info{};
    info.format = audio.format;
    info.samplerate = audio.rate;
    info.channels = audio.channels;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr)
        throw std::runtime_error(sf_strerror(nullptr));
    const auto count = static_cast<sf_count_t>(audio.samples.size());
    const int subtype = audio.format & SF_FORMAT_SUBMASK;
    if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE || subtype == SF_FORMAT_VORBIS)
        sf_write_double(file, audio.samples.data(), count);
    else
    {
        // From floating point libsndfile would scale by 32767, and read back by 32768.
        std::vector<int> words;
        for (const double sample : audio.samples)
            words.push_back(static_cast<int>(std::clamp(sample * 0x1p31, -0x1p31, 0x1p31 - 1.0)));
        sf_write_int(file, words.data(), count);
    }
    sf_close(file);
}

inline SAudio readAudio(const std::filesystem::path& path)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr)
        throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
    SAudio audio{info.format, info.samplerate, info.channels, {}};
    audio.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    sf_read_double(file, audio.samples.data(), static_cast<sf_count_t>(audio.samples.size()));
    sf_close(file);
    return audio;
}

} // namespace korvotest

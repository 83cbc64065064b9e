// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/audio_input.h"

#include <krv.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "apps/krv/command.h"
#include "apps/krv/container_length.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

SndfilePointer openForReading(const std::string& path, SF_INFO& info)
{
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        throw CCommandError(kExitFailed, inQuotes(path) + " is a folder, not an audio file");
    if (std::filesystem::is_regular_file(path, ignored) && std::filesystem::file_size(path, ignored) == 0)
        throw CCommandError(kExitFailed, inQuotes(path) + " is empty; an audio file is needed");
    SndfilePointer file(sf_open(path.c_str(), SFM_READ, &info));
    if (file == nullptr)
    {
        const bool notAudio = sf_error(nullptr) == SF_ERR_UNRECOGNISED_FORMAT;
        throw CCommandError(
            kExitFailed,
            inQuotes(path) + " cannot be read: " + sndfileReason(nullptr) +
                (notAudio ? "; WAV, FLAC, AIFF, W64 and whatever else libsndfile knows will do" : ""));
    }
    return file;
}

} // namespace

CAudioInput::CAudioInput(const std::string& path) : m_path(path), m_file(openForReading(path, m_info))
{
    if (m_info.channels > KRV_MAX_CHANNELS)
    {
        throw CCommandError(kExitFailed, inQuotes(path) + " has " + std::to_string(m_info.channels) +
                                             " channels; 1 to " + std::to_string(KRV_MAX_CHANNELS) +
                                             " can be processed");
    }
    if (endsEarly(path))
        throw CCommandError(kExitFailed,
                            inQuotes(path) + " ends early: its header tells of more audio than it holds");
    if (m_info.frames <= 0)
        throw CCommandError(kExitFailed, inQuotes(path) + " holds no audio; at least one frame is needed");
    m_format = isExactFormat(subtype()) ? nearestSampleFormat(subtype()) : ESampleFormat::Float;
}

void CAudioInput::readScaledFloats(float gain)
{
    m_format = ESampleFormat::Float;
    m_gain = gain;
}

std::size_t CAudioInput::readSamples(void* block, std::size_t frames)
{
    const auto wanted = static_cast<sf_count_t>(frames);
    const std::size_t samples = frames * channels();
    sf_count_t read = 0;
    switch (m_format)
    {
    case ESampleFormat::Int16:
        read = sf_readf_short(m_file.get(), static_cast<short*>(block), wanted);
        break;
    case ESampleFormat::Int24:
        m_words.resize(samples);
        read = sf_readf_int(m_file.get(), m_words.data(), wanted);
        packInt24(m_words.data(), samples, static_cast<unsigned char*>(block));
        break;
    case ESampleFormat::Int32:
        read = sf_readf_int(m_file.get(), static_cast<int*>(block), wanted);
        break;
    case ESampleFormat::Float:
        read = sf_readf_float(m_file.get(), static_cast<float*>(block), wanted);
        if (m_gain != 1.0F)
            std::for_each_n(static_cast<float*>(block), samples, [this](float& sample) { sample *= m_gain; });
        break;
    }
    return static_cast<std::size_t>(std::max<sf_count_t>(read, 0));
}

void CAudioInput::read(void* block, std::size_t frames)
{
    const std::size_t bytesPerFrame = channels() * bytesPerSample(m_format);
    std::memset(block, 0, frames * bytesPerFrame);
    const auto available =
        static_cast<std::size_t>(std::min<std::uint64_t>(frames, this->frames() - m_framesRead));
    if (available == 0)
        return;
    const std::size_t read = readSamples(block, available);
    m_framesRead += read;
    if (read < available)
    {
        throw CCommandError(kExitFailed, inQuotes(m_path) + " ends early: " + std::to_string(m_framesRead) +
                                             " of " + std::to_string(this->frames()) +
                                             " frames could be read");
    }
}

} // namespace krv

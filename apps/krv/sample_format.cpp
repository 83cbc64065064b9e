// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/sample_format.h"

#include <sndfile.h>

#include <cstdint>

namespace krv {

std::string sampleFormatName(ESampleFormat format)
{
    switch (format)
    {
    case ESampleFormat::Int16:
        return "int16";
    case ESampleFormat::Int24:
        return "int24";
    case ESampleFormat::Int32:
        return "int32";
    case ESampleFormat::Float:
        return "float";
    }
    return {};
}

std::size_t bytesPerSample(ESampleFormat format)
{
    switch (format)
    {
    case ESampleFormat::Int16:
        return 2;
    case ESampleFormat::Int24:
        return 3;
    case ESampleFormat::Int32:
    case ESampleFormat::Float:
        return 4;
    }
    return 0;
}

int sndfileSubtype(ESampleFormat format)
{
    switch (format)
    {
    case ESampleFormat::Int16:
        return SF_FORMAT_PCM_16;
    case ESampleFormat::Int24:
        return SF_FORMAT_PCM_24;
    case ESampleFormat::Int32:
        return SF_FORMAT_PCM_32;
    case ESampleFormat::Float:
        return SF_FORMAT_FLOAT;
    }
    return 0;
}

ESampleFormat nearestSampleFormat(int subtype)
{
    switch (subtype)
    {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_DPCM_8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_DPCM_16:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
    case SF_FORMAT_IMA_ADPCM:
    case SF_FORMAT_MS_ADPCM:
    case SF_FORMAT_ALAC_16:
        return ESampleFormat::Int16;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
        return ESampleFormat::Int24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
        return ESampleFormat::Int32;
    default:
        return ESampleFormat::Float;
    }
}

bool isExactFormat(int subtype)
{
    return subtype == sndfileSubtype(nearestSampleFormat(subtype));
}

void packInt24(const int* words, std::size_t samples, unsigned char* packed)
{
    for (std::size_t i = 0; i < samples; ++i)
    {
        const auto word = static_cast<std::uint32_t>(words[i]);
        packed[3 * i] = static_cast<unsigned char>(word >> 8);
        packed[3 * i + 1] = static_cast<unsigned char>(word >> 16);
        packed[3 * i + 2] = static_cast<unsigned char>(word >> 24);
    }
}

void unpackInt24(const unsigned char* packed, std::size_t samples, int* words)
{
    for (std::size_t i = 0; i < samples; ++i)
    {
        const std::uint32_t word = static_cast<std::uint32_t>(packed[3 * i]) << 8 |
                                   static_cast<std::uint32_t>(packed[3 * i + 1]) << 16 |
                                   static_cast<std::uint32_t>(packed[3 * i + 2]) << 24;
        words[i] = static_cast<int>(word);
    }
}

} // namespace krv

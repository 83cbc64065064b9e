// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <string>

namespace krv {

/// Sample formats that files and the processor have in common; the values are the processor's KRV_FORMAT_...
enum class ESampleFormat
{
    Int16 = 1,
    Int24 = 3, ///< packed, 3 bytes
    Int32 = 4,
    Float = 5
};

inline constexpr ESampleFormat kSampleFormats[] = {ESampleFormat::Int16, ESampleFormat::Int24,
                                                   ESampleFormat::Int32, ESampleFormat::Float};

/// As `--format` takes it.
std::string sampleFormatName(ESampleFormat format);

std::size_t bytesPerSample(ESampleFormat format);

/// The PCM or float subtype of libsndfile.
int sndfileSubtype(ESampleFormat format);

/// The format that carries every sample of a libsndfile subtype unchanged, or comes nearest to it.
ESampleFormat nearestSampleFormat(int subtype);

/// True if a libsndfile subtype is one of the four formats itself.
bool isExactFormat(int subtype);

/// Between libsndfile's 24-bit samples, left-justified in words, and the processor's packed ones.
void packInt24(const int* words, std::size_t samples, unsigned char* packed);
void unpackInt24(const unsigned char* packed, std::size_t samples, int* words);

} // namespace krv

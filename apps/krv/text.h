// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sndfile.h>

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

namespace krv {

/// `text` fit for a line on a terminal: control characters become question marks.
std::string printable(std::string text);

/// 'text', as messages show names.
std::string inQuotes(const std::string& text);

/// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...);

/// "44100, 48000 Hz"
std::string rateList(const std::vector<std::uint32_t>& rates);

/// What libsndfile says about its last failure, fit for the middle of a sentence. Null: about the last open.
std::string sndfileReason(SNDFILE* file);

/// "-2.50 dB"; what rounds to zero has no sign.
std::string decibels(double level, int digits);

/// "2 channels", "1 channel"
std::string counted(std::uint64_t count, const std::string& noun);

} // namespace krv

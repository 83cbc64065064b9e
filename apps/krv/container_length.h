// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace krv {

/// True if the container of an audio file declares more bytes than the file has. libsndfile takes such a file
/// for a shorter one without a word. Knows RIFF, RIFX, RF64, W64, AIFF and AU; other containers notice by
/// themselves. A length that a writer to a pipe could not know, told as zero or as the field's largest
/// values, declares nothing.
bool endsEarly(const std::string& path);

} // namespace krv

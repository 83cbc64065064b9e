// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <krv.h>

#include <string>
#include <vector>

namespace krv {

/// The names of the filters in the user's filter folder; the place in the list is a filter's index.
std::vector<std::string> listFilters(krv_handle handle);

/// The user's filter folder, whether it is there or not.
std::string filterFolder();

} // namespace krv

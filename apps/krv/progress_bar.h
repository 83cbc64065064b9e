// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

namespace krv {

/// A bar on standard error, drawn only if that is a terminal and `wanted`; wiped away at its end.
class CProgressBar
{
public:
    CProgressBar(std::uint64_t total, bool wanted);
    ~CProgressBar();
    CProgressBar(const CProgressBar&) = delete;
    CProgressBar& operator=(const CProgressBar&) = delete;

    void show(std::uint64_t done);

private:
    std::uint64_t m_total;
    bool m_visible;
    std::uint64_t m_shownPercent = ~std::uint64_t{0};
};

} // namespace krv

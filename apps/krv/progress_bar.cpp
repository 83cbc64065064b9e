// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/progress_bar.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace krv {

CProgressBar::CProgressBar(std::uint64_t total, bool wanted)
    : m_total(total), m_visible(wanted && total > 0 && isatty(STDERR_FILENO) == 1)
{
}

CProgressBar::~CProgressBar()
{
    if (m_visible)
        std::fputs("\r\033[K", stderr);
}

void CProgressBar::show(std::uint64_t done)
{
    constexpr std::size_t kWidth = 50;
    if (!m_visible)
        return;
    const std::uint64_t percent = done * 100 / m_total;
    if (percent == m_shownPercent)
        return;
    m_shownPercent = percent;
    const std::string filled(kWidth * percent / 100, '#');
    std::fprintf(stderr, "\r[%-*s] %3d %%", static_cast<int>(kWidth), filled.c_str(),
                 static_cast<int>(percent));
    std::fflush(stderr);
}

} // namespace krv

// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/processor.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "apps/krv/command.h"
#include "apps/krv/filter_list.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

namespace fs = std::filesystem;

const char* const kFilterHint = "FILTER is a path, or an index or name from 'krv filters'";

/// Reads one of the library's texts whole: it tells when the buffer was too small.
std::string readText(int (*read)(krv_handle, char*, std::uint32_t), krv_handle handle)
{
    std::string text(256, '\0');
    while (read(handle, text.data(), static_cast<std::uint32_t>(text.size())) == KRV_STATUS_BAD_ARGUMENT &&
           text.size() < (std::size_t{1} << 24))
        text.assign(text.size() * 2, '\0');
    return text.c_str();
}

/// The words of a list up to the first zero.
template<std::size_t N>
std::vector<std::uint32_t> untilZero(const std::array<std::uint32_t, N>& words)
{
    return {words.begin(), std::find(words.begin(), words.end(), 0U)};
}

bool isIndex(const std::string& text)
{
    return !text.empty() && text.size() < 9 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool looksLikePath(const std::string& text)
{
    return text.find('/') != std::string::npos || fs::path(text).extension() == ".korvo";
}

} // namespace

CProcessor::CProcessor(const SBlockForm& form) : m_form(form)
{
    const int status = krv_create(
        &m_handle, static_cast<std::int32_t>(form.channels), static_cast<std::int32_t>(form.frames),
        static_cast<std::int32_t>(form.input), static_cast<std::int32_t>(form.output));
    if (status != KRV_STATUS_OK)
        throw CCommandError(kExitFailed,
                            "no processor could be made (status " + std::to_string(status) + ")");
}

CProcessor::~CProcessor()
{
    static auto& s_leftToTheSystem =
        *new std::vector<krv_handle>; // never destroyed: leak checkers look into it
    if (m_hasRun)
        s_leftToTheSystem.push_back(m_handle);
    else
        krv_destroy(m_handle);
}

void CProcessor::load(const std::string& filter)
{
    m_filter = filter;
    std::error_code ignored;
    if (looksLikePath(filter) || (fs::exists(filter, ignored) && !fs::is_directory(filter, ignored)))
        loadPath(filter);
    else
        loadListed(filter);
}

void CProcessor::loadPath(const std::string& path)
{
    std::error_code problem;
    if (!fs::exists(path, problem))
        throw CCommandError(kExitFailed, inQuotes(path) + " is not there; " + kFilterHint);
    if (fs::is_directory(path, problem))
        throw CCommandError(kExitFailed, inQuotes(path) + " is a folder; " + kFilterHint);
    if (!fs::is_regular_file(path, problem))
        throw CCommandError(kExitFailed, inQuotes(path) + " is a pipe or a device; a plain file is needed");
    if (fs::is_empty(path, problem))
        throw CCommandError(kExitFailed, inQuotes(path) + " is empty; a filter document is needed");
    if (access(path.c_str(), R_OK) != 0)
        throw CCommandError(kExitFailed, inQuotes(path) + " cannot be read: " + std::strerror(errno));
    // The library would take a leading "~" for the home folder.
    const int status = krv_loadFilterFromFile(m_handle, fs::absolute(path).c_str());
    if (status == KRV_STATUS_BAD_ARGUMENT)
        throw CCommandError(kExitFailed,
                            inQuotes(path) + " cannot be opened; a plain file with a UTF-8 name is needed");
    if (status != KRV_STATUS_OK)
        throw CCommandError(kExitFailed,
                            inQuotes(path) +
                                " is not a filter document, or a damaged one; an intact one is needed");
}

void CProcessor::loadListed(const std::string& indexOrName)
{
    const std::vector<std::string> names = listFilters(m_handle);
    std::size_t index = names.size();
    if (isIndex(indexOrName))
        index = std::stoul(indexOrName);
    else
    {
        const auto found = std::find(names.begin(), names.end(), indexOrName);
        if (found != names.end() && std::count(found, names.end(), indexOrName) > 1)
            throw CCommandError(kExitFailed, "several filters are named " + inQuotes(indexOrName) +
                                                 "; give the index that 'krv filters' shows");
        index = static_cast<std::size_t>(found - names.begin());
    }
    if (index >= names.size())
        throw CCommandError(kExitFailed, "there is no filter " + inQuotes(indexOrName) + "; " + kFilterHint);
    if (krv_loadFilter(m_handle, static_cast<std::uint32_t>(index)) != KRV_STATUS_OK)
        throw CCommandError(kExitFailed, "filter " + inQuotes(indexOrName) + " could not be loaded from " +
                                             inQuotes(filterFolder()) + "; it may have changed just now");
}

bool CProcessor::setMode(std::uint32_t mode)
{
    std::uint32_t active = 0;
    krv_getFilterOperatingMode(m_handle, &active);
    if (active != mode)
    {
        krv_setFilterOperatingMode(m_handle, mode);
        krv_getFilterOperatingMode(m_handle, &active);
    }
    // Rates above 96000 Hz have no filters of their own and count for both modes.
    const std::vector<std::uint32_t> offered = rates();
    return active == mode && !offered.empty();
}

void CProcessor::requireMode(std::uint32_t mode)
{
    if (setMode(mode))
        return;
    const std::uint32_t other = 3 - mode;
    throw CCommandError(kExitFailed, inQuotes(m_filter) + " has no filters for mode " + std::to_string(mode) +
                                         (setMode(other) ? "; --mode " + std::to_string(other) + " will do"
                                                         : " or any other"));
}

SStreamRate CProcessor::start(std::uint32_t rate, const std::string& origin)
{
    if (krv_setSamplerate(m_handle, rate) != KRV_STATUS_OK)
    {
        throw CCommandError(kExitFailed, inQuotes(origin) + " is at " + std::to_string(rate) +
                                             " Hz; the filter offers " + rateList(rates()));
    }
    m_hasRun = true;
    // One block takes the filter over and one fades it in. Their length is fixed so that what comes out does
    // not depend on the length of the blocks that follow.
    constexpr std::uint32_t kFrames = KRV_MIN_BLOCK_FRAMES;
    constexpr std::size_t kMaxSampleBytes = 4;
    const std::vector<unsigned char> silence(kFrames * m_form.channels * kMaxSampleBytes);
    std::vector<unsigned char> ignored(silence.size());
    for (int block = 0; block < 2; ++block)
        process(silence.data(), ignored.data(), kFrames);
    return streamRate(rate);
}

bool CProcessor::process(const void* input, void* output, std::uint32_t frames)
{
    const int status = krv_process(m_handle, input, output, frames, m_form.channels);
    if (status != KRV_STATUS_OK && status != KRV_STATUS_CLIPPED)
        throw CCommandError(kExitFailed, "a block was refused (status " + std::to_string(status) + ")");
    return status == KRV_STATUS_CLIPPED;
}

void CProcessor::setOverallGain(float gain)
{
    krv_setOverallGain(m_handle, gain);
}

std::string CProcessor::filterName() const
{
    return readText(krv_getFilterName, m_handle);
}

std::string CProcessor::filterPath() const
{
    return readText(krv_getFilterPath, m_handle);
}

std::vector<std::uint32_t> CProcessor::rates() const
{
    std::array<std::uint32_t, KRV_NUM_STANDARD_RATES> offered{};
    krv_getFilterSamplerates(m_handle, offered.data(), static_cast<std::uint32_t>(offered.size()));
    std::vector<std::uint32_t> usable = untilZero(offered);
    // A high rate is listed wherever the document names it, and runs only on top of its base rate.
    std::erase_if(usable, [&](std::uint32_t rate) {
        return std::find(offered.begin(), offered.end(), streamRate(rate).baseRate) == offered.end();
    });
    return usable;
}

std::vector<std::uint32_t> CProcessor::routing() const
{
    std::array<std::uint32_t, KRV_MAX_CHANNELS> numbers{};
    krv_getOutputRouting(m_handle, numbers.data(), static_cast<std::uint32_t>(numbers.size()));
    return untilZero(numbers);
}

float CProcessor::latencyMs() const
{
    float latency = -1.0F;
    krv_getFilterLatency(m_handle, &latency);
    return latency;
}

float CProcessor::maxGainDb() const
{
    float gain = 0.0F;
    krv_getFilterMaxGain(m_handle, &gain);
    return gain;
}

} // namespace krv

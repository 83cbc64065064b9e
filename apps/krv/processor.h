// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <krv.h>

#include <cstdint>
#include <string>
#include <vector>

#include "apps/krv/sample_format.h"
#include "apps/krv/stream_rate.h"

namespace krv {

/// The shape of a processor's blocks.
struct SBlockForm
{
    std::uint32_t channels = 2;
    std::uint32_t frames = 1024; ///< the most that one block may have
    ESampleFormat input = ESampleFormat::Float;
    ESampleFormat output = ESampleFormat::Float;
};

/// A processor of the library, with its statuses turned into CCommandError.
class CProcessor
{
public:
    explicit CProcessor(const SBlockForm& form);
    /// Once blocks have run, krv_destroy() would wait a second for an audio thread that is gone. The program
    /// is about to end, so a processor that has run is left to the system.
    ~CProcessor();
    CProcessor(const CProcessor&) = delete;
    CProcessor& operator=(const CProcessor&) = delete;

    /// Loads `filter`: the path of a filter document, or an index or name from `krv filters`.
    void load(const std::string& filter);

    /// Goes to mode 1 or 2; true if the loaded document has filters for it.
    bool setMode(std::uint32_t mode);

    /// Goes to mode 1 or 2; throws if the loaded document has no filters for it.
    void requireMode(std::uint32_t mode);

    /// Sets the stream's rate, and runs silence until the filter has faded in. `origin` names in an error
    /// whose rate it is.
    SStreamRate start(std::uint32_t rate, const std::string& origin);

    /// Processes a block; true if a sample clipped.
    bool process(const void* input, void* output, std::uint32_t frames);

    void setOverallGain(float gain);

    std::string filterName() const;
    std::string filterPath() const;
    /// The rates that can be set in the active mode.
    std::vector<std::uint32_t> rates() const;
    /// The document's channel numbers, from 1.
    std::vector<std::uint32_t> routing() const;
    float latencyMs() const; ///< negative while unknown
    float maxGainDb() const;

private:
    void loadPath(const std::string& path);
    void loadListed(const std::string& indexOrName);

    SBlockForm m_form;
    krv_handle m_handle = nullptr;
    std::string m_filter; ///< as the user called it
    bool m_hasRun = false;
};

} // namespace krv

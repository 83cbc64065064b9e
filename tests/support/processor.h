// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "api/krv.h"
#include "tests/support/document_builder.h"
#include "tests/support/temp_folder.h"

namespace korvotest {

/// A processor that lives as long as the test, and the folder for its filter files.
class CProcessor
{
public:
    explicit CProcessor(int channels = 2, int frames = 256, int inputFormat = KRV_FORMAT_FLOAT32,
                        int outputFormat = KRV_FORMAT_FLOAT32)
    {
        m_channels = static_cast<unsigned>(channels);
        if (krv_create(&m_handle, channels, frames, inputFormat, outputFormat) != KRV_STATUS_OK)
            throw std::runtime_error("krv_create failed");
    }
    ~CProcessor()
    {
        unload();
        krv_destroy(m_handle);
    }
    CProcessor(const CProcessor&) = delete;
    CProcessor& operator=(const CProcessor&) = delete;

    operator krv_handle() const { return m_handle; }
    const CTempFolder& folder() const { return m_folder; }

    int load(const std::vector<SChannel>& channels)
    {
        return krv_loadFilterFromFile(m_handle,
                                      m_folder.write("filter.korvo", documentText(channels)).c_str());
    }

    /// Runs `block` through the processor in place.
    int process(std::vector<float>& block, unsigned channels)
    {
        return krv_process(m_handle, block.data(), block.data(),
                           static_cast<std::uint32_t>(block.size()) / channels, channels);
    }

    /// Runs silence until a loaded filter has faded in.
    void settle(unsigned channels, unsigned frames = 64)
    {
        for (int i = 0; i < 3; ++i)
        {
            std::vector<float> silence(static_cast<std::size_t>(frames) * channels);
            process(silence, channels);
        }
    }

    /// Loads the document, sets the rate and lets the filter fade in.
    void start(const std::vector<SChannel>& channels, unsigned rate)
    {
        ASSERT_EQ(load(channels), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(m_handle, rate), KRV_STATUS_OK);
        settle(m_channels);
    }

    /// Takes the filter out while audio runs: without that, destruction waits a second for an audio thread
    /// that does not come.
    void unload()
    {
        const auto broken = m_folder.write("broken.korvo", "");
        std::atomic<bool> stop{false};
        std::thread audio([&] {
            std::vector<float> silence(16 * m_channels);
            while (!stop)
                krv_process(m_handle, silence.data(), silence.data(), 16, m_channels);
        });
        krv_loadFilterFromFile(m_handle, broken.c_str());
        stop = true;
        audio.join();
    }

private:
    krv_handle m_handle = nullptr;
    unsigned m_channels = 0;
    CTempFolder m_folder;
};

} // namespace korvotest

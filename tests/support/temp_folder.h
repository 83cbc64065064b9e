// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace korvotest {

/// A folder of its own for one test, removed with everything in it when the test ends.
class CTempFolder
{
public:
    CTempFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "korvo-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        m_path = pattern;
    }
    ~CTempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

    std::filesystem::path write(const std::string& name, const std::string& contents) const
    {
        const std::filesystem::path file = m_path / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << contents;
        return file;
    }

private:
    std::filesystem::path m_path;
};

} // namespace korvotest

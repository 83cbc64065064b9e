// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/container_length.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string_view>
#include <system_error>

namespace krv {

namespace {

using Head = std::array<unsigned char, 28>;

std::uint64_t littleEndian(const Head& head, std::size_t at, std::size_t bytes)
{
    std::uint64_t value = 0;
    for (std::size_t i = bytes; i-- > 0;)
        value = value << 8 | head[at + i];
    return value;
}

std::uint64_t bigEndian(const Head& head, std::size_t at, std::size_t bytes)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        value = value << 8 | head[at + i];
    return value;
}

/// Writers to a pipe put 0, 0xFFFFFFFF or some value just above or below 2 GiB.
bool isKnown(std::uint64_t length)
{
    constexpr std::uint64_t kTwoGiB = 0x80000000;
    constexpr std::uint64_t kSlack = 0x1000;
    if (length >= kTwoGiB - kSlack && length <= kTwoGiB + kSlack)
        return false;
    return length != 0 && length < std::numeric_limits<std::uint32_t>::max() - kSlack;
}

/// The file length that the first bytes tell; 0 if they tell none.
std::uint64_t declaredLength(const Head& head)
{
    const std::string_view magic(reinterpret_cast<const char*>(head.data()), 4);
    std::uint64_t beyondField = 8;
    std::uint64_t length = 0;
    if (magic == "RIFF")
        length = littleEndian(head, 4, 4);
    else if (magic == "RIFX" || magic == "FORM")
        length = bigEndian(head, 4, 4);
    else if (magic == ".snd")
    {
        beyondField = bigEndian(head, 4, 4);
        length = bigEndian(head, 8, 4);
    }
    else if (magic == "RF64")
        return littleEndian(head, 20, 8) + 8; // the ds64 chunk always comes first
    else if (magic == "riff")
        return littleEndian(head, 16, 8); // W64; counts its own header
    return isKnown(length) ? length + beyondField : 0;
}

} // namespace

bool endsEarly(const std::string& path)
{
    std::error_code noFile;
    if (!std::filesystem::is_regular_file(path, noFile))
        return false;
    const std::uintmax_t length = std::filesystem::file_size(path, noFile);
    Head head{};
    std::ifstream file(path, std::ios::binary);
    if (noFile || !file.read(reinterpret_cast<char*>(head.data()), head.size()))
        return false;
    const std::uint64_t declared = declaredLength(head);
    // Many writers leave out the byte that pads an odd chunk at the end of the file.
    return declared > length && declared - length > 1;
}

} // namespace krv

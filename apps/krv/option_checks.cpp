// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/option_checks.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>

#include "apps/krv/text.h"

namespace krv {

namespace {

/// The number that the whole of `text` is; none if it is something else or out of the type's range.
template<class T>
std::optional<T> parsed(const std::string& text)
{
    T value{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && rest == end ? std::optional(value) : std::nullopt;
}

std::string refusal(const std::string& text, const std::string& wanted)
{
    return inQuotes(text) + " is not accepted; " + wanted + " is needed";
}

} // namespace

OptionCheck wholeNumber(int least, int most)
{
    const std::string wanted = "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    return [=](const std::string& text) {
        const auto value = parsed<int>(text);
        return value && *value >= least && *value <= most ? std::string() : refusal(text, wanted);
    };
}

OptionCheck number(const std::function<bool(float)>& accepts, const std::string& wanted)
{
    return [=](const std::string& text) {
        const auto value = parsed<float>(text);
        return value && accepts(*value) ? std::string() : refusal(text, wanted);
    };
}

OptionCheck oneOf(const std::vector<std::string>& words)
{
    return [=](const std::string& text) {
        if (std::find(words.begin(), words.end(), text) != words.end())
            return std::string();
        std::string list = words.front();
        for (std::size_t i = 1; i < words.size(); ++i)
            list += (i + 1 < words.size() ? ", " : " or ") + words[i];
        return refusal(text, list);
    };
}

} // namespace krv

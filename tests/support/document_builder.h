// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace korvotest {

/// One coefficient set of a channel.
struct SSet
{
    unsigned fs = 48000;
    bool minPhase = false;
    std::vector<float> taps = {1.0F};
    std::vector<std::vector<float>> sections = {{0.0F, 0.0F, 0.0F, 0.0F}}; ///< a1 a2 b0 b1 each
};

struct SChannel
{
    unsigned number = 1;
    float gaindB = 0.0F;
    float delayms = 0.0F;
    float maxFilterGaindB = 0.0F;
    std::vector<SSet> sets;
};

inline std::string listText(const std::vector<float>& values)
{
    std::string text = "[";
    char number[32];
    for (const float value : values)
    {
        std::snprintf(number, sizeof number, "%s%.9g", text.size() > 1 ? " " : "",
                      static_cast<double>(value));
        text += number;
    }
    return text + "]";
}

inline std::string attribute(const std::string& name, const std::string& value)
{
    return " " + name + "=\"" + value + "\"";
}

inline std::string setText(const SSet& set)
{
    std::string text =
        "<Coefficients" + attribute("Topology", "FIIR") + attribute("Fs", std::to_string(set.fs)) +
        attribute("MinPhase", set.minPhase ? "1" : "0") + "><FIR" +
        attribute("NbrOfTaps", std::to_string(set.taps.size())) + "><taps>" + listText(set.taps) +
        "</taps></FIR><IIR" + attribute("NbrOfSections", std::to_string(set.sections.size())) + ">";
    for (const std::vector<float>& section : set.sections)
        text += "<section>" + listText(section) + "</section>";
    return text + "</IIR></Coefficients>";
}

/// The text of a filter document.
inline std::string documentText(const std::vector<SChannel>& channels,
                                const std::string& projectName = "Test")
{
    std::string text = "<?xml version=\"1.0\"?><brisa><Opal" +
                       attribute("ChannelCount", std::to_string(channels.size())) +
                       attribute("ProjectName", projectName) + ">";
    for (const SChannel& channel : channels)
    {
        text += "<Channel" + attribute("Number", std::to_string(channel.number)) +
                attribute("GaindB", std::to_string(channel.gaindB)) +
                attribute("Delayms", std::to_string(channel.delayms)) +
                attribute("MaxFilterGaindB", std::to_string(channel.maxFilterGaindB)) + ">";
        for (const SSet& set : channel.sets)
            text += setText(set);
        text += "</Channel>";
    }
    return text + "</Opal></brisa>\n";
}

/// `count` channels, numbered from 1, each with the given sets.
inline std::vector<SChannel> sameChannels(unsigned count, const std::vector<SSet>& sets)
{
    std::vector<SChannel> channels(count);
    for (unsigned i = 0; i < count; ++i)
    {
        channels[i].number = i + 1;
        channels[i].sets = sets;
    }
    return channels;
}

} // namespace korvotest

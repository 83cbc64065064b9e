// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sstream>
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

inline std::ostream& operator<<(std::ostream& text, const std::vector<float>& values)
{
    for (std::size_t i = 0; i < values.size(); ++i)
        text << (i == 0 ? "[" : " ") << values[i];
    return text << (values.empty() ? "[]" : "]");
}

inline std::ostream& operator<<(std::ostream& text, const SSet& set)
{
    text << "<Coefficients Topology=\"FIIR\" Fs=\"" << set.fs << "\" MinPhase=\"" << set.minPhase
         << "\"><FIR NbrOfTaps=\"" << set.taps.size() << "\"><taps>" << set.taps
         << "</taps></FIR><IIR NbrOfSections=\"" << set.sections.size() << "\">";
    for (const std::vector<float>& section : set.sections)
        text << "<section>" << section << "</section>";
    return text << "</IIR></Coefficients>";
}

/// The text of a filter document.
inline std::string documentText(const std::vector<SChannel>& channels,
                                const std::string& projectName = "Test")
{
    std::ostringstream text;
    text.precision(9);
    text << "<?xml version=\"1.0\"?><brisa><Opal ChannelCount=\"" << channels.size() << "\" ProjectName=\""
         << projectName << "\">";
    for (const SChannel& channel : channels)
    {
        text << "<Channel Number=\"" << channel.number << "\" GaindB=\"" << channel.gaindB << "\" Delayms=\""
             << channel.delayms << "\" MaxFilterGaindB=\"" << channel.maxFilterGaindB << "\">";
        for (const SSet& set : channel.sets)
            text << set;
        text << "</Channel>";
    }
    text << "</Opal></brisa>\n";
    return text.str();
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

// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstdio>
#include <cstring>

#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <rapidxml/rapidxml.hpp>

#include "bench/ratio.h"
#include "filter/filter_document.h"

namespace {

using namespace korvo::parser::FIIR;

void appendValues(std::string& text, std::mt19937& random, int count)
{
    std::normal_distribution<double> distribution(0.0, 0.05);
    char value[32];
    text += '[';
    for (int i = 0; i < count; ++i)
    {
        // Nine digits: what a float needs to be written and read without loss.
        std::snprintf(value, sizeof(value), "%s%.9g", i > 0 ? " " : "", distribution(random));
        text += value;
    }
    text += ']';
}

/// A document of the usual size: 8 channels, 4 rates, 2 modes, 480 taps, 16 sections.
std::string makeDocument()
{
    std::mt19937 random(1);
    std::string text = "<?xml version=\"1.0\"?>\n<brisa>\n<Opal ProjectName=\"Bench\" ChannelCount=\"8\">\n";
    for (int channel = 1; channel <= 8; ++channel)
    {
        text += "<Channel Name=\"Left\" Number=\"" + std::to_string(channel) + "\" GaindB=\"-3.0\">\n";
        for (int set = 0; set < 8; ++set)
        {
            const char* const rates[] = {"44100", "48000", "88200", "96000"};
            text += std::string("<Coefficients Topology=\"FIIR\" Fs=\"") + rates[set / 2] + "\" MinPhase=\"" +
                    std::to_string(set % 2) + "\">\n<FIR NbrOfTaps=\"480\"><taps>";
            appendValues(text, random, 480);
            text += "</taps></FIR>\n<IIR NbrOfSections=\"16\">\n";
            for (int section = 0; section < 16; ++section)
            {
                text += "<section>";
                appendValues(text, random, 4);
                text += "</section>\n";
            }
            text += "</IIR>\n</Coefficients>\n";
        }
        text += "</Channel>\n";
    }
    return text + "</Opal>\n</brisa>\n";
}

class CSink : public IFIIRCallback
{
public:
    unsigned int IFIIRCallback_Wants() const override { return 7; }
    bool IFIIRCallback_FilterInfo(const char*, const char*, unsigned int, const char*, const char*,
                                  const char*) override
    {
        return true;
    }
    bool IFIIRCallback_ChannelInfo(unsigned int, const char*, unsigned int, float, float, float) override
    {
        return true;
    }
    bool IFIIRCallback_FilterData(unsigned int, unsigned int, bool, const float* taps, unsigned int,
                                  const SSection* sections, unsigned int) override
    {
        benchmark::DoNotOptimize(taps[0] + sections[0].a1);
        return true;
    }
};

double measureParse()
{
    const std::string text = makeDocument();
    std::vector<char> copy(text.size() + 1);
    CSink sink;
    return korvobench::speedUp([&] { benchmark::DoNotOptimize(ParseXML(text.c_str(), &sink)); },
                               [&] {
                                   // rapidxml needs a fresh copy each time; its buffer is kept, to its
                                   // favour.
                                   std::memcpy(copy.data(), text.c_str(), copy.size());
                                   rapidxml::xml_document<char> document;
                                   document.parse<rapidxml::parse_default>(copy.data());
                                   benchmark::DoNotOptimize(document.first_node());
                               });
}

const bool s_registered =
    korvobench::registerRow({"parse", "rapidxml alone on the same text", 0.4, 0.7}, measureParse);

} // namespace

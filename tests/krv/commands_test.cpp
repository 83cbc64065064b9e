// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/krv/krv_fixture.h"

#include <sstream>

using namespace korvotest;
using testing::AllOf;
using testing::HasSubstr;
using Commands = CKrvTest;

namespace {

constexpr const char* kFolder = ".config/Application Support/Korvo/Filters/";

TEST_F(Commands, ListTheFiltersOrWhereTheyWouldBe)
{
    EXPECT_THAT(done("filters"), AllOf(HasSubstr("Korvo/Filters"), HasSubstr("is not there")));
    std::filesystem::create_directories(at(kFolder));
    EXPECT_THAT(done("filters"), AllOf(HasSubstr("Korvo/Filters"), HasSubstr("holds none")));
    m_folder.write(kFolder + std::string("study.korvo"),
                   documentText(sameChannels(1, {{}}), "Study&#10;\x1b[31m"));
    EXPECT_EQ(done("filters"), "  0  Study??[31m\n");
}

TEST_F(Commands, TakeAFilterByIndexByNameAndByPath)
{
    const std::string document = documentText(sameChannels(1, {{}}), "Study");
    m_folder.write(kFolder + std::string("study.korvo"), document);
    m_folder.write("study.korvo", document);
    for (const char* filter : {"0", "Study", "study.korvo"})
        EXPECT_THAT(done(std::string("info ") + filter), testing::StartsWith("Study\n"));
    for (const char* filter : {"1", "study", "99999999999999999999"})
    {
        const SProgramResult result = krv(std::string("info ") + filter);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr("an index or name from 'krv filters'"));
    }
    m_folder.write(kFolder + std::string("second.korvo"), document);
    EXPECT_THAT(krv("info Study").err, HasSubstr("several filters are named 'Study'; give the index"));
    done("info 1");
}

TEST_F(Commands, TellAFiltersModesRatesAndLatencies)
{
    writeFilter("both.korvo", 2,
                {{.taps = delayedTap(480)},
                 {.fs = 96000, .taps = delayedTap(960)},
                 {.fs = 192000},
                 {.fs = 176400},
                 {.minPhase = true}});
    EXPECT_THAT(done("info both.korvo"),
                AllOf(testing::StartsWith("both.korvo\n  file      /"),
                      testing::EndsWith("/both.korvo\n"
                                        "  channels  2, serving 1, 2\n"
                                        "  mode 1    48000, 96000, 192000 Hz\n"
                                        "            latency 10.00 ms, maximum gain 0.0 dB\n"
                                        "  mode 2    48000 Hz\n"
                                        "            latency 0.00 ms, maximum gain 0.0 dB\n")));
    writeFilter("one.korvo", 1, {{}});
    EXPECT_THAT(done("info one.korvo"), HasSubstr("mode 2    not in this document"));
}

TEST_F(Commands, TimeEveryRateAndBlockLength)
{
    writeFilter("rates.korvo", 3, {{}, {.fs = 96000}, {.fs = 192000}});
    const std::string table = done("bench rates.korvo --seconds 0.001");
    EXPECT_THAT(table, AllOf(HasSubstr("3 channels"), HasSubstr("192000   1024")));
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2 + 3 * 4);
    EXPECT_THAT(done("bench rates.korvo --seconds 0.001 --json --channels 1"),
                AllOf(testing::StartsWith("{\"filter\": \"rates.korvo\", \"mode\": 1, \"channels\": 1,"),
                      HasSubstr("{\"rate\": 96000, \"baseRate\": 96000, \"block\": 256,"),
                      testing::EndsWith("}\n]}\n")));
}

TEST_F(Commands, HelpOnATerminalAndSayTheirVersion)
{
    for (const std::string command : {"", "render", "info", "filters", "ir", "mic", "bench"})
    {
        EXPECT_THAT(done(command + " --version"), testing::StartsWith("krv 0."));
        const std::string help = done(command + " --help");
        EXPECT_THAT(help, HasSubstr("Usage: krv"));
        std::istringstream lines(help);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 80U) << line;
    }
}

} // namespace

// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/krv/render_fixture.h"

using namespace korvotest;
using testing::AllOf;
using testing::HasSubstr;

namespace {

class Commands : public CRenderTest
{
protected:
    static constexpr const char* kFolder = ".config/Application Support/Korvo/Filters";

    SProgramOptions home() const { return {{{"HOME", m_folder.path()}}}; }

    std::string listed(const std::string& name, const std::string& file,
                       const std::vector<SSetText>& sets) const
    {
        return m_folder.write(std::string(kFolder) + "/" + file, filterDocument(name, 2, sets)).string();
    }

    SProgramResult krvAtHome(const std::vector<std::string>& arguments) const
    {
        return krv(arguments, home());
    }
};

TEST_F(Commands, ListTheFiltersOrWhereTheyWouldBe)
{
    EXPECT_THAT(krvAtHome({"filters"}).out, AllOf(HasSubstr(at(kFolder)), HasSubstr("is not there")));
    std::filesystem::create_directories(at(kFolder));
    const SProgramResult empty = krvAtHome({"filters"});
    EXPECT_EQ(empty.exitCode, 0);
    EXPECT_THAT(empty.out, AllOf(HasSubstr(at(kFolder)), HasSubstr("holds none")));
    listed("Study&#10;\x1b[31m", "study.korvo", {{}});
    EXPECT_EQ(krvAtHome({"filters"}).out, "  0  Study??[31m\n");
}

TEST_F(Commands, TakeAFilterByIndexByNameAndByPath)
{
    const std::string path = listed("Study", "study.korvo", {{}});
    for (const std::string& filter : {std::string("0"), std::string("Study"), path})
    {
        const SProgramResult result = krvAtHome({"info", filter});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_THAT(result.out, AllOf(testing::StartsWith("Study\n"), HasSubstr(path)));
    }
    for (const char* filter : {"1", "study", "99999999999999999999"})
    {
        const SProgramResult result = krvAtHome({"info", filter});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr("an index or name from 'krv filters'"));
    }
    listed("Study", "second.korvo", {{}});
    const SProgramResult twice = krvAtHome({"info", "Study"});
    EXPECT_EQ(twice.exitCode, 1);
    EXPECT_THAT(twice.err, HasSubstr("several filters are named 'Study'; give the index"));
    EXPECT_EQ(krvAtHome({"info", "1"}).exitCode, 0);
}

TEST_F(Commands, TellAFiltersModesRatesAndLatencies)
{
    const std::string both = writeFilter("both.korvo", 2,
                                         {{.taps = delayedTap(480)},
                                          {.fs = 96000, .taps = delayedTap(960)},
                                          {.fs = 192000},
                                          {.fs = 176400},
                                          {.minPhase = true}});
    const SProgramResult result = krv({"info", both});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "both.korvo\n"
                          "  file      " +
                              both +
                              "\n"
                              "  channels  2, serving 1, 2\n"
                              "  mode 1    48000, 96000, 192000 Hz; latency 10.00 ms; maximum gain 0.0 dB\n"
                              "  mode 2    48000 Hz; latency 0.00 ms; maximum gain 0.0 dB\n");
    EXPECT_THAT(krv({"info", writeFilter("one.korvo", 1, {{}})}).out,
                HasSubstr("mode 2    not in this document"));
}

TEST_F(Commands, TimeEveryRateAndBlockLength)
{
    const std::string filter = writeFilter("rates.korvo", 3, {{}, {.fs = 96000}, {.fs = 192000}});
    const SProgramResult table = krv({"bench", filter, "--seconds", "0.001"});
    EXPECT_EQ(table.exitCode, 0) << table.err;
    EXPECT_THAT(table.out, AllOf(HasSubstr("3 channels"), HasSubstr("192000   1024")));
    EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 2 + 3 * 4);
    const SProgramResult json = krv({"bench", filter, "--seconds", "0.001", "--json", "--channels", "1"});
    EXPECT_THAT(json.out,
                AllOf(testing::StartsWith("{\"filter\": \"rates.korvo\", \"mode\": 1, \"channels\": 1,"),
                      HasSubstr("{\"rate\": 96000, \"baseRate\": 96000, \"block\": 256,"),
                      testing::EndsWith("}\n]}\n")));
}

TEST_F(Commands, HelpAndSayTheirVersion)
{
    for (const char* command : {"", "render", "info", "filters", "ir", "mic", "bench"})
    {
        for (const char* flag : {"--help", "--version"})
        {
            std::vector<std::string> arguments = {command, flag};
            std::erase(arguments, "");
            const SProgramResult result = krv(arguments);
            EXPECT_EQ(result.exitCode, 0) << command << flag;
            EXPECT_EQ(result.err, "");
            EXPECT_THAT(result.out, HasSubstr(flag == std::string("--help") ? "Usage: krv" : "krv 0."));
        }
    }
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{},
                                                  {"rendr"},
                                                  {"filters", "too", "many"},
                                                  {"info"},
                                                  {"bench", "f", "--seconds", "nan"}})
    {
        const SProgramResult result = krv(wrong);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_THAT(result.err, testing::StartsWith("krv: "));
    }
}

TEST_F(Commands, NoticeThatStandardOutputIsFull)
{
    for (const std::string& argument : {writeFilter("f.korvo", 2, {{}}), std::string("--help")})
    {
        const SProgramResult result =
            runProgram({"/bin/sh", "-c", R"("$0" info "$1" > /dev/full)", KRV_PROGRAM, argument});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "krv: standard output cannot be written\n");
    }
}

} // namespace

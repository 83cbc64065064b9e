// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidxml/rapidxml.hpp>

#include "filter/document_digest.h"
#include "tests/filter/document_fixture.h"
#include "tests/support/random.h"

namespace {

using namespace korvo::parser::FIIR;
using korvotest::CRecorder;
using korvotest::kExample;
using korvotest::replaced;
using testing::ElementsAre;

const std::string kInfo = "info|Living room|tech|1|today|file|text";
const std::string kChannel = "channel|0|Left|1|-3|0.5|6";
const std::string kData = "data|0|44100|0|1 0.5 0.25 /-0.9 0.2 0.01 0";
const std::string kSet =
    kExample.substr(kExample.find("<Coeff"), kExample.find("</Channel") - kExample.find("<Coeff"));

EResult parse(const std::string& text)
{
    CRecorder recorder;
    return ParseXML(text.c_str(), &recorder);
}

TEST(FilterDocument, HandsOverTheExampleInOrder)
{
    const std::string fir = "<FIR NbrOfTaps=\"3\"><taps>[1.0 0.5 0.25]</taps></FIR>";
    const std::string longList = "[1.0 0.5" + std::string(100, ' ') + "0.25]"; // long enough to be cut out
    const std::string variants[] = {
        kExample,
        "\xEF\xBB\xBF<?xml version=\"1.0\"?><!DOCTYPE brisa [<!ENTITY x \"<y>\">]>\n<!-- <brisa> -->" +
            kExample,
        replaced(replaced(kExample, fir, ""), "</IIR>", "</IIR>" + fir),
        replaced(kExample, "[1.0 0.5 0.25]", longList),
        replaced(kExample, "[1.0 0.5 0.25]", "<![CDATA[" + longList + "]]>"),
        replaced(kExample, "[1.0 0.5 0.25]", "[1.0&#32;0.5" + longList.substr(8)),
        replaced(kExample, "[1.0 0.5 0.25]", "<inner>" + longList + "</inner>"),
        replaced(kExample, "</brisa>", "<Opal/></brisa><brisa/><other>" + longList + "</other>"),
    };
    for (const std::string& text : variants)
    {
        CRecorder recorder;
        EXPECT_EQ(ParseXML(text.c_str(), &recorder), eResultOk) << text;
        EXPECT_THAT(recorder.calls, ElementsAre(kInfo, kChannel, kData)) << text;
        EXPECT_EQ(recorder.wantsCalls, 1);
    }
}

TEST(FilterDocument, TellsWhatIsWrong)
{
    const struct
    {
        const char* from;
        const char* to;
        int result;
    } rows[] = {
        {"</Opal>", "<", 1},
        {"<brisa>", "text<brisa>", 1},
        {"<brisa>", "<Brisa>", 2},
        {"<Opal", "<opal", 3},
        {"<FIR", "<Fir", 4},
        {"<taps>", "<Taps>", 4},
        {"<IIR", "<iir", 5},
        {"NbrOfSections=\"1\"", "", 6},
        {"NbrOfSections=\"1\"", "NbrOfSections=\"0\"", 6},
        {"NbrOfSections=\"1\"", "NbrOfSections=\"2\"", 9},
        {"NbrOfSections=\"1\"", "NbrOfSections=\"134217727\"", 9},
        {"NbrOfSections=\"1\"", "NbrOfSections=\"134217728\"", 13},
        {"NbrOfSections=\"1\"", "NbrOfSections=\"-1\"", 13},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"2\"", 0},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\" +3x\"", 0},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"4\"", 7},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"536870911\"", 7},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"536870912\"", 13},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"-1\"", 13},
        {"NbrOfTaps=\"3\"", "NbrOfTaps=\"4294967299\"", 13},
        {"NbrOfTaps=\"3\"", "", 13},
        {"[1.0 0.5 0.25]", "[1.0\n0.5\n0.25]", 7},
        {"[1.0 0.5 0.25]", "[1.0 0.5<!-- --> 0.25]", 7},
        {"[1.0 0.5 0.25]", "", 7},
        {"[1.0 0.5 0.25]", "1.0 [[\n0.5]]x", 0},
        {"[-0.9 0.2 0.01 0.0]", "[-0.9 0.2 0.01]", 9},
        {"[-0.9 0.2 0.01 0.0]", "[-0.9 0.2 0.01 0.0 1.0]", 0},
        {"[-0.9 0.2 0.01 0.0]", "", 9},
        {"<section>", "<Section>", 9},
        {"</section>", "</section>text", 9},
        {"</section>", "</section><section>[1 2 3 4]</section>", 9},
        {"<Channel", "<channel", 10},
        {"Topology=\"FIIR\"", "", 11},
        {"Topology=\"FIIR\"", "Topology=\"FIR\"", 11},
        {"Topology=\"FIIR\"", "Topology=\"fIiRv2\"", 0},
        {"</Coefficients>", "</Coefficients>stray", 11},
        {"Fs=\"44100\"", "", 0},
        {"GaindB=\"-3.0\"", "GaindB=\"loud\"", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(replaced(kExample, row.from, row.to)), row.result) << row.from << " -> " << row.to;

    EXPECT_EQ(parse(""), eResultNoRoot);
    EXPECT_EQ(parse(" \r\n\t"), eResultNoRoot);
    EXPECT_EQ(parse("<brisa><Opal/></brisa>"), eResultNoChannel);
    EXPECT_EQ(parse("<brisa><Opal><Channel/></Opal></brisa>"), eResultOk);
}

TEST(FilterDocument, CallsOnlyWhatIsWanted)
{
    const std::string broken = replaced(kExample, "Topology=\"FIIR\"", "");
    const struct
    {
        unsigned int wants;
        const std::string& text;
        std::vector<std::string> calls;
    } rows[] = {
        {0, broken, {}},
        {1, broken, {kInfo}},
        {2, broken, {kChannel}},
        {4, kExample, {kData}},
        {~2U, kExample, {kInfo, kData}},
    };
    for (const auto& row : rows)
    {
        CRecorder recorder(row.wants);
        EXPECT_EQ(ParseXML(row.text.c_str(), &recorder), eResultOk) << row.wants;
        EXPECT_EQ(recorder.calls, row.calls) << row.wants;
    }
    CRecorder nothing(0);
    EXPECT_EQ(ParseXML("<brisa><Opal/></brisa>", &nothing), eResultNoChannel);
}

TEST(FilterDocument, CountsEverySiblingBehindTheFirstChannel)
{
    const std::string text = replaced(replaced(kExample, "<Channel", "<before/><Channel"), "</Opal>",
                                      "stray<x/><Channel Number=\"2\"/></Opal>");
    CRecorder recorder(2);
    EXPECT_EQ(ParseXML(text.c_str(), &recorder), eResultOk);
    EXPECT_THAT(recorder.calls, ElementsAre(kChannel, "channel|1|(null)|0|0|0|0", "channel|2|(null)|0|0|0|0",
                                            "channel|3|(null)|2|0|0|0"));
}

TEST(FilterDocument, KeepsItsBuffersFromSetToSet)
{
    const std::string none = replaced(kSet, "NbrOfTaps=\"3\"", "NbrOfTaps=\"0\"");
    CRecorder recorder(4);
    EXPECT_EQ(ParseXML(replaced(kExample, "</Channel>", none + kSet + "</Channel>").c_str(), &recorder),
              eResultOk);
    ASSERT_EQ(recorder.tapPointers.size(), 3U);
    EXPECT_THAT(recorder.tapPointers, testing::Each(recorder.tapPointers[0]));
    EXPECT_EQ(recorder.calls[1], "data|0|44100|0|/-0.9 0.2 0.01 0");
}

TEST(FilterDocument, LetsTheReceiverStopIt)
{
    for (const char* kind : {"info", "channel", "data"})
    {
        CRecorder recorder;
        recorder.refuse = kind;
        EXPECT_EQ(ParseXML(kExample.c_str(), &recorder), eResultRefused) << kind;
    }

    struct SThrower : CRecorder
    {
        explicit SThrower(bool ownResult) : throwsResult(ownResult) {}
        bool IFIIRCallback_ChannelInfo(unsigned int, const char*, unsigned int, float, float, float) override
        {
            if (throwsResult)
                throw eResultNoFir;
            throw std::runtime_error("no");
        }
        const bool throwsResult;
    };
    SThrower own(true);
    EXPECT_EQ(ParseXML(kExample.c_str(), &own), eResultNoFir);
    SThrower foreign(false);
    EXPECT_THROW(ParseXML(kExample.c_str(), &foreign), std::runtime_error);

    struct SHeaderOnly : IFIIRCallback
    {
        unsigned int IFIIRCallback_Wants() const override { return 3; }
        bool IFIIRCallback_FilterInfo(const char*, const char*, unsigned int, const char*, const char*,
                                      const char*) override
        {
            return true;
        }
    } headerOnly;
    EXPECT_EQ(ParseXML(kExample.c_str(), &headerOnly), eResultRefused);
}

std::string repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

TEST(FilterDocument, RefusesDeepNestingAndOnlyThat)
{
    // Opening tags as rapidxml takes them, some of which look like something else.
    for (const std::string tag :
         {"<a>", "<a b='\"'>", "<a b=\"/\">", "<a b='>'\n>", "<a\"b>", "<a<!--b>", "<a>x", "<!-- </a> --><a>",
          "<?x </a>?><a>", "<![CDATA[</a>]]><a>", "<!x><a>"})
    {
        EXPECT_EQ(parse(repeated(tag, 1000000)), eResultXmlError) << tag;
        EXPECT_EQ(parse(repeated(tag, 250) + repeated("</a>", 250)), eResultNoRoot) << tag;
    }
    const int deepest = korvo::parser::kDeepestNesting;
    EXPECT_EQ(parse(repeated("<a>", deepest) + repeated("</a>", deepest)), eResultNoRoot);
    EXPECT_EQ(parse(repeated("<a>", deepest + 1) + repeated("</a>", deepest + 1)), eResultXmlError);
    for (const char* flat : {"<a/>", "<a b='>'/>", "<a></a>", "<!-- -> ->-> <a> -->",
                             "<!DOCTYPE x [<!y ><a>]>", "<?a > <a>?>", "<![CDATA[]> <a>]]>"})
        EXPECT_EQ(parse("<brisa>" + repeated(flat, 1000) + "</brisa>"), eResultNoFilter) << flat;
}

using Node = rapidxml::xml_node<char>;

void expectSameTree(korvo::parser::CDocumentDigest& digest, const Node& short_, const Node& whole)
{
    const auto name = [](const Node& node) { return std::string(node.name(), node.name_size()); };
    const auto value = digest.original(short_.value(), short_.value_size()).text;
    ASSERT_EQ(name(short_), name(whole));
    ASSERT_EQ(value, std::string_view(whole.value(), whole.value_size()));
    const Node* a = short_.first_node();
    const Node* b = whole.first_node();
    for (; a != nullptr && b != nullptr; a = a->next_sibling(), b = b->next_sibling())
        ASSERT_NO_FATAL_FAILURE(expectSameTree(digest, *a, *b));
    ASSERT_EQ(a, b); // both null
}

bool parseInto(rapidxml::xml_document<char>& document, char* text)
{
    try
    {
        document.parse<0>(text);
        return true;
    }
    catch (const rapidxml::parse_error&)
    {
        return false;
    }
}

TEST(FilterDocument, SurvivesDamageAndReadsAsTheWholeTextDoes)
{
    const std::string list(40, '1');
    const std::string original =
        "<?xml version='1.0'?><!-- " + list + " -->" +
        replaced(kExample, "</Opal>",
                 "<n>" + list + "<![CDATA[" + list + "]]>" + list + "&lt;" + list + "</n></Opal>");
    const char* const pieces[] = {"<",  ">",    "&",  "\"",        "'",          "/",    "!",
                                  "?",  "[",    "]",  " ",         "<a",         "-->",  "]]>",
                                  "?>", "<!--", "</", "<![CDATA[", "<!DOCTYPE ", "&#0;", "&#x4"};
    std::mt19937 random = korvotest::makeRandom(7);
    int readable = 0;
    for (int round = 0; round < 4000; ++round)
    {
        std::string text = original;
        for (unsigned long edits = 1 + random() % 3; edits > 0; --edits)
        {
            const std::size_t at = random() % text.size();
            switch (random() % 4)
            {
            case 0:
                text.erase(at, 1 + random() % 60);
                break;
            case 1:
                text.insert(at, pieces[random() % std::size(pieces)]);
                break;
            case 2:
                text[at] = static_cast<char>(1 + random() % 255);
                break;
            default:
                text.insert(at, text.substr(random() % text.size(), random() % 100));
            }
        }
        parse(text);
        rapidxml::xml_document<char> whole;
        rapidxml::xml_document<char> cut;
        std::string copy = text;
        korvo::parser::CDocumentDigest digest(text);
        ASSERT_FALSE(digest.isTooDeep());
        const bool wellFormed = parseInto(whole, copy.data());
        ASSERT_EQ(parseInto(cut, digest.xml()), wellFormed) << text;
        readable += wellFormed ? 1 : 0;
        if (wellFormed)
        {
            ASSERT_NO_FATAL_FAILURE(expectSameTree(digest, cut, whole)) << text;
        }
    }
    EXPECT_GT(readable, 1000); // Damage that leaves nothing to read would compare nothing.
}

} // namespace

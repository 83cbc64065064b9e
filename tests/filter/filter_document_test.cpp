// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_document.h"

#include <map>
#include <tuple>

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

TEST(FilterDocument, HandsOverWhatIsWantedInOrder)
{
    const std::string fir = "<FIR NbrOfTaps=\"3\"><taps>[1.0 0.5 0.25]</taps></FIR>";
    const std::string longList = "[1.0 0.5" + std::string(100, ' ') + "0.25]"; // long enough to be cut out
    const std::string broken = replaced(kExample, "Topology", "topology");
    const std::string siblings = replaced(replaced(kExample, "<Channel", "<before/><Channel"), "</Opal>",
                                          "stray<x/><Channel Number=\"2\"/></Opal>");
    const std::vector<std::string> all = {kInfo, kChannel, kData};
    const std::tuple<unsigned int, std::string, std::vector<std::string>> rows[] = {
        {7, kExample, all},
        {7,
         "\xEF\xBB\xBF<?xml version=\"1.0\"?><!DOCTYPE brisa [<!ENTITY x \"<y>\">]>\n<!-- <brisa> -->" +
             kExample,
         all},
        {7, replaced(replaced(kExample, fir, ""), "</IIR>", "</IIR>" + fir), all},
        {7, replaced(kExample, "[1.0 0.5 0.25]", longList), all},
        {7, replaced(kExample, "[1.0 0.5 0.25]", "<![CDATA[" + longList + "]]>"), all},
        {7, replaced(kExample, "[1.0 0.5 0.25]", "[1.0&#32;0.5" + longList.substr(8)), all},
        {7, replaced(kExample, "[1.0 0.5 0.25]", "<inner>" + longList + "</inner>"), all},
        {7, replaced(kExample, "</brisa>", "<Opal/></brisa><brisa/><other>" + longList + "</other>"), all},
        {0, broken, {}},
        {1, broken, {kInfo}},
        {2, broken, {kChannel}},
        {4, kExample, {kData}},
        {~2U, kExample, {kInfo, kData}},
        {2,
         siblings,
         {kChannel, "channel|1|(null)|0|0|0|0", "channel|2|(null)|0|0|0|0", "channel|3|(null)|2|0|0|0"}}};
    for (const auto& [wants, text, calls] : rows)
    {
        CRecorder recorder(wants);
        EXPECT_EQ(ParseXML(text.c_str(), &recorder), eResultOk) << text;
        EXPECT_EQ(recorder.calls, calls) << wants << text;
        EXPECT_EQ(recorder.wantsCalls, 1);
    }
}

TEST(FilterDocument, TellsWhatIsWrong)
{
    // What is replaced, and by what for which result.
    const std::string taps = "[1.0 0.5 0.25]", section = "[-0.9 0.2 0.01 0.0]";
    const std::pair<std::string, std::map<std::string, int>> rows[] = {
        {"<brisa>", {{"text<brisa>", 1}, {"<Brisa>", 2}}},
        {"<Opal", {{"< ", 1}, {"<opal", 3}}},
        {"<FIR", {{"<Fir", 4}}},
        {"<taps>", {{"<Taps>", 4}}},
        {"<IIR", {{"<iir", 5}}},
        {"NbrOfSections", {{"Sections", 6}}},
        {"s=\"1", {{"s=\"0", 6}, {"s=\"2", 9}, {"s=\"134217727", 9}, {"s=\"134217728", 13}, {"s=\"-1", 13}}},
        {"\"3\"", {{"\"2\"", 0}, {"\" +3x\"", 0}, {"\"4\"", 7}, {"\"536870911\"", 7}}},
        {"\"3\"", {{"\"536870912\"", 13}, {"\"-1\"", 13}, {"\"4294967299\"", 13}, {"\"\"", 13}}},
        {taps, {{"[1.0\n0.5\n0.25]", 7}, {"[1.0 0.5<!-- --> 0.25]", 7}, {"", 7}, {"1.0 [[\n0.5]]x", 0}}},
        {section, {{"[-0.9 0.2 0.01]", 9}, {"", 9}, {"[-0.9 0.2 0.01 0.0 1.0]", 0}}},
        {"<section>", {{"<Section>", 9}}},
        {"</section>", {{"</section>text", 9}, {"</section><section>[1 2 3 4]</section>", 9}}},
        {"<Channel", {{"<channel", 10}}},
        {"FIIR", {{"FIR", 11}, {"fIiRv2", 0}}},
        {"Topology", {{"topology", 11}}},
        {"</Coefficients>", {{"</Coefficients>stray", 11}}},
        {"-3.0", {{"loud", 0}}}};
    for (const auto& [from, replacements] : rows)
        for (const auto& [to, result] : replacements)
            EXPECT_EQ(parse(replaced(kExample, from, to)), result) << from << " -> " << to;

    EXPECT_EQ(parse(""), eResultNoRoot);
    EXPECT_EQ(parse(" \r\n\t"), eResultNoRoot);
    CRecorder nothing(0);
    EXPECT_EQ(ParseXML("<brisa><Opal/></brisa>", &nothing), eResultNoChannel);
    EXPECT_EQ(parse("<brisa><Opal><Channel/></Opal></brisa>"), eResultOk);
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
    CRecorder recorder;
    for (const std::string refused : {"info", "channel", "data"})
    {
        recorder.answer = [&](const std::string& kind) { return kind != refused; };
        EXPECT_EQ(ParseXML(kExample.c_str(), &recorder), eResultRefused) << refused;
    }
    recorder.answer = [](const std::string&) -> bool { throw eResultNoFir; };
    EXPECT_EQ(ParseXML(kExample.c_str(), &recorder), eResultNoFir);
    recorder.answer = [](const std::string&) -> bool { throw std::runtime_error("no"); };
    EXPECT_THROW(ParseXML(kExample.c_str(), &recorder), std::runtime_error);

    // A receiver that asks for calls it does not take stops at the first of them.
    EXPECT_FALSE(recorder.IFIIRCallback::IFIIRCallback_ChannelInfo(0, "", 1, 0, 0, 0));
    EXPECT_FALSE(recorder.IFIIRCallback::IFIIRCallback_FilterData(0, 48000, false, nullptr, 0, nullptr, 0));
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
    using std::string_view;
    ASSERT_EQ(string_view(short_.name(), short_.name_size()), string_view(whole.name(), whole.name_size()));
    ASSERT_EQ(digest.original(short_.value(), short_.value_size()).text,
              string_view(whole.value(), whole.value_size()));
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
    for (int round = 0; round < 8000; ++round)
    {
        std::string text = original;
        for (unsigned long edits = 1 + random() % 3; edits > 0; --edits)
        {
            const std::size_t removed = random() % 2 * (random() % 60);
            text.replace(random() % text.size(), removed,
                         random() % 2 != 0 ? pieces[random() % std::size(pieces)]
                                           : text.substr(random() % text.size(), random() % 100));
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

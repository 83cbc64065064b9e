// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/document_digest.h"

#include <algorithm>
#include <array>

namespace korvo::parser {

namespace {

// The places at which rapidxml changes from one kind of text to another, no more and no fewer: a comment that
// ends elsewhere here than there would hide elements from the count of their depth. Only up to the first
// error of a text does this have to agree; there rapidxml gives up, whatever follows.

constexpr std::string_view kWhiteSpace = " \n\r\t";

/// A set of characters. A search in a string for each character of a tag would take longer than rapidxml
/// does.
class CCharacters
{
public:
    explicit constexpr CCharacters(std::string_view members)
    {
        for (const char c : members)
            m_isMember[static_cast<unsigned char>(c)] = true;
    }

    /// Position of the first member at or after `from`, or the end of the text.
    std::size_t findIn(std::string_view text, std::size_t from) const
    {
        while (from < text.size() && !m_isMember[static_cast<unsigned char>(text[from])])
            ++from;
        return from;
    }

private:
    std::array<bool, 256> m_isMember{};
};

constexpr CCharacters kEndOfElementName(" \n\r\t/>?");
constexpr CCharacters kEndOfTagOrQuote(">\"'");

/// Position of the next `mark` at or after `from`, or the end of the text.
std::size_t find(std::string_view text, std::size_t from, char mark)
{
    return std::min(text.find(mark, from), text.size());
}

/// Position behind the next `mark` at or after `from`, or the end of the text.
std::size_t behind(std::string_view text, std::size_t from, std::string_view mark)
{
    const std::size_t at = text.find(mark, from);
    return at == std::string_view::npos ? text.size() : at + mark.size();
}

/// Behind a document type, whose brackets nest. `at` stands behind the blank that follows its keyword.
std::size_t behindDocumentType(std::string_view text, std::size_t at)
{
    int depth = 0;
    for (; at < text.size(); ++at)
    {
        if (text[at] == '>' && depth == 0)
            return at + 1;
        if (text[at] == '[')
            ++depth;
        else if (text[at] == ']' && depth > 0)
            --depth;
    }
    return at;
}

/// Behind what begins with "<!" or "<?"; `at` stands on the second of the two.
std::size_t behindMarkup(std::string_view text, std::size_t at)
{
    constexpr std::string_view kComment = "!--";
    constexpr std::string_view kCData = "![CDATA[";
    constexpr std::string_view kDocumentType = "!DOCTYPE";

    const std::string_view rest = text.substr(at);
    if (rest.starts_with('?'))
        return behind(text, at + 1, "?>");
    if (rest.starts_with(kComment))
        return behind(text, at + kComment.size(), "-->");
    if (rest.starts_with(kCData))
        return behind(text, at + kCData.size(), "]]>");
    if (rest.starts_with(kDocumentType) && rest.size() > kDocumentType.size() &&
        kWhiteSpace.find(rest[kDocumentType.size()]) != std::string_view::npos)
        return behindDocumentType(text, at + kDocumentType.size() + 1);
    return behind(text, at + 1, ">");
}

/// Behind the opening tag whose name starts at `at`; `opens` tells whether contents follow.
std::size_t behindTag(std::string_view text, std::size_t at, bool& opens)
{
    opens = false;
    // A name may hold quotes and even '<', an attribute's value '>'.
    at = kEndOfTagOrQuote.findIn(text, kEndOfElementName.findIn(text, at));
    while (at < text.size() && text[at] != '>')
        at = kEndOfTagOrQuote.findIn(text, find(text, at + 1, text[at]) + 1);
    if (at >= text.size())
        return text.size();
    opens = text[at - 1] != '/';
    return at + 1;
}

} // namespace

CDocumentDigest::CDocumentDigest(std::string_view text) : m_text(text)
{
    digest();
}

void CDocumentDigest::digest()
{
    int depth = 0;
    std::size_t copied = 0;
    std::size_t at = find(m_text, 0, '<');
    while (at < m_text.size())
    {
        const char kind = ++at < m_text.size() ? m_text[at] : '\0';
        bool opens = false;
        if (kind == '!' || kind == '?')
            at = behindMarkup(m_text, at);
        else if (kind == '/')
            at = find(m_text, at, '>') + 1;
        else
            at = behindTag(m_text, at, opens);

        depth += opens ? 1 : 0;
        depth -= kind == '/' ? 1 : 0;
        m_tooDeep = depth > kDeepestNesting;
        if (m_tooDeep || depth < 0 || at >= m_text.size()) // below 0: ill-formed, the parser gives up here
            break;
        const std::size_t textBegin = at;
        at = find(m_text, at, '<');
        copied = cut(copied, textBegin, at);
    }
    m_xml.append(m_text, copied);
}

/// Decides whether the text between two tags is left out. Returns how much of the whole is dealt with.
std::size_t CDocumentDigest::cut(std::size_t copied, std::size_t from, std::size_t to)
{
    constexpr std::size_t kWorthIt = 32;
    if (to - from < kWorthIt)
        return copied;
    const std::string_view between = m_text.substr(from, to - from);
    if (m_nextReference < from)
        m_nextReference = find(m_text, from, '&');
    // Text with character references has to be translated, and blank text makes no node.
    if (m_nextReference < to || between.find_first_not_of(kWhiteSpace) == std::string_view::npos)
        return copied;
    m_xml.append(m_text, copied, from - copied);
    m_cuts.push_back({m_xml.size(), between});
    m_xml += '.';
    return to;
}

CDocumentDigest::SValue CDocumentDigest::original(const char* value, std::size_t size)
{
    const auto at = static_cast<std::size_t>(value - m_xml.data());
    const auto isCutHere = [&] { return m_nextCut < m_cuts.size() && m_cuts[m_nextCut].at == at; };
    if (size == 1 && !isCutHere())
    {
        const auto before = [](const SCut& cut, std::size_t position) { return cut.at < position; };
        m_nextCut = static_cast<std::size_t>(std::lower_bound(m_cuts.begin(), m_cuts.end(), at, before) -
                                             m_cuts.begin());
    }
    if (size == 1 && isCutHere())
        return {m_cuts[m_nextCut++].original, m_text};
    return {{value, size}, m_xml};
}

} // namespace korvo::parser

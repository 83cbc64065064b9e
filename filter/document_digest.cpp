// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/document_digest.h"

#include <algorithm>

namespace korvo::parser {

namespace {

// The places at which rapidxml changes from one kind of text to another, no more and no fewer: a comment that
// ends elsewhere here than there would hide elements from the count of their depth. Only up to the first
// error of a text does this have to agree; there rapidxml gives up, whatever follows.

constexpr std::string_view kWhiteSpace = " \n\r\t";
constexpr std::string_view kEndOfElementName = " \n\r\t/>?";

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
    while (at < text.size() && kEndOfElementName.find(text[at]) == std::string_view::npos)
        ++at;
    while (at < text.size() && text[at] != '>')
        at = text[at] == '"' || text[at] == '\'' ? find(text, at + 1, text[at]) + 1 : at + 1;
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
    const std::string_view between = m_text.substr(from, to - from);
    // Text with character references has to be translated, and blank text makes no node.
    if (between.size() < kWorthIt || between.find('&') != std::string_view::npos ||
        between.find_first_not_of(kWhiteSpace) == std::string_view::npos)
        return copied;
    m_xml.append(m_text, copied, from - copied);
    m_cuts.push_back({m_xml.size(), between});
    m_xml += '.';
    return to;
}

CDocumentDigest::SValue CDocumentDigest::original(const char* value, std::size_t size) const
{
    if (size == 1)
    {
        const auto at = static_cast<std::size_t>(value - m_xml.data());
        const auto before = [](const SCut& cut, std::size_t position) { return cut.at < position; };
        const auto found = std::lower_bound(m_cuts.begin(), m_cuts.end(), at, before);
        if (found != m_cuts.end() && found->at == at)
            return {found->original, m_text};
    }
    return {{value, size}, {value, size}};
}

} // namespace korvo::parser

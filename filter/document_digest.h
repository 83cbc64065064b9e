// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korvo::parser {

/// Far more than any document of ours needs (six), far less than the stack of a thread holds.
inline constexpr int kDeepestNesting = 256;

/// An XML text made ready for rapidxml: a copy that it may write to, in which each long stretch of plain
/// text, such as a list of taps, is one character. rapidxml looks at text byte by byte, ten times slower than
/// a search for the next tag, and would take half the time of reading a document just to find where its lists
/// end. The tree that comes out is that of the whole text, but for values that original() has to be asked
/// for.
class CDocumentDigest
{
public:
    /// `text` has to outlive the digest.
    explicit CDocumentDigest(std::string_view text);
    CDocumentDigest(const CDocumentDigest&) = delete;
    CDocumentDigest& operator=(const CDocumentDigest&) = delete;

    /// Whether an element with contents stands more than kDeepestNesting deep. rapidxml descends by
    /// recursion, so this has to be known before it starts.
    bool isTooDeep() const { return m_tooDeep; }

    /// NUL-terminated.
    char* xml() { return m_xml.data(); }

    struct SValue
    {
        std::string_view text;
        std::string_view around; ///< memory that can be read around it
    };

    /// The value that the value of a node stands for. Quickest in the order of the text.
    SValue original(const char* value, std::size_t size);

private:
    struct SCut
    {
        std::size_t at; ///< in m_xml
        std::string_view original;
    };

    void digest();
    std::size_t cut(std::size_t copied, std::size_t from, std::size_t to);

    const std::string_view m_text;
    std::string m_xml;
    std::size_t m_nextReference = 0; ///< the first '&' behind what has been looked at
    std::vector<SCut> m_cuts;        ///< ascending
    std::size_t m_nextCut = 0;
    bool m_tooDeep = false;
};

} // namespace korvo::parser

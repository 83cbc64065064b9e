// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_document.h"

#include <cstddef>
#include <memory>
#include <new>

#include <rapidxml/rapidxml.hpp>

#include "filter/document_digest.h"
#include "filter/number_parsing.h"

namespace korvo::parser::FIIR {

namespace {

using Node = rapidxml::xml_node<char>;

const char* textOf(const Node& node, const char* attribute)
{
    const rapidxml::xml_attribute<char>* found = node.first_attribute(attribute);
    return found != nullptr ? found->value() : nullptr;
}

int integerOf(const Node& node, const char* attribute)
{
    const char* text = textOf(node, attribute);
    return text != nullptr ? parseInteger(text) : 0;
}

// A negative count wraps to a size that no buffer can have.
unsigned int unsignedOf(const Node& node, const char* attribute)
{
    return static_cast<unsigned int>(integerOf(node, attribute));
}

float numberOf(const Node& node, const char* attribute)
{
    const char* text = textOf(node, attribute);
    return text != nullptr ? parseNumber(text) : 0.0F;
}

const Node& childOf(const Node& node, const char* name, EResult ifMissing)
{
    const Node* child = node.first_node(name);
    if (child == nullptr)
        throw ifMissing;
    return *child;
}

/// Not strncasecmp(), which follows the host's locale.
bool isFIIR(const char* topology)
{
    constexpr char kUpper[] = "FIIR";
    constexpr char kLower[] = "fiir";
    if (topology == nullptr)
        return false;
    for (std::size_t i = 0; i < 4; ++i)
        if (topology[i] != kUpper[i] && topology[i] != kLower[i])
            return false;
    return true;
}

/// Refuses sizes that no document has, whatever memory the machine has or promises without having it.
template<typename T>
void refuseAbsurd(std::size_t count)
{
    constexpr std::size_t kTooManyBytes = std::size_t{1} << 31;
    if (count >= kTooManyBytes / sizeof(T))
        throw eResultNoMemory;
}

/// Values that grow and never shrink: most sets of a document have the same size.
template<typename T>
class CValueBuffer
{
public:
    void reserve(std::size_t count)
    {
        if (count > m_capacity)
        {
            m_values.reset();
            m_values.reset(new (std::nothrow) T[count]);
            m_capacity = m_values != nullptr ? count : 0;
        }
        // So a first set that declares no values at all ends here as well, and a later one passes.
        if (m_values == nullptr)
            throw eResultNoMemory;
    }

    T* data() const { return m_values.get(); }

private:
    std::unique_ptr<T[]> m_values;
    std::size_t m_capacity = 0;
};

/// One walk over one document. Failures leave as a thrown EResult.
class CDocumentWalk
{
public:
    CDocumentWalk(CDocumentDigest& digest, IFIIRCallback& receiver, unsigned int wants)
        : m_digest(digest), m_receiver(receiver), m_wants(wants)
    {
    }

    void walk(const Node& document)
    {
        const Node& opal = childOf(childOf(document, "brisa", eResultNoRoot), "Opal", eResultNoFilter);
        if ((m_wants & IFIIRCallback::kWantsFilterInfo) != 0)
            handOverHeader(opal);
        unsigned int channelIndex = 0;
        // From the first channel on every sibling counts as one, whatever its name.
        for (const Node* node = &childOf(opal, "Channel", eResultNoChannel); node != nullptr;
             node = node->next_sibling())
            walkChannel(*node, channelIndex++);
    }

private:
    static void stopUnless(bool accepted)
    {
        if (!accepted)
            throw eResultRefused;
    }

    void handOverHeader(const Node& opal)
    {
        stopUnless(m_receiver.IFIIRCallback_FilterInfo(
            textOf(opal, "ProjectName"), textOf(opal, "Technology"), unsignedOf(opal, "ChannelCount"),
            textOf(opal, "CreationDate"), textOf(opal, "FileName"), textOf(opal, "NumberRepresentation")));
    }

    void walkChannel(const Node& channel, unsigned int channelIndex)
    {
        if ((m_wants & IFIIRCallback::kWantsChannelInfo) != 0)
            stopUnless(m_receiver.IFIIRCallback_ChannelInfo(
                channelIndex, textOf(channel, "Name"), unsignedOf(channel, "Number"),
                numberOf(channel, "GaindB"), numberOf(channel, "Delayms"),
                numberOf(channel, "MaxFilterGaindB")));
        if ((m_wants & IFIIRCallback::kWantsFilterData) == 0)
            return;
        for (const Node* set = channel.first_node("Coefficients"); set != nullptr; set = set->next_sibling())
            walkSet(*set, channelIndex);
    }

    void walkSet(const Node& set, unsigned int channelIndex)
    {
        if (!isFIIR(textOf(set, "Topology")))
            throw eResultBadTopology;
        const unsigned int fs = unsignedOf(set, "Fs");
        const bool minPhase = integerOf(set, "MinPhase") != 0;
        const unsigned int nbrOfTaps = readTaps(set);
        const unsigned int nbrOfSections = readSections(set);
        stopUnless(m_receiver.IFIIRCallback_FilterData(channelIndex, fs, minPhase, m_taps.data(), nbrOfTaps,
                                                       m_sections.data(), nbrOfSections));
    }

    /// The text of an element: the value of its first child, whatever that is, and empty where there is none.
    CDocumentDigest::SValue listOf(const Node& node)
    {
        const Node* child = node.first_node();
        return child != nullptr ? m_digest.original(child->value(), child->value_size())
                                : CDocumentDigest::SValue{};
    }

    unsigned int readTaps(const Node& set)
    {
        const Node& fir = childOf(set, "FIR", eResultNoFir);
        const unsigned int declared = unsignedOf(fir, "NbrOfTaps");
        const CDocumentDigest::SValue list = listOf(childOf(fir, "taps", eResultNoFir));
        refuseAbsurd<float>(declared);
        // Each value takes a character and a separator: what cannot come needs no room.
        if (declared > (list.text.size() + 1) / 2)
            throw eResultBadTapCount;
        m_taps.reserve(declared);
        if (parseNumberList(list.text, list.around, m_taps.data(), declared) != declared)
            throw eResultBadTapCount;
        return declared;
    }

    unsigned int readSections(const Node& set)
    {
        const Node& iir = childOf(set, "IIR", eResultNoIir);
        const unsigned int declared = unsignedOf(iir, "NbrOfSections");
        if (declared == 0)
            throw eResultBadSectionCount;
        refuseAbsurd<SSection>(declared);
        // From the first section on every sibling counts as one, whatever its name.
        const Node* first = iir.first_node("section");
        unsigned int present = 0;
        for (const Node* node = first; node != nullptr; node = node->next_sibling())
            ++present;
        if (present != declared)
            throw eResultBadSection;
        m_sections.reserve(declared);
        SSection* section = m_sections.data();
        for (const Node* node = first; node != nullptr; node = node->next_sibling())
            *section++ = readSection(*node);
        return declared;
    }

    SSection readSection(const Node& node)
    {
        const CDocumentDigest::SValue list = listOf(node);
        float values[4];
        if (parseNumberList(list.text, list.around, values, 4) < 4)
            throw eResultBadSection;
        return {values[0], values[1], values[2], values[3]};
    }

    CDocumentDigest& m_digest;
    IFIIRCallback& m_receiver;
    const unsigned int m_wants;
    CValueBuffer<float> m_taps;
    CValueBuffer<SSection> m_sections;
};

} // namespace

EResult ParseXML(const char* text, IFIIRCallback* receiver)
{
    try
    {
        const unsigned int wants = receiver->IFIIRCallback_Wants();
        CDocumentDigest digest(text);
        if (digest.isTooDeep())
            return eResultXmlError;
        rapidxml::xml_document<char> document;
        document.parse<rapidxml::parse_default>(digest.xml());
        CDocumentWalk(digest, *receiver, wants).walk(document);
        return eResultOk;
    }
    catch (EResult result)
    {
        return result;
    }
    catch (const rapidxml::parse_error&)
    {
        return eResultXmlError;
    }
}

} // namespace korvo::parser::FIIR

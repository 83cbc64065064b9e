// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace korvo::parser::FIIR {

/// What became of a document. The numbers are fixed; 8 stays free.
enum EResult
{
    eResultOk = 0,              ///< the whole document was walked
    eResultXmlError = 1,        ///< not well-formed, or nested deeper than any filter document is
    eResultNoRoot = 2,          ///< no top-level `brisa`
    eResultNoFilter = 3,        ///< no `Opal` in `brisa`
    eResultNoFir = 4,           ///< a `Coefficients` without `FIR`, or a `FIR` without `taps`
    eResultNoIir = 5,           ///< a `Coefficients` without `IIR`
    eResultBadSectionCount = 6, ///< `NbrOfSections` is missing or 0
    eResultBadTapCount = 7,     ///< `taps` holds fewer values than `NbrOfTaps`
    eResultBadSection = 9,      ///< a `section` of fewer than four values, or not `NbrOfSections` of them
    eResultNoChannel = 10,      ///< no `Channel` in `Opal`
    eResultBadTopology = 11,    ///< `Topology` is missing or does not begin with "FIIR"
    eResultRefused = 12,        ///< the receiver returned false
    eResultNoMemory = 13        ///< no buffer for the values
};

/// One two-pole section, in the order of the document: (b0 + b1 z^-1) / (1 + a1 z^-1 + a2 z^-2).
struct SSection
{
    float a1;
    float a2;
    float b0;
    float b1;
};
static_assert(sizeof(SSection) == 4 * sizeof(float), "a list of values is read straight into sections");

/// Takes the contents of a document while ParseXML() walks it. All pointers are valid until the operation
/// returns. Returning false, or throwing an EResult, stops the walk.
class IFIIRCallback
{
public:
    static constexpr unsigned int kWantsFilterInfo = 1;
    static constexpr unsigned int kWantsChannelInfo = 2;
    static constexpr unsigned int kWantsFilterData = 4;

    IFIIRCallback() = default;
    IFIIRCallback(const IFIIRCallback&) = delete;
    IFIIRCallback& operator=(const IFIIRCallback&) = delete;
    virtual ~IFIIRCallback() = default;

    /// The operations to be called, as a mask of kWants... . Asked once, before the text is looked at.
    virtual unsigned int IFIIRCallback_Wants() const = 0;

    /// The header. A text that the document does not give is null.
    virtual bool IFIIRCallback_FilterInfo(const char* projectName, const char* technology,
                                          unsigned int channelCount, const char* creationDate,
                                          const char* fileName, const char* numberRepresentation) = 0;

    /// One channel. `channelIndex` counts channels from 0; `number` is what the document calls it.
    virtual bool IFIIRCallback_ChannelInfo(unsigned int /*channelIndex*/, const char* /*name*/,
                                           unsigned int /*number*/, float /*gaindB*/, float /*delayms*/,
                                           float /*maxFilterGaindB*/)
    {
        return false;
    }

    /// One coefficient set of the channel whose IFIIRCallback_ChannelInfo came last.
    virtual bool IFIIRCallback_FilterData(unsigned int /*channelIndex*/, unsigned int /*fs*/,
                                          bool /*minPhase*/, const float* /*taps*/,
                                          unsigned int /*nbrOfTaps*/, const SSection* /*sections*/,
                                          unsigned int /*nbrOfSections*/)
    {
        return false;
    }
};

/// Walks a filter document and hands its contents to `receiver`. Keeps nothing. Exceptions of the receiver
/// other than an EResult pass through, and so does std::bad_alloc for the copy of the text.
/// @param text NUL-terminated UTF-8, left as it is
/// Threads: any, several at once.
EResult ParseXML(const char* text, IFIIRCallback* receiver);

} // namespace korvo::parser::FIIR

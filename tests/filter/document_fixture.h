// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "filter/filter_document.h"

namespace korvotest {

/// The smallest useful document.
inline const std::string kExample =
    "<brisa><Opal ChannelCount=\"1\" ProjectName=\"Living room\" Technology=\"tech\" CreationDate=\"today\" "
    "FileName=\"file\" NumberRepresentation=\"text\">"
    "<Channel Name=\"Left\" Number=\"1\" GaindB=\"-3.0\" Delayms=\"0.5\" MaxFilterGaindB=\"6.0\">"
    "<Coefficients Topology=\"FIIR\" Fs=\"44100\" MinPhase=\"0\">"
    "<FIR NbrOfTaps=\"3\"><taps>[1.0 0.5 0.25]</taps></FIR>"
    "<IIR NbrOfSections=\"1\"><section>[-0.9 0.2 0.01 0.0]</section></IIR>"
    "</Coefficients></Channel></Opal></brisa>";

/// `text` with the first `from`, which has to be there, replaced by `to`.
inline std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    const std::size_t at = text.find(from);
    if (at == std::string::npos)
        throw std::logic_error("not in the text: " + from);
    return text.replace(at, from.size(), to);
}

/// Writes down all that it is called with, one line per call.
class CRecorder : public korvo::parser::FIIR::IFIIRCallback
{
public:
    explicit CRecorder(unsigned int wants = 7) : m_wants(wants) {}

    unsigned int IFIIRCallback_Wants() const override
    {
        ++wantsCalls;
        return m_wants;
    }

    bool IFIIRCallback_FilterInfo(const char* projectName, const char* technology, unsigned int channelCount,
                                  const char* creationDate, const char* fileName,
                                  const char* numberRepresentation) override
    {
        return add("info", projectName, technology, channelCount, creationDate, fileName,
                   numberRepresentation);
    }

    bool IFIIRCallback_ChannelInfo(unsigned int channelIndex, const char* name, unsigned int number,
                                   float gaindB, float delayms, float maxFilterGaindB) override
    {
        return add("channel", channelIndex, name, number, gaindB, delayms, maxFilterGaindB);
    }

    bool IFIIRCallback_FilterData(unsigned int channelIndex, unsigned int fs, bool minPhase,
                                  const float* taps, unsigned int nbrOfTaps,
                                  const korvo::parser::FIIR::SSection* sections,
                                  unsigned int nbrOfSections) override
    {
        tapPointers.push_back(taps);
        std::ostringstream values;
        for (unsigned int i = 0; i < nbrOfTaps; ++i)
            values << taps[i] << ' ';
        for (const auto* section = sections; section < sections + nbrOfSections; ++section)
            values << '/' << section->a1 << ' ' << section->a2 << ' ' << section->b0 << ' ' << section->b1;
        return add("data", channelIndex, fs, minPhase, values.str());
    }

    std::vector<std::string> calls;
    std::vector<const float*> tapPointers;
    mutable int wantsCalls = 0;
    std::function<bool(const std::string& kind)> answer; ///< what each call returns, true without one

private:
    static std::string text(const char* given) { return given != nullptr ? given : "(null)"; }
    template<typename TValue>
    static const TValue& text(const TValue& value)
    {
        return value;
    }

    template<typename... TValues>
    bool add(const std::string& kind, const TValues&... values)
    {
        std::ostringstream line;
        line << kind;
        ((line << '|' << text(values)), ...);
        calls.push_back(line.str());
        return !answer || answer(kind);
    }

    const unsigned int m_wants;
};

} // namespace korvotest

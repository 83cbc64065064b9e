// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_jobs.h"

#include <type_traits>
#include <utility>

#include "filter/filter_job_pool.h"
#include "filter/job_loan.h"

namespace korvo::filter {

namespace {

using korvo::parser::FIIR::eResultOk;
using korvo::parser::FIIR::eResultRefused;
using korvo::parser::FIIR::SSection;

struct SReading
{
    CJobLoan loan;
    int result = kJobNotRead; ///< guarded by `loan`
    juce::WaitableEvent finished;
};

/// The caller's stream, at its end once the loan is called in.
class CLentStream : public juce::InputStream
{
public:
    CLentStream(CJobLoan& loan, juce::InputStream& stream) : m_loan(loan), m_stream(stream) {}

    juce::int64 getTotalLength() override
    {
        return ask([this] { return m_stream.getTotalLength(); });
    }
    juce::int64 getPosition() override
    {
        return ask([this] { return m_stream.getPosition(); });
    }
    bool isExhausted() override
    {
        bool exhausted = true;
        m_loan.use([&] { exhausted = m_stream.isExhausted(); });
        return exhausted;
    }
    int read(void* buffer, int bytes) override
    {
        return static_cast<int>(ask([&] { return juce::int64{m_stream.read(buffer, bytes)}; }));
    }
    bool setPosition(juce::int64 position) override
    {
        return ask([&] { return juce::int64{m_stream.setPosition(position)}; }) != 0;
    }

private:
    template<typename FQuestion>
    juce::int64 ask(FQuestion question)
    {
        juce::int64 answer = 0;
        m_loan.use([&] { answer = question(); });
        return answer;
    }

    CJobLoan& m_loan;
    juce::InputStream& m_stream;
};

/// The caller's receiver. Ends the walk once the loan is called in.
class CLentReceiver : public IFIIRCallback
{
public:
    CLentReceiver(CJobLoan& loan, IFIIRCallback& receiver) : m_loan(loan), m_receiver(receiver) {}

    unsigned int IFIIRCallback_Wants() const override
    {
        return ask([this] { return m_receiver.IFIIRCallback_Wants(); });
    }

    bool IFIIRCallback_FilterInfo(const char* projectName, const char* technology, unsigned int channelCount,
                                  const char* creationDate, const char* fileName,
                                  const char* numberRepresentation) override
    {
        return ask([&] {
            return m_receiver.IFIIRCallback_FilterInfo(projectName, technology, channelCount, creationDate,
                                                       fileName, numberRepresentation);
        });
    }

    bool IFIIRCallback_ChannelInfo(unsigned int channelIndex, const char* name, unsigned int number,
                                   float gaindB, float delayms, float maxFilterGaindB) override
    {
        return ask([&] {
            return m_receiver.IFIIRCallback_ChannelInfo(channelIndex, name, number, gaindB, delayms,
                                                        maxFilterGaindB);
        });
    }

    bool IFIIRCallback_FilterData(unsigned int channelIndex, unsigned int fs, bool minPhase,
                                  const float* taps, unsigned int nbrOfTaps, const SSection* sections,
                                  unsigned int nbrOfSections) override
    {
        return ask([&] {
            return m_receiver.IFIIRCallback_FilterData(channelIndex, fs, minPhase, taps, nbrOfTaps, sections,
                                                       nbrOfSections);
        });
    }

private:
    template<typename FQuestion>
    std::invoke_result_t<FQuestion> ask(FQuestion question) const
    {
        std::invoke_result_t<FQuestion> answer{};
        if (!m_loan.use([&] { answer = question(); }))
            throw eResultRefused;
        return answer;
    }

    CJobLoan& m_loan;
    IFIIRCallback& m_receiver;
};

class RFJob : public juce::ThreadPoolJob
{
public:
    /// @param ownStream what `stream` points to if the job is to free it, else null
    RFJob(std::shared_ptr<SReading> reading, juce::InputStream& stream,
          std::unique_ptr<juce::InputStream> ownStream, IFIIRCallback& receiver)
        : juce::ThreadPoolJob({}), m_reading(std::move(reading)), m_ownStream(std::move(ownStream)),
          m_lentStream(m_reading->loan, stream), m_receiver(m_reading->loan, receiver)
    {
    }

    JobStatus runJob() override
    {
        juce::InputStream* stream = m_ownStream != nullptr ? m_ownStream.get() : &m_lentStream;
        const int result = loadFilterDocument(stream, &m_receiver);
        m_ownStream.reset();
        m_reading->loan.use([&] { m_reading->result = result; });
        m_reading->finished.signal();
        return jobHasFinished;
    }

private:
    const std::shared_ptr<SReading> m_reading;
    std::unique_ptr<juce::InputStream> m_ownStream;
    CLentStream m_lentStream;
    CLentReceiver m_receiver;
};

int readInPool(juce::InputStream& stream, std::unique_ptr<juce::InputStream> ownStream,
               IFIIRCallback& receiver, int limitMs)
{
    const auto reading = std::make_shared<SReading>();
    filterJobPool().addJob(std::make_unique<RFJob>(reading, stream, std::move(ownStream), receiver));
    reading->finished.wait(limitMs);
    reading->loan.callIn();
    return reading->result;
}

/// False for what is longer than any document.
bool readAll(juce::InputStream& stream, juce::MemoryOutputStream& text)
{
    if (stream.getPosition() != 0)
        stream.setPosition(0);
    const juce::int64 announced = stream.getTotalLength();
    if (announced > static_cast<juce::int64>(kLongestDocument))
        return false;
    if (announced > 0)
        text.preallocate(static_cast<std::size_t>(announced) + 1);
    char chunk[32768];
    for (int bytes = 0; (bytes = stream.read(chunk, static_cast<int>(sizeof(chunk)))) > 0;)
        if (!text.write(chunk, static_cast<std::size_t>(bytes)) || text.getDataSize() > kLongestDocument)
            return false;
    return text.writeByte(0);
}

} // namespace

int readFilterDocument(juce::InputStream* stream, IFIIRCallback* receiver, int limitMs)
{
    if (stream == nullptr || receiver == nullptr)
        return kJobNotRead;
    return readInPool(*stream, nullptr, *receiver, limitMs);
}

int readFilterDocument(std::unique_ptr<juce::InputStream> stream, IFIIRCallback* receiver, int limitMs)
{
    if (stream == nullptr || receiver == nullptr)
        return kJobNotRead;
    juce::InputStream& borrowed = *stream;
    return readInPool(borrowed, std::move(stream), *receiver, limitMs);
}

int loadFilterDocument(juce::InputStream* stream, IFIIRCallback* receiver) noexcept
{
    if (stream == nullptr || receiver == nullptr)
        return kJobNotRead;
    try
    {
        juce::MemoryOutputStream text(256);
        if (!readAll(*stream, text))
            return kJobRefused;
        const auto result = korvo::parser::FIIR::ParseXML(static_cast<const char*>(text.getData()), receiver);
        return result == eResultOk ? kJobDone : kJobRefused;
    }
    catch (...)
    {
        return kJobRefused;
    }
}

} // namespace korvo::filter

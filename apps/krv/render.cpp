// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/render.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include "apps/krv/audio_input.h"
#include "apps/krv/audio_output.h"
#include "apps/krv/command.h"
#include "apps/krv/interrupt.h"
#include "apps/krv/processor.h"
#include "apps/krv/progress_bar.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

SOutputForm outputForm(const SRenderRequest& request, const CAudioInput& input)
{
    SOutputForm form;
    form.path = request.output;
    form.format = request.format.value_or(nearestSampleFormat(input.subtype()));
    form.rate = input.rate();
    form.channels = input.channels();
    form.frames = input.frames();
    return form;
}

/// The overall gain of the processor leaves the upper band of a high rate alone; there the whole signal is
/// scaled on its way in instead. Returns the gain that is left for the processor.
float scaleInput(CAudioInput& input, double gainDb)
{
    const auto gain = static_cast<float>(std::pow(10.0, gainDb / 20.0));
    if (gain == 1.0F || !streamRate(input.rate()).isTwoBand())
        return gain;
    input.readScaledFloats(gain);
    return 1.0F;
}

std::optional<std::uint64_t> latencyFrames(const CProcessor& processor, std::uint32_t rate)
{
    const double latency = processor.latencyMs();
    if (latency < 0.0)
        return std::nullopt;
    return static_cast<std::uint64_t>(std::llround(latency * rate / 1000.0));
}

/// Runs the whole of `input` through the processor. Every block is a full one, the last one filled up with
/// silence: a short one could break the phase of a high rate, and clipping in a few samples goes unreported.
class CBlockLoop
{
public:
    CBlockLoop(CAudioInput& input, CProcessor& processor, CAudioOutput& output, SRenderReport& report)
        : m_input(input), m_processor(processor), m_output(output), m_report(report),
          m_in(blockBytes(input.format())), m_out(blockBytes(report.outputFormat))
    {
    }

    /// Leaves out the first `skipped` frames, and writes as many as there are in the input.
    void run(std::uint64_t skipped, bool showProgress, const CInterruptGuard& interrupt)
    {
        CProgressBar bar(m_report.frames, showProgress);
        for (std::uint64_t written = 0; written < m_report.frames; bar.show(written))
        {
            interrupt.check();
            processBlock();
            const std::uint64_t dropped = std::min<std::uint64_t>(skipped, m_report.blockFrames);
            const std::uint64_t kept = std::min(m_report.blockFrames - dropped, m_report.frames - written);
            m_output.write(m_out.data() + dropped * bytesPerFrame(m_report.outputFormat), kept);
            skipped -= dropped;
            written += kept;
        }
        interrupt.check();
        m_output.finish();
    }

private:
    std::size_t bytesPerFrame(ESampleFormat format) const
    {
        return m_report.channels * bytesPerSample(format);
    }
    std::size_t blockBytes(ESampleFormat format) const
    {
        return m_report.blockFrames * bytesPerFrame(format);
    }

    void processBlock()
    {
        m_input.read(m_in.data(), m_report.blockFrames);
        const auto start = std::chrono::steady_clock::now();
        const bool clipped = m_processor.process(m_in.data(), m_out.data(), m_report.blockFrames);
        m_report.blockTimes.add(std::chrono::steady_clock::now() - start);
        ++m_report.blocks;
        m_report.clippedBlocks += clipped ? 1 : 0;
    }

    CAudioInput& m_input;
    CProcessor& m_processor;
    CAudioOutput& m_output;
    SRenderReport& m_report;
    std::vector<unsigned char> m_in;
    std::vector<unsigned char> m_out;
};

} // namespace

SRenderReport render(const SRenderRequest& request)
{
    checkOutputName(request.output);
    CAudioInput input(request.input);
    requireTwoFiles(request.input, request.output);
    const SOutputForm form = outputForm(request, input);
    checkOutput(form);

    const float processorGain = scaleInput(input, request.gainDb);
    SRenderReport report;
    report.channels = input.channels();
    report.frames = input.frames();
    report.inputFormat = nearestSampleFormat(input.subtype());
    report.outputFormat = form.format;
    report.blockFrames = request.blockFrames - request.blockFrames % streamRate(input.rate()).ratio;

    CProcessor processor({input.channels(), report.blockFrames, input.format(), form.format});
    processor.load(request.filter);
    processor.requireMode(request.mode);
    processor.setOverallGain(processorGain);
    report.stream = processor.start(input.rate(), request.input);
    report.filterName = processor.filterName();
    report.filterChannels = static_cast<std::uint32_t>(processor.routing().size());
    report.latencyFrames = latencyFrames(processor, input.rate());

    const CInterruptGuard interrupt;
    CAudioOutput output(form, input);
    const std::uint64_t latency = report.latencyFrames.value_or(0) + report.stream.bandDelay;
    CBlockLoop(input, processor, output, report).run(request.align ? latency : 0, !request.quiet, interrupt);
    return report;
}

} // namespace krv

// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/impulse_file.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>

#include "apps/krv/audio_input.h"
#include "apps/krv/audio_output.h"
#include "apps/krv/command.h"
#include "apps/krv/interrupt.h"
#include "apps/krv/text.h"
#include "dsp/buffer_operations.h"
#include "toolbox/allocator.h"
#include "toolbox/helpers.h"
#include "toolbox/impulse_response.h"

namespace krv {

namespace {

constexpr std::size_t kBlockFrames = 4096;
constexpr int kLeastFrames = 4; ///< of a response that the toolbox cuts or shifts

struct SToolboxRelease
{
    void operator()(float* block) const { korvotoolbox::dtb_free(block); }
};
using ToolboxArray = std::unique_ptr<float, SToolboxRelease>;

void checkResponse(const CAudioInput& input)
{
    if (input.rate() > INT_MAX || !korvotoolbox::fsIsSupported(static_cast<int>(input.rate())))
        throw CCommandError(kExitFailed, inQuotes(input.path()) + " has a rate of " +
                                             std::to_string(input.rate()) +
                                             " Hz; a response at 44100, 48000, 88200 or 96000 Hz is needed");
    if (input.frames() > INT_MAX)
        throw CCommandError(kExitFailed, inQuotes(input.path()) + " has " + std::to_string(input.frames()) +
                                             " frames; a response may have up to " + std::to_string(INT_MAX));
}

void checkNumbers(const SImpulseFile& file, const std::string& path)
{
    for (std::size_t c = 0; c < file.channels.size(); ++c)
    {
        const std::vector<float>& channel = file.channels[c];
        const auto bad =
            std::find_if_not(channel.begin(), channel.end(), [](float x) { return std::isfinite(x); });
        if (bad != channel.end())
            throw CCommandError(kExitFailed, inQuotes(path) + " has an infinity or no number in frame " +
                                                 std::to_string(bad - channel.begin()) + " of channel " +
                                                 std::to_string(c + 1) + "; finite samples are needed");
    }
}

/// What a truncation takes off a response.
int framesTruncated(const std::vector<float>& channel, std::uint32_t rate, const SImpulseRequest& request)
{
    int length = static_cast<int>(channel.size());
    int removed = 0;
    float* data = static_cast<float*>(korvotoolbox::dtb_alloc(channel.size() * sizeof(float)));
    if (data == nullptr)
        throw std::bad_alloc();
    std::copy(channel.begin(), channel.end(), data);
    const auto truncate = request.edit == EImpulseEdit::Trim
                              ? korvotoolbox::truncImpStartToLevel
                              : korvotoolbox::truncImpStartToLevelUsingFilteredCopy;
    const int status = truncate(data, length, request.level, request.margin, static_cast<int>(rate), removed);
    const ToolboxArray owner(data);
    if (status == 159 || status == 161 || status == 163)
        throw std::bad_alloc();
    if (status != 0)
        throw CCommandError(kExitFailed, inQuotes(request.input) + " has no start that it could be cut to");
    return removed;
}

/// What a shift moves a response by, told from where the level is reached before and after it.
int framesShifted(std::vector<float> channel, std::uint32_t rate, const SImpulseRequest& request)
{
    const int length = static_cast<int>(channel.size());
    const int before = korvotoolbox::findIdxWhereAbsFirstExceeds(channel.data(), length, request.level);
    korvotoolbox::shiftImpStartToLevel(channel.data(), length, request.level, request.margin,
                                       static_cast<int>(rate));
    return before - korvotoolbox::findIdxWhereAbsFirstExceeds(channel.data(), length, request.level);
}

SOutputForm outputForm(const SImpulseRequest& request, const CAudioInput& input, int removed)
{
    SOutputForm form;
    form.path = request.output;
    form.format = input.format();
    form.rate = input.rate();
    form.channels = input.channels();
    form.frames =
        input.frames() - (request.edit == EImpulseEdit::Shift ? 0 : static_cast<std::uint64_t>(removed));
    const bool flac = strcasecmp(std::filesystem::path(form.path).extension().c_str(), ".flac") == 0;
    if (flac && (form.format == ESampleFormat::Float || form.format == ESampleFormat::Int32))
        throw CCommandError(kExitUsage, inQuotes(form.path) + " cannot hold the " +
                                            sampleFormatName(form.format) +
                                            " samples of IN; OUT may end in .wav, .aiff, .aif or .w64");
    checkOutput(form);
    return form;
}

} // namespace

SImpulseFile readImpulseFile(const std::string& path)
{
    CAudioInput input(path);
    checkResponse(input);
    input.readScaledFloats(1.0F);
    SImpulseFile file;
    file.rate = input.rate();
    file.frames = static_cast<int>(input.frames());
    file.channels.assign(input.channels(), std::vector<float>(input.frames()));
    std::vector<float> block(kBlockFrames * input.channels());
    std::vector<float*> targets(input.channels());
    for (std::size_t done = 0; done < input.frames(); done += kBlockFrames)
    {
        const std::size_t frames = std::min(kBlockFrames, static_cast<std::size_t>(input.frames()) - done);
        input.read(block.data(), frames);
        for (std::size_t c = 0; c < targets.size(); ++c)
            targets[c] = file.channels[c].data() + done;
        korvodsp::Deinterleave(block.data(), targets.data(), static_cast<unsigned>(frames), input.channels());
    }
    checkNumbers(file, path);
    return file;
}

int framesToRemove(const SImpulseFile& file, const SImpulseRequest& request)
{
    if (file.frames < kLeastFrames)
        throw CCommandError(kExitFailed, inQuotes(request.input) + " has " +
                                             counted(static_cast<std::uint64_t>(file.frames), "frame") +
                                             "; a response of at least 4 is needed");
    std::optional<int> least;
    for (const std::vector<float>& channel : file.channels)
    {
        if (korvodsp::AbsMaxValue(channel.data(), static_cast<unsigned>(channel.size())) == 0.0F)
            continue;
        const int frames = request.edit == EImpulseEdit::Shift ? framesShifted(channel, file.rate, request)
                                                               : framesTruncated(channel, file.rate, request);
        least = std::min(least.value_or(frames), frames);
    }
    if (!least)
        throw CCommandError(kExitFailed,
                            inQuotes(request.input) + " is silent; a response with a peak is needed");
    return *least;
}

void writeEdited(const SImpulseRequest& request, int removed)
{
    CAudioInput input(request.input);
    const SOutputForm form = outputForm(request, input, removed);
    std::vector<unsigned char> block(kBlockFrames * input.channels() * bytesPerSample(form.format));
    const CInterruptGuard interrupt;
    CAudioOutput output(form, input);
    for (std::uint64_t left = static_cast<std::uint64_t>(removed); left > 0;)
    {
        const std::size_t frames = std::min<std::uint64_t>(kBlockFrames, left);
        input.read(block.data(), frames);
        left -= frames;
    }
    // The input gives silence behind its last frame, which is what a shift has to fill up with.
    for (std::uint64_t left = form.frames; left > 0;)
    {
        interrupt.check();
        const std::size_t frames = std::min<std::uint64_t>(kBlockFrames, left);
        input.read(block.data(), frames);
        output.write(block.data(), frames);
        left -= frames;
    }
    interrupt.check();
    output.finish();
}

} // namespace krv

// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/audio_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "apps/krv/command.h"
#include "apps/krv/interrupt.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

namespace fs = std::filesystem;

struct SContainer
{
    const char* ending;
    int format;
    std::uint64_t maxBytes; ///< of samples; 0 where no limit matters
};

// A little below 4 GiB, for the header and the descriptive chunks.
constexpr std::uint64_t kMaxRiffBytes = 0xFFFF0000;

constexpr SContainer kContainers[] = {{".wav", SF_FORMAT_WAV, kMaxRiffBytes},
                                      {".flac", SF_FORMAT_FLAC, 0},
                                      {".aiff", SF_FORMAT_AIFF, kMaxRiffBytes},
                                      {".aif", SF_FORMAT_AIFF, kMaxRiffBytes},
                                      {".w64", SF_FORMAT_W64, 0}};

const SContainer* findContainer(const std::string& path)
{
    std::string ending = fs::path(path).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const auto found = std::find_if(std::begin(kContainers), std::end(kContainers),
                                    [&](const SContainer& container) { return ending == container.ending; });
    return found == std::end(kContainers) ? nullptr : found;
}

SF_INFO sndfileInfo(const SOutputForm& form)
{
    int container = findContainer(form.path)->format;
    if (container == SF_FORMAT_WAV && form.channels > 2)
        container = SF_FORMAT_WAVEX; // the only WAV header that says which channel is which
    SF_INFO info{};
    info.samplerate = static_cast<int>(form.rate);
    info.channels = static_cast<int>(form.channels);
    info.format = container | sndfileSubtype(form.format);
    return info;
}

std::string possibleFormats(SOutputForm form)
{
    std::string names;
    for (const ESampleFormat format : kSampleFormats)
    {
        form.format = format;
        const SF_INFO info = sndfileInfo(form);
        if (sf_format_check(&info) != 0)
            names += (names.empty() ? "" : ", ") + sampleFormatName(format);
    }
    return names;
}

mode_t newFileMode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return static_cast<mode_t>(0666) & ~mask;
}

} // namespace

void checkOutputName(const std::string& path)
{
    if (findContainer(path) == nullptr)
    {
        throw CCommandError(
            kExitUsage, inQuotes(path) + " names no format; OUT may end in .wav, .flac, .aiff, .aif or .w64");
    }
}

void checkOutput(const SOutputForm& form)
{
    checkOutputName(form.path);
    std::error_code ignored;
    if (fs::exists(form.path, ignored) && !fs::is_regular_file(form.path, ignored))
        throw CCommandError(kExitFailed,
                            inQuotes(form.path) + " is there and is not a file that could be replaced");
    const SF_INFO info = sndfileInfo(form);
    if (sf_format_check(&info) == 0)
    {
        throw CCommandError(kExitUsage, inQuotes(form.path) + " cannot hold " +
                                            sampleFormatName(form.format) + " samples; --format may be " +
                                            possibleFormats(form));
    }
    const std::uint64_t bytes = form.frames * form.channels * bytesPerSample(form.format);
    const std::uint64_t limit = findContainer(form.path)->maxBytes;
    if (limit != 0 && bytes > limit)
    {
        throw CCommandError(kExitFailed, inQuotes(form.path) +
                                             " would grow past the 4 GiB that its format can hold; "
                                             "a name in .w64 has no such limit");
    }
}

void requireTwoFiles(const std::string& input, const std::string& output)
{
    std::error_code noFile;
    if (fs::equivalent(input, output, noFile))
        throw CCommandError(kExitUsage, "IN and OUT are the same file, " + inQuotes(input) +
                                            "; give OUT a name of its own");
}

SF_VIRTUAL_IO CAudioOutput::virtualFile()
{
    SF_VIRTUAL_IO file{};
    file.get_filelen = [](void* user) -> sf_count_t {
        struct stat status
        {
        };
        return fstat(static_cast<CAudioOutput*>(user)->m_descriptor, &status) == 0 ? status.st_size : -1;
    };
    file.seek = [](sf_count_t offset, int whence, void* user) -> sf_count_t {
        return lseek(static_cast<CAudioOutput*>(user)->m_descriptor, offset, whence);
    };
    file.read = [](void* block, sf_count_t bytes, void* user) -> sf_count_t {
        return ::read(static_cast<CAudioOutput*>(user)->m_descriptor, block, static_cast<std::size_t>(bytes));
    };
    file.write = [](const void* block, sf_count_t bytes, void* user) -> sf_count_t {
        auto& output = *static_cast<CAudioOutput*>(user);
        sf_count_t written = 0;
        while (written < bytes)
        {
            const ssize_t step = ::write(output.m_descriptor, static_cast<const char*>(block) + written,
                                         static_cast<std::size_t>(bytes - written));
            if (step < 0 && errno == EINTR)
                continue;
            if (step <= 0)
            {
                if (output.m_error == 0)
                    output.m_error = step < 0 ? errno : ENOSPC;
                break;
            }
            written += step;
        }
        return written;
    };
    file.tell = [](void* user) -> sf_count_t {
        return lseek(static_cast<CAudioOutput*>(user)->m_descriptor, 0, SEEK_CUR);
    };
    return file;
}

CAudioOutput::CAudioOutput(const SOutputForm& form, const CAudioInput& input) : m_form(form)
{
    std::error_code noTarget;
    const fs::path target = fs::weakly_canonical(form.path, noTarget);
    m_target = noTarget ? form.path : target.string();
    m_growing = (fs::path(m_target).parent_path() / ".krv-XXXXXX").string();
    m_descriptor = mkostemp(m_growing.data(), O_CLOEXEC);
    if (m_descriptor < 0)
        throw CCommandError(kExitFailed, inQuotes(form.path) + " cannot be made: " + std::strerror(errno));
    removeIfKilled(m_growing.c_str());
    SF_INFO info = sndfileInfo(form);
    SF_VIRTUAL_IO io = virtualFile();
    m_file.reset(sf_open_virtual(&io, SFM_WRITE, &info, this));
    if (m_file == nullptr || fchmod(m_descriptor, newFileMode()) != 0)
    {
        const std::string reason = m_error != 0 ? std::strerror(m_error) : sndfileReason(nullptr);
        removeUnfinished();
        close(m_descriptor);
        throw CCommandError(kExitFailed, inQuotes(form.path) + " cannot be made: " + reason);
    }
    // The PEAK chunk of float files holds the time of day: equal input would give unequal files.
    sf_command(m_file.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    copyDescription(input);
}

CAudioOutput::~CAudioOutput()
{
    m_file.reset();
    if (m_descriptor >= 0)
        close(m_descriptor);
    if (!m_growing.empty())
        removeUnfinished();
}

void CAudioOutput::removeUnfinished()
{
    unlink(m_growing.c_str());
    removeIfKilled(nullptr);
}

void CAudioOutput::copyDescription(const CAudioInput& input)
{
    // Where a container has no room for it, the description stays behind and the audio matters.
    for (int kind = SF_STR_FIRST; kind <= SF_STR_LAST; ++kind)
    {
        if (const char* text = sf_get_string(input.sndfile(), kind))
            sf_set_string(m_file.get(), kind, text);
    }
    std::vector<int> map(m_form.channels);
    const int bytes = static_cast<int>(map.size() * sizeof(int));
    if (sf_command(input.sndfile(), SFC_GET_CHANNEL_MAP_INFO, map.data(), bytes) == SF_TRUE)
        sf_command(m_file.get(), SFC_SET_CHANNEL_MAP_INFO, map.data(), bytes);
}

void CAudioOutput::throwNotWritten() const
{
    const std::string reason = m_error != 0 ? std::strerror(m_error) : sndfileReason(m_file.get());
    throw CCommandError(kExitFailed, inQuotes(m_form.path) + " cannot be written: " + reason);
}

void CAudioOutput::write(const void* block, std::size_t frames)
{
    const auto wanted = static_cast<sf_count_t>(frames);
    sf_count_t written = 0;
    switch (m_form.format)
    {
    case ESampleFormat::Int16:
        written = sf_writef_short(m_file.get(), static_cast<const short*>(block), wanted);
        break;
    case ESampleFormat::Int24:
        m_words.resize(frames * m_form.channels);
        unpackInt24(static_cast<const unsigned char*>(block), m_words.size(), m_words.data());
        written = sf_writef_int(m_file.get(), m_words.data(), wanted);
        break;
    case ESampleFormat::Int32:
        written = sf_writef_int(m_file.get(), static_cast<const int*>(block), wanted);
        break;
    case ESampleFormat::Float:
        written = sf_writef_float(m_file.get(), static_cast<const float*>(block), wanted);
        break;
    }
    if (written != wanted || m_error != 0)
        throwNotWritten();
}

void CAudioOutput::finish()
{
    // The end of a file is written here: the lengths in the header, the last frame of FLAC.
    const int closed = sf_close(m_file.release());
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    if (close(descriptor) != 0 && m_error == 0)
        m_error = errno;
    if (m_error == 0 && closed != 0)
        m_error = EIO;
    if (m_error == 0 && std::rename(m_growing.c_str(), m_target.c_str()) != 0)
        m_error = errno;
    if (m_error != 0)
        throwNotWritten();
    removeIfKilled(nullptr);
    m_growing.clear();
}

} // namespace krv

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

#include "api/high_rate_path.h"
#include "api/krv.h"
#include "api/multirate_filter.h"
#include "dsp/filtering_engine.h"
#include "filter/filter_folder.h"
#include "filter/filter_set.h"

/// Everything that one audio stream needs. Made zero-filled by the plain allocator, so that a record never
/// carries the mark before krv_create() has written it as the last thing.
struct PROCESSOR_INSTANCE_tag
{
    static constexpr std::uint32_t kValidityMark = 0xD7F3B034;
    static constexpr unsigned kMaxChannels = KRV_MAX_CHANNELS;

    using InputConversion = bool (*)(const void* src, float* dst, unsigned count);
    using OutputConversion = bool (*)(const float* src, void* dst, unsigned count);

    std::uint32_t validityMark;
    std::uint32_t channels;     ///< largest channel count of a block
    std::uint32_t maxFrames;    ///< largest number of frames of a block
    std::uint32_t sampleRate;   ///< of the stream, Hz; 0 until one is set
    std::uint32_t internalRate; ///< base rate of the high-rate path, Hz; means nothing at a direct rate
    float* inputBuffer;         ///< interleaved block; conversion writes here, all processing ends here
    float* decimatedBuffer;     ///< low band at the base rate
    float* highBandBuffer;      ///< high band at the stream rate
    korvodsp::CFilteringEngine* engine;
    std::uint32_t channelMasks[kMaxChannels]; ///< the identity channel map, one bit per channel
    korvo::FIR_MULTIRATE_FILTER_tag decimators[kMaxChannels];
    korvo::FIR_MULTIRATE_FILTER_tag interpolators[kMaxChannels];
    korvo::FIR_MULTIRATE_FILTER_tag highPassFilters[kMaxChannels];
    float* delayBuffers[kMaxChannels]; ///< delay of the high band, korvo::kDelayBufferSize floats each
    std::uint32_t delayIndices[kMaxChannels];
    korvo::filter::CFIIRFilter* filterSet;
    korvo::filter::FilterListEntry* filterList; ///< null until krv_filters_enumerate() has found a filter
    InputConversion inputConversion;            ///< null for float: bytes are copied
    bool inputFlag;                             ///< always false, read by nothing
    OutputConversion outputConversion;          ///< null for float: bytes are copied
    bool outputFlag;                            ///< always false, read by nothing
};

namespace korvo::api {

/// The eight rates that an engine channel has a filter slot for, ascending, in Hz.
inline constexpr std::uint32_t kStandardRates[KRV_NUM_STANDARD_RATES] = {44100,  48000,  88200,  96000,
                                                                         176400, 192000, 352800, 384000};

/// Real time: yes.
inline bool isValid(krv_handle handle)
{
    return handle != nullptr && handle->validityMark == PROCESSOR_INSTANCE_tag::kValidityMark;
}

/// Runs the body of an exported call and keeps every exception from the host.
template<typename Body>
int guarded(int statusOnException, Body&& body) noexcept
{
    try
    {
        return body();
    }
    catch (...)
    {
        return statusOnException;
    }
}

/// What channel `c` keeps for the high-rate path. Real time: yes.
inline SHighRateChannel highRateChannel(PROCESSOR_INSTANCE_tag& instance, unsigned c)
{
    return {instance.decimators[c], instance.interpolators[c], instance.highPassFilters[c],
            instance.delayBuffers[c], instance.delayIndices[c]};
}

} // namespace korvo::api

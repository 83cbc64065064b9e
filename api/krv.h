/* SPDX-License-Identifier: GPL-3.0-or-later */
/** @file
 *  The C interface of libkorvo: real-time correction of multichannel audio.
 *
 *  Order of calls: krv_create(), then a filter (krv_loadFilterFromFile(), or krv_filters_enumerate() with
 *  krv_loadFilter()), then krv_setSamplerate(), which asks the loaded filter whether it offers the rate, then
 *  krv_process() once per block, and last krv_destroy().
 *
 *  Threads. "Audio thread" is the one thread that calls krv_process() on an instance; "control thread" the one
 *  thread that makes all other calls on it, one at a time. Different instances share nothing and may be used
 *  from different threads at once.
 *
 *  Real time. A call marked "Real time: yes" allocates nothing, takes no lock and makes no system call.
 *
 *  Errors come back as a status and in no other way: nothing is printed, logged or thrown into the host. Out
 *  parameters are written on success only, unless a call says that it gives a partial result. */
#ifndef KRV_H
#define KRV_H

#include "korvo_export.h"

#include <stdint.h>

#ifdef __cplusplus
#define KRV_NOEXCEPT noexcept
extern "C" {
#else
#define KRV_NOEXCEPT
#endif

/** A processor instance. Opaque; a null or foreign pointer is refused with KRV_STATUS_BAD_HANDLE. */
typedef struct PROCESSOR_INSTANCE_tag* krv_handle;

/** Status codes. No call returns any other number. */
enum
{
    KRV_STATUS_OK = 0,                 /**< Done. */
    KRV_STATUS_FILE_ERROR = 2,         /**< A filter document could not be read or parsed, or the folder not listed. */
    KRV_STATUS_BAD_ARGUMENT = 3,       /**< Null pointer, value out of range, destination too small, no such file. */
    KRV_STATUS_OUT_OF_MEMORY = 4,      /**< An allocation failed in krv_create(). */
    KRV_STATUS_RATE_NOT_SUPPORTED = 7, /**< The loaded filter does not offer the rate, or it cannot be processed. */
    KRV_STATUS_BAD_HANDLE = 9,         /**< The handle is null or not a processor instance. */
    KRV_STATUS_NO_MORE_FILTERS = 13,   /**< The index lies past the last filter, or there is none. */
    KRV_STATUS_CLIPPED = 14,           /**< A warning: the block is complete, at least one sample hit its limit. */
    KRV_STATUS_NO_FILTER_SET = 15      /**< The instance has no filter set; a guard only. */
};

/** Sample formats, for input and output apart. Interleaved by frame, signed, in the machine's byte order; full
 *  scale of float is plus or minus 1.0. */
enum
{
    KRV_FORMAT_INT16 = 1,  /**< 16-bit integer, 2 bytes. */
    KRV_FORMAT_INT20 = 2,  /**< 20-bit sample in a packed word of 3 bytes. */
    KRV_FORMAT_INT24 = 3,  /**< 24-bit integer, packed, 3 bytes. */
    KRV_FORMAT_INT32 = 4,  /**< 32-bit integer, 4 bytes. */
    KRV_FORMAT_FLOAT32 = 5 /**< 32-bit float, 4 bytes; the processor's own format, copied and never clipped. */
};

/** Limits of an instance. */
enum
{
    KRV_MIN_CHANNELS = 1,
    KRV_MAX_CHANNELS = 8,
    KRV_MIN_BLOCK_FRAMES = 16,
    KRV_MAX_BLOCK_FRAMES = 4096,
    KRV_NUM_STANDARD_RATES = 8 /**< 44100, 48000, 88200, 96000, 176400, 192000, 352800 and 384000 Hz. */
};

/** Makes a processor: enabled, delay and gain on, all gains 1.0 and all delays 0.0, no filter loaded.
 *  Until a filter is loaded and a rate is set, krv_process() passes audio through unchanged.
 *  @param handleOut    receives the handle, on KRV_STATUS_OK only
 *  @param channels     largest channel count of a block, 1 to 8
 *  @param blockFrames  largest number of frames of a block, 16 to 4096; any number in between will do
 *  @param inputFormat  KRV_FORMAT_... of what goes into krv_process()
 *  @param outputFormat KRV_FORMAT_... of what comes out
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_OUT_OF_MEMORY
 *  Threads: any. Real time: no. */
KORVO_EXPORT int krv_create(krv_handle* handleOut, int32_t channels, int32_t blockFrames, int32_t inputFormat,
                            int32_t outputFormat) KRV_NOEXCEPT;

/** Releases a processor. The host has stopped krv_process() before. The handle is dead afterwards: using it
 *  again is undefined.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, not beside any other call on the instance.
 *  Real time: no; with a filter loaded it waits about a second for an audio thread that no longer runs. */
KORVO_EXPORT int krv_destroy(krv_handle handle) KRV_NOEXCEPT;

/** Corrects one block of interleaved samples.
 *  Without a filter for the rate that is set, samples pass through with no more than format conversion.
 *  At 176400 Hz and above `frames` should be a multiple of the ratio to the base rate (2, or 4 from 352800 Hz
 *  on); a block of any other length loses its phase, with no status to tell.
 *  @param handle   from krv_create()
 *  @param input    frames * channels samples in the input format; any alignment
 *  @param output   room for frames * channels samples in the output format; any alignment; may be `input` where
 *                  both formats have the same sample size
 *  @param frames   frames, not samples; 0 to the blockFrames of krv_create()
 *  @param channels interleaved channels of this block, 0 to the channels of krv_create()
 *  @return KRV_STATUS_OK, KRV_STATUS_CLIPPED (block complete), KRV_STATUS_BAD_HANDLE,
 *          KRV_STATUS_BAD_ARGUMENT (output untouched)
 *  Threads: the audio thread, one call at a time per instance; not beside krv_setSamplerate() or krv_destroy().
 *  Real time: yes. No allocation, no lock, no system call; up to 50 KB of stack. */
KORVO_EXPORT int krv_process(krv_handle handle, const void* input, void* output, uint32_t frames,
                             uint32_t channels) KRV_NOEXCEPT;

/** Allocates an aligned block, as the library does for its own buffers.
 *  @param size      bytes, 1 to 0x4000000 (64 MiB)
 *  @param alignment 4, 8 or 16
 *  @return the block, or null if an argument is out of range or memory is out
 *  Threads: any. Real time: no. */
KORVO_EXPORT void* krv_malloc(int32_t size, uint32_t alignment) KRV_NOEXCEPT;

/** Releases a block from krv_malloc(). Null is ignored.
 *  Threads: any. Real time: no. */
KORVO_EXPORT void krv_free(void* pointer) KRV_NOEXCEPT;

/** Sets the stream's sample rate. The loaded filter must offer it; from 176400 Hz on it must offer the base rate
 *  (88200 or 96000 Hz) as well. Clears all filter, delay and resampling state.
 *  @param rate Hz
 *  @return KRV_STATUS_OK, KRV_STATUS_RATE_NOT_SUPPORTED, KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET.
 *          A high rate that is refused only because its base rate is missing leaves the instance prepared for
 *          that rate: set a rate that works before processing goes on.
 *  Threads: control thread, not beside krv_process(). Real time: no. */
KORVO_EXPORT int krv_setSamplerate(krv_handle handle, uint32_t rate) KRV_NOEXCEPT;

/** Switches correction on (non-zero) or off (0). The change is faded over the next block. At high rates the band
 *  above the crossover keeps the filter's delay and gain while correction is off.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_enable(krv_handle handle, int32_t on) KRV_NOEXCEPT;

/** Reads what krv_enable() set, as 0 or 1.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_isEnabled(krv_handle handle, int32_t* result) KRV_NOEXCEPT;

/** Switches the channels' delays and gains on (non-zero) or off (0). Switching on clears every channel's delay
 *  line, whether it was on before or not; heard while audio runs, this can jump.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_enableDelayAndGain(krv_handle handle, int32_t on) KRV_NOEXCEPT;

/** Reads what krv_enableDelayAndGain() set, as 0 or 1.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_isDelayAndGainEnabled(krv_handle handle, int32_t* result) KRV_NOEXCEPT;

/** Sets one channel's gain. Reached in a linear ramp over the next block.
 *  @param channel from 0, below the channels of krv_create()
 *  @param gain    linear; taken as it is
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_setChannelGain(krv_handle handle, uint32_t channel, float gain) KRV_NOEXCEPT;

/** Reads one channel's linear gain.
 *  @param channel from 0, below the channels of krv_create()
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getChannelGain(krv_handle handle, uint32_t channel, float* result) KRV_NOEXCEPT;

/** Sets one channel's delay. Takes effect at the next block, unfaded.
 *  @param channel from 0, below the channels of krv_create()
 *  @param delay   milliseconds; what is not above 0.0 becomes 0.0; no more than 100 ms are played
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_setChannelDelay(krv_handle handle, uint32_t channel, float delay) KRV_NOEXCEPT;

/** Reads one channel's delay in milliseconds: what was set, even where less is played.
 *  @param channel from 0, below the channels of krv_create()
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getChannelDelay(krv_handle handle, uint32_t channel, float* result) KRV_NOEXCEPT;

/** Sets the gain of everything that comes out of the correction, in one step. At high rates the band above the
 *  crossover is not scaled by it.
 *  @param gain linear; 1.0 and above, and NaN, become 1.0: this gain only attenuates
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_setOverallGain(krv_handle handle, float gain) KRV_NOEXCEPT;

/** Reads the overall gain, linear.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getOverallGain(krv_handle handle, float* result) KRV_NOEXCEPT;

/** Goes back to the channel gains and delays that the loaded document gives, and switches delay and gain on.
 *  Channels without coefficients for mode 1 keep what they have.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_setDefaultDelayAndGain(krv_handle handle) KRV_NOEXCEPT;

/** Reads the latency of the filter in the active mode: the position of its largest tap. The two bands of a high
 *  rate add 41 frames (176400, 192000 Hz) or 81 frames (352800, 384000 Hz) that are not counted here.
 *  @param result milliseconds; negative while unknown
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getFilterLatency(krv_handle handle, float* result) KRV_NOEXCEPT;

/** Reads the largest gain of the loaded filter over all channels, as its document tells it.
 *  @param result dB, not below 0
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getFilterMaxGain(krv_handle handle, float* result) KRV_NOEXCEPT;

/** Copies the loaded filter's display name as UTF-8, empty before any load. The rest of the buffer is zeroed.
 *  @param length bytes of `buffer`, the terminating zero included; 0 is refused before the handle is looked at
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null buffer, length 0, or the text was cut to fit and what
 *          fits is there), KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_getFilterName(krv_handle handle, char* buffer, uint32_t length) KRV_NOEXCEPT;

/** Copies the path of the file that was last loaded with success; else as krv_getFilterName().
 *  @return as krv_getFilterName()
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_getFilterPath(krv_handle handle, char* buffer, uint32_t length) KRV_NOEXCEPT;

/** Lists the standard sample rates that the loaded filter offers in the active mode, ascending; entries beyond
 *  the last one read 0.
 *  @param rates    Hz
 *  @param capacity entries of `rates`; KRV_NUM_STANDARD_RATES always suffices
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null rates, or more rates than fit and what fits is there),
 *          KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_getFilterSamplerates(krv_handle handle, uint32_t* rates, uint32_t capacity) KRV_NOEXCEPT;

/** Lists the channel numbers, from 1, that the filter's channels serve, in the order of the document, up to the
 *  first one without a number; entries beyond the last one read 0.
 *  @param capacity entries of `routing`; KRV_MAX_CHANNELS always suffices
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null routing, or more than fit and what fits is there),
 *          KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_getOutputRouting(krv_handle handle, uint32_t* routing, uint32_t capacity) KRV_NOEXCEPT;

/** Reads the operating mode: 0 no filter active, 1 the document's standard sets, 2 its minimum-phase sets.
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null result), KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: yes. */
KORVO_EXPORT int krv_getFilterOperatingMode(krv_handle handle, uint32_t* result) KRV_NOEXCEPT;

/** Reads the loaded file anew and runs the sets of `mode`. Enable state, gains and delays stay. The reload's own
 *  result is not reported: after a failed one krv_getFilterOperatingMode() reads 0.
 *  @param mode 1 or 2
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT, KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_FILTER_SET
 *  Threads: control thread, also while audio runs. Real time: no; blocks as krv_loadFilterFromFile() does. */
KORVO_EXPORT int krv_setFilterOperatingMode(krv_handle handle, uint32_t mode) KRV_NOEXCEPT;

/** Copies the name of the filter at `index` of the user's filter folder. The folder is listed by the first call
 *  that finds a filter in it; from then on the instance keeps that list. Count `index` up from 0 until
 *  KRV_STATUS_NO_MORE_FILTERS.
 *  @param buffer receives the name as UTF-8; a name of `length` bytes or more is cut and NOT terminated
 *  @param length bytes of `buffer`; 0 copies nothing
 *  @return KRV_STATUS_OK, KRV_STATUS_FILE_ERROR, KRV_STATUS_BAD_ARGUMENT (null buffer with a length above 0),
 *          KRV_STATUS_BAD_HANDLE, KRV_STATUS_NO_MORE_FILTERS
 *  Threads: control thread, also while audio runs. Real time: no; waits up to 30 s for the listing. */
KORVO_EXPORT int krv_filters_enumerate(krv_handle handle, uint32_t index, char* buffer, uint32_t length)
    KRV_NOEXCEPT;

/** Loads the filter at `index` of the list that krv_filters_enumerate() has made; else as
 *  krv_loadFilterFromFile().
 *  @return as krv_loadFilterFromFile(); KRV_STATUS_BAD_ARGUMENT also without a list or past its end
 *  Threads: control thread, also while audio runs. Real time: no. */
KORVO_EXPORT int krv_loadFilter(krv_handle handle, uint32_t index) KRV_NOEXCEPT;

/** Loads a filter document, in mode 1. On success the processor is enabled, with delay and gain on and at the
 *  document's values; rate and overall gain stay. Audio that runs meanwhile fades to unfiltered, stays so during
 *  the load, and fades into the new filter.
 *  @param path file name, NUL-terminated UTF-8
 *  @return KRV_STATUS_OK, KRV_STATUS_BAD_ARGUMENT (null path or no such file: the old filter goes on playing),
 *          KRV_STATUS_FILE_ERROR (not readable or refused: the old filter is gone), KRV_STATUS_BAD_HANDLE
 *  Threads: control thread, also while audio runs, never the audio thread.
 *  Real time: no; blocks until the audio thread has let the old filter go (about a second if it does not run)
 *  and then for the reading, at most 10 s. */
KORVO_EXPORT int krv_loadFilterFromFile(krv_handle handle, const char* path) KRV_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

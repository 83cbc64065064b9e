// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <cstdio>

/// The correction filter of one channel at one sample rate: a direct FIR head of n taps h, and a bank of
/// two-pole sections in parallel that carries on where the FIR ends.
///
///   x(t) ----+--> h(0) x(t) + h(1) x(t-1) + ... + h(n-1) x(t-n+1) --------------+--> y(t)
///            |                                                                  |
///            +--> x(t-n) --+--> [section 0] --+---------------------------------+
///                          +--> [section 1] --+
///                          +--> ...
///
/// A section is (b0 + b1 z^-1) / (1 + a1 z^-1 + a2 z^-2): a1 and a2 with the sign of the denominator.
///
/// A filter lives behind an opaque handle. Order of building one: FIIR_InitRaw, FIIR_SetFIRCoefficients, any
/// number of FIIR_AddBQSection, FIIR_CookBQSections, and FIIR_Reset before the first block. Handles are
/// trusted, not checked; one thread at a time may run a kernel on one.
namespace korvodsp {

enum EInit : int
{
    kInitAuto = 0,         ///< FIIR_SSE where the processor has it, else FIIR_Ref
    kInitSSE = 1,          ///< FIIR_SSE
    kInitReference = 2,    ///< FIIR_Ref
    kInitBaseReference = 3 ///< FIIR_KorvoBaseReference
};

/// A kernel: filters `frames` samples of one channel, in[i * stride + channel] to out[i * stride + channel].
/// `in` and `out` need no alignment and may be the same block.
using FiirKernel = void (*)(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                            unsigned stride);

/// One section as it was given, with the state of the two scalar kernels.
struct FIIR_SECTION_tag
{
    float a1, a2, b0, b1;
    float state1, state2;
};

/// Number of sections in a cooked group, one per lane.
inline constexpr unsigned kSectionsPerGroup = 4;
/// Floats of a cooked group: b0, b1, a1, a2, y1, y2 of its four sections. Lanes not in use are zero.
inline constexpr unsigned kFloatsPerGroup = 6 * kSectionsPerGroup;

struct FIIR_FILTER_tag
{
    std::uint32_t magic;      ///< kFiirAlive, kFiirDiscarded, or 0 after a failed FIIR_SetFIRCoefficients
    std::uint32_t numTaps;    ///< n
    std::uint32_t paddedTaps; ///< P: n rounded up to a multiple of 4
    std::uint32_t tapPadding; ///< P - n
    float* firCoefs[4];       ///< copy k: the padded taps rotated right by k places, twice in a row
    float* delayLine;         ///< ring of max(n + 1, P) samples; the vector and reference kernels use P
    std::uint32_t delayPos;   ///< where the next sample goes
    std::uint32_t numSections;
    FIIR_SECTION_tag* sections;
    float prevInput;       ///< the sections' previous input, x(t-n-1)
    float denormalBias;    ///< plus or minus 1e-20
    float* cookedSections; ///< groups of kFloatsPerGroup floats
    std::uint32_t numCookedGroups;
    FiirKernel process;
};

inline constexpr std::uint32_t kFiirAlive = 0xCAFEBABE;
inline constexpr std::uint32_t kFiirDiscarded = 0xDEADC0DE;

/// Makes an empty filter. An unknown `kind` makes one without a kernel, which must not be processed.
/// @return false without memory, with *handle unchanged
bool FIIR_InitRaw(EInit kind, void** handle);

/// Gives the filter its taps, once. On failure (no memory, or no taps at all) the filter is wiped, its kernel
/// included, and is good for FIIR_Discard only.
bool FIIR_SetFIRCoefficients(void* handle, const float* taps, unsigned count);

/// @return the number of taps, with *taps at h(0); 0 for a null handle, with *taps unchanged
unsigned FIIR_GetFIRCoefficients(void* handle, const float** taps);

/// Adds a section, coefs being a1, a2, b0, b1. Its state is undefined until FIIR_Reset.
/// @return false without memory, with the section not added
bool FIIR_AddBQSection(void* handle, const float* coefs);

unsigned FIIR_GetNumOfBQSections(void* handle);

/// @return false for a null handle or an index out of range, with *section unchanged
bool FIIR_EnumBQSection(void* handle, unsigned index, const float** section);

/// Packs the sections in groups of four for FIIR_SSE, leaving out those whose coefficients are all zero.
bool FIIR_CookBQSections(void* handle);

/// Back to silence. A handle of 0 or of all bits set is ignored: filter slots hold both.
void FIIR_Reset(void* handle);

void FIIR_Process(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                  unsigned stride);
void FIIR_Process(void* handle, const float* in, float* out, unsigned frames);

bool FIIR_IsHandleValid(void* handle);

/// Null is ignored.
void FIIR_Discard(void* handle);

/// Builds a filter from text: the number of taps, the taps, then a1 a2 b0 b1 of each section up to the end.
/// @param scan  reads from `stream` as fscanf() does
/// Taps and coefficients that the text does not give are 0.
/// @return false without memory or for a number of taps that is 0 or cannot be had; *handle is unchanged then
bool FIIR_Init(EInit kind, void** handle, int (*scan)(void* stream, const char* format, ...), void* stream);

/// FIIR_Init on a file. False as well if it cannot be opened.
bool FIIR_InitWithFile(EInit kind, void** handle, const char* path);

/// Does nothing: the processor's denormal mode is the host's.
bool SetDenormalFlushToZero();

/// @return 0, with *file set, or -1
int fopen_s(std::FILE** file, const char* path, const char* mode);

} // namespace korvodsp

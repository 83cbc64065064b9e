// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/fiir_filter.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "dsp/aligned_memory.h"
#include "dsp/cpu_features.h"
#include "dsp/fiir_kernels.h"
#include "dsp/kernel_variants.h"

namespace korvodsp {

namespace {

constexpr float kDenormalBias = 1e-20F;
constexpr unsigned kCoefsPerSection = 4;

FIIR_FILTER_tag& filterOf(void* handle)
{
    return *static_cast<FIIR_FILTER_tag*>(handle);
}

FiirKernel kernelOf(EInit kind)
{
    switch (kind)
    {
    case kInitAuto:
        return ssp_is_supported(ssp_feature_sse) ? kernelVariant().fiir : FIIR_Ref;
    case kInitSSE:
        return kernelVariant().fiir;
    case kInitReference:
        return FIIR_Ref;
    case kInitBaseReference:
        return FIIR_KorvoBaseReference;
    }
    return nullptr;
}

float* allocFloats(std::size_t count)
{
    void* memory = alignedAllocZeroed(count * sizeof(float));
    if (memory == nullptr)
        throw std::bad_alloc();
    return static_cast<float*>(memory);
}

std::size_t ringLength(const FIIR_FILTER_tag& filter)
{
    return std::max<std::size_t>(std::size_t{filter.numTaps} + 1, filter.paddedTaps);
}

void freeTapsAndRing(FIIR_FILTER_tag& filter)
{
    for (float*& copy : filter.firCoefs)
    {
        alignedFree(copy);
        copy = nullptr;
    }
    alignedFree(filter.delayLine);
    filter.delayLine = nullptr;
}

void freeSections(FIIR_FILTER_tag& filter)
{
    std::free(filter.sections);
    filter.sections = nullptr;
    alignedFree(filter.cookedSections);
    filter.cookedSections = nullptr;
}

void buildTapsAndRing(FIIR_FILTER_tag& filter, const float* taps)
{
    const std::size_t padded = filter.paddedTaps;
    for (float*& copy : filter.firCoefs)
        copy = allocFloats(2 * padded);
    for (std::size_t k = 0; k < std::size(filter.firCoefs); ++k)
    {
        for (std::size_t i = 0; i < filter.numTaps; ++i)
        {
            const std::size_t rotated = i + k < padded ? i + k : i + k - padded;
            filter.firCoefs[k][rotated] = taps[i];
            filter.firCoefs[k][rotated + padded] = taps[i];
        }
    }
    filter.delayLine = allocFloats(ringLength(filter));
}

/// A NaN does not compare equal to 0, so such a section stays.
bool isAllZero(const FIIR_SECTION_tag& section)
{
    return section.a1 == 0.0F && section.a2 == 0.0F && section.b0 == 0.0F && section.b1 == 0.0F;
}

void cook(const FIIR_SECTION_tag& section, float* groups, std::size_t index)
{
    float* lane = groups + index / kSectionsPerGroup * kFloatsPerGroup + index % kSectionsPerGroup;
    lane[0 * kSectionsPerGroup] = section.b0;
    lane[1 * kSectionsPerGroup] = section.b1;
    lane[2 * kSectionsPerGroup] = section.a1;
    lane[3 * kSectionsPerGroup] = section.a2;
}

using FloatBuffer = std::unique_ptr<float, decltype(&alignedFree)>;

/// Taps that the stream does not give stay zero. At its end no more are asked for: a count gone wrong would
/// keep this busy for long.
FloatBuffer scanTaps(unsigned count, int (*scan)(void*, const char*, ...), void* stream)
{
    FloatBuffer taps(static_cast<float*>(alignedAllocZeroed(count * sizeof(float))), alignedFree);
    int result = 0;
    for (unsigned i = 0; taps && i < count && result != EOF; ++i)
        result = scan(stream, "%f", taps.get() + i);
    return taps;
}

/// Coefficients that the stream does not give are zero, and not those of the section before.
/// @return the number of sections that found no memory
unsigned scanSections(void* handle, int (*scan)(void*, const char*, ...), void* stream)
{
    unsigned discarded = 0;
    float first = 0.0F;
    while (scan(stream, "%f", &first) >= 1)
    {
        float coefs[kCoefsPerSection] = {first};
        for (unsigned i = 1; i < kCoefsPerSection; ++i)
            scan(stream, "%f", &coefs[i]);
        if (!FIIR_AddBQSection(handle, coefs))
            ++discarded;
    }
    return discarded;
}

__attribute__((format(scanf, 2, 3))) int scanFile(void* stream, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const int result = std::vfscanf(static_cast<std::FILE*>(stream), format, arguments);
    va_end(arguments);
    return result;
}

} // namespace

bool FIIR_InitRaw(EInit kind, void** handle)
{
    auto* filter = new (std::nothrow) FIIR_FILTER_tag{};
    if (filter == nullptr)
        return false;
    filter->magic = kFiirAlive;
    filter->process = kernelOf(kind);
    *handle = filter;
    return true;
}

bool FIIR_SetFIRCoefficients(void* handle, const float* taps, unsigned count)
{
    FIIR_FILTER_tag& filter = filterOf(handle);
    try
    {
        freeTapsAndRing(filter);
        filter.numTaps = count;
        filter.paddedTaps = (count + 3) & ~3U; // 0 for the three counts that overflow it, and 0 is refused
        filter.tapPadding = filter.paddedTaps - count;
        buildTapsAndRing(filter, taps);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        freeTapsAndRing(filter);
        freeSections(filter);
        filter = FIIR_FILTER_tag{};
        return false;
    }
}

unsigned FIIR_GetFIRCoefficients(void* handle, const float** taps)
{
    if (handle == nullptr)
        return 0;
    *taps = filterOf(handle).firCoefs[0];
    return filterOf(handle).numTaps;
}

bool FIIR_AddBQSection(void* handle, const float* coefs)
{
    FIIR_FILTER_tag& filter = filterOf(handle);
    const std::size_t bytes = (std::size_t{filter.numSections} + 1) * sizeof(FIIR_SECTION_tag);
    if (bytes >= kMemoryLimit)
        return false;
    void* grown = std::realloc(filter.sections, bytes);
    if (grown == nullptr)
        return false;
    filter.sections = static_cast<FIIR_SECTION_tag*>(grown);
    filter.sections[filter.numSections++] = {coefs[0], coefs[1], coefs[2], coefs[3], 0.0F, 0.0F};
    return true;
}

unsigned FIIR_GetNumOfBQSections(void* handle)
{
    return handle == nullptr ? 0 : filterOf(handle).numSections;
}

bool FIIR_EnumBQSection(void* handle, unsigned index, const float** section)
{
    if (handle == nullptr || index >= filterOf(handle).numSections)
        return false;
    *section = &filterOf(handle).sections[index].a1;
    return true;
}

bool FIIR_CookBQSections(void* handle)
{
    FIIR_FILTER_tag& filter = filterOf(handle);
    if (filter.numSections == 0)
        return true;
    const std::size_t groups = (std::size_t{filter.numSections} + kSectionsPerGroup - 1) / kSectionsPerGroup;
    void* cooked = alignedAllocZeroed(groups * kFloatsPerGroup * sizeof(float));
    if (cooked == nullptr)
        return false;
    alignedFree(filter.cookedSections);
    filter.cookedSections = static_cast<float*>(cooked);
    std::uint32_t lanes = 0;
    for (std::uint32_t s = 0; s < filter.numSections; ++s)
    {
        if (!isAllZero(filter.sections[s]))
            cook(filter.sections[s], filter.cookedSections, lanes++);
    }
    filter.numCookedGroups = (lanes + kSectionsPerGroup - 1) / kSectionsPerGroup;
    return true;
}

void FIIR_Reset(void* handle)
{
    if (handle == nullptr || handle == reinterpret_cast<void*>(~std::uintptr_t{0}))
        return;
    FIIR_FILTER_tag& filter = filterOf(handle);
    if (filter.delayLine != nullptr)
        std::fill_n(filter.delayLine, ringLength(filter), 0.0F);
    filter.prevInput = 0.0F;
    filter.denormalBias = kDenormalBias;
    filter.delayPos = 0;
    for (std::uint32_t s = 0; s < filter.numSections; ++s)
        filter.sections[s].state1 = filter.sections[s].state2 = 0.0F;
    for (std::uint32_t g = 0; g < filter.numCookedGroups; ++g)
        std::fill_n(filter.cookedSections + std::size_t{g} * kFloatsPerGroup + 4 * kSectionsPerGroup,
                    2 * kSectionsPerGroup, 0.0F);
}

void FIIR_Process(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                  unsigned stride)
{
    filterOf(handle).process(handle, in, out, frames, channel, stride);
}

void FIIR_Process(void* handle, const float* in, float* out, unsigned frames)
{
    FIIR_Process(handle, in, out, frames, 0, 1);
}

bool FIIR_IsHandleValid(void* handle)
{
    return handle != nullptr && filterOf(handle).magic == kFiirAlive;
}

void FIIR_Discard(void* handle)
{
    if (handle == nullptr)
        return;
    FIIR_FILTER_tag& filter = filterOf(handle);
    // Through volatile, since nothing may read a filter after this and the store would be dropped. It is for
    // people who look at a dump.
    static_cast<volatile std::uint32_t&>(filter.magic) = kFiirDiscarded;
    freeTapsAndRing(filter);
    freeSections(filter);
    delete &filter;
}

bool FIIR_Init(EInit kind, void** handle, int (*scan)(void*, const char*, ...), void* stream)
{
    void* raw = nullptr;
    if (!FIIR_InitRaw(kind, &raw))
        return false;
    std::unique_ptr<void, decltype(&FIIR_Discard)> filter(raw, FIIR_Discard);
    unsigned count = 0;
    scan(stream, "%u", &count);
    const FloatBuffer taps = scanTaps(count, scan, stream);
    if (!taps)
        return false;
    std::printf("\tRead %d FIR taps.\n", static_cast<int>(count));
    if (!FIIR_SetFIRCoefficients(raw, taps.get(), count))
        return false;
    const unsigned discarded = scanSections(raw, scan, stream);
    FIIR_CookBQSections(raw);
    std::printf("\tRead %d IIR taps (%d discarded).\n", static_cast<int>(FIIR_GetNumOfBQSections(raw)),
                static_cast<int>(discarded));
    FIIR_Reset(raw);
    *handle = filter.release();
    return true;
}

bool FIIR_InitWithFile(EInit kind, void** handle, const char* path)
{
    std::FILE* file = nullptr;
    if (fopen_s(&file, path, "r") != 0)
        return false;
    const bool built = FIIR_Init(kind, handle, scanFile, file);
    std::fclose(file);
    return built;
}

bool SetDenormalFlushToZero()
{
    return true;
}

int fopen_s(std::FILE** file, const char* path, const char* mode)
{
    std::FILE* opened = std::fopen(path, mode);
    if (opened == nullptr)
        return -1;
    *file = opened;
    return 0;
}

} // namespace korvodsp

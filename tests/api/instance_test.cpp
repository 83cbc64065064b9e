// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "api/krv.h"
#include "tests/support/processor.h"

using korvotest::CProcessor;

namespace {

struct SCreateCase
{
    int channels, frames, input, output, status;
};

constexpr SCreateCase kCreateCases[] = {
    {8, 4096, 5, 5, 0}, {1, 16, 1, 4, 0},  {2, 17, 2, 3, 0},   {0, 256, 5, 5, 3},  {9, 256, 5, 5, 3},
    {-1, 256, 5, 5, 3}, {2, 15, 5, 5, 3},  {2, 4097, 5, 5, 3}, {2, -256, 5, 5, 3}, {2, 256, 0, 5, 3},
    {2, 256, 6, 5, 3},  {2, 256, 5, 0, 3}, {2, 256, 5, 6, 3},  {2, 256, -1, 5, 3}, {INT32_MAX, 16, 5, 5, 3},
};

/// Bytes per sample by format number.
constexpr std::size_t kSampleBytes[] = {0, 2, 3, 3, 4, 4};

} // namespace

TEST(Instance, CreationKeepsToItsLimits)
{
    for (const SCreateCase& c : kCreateCases)
    {
        SCOPED_TRACE(testing::Message() << c.channels << " channels, " << c.frames << " frames, formats "
                                        << c.input << " and " << c.output);
        krv_handle const untouched = reinterpret_cast<krv_handle>(std::uintptr_t{0x1234});
        krv_handle handle = untouched;
        ASSERT_EQ(krv_create(&handle, c.channels, c.frames, c.input, c.output), c.status);
        if (c.status != KRV_STATUS_OK)
            EXPECT_EQ(handle, untouched);
        else
            EXPECT_EQ(krv_destroy(handle), KRV_STATUS_OK);
    }
    EXPECT_EQ(krv_create(nullptr, 2, 256, 5, 5), KRV_STATUS_BAD_ARGUMENT);
}

TEST(Instance, EveryCallRefusesNullAndForeignHandles)
{
    float block[64] = {};
    float value = 0.0F;
    std::int32_t flag = 0;
    std::uint32_t word = 0;
    char text[4];
    const std::function<int(krv_handle)> calls[] = {
        [&](krv_handle h) { return krv_process(h, nullptr, block, 16, 1); },
        [&](krv_handle h) { return krv_setSamplerate(h, 48000); },
        [&](krv_handle h) { return krv_enable(h, 1); },
        [&](krv_handle h) { return krv_isEnabled(h, &flag); },
        [&](krv_handle h) { return krv_enableDelayAndGain(h, 1); },
        [&](krv_handle h) { return krv_isDelayAndGainEnabled(h, &flag); },
        [&](krv_handle h) { return krv_setChannelGain(h, 0, 1.0F); },
        [&](krv_handle h) { return krv_getChannelGain(h, 0, nullptr); },
        [&](krv_handle h) { return krv_setChannelDelay(h, 0, 1.0F); },
        [&](krv_handle h) { return krv_getChannelDelay(h, 0, &value); },
        [&](krv_handle h) { return krv_setOverallGain(h, 0.5F); },
        [&](krv_handle h) { return krv_getOverallGain(h, &value); },
        [&](krv_handle h) { return krv_setDefaultDelayAndGain(h); },
        [&](krv_handle h) { return krv_getFilterLatency(h, &value); },
        [&](krv_handle h) { return krv_getFilterMaxGain(h, &value); },
        [&](krv_handle h) { return krv_getFilterOperatingMode(h, &word); },
        [&](krv_handle h) { return krv_getFilterName(h, text, 4); },
        [&](krv_handle h) { return krv_getFilterPath(h, text, 4); },
        [&](krv_handle h) { return krv_getFilterSamplerates(h, &word, 1); },
        [&](krv_handle h) { return krv_getOutputRouting(h, &word, 1); },
        [&](krv_handle h) { return krv_filters_enumerate(h, 0, nullptr, 0); },
        [&](krv_handle h) { return krv_loadFilter(h, 0); },
        [&](krv_handle h) { return krv_loadFilterFromFile(h, "x"); },
        [&](krv_handle h) { return krv_setFilterOperatingMode(h, 1); },
        [&](krv_handle h) { return krv_destroy(h); },
    };
    std::vector<std::uint32_t> foreign(4096, 0xCAFEBABE);
    for (krv_handle handle : {krv_handle{nullptr}, reinterpret_cast<krv_handle>(foreign.data())})
        for (const auto& call : calls)
            EXPECT_EQ(call(handle), KRV_STATUS_BAD_HANDLE) << "call " << &call - calls;
    EXPECT_EQ(foreign, std::vector<std::uint32_t>(4096, 0xCAFEBABE));
}

TEST(Instance, BlocksOutsideTheCreatedSizeAreRefusedUntouched)
{
    CProcessor processor(2, 100);
    const std::vector<float> input(400, 0.25F);
    std::vector<float> output(400, 7.0F);
    EXPECT_EQ(krv_process(processor, input.data(), output.data(), 101, 2), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_process(processor, input.data(), output.data(), 100, 3), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_process(processor, input.data(), output.data(), UINT32_MAX, UINT32_MAX),
              KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_process(processor, nullptr, output.data(), 16, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_process(processor, input.data(), nullptr, 16, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_process(processor, input.data(), output.data(), 0, 2), KRV_STATUS_OK);
    EXPECT_EQ(krv_process(processor, input.data(), output.data(), 100, 0), KRV_STATUS_OK);
    EXPECT_EQ(output, std::vector<float>(400, 7.0F));
}

TEST(Instance, EveryPairOfFormatsCarriesTheSignal)
{
    // Values that every format holds exactly. The 20-bit writer drops the first four of 24 bits and its
    // reader the last four, so none is negative and none reaches 1/16.
    const std::vector<float> values = {0.0F,      0.03125F,   0.0234375F, 0.0F,
                                       0.015625F, 0.0078125F, 0.03125F,   0.0F};
    for (int in = 1; in <= 5; ++in)
        for (int out = 1; out <= 5; ++out)
        {
            SCOPED_TRACE(testing::Message() << "from format " << in << " to " << out);
            CProcessor toInput(1, 16, KRV_FORMAT_FLOAT32, in);
            CProcessor across(1, 16, in, out);
            CProcessor back(1, 16, out, KRV_FORMAT_FLOAT32);
            std::vector<unsigned char> stored(values.size() * kSampleBytes[in]);
            std::vector<unsigned char> converted(values.size() * kSampleBytes[out]);
            std::vector<float> result(values.size());
            const auto frames = static_cast<std::uint32_t>(values.size());
            EXPECT_EQ(krv_process(toInput, values.data(), stored.data(), frames, 1), KRV_STATUS_OK);
            EXPECT_EQ(krv_process(across, stored.data(), converted.data(), frames, 1), KRV_STATUS_OK);
            EXPECT_EQ(krv_process(back, converted.data(), result.data(), frames, 1), KRV_STATUS_OK);
            EXPECT_EQ(result, values);
        }
}

TEST(Instance, ClippingIsReportedOnlyByIntegerOutput)
{
    std::vector<float> block(32, 0.1F);
    block[20] = 1.5F;
    for (int format = 1; format <= 5; ++format)
    {
        SCOPED_TRACE(format);
        CProcessor processor(1, 32, KRV_FORMAT_FLOAT32, format);
        std::vector<float> output(32);
        EXPECT_EQ(krv_process(processor, block.data(), output.data(), 32, 1),
                  format == KRV_FORMAT_FLOAT32 ? KRV_STATUS_OK : KRV_STATUS_CLIPPED);
        if (format == KRV_FORMAT_FLOAT32)
        {
            EXPECT_EQ(output, block);
        }
        EXPECT_EQ(krv_process(processor, block.data(), output.data(), 16, 1), KRV_STATUS_OK);
    }
}

TEST(Memory, BlocksAreAlignedAndBounded)
{
    struct SCase
    {
        std::int32_t size;
        std::uint32_t alignment;
        bool given;
    };
    constexpr SCase kCases[] = {{0, 16, false}, {-1, 16, false},        {1, 2, false},         {1, 12, false},
                                {1, 32, false}, {0x4000001, 16, false}, {INT32_MIN, 4, false}, {1, 4, true},
                                {7, 8, true},   {0x4000000, 16, true}};
    for (const SCase& c : kCases)
    {
        SCOPED_TRACE(testing::Message() << c.size << " bytes at " << c.alignment);
        auto* block = static_cast<unsigned char*>(krv_malloc(c.size, c.alignment));
        ASSERT_EQ(block != nullptr, c.given);
        if (block == nullptr)
            continue;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % c.alignment, 0U);
        std::memset(block, 0xFF, static_cast<std::size_t>(c.size));
        krv_free(block);
    }
    krv_free(nullptr);
}

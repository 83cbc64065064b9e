// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <tuple>
#include <vector>

#include "api/krv.h"
#include "tests/support/processor.h"

using korvotest::CProcessor;

TEST(Instance, CreationKeepsToItsLimits)
{
    const struct
    {
        int channels, frames, input, output, status;
    } cases[] = {
        {8, 4096, 5, 5, 0}, {1, 16, 1, 4, 0},   {2, 17, 2, 3, 0},         {0, 256, 5, 5, 3},
        {9, 256, 5, 5, 3},  {-1, 256, 5, 5, 3}, {2, 15, 5, 5, 3},         {2, 4097, 5, 5, 3},
        {2, -256, 5, 5, 3}, {2, 256, 0, 5, 3},  {2, 256, 6, 5, 3},        {2, 256, 5, 0, 3},
        {2, 256, 5, 6, 3},  {2, 256, -1, 5, 3}, {INT32_MAX, 16, 5, 5, 3},
    };
    for (const auto& c : cases)
    {
        krv_handle handle = nullptr;
        ASSERT_EQ(krv_create(&handle, c.channels, c.frames, c.input, c.output), c.status)
            << c.channels << " channels, " << c.frames << " frames, from " << c.input << " to " << c.output;
        EXPECT_EQ(handle != nullptr, c.status == KRV_STATUS_OK);
        EXPECT_EQ(krv_destroy(handle), handle != nullptr ? KRV_STATUS_OK : KRV_STATUS_BAD_HANDLE);
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
    std::vector<std::uint32_t> foreign(4096, 0xCAFEBABE);
    for (krv_handle h : {krv_handle{nullptr}, reinterpret_cast<krv_handle>(foreign.data())})
    {
        const int all[] = {krv_process(h, nullptr, block, 16, 1),
                           krv_setSamplerate(h, 48000),
                           krv_enable(h, 1),
                           krv_isEnabled(h, &flag),
                           krv_enableDelayAndGain(h, 1),
                           krv_isDelayAndGainEnabled(h, &flag),
                           krv_setChannelGain(h, 0, 1.0F),
                           krv_getChannelGain(h, 0, nullptr),
                           krv_setChannelDelay(h, 0, 1.0F),
                           krv_getChannelDelay(h, 0, &value),
                           krv_setOverallGain(h, 0.5F),
                           krv_getOverallGain(h, &value),
                           krv_setDefaultDelayAndGain(h),
                           krv_getFilterLatency(h, &value),
                           krv_getFilterMaxGain(h, &value),
                           krv_getFilterOperatingMode(h, &word),
                           krv_getFilterName(h, text, 4),
                           krv_getFilterPath(h, text, 4),
                           krv_getFilterSamplerates(h, &word, 1),
                           krv_getOutputRouting(h, &word, 1),
                           krv_filters_enumerate(h, 0, nullptr, 0),
                           krv_loadFilter(h, 0),
                           krv_loadFilterFromFile(h, "x"),
                           krv_setFilterOperatingMode(h, 1),
                           krv_destroy(h)};
        EXPECT_THAT(all, testing::Each(KRV_STATUS_BAD_HANDLE));
    }
    EXPECT_THAT(foreign, testing::Each(0xCAFEBABE));
}

TEST(Instance, BlocksOutsideTheCreatedSizeAreRefusedUntouched)
{
    CProcessor processor(2, 100);
    const std::vector<float> input(400, 0.25F);
    std::vector<float> output(400, 7.0F);
    const float* in = input.data();
    float* out = output.data();
    EXPECT_THAT((std::vector<int>{
                    krv_process(processor, in, out, 101, 2), krv_process(processor, in, out, 100, 3),
                    krv_process(processor, in, out, UINT32_MAX, UINT32_MAX),
                    krv_process(processor, nullptr, out, 16, 1), krv_process(processor, in, nullptr, 16, 1)}),
                testing::Each(KRV_STATUS_BAD_ARGUMENT));
    EXPECT_EQ(krv_process(processor, in, out, 0, 2), KRV_STATUS_OK);
    EXPECT_EQ(krv_process(processor, in, out, 100, 0), KRV_STATUS_OK);
    EXPECT_THAT(output, testing::Each(7.0F));
}

TEST(Instance, EveryFormatCarriesTheSignalAndIntegersTellOfClipping)
{
    // Values that every format holds exactly, but for the last one. The 20-bit writer drops the first four of
    // 24 bits and its reader the last four, so none is negative and none reaches 1/16.
    const std::vector<float> values = {0.0F,     0.0234375F,         0.0F, 0.015625F, 0.0078125F,
                                       0.03125F, 0.03125F + 0x1p-22F};
    std::vector<float> loud(32, 0.1F), stored(32), result(values.size());
    loud[20] = 1.5F;
    for (int format = 1; format <= 5; ++format)
    {
        SCOPED_TRACE(format);
        CProcessor there(1, 32, KRV_FORMAT_FLOAT32, format);
        CProcessor back(1, 16, format, KRV_FORMAT_FLOAT32);
        EXPECT_EQ(krv_process(there, loud.data(), stored.data(), 32, 1),
                  format == KRV_FORMAT_FLOAT32 ? KRV_STATUS_OK : KRV_STATUS_CLIPPED);
        EXPECT_EQ(krv_process(there, values.data(), stored.data(), 7, 1), KRV_STATUS_OK);
        EXPECT_EQ(krv_process(back, stored.data(), result.data(), 7, 1), KRV_STATUS_OK);
        std::vector<float> expected = values;
        expected.back() -= format < KRV_FORMAT_INT24 ? 0x1p-22F : 0.0F;
        EXPECT_EQ(result, expected);
    }
}

TEST(Memory, BlocksAreAlignedAndBounded)
{
    constexpr std::tuple<std::int32_t, std::uint32_t, bool> kCases[] = {
        {0, 16, false},         {-1, 16, false},       {1, 2, false}, {1, 12, false}, {1, 32, false},
        {0x4000001, 16, false}, {INT32_MIN, 4, false}, {1, 4, true},  {7, 8, true},   {0x4000000, 16, true}};
    for (const auto& [size, alignment, given] : kCases)
    {
        void* block = krv_malloc(size, alignment);
        ASSERT_EQ(block != nullptr, given) << size << " bytes at " << alignment;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
        if (given)
            std::memset(block, 0xFF, static_cast<std::size_t>(size));
        krv_free(block);
    }
}

/* SPDX-License-Identifier: GPL-3.0-or-later */
/* Corrects one second of a stereo tone, as a host's audio callback would: host FILTER.korvo */
#include <krv.h>

#include <math.h>
#include <stdio.h>

enum { kChannels = 2, kFrames = 256, kRate = 48000 };

int main(int argc, char** argv)
{
    static float block[kFrames * kChannels];
    krv_handle processor;
    char name[128] = "";
    float peak = 0.0f; /* of the latest block */
    long frame;
    int i;

    if (argc != 2)
        return fprintf(stderr, "usage: host FILTER.korvo\n"), 2;
    if (krv_create(&processor, kChannels, kFrames, KRV_FORMAT_FLOAT32, KRV_FORMAT_FLOAT32) != KRV_STATUS_OK)
        return fprintf(stderr, "no processor could be made\n"), 1;
    if (krv_loadFilterFromFile(processor, argv[1]) != KRV_STATUS_OK)
        return fprintf(stderr, "'%s' could not be loaded\n", argv[1]), 1;
    if (krv_setSamplerate(processor, kRate) != KRV_STATUS_OK) /* asks the filter, so it comes after the load */
        return fprintf(stderr, "the filter does not offer %d Hz\n", kRate), 1;

    for (frame = 0; frame < kRate; frame += kFrames) {
        for (i = 0; i < kFrames * kChannels; ++i) /* what a sound card would bring */
            block[i] = 0.5f * (float)sin(6.283185307 * 1000.0 * (double)(frame + i / kChannels) / kRate);
        krv_process(processor, block, block, kFrames, kChannels);
        for (peak = 0.0f, i = 0; i < kFrames * kChannels; ++i)
            peak = fmaxf(peak, fabsf(block[i]));
    }
    krv_getFilterName(processor, name, sizeof name);
    printf("%s: a tone of 1000 Hz at 0.500 leaves at %.3f\n", name, peak);
    krv_destroy(processor);
    return 0;
}

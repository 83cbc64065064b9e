// SPDX-License-Identifier: GPL-3.0-or-later
#include <string>
#include <tuple>

#include "bench/fiir_subject.h"
#include "bench/peak.h"
#include "bench/ratio.h"
#include "dsp/kernel_variants.h"

namespace {

using korvodsp::kernelVariants;
using korvodsp::SKernelVariant;

double overPlainLoop(unsigned taps, unsigned sections, unsigned frames, const char* variant)
{
    korvobench::CFiirSubject subject(taps, sections, frames, variant);
    korvobench::CFiirSubject plain(taps, sections, frames, variant);
    return korvobench::speedUp([&] { subject.run(); }, [&] { plain.runPlain(); });
}

double overPeak(unsigned taps, unsigned frames)
{
    korvobench::CFiirSubject subject(taps, 0, frames, nullptr);
    const korvobench::SPeakLoop peak = korvobench::multiplyAddPeak();
    const double timeOfPeak = korvobench::speedUp([&] { subject.run(); }, peak.run);
    return timeOfPeak * taps * frames / peak.multiplyAdds;
}

const std::string kPlainLoop = "plain four-lane loop, one sample at a time";

bool registerKernelRows()
{
    for (const auto& [taps, floor, aim] : {std::tuple{256U, 1.7, 2.5}, {1024U, 2.5, 3.5}, {4096U, 2.8, 4.0}})
    {
        const std::string name = "kernel/" + std::to_string(taps);
        korvobench::registerRow({name, kPlainLoop, floor, aim},
                                [taps = taps] { return overPlainLoop(taps, 0, 256, nullptr); });
        for (const SKernelVariant& variant : kernelVariants())
            korvobench::registerRow({name + "/" + variant.name, kPlainLoop}, [taps = taps, &variant] {
                return overPlainLoop(taps, 0, 256, variant.name);
            });
    }
    for (const unsigned frames : {16U, 32U, 64U})
        korvobench::registerRow({"kernel-block/480-" + std::to_string(frames), kPlainLoop},
                                [frames] { return overPlainLoop(480, 0, frames, nullptr); });
    for (const unsigned taps : {256U, 480U, 1024U, 4096U})
        korvobench::registerRow({"peak/" + std::to_string(taps), "unfused multiply-add peak of the machine",
                                 taps == 1024 ? 0.55 : 0.0, taps == 1024 ? 0.85 : 0.0},
                                [taps] { return overPeak(taps, 256); });
    korvobench::registerRow({"sections/24-1tap", kPlainLoop},
                            [] { return overPlainLoop(1, 24, 64, nullptr); });
    korvobench::registerRow({"sections/32", kPlainLoop, 2, 4},
                            [] { return overPlainLoop(64, 32, 256, nullptr); });
    return true;
}

const bool s_registered = registerKernelRows();

} // namespace

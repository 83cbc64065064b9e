// SPDX-License-Identifier: GPL-3.0-or-later
#include <zita-convolver.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "bench/fiir_subject.h"
#include "bench/ratio.h"
#include "tests/support/random.h"

// The other way to such a filter: its impulse response, cut to the length that the sections ring for, through
// a partitioned convolver.
namespace {

constexpr unsigned kResponse = 16384;

/// One channel, all partitions as long as the block: that is what lets the convolver work within the call, in
/// the calling thread, without delay. Longer ones would go to threads of its own.
class CConvolver
{
public:
    CConvolver(unsigned frames, unsigned options) : m_frames(frames)
    {
        std::mt19937 random(8);
        std::vector<float> response = korvotest::makeNoise(random, kResponse);
        m_in = korvotest::makeNoise(random, frames);
        m_out.resize(frames);
        m_convolver.set_options(Convproc::OPT_FFTW_MEASURE | options);
        if (m_convolver.configure(1, 1, kResponse, frames, frames, frames, 0.0F) != 0 ||
            m_convolver.impdata_create(0, 0, 1, response.data(), 0, kResponse) != 0 ||
            m_convolver.start_process(0, 0) != 0)
            throw std::runtime_error("no convolver");
    }
    ~CConvolver()
    {
        m_convolver.stop_process();
        m_convolver.cleanup();
    }
    CConvolver(const CConvolver&) = delete;
    CConvolver& operator=(const CConvolver&) = delete;

    void run()
    {
        std::copy(m_in.begin(), m_in.end(), m_convolver.inpdata(0));
        if (m_convolver.process(true) != 0)
            throw std::runtime_error("the convolver stopped");
        std::copy_n(m_convolver.outdata(0), m_frames, m_out.begin());
    }

private:
    unsigned m_frames;
    Convproc m_convolver;
    std::vector<float> m_in;
    std::vector<float> m_out;
};

double overConvolver(unsigned frames, unsigned options)
{
    korvobench::CFiirSubject subject(480, 24, frames);
    CConvolver convolver(frames, options);
    return korvobench::speedUp([&] { subject.run(); }, [&] { convolver.run(); });
}

bool registerConvolverRows()
{
    const std::string yardstick =
        "zita-convolver, 16384 taps, partitions of one block, in the calling thread";
    for (const auto& [frames, floor, aim] : {std::tuple{64U, 8.0, 18.0}, {256U, 2.5, 4.5}, {1024U, 1.0, 1.5}})
    {
        const std::string name = "convolver/" + std::to_string(frames);
        korvobench::registerRow({name, yardstick, floor, aim},
                                [frames = frames] { return overConvolver(frames, 0); });
        // Its multiply-add loop in vectors is an option there, and off unless asked for.
        korvobench::registerRow({name + "/vector", yardstick + ", OPT_VECTOR_MODE"}, [frames = frames] {
            return overConvolver(frames, Convproc::OPT_VECTOR_MODE);
        });
    }
    return true;
}

const bool s_registered = registerConvolverRows();

} // namespace

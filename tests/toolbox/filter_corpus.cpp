// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/toolbox/filter_corpus.h"

#include <cmath>
#include <numbers>

namespace korvotest {

namespace {

constexpr double kPi = std::numbers::pi;

class CMaker
{
public:
    explicit CMaker(std::mt19937& random)
        : m_random(random)
    {
    }

    double uniform(double low, double high)
    {
        return std::uniform_real_distribution<double>(low, high)(m_random);
    }
    int whole(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_random); }

    /// Direct sound, some reflections, and a tail of noise that dies away.
    std::vector<double> measured()
    {
        std::vector<double> taps(static_cast<std::size_t>(whole(200, 3000)));
        const int start = whole(5, 100);
        const double decay = uniform(20.0, 300.0);
        for (std::size_t i = static_cast<std::size_t>(start); i < taps.size(); ++i)
            taps[i] = uniform(-0.1, 0.1) * std::exp(-static_cast<double>(i) / decay);
        for (int reflection = 0; reflection < 6; ++reflection)
            taps[static_cast<std::size_t>(start + whole(0, 90))] += uniform(-0.4, 0.4);
        taps[static_cast<std::size_t>(start)] += 1.0;
        return taps;
    }

    /// Up to six resonances or notches with zeros and poles inside the unit circle.
    std::vector<double> minimumPhase()
    {
        std::vector<double> taps(480);
        taps[0] = uniform(0.2, 2.0);
        for (int section = whole(1, 6); section > 0; --section)
        {
            const double angle = uniform(0.01, 0.95) * kPi;
            filter(taps, angle, uniform(0.5, 0.95), angle * uniform(0.9, 1.05), uniform(0.5, 0.95));
        }
        return taps;
    }

    /// A sum of windowed cosines that is symmetric about its middle, at a sample or between two.
    std::vector<double> linearPhase()
    {
        std::vector<double> taps(static_cast<std::size_t>(whole(31, 700)));
        const double middle = 0.5 * static_cast<double>(taps.size() - 1);
        const double bands[] = {uniform(0.2, 1.0), uniform(-0.3, 0.3), uniform(-0.3, 0.3)};
        const double edges[] = {uniform(0.7, 1.0), uniform(0.1, 0.4), uniform(0.4, 0.7)};
        for (std::size_t i = 0; i < taps.size(); ++i)
        {
            const double t = static_cast<double>(i) - middle;
            const double window = 0.5 + 0.5 * std::cos(kPi * t / (middle + 1.0));
            for (int band = 0; band < 3; ++band)
                taps[i] += window * bands[band] * sinc(edges[band], t);
        }
        return taps;
    }

    std::vector<double> fractionalDelay()
    {
        std::vector<double> taps(256);
        const double delay = uniform(30.0, 60.0);
        for (std::size_t i = 0; i < taps.size(); ++i)
            taps[i] = sinc(1.0, static_cast<double>(i) - delay);
        return taps;
    }

    std::vector<double> noise()
    {
        std::vector<double> taps(static_cast<std::size_t>(whole(5, 2000)));
        addNoise(taps, 1.0);
        return taps;
    }

    void addNoise(std::vector<double>& taps, double amplitude)
    {
        for (double& tap : taps)
            tap += uniform(-amplitude, amplitude);
    }

private:
    static double sinc(double edge, double t)
    {
        return t == 0.0 ? edge : std::sin(kPi * edge * t) / (kPi * t);
    }

    static void filter(std::vector<double>& x, double zeroAngle, double zero, double poleAngle, double pole)
    {
        double x1 = 0.0, x2 = 0.0, y1 = 0.0, y2 = 0.0;
        for (double& sample : x)
        {
            const double in = sample;
            sample = in - 2.0 * zero * std::cos(zeroAngle) * x1 + zero * zero * x2 +
                     2.0 * pole * std::cos(poleAngle) * y1 - pole * pole * y2;
            x2 = x1;
            x1 = in;
            y2 = y1;
            y1 = sample;
        }
    }

    std::mt19937& m_random;
};

} // namespace

std::vector<SCorpusFilter> makeFilterCorpus(std::mt19937& random, int count)
{
    CMaker maker(random);
    std::vector<SCorpusFilter> corpus;
    for (int i = 0; i < count; ++i)
    {
        std::string kind;
        std::vector<double> taps;
        switch (i % 5)
        {
        case 0:
            kind = "measured", taps = maker.measured();
            break;
        case 1:
            kind = "minimum phase", taps = maker.minimumPhase();
            break;
        case 2:
            kind = "linear phase", taps = maker.linearPhase();
            break;
        case 3:
            kind = "fractional delay", taps = maker.fractionalDelay();
            break;
        default:
            kind = "noise", taps = maker.noise();
            break;
        }
        if (i / 5 % 2 == 1)
        {
            kind += ", inverted";
            for (double& tap : taps)
                tap = -tap;
        }
        if (i / 10 % 2 == 1)
        {
            kind += ", noisy";
            maker.addNoise(taps, maker.uniform(0.001, 0.05));
        }
        corpus.push_back({kind, std::vector<float>(taps.begin(), taps.end())});
    }
    return corpus;
}

} // namespace korvotest

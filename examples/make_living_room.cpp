// SPDX-License-Identifier: GPL-3.0-or-later
// Prints examples/living-room.korvo: a correction of the room of living_room.h, with a house curve that lifts
// the bass a little and lets the treble fall a little.
//
// Each set is designed as a chain of recursive filters, and then split where its FIR part ends. The first n
// samples of the impulse response are the taps. What comes after them is, by partial fractions, a sum of r
// p^t over the poles p of the chain, and so exactly what sections in parallel give when they start at sample
// n:
//
//   r p^n / (1 - p z^-1)  +  its conjugate  =  (b0 + b1 z^-1) / (1 + a1 z^-1 + a2 z^-2)
#include <charconv>
#include <complex>
#include <cstdio>
#include <string>
#include <vector>

#include "examples/living_room.h"

namespace {

using livingroom::bell;
using livingroom::real;
using livingroom::SBiquad;
using livingroom::SLoudspeaker;
using complex = std::complex<real>;

constexpr real kPi = std::numbers::pi_v<real>;
constexpr int kFilterRates[] = {44100, 48000, 88200, 96000};
constexpr int kHighRates[] = {176400, 192000, 352800, 384000};
constexpr real kSilence = 1e-12L; // below any sample format; smaller numbers come down to denormal ones
constexpr real kBassHz = 90, kBassDb = 2;
constexpr real kTrebleHz = 2500, kTrebleDb = -3;

struct SSection
{
    real a1, a2, b0, b1;
};

struct SSet
{
    std::vector<real> taps;
    std::vector<SSection> sections;
};

/// One pole, one zero: gain 1 on one side of `hz`, `db` on the other.
SBiquad shelf(real hz, real db, real fs, bool ofBass)
{
    const real tilt = std::pow(10.0L, (ofBass ? db : -db) / 40);
    const auto root = [&](real frequency) {
        const real t = std::tan(kPi * frequency / fs);
        return (1 - t) / (1 + t);
    };
    SBiquad biquad;
    const real zero = root(hz * tilt);
    biquad.a1 = -static_cast<float>(root(hz / tilt));
    const real gainAtDc = ofBass ? std::pow(10.0L, db / 20) : 1;
    biquad.b0 = gainAtDc * (1 + biquad.a1) / (1 - zero);
    biquad.b1 = -zero * biquad.b0;
    return biquad;
}

/// What both modes have in common: the room's resonances cut, the bass lifted.
std::vector<SBiquad> bassChain(const SLoudspeaker& speaker, real fs)
{
    std::vector<SBiquad> chain = {shelf(kBassHz, kBassDb, fs, true)};
    for (const livingroom::SRoomMode& mode : speaker.modes)
        chain.push_back(bell(mode.hz, -mode.db, mode.q, fs));
    return chain;
}

complex response(const SBiquad& f, complex z)
{
    const complex d = real{1} / z;
    return (f.b0 + d * (f.b1 + d * f.b2)) / (real{1} + d * (f.a1 + d * f.a2));
}

std::vector<real> impulseResponse(const std::vector<SBiquad>& chain, std::size_t length)
{
    std::vector<real> signal(length);
    signal[0] = 1;
    for (const SBiquad& f : chain)
    {
        real s1 = 0, s2 = 0;
        for (real& sample : signal)
        {
            const real in = sample;
            sample = f.b0 * in + s1;
            s1 = f.b1 * in - f.a1 * sample + s2;
            s2 = f.b2 * in - f.a2 * sample;
        }
    }
    return signal;
}

/// The upper pole of a pair, or the one pole of a shelf.
complex poleOf(const SBiquad& f)
{
    if (f.a2 == 0)
        return -f.a1;
    return {-f.a1 / 2, std::sqrt(f.a2 - f.a1 * f.a1 / 4)};
}

/// r of the term r / (1 - p z^-1) that pole p of filter `own` leaves in the chain.
complex residue(const std::vector<SBiquad>& chain, std::size_t own, complex p)
{
    complex r = 1;
    for (std::size_t i = 0; i < chain.size(); ++i)
    {
        const SBiquad& f = chain[i];
        if (i != own)
            r *= response(f, p);
        else
            r *= (f.b0 + (f.b1 + f.b2 / p) / p) / (f.a2 == 0 ? complex{1} : real{1} - std::conj(p) / p);
    }
    return r;
}

complex power(complex base, std::size_t exponent)
{
    complex result = 1;
    for (; exponent > 0; --exponent)
        result *= base;
    return result;
}

/// The chain's response convolved with `fir`, from sample `start` on, as sections. `start` lies behind the
/// FIR's end, so that each pole's term is only scaled by the FIR's response at the pole.
std::vector<SSection> tailSections(const std::vector<SBiquad>& chain, const std::vector<real>& fir,
                                   std::size_t start)
{
    std::vector<SSection> sections;
    for (std::size_t i = 0; i < chain.size(); ++i)
    {
        const complex p = poleOf(chain[i]);
        complex firAtPole = 0;
        for (std::size_t k = fir.size(); k-- > 0;)
            firAtPole = firAtPole / p + fir[k];
        const complex s = residue(chain, i, p) * firAtPole * power(p, start);
        if (std::abs(s) < kSilence)
            continue;
        if (p.imag() == 0)
            sections.push_back({-p.real(), 0, s.real(), 0});
        else
            sections.push_back({chain[i].a1, chain[i].a2, 2 * s.real(), -2 * (s * std::conj(p)).real()});
    }
    return sections;
}

SSet makeSet(const std::vector<SBiquad>& chain, const std::vector<real>& fir, std::size_t numTaps)
{
    const std::vector<real> recursive = impulseResponse(chain, numTaps);
    SSet set;
    set.taps.resize(numTaps);
    for (std::size_t k = 0; k < fir.size(); ++k)
    {
        for (std::size_t t = k; t < numTaps; ++t)
            set.taps[t] += fir[k] * recursive[t - k];
    }
    set.sections = tailSections(chain, fir, numTaps);
    return set;
}

/// The treble shelf's magnitude as a symmetric FIR, `centre` samples to each side: no phase shift but its
/// delay.
std::vector<real> linearPhaseTreble(real fs, std::size_t centre)
{
    constexpr std::size_t kPoints = 1024; // the shelf's response has long died away within so many samples
    const SBiquad treble = shelf(kTrebleHz, kTrebleDb, fs, false);
    std::vector<real> omega(kPoints), magnitude(kPoints);
    for (std::size_t i = 0; i < kPoints; ++i)
    {
        omega[i] = kPi * (static_cast<real>(i) + 0.5L) / kPoints;
        magnitude[i] = std::abs(response(treble, std::polar(real{1}, omega[i])));
    }
    std::vector<real> fir(2 * centre + 1);
    real sum = 0;
    for (std::size_t k = 0; k < fir.size(); ++k)
    {
        const real distance = static_cast<real>(k) - static_cast<real>(centre);
        for (std::size_t i = 0; i < kPoints; ++i)
            fir[k] += magnitude[i] * std::cos(omega[i] * distance) / kPoints;
        fir[k] *= 0.5L + 0.5L * std::cos(kPi * distance / static_cast<real>(centre + 1));
        sum += fir[k];
    }
    for (real& tap : fir)
        tap /= sum;
    return fir;
}

// A third of 10 ms is a whole number of samples at every rate, and so the same latency.
std::size_t latencySamples(int fs)
{
    return static_cast<std::size_t>(fs) / 300;
}

SSet standardSet(const SLoudspeaker& speaker, int fs)
{
    const std::size_t centre = latencySamples(fs);
    return makeSet(bassChain(speaker, fs), linearPhaseTreble(fs, centre), 2 * centre + 2);
}

SSet minimumPhaseSet(const SLoudspeaker& speaker, int fs)
{
    std::vector<SBiquad> chain = bassChain(speaker, fs);
    chain.push_back(shelf(kTrebleHz, kTrebleDb, fs, false));
    return makeSet(chain, {1}, 2 * latencySamples(fs));
}

/// The largest gain over all frequencies, in dB, rounded up to a tenth.
real maxGainDb(const SLoudspeaker& speaker)
{
    constexpr int fs = 48000;
    real largest = 0;
    for (int hz = 1; hz < 1000; ++hz)
    {
        complex product = 1;
        for (const SBiquad& f : bassChain(speaker, fs))
            product *= response(f, std::polar(real{1}, 2 * kPi * hz / fs));
        largest = std::max(largest, std::abs(product));
    }
    return std::ceil(200 * std::log10(largest)) / 10;
}

/// The shortest text that reads back as the same single-precision number.
std::string text(real value)
{
    char buffer[32];
    const auto number = static_cast<float>(std::abs(value) < kSilence ? 0 : value);
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, number).ptr;
    return {buffer, end};
}

void printSet(int fs, bool minPhase, const SSet& set)
{
    std::printf("   <Coefficients Topology=\"FIIR\" Fs=\"%d\" MinPhase=\"%d\">\n", fs, minPhase ? 1 : 0);
    std::printf("    <FIR NbrOfTaps=\"%zu\">\n     <taps>[", set.taps.size());
    const char* separator = "";
    for (const real tap : set.taps)
    {
        std::printf("%s%s", separator, text(tap).c_str());
        separator = " ";
    }
    std::printf("]</taps>\n    </FIR>\n    <IIR NbrOfSections=\"%zu\">\n", set.sections.size());
    for (const SSection& s : set.sections)
    {
        std::printf("     <section>[%s %s %s %s]</section>\n", text(s.a1).c_str(), text(s.a2).c_str(),
                    text(s.b0).c_str(), text(s.b1).c_str());
    }
    std::printf("    </IIR>\n   </Coefficients>\n");
}

void printChannel(std::size_t index, const SLoudspeaker& speaker)
{
    std::printf(
        "  <Channel Name=\"%s\" Number=\"%zu\" GaindB=\"%s\" Delayms=\"%s\" MaxFilterGaindB=\"%s\">\n",
        speaker.name, index + 1, text(speaker.gainDb).c_str(), text(speaker.delayMs).c_str(),
        text(maxGainDb(speaker)).c_str());
    for (const int fs : kFilterRates)
    {
        printSet(fs, false, standardSet(speaker, fs));
        printSet(fs, true, minimumPhaseSet(speaker, fs));
    }
    // A set above 96000 Hz only names the rate; it runs on the filters of its base rate.
    for (const int fs : kHighRates)
        printSet(fs, false, {{0}, {{0, 0, 0, 0}}});
    std::printf("  </Channel>\n");
}

} // namespace

int main()
{
    std::printf(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- Made by examples/make_living_room.cpp. -->\n");
    std::printf(
        "<brisa>\n <Opal ChannelCount=\"%zu\" ProjectName=\"Living room\" Technology=\"FIIR\""
        " CreationDate=\"2026-11-21\" FileName=\"living-room.korvo\" NumberRepresentation=\"decimal\">\n",
        livingroom::kLoudspeakers.size());
    for (std::size_t i = 0; i < livingroom::kLoudspeakers.size(); ++i)
        printChannel(i, livingroom::kLoudspeakers[i]);
    std::printf(" </Opal>\n</brisa>\n");
    return std::fflush(stdout) == 0 ? 0 : 1;
}

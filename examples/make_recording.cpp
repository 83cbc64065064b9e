// SPDX-License-Identifier: GPL-3.0-or-later
// Synthesises a few seconds of plucked strings and drums, heard in the room of living_room.h:
//
//   make_recording OUT.wav
#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>
#include <vector>

#include "examples/living_room.h"

namespace {

using Signal = std::vector<double>;
using Stereo = std::array<Signal, 2>;

constexpr int kRate = 48000;
constexpr double kSeconds = 8.0;
constexpr double kBeat = 0.5; // seconds
constexpr double kPi = std::numbers::pi;

std::size_t frameAt(double seconds)
{
    return static_cast<std::size_t>(seconds * kRate);
}

/// White noise from -1 to 1. The generator's sequence is laid down by the language, unlike that of the
/// library's distributions.
class CNoise
{
public:
    double operator()() { return static_cast<double>(m_random()) * (2.0 / 2147483647.0) - 1.0; }

private:
    std::minstd_rand m_random{7};
};

/// A string as a loop of noise that loses its treble on each round.
Signal pluck(double hz, CNoise& noise)
{
    Signal loop(static_cast<std::size_t>(kRate / hz));
    std::generate(loop.begin(), loop.end(), noise);
    Signal sound(frameAt(2.0));
    for (std::size_t i = 0; i < sound.size(); ++i)
    {
        double& oldest = loop[i % loop.size()];
        sound[i] = oldest;
        oldest = 0.498 * (oldest + loop[(i + 1) % loop.size()]);
    }
    return sound;
}

/// A sine that falls from 150 Hz to 45 Hz.
Signal bassDrum()
{
    Signal sound(frameAt(0.4));
    double phase = 0.0;
    for (std::size_t i = 0; i < sound.size(); ++i)
    {
        const double t = static_cast<double>(i) / kRate;
        phase += 2.0 * kPi * (45.0 + 105.0 * std::exp(-t * 30.0)) / kRate;
        sound[i] = std::sin(phase) * std::exp(-t * 9.0);
    }
    return sound;
}

Signal snare(CNoise& noise)
{
    Signal sound(frameAt(0.25));
    for (std::size_t i = 0; i < sound.size(); ++i)
    {
        const double t = static_cast<double>(i) / kRate;
        sound[i] = (0.6 * noise() + 0.4 * std::sin(2.0 * kPi * 190.0 * t)) * std::exp(-t * 18.0);
    }
    return sound;
}

/// Mixes a sound in at a time; `place` runs from 0, left, to 1, right.
void mix(Stereo& recording, const Signal& sound, double seconds, double level, double place)
{
    const std::array<double, 2> gains = {level * std::cos(place * kPi / 2.0),
                                         level * std::sin(place * kPi / 2.0)};
    const std::size_t start = frameAt(seconds);
    for (std::size_t side = 0; side < 2; ++side)
    {
        const std::size_t length = std::min(sound.size(), recording[side].size() - start);
        for (std::size_t i = 0; i < length; ++i)
            recording[side][start + i] += gains[side] * sound[i];
    }
}

Stereo playMusic()
{
    // Four chords of a bar each, as the strings of a guitar: bass note first.
    constexpr double kChords[4][4] = {{82.41, 164.81, 196.00, 246.94},
                                      {65.41, 130.81, 164.81, 261.63},
                                      {98.00, 146.83, 196.00, 246.94},
                                      {73.42, 146.83, 185.00, 293.66}};
    CNoise noise;
    Stereo recording = {Signal(frameAt(kSeconds)), Signal(frameAt(kSeconds))};
    for (int beat = 0; beat * kBeat < kSeconds; ++beat)
    {
        const auto& chord = kChords[beat / 4];
        const double now = beat * kBeat;
        if (beat % 2 == 0)
            mix(recording, bassDrum(), now, 0.9, 0.5);
        else
            mix(recording, snare(noise), now, 0.35, 0.55);
        mix(recording, pluck(chord[0], noise), now, 0.45, 0.35);
        for (int string = 1; string < 4; ++string)
            mix(recording, pluck(chord[string], noise), now + kBeat / 4.0 * string, 0.3, 0.2 * string);
    }
    return recording;
}

void playIntoRoom(Stereo& recording)
{
    for (std::size_t side = 0; side < 2; ++side)
    {
        for (const livingroom::SRoomMode& mode : livingroom::kLoudspeakers[side].modes)
        {
            const livingroom::SBiquad f = livingroom::bell(mode.hz, mode.db, mode.q, kRate);
            livingroom::real s1 = 0, s2 = 0;
            for (double& sample : recording[side])
            {
                const livingroom::real in = sample, out = f.b0 * in + s1;
                s1 = f.b1 * in - f.a1 * out + s2;
                s2 = f.b2 * in - f.a2 * out;
                sample = static_cast<double>(out);
            }
        }
    }
}

/// Interleaved, with its peak at half of full scale: room for the bass that the correction lifts.
Signal interleaved(const Stereo& recording)
{
    double peak = 0.0;
    Signal samples;
    for (std::size_t i = 0; i < recording[0].size(); ++i)
    {
        for (const Signal& side : recording)
        {
            samples.push_back(side[i]);
            peak = std::max(peak, std::abs(side[i]));
        }
    }
    for (double& sample : samples)
        sample *= 0.5 / peak;
    return samples;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: make_recording OUT.wav\n");
        return 2;
    }
    Stereo recording = playMusic();
    playIntoRoom(recording);
    const Signal samples = interleaved(recording);

    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    SNDFILE* file = sf_open(argv[1], SFM_WRITE, &info);
    const auto frames = static_cast<sf_count_t>(recording[0].size());
    if (file == nullptr || sf_writef_double(file, samples.data(), frames) != frames || sf_close(file) != 0)
    {
        std::fprintf(stderr, "make_recording: '%s' cannot be written: %s\n", argv[1], sf_strerror(file));
        return 1;
    }
    return 0;
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The example's filter document and recording: made by their generators, and what they promise.

#include <cmath>
#include <complex>
#include <fstream>
#include <numbers>

#include "examples/living_room.h"
#include "tests/krv/krv_fixture.h"

using namespace korvotest;

namespace {

constexpr const char* kDocument = KORVO_SOURCE_DIR "/examples/living-room.korvo";
constexpr double kPi = std::numbers::pi;

/// What the correction should be, from its analogue prototypes: bells that cut the room's modes, 2 dB more
/// bass around 90 Hz and 3 dB less treble around 2500 Hz.
double expectedDb(const livingroom::SLoudspeaker& speaker, double hz)
{
    const auto level = [](double db) { return std::pow(10.0, db / 40.0); };
    std::complex<double> bass(0.0, hz / 90.0);
    std::complex<double> treble(0.0, hz / 2500.0);
    std::complex<double> h = (bass + level(2.0)) / (bass + 1.0 / level(2.0));
    h *= (1.0 + treble * level(-3.0)) / (1.0 + treble / level(-3.0));
    for (const livingroom::SRoomMode& mode : speaker.modes)
    {
        const std::complex<double> s(0.0, hz / static_cast<double>(mode.hz));
        const double a = level(static_cast<double>(-mode.db));
        const auto q = static_cast<double>(mode.q);
        h *= (s * s + s * a / q + 1.0) / (s * s + s / (a * q) + 1.0);
    }
    return 20.0 * std::log10(std::abs(h)) + static_cast<double>(speaker.gainDb);
}

double levelDb(const SAudio& audio, std::size_t channel, double hz)
{
    std::complex<double> sum;
    for (std::size_t i = 0; i < audio.frames(); ++i)
        sum += audio.samples[i * static_cast<std::size_t>(audio.channels) + channel] *
               std::polar(1.0, -2.0 * kPi * hz * static_cast<double>(i) / audio.rate);
    return 20.0 * std::log10(std::abs(sum));
}

class LivingRoom : public CKrvTest
{
protected:
    void SetUp() override { std::filesystem::copy_file(kDocument, at("room.korvo")); }
};

TEST_F(LivingRoom, IsWhatItsGeneratorMakesAndOffersAllStandardRates)
{
    std::ifstream file(kDocument, std::ios::binary);
    const std::string committed{std::istreambuf_iterator<char>(file), {}};
    EXPECT_TRUE(runProgram({MAKE_LIVING_ROOM}).out == committed)
        << "make_living_room and examples/living-room.korvo differ; the target "
           "'living-room' writes the document anew";
    const std::string rates = "44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000 Hz\n";
    const std::string gain = ", maximum gain 2.0 dB\n";
    EXPECT_THAT(done("info room.korvo"),
                testing::EndsWith("  mode 1    " + rates + "            latency 3.33 ms" + gain +
                                  "  mode 2    " + rates + "            latency 0.00 ms" + gain));
}

TEST_F(LivingRoom, CutsTheRoomsModesAtEveryRateInBothModes)
{
    for (const int rate : {44100, 48000, 88200, 96000})
    {
        SAudio pulse{SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, 2,
                     std::vector<double>(static_cast<std::size_t>(rate))};
        pulse.samples[0] = pulse.samples[1] = 1.0;
        write("pulse.wav", pulse);
        for (const std::string mode : {"1", "2"})
        {
            done("render room.korvo pulse.wav response.wav --mode " + mode);
            const SAudio response = read("response.wav");
            for (std::size_t side = 0; side < 2; ++side)
            {
                const livingroom::SLoudspeaker& speaker = livingroom::kLoudspeakers[side];
                std::vector<double> frequencies = {20.0, 250.0, 1000.0, 2500.0, 8000.0};
                for (const livingroom::SRoomMode& room : speaker.modes)
                    frequencies.push_back(static_cast<double>(room.hz));
                // Single precision places the lowest poles at the highest rates some tenths of a hertz off.
                for (const double hz : frequencies)
                    EXPECT_NEAR(levelDb(response, side, hz), expectedDb(speaker, hz), 0.4)
                        << hz << " Hz, mode " << mode << " at " << rate << " Hz";
            }
        }
    }
}

// A mode rings on after the music, which the spectrum of the whole recording counts in.
TEST_F(LivingRoom, TamesTheRecording)
{
    ASSERT_EQ(runProgram({MAKE_RECORDING, at("recording.wav")}).exitCode, 0);
    EXPECT_THAT(done("render --align room.korvo recording.wav corrected.wav"),
                testing::HasSubstr("clipped    none"));
    const SAudio before = read("recording.wav");
    const SAudio after = read("corrected.wav");
    ASSERT_EQ(after.frames(), before.frames());
    for (std::size_t side = 0; side < 2; ++side)
    {
        const livingroom::SLoudspeaker& speaker = livingroom::kLoudspeakers[side];
        for (const livingroom::SRoomMode& mode : speaker.modes)
        {
            const auto hz = static_cast<double>(mode.hz);
            const double change = levelDb(after, side, hz) - levelDb(before, side, hz);
            EXPECT_NEAR(change, expectedDb(speaker, hz), 1.0) << speaker.name << ' ' << hz;
        }
    }
}

} // namespace

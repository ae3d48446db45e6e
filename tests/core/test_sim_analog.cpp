// The emulator's analog firmware driven directly, under a hand-moved clock: the false-frame guard
// against the host's own splitter, acquisition and its buffer, analog output and its generator,
// and the USB units, which the emulator cannot serve over the network.
#include <gtest/gtest.h>

#include <bit>
#include <random>

#include "link/frame.hpp"
#include "link/frame_guard.hpp"
#include "sim_unit.hpp"
#include "wire/splitter.hpp"

namespace {

using namespace simtest;
using namespace std::chrono_literals;

std::vector<std::int16_t> countsOf(const Bytes& b, std::size_t from) {
    std::vector<std::int16_t> out;
    for (std::size_t i = from; i + 1 < b.size(); i += 2) out.push_back(static_cast<std::int16_t>(b[i] << 8 | b[i + 1]));
    return out;
}

// ---- the guard agrees with the host's splitter -----------------------------------------------

bool hostTakesWhole(const Bytes& frame, const Bytes& payload) {
    wire::FrameSplitter splitter;
    splitter.append(frame);
    const auto packets = splitter.split();
    return packets.size() == 1 && packets[0].cmd == wire::START_AI_STREAMING &&
           Bytes(packets[0].data.begin(), packets[0].data.end()) == payload;
}

TEST(Guard, FindsWhereTheHostWouldTakeAFrame) {
    struct Case {
        Bytes payload;
        std::optional<sim::FalseFrame> hit;
    };
    // (payloads without a false frame are among the random ones below)
    for (const Case& c : {// 0x02 0x00 0x00 right before the terminator: an empty inner frame
                          Case{{0, 0, 7, 7, 0, 2, 0, 0}, sim::FalseFrame{9, 12}},
                          // 0x02 whose length points at a 0x0D 0x0A inside the payload
                          Case{{0, 0, 2, 0, 1, 0x31, 0x0D, 0x0A, 5, 5}, sim::FalseFrame{6, 10}}}) {
        const Bytes frame = sim::encodeUnitFrame(wire::START_AI_STREAMING, c.payload);
        EXPECT_EQ(sim::findFalseFrame(frame), c.hit) << sim::toHex(frame);
        EXPECT_EQ(hostTakesWhole(frame, c.payload), !c.hit.has_value()) << sim::toHex(frame);
    }
}

TEST(Guard, AgreesWithTheHostOnRandomPayloads) {
    std::mt19937 rng(7);
    // Bytes drawn mostly from those that matter, so that false frames are common.
    const std::uint8_t alphabet[] = {0x02, 0x0D, 0x0A, 0x00, 0x01, 0x03, 0x04, 0xB7};
    int false_frames = 0;
    for (int round = 0; round < 20000; ++round) {
        Bytes payload{0, 0};
        const auto n = std::uniform_int_distribution<int>(0, 24)(rng);
        for (int i = 0; i < n; ++i) payload.push_back(alphabet[rng() % std::size(alphabet)]);
        const Bytes frame = sim::encodeUnitFrame(wire::START_AI_STREAMING, payload);
        const bool whole = hostTakesWhole(frame, payload);
        ASSERT_EQ(!sim::findFalseFrame(frame), whole) << sim::toHex(frame);
        false_frames += !whole;
    }
    EXPECT_GT(false_frames, 100);  // the case the guard is for did come up
}

// ---- analog input ---------------------------------------------------------------------------

TEST(AnalogInput, OnDemandReadsTheDefaultWaveforms) {
    Unit u("TorvikLanAnalog");
    for (std::int16_t n = 0; n < 3; ++n) {
        const Bytes r = u.ask(wire::READ_AI_ON_DEMAND, {0, 0});
        ASSERT_EQ(r.size(), 2u + 16u);
        EXPECT_EQ((Bytes{r[0], r[1]}), (Bytes{0, 0}));
        const auto c = countsOf(r, 2);
        EXPECT_EQ(c[0], n);  // a counter of the reads
        // channel 1: half of full scale, 40 samples a period
        EXPECT_NEAR(c[1], 16384 * std::sin(2 * 3.14159265358979 * n / 40), 1);
    }
    // The other command form belongs to the other products.
    EXPECT_EQ(u.ask(wire::READ_AI_ON_DEMAND_VARIABLE, {0}), (Bytes{0, 23}));
    EXPECT_EQ(u.ask(wire::READ_AI_ON_DEMAND, {0, 1}), (Bytes{1, 15}));
}

TEST(AnalogInput, RatesAboveTheProductsOrAtOrBelowZeroAreRefused) {
    using Case = std::pair<float, std::uint8_t>;
    for (auto [rate, status] : {Case{20000, 0}, Case{0.5f, 0}, Case{20001, 15}, Case{0, 15}, Case{-5, 15}}) {
        Unit u("TorvikLanAnalog");
        EXPECT_EQ(u.ask(wire::SET_AI_SAMPLING_RATE, withF32({0}, {rate})), (Bytes{0, status})) << rate;
        EXPECT_EQ(u.fw.ai().rate(), status ? 1000.0f : rate);
    }
}

TEST(AnalogInput, UsbUnitsWantThePortOpenAndTakeItsPins) {
    Unit u("TorvikUsbAnalog");
    EXPECT_EQ(u.ask(wire::SET_AI_MODE, {0, 1}), (Bytes{0, 15}));
    EXPECT_EQ(u.ask(wire::READ_AI_ON_DEMAND_VARIABLE, {0}), (Bytes{0, 15}));
    ASSERT_TRUE(u.fw.setPinMode({1, 5}, sim::PinMode::SPI));
    EXPECT_EQ(u.ask(wire::OPEN_AI, {0}), (Bytes{0, 15}));  // another function holds the pin
    ASSERT_TRUE(u.fw.setPinMode({1, 5}, sim::PinMode::Idle));
    EXPECT_EQ(u.ask(wire::OPEN_AI, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.fw.modeOf({1, 5}), sim::PinMode::ADC);
    EXPECT_EQ(u.ask(wire::SET_AI_MODE, {0, 1}), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::SET_AI_MODE, {0, 3}), (Bytes{0, 15}));
    EXPECT_EQ(u.ask(wire::READ_AI_ON_DEMAND_VARIABLE, {0}).size(), 18u);
    EXPECT_EQ(u.ask(wire::CLOSE_AI, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::SET_AI_NUM_SAMPLES, withU32({0}, 10)), (Bytes{0, 15}));
}

TEST(AnalogInput, NSamplesAtTheRateThenStops) {
    Unit u("TorvikLanAnalog");
    sim::AnalogInput& ai = u.fw.ai();
    u.ask(wire::SET_AI_MODE, {0, 1});
    u.ask(wire::SET_AI_NUM_SAMPLES, withU32({0}, 250));
    u.ask(wire::SET_AI_SAMPLING_RATE, withF32({0}, {1000}));
    u.tell(wire::START_AI_STREAMING_VARIABLE, {0});  // not this product's code
    EXPECT_FALSE(ai.running());
    EXPECT_EQ(u.ask(wire::OPEN_AI_STREAMING, {0}), (Bytes{0, 0}));
    u.tell(wire::START_AI_STREAMING, {0});
    ASSERT_TRUE(ai.running());
    EXPECT_EQ(ai.acquireUntil(u.now + 100ms), 100u);
    EXPECT_NEAR(std::chrono::duration<double>(ai.nextFrameDue() - u.now).count(), 0.101, 1e-6);
    const auto e = ai.emit(60, true);
    EXPECT_EQ(e.frames, 60u);
    ASSERT_EQ(e.bytes.size(), 3u + 1 + 2 + 60 * 16 + 2);
    const auto counts = countsOf(Bytes(e.bytes.begin() + 6, e.bytes.end() - 2), 0);
    for (std::size_t f = 0; f < 60; ++f) ASSERT_EQ(counts[f * 8], static_cast<std::int16_t>(f));
    EXPECT_EQ(ai.buffered(), 40u);
    EXPECT_EQ(ai.acquireUntil(u.now + 10s), 150u);
    EXPECT_FALSE(ai.running());
    EXPECT_EQ(ai.emit(600, true).frames, 190u);
    EXPECT_EQ(ai.acquireUntil(u.now + 20s), 0u);
}

TEST(AnalogInput, AFullBufferLosesFramesAndCountsIt) {
    Unit u("TorvikLanAnalog");
    sim::AnalogInput& ai = u.fw.ai();
    u.ask(wire::SET_AI_MODE, {0, 2});
    u.ask(wire::SET_AI_SAMPLING_RATE, withF32({0}, {10000}));
    u.tell(wire::START_AI_STREAMING, {0});
    ai.acquireUntil(u.now + 1s);  // 10000 frames into a buffer of 8192
    auto status = u.ask(wire::CHECK_BUFFER_STATUS, {0});
    ASSERT_EQ(status.size(), 17u);
    EXPECT_EQ(sim::u32At(status, 5), 1u);                                  // full once
    EXPECT_EQ(sim::u32At(status, 9), sim::AnalogInput::kBufferFrames);     // remaining
    EXPECT_EQ(sim::u32At(status, 13), sim::AnalogInput::kBufferFrames);    // most held
    EXPECT_EQ(ai.lost(), 10000u - sim::AnalogInput::kBufferFrames);
    // The oldest went: the first frame sent is the first one kept.
    const auto e = ai.emit(1, true);
    EXPECT_EQ(countsOf(e.bytes, 6)[0], static_cast<std::int16_t>(10000 - sim::AnalogInput::kBufferFrames));
    EXPECT_EQ(u.ask(wire::CLEAR_DATA, {0}), (Bytes{0, 0}));
    status = u.ask(wire::CHECK_BUFFER_STATUS, {0});
    EXPECT_EQ(status, (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(u.ask(wire::CLOSE_AI_STREAMING, {0}), (Bytes{0, 0}));
    EXPECT_FALSE(ai.running());
}

TEST(AnalogInput, GuardNudgesANonCounterSampleOfAFalseFrame) {
    Unit u("TorvikLanAnalog");
    sim::AnalogInput& ai = u.fw.ai();
    // Channel 6 = 2 and channel 7 = 0 end every payload in 02 00 00 0D 0A: an empty inner frame.
    ASSERT_TRUE(ai.setWaveform(6, sim::Waveform::raw(2)));
    ASSERT_TRUE(ai.setWaveform(7, sim::Waveform::raw(0)));
    ai.overdrive(3);
    auto e = ai.emit(3, false);
    EXPECT_TRUE(sim::findFalseFrame(e.bytes));
    ai.overdrive(3);
    e = ai.emit(3, true);
    EXPECT_EQ(e.nudges, 1u);
    EXPECT_TRUE(e.clean);
    EXPECT_FALSE(sim::findFalseFrame(e.bytes));
    const auto c = countsOf(Bytes(e.bytes.begin() + 6, e.bytes.end() - 2), 0);
    EXPECT_EQ((std::vector<std::int16_t>(c.end() - 8, c.end())), (std::vector<std::int16_t>{5, c[17], c[18], c[19], c[20], c[21], 3, 0}));
    EXPECT_EQ(c[14], 2);  // only the last frame was at fault
}

TEST(AnalogInput, GuardEndsAPayloadEarlierRatherThanNudgeACounter) {
    Unit u("TorvikLanAnalog");
    sim::AnalogInput& ai = u.fw.ai();
    // Frame 2 ends in 02 00 01 05 0D 0A (channel 6 counting 0x0200, channel 7 at 0x0105): only the
    // counter's low byte could break that, and the frame need not end the payload.
    for (int ch = 0; ch < 6; ++ch) ai.setWaveform(ch, sim::Waveform::raw(0));
    ai.setWaveform(6, sim::Waveform::counter(0x200 - 2));
    ai.setWaveform(7, sim::Waveform::raw(0x105));
    ai.overdrive(3);
    auto e = ai.emit(3, true);
    EXPECT_EQ(e.frames, 2u);
    EXPECT_EQ(e.nudges, 0u);
    ai.overdrive(2);
    e = ai.emit(3, true);
    EXPECT_EQ(e.frames, 3u);
    EXPECT_TRUE(e.clean && e.nudges == 0);
    EXPECT_EQ(countsOf(e.bytes, 6)[6], 0x200);
    // Alone in its payload, it has to be nudged after all.
    ai.setWaveform(6, sim::Waveform::counter(0x200 - 5));
    ai.overdrive(1);
    e = ai.emit(1, true);
    EXPECT_TRUE(e.clean && e.nudges == 1);
    EXPECT_EQ(countsOf(e.bytes, 6)[6], 0x201);
}

// ---- analog output --------------------------------------------------------------------------

TEST(AnalogOutput, WritesAndFormsReadBackAndRefuseWhatIsOutOfRange) {
    Unit u("TorvikLanOutput");
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 1}, {1.5f})), (Bytes{0, 16}));  // not open
    EXPECT_EQ(u.ask(wire::OPEN_AO, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.fw.modeOf({3, 11}), sim::PinMode::ADC);
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 1}, {1.5f})), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 2}, {10.5f})), (Bytes{0, 16}));
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 8}, {1.0f})), (Bytes{0, 16}));
    EXPECT_EQ(u.ask(wire::GET_AO_VALUES, {0}), withF32({0, 0}, {0, 1.5f, 0, 0, 0, 0, 0, 0}));
    // All or nothing.
    EXPECT_EQ(u.ask(wire::WRITE_AO_SYNCHRONIZED, withF32({0}, {1, 2, 3, 4, 5, 6, 7, -11})), (Bytes{0, 16}));
    EXPECT_EQ(u.ask(wire::GET_AO_VALUES, {0}), withF32({0, 0}, {0, 1.5f, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(u.ask(wire::WRITE_AO_SYNCHRONIZED, withF32({0}, {1, 2, 3, 4, 5, 6, 7, -10})), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::GET_AO_VALUES, {0}), withF32({0, 0}, {1, 2, 3, 4, 5, 6, 7, -10}));
    EXPECT_EQ(u.ask(wire::GET_AO_COUNTERS, {0}), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 9}));
    EXPECT_EQ(u.ask(wire::SET_AO_SPAN, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::GET_AO_VALUES, {1}), (Bytes{1, 16}));
    // Form replies carry their status at index 3.
    EXPECT_EQ(u.fw.statusIndex(wire::SET_AO_FORM), 3u);
    EXPECT_EQ(u.ask(wire::SET_AO_FORM, {0, 0, 2, 1}), (Bytes{0, 0, 2, 0}));
    EXPECT_EQ(u.ask(wire::SET_AO_FORM, {0, 0, 2, 4}), (Bytes{0, 0, 2, 16}));
    EXPECT_EQ(u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 2}, {2, 0.5f, 10})), (Bytes{0, 0, 2, 0}));
    EXPECT_EQ(u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 2}, {9, 2, 10})), (Bytes{0, 0, 2, 16}));  // up to 11 V
    EXPECT_EQ(u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 2}, {1, 0, 0})), (Bytes{0, 0, 2, 16}));
    EXPECT_EQ(u.fw.ao().shape(2).amplitude, 2.0f);
}

TEST(AnalogOutput, TheGeneratorDrivesEnabledChannelsOverTime) {
    Unit u("TorvikLanOutput");
    u.ask(wire::OPEN_AO, {0});
    EXPECT_EQ(u.ask(wire::OPEN_AO_STREAMING, {0}), withF32({0, 0}, {1000}));
    u.ask(wire::SET_AO_MODE, {0, 1});
    u.ask(wire::SET_AO_SAMPLING_RATE, withF32({0}, {1000}));
    u.ask(wire::SET_AO_NUM_SAMPLES, withU32({0}, 10));
    u.ask(wire::SET_AO_ENABLED_CHANNELS, {0, 0, 0b101});
    u.ask(wire::SET_AO_FORM, {0, 0, 0, 1});   // rectangle
    u.ask(wire::SET_AO_FORM, {0, 0, 2, 2});   // triangle
    u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 0}, {2, 1, 4}));
    u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 2}, {4, 0, 4}));
    u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 1}, {-3}));
    u.tell(wire::START_AO_STREAMING, {0});
    const sim::AnalogOutput& ao = u.fw.ao();
    EXPECT_TRUE(ao.generating());
    // sample k: rectangle high for k mod 4 in {0, 1}; triangle -4, 0, 4, 0
    const double rect[] = {3, 3, -1, -1}, tri[] = {-4, 0, 4, 0};
    for (int k = 0; k < 8; ++k) {
        EXPECT_DOUBLE_EQ(ao.value(0), rect[k % 4]) << k;
        EXPECT_DOUBLE_EQ(ao.value(2), tri[k % 4]) << k;
        EXPECT_DOUBLE_EQ(ao.value(1), -3);
        u.now += 1ms;
    }
    u.now += 1s;  // N samples: the last one (k = 9) holds
    EXPECT_FALSE(ao.generating());
    EXPECT_DOUBLE_EQ(ao.value(0), 3);
    EXPECT_EQ(u.ask(wire::GET_AO_COUNTERS, {0}), (Bytes{0, 0, 0, 0, 10, 0, 0, 0, 21}));  // 10 samples, 2 x 10 + 1 writes
    EXPECT_EQ(u.ask(wire::STOP_AO_STREAMING, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::GET_AO_VALUES, {0}), withF32({0, 0}, {3, -3, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(u.ask(wire::INIT_AO_BUFFER, {0}), (Bytes{0, 0, 0, 0, 10, 0b101}));
    EXPECT_EQ(u.ask(wire::GET_AO_COUNTERS, {0}), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(UsbMixed, OutputsFeedTheInputsAndOwnTheirPinsWhileOpen) {
    Unit u("TorvikUsbMixed");
    ASSERT_TRUE(u.fw.setPinMode({1, 4}, sim::PinMode::I2C));
    EXPECT_EQ(u.ask(wire::OPEN_AO, {0}), (Bytes{0, 16}));
    ASSERT_TRUE(u.fw.setPinMode({1, 4}, sim::PinMode::Idle));
    EXPECT_EQ(u.ask(wire::OPEN_AO, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::GET_PIN_MODE_OF_SLOT, {1}), (Bytes{1, 6, 0x11, 0x11, 0x99}));
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 3}, {5.5f})), (Bytes{0, 16}));  // 0 to 5 V
    EXPECT_EQ(u.ask(wire::WRITE_AO_BY_CHANNEL, withF32({0, 3}, {2.5f})), (Bytes{0, 0}));
    EXPECT_EQ(u.ask(wire::OPEN_AI, {0}), (Bytes{0, 0}));
    auto counts = countsOf(u.ask(wire::READ_AI_ON_DEMAND_VARIABLE, {0}), 2);
    EXPECT_EQ(counts, (std::vector<std::int16_t>{0, 0, 0, 8192, 0, 0, 0, 0}));  // 2.5 V at 10 V full scale
    // A generator on output 0 shows on input 0.
    u.ask(wire::SET_AO_MODE, {0, 2});
    u.ask(wire::SET_AO_ENABLED_CHANNELS, {0, 0, 1});
    u.ask(wire::SET_AO_FORM_PARAM, withF32({0, 0, 0}, {1, 2, 4}));
    u.tell(wire::START_AO_STREAMING, {0});
    u.now += 1ms;  // sample 1 of a sine with 4 samples a period: its peak
    counts = countsOf(u.ask(wire::READ_AI_ON_DEMAND_VARIABLE, {0}), 2);
    EXPECT_EQ(counts[0], 9830);  // 3 V
    EXPECT_FALSE(u.fw.ai().setWaveform(0, sim::Waveform::output(8)));
    EXPECT_EQ(u.ask(wire::CLOSE_AO, {0}), (Bytes{0, 0}));
    EXPECT_EQ(u.fw.modeOf({1, 4}), sim::PinMode::Idle);
}

}  // namespace

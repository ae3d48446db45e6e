// The network client and a receive thread against an emulated Ethernet unit: this binary runs as
// the child of `torvik-sim --unit TorvikLanAnalog@ADDR:PORT` (ctest does so on Linux; on Windows'
// build tools/check-windows.sh runs it under wine beside the Linux emulator), and finds the unit
// in TORVIK_SIM_UNITS.
#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "device/receiver.hpp"
#include "transport/network_client.hpp"
#include "wire/bytes.hpp"
#include "wire/commands.hpp"
#include "wire/frame.hpp"

using namespace torvik;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Unit {
    std::string addr;
    int port = 0;
};

// The first TorvikLanAnalog of "CLASS ADDR cmd=PORT data=... serial=...;..." in TORVIK_SIM_UNITS.
std::optional<Unit> emulatedUnit() {
    const char* env = std::getenv("TORVIK_SIM_UNITS");
    if (!env) return std::nullopt;
    const std::string all = env;
    std::size_t at = 0;
    while (at < all.size()) {
        std::size_t end = all.find(';', at);
        if (end == std::string::npos) end = all.size();
        const std::string line = all.substr(at, end - at);
        at = end + 1;
        if (line.rfind("TorvikLanAnalog ", 0) != 0) continue;
        const std::size_t a = line.find(' ') + 1, b = line.find(' ', a), c = line.find("cmd=");
        if (b == std::string::npos || c == std::string::npos) continue;
        return Unit{line.substr(a, b - a), std::atoi(line.c_str() + c + 4)};
    }
    return std::nullopt;
}

class SimNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        auto u = emulatedUnit();
        if (!u) GTEST_SKIP() << "runs only as the child of torvik-sim --unit TorvikLanAnalog@ADDR:PORT";
        unit = *u;
        client = std::make_shared<transport::TcpClient>();
        ASSERT_TRUE(client->connect(unit.addr, unit.port));
    }
    void TearDown() override {
        if (client && client->socket()) client->disconnect();
    }
    void send(std::uint8_t cmd, std::vector<std::uint8_t> payload) { client->sendPacket(wire::buildFrame(cmd, payload)); }

    Unit unit;
    std::shared_ptr<transport::TcpClient> client;
};

// A receive thread as a network device runs it, on a client of the test's.
class ReceiveThread {
public:
    ReceiveThread(std::shared_ptr<transport::TcpClient> client, const std::atomic<int>* awaited) : client_(client) {
        slot_.set(client);
        thread_ = std::thread([this, awaited] {
            device::runReceiveLoop(
                core, gate_, slot_,
                [awaited](transport::Client& c, std::unique_lock<std::mutex>& hold) {
                    return static_cast<transport::NetworkClient&>(c).receiveAndSplit(1536, awaited, 0.01, &hold);
                },
                [](std::exception_ptr, unsigned n) { return device::backoff(n); });
        });
    }
    // As close does: kill, wake the blocked read by the disconnect, drop the client. Returns how
    // long the thread took to end.
    std::chrono::nanoseconds close() {
        const auto t0 = Clock::now();
        core.killed = true;
        client_->disconnect();
        slot_.set(nullptr);
        thread_.join();
        return Clock::now() - t0;
    }
    ~ReceiveThread() {
        if (thread_.joinable()) close();
    }
    std::optional<device::Bytes> awaitReply(std::uint8_t cmd, std::chrono::nanoseconds limit = 5s) {
        const auto end = Clock::now() + limit;
        while (Clock::now() < end) {
            if (auto r = core.pools.echo->take(cmd)) return r;
            std::this_thread::sleep_for(1ms);
        }
        return std::nullopt;
    }
    device::DeviceCore core;

private:
    std::shared_ptr<transport::TcpClient> client_;
    device::Gate gate_{false};
    device::ClientSlot slot_;
    std::thread thread_;
};

}  // namespace

TEST_F(SimNetwork, AReceiveThreadFilesEachReplyAndEndsAtOnceOnClose) {
    ReceiveThread rt(client, nullptr);
    for (std::uint8_t cmd : {wire::GET_DRIVER_INFO, wire::GET_SERIAL_NUMBER, wire::GET_DATE_TIME}) send(cmd, {0});
    for (std::uint8_t cmd : {wire::GET_DRIVER_INFO, wire::GET_SERIAL_NUMBER, wire::GET_DATE_TIME})
        EXPECT_TRUE(rt.awaitReply(cmd).has_value()) << int(cmd);
    std::this_thread::sleep_for(20ms);  // the thread is back in its wait on a silent unit
    EXPECT_LT(rt.close(), 1s);
    client.reset();
}

TEST_F(SimNetwork, WhileAStreamFlowsRepliesComeWithoutDelayAndTheStreamStaysWhole) {
    std::atomic<int> awaited{0};
    ReceiveThread rt(client, &awaited);
    auto status = [&](std::uint8_t cmd) {
        auto r = rt.awaitReply(cmd);
        return r && r->size() >= 2 ? (*r)[1] : 0xFF;
    };
    send(wire::SET_AI_MODE, {0, 2});  // continuous
    EXPECT_EQ(status(wire::SET_AI_MODE), 0);
    auto rate = wire::packBE<float>(2000.0f);
    send(wire::SET_AI_SAMPLING_RATE, {0, rate[0], rate[1], rate[2], rate[3]});
    EXPECT_EQ(status(wire::SET_AI_SAMPLING_RATE), 0);
    send(wire::OPEN_AI_STREAMING, {0});
    EXPECT_EQ(status(wire::OPEN_AI_STREAMING), 0);
    send(wire::START_AI_STREAMING, {0});

    auto queue = rt.core.pools.strm->at({wire::START_AI_STREAMING, std::nullopt});
    const auto t0 = Clock::now();
    while (queue->size() < 20 && Clock::now() - t0 < 5s) std::this_thread::sleep_for(5ms);
    ASSERT_GE(queue->size(), 20u) << "the stream does not flow";

    // A request while data flow: its reply is not held back behind the stream's batching.
    for (int i = 0; i < 5; ++i) {
        awaited = 1;
        const auto sent = Clock::now();
        send(wire::GET_DRIVER_INFO, {0});
        ASSERT_TRUE(rt.awaitReply(wire::GET_DRIVER_INFO, 2s).has_value());
        EXPECT_LT(Clock::now() - sent, 500ms);
        awaited = 0;
    }
    send(wire::CLOSE_AI_STREAMING, {0});
    EXPECT_EQ(status(wire::CLOSE_AI_STREAMING), 0);
    std::this_thread::sleep_for(50ms);
    // Every stream packet carries whole sample frames (the split never tears one).
    std::size_t packets = 0;
    for (auto& item : queue->takeUpTo(1u << 20)) {
        ++packets;
        EXPECT_FALSE(item.bytes.empty());
    }
    EXPECT_GT(packets, 20u);
    EXPECT_LT(rt.close(), 1s);
    client.reset();
}

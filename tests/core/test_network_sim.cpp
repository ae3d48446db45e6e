// The network client and a receive thread against an emulated Ethernet unit: this binary runs as
// the child of `torvik-sim --unit TorvikLanAnalog@ADDR:PORT` (ctest does so on Linux; on Windows'
// build tools/check-windows.sh runs it under wine beside the Linux emulator), and finds the unit
// in TORVIK_SIM_UNITS.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <sstream>
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
    std::istringstream units(env ? env : "");
    for (std::string line; std::getline(units, line, ';');) {
        std::istringstream fields(line);
        std::string cls, addr, cmd;
        if (fields >> cls >> addr >> cmd && cls == "TorvikLanAnalog" && cmd.rfind("cmd=", 0) == 0)
            return Unit{addr, std::atoi(cmd.c_str() + 4)};
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
    // As close does: kill, wake the blocked read by the disconnect, drop the client.
    void close() {
        core.killed = true;
        client_->disconnect();
        slot_.set(nullptr);
        thread_.join();
    }
    ~ReceiveThread() {
        if (thread_.joinable()) close();
    }
    std::optional<device::Bytes> awaitReply(std::uint8_t cmd) {
        const auto end = Clock::now() + 5s;
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

TEST_F(SimNetwork, WhileAStreamFlowsRepliesAreFiledByCodeAndTheStreamStaysWhole) {
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

    // Requests while data flow: each reply is filed by its code between the stream's packets.
    for (std::uint8_t cmd : {wire::GET_DRIVER_INFO, wire::GET_SERIAL_NUMBER, wire::GET_DATE_TIME}) {
        awaited = 1;
        send(cmd, {0});
        ASSERT_TRUE(rt.awaitReply(cmd).has_value()) << int(cmd);
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
    rt.close();  // the blocked read ends at the disconnect (a hang here runs into the test's time limit)
    client.reset();
}

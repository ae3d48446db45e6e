// The USB client against emulated units: ctest runs this binary as the child of
// `torvik-sim --usb TorvikUsbSink:CORE-A --usb TorvikUsbLogic:CORE-B,transfer=interrupt`.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "device/receiver.hpp"
#include "transport/usb_client.hpp"
#include "wire/commands.hpp"
#include "wire/frame.hpp"

using namespace torvik;
using namespace std::chrono_literals;

namespace {

class UsbTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::getenv("TORVIK_SIM_USB")) GTEST_SKIP() << "runs only as the child of torvik-sim --usb ...";
    }
};

std::vector<std::uint8_t> request(std::uint8_t port) {
    std::vector<std::uint8_t> payload{port};
    return wire::buildFrame(wire::GET_DRIVER_INFO, payload);
}

// Reads until a packet comes (the receive thread's way), at most a few seconds.
std::vector<wire::Packet> awaitPackets(transport::UsbClient& c) {
    auto fut = std::async(std::launch::async, [&c] { return c.awaitAndSplitPacket(wire::USB_PKT_SIZE); });
    if (fut.wait_for(5s) != std::future_status::ready) {
        c.release();
        ADD_FAILURE() << "no reply";
    }
    return fut.get();
}

TEST_F(UsbTest, ReleaseEndsAWaitingReadAndRefusesLaterCalls) {
    transport::UsbClient c("CORE-A");
    auto reader = std::async(std::launch::async, [&c] { return c.awaitPacket(64); });
    EXPECT_EQ(reader.wait_for(100ms), std::future_status::timeout);  // the unit is silent
    c.release();
    ASSERT_EQ(reader.wait_for(2s), std::future_status::ready);
    EXPECT_TRUE(reader.get().empty());
    EXPECT_TRUE(c.awaitPacket(64).empty());
    EXPECT_THROW(c.sendPacket(request(1)), transport::UsbError);
    c.release();  // again: nothing
}

// Sends queued for the client's sender thread and direct ones made after them go out in the
// order they were made; once released, a queued send fails as a direct one does.
TEST_F(UsbTest, QueuedSendsKeepTheirOrderAndFailAfterRelease) {
    transport::UsbClient c("CORE-A");
    std::vector<std::future<void>> sent;
    for (std::uint8_t port = 1; port <= 6; ++port) {
        if (port % 3 == 0) {
            c.sendPacket(request(port));
            continue;
        }
        auto done = std::make_shared<std::promise<void>>();
        sent.push_back(done->get_future());
        c.sendPacketLater(request(port), [done](std::exception_ptr e) {
            if (e)
                done->set_exception(e);
            else
                done->set_value();
        });
    }
    for (auto& f : sent) EXPECT_NO_THROW(f.get());
    std::vector<std::uint8_t> ports;
    while (ports.size() < 6) {
        auto packets = awaitPackets(c);
        if (packets.empty()) break;
        for (const auto& p : packets) ports.push_back(p.data.at(0));
    }
    EXPECT_EQ(ports, (std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}));

    c.release();
    std::exception_ptr error;
    c.sendPacketLater(request(7), [&error](std::exception_ptr e) { error = e; });
    ASSERT_TRUE(error);
    EXPECT_THROW(std::rethrow_exception(error), transport::UsbError);
    EXPECT_THROW(c.sendPacket(request(8)), transport::UsbError);
}

// The receive thread's life over USB: replies filed while the gate is open, a disconnect that
// cancels the waiting read, a reconnect, and the end through `killed`.
TEST_F(UsbTest, ReceiveLoopFilesRepliesAndStopsOnDisconnectAndKill) {
    device::DeviceCore core;
    device::Gate gate(true);
    device::ClientSlot slot;
    std::atomic<int> failures{0};
    std::thread thread([&] {
        device::runReceiveLoop(
            core, gate, slot,
            [](transport::Client& c, auto&) {
                return dynamic_cast<transport::UsbClient&>(c).awaitAndSplitPacket(wire::USB_PKT_SIZE);
            },
            [&](std::exception_ptr, unsigned) {
                ++failures;
                return std::chrono::nanoseconds::zero();
            });
    });
    auto waitReply = [&] {
        for (int i = 0; i < 500; ++i) {
            if (auto r = core.pools.echo->take(wire::GET_DRIVER_INFO)) return *r;
            std::this_thread::sleep_for(5ms);
        }
        return device::Bytes{};
    };
    for (std::uint8_t round : {1, 2}) {
        auto client = std::make_shared<transport::UsbClient>("CORE-B");
        slot.set(client);
        gate.release();
        client->sendPacket(request(round));
        EXPECT_EQ(waitReply(), (device::Bytes{round, 0}));
        // disconnect: close the gate, drop the client, end its waiting read
        gate.acquire();
        std::this_thread::sleep_for(1ms);
        slot.set(nullptr);
        client->release();
    }
    core.killed = true;
    gate.release();
    thread.join();
    EXPECT_LE(failures.load(), 1);  // at most the missing client, on the way out
}

}  // namespace

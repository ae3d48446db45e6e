#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "device/receiver.hpp"
#include "transport/network_client.hpp"
#include "wire/commands.hpp"
#include "wire/frame.hpp"

using namespace torvik;
using namespace std::chrono_literals;

namespace {

// A listening socket on a loopback address of the test's own.
struct Listener {
    int fd = -1;
    int port = 0;
    explicit Listener(const char* ip) {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, ip, &a.sin_addr);
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        EXPECT_EQ(::listen(fd, 4), 0);
        socklen_t len = sizeof a;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    int accept() const { return ::accept(fd, nullptr, nullptr); }
    ~Listener() { ::close(fd); }
};

// A one-byte-code frame as a unit sends it.
std::vector<std::uint8_t> unitFrame(std::uint8_t cmd, const std::vector<std::uint8_t>& payload) {
    return wire::buildFrame(cmd, payload);
}

}  // namespace

TEST(TcpClient, ExchangesBytesAndDisconnectReleasesABlockedReader) {
    Listener l("127.0.3.1");
    transport::TcpClient c;
    EXPECT_EQ(c.socket(), nullptr);
    EXPECT_THROW(c.sendPacket(std::vector<std::uint8_t>{1}), transport::NoSocket);
    EXPECT_TRUE(c.connect("127.0.3.1", l.port));
    int peer = l.accept();
    auto frame = wire::buildFrame(wire::GET_DRIVER_INFO, std::vector<std::uint8_t>{7});
    c.sendPacket(frame);
    std::vector<std::uint8_t> got(frame.size());
    EXPECT_EQ(::recv(peer, got.data(), got.size(), MSG_WAITALL), static_cast<ssize_t>(frame.size()));
    EXPECT_EQ(got, frame);

    auto reply = unitFrame(wire::GET_DRIVER_INFO, {1, 0});
    ::send(peer, reply.data(), 3, 0);  // torn across two reads
    std::thread late([&] {
        std::this_thread::sleep_for(10ms);
        ::send(peer, reply.data() + 3, reply.size() - 3, 0);
    });
    std::vector<wire::Packet> packets;
    while (packets.empty()) packets = c.recvAndSplitPacket(1536);
    late.join();
    EXPECT_EQ(packets[0].cmd, wire::GET_DRIVER_INFO);

    auto reader = std::async(std::launch::async, [&] { return c.recvPacket(1536, true); });
    EXPECT_EQ(reader.wait_for(30ms), std::future_status::timeout);
    c.disconnect();
    EXPECT_TRUE(reader.get().empty());
    EXPECT_EQ(c.socket(), nullptr);
    EXPECT_THROW(c.disconnect(), transport::NoSocket);
    ::close(peer);
}

TEST(TcpClient, PeerShutdownReadsEmptyThenAReceiveThreadParksUntilDisconnect) {
    Listener l("127.0.3.2");
    transport::TcpClient c;
    c.connect("127.0.3.2", l.port);
    int peer = l.accept();
    ::shutdown(peer, SHUT_WR);
    EXPECT_TRUE(c.recvPacket(64).empty());
    EXPECT_TRUE(c.recvPacket(64).empty());  // a plain read keeps answering at once
    auto parked = std::async(std::launch::async, [&] { return c.recvPacket(64, true); });
    EXPECT_EQ(parked.wait_for(50ms), std::future_status::timeout);  // no spinning
    c.disconnect();
    EXPECT_TRUE(parked.get().empty());
    ::close(peer);
}

TEST(TcpClient, AReceiveThreadTakesABurstInOneReadAndLeavesTheEndToTheNext) {
    Listener l("127.0.3.4");
    transport::TcpClient c;
    c.connect("127.0.3.4", l.port);
    int peer = l.accept();
    std::vector<std::uint8_t> burst;
    for (std::uint8_t i = 0; i < 40; ++i) {  // 40 frames of 107 bytes: many reads of 64 bytes
        auto f = unitFrame(wire::GET_DRIVER_INFO, std::vector<std::uint8_t>(100, i));
        burst.insert(burst.end(), f.begin(), f.end());
    }
    ASSERT_EQ(::send(peer, burst.data(), burst.size(), 0), static_cast<ssize_t>(burst.size()));
    ::shutdown(peer, SHUT_WR);
    std::this_thread::sleep_for(20ms);  // all of it in the socket
    auto packets = c.receiveAndSplit(64);
    ASSERT_EQ(packets.size(), 40u);
    for (std::uint8_t i = 0; i < 40; ++i) EXPECT_EQ(packets[i].data, std::vector<std::uint8_t>(100, i));
    auto parked = std::async(std::launch::async, [&] { return c.receiveAndSplit(64); });
    EXPECT_EQ(parked.wait_for(30ms), std::future_status::ready);  // the end of the stream: read at once, empty
    EXPECT_TRUE(parked.get().empty());
    c.disconnect();
    ::close(peer);
}

TEST(TcpClient, WhileDataFlowsAReaderIsWokenByAReplyNotByEveryPacket) {
    Listener l("127.0.3.5");
    transport::TcpClient c;
    c.connect("127.0.3.5", l.port);
    c.setTimeout(std::nullopt);
    int peer = l.accept();
    std::atomic<int> awaited{0};
    auto sendFrame = [&](std::uint8_t cmd, std::uint8_t b) {
        auto f = unitFrame(cmd, {b});
        ASSERT_EQ(::send(peer, f.data(), f.size(), 0), static_cast<ssize_t>(f.size()));
    };
    // An idle reader is woken by the first bytes; a window that brings nothing makes it idle
    // again (no wake-ups while nothing flows).
    sendFrame(wire::START_AI_STREAMING, 1);
    auto packets = c.receiveAndSplit(64, &awaited, 60.0);
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_TRUE(c.receiveAndSplit(64, &awaited, 0.01).empty());
    auto reader = std::async(std::launch::async, [&] { return c.receiveAndSplit(64, &awaited, 0.001); });
    EXPECT_EQ(reader.wait_for(50ms), std::future_status::timeout);
    sendFrame(wire::START_AI_STREAMING, 1);
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.get().size(), 1u);

    // While data flows, stream data alone leave the reader asleep; a command sent makes the next
    // arrival wake it, and what gathered comes along, in order.
    reader = std::async(std::launch::async, [&] { return c.receiveAndSplit(64, &awaited, 60.0); });
    std::this_thread::sleep_for(20ms);
    sendFrame(wire::START_AI_STREAMING, 2);
    EXPECT_EQ(reader.wait_for(30ms), std::future_status::timeout);
    c.sendPacket(wire::buildFrame(wire::GET_DRIVER_INFO, std::vector<std::uint8_t>{}));
    EXPECT_EQ(reader.wait_for(30ms), std::future_status::timeout);  // what is there does not wake it
    sendFrame(wire::GET_DRIVER_INFO, 3);
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    packets = reader.get();
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0].data, (std::vector<std::uint8_t>{2}));
    EXPECT_EQ(packets[1].cmd, wire::GET_DRIVER_INFO);

    // While a reply is awaited every arrival wakes it; a disconnect ends a batching wait.
    awaited = 1;
    reader = std::async(std::launch::async, [&] { return c.receiveAndSplit(64, &awaited, 60.0); });
    std::this_thread::sleep_for(20ms);
    sendFrame(wire::START_AI_STREAMING, 4);
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.get().size(), 1u);
    awaited = 0;
    reader = std::async(std::launch::async, [&] { return c.receiveAndSplit(64, &awaited, 60.0); });
    std::this_thread::sleep_for(20ms);
    c.disconnect();
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(reader.get().empty());
    ::close(peer);
}

TEST(TcpClient, RefusedConnectAndBadPortAndTimeLimit) {
    transport::TcpClient c;
    EXPECT_THROW(c.connect("127.0.3.3", 1), transport::ConnectFailed);
    EXPECT_NE(c.socket(), nullptr);  // the unconnected socket stays
    EXPECT_THROW(c.connect("127.0.3.3", 70000), transport::BadPort);
    Listener l("127.0.3.4");
    c.connect("127.0.3.4", l.port);
    int peer = l.accept();
    c.setTimeout(0.02);
    EXPECT_THROW(c.recvPacket(8), transport::ReceiveTimeout);
    ::close(peer);
}

TEST(UdpClient, BindTwiceFailsAndDatagramsArriveWhole) {
    transport::UdpClient a, b;
    EXPECT_TRUE(a.bind("127.0.3.5", 0));
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    ::getsockname(a.socket()->fd(), reinterpret_cast<sockaddr*>(&addr), &len);
    EXPECT_THROW(b.bind("127.0.3.5", ntohs(addr.sin_port)), transport::ConnectFailed);
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    auto f = unitFrame(wire::GET_DEVICE_INFO, {1, 2, 3});
    ::sendto(s, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::sendto(s, f.data(), 0, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);  // an empty datagram ends nothing
    EXPECT_EQ(a.recvPacket(512), f);
    EXPECT_TRUE(a.recvPacket(512).empty());
    EXPECT_FALSE(a.socket()->ended);
    ::close(s);
    EXPECT_THROW(a.disconnect(), transport::ConnectionLost);  // an unconnected datagram socket
    EXPECT_NE(a.socket(), nullptr);
}

TEST(ReceiveLoop, FilesUntilKilledAndEndsOnARoutingError) {
    Listener l("127.0.3.6");
    auto client = std::make_shared<transport::TcpClient>();
    client->connect("127.0.3.6", l.port);
    int peer = l.accept();
    device::DeviceCore core;
    device::Gate gate(false);
    device::ClientSlot slot;
    slot.set(client);
    std::atomic<unsigned> failures{0};
    auto run = [&] {
        device::runReceiveLoop(
            core, gate, slot,
            [](transport::Client& c) { return static_cast<transport::NetworkClient&>(c).recvAndSplitPacket(1536, true); },
            [&](std::exception_ptr, unsigned n) {
                failures = n;
                return device::backoff(n);
            });
    };
    std::thread t(run);
    auto f = unitFrame(wire::GET_IP, {1, 0, 9});
    ::send(peer, f.data(), f.size(), 0);
    for (int i = 0; i < 200 && !core.pools.echo->contains(wire::GET_IP); ++i) std::this_thread::sleep_for(5ms);
    EXPECT_EQ(core.pools.echo->take(wire::GET_IP), (device::Bytes{1, 0, 9}));
    // close: kill, drop the client, let the gate open; the thread ends without a read error loop
    core.killed = true;
    client->disconnect();
    slot.set(nullptr);
    t.join();

    // An empty payload on a broadcast code ends the loop by exception.
    device::DeviceCore core2;
    auto c2 = std::make_shared<transport::TcpClient>();
    c2->connect("127.0.3.6", l.port);
    int peer2 = l.accept();
    device::ClientSlot slot2;
    slot2.set(c2);
    auto bad = unitFrame(wire::GET_DEVICE_INFO, {});
    ::send(peer2, bad.data(), bad.size(), 0);
    EXPECT_THROW(device::runReceiveLoop(
                     core2, gate, slot2,
                     [](transport::Client& c) { return static_cast<transport::NetworkClient&>(c).recvAndSplitPacket(1536, true); },
                     [](std::exception_ptr, unsigned n) { return device::backoff(n); }),
                 device::RoutingError);
    ::close(peer);
    ::close(peer2);
}

TEST(Backoff, GrowsToACap) {
    EXPECT_EQ(device::backoff(1), 0ns);
    EXPECT_EQ(device::backoff(2), 1ms);
    EXPECT_EQ(device::backoff(4), 4ms);
    EXPECT_EQ(device::backoff(100), 50ms);
}

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "device/receiver.hpp"
#include "device/reply_taker.hpp"
#include "platform/socket.hpp"
#include "transport/network_client.hpp"
#include "wire/commands.hpp"
#include "wire/frame.hpp"
#include "wire/ipv4.hpp"

using namespace torvik;
using namespace std::chrono_literals;
namespace pf = torvik::platform;

namespace {

std::uint32_t ipOf(const char* text) { return *wire::parseIPv4(text); }

// A listening socket on a loopback address of the test's own.
struct Listener {
    pf::NativeSocket fd = pf::kInvalidSocket;
    int port = 0;
    explicit Listener(const char* ip) {
        fd = pf::openSocket(pf::SocketKind::Stream);
        EXPECT_TRUE(pf::bindTo(fd, ipOf(ip), 0));
        EXPECT_TRUE(pf::listenOn(fd, 4));
        port = pf::localPort(fd);
    }
    pf::NativeSocket accept() const { return pf::acceptOn(fd); }
    ~Listener() { pf::closeSocket(fd); }
};

long sendAll(pf::NativeSocket s, const std::vector<std::uint8_t>& bytes) { return pf::sendBytes(s, bytes.data(), bytes.size()); }

// Reads exactly `n` bytes (fewer when the stream ends first).
std::vector<std::uint8_t> receiveExactly(pf::NativeSocket s, std::size_t n) {
    std::vector<std::uint8_t> got(n);
    std::size_t have = 0;
    while (have < n) {
        const long k = pf::receive(s, got.data() + have, n - have, true);
        if (k <= 0) break;
        have += static_cast<std::size_t>(k);
    }
    got.resize(have);
    return got;
}

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
    pf::NativeSocket peer = l.accept();
    auto frame = wire::buildFrame(wire::GET_DRIVER_INFO, std::vector<std::uint8_t>{7});
    c.sendPacket(frame);
    EXPECT_EQ(receiveExactly(peer, frame.size()), frame);

    auto reply = unitFrame(wire::GET_DRIVER_INFO, {1, 0});
    pf::sendBytes(peer, reply.data(), 3);  // torn across two reads
    std::thread late([&] {
        std::this_thread::sleep_for(10ms);
        pf::sendBytes(peer, reply.data() + 3, reply.size() - 3);
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
    pf::closeSocket(peer);
}

TEST(TcpClient, PeerShutdownReadsEmptyThenAReceiveThreadParksUntilDisconnect) {
    Listener l("127.0.3.2");
    transport::TcpClient c;
    c.connect("127.0.3.2", l.port);
    pf::NativeSocket peer = l.accept();
    pf::shutdownSocket(peer, pf::Shut::Send);
    EXPECT_TRUE(c.recvPacket(64).empty());
    EXPECT_TRUE(c.recvPacket(64).empty());  // a plain read keeps answering at once
    auto parked = std::async(std::launch::async, [&] { return c.recvPacket(64, true); });
    EXPECT_EQ(parked.wait_for(50ms), std::future_status::timeout);  // no spinning
    c.disconnect();
    EXPECT_TRUE(parked.get().empty());
    pf::closeSocket(peer);
}

TEST(TcpClient, AReceiveThreadTakesABurstInOneReadAndLeavesTheEndToTheNext) {
    Listener l("127.0.3.4");
    transport::TcpClient c;
    c.connect("127.0.3.4", l.port);
    pf::NativeSocket peer = l.accept();
    std::vector<std::uint8_t> burst;
    for (std::uint8_t i = 0; i < 40; ++i) {  // 40 frames of 107 bytes: many reads of 64 bytes
        auto f = unitFrame(wire::GET_DRIVER_INFO, std::vector<std::uint8_t>(100, i));
        burst.insert(burst.end(), f.begin(), f.end());
    }
    ASSERT_EQ(sendAll(peer, burst), static_cast<long>(burst.size()));
    pf::shutdownSocket(peer, pf::Shut::Send);
    std::this_thread::sleep_for(20ms);  // all of it in the socket
    auto packets = c.receiveAndSplit(64);
    ASSERT_EQ(packets.size(), 40u);
    for (std::uint8_t i = 0; i < 40; ++i) EXPECT_EQ(packets[i].data, std::vector<std::uint8_t>(100, i));
    auto parked = std::async(std::launch::async, [&] { return c.receiveAndSplit(64); });
    EXPECT_EQ(parked.wait_for(30ms), std::future_status::ready);  // the end of the stream: read at once, empty
    EXPECT_TRUE(parked.get().empty());
    c.disconnect();
    pf::closeSocket(peer);
}

TEST(TcpClient, WhileDataFlowsAReaderIsWokenByAReplyNotByEveryPacket) {
    Listener l("127.0.3.5");
    transport::TcpClient c;
    c.connect("127.0.3.5", l.port);
    c.setTimeout(std::nullopt);
    pf::NativeSocket peer = l.accept();
    if (!pf::setReceiveLowWater(c.socket()->fd(), 1)) {
        pf::closeSocket(peer);
        GTEST_SKIP() << "this system has no receive low-water mark: every arrival wakes the reader (batching is Linux's)";
    }
    std::atomic<int> awaited{0};
    auto sendFrame = [&](std::uint8_t cmd, std::uint8_t b) {
        auto f = unitFrame(cmd, {b});
        ASSERT_EQ(sendAll(peer, f), static_cast<long>(f.size()));
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
    pf::closeSocket(peer);
}

TEST(TcpClient, RefusedConnectAndBadPortAndTimeLimit) {
    transport::TcpClient c;
    EXPECT_THROW(c.connect("127.0.3.3", 1), transport::ConnectFailed);
    EXPECT_NE(c.socket(), nullptr);  // the unconnected socket stays
    EXPECT_THROW(c.connect("127.0.3.3", 70000), transport::BadPort);
    Listener l("127.0.3.4");
    c.connect("127.0.3.4", l.port);
    pf::NativeSocket peer = l.accept();
    c.setTimeout(0.02);
    EXPECT_THROW(c.recvPacket(8), transport::ReceiveTimeout);
    pf::closeSocket(peer);
}

TEST(UdpClient, BindTwiceFailsAndDatagramsArriveWhole) {
    transport::UdpClient a, b;
    EXPECT_TRUE(a.bind("127.0.3.5", 0));
    const int port = pf::localPort(a.socket()->fd());
    EXPECT_THROW(b.bind("127.0.3.5", port), transport::ConnectFailed);
    pf::NativeSocket s = pf::openSocket(pf::SocketKind::Datagram);
    auto f = unitFrame(wire::GET_DEVICE_INFO, {1, 2, 3});
    const std::uint32_t to = ipOf("127.0.3.5");
    pf::sendTo(s, f.data(), f.size(), to, port);
    pf::sendTo(s, f.data(), 0, to, port);  // an empty datagram ends nothing
    pf::sendTo(s, f.data(), f.size(), to, port);
    EXPECT_EQ(a.recvPacket(512), f);
    EXPECT_TRUE(a.recvPacket(512).empty());
    EXPECT_FALSE(a.socket()->ended);
    // A datagram longer than the read comes cut to it, on every system.
    EXPECT_EQ(a.recvPacket(4), std::vector<std::uint8_t>(f.begin(), f.begin() + 4));
    pf::closeSocket(s);
    // A datagram socket that never connected: Linux refuses to shut it down (the socket stays),
    // Winsock shuts down only connections and lets it go.
#if defined(_WIN32)
    EXPECT_NO_THROW(a.disconnect());
    EXPECT_EQ(a.socket(), nullptr);
#else
    EXPECT_THROW(a.disconnect(), transport::ConnectionLost);
    EXPECT_NE(a.socket(), nullptr);
#endif
}

TEST(ReceiveLoop, FilesUntilKilledAndEndsOnARoutingError) {
    Listener l("127.0.3.6");
    auto client = std::make_shared<transport::TcpClient>();
    client->connect("127.0.3.6", l.port);
    pf::NativeSocket peer = l.accept();
    device::DeviceCore core;
    device::Gate gate(false);
    device::ClientSlot slot;
    slot.set(client);
    std::atomic<unsigned> failures{0};
    auto run = [&] {
        device::runReceiveLoop(
            core, gate, slot,
            [](transport::Client& c, auto&) { return static_cast<transport::NetworkClient&>(c).recvAndSplitPacket(1536, true); },
            [&](std::exception_ptr, unsigned n) {
                failures = n;
                return device::backoff(n);
            });
    };
    std::thread t(run);
    auto f = unitFrame(wire::GET_IP, {1, 0, 9});
    sendAll(peer, f);
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
    pf::NativeSocket peer2 = l.accept();
    device::ClientSlot slot2;
    slot2.set(c2);
    auto bad = unitFrame(wire::GET_DEVICE_INFO, {});
    sendAll(peer2, bad);
    EXPECT_THROW(device::runReceiveLoop(
                     core2, gate, slot2,
                     [](transport::Client& c, auto&) { return static_cast<transport::NetworkClient&>(c).recvAndSplitPacket(1536, true); },
                     [](std::exception_ptr, unsigned n) { return device::backoff(n); }),
                 device::RoutingError);
    pf::closeSocket(peer);
    pf::closeSocket(peer2);
}

// A connected client, its unit's end, and a receive thread that files what it reads, as a
// network handle's command connection has them.
struct TakerRig {
    Listener l;
    std::shared_ptr<transport::TcpClient> client = std::make_shared<transport::TcpClient>();
    pf::NativeSocket peer;
    device::DeviceCore core;
    device::Gate gate{false};
    device::ClientSlot slot;
    std::thread receiver;
    std::atomic<bool> routing_failed{false};

    explicit TakerRig(const char* ip) : l(ip) {
        client->connect(ip, l.port);
        peer = l.accept();
        slot.set(client);
    }
    void startReceiver() {
        receiver = std::thread([this] {
            try {
                device::runReceiveLoop(
                    core, gate, slot,
                    [this](transport::Client&, std::unique_lock<std::mutex>& hold) {
                        return client->receiveAndSplit(1536, &core.pools.echo->awaited(), 0.01, &hold);
                    },
                    [](std::exception_ptr, unsigned n) { return device::backoff(n); });
            } catch (const device::RoutingError&) {
                routing_failed = true;
            }
        });
    }
    std::optional<device::Bytes> take(transport::NetworkClient::Taker& taker, std::uint32_t code,
                                      std::chrono::milliseconds limit) {
        return device::takeReading(core.pools, code, limit, nullptr, taker, gate);
    }
    ~TakerRig() {
        core.killed = true;
        client->disconnect();
        if (receiver.joinable()) receiver.join();
        pf::closeSocket(peer);
    }
};

TEST(ReplyTaker, ReadsAndFilesForItselfUnlessTheGateIsHeld) {
    TakerRig rig("127.0.3.7");  // no receive thread: only the taker reads
    {
        transport::NetworkClient::Taker taker(*rig.client);
        sendAll(rig.peer, unitFrame(wire::GET_IP, {1, 2}));
        sendAll(rig.peer, unitFrame(wire::GET_DATE_TIME, {3}));
        EXPECT_EQ(rig.take(taker, wire::GET_IP, 2000ms), (device::Bytes{1, 2}));
        EXPECT_EQ(rig.take(taker, wire::GET_DATE_TIME, 2000ms), (device::Bytes{3}));
    }
    // A held gate stops the receive thread, and the taker reads nothing for it either: the reply
    // stays unread and the wait runs out.
    rig.gate.acquire();
    transport::NetworkClient::Taker taker(*rig.client);
    sendAll(rig.peer, unitFrame(wire::GET_IP, {4}));
    EXPECT_FALSE(rig.take(taker, wire::GET_IP, 50ms).has_value());
    EXPECT_FALSE(rig.core.pools.echo->contains(wire::GET_IP));
}

TEST(ReplyTaker, TwoTakersBesideAReceiveThreadLoseNothing) {
    TakerRig rig("127.0.3.8");
    rig.startReceiver();
    // Each round: two takers on their own codes, replies in either order and a frame of a third
    // code that nobody waits for; every reply reaches its taker.
    for (std::uint8_t round = 0; round < 200; ++round) {
        auto other = std::async(std::launch::async, [&] {
            transport::NetworkClient::Taker taker(*rig.client);
            sendAll(rig.peer, unitFrame(wire::GET_DATE_TIME, {round}));
            return rig.take(taker, wire::GET_DATE_TIME, 2000ms);
        });
        transport::NetworkClient::Taker taker(*rig.client);
        sendAll(rig.peer, unitFrame(wire::GET_DRIVER_INFO, {round}));
        sendAll(rig.peer, unitFrame(wire::GET_IP, {round}));
        ASSERT_EQ(rig.take(taker, wire::GET_IP, 2000ms), (device::Bytes{round})) << int(round);
        ASSERT_EQ(other.get(), (device::Bytes{round})) << int(round);
    }
    // With no taker left the receive thread reads again.
    sendAll(rig.peer, unitFrame(wire::GET_IP, {7}));
    for (int i = 0; i < 200 && !rig.core.pools.echo->contains(wire::GET_IP); ++i) std::this_thread::sleep_for(5ms);
    EXPECT_EQ(rig.core.pools.echo->take(wire::GET_IP), (device::Bytes{7}));
    EXPECT_EQ(rig.core.pools.echo->take(wire::GET_DRIVER_INFO), (device::Bytes{199}));
}

TEST(ReplyTaker, WaitsThroughItsReadsBoundsUntilItsReplyOrItsLimit) {
    TakerRig rig("127.0.3.10");  // no receive thread: the taker waits inside its reads
    constexpr auto tick = transport::SocketHandle::kReadTick;
    transport::NetworkClient::Taker taker(*rig.client);
    // Reads that run out of their bound are not an ended stream; a limit shorter than the bound
    // is kept as well.
    EXPECT_FALSE(rig.take(taker, wire::GET_IP, 3 * tick).has_value());
    EXPECT_FALSE(rig.take(taker, wire::GET_IP, tick / 4).has_value());
    auto late = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(3 * tick);
        sendAll(rig.peer, unitFrame(wire::GET_IP, {9}));
    });
    EXPECT_EQ(rig.take(taker, wire::GET_IP, 2000ms), (device::Bytes{9}));
    late.get();
}

TEST(ReplyTaker, AFrameItCannotFileEndsTheReceiveThreadAsItWouldHave) {
    TakerRig rig("127.0.3.9");
    rig.startReceiver();
    transport::NetworkClient::Taker taker(*rig.client);
    auto bad = unitFrame(wire::GET_DEVICE_INFO, {});  // a broadcast code needs a payload byte
    auto reply = unitFrame(wire::GET_IP, {5});
    bad.insert(bad.end(), reply.begin(), reply.end());
    sendAll(rig.peer, bad);
    // Nothing after the bad frame is filed, whoever read it.
    EXPECT_FALSE(rig.take(taker, wire::GET_IP, 200ms).has_value());
    rig.receiver.join();
    EXPECT_TRUE(rig.routing_failed);
}

TEST(Backoff, GrowsToACap) {
    EXPECT_EQ(device::backoff(1), 0ns);
    EXPECT_EQ(device::backoff(2), 1ms);
    EXPECT_EQ(device::backoff(4), 4ms);
    EXPECT_EQ(device::backoff(100), 50ms);
}

TEST(Glance, LooksOnlyWhileClearlyFasterAndTriesTheOtherWayNowAndThen) {
    using G = transport::NetworkClient::Glance;
    auto run = [](G& g, int waits, double look_ns, double wait_ns) {
        int looked = 0;
        for (int i = 0; i < waits; ++i) {
            const bool look = g.due();
            looked += look;
            g.record(look, look ? look_ns : wait_ns);
        }
        return looked;
    };
    G g;
    EXPECT_EQ(run(g, G::kProbe - 1, 25e3, 40e3), G::kProbe - 2);  // one try of each way, then looking
    EXPECT_EQ(run(g, G::kProbe, 25e3, 40e3), G::kProbe - 1);      // waiting tried once more
    // The unit moved to this core: looking is now slower; within a probe or two it stops.
    run(g, 3 * G::kProbe, 60e3, 32e3);
    EXPECT_EQ(run(g, G::kProbe, 60e3, 32e3), 1);
    // Faster by less than a tenth is not worth the looks.
    G close;
    EXPECT_EQ(run(close, 4 * G::kProbe, 30e3, 32e3), 1 + 4);  // the first try and the probes
}

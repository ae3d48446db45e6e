// The platform's socket layer and its cancellable wait: the same cases on every system, since
// Linux (poll, eventfd) and Windows (select, a loopback wake socket) implement them apart.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "platform/socket.hpp"

namespace pf = torvik::platform;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kAddr = 0x7F000308;  // 127.0.3.8, this file's own

// A connected pair of stream sockets on loopback.
struct Pair {
    pf::NativeSocket a = pf::kInvalidSocket, b = pf::kInvalidSocket;
    Pair() {
        pf::NativeSocket l = pf::openSocket(pf::SocketKind::Stream);
        EXPECT_TRUE(pf::bindTo(l, kAddr, 0));
        EXPECT_TRUE(pf::listenOn(l, 1));
        a = pf::openSocket(pf::SocketKind::Stream);
        EXPECT_EQ(pf::connectWithin(a, kAddr, pf::localPort(l), 5000), 0);
        b = pf::acceptOn(l);
        EXPECT_NE(b, pf::kInvalidSocket);
        pf::closeSocket(l);
    }
    ~Pair() {
        pf::closeSocket(a);
        pf::closeSocket(b);
    }
};

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

}  // namespace

TEST(PlatformSocket, WaitEndsByDataByTimeLimitAndByCancelWhichWins) {
    Pair p;
    pf::WakeSignal cancel;
    ASSERT_TRUE(cancel.valid());
    EXPECT_EQ(pf::waitReadable(p.a, cancel, 0.05, false), pf::WaitResult::TimedOut);
    EXPECT_EQ(pf::waitReadable(p.a, cancel, 0.0, false), pf::WaitResult::TimedOut);  // a poll

    // A wait with a limit waits: a byte sent while it runs ends it.
    auto sender = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(20ms);
        const char byte = 'x';
        return pf::sendBytes(p.b, &byte, 1);
    });
    EXPECT_EQ(pf::waitReadable(p.a, cancel, 2.0, false), pf::WaitResult::Readable);
    ASSERT_EQ(sender.get(), 1);
    EXPECT_EQ(pf::waitReadable(p.a, cancel, std::nullopt, false), pf::WaitResult::Readable);  // until read
    EXPECT_EQ(pf::queuedBytes(p.a), 1);

    // A wait without limit, on the socket or on the cancel alone, ends when another thread cancels.
    for (bool cancel_only : {false, true}) {
        pf::WakeSignal c;
        auto waiter = std::async(std::launch::async, [&] { return pf::waitReadable(p.b, c, std::nullopt, cancel_only); });
        EXPECT_EQ(waiter.wait_for(30ms), std::future_status::timeout);
        c.raise();
        ASSERT_EQ(waiter.wait_for(10s), std::future_status::ready);
        EXPECT_EQ(waiter.get(), pf::WaitResult::Cancelled);
        EXPECT_EQ(pf::waitReadable(p.b, c, std::nullopt, cancel_only), pf::WaitResult::Cancelled);  // for good
    }
    cancel.raise();
    EXPECT_EQ(pf::waitReadable(p.a, cancel, std::nullopt, false), pf::WaitResult::Cancelled);  // though readable
}

TEST(PlatformSocket, AnUnboundDatagramSocketHasNothingToReadButItsWaitStillEnds) {
    // A UDP client whose bind failed keeps its socket, and its receive thread waits on it.
    pf::NativeSocket u = pf::openSocket(pf::SocketKind::Datagram);
    pf::WakeSignal cancel;
    EXPECT_EQ(pf::waitReadable(u, cancel, 0.02, false), pf::WaitResult::TimedOut);
    cancel.raise();
    EXPECT_EQ(pf::waitReadable(u, cancel, std::nullopt, false), pf::WaitResult::Cancelled);
    pf::closeSocket(u);
}

TEST(PlatformSocket, ADrainedSignalWaitsForTheNextRaise) {
    pf::WakeSignal s, never;
    ASSERT_TRUE(s.valid());
    // The signal's own handle can be watched like a socket, as an event loop watches it.
    EXPECT_EQ(pf::waitReadable(s.handle(), never, 0.0, false), pf::WaitResult::TimedOut);
    s.raise();
    s.raise();
    EXPECT_EQ(pf::waitReadable(s.handle(), never, 0.0, false), pf::WaitResult::Readable);
    s.drain();
    EXPECT_EQ(pf::waitReadable(s.handle(), never, 0.0, false), pf::WaitResult::TimedOut);
    s.drain();  // nothing to drain: no wait, no failure
    s.raise();
    EXPECT_EQ(pf::waitReadable(s.handle(), never, 0.0, false), pf::WaitResult::Readable);
}

TEST(PlatformSocket, ReadsWithoutWaitingAndTheEndOfAStream) {
    Pair p;
    char buf[16];
    EXPECT_EQ(pf::receive(p.a, buf, sizeof buf, false), -1);
    EXPECT_TRUE(pf::isWouldBlock(pf::lastSocketError()));
    ASSERT_EQ(pf::sendBytes(p.b, "abc", 3), 3);
    auto t0 = Clock::now();
    while (pf::queuedBytes(p.a) < 3 && secondsSince(t0) < 5) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(pf::receive(p.a, buf, 2, false), 2);
    EXPECT_EQ(pf::receive(p.a, buf, sizeof buf, true), 1);
    ASSERT_TRUE(pf::shutdownSocket(p.b, pf::Shut::Send));
    pf::WakeSignal never;
    EXPECT_EQ(pf::waitReadable(p.a, never, 5.0, false), pf::WaitResult::Readable);
    EXPECT_EQ(pf::receive(p.a, buf, sizeof buf, true), 0);
    EXPECT_EQ(pf::receive(p.a, buf, sizeof buf, false), 0);  // at once, every time
    EXPECT_EQ(pf::waitReadable(p.a, never, 5.0, false), pf::WaitResult::Readable);
}

// (A taken port is the UDP client's test in test_network.cpp.)
TEST(PlatformSocket, ARefusedConnectIsAReasonNotATimeout) {
    pf::NativeSocket s = pf::openSocket(pf::SocketKind::Stream);
    const int err = pf::connectWithin(s, kAddr, 1, 5000);
    EXPECT_NE(err, 0);
    EXPECT_NE(err, pf::timedOutError());
    EXPECT_FALSE(pf::socketErrorText(err).empty());
    pf::closeSocket(s);
}

TEST(PlatformSocket, ResolvesItsOwnHostName) {
    const auto name = pf::hostName();
    ASSERT_TRUE(name.has_value());
    EXPECT_FALSE(name->empty());
    std::vector<std::uint32_t> ips;
    EXPECT_EQ(pf::resolveIPv4All("127.0.0.1", ips), 0);
    ASSERT_FALSE(ips.empty());  // one per record the resolver gives (per socket type on some systems)
    for (std::uint32_t ip : ips) EXPECT_EQ(ip, 0x7F000001u);
}

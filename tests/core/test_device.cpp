#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "device/gate.hpp"
#include "device/pools.hpp"
#include "device/router.hpp"
#include "wire/commands.hpp"

using namespace torvik::device;
using namespace std::chrono_literals;
namespace w = torvik::wire;

namespace {
struct CountingWaiter : Wakeable {
    std::atomic<int> woken{0};
    void wake() noexcept override { ++woken; }
};
}  // namespace

TEST(Gate, IsALockWithoutOwner) {
    Gate g(true);
    EXPECT_TRUE(g.locked());
    EXPECT_FALSE(g.tryAcquire());
    EXPECT_FALSE(g.acquire(1ms));
    std::thread other([&] { EXPECT_TRUE(g.release()); });  // released by another thread
    other.join();
    EXPECT_FALSE(g.release());  // a free gate cannot be released
    EXPECT_TRUE(g.acquire(1ms));
}

TEST(Gate, ReleaseWakesATakerBesideAPassingWorker) {
    Gate g(true);
    std::atomic<bool> passed{false}, taken{false};
    std::thread worker([&] {
        g.pass();
        passed = true;
    });
    std::thread taker([&] {
        taken = g.acquire(5s);
        std::this_thread::sleep_for(5ms);
        g.release();
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(passed);
    g.release();
    worker.join();
    taker.join();
    EXPECT_TRUE(passed && taken);
    EXPECT_FALSE(g.locked());  // passing leaves the gate as it was
}

TEST(EchoPool, WaitersAreWokenOnceByTheirCodeAndCancelledWaitersNever) {
    EchoPool p;
    auto a = std::make_shared<CountingWaiter>(), b = std::make_shared<CountingWaiter>(), c = std::make_shared<CountingWaiter>();
    Bytes out;
    EXPECT_FALSE(p.takeOrWait(7, out, a));
    EXPECT_FALSE(p.takeOrWait(7, out, b));
    EXPECT_FALSE(p.takeOrWait(8, out, c));
    p.cancelWait(7, b.get());
    p.put(7, {9});
    p.put(7, {10});
    EXPECT_EQ(a->woken, 1);
    EXPECT_EQ(b->woken, 0);
    EXPECT_EQ(c->woken, 0);
    EXPECT_TRUE(p.takeOrWait(7, out, a));  // present: taken, not registered
    EXPECT_EQ(out, (Bytes{10}));
}

TEST(EchoPool, NoLostWakeUpUnderConcurrentFiling) {
    // A waiter either takes the reply or is registered before the filing: never neither.
    // (Rounds start threads: wine, which runs this suite for Windows, can stall for good after
    // some thousands of them.)
    for (int round = 0; round < 300; ++round) {
        EchoPool p;
        auto w = std::make_shared<CountingWaiter>();
        std::thread filer([&] { p.put(1, {1}); });
        Bytes out;
        bool taken = p.takeOrWait(1, out, w);
        filer.join();
        EXPECT_TRUE(taken || w->woken == 1);
    }
}

TEST(EchoPool, CountsAnnouncedAndRegisteredRepliesUntilFiledOrCancelled) {
    auto p = std::make_shared<EchoPool>();
    auto a = std::make_shared<CountingWaiter>(), b = std::make_shared<CountingWaiter>();
    Bytes out;
    {
        AwaitedReply announced(p);
        EXPECT_EQ(p->awaited().load(), 1);
        EXPECT_FALSE(p->takeOrWait(7, out, a));
        announced.release();
        EXPECT_EQ(p->awaited().load(), 1);  // the waiter stands for it now
    }
    EXPECT_FALSE(p->takeOrWait(8, out, b));
    EXPECT_EQ(p->awaited().load(), 2);
    p->put(7, {1});
    p->cancelWait(8, b.get());
    p->cancelWait(8, b.get());  // not registered any more: no change
    EXPECT_EQ(p->awaited().load(), 0);
    AwaitedReply moved(AwaitedReply{p});
    EXPECT_EQ(p->awaited().load(), 1);
}

TEST(EchoPool, ABlockingTakerIsWokenByItsFilingAndLeavesNoWaiterBehind) {
    auto p = std::make_shared<EchoPool>();
    std::thread filer([&] {
        while (p->awaited().load() == 0) std::this_thread::yield();  // the taker is registered
        p->put(8, {1});  // another code: no wake
        p->put(7, {2});
    });
    AwaitedReply announced(p);
    EXPECT_EQ(p->takeWaiting(7, std::nullopt, &announced), (Bytes{2}));
    filer.join();
    EXPECT_EQ(p->awaited().load(), 0);
    EXPECT_EQ(p->codes(), (std::vector<std::uint32_t>{8}));
}

TEST(EchoPool, ABlockingTakeThatRunsOutUnregistersAndALateReplyStaysFiled) {
    EchoPool p;
    EXPECT_EQ(p.takeWaiting(7, 0ns), std::nullopt);
    EXPECT_EQ(p.takeWaiting(7, 20ms), std::nullopt);
    EXPECT_EQ(p.awaited().load(), 0);
    p.put(7, {3});  // nobody to wake: the reply waits for the next taker
    EXPECT_EQ(p.takeWaiting(7, 0ns), (Bytes{3}));
}

TEST(EchoPool, TwoBlockingTakersOfOneCodeShareItsRepliesAndNoWakeUpIsLost) {
    // Each filing lands between, before or after the registrations; every reply is taken once.
    for (int round = 0; round < 200; ++round) {
        EchoPool p;
        std::atomic<int> got{0};
        auto taker = [&] {  // retries as its callers do when the other was quicker
            for (auto end = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < end;)
                if (p.takeWaiting(1, 10s)) return void(++got);
        };
        std::thread a(taker), b(taker);
        p.put(1, {1});
        while (p.contains(1)) std::this_thread::yield();
        p.put(1, {2});
        a.join();
        b.join();
        ASSERT_EQ(got.load(), 2);
        ASSERT_EQ(p.awaited().load(), 0);
    }
}

TEST(StreamQueue, APacedConsumerSleepsOutItsWindowUnlessAScriptPuts) {
    StreamQueue q;
    auto bytes = [](std::uint8_t b) { return StreamItem{StreamItem::Kind::Bytes, {b}, nullptr}; };
    q.putData(bytes(1));
    EXPECT_EQ(q.getPaced(1s, 60s)->bytes, Bytes{1});  // not pacing yet: taken at once
    auto next = std::async(std::launch::async, [&] { return q.getPaced(60s, 60s); });
    std::this_thread::sleep_for(20ms);
    q.putData(bytes(2));
    EXPECT_EQ(next.wait_for(30ms), std::future_status::timeout);  // data alone leaves it asleep
    q.put(StreamItem{StreamItem::Kind::Token, {}, nullptr});
    EXPECT_EQ(next.get()->bytes, Bytes{2});  // a script's put wakes it; order kept
    EXPECT_EQ(q.getPaced(1s, 60s)->kind, StreamItem::Kind::Token);
    // A window that gathers nothing ends the pacing: the next data wakes it at once.
    auto eager = std::async(std::launch::async, [&] { return q.getPaced(60s, 1ms); });
    std::this_thread::sleep_for(20ms);
    q.putData(bytes(3));
    ASSERT_EQ(eager.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(eager.get()->bytes, Bytes{3});
    EXPECT_FALSE(q.getPaced(5ms, 1ms).has_value());
}

TEST(StreamQueue, ABoundedPutWaitsForRoomAConsumerMakes) {
    StreamQueue q(2);
    EXPECT_TRUE(q.put(StreamItem{StreamItem::Kind::Bytes, {1}, nullptr}, 0ns));
    EXPECT_TRUE(q.put(StreamItem{StreamItem::Kind::Token, {}, nullptr}, 0ns));
    std::thread consumer([&] { EXPECT_TRUE(q.get(1s).has_value()); });
    EXPECT_TRUE(q.put(StreamItem{}, 2s));  // room made by the consumer
    consumer.join();
    EXPECT_EQ(q.takeUpTo(10).size(), 2u);
}

// What the module's routing test leaves out: CAN and motion payloads, a broadcast reply's status
// byte, and the frames that are short or ignored.
TEST(Router, FilesByCodeAndFirstBytes) {
    DataPools pools;
    putToDataPool(pools, w::START_CAN, {7});
    putToDataPool(pools, w::START_MOTION_MONITORING, {1, 2, 3});
    putToDataPool(pools, w::GET_DEVICE_INFO, {1, 4, 5});
    putToDataPool(pools, w::GET_DEVICE_INFO, {1, 4, 5});
    putToDataPool(pools, w::GET_DEVICE_INFO, {0, 6});
    EXPECT_EQ(pools.strm->at({w::START_CAN, std::nullopt})->get(0ns)->bytes, Bytes{});
    EXPECT_EQ(pools.strm->at({w::START_MOTION_MONITORING, std::nullopt})->get(0ns)->bytes, (Bytes{1, 2, 3}));
    EXPECT_EQ(pools.bcst->at(w::GET_DEVICE_INFO)->items(), (std::vector<Bytes>{{4, 5}}));
    EXPECT_THROW(putToDataPool(pools, w::START_UART_READING, {}), RoutingError);
    EXPECT_NO_THROW(putToDataPool(pools, w::START_AI_STREAMING_VARIABLE, {}));
    EXPECT_EQ(checkCommandType(w::CHECK_MAC_AND_REBOOT, std::vector<std::uint8_t>{2}), CommandType::Ignore);
}

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "VelmorMainQueue.h"
#include "VelmorNotificationCenter.h"
#include "VelmorOnce.h"

using namespace std::chrono_literals;

namespace {

struct Observer : VelmorRootObject {
    std::vector<std::string> seen;
    std::function<void()> onNotification;
    void handle(const VelmorNotification& notification)
    {
        seen.push_back(notification.name);
        if (onNotification)
            onNotification();
    }
    ~Observer() override { VelmorNotificationCenter::defaultCenter().removeObserver(this); }
};

bool readable(int fd)
{
    pollfd entry {fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN);
}

} // namespace

TEST(NotificationCenter, DeliversByNameSynchronouslyAndKeepsNoObserverAlive)
{
    auto& center = VelmorNotificationCenter::defaultCenter();
    auto observer = std::make_shared<Observer>();
    center.addObserver(observer, &Observer::handle, "A");
    center.addObserver(observer, &Observer::handle, "B");
    std::weak_ptr<Observer> weak = observer;

    center.postNotificationName("A", nullptr);
    center.postNotificationName("C", nullptr);
    EXPECT_EQ((std::vector<std::string> {"A"}), observer->seen);  // ran before the post returned

    observer.reset();  // the center held no strong reference; its destructor removed it
    EXPECT_TRUE(weak.expired());
    center.postNotificationName("B", nullptr);

    // An observer that dies without removing itself is skipped, not called.
    struct Careless : VelmorRootObject {
        void handle(const VelmorNotification&) { ADD_FAILURE() << "dead observer called"; }
    };
    auto careless = std::make_shared<Careless>();
    center.addObserver(careless, &Careless::handle, "B");
    careless.reset();
    center.postNotificationName("B", nullptr);
}

TEST(NotificationCenter, RemovalAndRegistrationDuringAPostAreSafe)
{
    auto& center = VelmorNotificationCenter::defaultCenter();
    auto first = std::make_shared<Observer>();
    auto second = std::make_shared<Observer>();
    auto third = std::make_shared<Observer>();
    // Whichever runs first removes the other two and registers a newcomer; the removed are not called.
    auto removeOthers = [&](Observer* self) {
        return [&, self] {
            for (auto* other : {first.get(), second.get()})
                if (other != self)
                    center.removeObserver(other);
            center.addObserver(third, &Observer::handle, "N");
        };
    };
    first->onNotification = removeOthers(first.get());
    second->onNotification = removeOthers(second.get());
    center.addObserver(first, &Observer::handle, "N");
    center.addObserver(second, &Observer::handle, "N");

    center.postNotificationName("N", nullptr);
    EXPECT_EQ(1u, first->seen.size() + second->seen.size());
    EXPECT_TRUE(third->seen.empty());  // registered during the post: from the next one on
    center.postNotificationName("N", nullptr);
    EXPECT_EQ(1u, third->seen.size());
}

TEST(MainQueue, RunsWorkInPostingOrderFromManyThreads)
{
    auto& queue = VelmorMainQueue::mainQueue();
    queue.runPending();
    constexpr int threads = 4, perThread = 2000;
    std::vector<std::vector<int>> order(threads);
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                queue.post([&order, t, i] { order[t].push_back(i); });
        });
    }
    // Serve while they post, as an application would.
    std::size_t ran = 0;
    EXPECT_TRUE(queue.runUntil(
        [&] {
            ran = 0;
            for (const auto& items : order)
                ran += items.size();
            return ran == std::size_t(threads * perThread);
        },
        10s));
    for (auto& poster : posters)
        poster.join();
    for (const auto& items : order) {
        ASSERT_EQ(std::size_t(perThread), items.size());
        for (int i = 0; i < perThread; ++i)
            ASSERT_EQ(i, items[i]);
    }
}

TEST(MainQueue, ItemsKeepTheirCapturesUntilRunAndSignalWhilePending)
{
    auto& queue = VelmorMainQueue::mainQueue();
    queue.runPending();
    EXPECT_FALSE(readable(queue.fileDescriptor()));

    auto target = std::make_shared<int>(7);
    std::weak_ptr<int> weak = target;
    std::vector<int> log;
    queue.post([target, &log, &queue] {
        log.push_back(*target);
        queue.post([&log] { log.push_back(2); });  // posted while running: not run by this runPending
    });
    target.reset();
    EXPECT_FALSE(weak.expired());
    EXPECT_TRUE(readable(queue.fileDescriptor()));
    EXPECT_TRUE(readable(queue.fileDescriptor()));  // a look doesn't consume it

    EXPECT_EQ(1u, queue.runPending());
    EXPECT_TRUE(weak.expired());  // released once run
    EXPECT_EQ((std::vector<int> {7}), log);
    EXPECT_TRUE(readable(queue.fileDescriptor()));
    EXPECT_EQ(1u, queue.pendingCount());
    EXPECT_EQ(1u, queue.runPending());
    EXPECT_FALSE(readable(queue.fileDescriptor()));
    EXPECT_EQ(0u, queue.runPending());
}

TEST(MainQueue, StoppingMidwayAndServingFromInsideAnItemKeepTheOrder)
{
    auto& queue = VelmorMainQueue::mainQueue();
    queue.runPending();
    const int descriptor = queue.fileDescriptor();
    std::vector<int> log;
    for (int i = 0; i < 3; ++i)
        queue.post([&log, i] { log.push_back(i); });
    // The condition holds after the first item: the others stay pending, and stay first.
    EXPECT_TRUE(queue.runUntil([&] { return !log.empty(); }, 5s));
    EXPECT_EQ((std::vector<int> {0}), log);
    EXPECT_EQ(2u, queue.pendingCount());
    EXPECT_TRUE(readable(descriptor));
    queue.post([&log] { log.push_back(3); });
    EXPECT_EQ(3u, queue.runPending());

    // An item that serves the queue runs the items behind it, in order, before later posts.
    std::size_t nested = 0;
    queue.post([&] {
        log.push_back(4);
        queue.post([&log] { log.push_back(7); });
        nested = queue.runPending();
    });
    queue.post([&log] { log.push_back(5); });
    queue.post([&log] { log.push_back(6); });
    EXPECT_EQ(1u, queue.runPending());
    EXPECT_EQ(3u, nested);
    EXPECT_EQ((std::vector<int> {0, 1, 2, 3, 4, 5, 6, 7}), log);
    EXPECT_FALSE(readable(descriptor));
}

TEST(MainQueue, RunForAndRunUntilServeAndTimeOut)
{
    auto& queue = VelmorMainQueue::mainQueue();
    queue.runPending();
    std::atomic<bool> done {false};
    std::thread poster([&] {
        std::this_thread::sleep_for(20ms);
        queue.post([&] { done = true; });
    });
    EXPECT_TRUE(queue.runUntil([&] { return done.load(); }, 5s));  // woken by the post, not the timeout
    poster.join();

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(queue.runUntil([] { return false; }, 30ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);

    int ran = 0;
    queue.post([&] { ++ran; });
    start = std::chrono::steady_clock::now();
    queue.runFor(20ms);
    EXPECT_EQ(1, ran);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);

    // "Forever" must not overflow the deadline.
    queue.post([&] { ++ran; });
    EXPECT_TRUE(queue.runUntil([&] { return ran == 2; }, std::chrono::nanoseconds::max()));
}

TEST(MainQueue, ServingEndsOnTimeUnderABacklogThatNeverEmpties)
{
    auto& queue = VelmorMainQueue::mainQueue();
    queue.runPending();
    // Each item posts the next, so the queue is never empty while it is served.
    std::atomic<long> ran {0};
    bool keepGoing = true;
    std::function<void()> again = [&] {
        ++ran;
        if (keepGoing)
            queue.post(again);
    };
    queue.post(again);
    auto start = std::chrono::steady_clock::now();
    queue.runFor(30ms);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 30ms);
    EXPECT_LT(took, 2s);
    EXPECT_GT(ran.load(), 1);

    // Nothing runs when the time is already up.
    const long before = ran.load();
    EXPECT_FALSE(queue.runUntil([] { return false; }, 0ms));
    EXPECT_EQ(before, ran.load());
    keepGoing = false;
    queue.runPending();  // the one item still waiting refers to this frame
}

TEST(Once, RunsOnceAndLatecomersWaitForTheEnd)
{
    static VelmorOnceToken token;
    std::atomic<int> runs {0};
    std::atomic<bool> finished {false};
    std::atomic<int> sawUnfinished {0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t) {
        callers.emplace_back([&] {
            VelmorOnce(token, [&] {
                ++runs;
                std::this_thread::sleep_for(20ms);
                finished = true;
            });
            if (!finished)
                ++sawUnfinished;
        });
    }
    for (auto& caller : callers)
        caller.join();
    EXPECT_EQ(1, runs.load());
    EXPECT_EQ(0, sawUnfinished.load());
}

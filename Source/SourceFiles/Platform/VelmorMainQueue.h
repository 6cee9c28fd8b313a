#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>

// One piece of work for the main queue. The queue links items through the item itself, so posting one
// allocates nothing; what it does and how it is freed are the item's.
class VelmorMainQueueItem {
public:
    // Runs on the main thread.
    virtual void run() = 0;
    // Called once on the main thread after run(): the item is the queue's until then.
    virtual void release() { delete this; }

protected:
    virtual ~VelmorMainQueueItem() = default;

private:
    friend class VelmorMainQueue;
    VelmorMainQueueItem* next_ = nullptr;
};

// The queue to the main thread. Any thread posts without waiting; the application's main thread serves
// the queue, and items run there one at a time, first in first out. A posted item owns what it captured
// (its target and arguments) until it has run.
//
// Beside the items in order there is a lane for reports that must not wait behind a backlog (input
// lost under overload): an urgent item runs before the next item in order.
//
// Serving: runPending() for an application that polls, runFor()/runUntil() for one that has nothing
// else to do, or fileDescriptor() in the application's own poll loop or GUI toolkit: it is readable
// while work is pending, and runPending() drains it.
class VelmorMainQueue {
public:
    using Work = std::function<void()>;

    static VelmorMainQueue& mainQueue();

    void post(Work work);
    void post(VelmorMainQueueItem* item);
    void postUrgent(Work work);

    // Runs the items that are pending now (not those they post) and returns how many ran.
    std::size_t runPending();
    // Serves the queue for `duration`, sleeping while it is empty.
    void runFor(std::chrono::nanoseconds duration);
    // Serves the queue until `condition` holds or `timeout` has passed; returns the condition's last answer.
    bool runUntil(const std::function<bool()>& condition, std::chrono::nanoseconds timeout);
    // Readable while work is pending. The descriptor is kept up to date only from the first call on, so
    // that a queue served without it pays no system call per post.
    int fileDescriptor() const;
    std::size_t pendingCount() const;
    // Counts the server's passes: it takes every item pending at once, and a pass ends when it has run
    // them. Main thread.
    std::uint64_t passCount() const { return passes_; }

    VelmorMainQueue(const VelmorMainQueue&) = delete;
    VelmorMainQueue& operator=(const VelmorMainQueue&) = delete;

private:
    // A list linked through the items.
    struct List {
        VelmorMainQueueItem* head = nullptr;
        VelmorMainQueueItem* tail = nullptr;
        std::size_t size = 0;
        void push(VelmorMainQueueItem* item);
        VelmorMainQueueItem* pop();
        bool empty() const { return head == nullptr; }
    };

    VelmorMainQueue();
    void push(VelmorMainQueueItem* item, bool urgent);
    bool runOne();
    void setSignalled(bool signalled) const;  // caller holds mutex_
    // Sleeps until a poster moves wakeSequence_ on from `sequence`, or `deadline`; false when the
    // deadline passed.
    bool sleepUntil(std::uint32_t sequence, std::chrono::steady_clock::time_point deadline);

    // The serving side takes every pending item under one lock and runs them from `taken_` before it
    // looks at `items_` again, so that posters and the server meet once per batch. Lock order:
    // servingMutex_, then mutex_.
    mutable std::mutex servingMutex_;
    List taken_;  // guarded by servingMutex_; older than every item in items_
    mutable std::mutex mutex_;
    std::atomic<std::uint32_t> wakeSequence_ {0};  // moved on by a poster that wakes the server
    List items_;   // guarded by mutex_, as are urgent_ and signalled_; sleeping_ is written under it
    List urgent_;
    std::atomic<bool> urgentPending_ {false};  // !urgent_.empty(), for a look without the lock
    std::atomic<bool> sleeping_ {false};  // the server sleeps on wakeSequence_: a poster wakes it and clears it
    std::uint64_t passes_ = 0;  // guarded by servingMutex_
    int eventFd_ = -1;
    mutable bool signalled_ = false;
    mutable bool descriptorWanted_ = false;  // written under both mutexes, read under either
};

// Shorthands for the process's queue.
inline void VelmorPerformOnMainThread(VelmorMainQueue::Work work)
{
    VelmorMainQueue::mainQueue().post(std::move(work));
}

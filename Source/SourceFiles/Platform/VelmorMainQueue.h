#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

// The queue to the main thread. Any thread posts without waiting; the application's main thread serves
// the queue, and items run there one at a time, first in first out. A posted item owns what it captured
// (its target and arguments) until it has run.
//
// Serving: runPending() for an application that polls, runFor()/runUntil() for one that has nothing
// else to do, or fileDescriptor() in the application's own poll loop or GUI toolkit: it is readable
// while work is pending, and runPending() drains it.
class VelmorMainQueue {
public:
    using Work = std::function<void()>;

    static VelmorMainQueue& mainQueue();

    void post(Work work);

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

    VelmorMainQueue(const VelmorMainQueue&) = delete;
    VelmorMainQueue& operator=(const VelmorMainQueue&) = delete;

private:
    VelmorMainQueue();
    bool runOne();
    // True when an item was posted within a short look, which stops at `deadline`.
    bool awaitPostBriefly(std::chrono::steady_clock::time_point deadline) const;
    void setSignalled(bool signalled) const;  // caller holds mutex_

    // The serving side takes every pending item under one lock and runs them from `taken_` before it
    // looks at `items_` again, so that posters and the server meet once per batch. Lock order:
    // servingMutex_, then mutex_.
    mutable std::mutex servingMutex_;
    std::deque<Work> taken_;  // guarded by servingMutex_; older than every item in items_
    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Work> items_;
    std::atomic<std::size_t> postedCount_ {0};  // items_.size(), for a look without the lock
    int eventFd_ = -1;
    mutable bool signalled_ = false;         // guarded by mutex_
    mutable bool descriptorWanted_ = false;  // written under both mutexes, read under either
};

// Shorthands for the process's queue.
inline void VelmorPerformOnMainThread(VelmorMainQueue::Work work)
{
    VelmorMainQueue::mainQueue().post(std::move(work));
}

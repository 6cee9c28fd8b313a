#pragma once

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
    void setSignalled(bool signalled) const;  // caller holds mutex_

    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Work> items_;
    int eventFd_ = -1;
    mutable bool signalled_ = false;         // guarded by mutex_
    mutable bool descriptorWanted_ = false;  // guarded by mutex_
};

// Shorthands for the process's queue.
inline void VelmorPerformOnMainThread(VelmorMainQueue::Work work)
{
    VelmorMainQueue::mainQueue().post(std::move(work));
}

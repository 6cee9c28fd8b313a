#include "VelmorMainQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

VelmorMainQueue& VelmorMainQueue::mainQueue()
{
    static VelmorMainQueue* queue = new VelmorMainQueue;  // never destroyed: platform threads may post late
    return *queue;
}

VelmorMainQueue::VelmorMainQueue() : eventFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

int VelmorMainQueue::fileDescriptor() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!descriptorWanted_) {
        descriptorWanted_ = true;
        setSignalled(!items_.empty());
    }
    return eventFd_;
}

void VelmorMainQueue::setSignalled(bool signalled) const
{
    if (!descriptorWanted_ || signalled == signalled_ || eventFd_ < 0)
        return;
    signalled_ = signalled;
    std::uint64_t value = 1;
    if (signalled) {
        [[maybe_unused]] auto written = ::write(eventFd_, &value, sizeof value);
    } else {
        [[maybe_unused]] auto read = ::read(eventFd_, &value, sizeof value);
    }
}

void VelmorMainQueue::post(Work work)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(work));
        setSignalled(true);
    }
    posted_.notify_one();
}

bool VelmorMainQueue::runOne()
{
    Work work;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (items_.empty())
            return false;
        work = std::move(items_.front());
        items_.pop_front();
        if (items_.empty())
            setSignalled(false);
    }
    work();
    return true;
}

std::size_t VelmorMainQueue::runPending()
{
    std::size_t pending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending = items_.size();
    }
    std::size_t ran = 0;
    while (ran < pending && runOne())
        ++ran;
    return ran;
}

void VelmorMainQueue::runFor(std::chrono::nanoseconds duration)
{
    runUntil([] { return false; }, duration);
}

bool VelmorMainQueue::runUntil(const std::function<bool()>& condition, std::chrono::nanoseconds timeout)
{
    // A long timeout means "forever"; adding it to now must not overflow.
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = timeout >= std::chrono::steady_clock::time_point::max() - now
                              ? std::chrono::steady_clock::time_point::max()
                              : now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(timeout);
    for (;;) {
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            break;
        if (runOne())
            continue;
        std::unique_lock<std::mutex> lock(mutex_);
        if (items_.empty()) {
            if (posted_.wait_until(lock, deadline, [this] { return !items_.empty(); }) == false)
                break;
        }
    }
    return condition();
}

std::size_t VelmorMainQueue::pendingCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.size();
}

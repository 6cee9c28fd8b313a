#include "VelmorMainQueue.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/eventfd.h>
#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace {

struct WorkItem final : VelmorMainQueueItem {
    explicit WorkItem(VelmorMainQueue::Work w) : work(std::move(w)) {}
    void run() override { work(); }
    VelmorMainQueue::Work work;
};

} // namespace

void VelmorMainQueue::List::push(VelmorMainQueueItem* item)
{
    item->next_ = nullptr;
    if (tail)
        tail->next_ = item;
    else
        head = item;
    tail = item;
    ++size;
}

VelmorMainQueueItem* VelmorMainQueue::List::pop()
{
    VelmorMainQueueItem* item = head;
    if (!item)
        return nullptr;
    head = item->next_;
    if (!head)
        tail = nullptr;
    item->next_ = nullptr;
    --size;
    return item;
}

VelmorMainQueue& VelmorMainQueue::mainQueue()
{
    static VelmorMainQueue* queue = new VelmorMainQueue;  // never destroyed: platform threads may post late
    return *queue;
}

VelmorMainQueue::VelmorMainQueue() : eventFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

int VelmorMainQueue::fileDescriptor() const
{
    std::lock_guard<std::mutex> serving(servingMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!descriptorWanted_) {
        descriptorWanted_ = true;
        setSignalled(!items_.empty() || !urgent_.empty() || !taken_.empty());
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
    push(new WorkItem(std::move(work)), false);
}

void VelmorMainQueue::post(VelmorMainQueueItem* item)
{
    if (item)
        push(item, false);
}

void VelmorMainQueue::postUrgent(Work work)
{
    push(new WorkItem(std::move(work)), true);
}

void VelmorMainQueue::push(VelmorMainQueueItem* item, bool urgent)
{
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (urgent) {
            urgent_.push(item);
            urgentPending_.store(true, std::memory_order_release);
        } else {
            items_.push(item);
        }
        setSignalled(true);
        // Only a sleeping server needs the kernel's help; a busy one finds the item by itself.
        wake = sleeping_.load(std::memory_order_relaxed);
        if (wake) {
            sleeping_.store(false, std::memory_order_release);
            wakeSequence_.fetch_add(1, std::memory_order_release);
        }
    }
    if (wake)
        syscall(SYS_futex, &wakeSequence_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool VelmorMainQueue::runOne()
{
    VelmorMainQueueItem* item = nullptr;
    {
        std::lock_guard<std::mutex> serving(servingMutex_);
        if (urgentPending_.load(std::memory_order_acquire)) {
            std::lock_guard<std::mutex> lock(mutex_);
            item = urgent_.pop();
            urgentPending_.store(!urgent_.empty(), std::memory_order_relaxed);
        }
        if (!item) {
            if (taken_.empty()) {
                std::lock_guard<std::mutex> lock(mutex_);
                if (items_.empty())
                    return false;
                std::swap(taken_, items_);
                ++passes_;
            }
            item = taken_.pop();
        }
        if (taken_.empty() && descriptorWanted_) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (items_.empty() && urgent_.empty())
                setSignalled(false);
        }
    }
    item->run();
    item->release();
    return true;
}

std::size_t VelmorMainQueue::runPending()
{
    const std::size_t pending = pendingCount();
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
    // The clock is read every few items of a backlog and not at all around a sleep (the wait's own
    // deadline ends it): one event at a time, clock reads were a good part of the hop.
    constexpr unsigned kItemsBetweenClockReads = 16;
    unsigned sinceClockRead = kItemsBetweenClockReads;
    for (;;) {
        if (condition())
            return true;
        if (sinceClockRead >= kItemsBetweenClockReads) {
            if (std::chrono::steady_clock::now() >= deadline)
                break;
            sinceClockRead = 0;
        }
        if (runOne()) {
            ++sinceClockRead;
            continue;
        }
        // No spinning: on one processor a look-ahead loop takes time from the thread that feeds us.
        std::unique_lock<std::mutex> lock(mutex_);
        if (!items_.empty() || !urgent_.empty())
            continue;
        sleeping_.store(true, std::memory_order_relaxed);
        const std::uint32_t sequence = wakeSequence_.load(std::memory_order_relaxed);
        lock.unlock();
        const bool woken = sleepUntil(sequence, deadline);
        if (woken && !sleeping_.load(std::memory_order_acquire))
            continue;  // a poster woke us and cleared the flag
        lock.lock();
        sleeping_.store(false, std::memory_order_relaxed);
        if (!woken && items_.empty() && urgent_.empty())
            break;
    }
    return condition();
}

// A futex on the wake sequence rather than a condition variable: a woken server takes no mutex before
// it serves, and reads no clock. A post between the unlock and the wait changes the sequence, so the wait
// returns at once.
bool VelmorMainQueue::sleepUntil(std::uint32_t sequence, std::chrono::steady_clock::time_point deadline)
{
    timespec when {};
    const timespec* timeout = nullptr;
    if (deadline != std::chrono::steady_clock::time_point::max()) {
        const auto since = deadline.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        when.tv_sec = static_cast<time_t>(seconds.count());
        when.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count());
        timeout = &when;
    }
    // An absolute time on the monotonic clock, which is steady_clock's.
    const long result = syscall(SYS_futex, &wakeSequence_, FUTEX_WAIT_BITSET_PRIVATE, sequence, timeout, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
    return !(result == -1 && errno == ETIMEDOUT);
}

std::size_t VelmorMainQueue::pendingCount() const
{
    std::lock_guard<std::mutex> serving(servingMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    return taken_.size + items_.size + urgent_.size;
}

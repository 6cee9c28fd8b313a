#include "VelmorHostClock.h"

#include <ctime>

// 24 MHz: 125 ns are 3 ticks.
std::uint64_t AudioConvertHostTimeToNanos(std::uint64_t hostTime)
{
    return hostTime / 3 * 125 + (hostTime % 3) * 125 / 3;
}

std::uint64_t AudioConvertNanosToHostTime(std::uint64_t nanos)
{
    // Rounds up, which makes it the exact inverse of the floor above.
    return nanos / 125 * 3 + ((nanos % 125) * 3 + 124) / 125;
}

namespace {
thread_local std::uint64_t latestOnThisThread = 0;
}

std::uint64_t VelmorLatestHostTimeOnThisThread()
{
    return latestOnThisThread;
}

std::uint64_t AudioGetCurrentHostTime()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t nanos = std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
    latestOnThisThread = nanos / 125 * 3 + (nanos % 125) * 3 / 125;
    return latestOnThisThread;
}

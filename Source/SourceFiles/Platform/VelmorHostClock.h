#pragma once

#include <cstdint>

// The host clock. A tick is 1/24,000,000 s, so ticks and nanoseconds differ and a mix-up of the two
// shows in tests. The clock is monotonic.
std::uint64_t AudioGetCurrentHostTime();
std::uint64_t AudioConvertHostTimeToNanos(std::uint64_t hostTime);
// The inverse of the call above: AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(t)) == t.
std::uint64_t AudioConvertNanosToHostTime(std::uint64_t nanos);

// The latest time AudioGetCurrentHostTime gave on the calling thread (0 before the first call). A time
// stamp at or before it is in the past: a service may decide so without reading the clock again.
std::uint64_t VelmorLatestHostTimeOnThisThread();

#pragma once

#include <cstdint>

// The host clock. A tick is 1/24,000,000 s, so ticks and nanoseconds differ and a mix-up of the two
// shows in tests. The clock is monotonic.
std::uint64_t AudioGetCurrentHostTime();
std::uint64_t AudioConvertHostTimeToNanos(std::uint64_t hostTime);
// The inverse of the call above: AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(t)) == t.
std::uint64_t AudioConvertNanosToHostTime(std::uint64_t nanos);

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// The failure line: "<date time> [File.cpp:LINE] message\n" on standard error, UTF-8, flushed at once.
// Every failure and the four informational lines go through VelmorWriteLine.
void VelmorWriteLine(const char* file, int line, std::string_view message);

// Where lines go. The default sink writes to standard error; tests install their own to capture the
// finished lines. Returns the sink that was in place. Pass nullptr to restore standard error.
using VelmorLineSink = std::function<void(const std::string& line)>;
VelmorLineSink VelmorSetLineSink(VelmorLineSink sink);

// "%s failed" and "%s failed with %@".
std::string VelmorFailedMessage(std::string_view condition);
std::string VelmorFailedWithMessage(std::string_view condition, std::string_view with);
std::string VelmorFailedWithMessage(std::string_view condition, std::int64_t status);

#define VELMOR_LINE(message) VelmorWriteLine(__FILE__, __LINE__, (message))
#define VELMOR_FAILED(condition) VelmorWriteLine(__FILE__, __LINE__, VelmorFailedMessage(condition))
#define VELMOR_FAILED_WITH(condition, with) \
    VelmorWriteLine(__FILE__, __LINE__, VelmorFailedWithMessage((condition), (with)))

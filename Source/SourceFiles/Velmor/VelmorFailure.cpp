#include "VelmorFailure.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

// Never destroyed: a line may come from a service thread, or from a destructor, while the process exits.
std::mutex& sinkMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

VelmorLineSink& currentSink()
{
    static auto* sink = new VelmorLineSink;
    return *sink;
}

std::string dateAndTime()
{
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local {};
    localtime_r(&seconds, &local);
    char buffer[64];
    const std::size_t used = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(buffer + used, sizeof buffer - used, ".%03d", static_cast<int>(millis));
    return buffer;
}

std::string_view lastPathComponent(const char* file)
{
    std::string_view path(file ? file : "");
    const auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

} // namespace

void VelmorWriteLine(const char* file, int line, std::string_view message)
{
    std::string text = dateAndTime();
    text += " [";
    text += lastPathComponent(file);
    text += ':';
    text += std::to_string(line);
    text += "] ";
    text += message;
    text += '\n';

    // One lock for the whole line so that lines from several threads never interleave.
    std::lock_guard<std::mutex> lock(sinkMutex());
    if (currentSink()) {
        currentSink()(text);
        return;
    }
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

VelmorLineSink VelmorSetLineSink(VelmorLineSink sink)
{
    std::lock_guard<std::mutex> lock(sinkMutex());
    VelmorLineSink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

std::string VelmorFailedMessage(std::string_view condition)
{
    return std::string(condition) + " failed";
}

std::string VelmorFailedWithMessage(std::string_view condition, std::string_view with)
{
    return std::string(condition) + " failed with " + std::string(with);
}

std::string VelmorFailedWithMessage(std::string_view condition, std::int64_t status)
{
    return VelmorFailedWithMessage(condition, std::to_string(status));
}

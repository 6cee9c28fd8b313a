#pragma once

// Helpers for the tests of the client and the object wrappers: the in-process service, the main
// queue served on demand, captured failure lines and recorded notifications.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorFailure.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorNotificationCenter.h"

namespace ObjectTestSupport {

inline VelmorPlatform::VelmorInProcessMIDIService& service()
{
    static const auto shared = VelmorPlatform::VelmorInProcessMIDIService::sharedService();
    return *shared;
}

// Lets every callback the service has queued run, then serves the main queue until it is empty.
inline void deliverPending()
{
    service().waitUntilIdle();
    while (VelmorMainQueue::mainQueue().runPending() > 0) {
    }
}

// Captures failure lines while it lives; messages() gives each as "File.cpp: message".
class CapturedLines {
public:
    CapturedLines()
    {
        VelmorSetLineSink([this](const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        });
    }
    ~CapturedLines() { VelmorSetLineSink(nullptr); }

    std::vector<std::string> messages() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> result;
        for (const auto& line : lines_) {
            const auto open = line.find(" [");
            const auto colon = line.find(':', open);
            const auto close = line.find("] ", open);
            if (open == std::string::npos || colon == std::string::npos || close == std::string::npos) {
                result.push_back("malformed: " + line);
                continue;
            }
            std::string message = line.substr(close + 2);
            if (!message.empty() && message.back() == '\n')
                message.pop_back();
            result.push_back(line.substr(open + 2, colon - open - 2) + ": " + message);
        }
        return result;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// Records the notifications of the given names, in order of arrival.
class NotificationRecorder {
public:
    explicit NotificationRecorder(std::initializer_list<std::string_view> names)
    {
        for (auto name : names) {
            VelmorNotificationCenter::defaultCenter().addObserver(
                this, std::string(name), [this](const VelmorNotification& notification) {
                    notifications.push_back(notification);
                });
        }
    }
    ~NotificationRecorder() { VelmorNotificationCenter::defaultCenter().removeObserver(this); }
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    // How many of `name` were posted with `object` as their object.
    std::size_t count(std::string_view name, const VelmorRootObject* object) const
    {
        std::size_t found = 0;
        for (const auto& notification : notifications)
            found += notification.name == name && notification.object.get() == object;
        return found;
    }

    std::vector<VelmorNotification> notifications;
};

} // namespace ObjectTestSupport

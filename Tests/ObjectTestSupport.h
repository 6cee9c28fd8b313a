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

using namespace VelmorPlatform;

inline VelmorInProcessMIDIService& service()
{
    static const auto shared = VelmorInProcessMIDIService::sharedService();
    return *shared;
}

// Hands every call to the in-process service; a test overrides the calls it wants to fail otherwise.
// Made current with setCurrentService() before the first client; the control surface stays on inner.
class ForwardingService : public VelmorMIDIService {
public:
    std::shared_ptr<VelmorInProcessMIDIService> inner = VelmorInProcessMIDIService::sharedService();
    const char* serviceName() const override { return "forwarding"; }
    OSStatus getStringProperty(MIDIObjectRef o, std::string_view p, std::optional<std::string>* s) override { return inner->getStringProperty(o, p, s); }
    OSStatus clientCreate(std::string_view n, MIDINotifyProc f, void* c, MIDIClientRef* r) override { return inner->clientCreate(n, f, c, r); }
    OSStatus clientDispose(MIDIClientRef c) override { return inner->clientDispose(c); }
    OSStatus inputPortCreate(MIDIClientRef c, std::string_view n, MIDIReadProc f, void* x, MIDIPortRef* r) override { return inner->inputPortCreate(c, n, f, x, r); }
    OSStatus outputPortCreate(MIDIClientRef c, std::string_view n, MIDIPortRef* r) override { return inner->outputPortCreate(c, n, r); }
    OSStatus portConnectSource(MIDIPortRef p, MIDIEndpointRef e, void* x) override { return inner->portConnectSource(p, e, x); }
    OSStatus portDisconnectSource(MIDIPortRef p, MIDIEndpointRef e) override { return inner->portDisconnectSource(p, e); }
    OSStatus portDispose(MIDIPortRef p) override { return inner->portDispose(p); }
    OSStatus sourceCreate(MIDIClientRef c, std::string_view n, MIDIEndpointRef* r) override { return inner->sourceCreate(c, n, r); }
    OSStatus endpointDispose(MIDIEndpointRef e) override { return inner->endpointDispose(e); }
    OSStatus received(MIDIEndpointRef e, const MIDIPacketList* l) override { return inner->received(e, l); }
    OSStatus send(MIDIPortRef p, MIDIEndpointRef e, const MIDIPacketList* l) override { return inner->send(p, e, l); }
    ItemCount numberOfSources() override { return inner->numberOfSources(); }
    MIDIEndpointRef source(ItemCount i) override { return inner->source(i); }
    ItemCount numberOfDestinations() override { return inner->numberOfDestinations(); }
    MIDIEndpointRef destination(ItemCount i) override { return inner->destination(i); }
    ItemCount deviceNumberOfEntities(MIDIDeviceRef d) override { return inner->deviceNumberOfEntities(d); }
    MIDIEntityRef deviceEntity(MIDIDeviceRef d, ItemCount i) override { return inner->deviceEntity(d, i); }
    ItemCount entityNumberOfSources(MIDIEntityRef e) override { return inner->entityNumberOfSources(e); }
    MIDIEndpointRef entitySource(MIDIEntityRef e, ItemCount i) override { return inner->entitySource(e, i); }
    ItemCount entityNumberOfDestinations(MIDIEntityRef e) override { return inner->entityNumberOfDestinations(e); }
    MIDIEndpointRef entityDestination(MIDIEntityRef e, ItemCount i) override { return inner->entityDestination(e, i); }
    OSStatus endpointGetEntity(MIDIEndpointRef e, MIDIEntityRef* r) override { return inner->endpointGetEntity(e, r); }
    OSStatus setStringProperty(MIDIObjectRef o, std::string_view p, std::string_view v) override { return inner->setStringProperty(o, p, v); }
    OSStatus getIntegerProperty(MIDIObjectRef o, std::string_view p, std::int32_t* v) override { return inner->getIntegerProperty(o, p, v); }
    OSStatus setIntegerProperty(MIDIObjectRef o, std::string_view p, std::int32_t v) override { return inner->setIntegerProperty(o, p, v); }
};

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

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VelmorCallbackContext.h"
#include "VelmorMIDIServices.h"
#include "VelmorRootObject.h"

// The three notifications the client turns the MIDI system's messages into. Their object is the
// client; their user information carries the keys below.
inline constexpr std::string_view VelmorClient_ObjectAddedNotification = "VelmorObjectAdded";
inline constexpr std::string_view VelmorClient_ObjectRemovedNotification = "VelmorObjectRemoved";
inline constexpr std::string_view VelmorClient_PropertyChangedNotification = "VelmorPropertyChanged";

// Added and removed: the parent's reference (unsigned, only when not 0) and the child's type (signed).
inline constexpr std::string_view VelmorParentKey = "VelmorParent";
inline constexpr std::string_view VelmorChildTypeKey = "VelmorChildType";
// Property changed: the object's reference (unsigned), its type (signed) and the property's name.
inline constexpr std::string_view VelmorObjectKey = "VelmorObject";
inline constexpr std::string_view VelmorObjectTypeKey = "VelmorObjectType";
inline constexpr std::string_view VelmorPropertyNameKey = "VelmorPropertyName";

// Our own: the service lost input on its way to an input port. Posted ahead of the waiting work (it
// must not wait behind a backlog), with the port's and the source's references (the source's 0 when
// the service can't tell) and the number of events lost (0 when the service can't tell).
inline constexpr std::string_view VelmorClient_InputDroppedNotification = "VelmorInputDropped";
inline constexpr std::string_view VelmorPortKey = "VelmorPort";
inline constexpr std::string_view VelmorSourceKey = "VelmorSource";
inline constexpr std::string_view VelmorEventsLostKey = "VelmorEventsLost";

// Registered with the MIDI service by the client. Runs on a thread of the service: it only wraps the
// message and posts its notification to the main queue, without waiting. `refCon` is the client's
// callback context; other values and unknown messages are dropped.
void VelmorNotificationCallback(const VelmorPlatform::MIDINotification* message, void* refCon);

// The process's connection to the MIDI service.
class VelmorClient : public VelmorRootObject {
public:
    // Null for a null or empty name (no platform call) and when the service refuses.
    static std::shared_ptr<VelmorClient> initWithName(const std::optional<std::string>& name);
    // Always null: a client needs a name.
    static std::shared_ptr<VelmorClient> init();
    // Disposes of the platform client, which ends the service's callbacks with this client.
    ~VelmorClient() override;

    const char* className() const override { return "VelmorClient"; }
    // "VelmorClient: <VelmorClient: 0x...>"
    std::string description() const override;

    VelmorPlatform::MIDIClientRef client() const { return client_; }
    // The context value the service calls VelmorNotificationCallback with.
    void* notificationContext() const { return context_ ? context_->reference() : nullptr; }
    void setClient(VelmorPlatform::MIDIClientRef client) { client_ = client; }

protected:
    VelmorClient() = default;
    bool constructWithName(const std::optional<std::string>& name);

private:
    VelmorPlatform::MIDIClientRef client_ = 0;
    std::shared_ptr<VelmorCallbackContext> context_;
};

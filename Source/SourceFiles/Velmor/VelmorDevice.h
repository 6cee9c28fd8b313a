#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorEntity.h"
#include "VelmorObject.h"

// Posted by a device, without user information, after its list of entities has changed.
inline constexpr std::string_view VelmorDevice_EntitiesChangedNotification = "VelmorDevice_EntitiesChanged";

// A platform MIDI device and its entities, for applications that walk the MIDI tree. The list is
// filled on first use and kept current from the MIDI system's added and removed messages. Nothing
// else in the framework makes one.
class VelmorDevice : public VelmorObject {
public:
    using EntityList = std::vector<std::shared_ptr<VelmorEntity>>;

    // Null for reference 0 (silently) and when the object can't be wrapped. Enumerates nothing.
    static std::shared_ptr<VelmorDevice> initWithDeviceRef(VelmorPlatform::MIDIDeviceRef device);
    // Always null: a device needs a platform object.
    static std::shared_ptr<VelmorDevice> init();
    // Leaves the notification center; the list goes with the device.
    ~VelmorDevice() override;

    const char* className() const override { return "VelmorDevice"; }
    // "VelmorDevice: <object text form>"
    std::string description() const override;

    // The handler of the added and removed notifications: a message that names this device as parent
    // updates the list and posts VelmorDevice_EntitiesChangedNotification if it changed.
    virtual void objectAddedRemoved(const VelmorNotification& notification);
    // Bring the list up to date with the platform; true when it changed.
    bool findEntities();

    VelmorPlatform::MIDIDeviceRef device() const { return object(); }
    // A snapshot. The first read fills the list silently.
    EntityList entities();

    // The list as kept, null until first filled. The setter stores without copying.
    const std::shared_ptr<EntityList>& mutableEntities() const { return mutableEntities_; }
    void setMutableEntities(std::shared_ptr<EntityList> list) { mutableEntities_ = std::move(list); }

protected:
    VelmorDevice() = default;
    // The object's construction, then the two registrations. Subclasses call it first.
    bool constructWithDeviceRef(VelmorPlatform::MIDIDeviceRef device);

private:
    std::shared_ptr<EntityList> mutableEntities_;
};

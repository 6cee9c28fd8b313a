#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VelmorMIDIServices.h"
#include "VelmorNotificationCenter.h"
#include "VelmorRootObject.h"

// Posted by an object, without user information, after its cached name or unique ID has changed
// because the MIDI system reported a change.
inline constexpr std::string_view VelmorObjectPropertyChangedNotification = "VelmorObjectPropertyChanged";

// The base of every wrapper of a MIDI object. Reads go to the platform while the object stands; the
// caches answer once it is closed (object 0) or when the platform says the object is gone (-50).
class VelmorObject : public VelmorRootObject {
public:
    // Null for reference 0 (silently) and for an object whose name can't be read. A requested unique
    // ID is written to the platform; when the platform refuses it the object is built all the same.
    static std::shared_ptr<VelmorObject> initWithObjectRefRequestedUniqueID(
        VelmorPlatform::MIDIObjectRef object, std::optional<std::int64_t> requestedUniqueID);
    // Always null: a wrapper needs a platform object.
    static std::shared_ptr<VelmorObject> init();
    // Leaves the notification center.
    ~VelmorObject() override;

    const char* className() const override { return "VelmorObject"; }
    // "VelmorObject: n:<name> id:0x<uniqueID as unsigned hex> <root text form>"
    std::string description() const override;

    // Sets object to 0; the caches and the observer registration stay.
    virtual void closeObject();
    // The handler of VelmorClient_PropertyChangedNotification for every object. Overrides call this first.
    virtual void objectPropertyChanged(const VelmorNotification& notification);

    virtual std::optional<std::string> name() const;
    // Null or empty does nothing. Doesn't touch cachedName: the cache follows the next read.
    virtual void setName(const std::optional<std::string>& name);
    std::int64_t uniqueID() const;

    // Plain fields: the setters only store.
    VelmorPlatform::MIDIObjectRef object() const { return object_; }
    void setObject(VelmorPlatform::MIDIObjectRef object) { object_ = object; }
    const std::optional<std::string>& cachedName() const { return cachedName_; }
    void setCachedName(const std::optional<std::string>& name) { cachedName_ = name; }
    std::int64_t cachedUniqueID() const { return cachedUniqueID_; }
    void setCachedUniqueID(std::int64_t uniqueID) { cachedUniqueID_ = uniqueID; }

protected:
    VelmorObject() = default;
    // The fallible steps of construction; registers with the notification center last. Subclasses
    // call it first from their own construct...().
    bool constructWithObjectRefRequestedUniqueID(VelmorPlatform::MIDIObjectRef object,
                                                 std::optional<std::int64_t> requestedUniqueID);

    // A string property read through a cache, as name, manufacturer and model do: the cache when
    // closed or on -50, null on any other failure or when no string came back.
    std::optional<std::string> readCachedString(std::string_view propertyID, std::optional<std::string>& cache) const;

private:
    VelmorPlatform::MIDIObjectRef object_ = 0;
    mutable std::optional<std::string> cachedName_;
    mutable std::int64_t cachedUniqueID_ = 0;
};

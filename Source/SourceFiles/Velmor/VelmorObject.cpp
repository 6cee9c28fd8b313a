#include "VelmorObject.h"

#include <cinttypes>
#include <cstdio>

#include "VelmorClient.h"
#include "VelmorFailure.h"

using namespace VelmorPlatform;

std::shared_ptr<VelmorObject> VelmorObject::initWithObjectRefRequestedUniqueID(
    MIDIObjectRef object, std::optional<std::int64_t> requestedUniqueID)
{
    std::shared_ptr<VelmorObject> wrapper(new VelmorObject);
    if (!wrapper->constructWithObjectRefRequestedUniqueID(object, requestedUniqueID))
        return nullptr;
    return wrapper;
}

std::shared_ptr<VelmorObject> VelmorObject::init()
{
    return initWithObjectRefRequestedUniqueID(0, std::nullopt);
}

bool VelmorObject::constructWithObjectRefRequestedUniqueID(MIDIObjectRef object,
                                                           std::optional<std::int64_t> requestedUniqueID)
{
    if (object == 0)
        return false;

    std::optional<std::string> name;
    const OSStatus nameStatus = MIDIObjectGetStringProperty(object, kMIDIPropertyName, &name);
    if (nameStatus != noErr) {
        VELMOR_FAILED_WITH("noErr == status", nameStatus);
        return false;
    }
    if (!name) {
        VELMOR_FAILED("name != NULL");
        return false;
    }

    // A refused unique ID leaves a usable object: uniqueID() reports what the platform holds.
    std::int32_t uniqueID = 0;
    OSStatus idStatus;
    if (requestedUniqueID) {
        uniqueID = static_cast<std::int32_t>(*requestedUniqueID);
        idStatus = MIDIObjectSetIntegerProperty(object, kMIDIPropertyUniqueID, uniqueID);
    } else {
        idStatus = MIDIObjectGetIntegerProperty(object, kMIDIPropertyUniqueID, &uniqueID);
    }
    if (idStatus == noErr)
        cachedUniqueID_ = uniqueID;
    else
        VELMOR_FAILED_WITH("noErr == status", idStatus);

    object_ = object;
    cachedName_ = std::move(name);

    // Weak: the center never keeps a wrapper alive. The handler is virtual, so a subclass's runs.
    VelmorNotificationCenter::defaultCenter().addObserver(
        std::static_pointer_cast<VelmorObject>(shared_from_this()), &VelmorObject::objectPropertyChanged,
        VelmorClient_PropertyChangedNotification);
    return true;
}

VelmorObject::~VelmorObject()
{
    VelmorNotificationCenter::defaultCenter().removeObserver(this);
}

std::string VelmorObject::description() const
{
    const auto currentName = name();
    char id[32];
    std::snprintf(id, sizeof id, "%" PRIX64, static_cast<std::uint64_t>(uniqueID()));
    return "VelmorObject: n:" + (currentName ? *currentName : std::string(VelmorNullText)) + " id:0x" + id + " " +
           rootDescription();
}

void VelmorObject::closeObject()
{
    setObject(0);
}

std::optional<std::string> VelmorObject::readCachedString(std::string_view propertyID,
                                                          std::optional<std::string>& cache) const
{
    if (object_ == 0)
        return cache;
    std::optional<std::string> value;
    const OSStatus status = MIDIObjectGetStringProperty(object_, propertyID, &value);
    if (status == noErr) {
        if (!value)
            return std::nullopt;
        // Read for every decoded event, and nearly always unchanged: compare rather than copy.
        if (cache != value)
            cache = value;
        return value;
    }
    // -50: the platform no longer knows the object; answer as a closed one would.
    if (status == kMIDIParamErr)
        return cache;
    return std::nullopt;
}

std::optional<std::string> VelmorObject::name() const
{
    return readCachedString(kMIDIPropertyName, cachedName_);
}

void VelmorObject::setName(const std::optional<std::string>& name)
{
    if (!name || name->empty())
        return;
    const OSStatus status = MIDIObjectSetStringProperty(object_, kMIDIPropertyName, *name);
    if (status != noErr)
        VELMOR_FAILED_WITH("noErr == status", status);
}

std::int64_t VelmorObject::uniqueID() const
{
    if (object_ == 0)
        return cachedUniqueID_;
    std::int32_t value = 0;
    const OSStatus status = MIDIObjectGetIntegerProperty(object_, kMIDIPropertyUniqueID, &value);
    if (status == kMIDIParamErr)
        return cachedUniqueID_;
    // Any other failure leaves 0, and so clears the cache: unlike the name.
    if (status != noErr)
        value = 0;
    cachedUniqueID_ = value;
    return cachedUniqueID_;
}

void VelmorObject::objectPropertyChanged(const VelmorNotification& notification)
{
    if (!notification.userInfo)
        return;
    const VelmorDictionary& userInfo = *notification.userInfo;
    const VelmorValue* objectValue = userInfo.objectForKey(VelmorObjectKey);
    if (!objectValue)
        return;
    const auto changedObject = objectValue->unsignedValue();
    // A closed wrapper (0) is no platform object's: nothing the platform reports concerns it.
    if (!changedObject || object_ == 0 || static_cast<MIDIObjectRef>(*changedObject) != object_)
        return;

    const VelmorValue* propertyValue = userInfo.objectForKey(VelmorPropertyNameKey);
    const auto property = propertyValue ? propertyValue->stringValue() : std::nullopt;
    if (!property)
        return;

    if (*property == kMIDIPropertyName) {
        std::optional<std::string> newName;
        const OSStatus status = MIDIObjectGetStringProperty(object_, kMIDIPropertyName, &newName);
        if (status != noErr) {
            VELMOR_FAILED_WITH("noErr == status", status);
            return;
        }
        if (!newName) {
            VELMOR_FAILED("name");
            return;
        }
        cachedName_ = std::move(newName);
    } else if (*property == kMIDIPropertyUniqueID) {
        std::int32_t value = 0;
        const OSStatus status = MIDIObjectGetIntegerProperty(object_, kMIDIPropertyUniqueID, &value);
        if (status != noErr) {
            VELMOR_FAILED_WITH("noErr == status", status);
            return;
        }
        cachedUniqueID_ = value;
    } else {
        return;
    }
    VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorObjectPropertyChangedNotification,
                                                                   shared_from_this());
}

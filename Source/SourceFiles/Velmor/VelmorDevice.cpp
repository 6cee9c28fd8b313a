#include "VelmorDevice.h"

#include "VelmorClient.h"
#include "VelmorNotificationCenter.h"

using namespace VelmorPlatform;

std::shared_ptr<VelmorDevice> VelmorDevice::initWithDeviceRef(MIDIDeviceRef device)
{
    std::shared_ptr<VelmorDevice> result(new VelmorDevice);
    if (!result->constructWithDeviceRef(device))
        return nullptr;
    return result;
}

std::shared_ptr<VelmorDevice> VelmorDevice::init()
{
    return initWithDeviceRef(0);
}

bool VelmorDevice::constructWithDeviceRef(MIDIDeviceRef device)
{
    if (!constructWithObjectRefRequestedUniqueID(device, std::nullopt))
        return false;
    // The entities are found on first use, not here.
    auto self = std::static_pointer_cast<VelmorDevice>(shared_from_this());
    auto& center = VelmorNotificationCenter::defaultCenter();
    center.addObserver(self, &VelmorDevice::objectAddedRemoved, VelmorClient_ObjectAddedNotification);
    center.addObserver(self, &VelmorDevice::objectAddedRemoved, VelmorClient_ObjectRemovedNotification);
    return true;
}

VelmorDevice::~VelmorDevice()
{
    VelmorNotificationCenter::defaultCenter().removeObserver(this);
}

std::string VelmorDevice::description() const
{
    return "VelmorDevice: " + VelmorObject::description();
}

void VelmorDevice::objectAddedRemoved(const VelmorNotification& notification)
{
    // Added or removed makes no difference: the update finds what has changed.
    if (VelmorTreeDetail::parentOf(notification) != object())
        return;
    if (findEntities())
        VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorDevice_EntitiesChangedNotification,
                                                                      shared_from_this());
}

bool VelmorDevice::findEntities()
{
    const MIDIDeviceRef device = object();
    return VelmorTreeDetail::updateChildList(
        mutableEntities_, MIDIDeviceGetNumberOfEntities(device),
        [device](ItemCount position) { return MIDIDeviceGetEntity(device, position); },
        [](MIDIEntityRef entity) { return VelmorEntity::initWithEntityRef(entity); });
}

VelmorDevice::EntityList VelmorDevice::entities()
{
    if (!mutableEntities_)
        findEntities();
    return *mutableEntities_;
}

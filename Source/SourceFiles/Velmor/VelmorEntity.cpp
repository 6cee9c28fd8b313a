#include "VelmorEntity.h"

#include "VelmorClient.h"
#include "VelmorNotificationCenter.h"

using namespace VelmorPlatform;

namespace VelmorTreeDetail {

MIDIObjectRef parentOf(const VelmorNotification& notification)
{
    if (!notification.userInfo)
        return 0;
    const VelmorValue* parent = notification.userInfo->objectForKey(VelmorParentKey);
    if (!parent)
        return 0;
    return static_cast<MIDIObjectRef>(parent->unsignedValue().value_or(0));
}

} // namespace VelmorTreeDetail

std::shared_ptr<VelmorEntity> VelmorEntity::initWithEntityRef(MIDIEntityRef entity)
{
    std::shared_ptr<VelmorEntity> result(new VelmorEntity);
    if (!result->constructWithEntityRef(entity))
        return nullptr;
    return result;
}

std::shared_ptr<VelmorEntity> VelmorEntity::init()
{
    return initWithEntityRef(0);
}

bool VelmorEntity::constructWithEntityRef(MIDIEntityRef entity)
{
    if (!constructWithObjectRefRequestedUniqueID(entity, std::nullopt))
        return false;
    // The children are found on first use, not here.
    auto self = std::static_pointer_cast<VelmorEntity>(shared_from_this());
    auto& center = VelmorNotificationCenter::defaultCenter();
    center.addObserver(self, &VelmorEntity::objectAddedRemoved, VelmorClient_ObjectAddedNotification);
    center.addObserver(self, &VelmorEntity::objectAddedRemoved, VelmorClient_ObjectRemovedNotification);
    return true;
}

VelmorEntity::~VelmorEntity()
{
    VelmorNotificationCenter::defaultCenter().removeObserver(this);
}

std::string VelmorEntity::description() const
{
    return "VelmorEntity: " + VelmorObject::description();
}

void VelmorEntity::objectAddedRemoved(const VelmorNotification& notification)
{
    // The message doesn't name the child, so any change below this entity means looking again at both
    // lists; both run even when the first has found a change.
    if (VelmorTreeDetail::parentOf(notification) != object())
        return;
    const bool destinationsChanged = findDestinations();
    const bool sourcesChanged = findSources();
    if (destinationsChanged || sourcesChanged)
        VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorEntitiy_EndpointsChangedNotification,
                                                                      shared_from_this());
}

static std::shared_ptr<VelmorEndpoint> makeEndpoint(MIDIEndpointRef endpoint)
{
    return VelmorEndpoint::initWithEndpointRefRequestedUniqueID(endpoint, std::nullopt);
}

bool VelmorEntity::findDestinations()
{
    const MIDIEntityRef entity = object();
    return VelmorTreeDetail::updateChildList(
        mutableDestinations_, MIDIEntityGetNumberOfDestinations(entity),
        [entity](ItemCount position) { return MIDIEntityGetDestination(entity, position); }, makeEndpoint);
}

bool VelmorEntity::findSources()
{
    const MIDIEntityRef entity = object();
    return VelmorTreeDetail::updateChildList(
        mutableSources_, MIDIEntityGetNumberOfSources(entity),
        [entity](ItemCount position) { return MIDIEntityGetSource(entity, position); }, makeEndpoint);
}

VelmorEntity::EndpointList VelmorEntity::destinations()
{
    if (!mutableDestinations_)
        findDestinations();
    return *mutableDestinations_;
}

VelmorEntity::EndpointList VelmorEntity::sources()
{
    if (!mutableSources_)
        findSources();
    return *mutableSources_;
}

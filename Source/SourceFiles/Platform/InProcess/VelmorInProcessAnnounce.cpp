#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

// Added, removed and property-changed records go to every client with a notify procedure, in the order
// the clients were made, on the service thread. They are queued at the end of the exclusive section that
// made the change, after the new snapshots are published.

void VelmorInProcessMIDIService::State::notifyAll(const MIDIObjectAddRemoveNotification& record,
                                                  std::string_view propertyName)
{
    std::vector<std::shared_ptr<NotifyTarget>> targets;
    for (const auto& [ref, client] : clients) {
        if (client.notify)
            targets.push_back(client.notify);
    }
    dispatcher->enqueueNotifications(targets, record, propertyName);
}

void VelmorInProcessMIDIService::State::notifyAddedRemoved(MIDINotificationMessageID messageID, const Object& child)
{
    MIDIObjectAddRemoveNotification record {};
    record.messageID = messageID;
    record.messageSize = sizeof record;
    record.parent = child.parent;
    record.parentType = kMIDIObjectType_Other;
    if (const auto* parent = find(child.parent))
        record.parentType = parent->wireType();
    record.child = child.ref;
    record.childType = child.wireType();
    changed.push_back(child.ref);
    if (child.parent)
        changed.push_back(child.parent);  // its list of children
    if (child.type == kMIDIObjectType_Source || child.type == kMIDIObjectType_Destination)
        listsChanged = true;
    pendingNotifications.push_back({record, {}});
}

void VelmorInProcessMIDIService::State::notifyPropertyChanged(const Object& object, std::string_view propertyName)
{
    MIDIObjectAddRemoveNotification record {};
    record.messageID = kMIDIMsgPropertyChanged;
    record.messageSize = sizeof(MIDIObjectPropertyChangeNotification);
    record.parent = object.ref;
    record.parentType = object.wireType();
    changed.push_back(object.ref);
    pendingNotifications.push_back({record, std::string(propertyName)});
}

std::shared_ptr<const VelmorObjectSnapshot> VelmorInProcessMIDIService::State::snapshotOf(const Object& object) const
{
    auto snapshot = std::make_shared<VelmorObjectSnapshot>();
    snapshot->type = object.type;
    snapshot->parent = object.parent;
    snapshot->uniqueID = object.uniqueID;
    snapshot->strings = object.strings;
    snapshot->entities = object.entities;
    snapshot->sources = object.sources;
    snapshot->destinations = object.destinations;
    return snapshot;
}

void VelmorInProcessMIDIService::State::endWrite()
{
    if (changed.empty() && !listsChanged && pendingNotifications.empty())
        return;
    std::sort(changed.begin(), changed.end());
    changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
    for (const auto ref : changed) {
        const Object* object = find(ref);
        snapshots.put(ref, object ? snapshotOf(*object) : nullptr);
    }
    changed.clear();
    if (listsChanged) {
        snapshots.putList(VelmorObjectSnapshots::List::Sources, sourceList);
        snapshots.putList(VelmorObjectSnapshots::List::Destinations, destinationList);
        listsChanged = false;
    }
    snapshots.publish();
    auto notifications = std::move(pendingNotifications);
    pendingNotifications.clear();
    for (const auto& pending : notifications)
        notifyAll(pending.record, pending.propertyName);
}

} // namespace VelmorPlatform

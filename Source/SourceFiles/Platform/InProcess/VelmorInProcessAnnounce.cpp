#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

// Added, removed and property-changed records go to every client with a notify procedure, in the order
// the clients were made, on the service thread.

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
    notifyAll(record);
}

void VelmorInProcessMIDIService::State::notifyPropertyChanged(const Object& object, std::string_view propertyName)
{
    MIDIObjectAddRemoveNotification record {};
    record.messageID = kMIDIMsgPropertyChanged;
    record.messageSize = sizeof(MIDIObjectPropertyChangeNotification);
    record.parent = object.ref;
    record.parentType = object.wireType();
    notifyAll(record, propertyName);
}

} // namespace VelmorPlatform

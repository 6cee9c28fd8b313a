#include "VelmorClient.h"

#include <cstring>
#include <utility>

#include "VelmorFailure.h"
#include "VelmorMainQueue.h"
#include "VelmorNotificationCenter.h"
#include "VelmorValue.h"

using namespace VelmorPlatform;

std::shared_ptr<VelmorClient> VelmorClient::initWithName(const std::optional<std::string>& name)
{
    std::shared_ptr<VelmorClient> client(new VelmorClient);
    if (!client->constructWithName(name))
        return nullptr;
    return client;
}

std::shared_ptr<VelmorClient> VelmorClient::init()
{
    return initWithName(std::nullopt);
}

bool VelmorClient::constructWithName(const std::optional<std::string>& name)
{
    if (!name || name->empty())
        return false;

    MIDIClientRef clientRef = 0;
    // The service holds this pointer without owning it; the destructor disposes of the platform client
    // before the object goes, which ends the service's use of it. It is passed as the root type so
    // that the callback can tell a client from any other framework object.
    void* context = static_cast<VelmorRootObject*>(this);
    const OSStatus status = MIDIClientCreate(*name, VelmorNotificationCallback, context, &clientRef);
    if (status != noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return false;
    }
    if (clientRef == 0) {
        VELMOR_FAILED("clientRef");
        return false;
    }
    client_ = clientRef;
    return true;
}

VelmorClient::~VelmorClient()
{
    // Also for a client whose construction failed, with reference 0: the status tells nothing we
    // could act on.
    MIDIClientDispose(client_);
    client_ = 0;
}

std::string VelmorClient::description() const
{
    return "VelmorClient: " + rootDescription();
}

void VelmorNotificationCallback(const MIDINotification* message, void* refCon)
{
    if (!message || !refCon || VelmorPlatform::processIsExiting())
        return;
    auto* client = dynamic_cast<VelmorClient*>(static_cast<VelmorRootObject*>(refCon));
    if (!client)
        return;

    std::string_view name;
    VelmorDictionary userInfo;
    switch (message->messageID) {
    case kMIDIMsgPropertyChanged: {
        const auto* change = reinterpret_cast<const MIDIObjectPropertyChangeNotification*>(message);
        name = VelmorClient_PropertyChangedNotification;
        userInfo.setObjectForKey(VelmorValue(static_cast<std::uint32_t>(change->object)), VelmorObjectKey);
        userInfo.setObjectForKey(VelmorValue(static_cast<std::int32_t>(change->objectType)), VelmorObjectTypeKey);
        // The record's string lives for this call only: the notification keeps a copy.
        userInfo.setObjectForKey(VelmorValue(std::string(change->propertyName ? change->propertyName : "")),
                                 VelmorPropertyNameKey);
        break;
    }
    case kMIDIMsgObjectRemoved:
    case kMIDIMsgObjectAdded: {
        const auto* change = reinterpret_cast<const MIDIObjectAddRemoveNotification*>(message);
        name = message->messageID == kMIDIMsgObjectAdded ? VelmorClient_ObjectAddedNotification
                                                         : VelmorClient_ObjectRemovedNotification;
        if (change->parent != 0)
            userInfo.setObjectForKey(VelmorValue(static_cast<std::uint32_t>(change->parent)), VelmorParentKey);
        userInfo.setObjectForKey(VelmorValue(static_cast<std::int32_t>(change->childType)), VelmorChildTypeKey);
        break;
    }
    default:
        return;
    }

    // A client being destroyed has no owner left: its messages have nobody to reach. Otherwise the
    // queued item keeps the client alive until it has posted, and any last release happens on the
    // main thread.
    auto strongClient = std::static_pointer_cast<VelmorClient>(client->weak_from_this().lock());
    if (!strongClient)
        return;
    VelmorNotification notification{std::string(name), std::move(strongClient), std::move(userInfo)};
    VelmorPerformOnMainThread([notification = std::move(notification)] {
        VelmorNotificationCenter::defaultCenter().postNotification(notification);
    });
}

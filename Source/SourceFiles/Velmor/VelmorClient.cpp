#include "VelmorClient.h"

#include <cstring>
#include <utility>

#include "VelmorFailure.h"
#include "VelmorMainQueue.h"
#include "VelmorNotificationCenter.h"
#include "VelmorValue.h"

using namespace VelmorPlatform;

namespace {

// Told apart from the contexts of ports and connections.
struct ClientContext final : VelmorCallbackContext {
    using VelmorCallbackContext::VelmorCallbackContext;
};

} // namespace

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
    // The service holds the context without owning it, and may call with it until MIDIClientDispose
    // has said noErr: the destructor frees it only then.
    context_ = std::make_shared<ClientContext>(weak_from_this());
    const OSStatus status = MIDIClientCreate(*name, VelmorNotificationCallback, context_->reference(), &clientRef);
    if (status != noErr) {
        context_.reset();  // the service refused it, and holds nothing
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
    // Also for a client whose construction failed, with reference 0. The status decides only what
    // becomes of the context.
    const OSStatus status = MIDIClientDispose(client_);
    client_ = 0;
    VelmorCallbackContext::end(std::move(context_), status == noErr);
}

std::string VelmorClient::description() const
{
    return "VelmorClient: " + rootDescription();
}

void VelmorNotificationCallback(const MIDINotification* message, void* refCon)
{
    if (!message || VelmorPlatform::processIsExiting())
        return;
    auto* context = VelmorCallbackContext::fromReference<ClientContext>(refCon);
    if (!context)
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
    case kMIDIMsgVelmorInputDropped: {
        if (message->messageSize < sizeof(MIDIInputDroppedNotification))
            return;
        const auto* drop = reinterpret_cast<const MIDIInputDroppedNotification*>(message);
        name = VelmorClient_InputDroppedNotification;
        userInfo.setObjectForKey(VelmorValue(static_cast<std::uint32_t>(drop->port)), VelmorPortKey);
        userInfo.setObjectForKey(VelmorValue(static_cast<std::uint32_t>(drop->source)), VelmorSourceKey);
        userInfo.setObjectForKey(VelmorValue(static_cast<std::uint64_t>(drop->eventsLost)), VelmorEventsLostKey);
        break;
    }
    default:
        return;
    }

    // A client that is gone or going has nobody left to reach. Otherwise the queued item keeps the
    // client alive until it has posted, and the last release happens on the main thread.
    auto client = context->object<VelmorClient>();
    if (!client)
        return;
    const bool urgent = message->messageID == kMIDIMsgVelmorInputDropped;
    VelmorNotification notification{std::string(name), std::move(client), std::move(userInfo)};
    auto post = [notification = std::move(notification)] {
        VelmorNotificationCenter::defaultCenter().postNotification(notification);
    };
    if (urgent)
        VelmorMainQueue::mainQueue().postUrgent(std::move(post));
    else
        VelmorPerformOnMainThread(std::move(post));
}

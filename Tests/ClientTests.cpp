#include <gtest/gtest.h>

#include <cstring>

#include "ObjectTestSupport.h"
#include "VelmorClient.h"

using namespace ObjectTestSupport;
using namespace VelmorPlatform;

namespace {

class NotAClient : public VelmorRootObject {
public:
    static std::shared_ptr<NotAClient> make() { return std::shared_ptr<NotAClient>(new NotAClient); }
};

const VelmorValue* value(const VelmorNotification& notification, std::string_view key)
{
    return notification.userInfo ? notification.userInfo->objectForKey(key) : nullptr;
}

} // namespace

TEST(ClientTest, RefusesWithoutNameOrWhenTheServiceFails)
{
    CapturedLines lines;
    service().resetCallCounts();
    EXPECT_EQ(VelmorClient::init(), nullptr);
    EXPECT_EQ(VelmorClient::initWithName(std::nullopt), nullptr);
    EXPECT_EQ(VelmorClient::initWithName(""), nullptr);
    EXPECT_EQ(service().callCount("MIDIClientCreate"), 0u);
    EXPECT_TRUE(lines.messages().empty());

    service().resetCallCounts();
    service().failNextCalls("MIDIClientCreate", kMIDIInvalidClient);
    EXPECT_EQ(VelmorClient::initWithName("Tests"), nullptr);
    // A failed client is disposed of too, with reference 0.
    EXPECT_EQ(service().callCount("MIDIClientDispose"), 1u);

    // Status 0 without a reference.
    class NoReferenceService : public ForwardingService {
        OSStatus clientCreate(std::string_view, MIDINotifyProc, void*, MIDIClientRef*) override { return noErr; }
    };
    auto previous = setCurrentService(std::make_shared<NoReferenceService>());
    EXPECT_EQ(VelmorClient::initWithName("Tests"), nullptr);
    setCurrentService(previous);
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{"VelmorClient.cpp: noErr == status failed with -10830",
                                                          "VelmorClient.cpp: clientRef failed"}));
}

TEST(ClientTest, ConnectsAndDisconnects)
{
    service().resetCallCounts();
    auto client = VelmorClient::initWithName("Tests");
    ASSERT_NE(client, nullptr);
    EXPECT_NE(client->client(), 0u);
    EXPECT_EQ(client->description(), "VelmorClient: <VelmorClient: " + VelmorPointerString(client.get()) + ">");

    NotificationRecorder recorder({VelmorClient_ObjectAddedNotification});
    client.reset();
    EXPECT_EQ(service().callCount("MIDIClientDispose"), 1u);
    // Nothing reaches a client that is gone.
    service().createDevice("After");
    deliverPending();
    EXPECT_TRUE(recorder.notifications.empty());
}

TEST(ClientTest, TurnsServiceMessagesIntoNotificationsInOrder)
{
    auto client = VelmorClient::initWithName("Tests");
    ASSERT_NE(client, nullptr);
    NotificationRecorder recorder({VelmorClient_ObjectAddedNotification, VelmorClient_ObjectRemovedNotification,
                                   VelmorClient_PropertyChangedNotification});

    const auto device = service().createDevice("Keys", "Acme", "K1");
    const auto entity = service().createEntity(device, "Port 1");
    const auto source = service().createSource(entity, "Out");
    ASSERT_EQ(MIDIObjectSetStringProperty(source, kMIDIPropertyName, "Renamed"), noErr);
    ASSERT_EQ(service().removeObject(source), noErr);

    // Only while the main queue is served.
    service().waitUntilIdle();
    EXPECT_TRUE(recorder.notifications.empty());
    deliverPending();

    const auto& n = recorder.notifications;
    ASSERT_EQ(n.size(), 5u);
    for (const auto& notification : n)
        EXPECT_EQ(notification.object, client);

    EXPECT_EQ(n[0].name, VelmorClient_ObjectAddedNotification);
    EXPECT_EQ(value(n[0], VelmorParentKey), nullptr);  // a device has parent 0
    EXPECT_EQ(n[0].userInfo->count(), 1u);
    EXPECT_EQ(*value(n[0], VelmorChildTypeKey), VelmorValue::signedNumber(kMIDIObjectType_Device));

    EXPECT_EQ(*value(n[2], VelmorParentKey), VelmorValue::unsignedNumber(entity));
    EXPECT_EQ(*value(n[2], VelmorChildTypeKey), VelmorValue::signedNumber(kMIDIObjectType_Source));

    EXPECT_EQ(n[3].name, VelmorClient_PropertyChangedNotification);
    EXPECT_EQ(*value(n[3], VelmorObjectKey), VelmorValue::unsignedNumber(source));
    EXPECT_EQ(*value(n[3], VelmorObjectTypeKey), VelmorValue::signedNumber(kMIDIObjectType_Source));
    EXPECT_EQ(*value(n[3], VelmorPropertyNameKey), VelmorValue(kMIDIPropertyName));

    EXPECT_EQ(n[4].name, VelmorClient_ObjectRemovedNotification);
    EXPECT_EQ(*value(n[4], VelmorParentKey), VelmorValue::unsignedNumber(entity));
    EXPECT_EQ(*value(n[4], VelmorChildTypeKey), VelmorValue::signedNumber(kMIDIObjectType_Source));
}

TEST(ClientTest, CallbackWrapsRecordsAndDropsWhatIsNotForIt)
{
    auto client = VelmorClient::initWithName("Tests");
    ASSERT_NE(client, nullptr);
    deliverPending();
    NotificationRecorder recorder({VelmorClient_ObjectAddedNotification, VelmorClient_ObjectRemovedNotification,
                                   VelmorClient_PropertyChangedNotification});
    void* context = client->notificationContext();
    auto other = NotAClient::make();

    MIDIObjectAddRemoveNotification added{kMIDIMsgObjectAdded, sizeof added, 0, 0, 7, 0x12};
    MIDINotification setupChanged{kMIDIMsgSetupChanged, sizeof setupChanged};
    VelmorNotificationCallback(nullptr, context);
    VelmorNotificationCallback(reinterpret_cast<MIDINotification*>(&added), nullptr);
    VelmorNotificationCallback(reinterpret_cast<MIDINotification*>(&added), static_cast<VelmorRootObject*>(other.get()));
    VelmorNotificationCallback(&setupChanged, context);
    EXPECT_EQ(VelmorMainQueue::mainQueue().pendingCount(), 0u);

    // The property name is copied: the record's string is gone before the queue is served. A
    // reference with the high bit set stays unsigned; a negative type stays signed.
    auto propertyName = std::make_unique<char[]>(16);
    std::strcpy(propertyName.get(), "model");
    MIDIObjectPropertyChangeNotification changed{kMIDIMsgPropertyChanged, sizeof changed, 0x80000001u,
                                                 kMIDIObjectType_Other, propertyName.get()};
    VelmorNotificationCallback(reinterpret_cast<MIDINotification*>(&changed), context);
    propertyName.reset();
    VelmorNotificationCallback(reinterpret_cast<MIDINotification*>(&added), context);

    // The queued notifications keep the client alive.
    client.reset();
    ASSERT_EQ(VelmorMainQueue::mainQueue().pendingCount(), 2u);
    deliverPending();
    ASSERT_EQ(recorder.notifications.size(), 2u);
    const auto& change = recorder.notifications[0];
    EXPECT_EQ(*value(change, VelmorObjectKey), VelmorValue::unsignedNumber(0x80000001u));
    EXPECT_EQ(*value(change, VelmorObjectTypeKey), VelmorValue::signedNumber(-1));
    EXPECT_EQ(*value(change, VelmorPropertyNameKey), VelmorValue("model"));
    EXPECT_EQ(change.userInfo->count(), 3u);
    const auto& add = recorder.notifications[1];
    EXPECT_EQ(add.name, VelmorClient_ObjectAddedNotification);
    EXPECT_FALSE(add.userInfo->containsKey(VelmorParentKey));
    EXPECT_EQ(*value(add, VelmorChildTypeKey), VelmorValue::signedNumber(0x12));
    EXPECT_EQ(add.object->className(), std::string("VelmorClient"));
}

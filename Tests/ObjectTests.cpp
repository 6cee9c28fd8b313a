#include <gtest/gtest.h>

#include "ObjectTestSupport.h"
#include "VelmorClient.h"
#include "VelmorObject.h"

using namespace ObjectTestSupport;
using namespace VelmorPlatform;

namespace {

constexpr std::string_view failedWithUnknownProperty = "VelmorObject.cpp: noErr == status failed with -10835";

// A device's source, named "Keys", with the unique ID the service gave it.
struct Wrapped {
    MIDIEndpointRef ref = service().createSimpleDevice("Keys", "Acme", "K1", true, false).source;
    std::shared_ptr<VelmorObject> object = VelmorObject::initWithObjectRefRequestedUniqueID(ref, std::nullopt);
    std::int32_t platformID() const
    {
        std::int32_t id = 0;
        MIDIObjectGetIntegerProperty(ref, kMIDIPropertyUniqueID, &id);
        return id;
    }
};

} // namespace

TEST(ObjectTest, ConstructionNeedsAReferenceAndAName)
{
    CapturedLines lines;
    service().resetCallCounts();
    EXPECT_EQ(VelmorObject::init(), nullptr);
    EXPECT_EQ(service().callCount("MIDIObjectGetStringProperty"), 0u);
    EXPECT_TRUE(lines.messages().empty());

    const auto ref = service().createSimpleDevice("Keys", "Acme", "K1", true, false).source;
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty);
    EXPECT_EQ(VelmorObject::initWithObjectRefRequestedUniqueID(ref, std::nullopt), nullptr);
    EXPECT_EQ(VelmorObject::initWithObjectRefRequestedUniqueID(0x7ffffff0, std::nullopt), nullptr);
    // Without a name nothing is built, and the requested ID is not written.
    ASSERT_EQ(service().removeStringProperty(ref, kMIDIPropertyName), noErr);
    EXPECT_EQ(VelmorObject::initWithObjectRefRequestedUniqueID(ref, 4242), nullptr);
    EXPECT_EQ(service().callCount("MIDIObjectSetIntegerProperty"), 0u);
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{std::string(failedWithUnknownProperty),
                                                          "VelmorObject.cpp: noErr == status failed with -50",
                                                          "VelmorObject.cpp: name != NULL failed"}));
}

TEST(ObjectTest, RequestedUniqueIDIsWrittenAndARefusalLeavesAUsableObject)
{
    CapturedLines lines;
    const auto ref = service().createSimpleDevice("Keys", "Acme", "K1", true, false).source;
    auto accepted = VelmorObject::initWithObjectRefRequestedUniqueID(ref, -77);
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->cachedUniqueID(), -77);
    EXPECT_EQ(accepted->uniqueID(), -77);
    EXPECT_EQ(accepted->cachedName(), "Keys");

    service().failNextCalls("MIDIObjectSetIntegerProperty", kMIDIIDNotUnique);
    auto refused = VelmorObject::initWithObjectRefRequestedUniqueID(ref, 99);
    ASSERT_NE(refused, nullptr);
    EXPECT_EQ(refused->cachedUniqueID(), 0);
    EXPECT_EQ(refused->uniqueID(), -77);  // what the platform holds

    service().failNextCalls("MIDIObjectGetIntegerProperty", kMIDIUnknownProperty);
    auto unread = VelmorObject::initWithObjectRefRequestedUniqueID(ref, std::nullopt);
    ASSERT_NE(unread, nullptr);
    EXPECT_EQ(unread->cachedUniqueID(), 0);
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{"VelmorObject.cpp: noErr == status failed with -10843",
                                                          std::string(failedWithUnknownProperty)}));
    // A negative ID shows as sixteen hex digits.
    EXPECT_NE(accepted->description().find("VelmorObject: n:Keys id:0xFFFFFFFFFFFFFFB3 <VelmorObject: 0x"),
              std::string::npos);
}

TEST(ObjectTest, GettersFallBackToTheCachesOnlyWhenClosedOrGone)
{
    Wrapped w;
    ASSERT_NE(w.object, nullptr);
    const std::int64_t id = w.platformID();
    EXPECT_EQ(w.object->uniqueID(), id);

    ASSERT_EQ(MIDIObjectSetStringProperty(w.ref, kMIDIPropertyName, "Keys 2"), noErr);
    EXPECT_EQ(w.object->name(), "Keys 2");
    EXPECT_EQ(w.object->cachedName(), "Keys 2");

    // -50: both answer from the caches.
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIParamErr);
    service().failNextCalls("MIDIObjectGetIntegerProperty", kMIDIParamErr);
    EXPECT_EQ(w.object->name(), "Keys 2");
    EXPECT_EQ(w.object->uniqueID(), id);

    // Any other status: the name is null and keeps its cache, the unique ID is 0 and so is its cache.
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty);
    service().failNextCalls("MIDIObjectGetIntegerProperty", kMIDIUnknownProperty);
    EXPECT_EQ(w.object->name(), std::nullopt);
    EXPECT_EQ(w.object->cachedName(), "Keys 2");
    EXPECT_EQ(w.object->uniqueID(), 0);
    EXPECT_EQ(w.object->cachedUniqueID(), 0);

    // No string: null, cache kept.
    ASSERT_EQ(service().removeStringProperty(w.ref, kMIDIPropertyName), noErr);
    EXPECT_EQ(w.object->name(), std::nullopt);
    EXPECT_EQ(w.object->cachedName(), "Keys 2");

    // Closed: the caches, with no platform call; the registration stays.
    ASSERT_EQ(MIDIObjectSetStringProperty(w.ref, kMIDIPropertyName, "Keys 3"), noErr);
    EXPECT_EQ(w.object->uniqueID(), id);
    w.object->closeObject();
    EXPECT_EQ(w.object->object(), 0u);
    service().resetCallCounts();
    EXPECT_EQ(w.object->name(), "Keys 2");
    EXPECT_EQ(w.object->uniqueID(), id);
    EXPECT_EQ(service().callCount("MIDIObjectGetStringProperty") + service().callCount("MIDIObjectGetIntegerProperty"),
              0u);
    EXPECT_EQ(VelmorNotificationCenter::defaultCenter().registrationCount(w.object.get()), 1u);
}

TEST(ObjectTest, SetNameWritesThroughAndLeavesTheCacheToTheNextRead)
{
    CapturedLines lines;
    Wrapped w;
    ASSERT_NE(w.object, nullptr);
    service().resetCallCounts();
    w.object->setName(std::nullopt);
    w.object->setName("");
    EXPECT_EQ(service().callCount("MIDIObjectSetStringProperty"), 0u);

    w.object->setName("Lead");
    EXPECT_EQ(w.object->cachedName(), "Keys");
    EXPECT_EQ(w.object->name(), "Lead");

    service().failNextCalls("MIDIObjectSetStringProperty", kMIDIUnknownProperty);
    w.object->setName("Bass");
    // The base class writes even when closed: the platform refuses reference 0.
    w.object->closeObject();
    w.object->setName("Bass");
    EXPECT_EQ(w.object->name(), "Lead");
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{std::string(failedWithUnknownProperty),
                                                          "VelmorObject.cpp: noErr == status failed with -50"}));
}

TEST(ObjectTest, FollowsReportedChangesOfItsOwnNameAndUniqueID)
{
    CapturedLines lines;
    auto client = VelmorClient::initWithName("Tests");
    ASSERT_NE(client, nullptr);
    Wrapped w;
    Wrapped other;
    ASSERT_NE(w.object, nullptr);
    ASSERT_NE(other.object, nullptr);
    deliverPending();
    NotificationRecorder recorder({VelmorObjectPropertyChangedNotification});

    // Another object's change, and a third property of this one, change nothing here.
    MIDIObjectSetStringProperty(other.ref, kMIDIPropertyName, "Other");
    MIDIObjectSetStringProperty(w.ref, kMIDIPropertyManufacturer, "Elsewhere");
    deliverPending();
    EXPECT_EQ(recorder.count(VelmorObjectPropertyChangedNotification, w.object.get()), 0u);
    EXPECT_EQ(w.object->cachedName(), "Keys");

    MIDIObjectSetStringProperty(w.ref, kMIDIPropertyName, "Renamed");
    MIDIObjectSetIntegerProperty(w.ref, kMIDIPropertyUniqueID, -5);
    deliverPending();
    EXPECT_EQ(recorder.count(VelmorObjectPropertyChangedNotification, w.object.get()), 2u);
    EXPECT_EQ(w.object->cachedName(), "Renamed");
    EXPECT_EQ(w.object->cachedUniqueID(), -5);
    EXPECT_FALSE(recorder.notifications.back().userInfo.has_value());

    // A failing read at the change: a line, the cache as it was, no notification.
    MIDIObjectSetStringProperty(w.ref, kMIDIPropertyName, "Third");
    service().waitUntilIdle();
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty);
    deliverPending();
    MIDIObjectSetIntegerProperty(w.ref, kMIDIPropertyUniqueID, 12);
    service().waitUntilIdle();
    service().failNextCalls("MIDIObjectGetIntegerProperty", kMIDIParamErr);
    deliverPending();
    service().removeStringProperty(w.ref, kMIDIPropertyName);
    deliverPending();
    EXPECT_EQ(w.object->cachedName(), "Renamed");
    EXPECT_EQ(w.object->cachedUniqueID(), -5);
    EXPECT_EQ(recorder.count(VelmorObjectPropertyChangedNotification, w.object.get()), 2u);
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{std::string(failedWithUnknownProperty),
                                                          "VelmorObject.cpp: noErr == status failed with -50",
                                                          "VelmorObject.cpp: name failed"}));

    // A wrapper that is gone has left the center; later changes reach nobody.
    const VelmorObject* address = w.object.get();
    recorder.notifications.clear();
    w.object.reset();
    EXPECT_EQ(VelmorNotificationCenter::defaultCenter().registrationCount(address), 0u);
    MIDIObjectSetStringProperty(w.ref, kMIDIPropertyName, "Fourth");
    deliverPending();
}

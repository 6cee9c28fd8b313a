#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "VelmorClient.h"
#include "VelmorDevice.h"
#include "VelmorEntity.h"
#include "VelmorFailure.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorNotificationCenter.h"

using namespace VelmorPlatform;
using Refs = std::vector<MIDIObjectRef>;

namespace {

class DeviceTree : public ::testing::Test {
protected:
    std::shared_ptr<VelmorInProcessMIDIService> service = VelmorInProcessMIDIService::sharedService();
    std::shared_ptr<VelmorClient> client = VelmorClient::initWithName("DeviceTreeTests");
    std::vector<std::string> lines;
    std::vector<std::pair<std::string, const void*>> posted;  // tree notifications: name, object

    void SetUp() override
    {
        ASSERT_TRUE(client);
        VelmorSetLineSink([this](const std::string& line) { lines.push_back(line); });
        for (auto name : {VelmorDevice_EntitiesChangedNotification, VelmorEntitiy_EndpointsChangedNotification})
            VelmorNotificationCenter::defaultCenter().addObserver(this, std::string(name), [this](const auto& note) {
                EXPECT_FALSE(note.userInfo);
                posted.emplace_back(note.name, note.object.get());
            });
    }
    void TearDown() override
    {
        VelmorNotificationCenter::defaultCenter().removeObserver(this);
        VelmorSetLineSink(nullptr);
    }
    // Runs every message the service has sent so far, here on the main thread.
    void deliver()
    {
        service->waitUntilIdle();
        while (VelmorMainQueue::mainQueue().runPending() > 0) {
        }
    }
    void postAdded(std::optional<VelmorDictionary> userInfo)
    {
        VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorClient_ObjectAddedNotification, client,
                                                                       std::move(userInfo));
    }
    template <class List>
    static Refs refs(const List& list)
    {
        Refs result;
        for (const auto& child : list)
            result.push_back(child->object());
        return result;
    }
    // "<date time> [VelmorObject.cpp:LINE] message": the child's own construction writes it.
    static bool isLine(std::string line, const std::string& message)
    {
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        const auto file = line.find(" [VelmorObject.cpp:");
        const auto end = line.find("] ", file);
        return file != std::string::npos && end != std::string::npos && line.substr(end + 2) == message;
    }
};

} // namespace

TEST_F(DeviceTree, ListsAreBuiltOnFirstReadOnly)
{
    EXPECT_FALSE(VelmorDevice::init());
    EXPECT_FALSE(VelmorEntity::init());
    EXPECT_TRUE(lines.empty());

    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    const MIDIEntityRef e1 = service->createEntity(deviceRef, "E1");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    auto entity = VelmorEntity::initWithEntityRef(e0);
    ASSERT_TRUE(device && entity);
    char id[32];
    std::snprintf(id, sizeof id, "%llX", static_cast<unsigned long long>(device->uniqueID()));
    EXPECT_EQ(device->description(), "VelmorDevice: VelmorObject: n:Synth id:0x" + std::string(id) + " " +
                                         device->rootDescription());
    EXPECT_EQ(entity->description().rfind("VelmorEntity: VelmorObject: n:E0 id:0x", 0), 0u);
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 0u);
    EXPECT_FALSE(device->mutableEntities());

    // All children are new at the first read, so they stand in the walk's order: the last first.
    device->entities();
    EXPECT_EQ(refs(device->entities()), (Refs{e1, e0}));
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 1u);
    EXPECT_EQ(service->callCount("MIDIDeviceGetEntity"), 2u);
    // An empty list is a list all the same: it is not enumerated again.
    entity->sources();
    EXPECT_TRUE(entity->sources().empty());
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfSources"), 1u);
    EXPECT_FALSE(entity->mutableDestinations());
    EXPECT_TRUE(posted.empty());
}

TEST_F(DeviceTree, UpdatesKeepSurvivorsInPlaceAndAppendNewChildren)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    // Two messages while the list is null: the first fills it and posts, the second finds no change.
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    const MIDIEntityRef e1 = service->createEntity(deviceRef, "E1");
    deliver();
    ASSERT_EQ(posted, (decltype(posted){{std::string(VelmorDevice_EntitiesChangedNotification), device.get()}}));
    const auto before = device->entities();
    ASSERT_EQ(refs(before), (Refs{e1, e0}));

    // One gone and one new in the same update: one notification, the survivor first, same wrapper.
    ASSERT_EQ(service->removeObject(e0), noErr);
    const MIDIEntityRef e2 = service->createEntity(deviceRef, "E2");
    deliver();
    EXPECT_EQ(posted.size(), 2u);
    EXPECT_EQ(refs(device->entities()), (Refs{e1, e2}));
    EXPECT_EQ(device->entities()[0], before[0]);
    // The old snapshot is untouched, and the dropped wrapper is not closed: it answers from its caches.
    EXPECT_EQ(refs(before), (Refs{e1, e0}));
    EXPECT_EQ(before[1]->name(), "E0");

    // Two new at once land in reverse platform order.
    const MIDIEntityRef e3 = service->createEntity(deviceRef, "E3");
    const MIDIEntityRef e4 = service->createEntity(deviceRef, "E4");
    deliver();
    EXPECT_EQ(refs(device->entities()), (Refs{e1, e2, e4, e3}));
    EXPECT_EQ(posted.size(), 3u);

    // A new name is no change to the list.
    ASSERT_EQ(MIDIObjectSetStringProperty(e1, kMIDIPropertyName, "Renamed"), noErr);
    deliver();
    EXPECT_FALSE(device->findEntities());
    EXPECT_EQ(device->entities()[0], before[0]);
    EXPECT_EQ(before[0]->name(), "Renamed");
    EXPECT_EQ(posted.size(), 3u);
}

TEST_F(DeviceTree, OnlyMessagesNamingTheObjectAsParentCauseAnUpdate)
{
    const auto simple = service->createSimpleDevice("Synth", "Acme", "S1");
    auto device = VelmorDevice::initWithDeviceRef(simple.device);
    auto entity = VelmorEntity::initWithEntityRef(simple.entity);
    deliver();  // the creation messages fill both lists
    service->resetCallCounts();
    posted.clear();

    const MIDIObjectRef other = service->createDevice("Other");
    postAdded(VelmorDictionary{{std::string(VelmorParentKey), VelmorValue(std::uint32_t(other))}});
    postAdded(VelmorDictionary{{std::string(VelmorChildTypeKey), VelmorValue(kMIDIObjectType_Entity)}});
    postAdded(std::nullopt);
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 0u);
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfSources"), 0u);
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfDestinations"), 0u);

    // Named, with nothing changed: one update and no notification.
    postAdded(VelmorDictionary{{std::string(VelmorParentKey), VelmorValue(std::uint32_t(simple.device))}});
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 1u);
    EXPECT_TRUE(posted.empty());
}

TEST_F(DeviceTree, EntityRunsBothUpdatesAndPostsOnce)
{
    const auto simple = service->createSimpleDevice("Synth", "Acme", "S1");
    auto entity = VelmorEntity::initWithEntityRef(simple.entity);
    const auto oldSource = entity->sources().at(0);
    ASSERT_EQ(entity->destinations().size(), 1u);
    deliver();
    service->resetCallCounts();

    // Only the sources change, yet the destinations are looked at too.
    const MIDIEndpointRef s2 = service->createSource(simple.entity, "Second");
    deliver();
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfDestinations"), 1u);
    EXPECT_EQ(posted, (decltype(posted){{std::string(VelmorEntitiy_EndpointsChangedNotification), entity.get()}}));
    EXPECT_EQ(refs(entity->sources()), (Refs{simple.source, s2}));
    EXPECT_EQ(entity->sources()[0], oldSource);

    // Both lists change in one update: still one notification.
    ASSERT_EQ(service->removeObject(simple.destination), noErr);
    ASSERT_EQ(service->removeObject(simple.source), noErr);
    deliver();
    EXPECT_EQ(posted.size(), 2u);
    EXPECT_TRUE(entity->destinations().empty());
    EXPECT_EQ(refs(entity->sources()), Refs{s2});
}

TEST_F(DeviceTree, AChildThatCantBeWrappedIsSkippedAndTriedAgain)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    ASSERT_TRUE(device->entities().empty());

    const MIDIEntityRef nameless = service->createEntity(deviceRef, "E0");
    ASSERT_EQ(service->removeStringProperty(nameless, kMIDIPropertyName), noErr);
    deliver();
    EXPECT_TRUE(posted.empty());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(isLine(lines[0], "name != NULL failed")) << lines[0];

    ASSERT_EQ(MIDIObjectSetStringProperty(nameless, kMIDIPropertyName, "E0"), noErr);
    service->failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty);
    EXPECT_FALSE(device->findEntities());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(isLine(lines[1], "noErr == status failed with -10835")) << lines[1];

    EXPECT_TRUE(device->findEntities());
    EXPECT_EQ(refs(device->entities()), Refs{nameless});
    EXPECT_EQ(lines.size(), 2u);
}

TEST_F(DeviceTree, DestructionFreesChildrenNobodyHolds)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    service->createEntity(deviceRef, "E1");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    std::shared_ptr<VelmorEntity> held = device->entities().at(1);
    std::weak_ptr<VelmorEntity> dropped = device->entities().at(0);
    const void* droppedKey = dropped.lock().get();

    device.reset();
    EXPECT_TRUE(dropped.expired());
    EXPECT_EQ(VelmorNotificationCenter::defaultCenter().registrationCount(droppedKey), 0u);

    // Messages for the gone device reach nothing; the held entity outlives its platform object.
    ASSERT_EQ(service->removeObject(e0), noErr);
    service->createEntity(deviceRef, "E2");
    deliver();
    EXPECT_TRUE(posted.empty());
    EXPECT_EQ(held->name(), "E0");
}

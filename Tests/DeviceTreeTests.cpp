#include <gtest/gtest.h>

#include <regex>
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

namespace {

class DeviceTree : public ::testing::Test {
protected:
    std::shared_ptr<VelmorInProcessMIDIService> service = VelmorInProcessMIDIService::sharedService();
    std::shared_ptr<VelmorClient> client = VelmorClient::initWithName("DeviceTreeTests");
    std::vector<std::string> lines;
    // Name and object of every tree notification, in order.
    std::vector<std::pair<std::string, const VelmorRootObject*>> posted;

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
    static std::vector<MIDIObjectRef> refs(const List& list)
    {
        std::vector<MIDIObjectRef> result;
        for (const auto& child : list)
            result.push_back(child->object());
        return result;
    }
    static void expectLine(const std::string& line, const std::string& message)
    {
        EXPECT_TRUE(std::regex_search(line, std::regex("\\[VelmorObject\\.cpp:[0-9]+\\] " + message + "\n?$")))
            << line;
    }
};

} // namespace

TEST_F(DeviceTree, ConstructionAndTextForms)
{
    EXPECT_FALSE(VelmorDevice::init());
    EXPECT_FALSE(VelmorEntity::init());
    EXPECT_TRUE(lines.empty());

    const MIDIDeviceRef deviceRef = service->createDevice("Synth", "Acme", "S1");
    const MIDIEntityRef entityRef = service->createEntity(deviceRef, "Port 1");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    auto entity = VelmorEntity::initWithEntityRef(entityRef);
    ASSERT_TRUE(device && entity);
    EXPECT_EQ(device->device(), deviceRef);
    EXPECT_EQ(entity->entity(), entityRef);
    EXPECT_TRUE(std::regex_match(device->description(),
                                 std::regex("VelmorDevice: VelmorObject: n:Synth id:0x[0-9A-F]+ <VelmorDevice: .+>")))
        << device->description();
    EXPECT_TRUE(std::regex_match(entity->description(),
                                 std::regex("VelmorEntity: VelmorObject: n:Port 1 id:0x[0-9A-F]+ <VelmorEntity: .+>")))
        << entity->description();
}

TEST_F(DeviceTree, ListsAreBuiltOnFirstReadOnly)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    const MIDIEntityRef e1 = service->createEntity(deviceRef, "E1");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    auto entity = VelmorEntity::initWithEntityRef(e0);
    service->resetCallCounts();

    EXPECT_FALSE(device->mutableEntities());
    EXPECT_FALSE(entity->mutableSources());
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 0u);
    EXPECT_EQ(service->callCount("MIDIDeviceGetEntity"), 0u);

    // All children are new at the first read, so they stand in the walk's order: the last first.
    EXPECT_EQ(refs(device->entities()), (std::vector<MIDIObjectRef>{e1, e0}));
    EXPECT_EQ(refs(device->entities()), (std::vector<MIDIObjectRef>{e1, e0}));
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 1u);
    EXPECT_EQ(service->callCount("MIDIDeviceGetEntity"), 2u);

    // An empty list is still a list: it is not enumerated again.
    EXPECT_TRUE(entity->sources().empty());
    EXPECT_TRUE(entity->sources().empty());
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfSources"), 1u);
    EXPECT_FALSE(entity->mutableDestinations());
    EXPECT_TRUE(posted.empty());
}

TEST_F(DeviceTree, UpdatesKeepSurvivorsInPlaceAndAppendNewChildren)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    const MIDIEntityRef e1 = service->createEntity(deviceRef, "E1");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    const auto before = device->entities();
    deliver();
    ASSERT_TRUE(posted.empty());

    // One gone and one new in the same update: one notification, the survivor first.
    ASSERT_EQ(service->removeObject(e0), noErr);
    const MIDIEntityRef e2 = service->createEntity(deviceRef, "E2");
    deliver();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0], std::make_pair(std::string(VelmorDevice_EntitiesChangedNotification),
                                        static_cast<const VelmorRootObject*>(device.get())));
    const auto after = device->entities();
    EXPECT_EQ(refs(after), (std::vector<MIDIObjectRef>{e1, e2}));
    EXPECT_EQ(after[0], before[0]);

    // The old snapshot is untouched, and the dropped wrapper is not closed: it answers from its caches.
    EXPECT_EQ(refs(before), (std::vector<MIDIObjectRef>{e1, e0}));
    EXPECT_EQ(before[1]->object(), e0);
    EXPECT_EQ(before[1]->name(), "E0");

    // Two new at once land in reverse platform order.
    const MIDIEntityRef e3 = service->createEntity(deviceRef, "E3");
    const MIDIEntityRef e4 = service->createEntity(deviceRef, "E4");
    deliver();
    EXPECT_EQ(refs(device->entities()), (std::vector<MIDIObjectRef>{e1, e2, e4, e3}));
    EXPECT_EQ(posted.size(), 2u);

    // A new name is no change to the list.
    ASSERT_EQ(MIDIObjectSetStringProperty(e1, kMIDIPropertyName, "Renamed"), noErr);
    deliver();
    EXPECT_FALSE(device->findEntities());
    EXPECT_EQ(device->entities()[0], before[0]);
    EXPECT_EQ(before[0]->name(), "Renamed");
    EXPECT_EQ(posted.size(), 2u);
}

TEST_F(DeviceTree, AMessageForANullListFillsIt)
{
    const MIDIDeviceRef deviceRef = service->createDevice("Synth");
    auto device = VelmorDevice::initWithDeviceRef(deviceRef);
    const MIDIEntityRef e0 = service->createEntity(deviceRef, "E0");
    deliver();
    ASSERT_TRUE(device->mutableEntities());
    EXPECT_EQ(refs(*device->mutableEntities()), std::vector<MIDIObjectRef>{e0});
    EXPECT_EQ(posted.size(), 1u);
}

TEST_F(DeviceTree, OnlyMessagesNamingTheObjectAsParentCauseAnUpdate)
{
    const auto simple = service->createSimpleDevice("Synth", "Acme", "S1");
    auto device = VelmorDevice::initWithDeviceRef(simple.device);
    auto entity = VelmorEntity::initWithEntityRef(simple.entity);
    service->resetCallCounts();

    const MIDIObjectRef other = service->createDevice("Other");
    postAdded(VelmorDictionary{{std::string(VelmorParentKey), VelmorValue(std::uint32_t(other))}});
    postAdded(VelmorDictionary{{std::string(VelmorChildTypeKey), VelmorValue(kMIDIObjectType_Entity)}});
    postAdded(std::nullopt);
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 0u);
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfSources"), 0u);
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfDestinations"), 0u);

    // Naming it, with nothing changed: one update, no notification.
    device->entities();
    postAdded(VelmorDictionary{{std::string(VelmorParentKey), VelmorValue(std::uint32_t(simple.device))}});
    EXPECT_EQ(service->callCount("MIDIDeviceGetNumberOfEntities"), 2u);
    EXPECT_TRUE(posted.empty());
}

TEST_F(DeviceTree, EntityRunsBothUpdatesAndPostsOnce)
{
    const auto simple = service->createSimpleDevice("Synth", "Acme", "S1");
    auto entity = VelmorEntity::initWithEntityRef(simple.entity);
    const auto oldSource = entity->sources().at(0);
    ASSERT_EQ(entity->destinations().size(), 1u);
    service->resetCallCounts();

    // Only the sources change, yet the destinations are looked at too.
    const MIDIEndpointRef s2 = service->createSource(simple.entity, "Second");
    deliver();
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfDestinations"), 1u);
    EXPECT_EQ(service->callCount("MIDIEntityGetNumberOfSources"), 1u);
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0], std::make_pair(std::string(VelmorEntitiy_EndpointsChangedNotification),
                                        static_cast<const VelmorRootObject*>(entity.get())));
    EXPECT_EQ(refs(entity->sources()), (std::vector<MIDIObjectRef>{simple.source, s2}));
    EXPECT_EQ(entity->sources()[0], oldSource);

    // Both lists change in one update: still one notification.
    ASSERT_EQ(service->removeObject(simple.destination), noErr);
    ASSERT_EQ(service->removeObject(simple.source), noErr);
    deliver();
    EXPECT_EQ(posted.size(), 2u);
    EXPECT_TRUE(entity->destinations().empty());
    EXPECT_EQ(refs(entity->sources()), std::vector<MIDIObjectRef>{s2});
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
    expectLine(lines[0], "name != NULL failed");

    service->failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty);
    ASSERT_EQ(MIDIObjectSetStringProperty(nameless, kMIDIPropertyName, "E0"), noErr);
    EXPECT_FALSE(device->findEntities());
    ASSERT_EQ(lines.size(), 2u);
    expectLine(lines[1], "noErr == status failed with -10835");

    EXPECT_TRUE(device->findEntities());
    EXPECT_EQ(refs(device->entities()), std::vector<MIDIObjectRef>{nameless});
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
    const void* deviceKey = device.get();
    const void* droppedKey = dropped.lock().get();

    device.reset();
    EXPECT_TRUE(dropped.expired());
    auto& center = VelmorNotificationCenter::defaultCenter();
    EXPECT_EQ(center.registrationCount(deviceKey), 0u);
    EXPECT_EQ(center.registrationCount(droppedKey), 0u);

    // Messages for the gone device reach nothing; the held entity outlives its platform object.
    ASSERT_EQ(service->removeObject(e0), noErr);
    service->createEntity(deviceRef, "E2");
    deliver();
    EXPECT_TRUE(posted.empty());
    EXPECT_EQ(held->object(), e0);
    EXPECT_EQ(held->name(), "E0");
}

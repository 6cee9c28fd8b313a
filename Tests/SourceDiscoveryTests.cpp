// Source discovery: one stable object per platform source, groups and indices, notifications in their
// order, the search rules; and what a source says about itself.

#include <gtest/gtest.h>

#include "ReceiveTestSupport.h"

using namespace VelmorReceiveTest;
using VelmorTest::CapturedLines;

namespace {

using Sources = std::vector<std::shared_ptr<VelmorRemoteSource>>;

std::vector<std::string> namesAndIndices(const Sources& sources)
{
    std::vector<std::string> result;
    for (const auto& source : sources)
        result.push_back(source->name().value_or("(null)") + ":" + std::to_string(source->index()));
    return result;
}

// A device with one source, named as given.
VelmorPlatform::MIDIEndpointRef makeSource(const std::string& name, const std::string& manufacturer = "Acme",
                                           const std::string& model = "K1", bool external = false)
{
    auto& s = service();
    auto device = s.createDevice(name, manufacturer, model, external);
    auto entity = s.createEntity(device, name);
    auto source = s.createSource(entity, name);
    s.setStringProperty(source, VelmorPlatform::kMIDIPropertyManufacturer, manufacturer);
    s.setStringProperty(source, VelmorPlatform::kMIDIPropertyModel, model);
    return source;
}

std::shared_ptr<VelmorManager> startedManager()
{
    auto manager = VelmorManager::sharedManager();
    EXPECT_NE(manager, nullptr);
    return manager;
}

} // namespace

// --- The list -------------------------------------------------------------------------------------

TEST(SourceDiscovery, NothingIsKnownOrPostedBeforeTheFirstSources)
{
    auto manager = startedManager();
    NotificationRecorder recorder(kSourceNotifications);
    EXPECT_FALSE(manager->mutableSources().has_value());
    makeSource("Keys");
    settle();
    EXPECT_EQ(manager->sourceWithAttributes(attributesWith("Keys")), nullptr);
    EXPECT_FALSE(manager->findSourcesWithNotifications(true));
    EXPECT_FALSE(manager->mutableSources().has_value());

    // The first build is silent; the list is present from then on.
    EXPECT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"Keys:0"}));
    EXPECT_TRUE(recorder.received.empty());
    EXPECT_NE(manager->sourceWithAttributes(attributesWith("Keys")), nullptr);
}

TEST(SourceDiscovery, APlatformWithoutSourcesGivesAPresentEmptyList)
{
    auto manager = startedManager();
    EXPECT_TRUE(manager->sources().empty());
    EXPECT_TRUE(manager->mutableSources().has_value());
    EXPECT_EQ(manager->sourceWithAttributes(attributesWith(std::nullopt)), nullptr);
    EXPECT_EQ(manager->sourceWithAttributes(nullptr), nullptr);
}

TEST(SourceDiscovery, GroupsAreNumberedInListOrderAsSourcesComeAndGo)
{
    auto manager = startedManager();
    // Platform positions 0, 1, 2; A and C are identical.
    makeSource("Twin");                          // A
    makeSource("Solo");                          // B
    auto c = makeSource("Twin");                 // C
    settle();
    const Sources first = manager->sources();
    EXPECT_EQ(namesAndIndices(first), (std::vector<std::string> {"Twin:1", "Solo:0", "Twin:2"}));
    EXPECT_EQ(first[0]->object(), c);

    NotificationRecorder recorder(kPassNotifications);  // making a source sets its properties too
    std::vector<std::string> seenAtDidAdd;
    recorder.onNotification = [&](const VelmorNotification& notification) {
        if (notification.name == VelmorManager_DidAddSourceNotification)
            seenAtDidAdd = namesAndIndices(manager->sources());
    };
    makeSource("Solo");  // D, identical to B
    settle();
    const Sources second = manager->sources();
    EXPECT_EQ(namesAndIndices(second), (std::vector<std::string> {"Twin:1", "Solo:1", "Twin:2", "Solo:2"}));
    EXPECT_EQ(seenAtDidAdd, namesAndIndices(second));
    // The same objects as before; a snapshot handed out earlier does not change.
    for (std::size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(second[i], first[i]);
    EXPECT_EQ(first.size(), 3u);

    CapturedLines lines;
    ASSERT_EQ(service().removeObject(c), VelmorPlatform::noErr);
    settle();
    EXPECT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"Solo:1", "Twin:0", "Solo:2"}));
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorRemoteSource.cpp] Removing MIDI Source: Twin ( Acme / K1 )"}));
    EXPECT_EQ(recorder.names(), (std::vector<std::string> {
                                    "VelmorManager_SourcesWillChange", "VelmorManager_DidAddSource",
                                    "VelmorManager_SourcesDidChange", "VelmorManager_SourcesWillChange",
                                    "VelmorManager_WillRemoveSource", "VelmorManager_DidRemoveSource",
                                    "VelmorManager_SourcesDidChange"}));
}

TEST(SourceDiscovery, OnePassWithAnAdditionAndARemovalPostsInOrder)
{
    auto manager = startedManager();
    auto old = makeSource("Old");
    settle();
    const auto oldSource = manager->sources().at(0);
    auto listener = std::make_shared<RecordingConsumer>("listener", nullptr);
    oldSource->addConsumer(listener);

    NotificationRecorder recorder(kPassNotifications);  // making a source sets its properties too
    std::vector<std::string> states;
    recorder.onNotification = [&](const VelmorNotification& notification) {
        const bool listed = !manager->sources().empty() && manager->sources().front() == oldSource;
        states.push_back(notification.name + (listed ? " listed" : "") +
                         (listener->terminations.empty() ? "" : " told"));
        if (notification.name == VelmorManager_SourcesWillChangeNotification ||
            notification.name == VelmorManager_SourcesDidChangeNotification)
            EXPECT_EQ(notification.object, manager);
        else
            EXPECT_NE(std::dynamic_pointer_cast<VelmorRemoteSource>(notification.object), nullptr);
        EXPECT_FALSE(notification.userInfo.has_value());
    };
    // Both changes reach the manager before it runs a pass: the first message's pass sees both, the
    // second finds nothing to do.
    makeSource("New");
    service().removeObject(old);
    settle();
    EXPECT_EQ(states, (std::vector<std::string> {
                          "VelmorManager_SourcesWillChange listed", "VelmorManager_DidAddSource listed",
                          "VelmorManager_WillRemoveSource listed", "VelmorManager_DidRemoveSource told",
                          "VelmorManager_SourcesDidChange told"}));
    EXPECT_EQ(listener->terminations.size(), 128u);
    EXPECT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"New:0"}));
}

TEST(SourceDiscovery, ASilentPassChangesTheSameAndAnUnchangedPlatformChangesNothing)
{
    auto manager = startedManager();
    makeSource("A");
    auto b = makeSource("B");
    settle();
    const Sources before = manager->sources();
    NotificationRecorder recorder(kPassNotifications);  // making a source sets its properties too
    EXPECT_FALSE(manager->findSourcesWithNotifications(true));

    // Changes the manager has not heard of yet, picked up by a pass without notifications.
    service().removeObject(b);
    makeSource("C");
    service().waitUntilIdle();
    EXPECT_TRUE(manager->findSourcesWithNotifications(false));
    EXPECT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"A:0", "C:0"}));
    EXPECT_EQ(manager->sources()[0], before[1]);
    settle();  // the platform's messages now find nothing to do
    EXPECT_TRUE(recorder.received.empty());
}

TEST(SourceDiscovery, ExternalSourcesCountAndSourcesThatCannotBeMadeAreTriedAgain)
{
    auto manager = startedManager();
    manager->sources();
    NotificationRecorder recorder(kPassNotifications);  // making a source sets its properties too
    CapturedLines lines;
    service().failNextCalls("MIDIObjectGetStringProperty", VelmorPlatform::kMIDIUnknownProperty);
    makeSource("Far", "Acme", "K1", true);
    settle();
    EXPECT_TRUE(manager->sources().empty());
    EXPECT_TRUE(recorder.received.empty());
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorObject.cpp] noErr == status failed with -10835"}));

    // Any later message about a source runs a pass, which picks it up.
    makeSource("Near");
    settle();
    EXPECT_EQ(manager->sources().size(), 2u);
    EXPECT_EQ(recorder.names().front(), "VelmorManager_SourcesWillChange");
}

// --- Search ---------------------------------------------------------------------------------------

TEST(SourceSearch, IdentifierWildcardsAndIndexRules)
{
    auto manager = startedManager();
    makeSource("Group");
    makeSource("Group");
    auto third = makeSource("Group");
    auto tagged = makeSource("Tagged", "Other", "X");
    makeSource("Lone");
    service().setStringProperty(tagged, kIdentifierProperty, "id-1");
    settle();
    const Sources list = manager->sources();
    ASSERT_EQ(namesAndIndices(list), (std::vector<std::string> {"Lone:0", "Tagged:0", "Group:1", "Group:2", "Group:3"}));
    EXPECT_EQ(list[2]->object(), third);  // the first build walks the platform from its end

    struct Case {
        const char* what;
        std::shared_ptr<VelmorAttributes> attributes;
        std::shared_ptr<VelmorRemoteSource> expected;
    };
    const std::vector<Case> cases = {
        {"identifier beats an earlier name match", attributesWith("Lone", std::nullopt, std::nullopt, 0, "id-1"), list[1]},
        {"unknown identifier leaves the name to decide", attributesWith("Lone", std::nullopt, std::nullopt, 0, "nope"), list[0]},
        {"index 0 finds the first of a group", attributesWith("Group", "Acme", "K1", 0), list[2]},
        {"index 1 finds a lone source", attributesWith("Lone", "Acme", "K1", 1), list[0]},
        {"index 2 does not find a lone source", attributesWith("Lone", "Acme", "K1", 2), nullptr},
        {"index 2 finds exactly the second of three", attributesWith("Group", "Acme", "K1", 2), list[3]},
        {"index 3", attributesWith("Group", std::nullopt, std::nullopt, 3), list[4]},
        {"all wildcards find the first with index 0 or 1", attributesWith(std::nullopt), list[0]},
        {"a manufacturer that differs", attributesWith("Tagged", "Acme"), nullptr},
        {"case counts", attributesWith("lone"), nullptr},
        {"an empty name is not a wildcard", attributesWith(""), nullptr},
    };
    for (const auto& c : cases)
        EXPECT_EQ(manager->sourceWithAttributes(c.attributes), c.expected) << c.what;

    // The unique ID plays no part.
    auto withID = attributesWith("Group", "Acme", "K1", 2);
    withID->setUniqueID(list[4]->uniqueID());
    EXPECT_EQ(manager->sourceWithAttributes(withID), list[3]);
    // A source's own attributes find it again.
    for (const auto& source : list)
        EXPECT_EQ(manager->sourceWithAttributes(source->attributes()), source) << source->description();
}

TEST(SourceSearch, IdentityGroupsAreExactAndARenameKeepsIndices)
{
    auto manager = startedManager();
    makeSource("Pad");
    auto renamed = makeSource("Pad");
    makeSource("Pad", "Acme", "k1");  // another model by case
    settle();
    ASSERT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"Pad:0", "Pad:1", "Pad:2"}));
    const auto source = manager->sources()[1];
    EXPECT_EQ(manager->sourcesIdenticalToSource(source), (Sources {manager->sources()[1], manager->sources()[2]}));

    NotificationRecorder recorder(kSourceNotifications);
    service().setStringProperty(renamed, VelmorPlatform::kMIDIPropertyName, "Drum");
    settle();
    EXPECT_EQ(namesAndIndices(manager->sources()), (std::vector<std::string> {"Pad:0", "Drum:1", "Pad:2"}));
    // Both the object's own change and nothing else: one source notification, with the source.
    ASSERT_EQ(recorder.names(), (std::vector<std::string> {"VelmorManager_SourcePropertyChanged"}));
    EXPECT_EQ(recorder.received[0].object, manager);
    ASSERT_TRUE(recorder.received[0].userInfo.has_value());
    const VelmorValue* value = recorder.received[0].userInfo->objectForKey(VelmorManager_SourceKey);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->objectValue(), std::static_pointer_cast<VelmorRootObject>(source));
}

// --- What a source says about itself --------------------------------------------------------------

TEST(RemoteSource, ConstructionLinesAndTextForms)
{
    startedManager();
    auto& s = service();
    auto device = s.createDevice("Bare");
    auto entity = s.createEntity(device, "Bare");
    auto bare = s.createSource(entity, "Bare");
    auto keys = makeSource("Keys", "Acme", "K1");
    auto maker = makeSource("Keys", "Acme", "");
    s.waitUntilIdle();

    CapturedLines lines;
    EXPECT_EQ(VelmorRemoteSource::init(), nullptr);
    EXPECT_EQ(VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(0, 5), nullptr);
    EXPECT_TRUE(lines.lines().empty());

    auto bareSource = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(bare, std::nullopt);
    auto keysSource = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(keys, 77);
    auto makerSource = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(maker, std::nullopt);
    ASSERT_TRUE(bareSource && keysSource && makerSource);
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorRemoteSource.cpp] Created MIDI Source: Bare (  /  )",
                                                          "[VelmorRemoteSource.cpp] Created MIDI Source: Keys ( Acme / K1 )",
                                                          "[VelmorRemoteSource.cpp] Created MIDI Source: Keys ( Acme /  )"}));
    // A source never writes a unique ID.
    EXPECT_NE(keysSource->uniqueID(), 77);

    EXPECT_EQ(bareSource->manufacturer(), std::optional<std::string>(""));
    EXPECT_EQ(bareSource->model(), std::optional<std::string>(""));
    EXPECT_EQ(bareSource->descriptiveString(), "Bare");
    EXPECT_EQ(keysSource->descriptiveString(), "Keys ( Acme K1 )");
    EXPECT_EQ(makerSource->descriptiveString(), "Keys ( Acme )");

    s.setStringProperty(keys, kIdentifierProperty, "id-9");
    keysSource->setIndex(3);
    EXPECT_EQ(bareSource->description(), "{VelmorRemoteSource <" + VelmorPointerString(bareSource.get()) +
                                             ">:   \"Bare\" #n/a (uid:" + std::to_string(bareSource->uniqueID()) + " i:0)}");
    EXPECT_EQ(keysSource->description(), "{VelmorRemoteSource <" + VelmorPointerString(keysSource.get()) +
                                             ">: Acme K1 \"Keys\" #id-9 (uid:" + std::to_string(keysSource->uniqueID()) +
                                             " i:3)}");

    // Without name, manufacturer and model only the unique ID is left to show.
    s.setStringProperty(bare, VelmorPlatform::kMIDIPropertyName, "");
    EXPECT_EQ(bareSource->descriptiveString(), "Device ID#" + std::to_string(bareSource->uniqueID()));
    s.setStringProperty(bare, VelmorPlatform::kMIDIPropertyModel, "M");
    EXPECT_EQ(bareSource->descriptiveString(), "M");
    s.setStringProperty(bare, VelmorPlatform::kMIDIPropertyManufacturer, "F");
    EXPECT_EQ(bareSource->descriptiveString(), "F M");
    settle();
}

TEST(RemoteSource, AttributesCarryTheIndexAndMatchingTreatsZeroAndOneAlike)
{
    startedManager();
    auto keys = makeSource("Keys", "Acme", "K1");
    service().waitUntilIdle();
    auto source = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(keys, std::nullopt);
    ASSERT_NE(source, nullptr);
    source->setIndex(2);
    auto attributes = source->attributes();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->index(), 2u);
    EXPECT_EQ(attributes->name(), std::optional<std::string>("Keys"));
    EXPECT_EQ(attributes->uniqueID(), std::optional<std::int64_t>(source->uniqueID()));
    EXPECT_NE(source->attributes(), attributes);  // a new value each time

    const std::uint64_t byIndex = VelmorAttributesOptionName | VelmorAttributesOptionIndex;
    struct Case {
        std::uint64_t wanted, own;
        bool matches;
    };
    for (const Case c : {Case {0, 1, true}, Case {1, 0, true}, Case {0, 0, true}, Case {2, 2, true}, Case {2, 0, false},
                         Case {2, 1, false}, Case {1, 2, false}, Case {0, 2, false}}) {
        source->setIndex(c.own);
        auto wanted = attributesWith("Keys", std::nullopt, std::nullopt, c.wanted);
        EXPECT_EQ(source->matchesAttributesOptions(wanted, byIndex), c.matches) << c.wanted << " vs " << c.own;
        EXPECT_TRUE(source->matchesAttributesOptions(wanted, VelmorAttributesOptionName));
    }
    // The endpoint's own test comes first.
    EXPECT_FALSE(source->matchesAttributesOptions(attributesWith("Other", std::nullopt, std::nullopt, 2), byIndex));
}

TEST(RemoteSource, OnlyItsOwnChangesArePostedAsItsOwn)
{
    startedManager();
    auto keys = makeSource("Keys");
    auto other = makeSource("Other");
    service().waitUntilIdle();
    auto source = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(keys, std::nullopt);
    settle();
    NotificationRecorder recorder({VelmorRemoteSourcePropertyChangedNotification});
    service().setStringProperty(other, VelmorPlatform::kMIDIPropertyModel, "Z");
    VelmorNotificationCenter::defaultCenter().postNotificationName(
        VelmorClient_PropertyChangedNotification, nullptr,
        VelmorDictionary {{std::string(VelmorObjectKey), VelmorValue(std::uint64_t(keys))},
                          {std::string(VelmorObjectTypeKey), VelmorValue(std::int64_t(3))},
                          {std::string(VelmorPropertyNameKey), VelmorValue("model")}});
    settle();
    EXPECT_TRUE(recorder.received.empty());
    service().setStringProperty(keys, VelmorPlatform::kMIDIPropertyModel, "Z");
    settle();
    ASSERT_EQ(recorder.received.size(), 1u);
    EXPECT_EQ(recorder.received[0].object, std::static_pointer_cast<VelmorRootObject>(source));
    EXPECT_FALSE(recorder.received[0].userInfo.has_value());
}

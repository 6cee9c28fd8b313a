#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SendTestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorConsumer.h"
#include "VelmorEvent.h"
#include "VelmorLocalOutput.h"
#include "VelmorManager.h"
#include "VelmorRemoteOutput.h"
#include "VelmorRemoteSource.h"

using namespace VelmorPlatform;
using VelmorSendTest::CapturedLines;
using VelmorSendTest::NotificationRecorder;
using VelmorSendTest::service;
using VelmorSendTest::settle;
using Names = std::vector<std::string>;

namespace {

constexpr std::string_view identifierProperty = "com_brightmarrow_Velmor_EndpointIdentifier";

const std::vector<std::string_view> outputNotifications = {
    VelmorManager_OutputsWillChangeNotification,   VelmorManager_DidAddOutputNotification,
    VelmorManager_WillRemoveOutputNotification,    VelmorManager_DidRemoveOutputNotification,
    VelmorManager_OutputsDidChangeNotification,    VelmorManager_OutputPropertyChangedNotification,
};

std::vector<std::string_view> allManagerNotifications()
{
    auto names = outputNotifications;
    for (auto name : {VelmorManager_SourcesWillChangeNotification, VelmorManager_DidAddSourceNotification,
                      VelmorManager_WillRemoveSourceNotification, VelmorManager_DidRemoveSourceNotification,
                      VelmorManager_SourcesDidChangeNotification, VelmorManager_SourcePropertyChangedNotification})
        names.push_back(name);
    return names;
}

std::string n(std::string_view name)
{
    return std::string(name);
}

std::shared_ptr<VelmorAttributes> attributesWith(std::optional<std::string> name, std::optional<std::string> identifier,
                                                 std::optional<std::string> manufacturer,
                                                 std::optional<std::string> model,
                                                 std::optional<std::int64_t> uniqueID = std::nullopt)
{
    auto attributes = VelmorAttributes::init();
    attributes->setName(std::move(name));
    attributes->setIdentifier(std::move(identifier));
    attributes->setManufacturer(std::move(manufacturer));
    attributes->setModel(std::move(model));
    attributes->setUniqueID(uniqueID);
    return attributes;
}

// A device with one destination, optionally carrying the framework's identifier.
MIDIEndpointRef makeDestination(const std::string& name, const std::string& manufacturer, const std::string& model,
                                std::optional<std::string> identifier = std::nullopt)
{
    const auto device = service().createSimpleDevice(name, manufacturer, model, false, true);
    if (identifier)
        MIDIObjectSetStringProperty(device.destination, identifierProperty, *identifier);
    return device.destination;
}

std::shared_ptr<VelmorRemoteOutput> remoteOutputFor(MIDIEndpointRef destination)
{
    for (const auto& output : VelmorManager::sharedManager()->remoteOutputs())
        if (output->object() == destination)
            return output;
    return nullptr;
}

struct TerminationCounter : VelmorConsumer {
    int terminations = 0;
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>&) override {}
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override { ++terminations; }
};

} // namespace

// --- Search ------------------------------------------------------------------------------------------

TEST(OutputSearchTest, WhichOutputTheAttributesName)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    const MIDIEndpointRef piano1 = makeDestination("Piano", "Acme", "P1");
    const MIDIEndpointRef piano2 = makeDestination("Piano", "Acme", "P2");
    const MIDIEndpointRef organ = makeDestination("Organ", "Acme", "P1");
    const MIDIEndpointRef tagged = makeDestination("Piano", "Other", "P1", "remote.tagged");
    settle();
    // The array in this order, whatever order discovery found them in.
    std::vector<std::shared_ptr<VelmorRemoteOutput>> array;
    for (auto ref : {piano1, piano2, organ, tagged})
        array.push_back(remoteOutputFor(ref));
    for (const auto& output : array)
        ASSERT_NE(output, nullptr);
    const std::int64_t organID = array[2]->uniqueID();
    const std::string local = manager->localOutputManufacturer();

    struct Case {
        const char* what;
        std::shared_ptr<VelmorAttributes> attributes;
        int expected;  // position in the array, -1 for none
    };
    const std::vector<Case> cases = {
        {"all wildcards: the first", attributesWith({}, {}, {}, {}), 0},
        {"name", attributesWith("Piano", {}, {}, {}), 0},
        {"name and model", attributesWith("Piano", {}, {}, "P2"), 1},
        {"manufacturer", attributesWith({}, {}, "Other", {}), 3},
        {"unique ID before name", attributesWith("Piano", {}, "Acme", "P1", organID), 2},
        {"unique ID does not beat model", attributesWith({}, {}, {}, "P2", organID), 1},
        {"unknown unique ID excludes nothing", attributesWith("Organ", {}, {}, {}, 1), 2},
        {"no such name", attributesWith("Harp", {}, {}, {}), -1},
        {"identifier", attributesWith("Organ", "remote.tagged", "Acme", "P2"), 3},
        {"identifier that nothing has", attributesWith("Piano", "nothing", {}, {}), -1},
        {"local manufacturer needs an identifier", attributesWith("Piano", {}, local, "whatever", organID), 3},
        {"local manufacturer, no output with identifier", attributesWith("Organ", {}, local, {}), -1},
        {"local manufacturer and null name", attributesWith({}, {}, local, {}), -1},
        {"no attributes", nullptr, -1},
    };
    for (const auto& c : cases) {
        const auto found = manager->outputInArrayWithAttributes(array, c.attributes);
        const auto expected = c.expected < 0 ? nullptr : array[c.expected];
        EXPECT_EQ(found, expected) << c.what;
    }

    // The local manufacturer is read at each search.
    const auto acmePiano = attributesWith("Piano", {}, "Acme", {});
    const auto acmeOrgan = attributesWith("Organ", {}, "Acme", {});
    EXPECT_EQ(manager->outputInArrayWithAttributes(array, acmePiano), array[0]);
    EXPECT_EQ(manager->outputInArrayWithAttributes(array, acmeOrgan), array[2]);
    VelmorManager::setLocalOutputManufacturer("Acme");
    // Now only outputs with an identifier count, whatever their manufacturer.
    EXPECT_EQ(manager->outputInArrayWithAttributes(array, acmePiano), array[3]);
    EXPECT_EQ(manager->outputInArrayWithAttributes(array, acmeOrgan), nullptr);
    MIDIObjectSetStringProperty(piano2, identifierProperty, "now.tagged");
    EXPECT_EQ(manager->outputInArrayWithAttributes(array, acmePiano), array[1]);

    // The search works on any list of outputs, mixed kinds included.
    std::vector<std::shared_ptr<VelmorOutput>> mixed(array.rbegin(), array.rend());
    EXPECT_EQ(manager->outputInArrayWithAttributes(mixed, attributesWith("Piano", {}, {}, {})),
              std::shared_ptr<VelmorOutput>(array[3]));
}

TEST(OutputSearchTest, VirtualOutputsComeFirstAndIdentifiersNameOnlyThem)
{
    auto manager = VelmorManager::sharedManager();
    const auto a = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Out A", "a"));
    const auto b = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithName("Out B"));
    const auto twin = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Out A", "a"));
    ASSERT_TRUE(a && b && twin);
    EXPECT_NE(a, twin);
    const MIDIEndpointRef tagged = makeDestination("Remote", "Acme", "R", "remote.id");
    const MIDIEndpointRef sameName = makeDestination("Out A", "Brightmarrow", "Velmor");
    settle();

    // An identifier: the first virtual output that has it, else nothing, and the destinations stay unbuilt.
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("x", "a")),
              std::shared_ptr<VelmorOutput>(a));
    EXPECT_EQ(manager->outputWithAttributes(attributesWith("Remote", "remote.id", {}, {})), nullptr);
    EXPECT_FALSE(manager->mutableRemoteOutputs().has_value());

    // Default attributes by name find a virtual output only if it has an identifier, and a destination
    // of the same name only if that has one too.
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Out A")),
              std::shared_ptr<VelmorOutput>(a));
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Out B")), nullptr);
    EXPECT_TRUE(manager->mutableRemoteOutputs().has_value());
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Remote")),
              std::shared_ptr<VelmorOutput>(remoteOutputFor(tagged)));
    MIDIObjectSetStringProperty(sameName, kMIDIPropertyName, "Out C");
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Out C")), nullptr);
    MIDIObjectSetStringProperty(sameName, identifierProperty, "remote.c");
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Out C")),
              std::shared_ptr<VelmorOutput>(remoteOutputFor(sameName)));

    // Other attributes reach a virtual output without an identifier, and the destinations after them.
    EXPECT_EQ(manager->outputWithAttributes(attributesWith("Out B", {}, {}, {})), std::shared_ptr<VelmorOutput>(b));
    EXPECT_EQ(manager->outputWithAttributes(attributesWith({}, {}, "Acme", "R")),
              std::shared_ptr<VelmorOutput>(remoteOutputFor(tagged)));

    // A closed output takes no part; its twin answers now.
    manager->closeVirtualOutput(a);
    EXPECT_EQ(manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("x", "a")),
              std::shared_ptr<VelmorOutput>(twin));
}

// --- Opening, updating, closing ---------------------------------------------------------------------

TEST(VirtualOutputTest, OpeningPostsNothingAndClosingPostsOnce)
{
    auto manager = VelmorManager::sharedManager();
    NotificationRecorder recorder(allManagerNotifications());
    CapturedLines lines;
    const auto first = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("One", "one"));
    const auto second = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Two", "two"));
    EXPECT_EQ(manager->openVirtualOutputWithAttributes(nullptr), nullptr);
    EXPECT_EQ(manager->openVirtualOutputWithAttributes(attributesWith("", "none", {}, {})), nullptr);
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(recorder.names().empty());
    // What comes later is the system's report of the properties the opening wrote (identifier,
    // manufacturer, model), passed on as changes of listed outputs.
    settle();
    for (const auto& name : recorder.names())
        EXPECT_EQ(name, n(VelmorManager_OutputPropertyChangedNotification));
    EXPECT_EQ(manager->localOutputs(), (std::vector<std::shared_ptr<VelmorLocalOutput>> {first, second}));
    EXPECT_EQ(lines.lines(), (Names {
                                    "[VelmorLocalOutput.cpp] Created MIDI Output: One ( Brightmarrow / Velmor )",
                                    "[VelmorLocalOutput.cpp] Created MIDI Output: Two ( Brightmarrow / Velmor )",
                                    "[VelmorLocalOutput.cpp] attributes.name.length failed",
                                }));

    // A virtual output is a source to the system, never a destination.
    EXPECT_TRUE(manager->remoteOutputs().empty());
    EXPECT_EQ(manager->sources().size(), 2u);

    const auto outsider = VelmorLocalOutput::initWithClientAttributes(manager->client(), VelmorAttributes::defaultAttributesWithNameIdentifier("Outsider", "outsider"));
    const MIDIEndpointRef destination = makeDestination("Remote", "Acme", "R");
    settle();
    recorder.clear();
    manager->closeVirtualOutput(first);
    EXPECT_EQ(recorder.names(), Names {n(VelmorManager_OutputsDidChangeNotification)});
    EXPECT_EQ(recorder.seen()[0].object.get(), static_cast<VelmorRootObject*>(manager.get()));
    EXPECT_EQ(first->object(), 0u);

    // Anything but a listed virtual output is left alone, silently.
    recorder.clear();
    const auto linesBefore = lines.lines().size();
    manager->closeVirtualOutput(first);
    manager->closeVirtualOutput(outsider);
    manager->closeVirtualOutput(remoteOutputFor(destination));
    manager->closeVirtualOutput(nullptr);
    EXPECT_TRUE(recorder.names().empty());
    EXPECT_EQ(lines.lines().size(), linesBefore);
    EXPECT_NE(outsider->object(), 0u);
    EXPECT_EQ(manager->localOutputs(), std::vector<std::shared_ptr<VelmorLocalOutput>> {second});
}

TEST(VirtualOutputTest, UpdatingWritesToTheOutputTheAttributesFind)
{
    auto manager = VelmorManager::sharedManager();
    const auto tagged = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Tagged", "tagged"));
    const auto plain = manager->openVirtualOutputWithAttributes(attributesWith("Plain", {}, "Acme", "P"));
    ASSERT_TRUE(tagged && plain);

    auto update = attributesWith("Tagged Anew", "tagged", "New Maker", "New Model", 99);
    EXPECT_EQ(manager->updateVirtualOutputWithAttributes(update), std::shared_ptr<VelmorOutput>(tagged));
    EXPECT_EQ(tagged->name(), "Tagged Anew");
    EXPECT_EQ(tagged->manufacturer(), "New Maker");
    EXPECT_EQ(tagged->model(), "New Model");
    EXPECT_EQ(tagged->identifier(), "tagged");
    EXPECT_NE(tagged->uniqueID(), 99);

    // Attributes that carry new values find an output only by what they leave alone: here the unique ID.
    // Found, but without an identifier it takes nothing.
    EXPECT_EQ(manager->updateVirtualOutputWithAttributes(attributesWith("Plain Anew", {}, {}, "Changed", plain->uniqueID())),
              nullptr);
    EXPECT_EQ(manager->updateVirtualOutputWithAttributes(attributesWith("Plain Anew", {}, {}, {}, plain->uniqueID())),
              std::shared_ptr<VelmorOutput>(plain));
    EXPECT_EQ(plain->name(), "Plain");
    EXPECT_EQ(plain->model(), std::nullopt);

    service().resetCallCounts();
    EXPECT_EQ(manager->updateVirtualOutputWithAttributes(attributesWith("Anew", "unknown", "M", "M")), nullptr);
    EXPECT_EQ(manager->updateVirtualOutputWithAttributes(nullptr), nullptr);
    EXPECT_EQ(service().callCount("MIDIObjectSetStringProperty"), 0u);
}

// --- The list of destinations ----------------------------------------------------------------------------

TEST(RemoteOutputDiscoveryTest, TheFirstSearchTellsTheFirstListingDoesNot)
{
    auto manager = VelmorManager::sharedManager();
    const MIDIEndpointRef first = makeDestination("First", "Acme", "F");
    const MIDIEndpointRef second = makeDestination("Second", "Acme", "S");
    settle();
    EXPECT_FALSE(manager->findRemoteOutputsWithNotifications(true));

    NotificationRecorder recorder(allManagerNotifications());
    service().resetCallCounts();
    // Before the list exists a pass does nothing at all, and the platform's messages are ignored.
    EXPECT_FALSE(manager->findRemoteOutputsWithNotifications(true));
    EXPECT_EQ(service().callCount("MIDIGetNumberOfDestinations"), 0u);

    EXPECT_EQ(manager->outputWithAttributes(nullptr), nullptr);
    EXPECT_EQ(recorder.names(), (Names {n(VelmorManager_OutputsWillChangeNotification), n(VelmorManager_DidAddOutputNotification),
                                        n(VelmorManager_DidAddOutputNotification), n(VelmorManager_OutputsDidChangeNotification)}));
    // The platform is walked from its last destination to its first.
    const auto outputs = manager->remoteOutputs();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0]->object(), second);
    EXPECT_EQ(outputs[1]->object(), first);
    EXPECT_EQ(recorder.seen()[1].object.get(), static_cast<VelmorRootObject*>(outputs[0].get()));

    recorder.clear();
    EXPECT_EQ(manager->remoteOutputs(), outputs);
    EXPECT_FALSE(manager->findRemoteOutputsWithNotifications(true));
    EXPECT_TRUE(recorder.names().empty());
}

TEST(RemoteOutputDiscoveryTest, DestinationsThatComeAndGoAreToldInOrder)
{
    auto manager = VelmorManager::sharedManager();
    const auto stays = service().createSimpleDevice("Stays", "Acme", "S", false, true);
    const auto goes = service().createSimpleDevice("Goes", "Acme", "G", false, true);
    EXPECT_TRUE(manager->remoteOutputs().size() == 2);
    const auto kept = remoteOutputFor(stays.destination);
    const auto leaving = remoteOutputFor(goes.destination);
    NotificationRecorder recorder(outputNotifications);
    // Observers run inside the pass: the output is still listed at "will remove" and gone at "did remove".
    std::vector<std::size_t> listSizes;
    for (auto name : {VelmorManager_WillRemoveOutputNotification, VelmorManager_DidRemoveOutputNotification})
        VelmorNotificationCenter::defaultCenter().addObserver(
            &listSizes, n(name), [&](const VelmorNotification&) { listSizes.push_back(manager->remoteOutputs().size()); });

    // An external device's destination counts as a destination.
    const MIDIDeviceRef externalDevice = service().createDevice("External", "Acme", "E", true);
    const MIDIEndpointRef externalDestination =
        service().createDestination(service().createEntity(externalDevice, "External"), "External");
    settle();
    EXPECT_EQ(recorder.names(), (Names {n(VelmorManager_OutputsWillChangeNotification), n(VelmorManager_DidAddOutputNotification),
                                        n(VelmorManager_OutputsDidChangeNotification)}));
    ASSERT_EQ(manager->remoteOutputs().size(), 3u);
    EXPECT_EQ(manager->remoteOutputs()[2]->object(), externalDestination);

    recorder.clear();
    service().removeObject(goes.device);
    settle();
    EXPECT_EQ(recorder.names(), (Names {n(VelmorManager_OutputsWillChangeNotification), n(VelmorManager_WillRemoveOutputNotification),
                                        n(VelmorManager_DidRemoveOutputNotification), n(VelmorManager_OutputsDidChangeNotification)}));
    EXPECT_EQ(recorder.seen()[1].object.get(), static_cast<VelmorRootObject*>(leaving.get()));
    EXPECT_EQ(listSizes, (std::vector<std::size_t> {3, 2}));
    EXPECT_EQ(manager->remoteOutputs()[0], kept);
    EXPECT_EQ(remoteOutputFor(goes.destination), nullptr);
    VelmorNotificationCenter::defaultCenter().removeObserver(&listSizes);

    // The application may still hold the departed output: it answers from its caches and sends harmlessly.
    EXPECT_EQ(leaving->name(), "Goes");
    EXPECT_EQ(leaving->object(), goes.destination);
    leaving->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 1, 1, 0));

    // A message about something that is not a destination runs no pass.
    recorder.clear();
    service().createSimpleDevice("Source Only", "Acme", "O", true, false);
    settle();
    EXPECT_TRUE(recorder.names().empty());
}

TEST(RemoteOutputDiscoveryTest, WithoutAnOutputPortThereAreNoRemoteOutputs)
{
    service().failNextCalls("MIDIOutputPortCreate", kMIDIInvalidClient);
    makeDestination("First", "Acme", "F");
    makeDestination("Second", "Acme", "S");
    CapturedLines lines;
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->outputPort(), 0u);
    EXPECT_TRUE(manager->remoteOutputs().empty());
    EXPECT_EQ(lines.lines(), (Names {"[VelmorRemoteOutput.cpp] outputPort failed", "[VelmorRemoteOutput.cpp] outputPort failed"}));
    // Each pass tries again; virtual outputs work as ever.
    EXPECT_FALSE(manager->findRemoteOutputsWithNotifications(true));
    EXPECT_EQ(lines.lines().size(), 4u);
    EXPECT_NE(manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("V", "v")), nullptr);
}

// --- Property changes ------------------------------------------------------------------------------------

TEST(OutputPropertyTest, ChangesOfListedOutputsReachTheApplication)
{
    auto manager = VelmorManager::sharedManager();
    const auto local = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Local", "local"));
    const auto outsider = VelmorLocalOutput::initWithClientAttributes(manager->client(), VelmorAttributes::defaultAttributesWithNameIdentifier("Outsider", "outsider"));
    const auto device = service().createSimpleDevice("Remote", "Acme", "R", false, true);
    ASSERT_TRUE(local && outsider);
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(remote, nullptr);
    settle();

    NotificationRecorder recorder({VelmorManager_OutputPropertyChangedNotification, VelmorManager_SourcePropertyChangedNotification});
    const auto expectOutputChange = [&](const std::shared_ptr<VelmorRootObject>& output, const char* what) {
        ASSERT_EQ(recorder.names(), Names {n(VelmorManager_OutputPropertyChangedNotification)}) << what;
        const auto& notification = recorder.seen()[0];
        EXPECT_EQ(notification.object.get(), static_cast<VelmorRootObject*>(manager.get())) << what;
        ASSERT_TRUE(notification.userInfo.has_value());
        const VelmorValue* value = notification.userInfo->objectForKey(VelmorManager_OutputKey);
        ASSERT_NE(value, nullptr) << what;
        EXPECT_EQ(value->objectValue(), output) << what;
        EXPECT_EQ(notification.userInfo->count(), 1u);
        recorder.clear();
    };

    local->setName("Local Renamed");
    settle();
    expectOutputChange(local, "own endpoint of a virtual output");

    // A destination is told through its entity.
    MIDIObjectSetStringProperty(device.entity, kMIDIPropertyName, "Entity Renamed");
    settle();
    expectOutputChange(remote, "entity of a destination");

    // Not listed: nothing, though the output itself posts.
    outsider->setName("Outsider Renamed");
    settle();
    EXPECT_TRUE(recorder.names().empty());

    // Once the list is dropped, its former members are no longer passed on.
    manager->flushManager();
    settle();
    recorder.clear();
    MIDIObjectSetStringProperty(device.entity, kMIDIPropertyName, "Entity Again");
    settle();
    EXPECT_TRUE(recorder.names().empty());
}

// --- Flushing ----------------------------------------------------------------------------------------------

TEST(FlushTest, OutputsAndSourcesAtOnce)
{
    auto manager = VelmorManager::sharedManager();
    {
        // A new manager flushes silently and keeps its lists unbuilt.
        NotificationRecorder recorder(allManagerNotifications());
        manager->flushManager();
        EXPECT_TRUE(recorder.names().empty());
        EXPECT_FALSE(manager->mutableSources().has_value());
        EXPECT_FALSE(manager->mutableRemoteOutputs().has_value());
    }
    const auto one = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("One", "one"));
    const auto two = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Two", "two"));
    const auto device = service().createSimpleDevice("Keys", "Acme", "K");
    settle();
    ASSERT_TRUE(one && two);
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(remote, nullptr);
    std::shared_ptr<VelmorRemoteSource> source;
    for (const auto& candidate : manager->sources())
        if (candidate->object() == device.source)
            source = candidate;
    ASSERT_NE(source, nullptr);
    auto consumer = std::make_shared<TerminationCounter>();
    source->addConsumer(consumer);
    const auto sourcesBefore = MIDIGetNumberOfSources();

    NotificationRecorder recorder(allManagerNotifications());
    CapturedLines lines;
    manager->flushManager();
    EXPECT_EQ(recorder.names(), (Names {n(VelmorManager_OutputsDidChangeNotification), n(VelmorManager_OutputsDidChangeNotification)}));
    // The virtual outputs close first; their sources go with the other sources after them.
    EXPECT_EQ(lines.lines(), (Names {
                                    "[VelmorLocalOutput.cpp] Closing MIDI Output: One ( Brightmarrow / Velmor )",
                                    "[VelmorLocalOutput.cpp] Closing MIDI Output: Two ( Brightmarrow / Velmor )",
                                    "[VelmorRemoteSource.cpp] Removing MIDI Source: Keys ( Acme / K )",
                                    "[VelmorRemoteSource.cpp] Removing MIDI Source: Two ( Brightmarrow / Velmor )",
                                    "[VelmorRemoteSource.cpp] Removing MIDI Source: One ( Brightmarrow / Velmor )",
                                }));
    EXPECT_GE(consumer->terminations, 1);
    EXPECT_TRUE(manager->localOutputs().empty());
    EXPECT_FALSE(manager->mutableSources().has_value());
    EXPECT_FALSE(manager->mutableRemoteOutputs().has_value());
    EXPECT_EQ(one->object(), 0u);
    EXPECT_EQ(MIDIGetNumberOfSources(), sourcesBefore - 2);

    // The platform's messages while the lists are null change nothing.
    recorder.clear();
    service().createSimpleDevice("Later", "Acme", "L");
    settle();
    EXPECT_TRUE(recorder.names().empty());

    // Usable again: new objects for the same endpoints.
    const auto again = remoteOutputFor(device.destination);
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, remote);
    EXPECT_EQ(manager->remoteOutputs().size(), 2u);
    EXPECT_EQ(manager->sources().size(), 2u);
    EXPECT_TRUE(recorder.names().empty());
}

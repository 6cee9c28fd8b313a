// Receiving: bytes injected into a device's source reach exactly the consumers whose rows they pick, on
// the main thread, in order, with the delegate around each delivery.

#include <gtest/gtest.h>

#include "ReceiveTestSupport.h"
#include "VelmorMainQueue.h"
#include "VelmorPacketList.h"

using namespace VelmorReceiveTest;
using VelmorTest::CapturedLines;

namespace {

using ReceiveRouting = ReceiveFixture;
using ReceiveReentrancy = ReceiveFixture;
using ReceiveConnection = ReceiveFixture;
using ReceiveTermination = ReceiveFixture;

} // namespace

// --- Routing --------------------------------------------------------------------------------------

TEST_F(ReceiveRouting, EachEventReachesExactlyTheConsumersOfItsRow)
{
    auto all = consumer("all");
    auto notesOn1 = consumer("notesOn1");
    auto notesOnAny = consumer("notesOnAny");
    auto noteOff = consumer("noteOff");
    auto clock = consumer("clock");
    auto exclusive = consumer("exclusive");
    auto system = consumer("system");
    auto channel16 = consumer("channel16");
    source->addConsumer(all);
    source->addConsumerForEventTypeInChannel(notesOn1, VelmorEventTypeNoteOn, 1);
    source->addConsumerForEventTypeInChannel(notesOnAny, VelmorEventTypeNoteOn, 0);
    source->addConsumerForEventTypeInChannel(noteOff, VelmorEventTypeNoteOff, 0);
    source->addConsumerForEventTypeInChannel(clock, VelmorEventTypeSystem, 9);  // 0xF8
    source->addConsumerForEventTypeInChannel(exclusive, VelmorEventTypeSystem, 1);  // 0xF0
    source->addConsumerForEventTypeInChannel(system, VelmorEventTypeSystem, 0);
    source->addConsumerForAllEventsInChannel(channel16, 16);
    EXPECT_TRUE(connected());

    CapturedLines lines;
    injectList({
        // Several messages in one platform packet; a note on with velocity 0 is still a note on.
        {1, {0x90, 0x3C, 0x40, 0x91, 0x3E, 0x00, 0x80, 0x3C, 0x00}},
        {2, {0xF8}},
        // Undecodable between good ones.
        {3, {0x3E, 0x40}},
        // An exclusive message split over three platform packets of one list.
        {4, {0xF0, 0x43, 0x10}},
        {5, {0x4C, 0x00}},
        {6, {0x7F, 0xF7}},
        {7, {0xBF, 0x07, 0x64}},
    });
    inject({0xEF, 0x00, 0x40});
    settle();

    EXPECT_EQ(all->heard(), (std::vector<std::string> {"90 3C 40", "91 3E 00", "80 3C 00", "F8", "F0 43 10 4C 00 7F F7",
                                                      "BF 07 64", "EF 00 40"}));
    EXPECT_EQ(notesOn1->heard(), (std::vector<std::string> {"90 3C 40"}));
    EXPECT_EQ(notesOnAny->heard(), (std::vector<std::string> {"90 3C 40", "91 3E 00"}));
    EXPECT_EQ(noteOff->heard(), (std::vector<std::string> {"80 3C 00"}));
    EXPECT_EQ(clock->heard(), (std::vector<std::string> {"F8"}));
    EXPECT_EQ(exclusive->heard(), (std::vector<std::string> {"F0 43 10 4C 00 7F F7"}));
    EXPECT_EQ(system->heard(), (std::vector<std::string> {"F8", "F0 43 10 4C 00 7F F7"}));
    EXPECT_EQ(channel16->heard(), (std::vector<std::string> {"BF 07 64", "EF 00 40"}));
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 48"}));

    for (const auto& c : {all, notesOn1, notesOnAny, noteOff, clock, exclusive, system, channel16})
        EXPECT_TRUE(c->onMainThread);
    // Every event carries the source's attributes as they were at decoding, and one event object goes
    // to every consumer of its row.
    const auto& first = all->events.front();
    ASSERT_NE(first->sourceAttributes(), nullptr);
    EXPECT_EQ(first->sourceAttributes()->name(), std::optional<std::string>("Keys"));
    EXPECT_EQ(first->sourceAttributes()->manufacturer(), std::optional<std::string>("Acme"));
    EXPECT_EQ(first->sourceAttributes()->index(), 0u);
    EXPECT_EQ(first, notesOn1->events.front());
}

TEST_F(ReceiveRouting, ConsumersOfARowRunInRegistrationOrderBetweenTheDelegatesCalls)
{
    auto delegate = std::make_shared<RecordingDelegate>(journal);
    manager->setDelegate(delegate);
    auto first = consumer("first");
    auto second = consumer("second");
    auto otherRow = consumer("otherRow");
    source->addConsumerForEventTypeInChannel(first, VelmorEventTypeControlChange, 2);
    source->addConsumerForEventTypeInChannel(second, VelmorEventTypeControlChange, 2);
    // A second registration leaves the first in its place.
    source->addConsumerForEventTypeInChannel(first, VelmorEventTypeControlChange, 2);
    source->addConsumerForEventTypeInChannel(otherRow, VelmorEventTypeControlChange, 3);

    // Channel 1 of the same table has nobody: neither the manager nor the delegate hears of it.
    injectList({{1, {0xB1, 0x07, 0x01}}, {2, {0xB0, 0x07, 0x02}}, {3, {0xB1, 0x07, 0x03}}});
    settle();
    EXPECT_EQ(*journal, (Journal {"will B1 07 01", "first B1 07 01", "second B1 07 01", "did B1 07 01",
                                  "will B1 07 03", "first B1 07 03", "second B1 07 03", "did B1 07 03"}));
    EXPECT_EQ(delegate->lastSource, source);
}

TEST_F(ReceiveRouting, ADelegateHearsOnlyTheCallsItImplements)
{
    auto onlyDid = std::make_shared<RecordingDelegate>(journal, false, true);
    manager->setDelegate(onlyDid);
    EXPECT_EQ(manager->delegateFlags().midiSourceWillHandleEvent, 0u);
    EXPECT_EQ(manager->delegateFlags().midiSourceDidHandleEvent, 1u);
    source->addConsumer(consumer("c"));
    inject({0x90, 0x3C, 0x40});
    settle();
    EXPECT_EQ(*journal, (Journal {"c 90 3C 40", "did 90 3C 40"}));

    // A delegate that has gone is not called, and nothing breaks.
    journal->clear();
    onlyDid.reset();
    inject({0x90, 0x3C, 0x41});
    settle();
    EXPECT_EQ(*journal, (Journal {"c 90 3C 41"}));
}

TEST_F(ReceiveRouting, EventsCarryTheSourcesAttributesAfterAChangeOfItsProperties)
{
    auto c = consumer("c");
    source->addConsumer(c);
    inject({0x90, 0x3C, 0x40});
    settle();
    service().setStringProperty(device.source, VelmorPlatform::kMIDIPropertyName, "Renamed");
    service().setStringProperty(device.source, kIdentifierProperty, "id-7");
    inject({0x90, 0x3C, 0x41});
    settle();
    source->setIndex(2);
    inject({0x90, 0x3C, 0x42});
    settle();
    ASSERT_EQ(c->events.size(), 3u);
    const auto& before = c->events[0]->sourceAttributes();
    const auto& after = c->events[1]->sourceAttributes();
    ASSERT_TRUE(before && after);
    EXPECT_EQ(before->name(), std::optional<std::string>("Keys"));
    EXPECT_EQ(before->identifier(), std::nullopt);
    EXPECT_EQ(after->name(), std::optional<std::string>("Renamed"));
    EXPECT_EQ(after->identifier(), std::optional<std::string>("id-7"));
    EXPECT_EQ(after->uniqueID(), std::optional<std::int64_t>(source->uniqueID()));
    EXPECT_EQ(c->events[2]->sourceAttributes()->index(), 2u);
    EXPECT_NE(c->events[1]->sourceAttributes(), c->events[2]->sourceAttributes());
}

TEST_F(ReceiveRouting, AttributesReadThePlatformAtEachCallNotAtTheChangeNotification)
{
    using VelmorPlatform::kMIDIPropertyModel;
    using VelmorPlatform::kMIDIPropertyName;
    auto c = consumer("c");
    source->addConsumer(c);

    // A rename shows at once, with its notification still waiting for the main thread.
    service().setStringProperty(device.source, kMIDIPropertyName, "Renamed");
    service().setStringProperty(device.source, kMIDIPropertyModel, "K2");
    service().waitUntilIdle();
    ASSERT_GT(VelmorMainQueue::mainQueue().pendingCount(), 0u);
    auto attributes = source->attributes();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->name(), std::optional<std::string>("Renamed"));
    EXPECT_EQ(attributes->model(), std::optional<std::string>("K2"));
    settle();

    // An event decoded after a rename carries the new name, though the rename's notification was
    // queued behind the event's list.
    inject({0x90, 0x3C, 0x40});
    service().waitUntilIdle();
    service().setStringProperty(device.source, kMIDIPropertyName, "Again");
    service().waitUntilIdle();
    VelmorMainQueue::mainQueue().runPending();
    settle();
    ASSERT_EQ(c->events.size(), 1u);
    ASSERT_NE(c->events[0]->sourceAttributes(), nullptr);
    EXPECT_EQ(c->events[0]->sourceAttributes()->name(), std::optional<std::string>("Again"));
}

TEST_F(ReceiveRouting, FailingReadsGiveWhatTheGettersGive)
{
    using VelmorPlatform::kMIDIParamErr;  // -50: the getters answer from their caches
    using VelmorPlatform::kMIDIUnknownProperty;
    service().setStringProperty(device.source, kIdentifierProperty, "id-1");
    ASSERT_NE(source->attributes(), nullptr);  // fills the caches
    const std::int64_t uniqueID = source->uniqueID();
    ASSERT_NE(uniqueID, 0);
    // What the platform says from now on, where a read succeeds.
    service().setStringProperty(device.source, VelmorPlatform::kMIDIPropertyName, "New");
    service().setStringProperty(device.source, kIdentifierProperty, "id-2");
    settle();
    source->setCachedName(std::string("Keys"));
    source->setCachedIdentifier(std::string("id-1"));

    struct Case {
        const char* call;
        VelmorPlatform::OSStatus status;
        int count;
        bool nullAttributes;
        std::optional<std::string> name;
        std::optional<std::string> identifier;
        std::optional<std::int64_t> uniqueID;
    };
    const Case cases[] = {
        // The name can't be read: no attributes.
        {"MIDIObjectGetStringProperty", kMIDIUnknownProperty, 1, true, {}, {}, {}},
        // -50 on every string read: all from the caches.
        {"MIDIObjectGetStringProperty", kMIDIParamErr, 4, false, "Keys", "id-1", uniqueID},
        // -50 on the name only: the cached name, the rest read afresh.
        {"MIDIObjectGetStringProperty", kMIDIParamErr, 1, false, "Keys", "id-2", uniqueID},
        // The unique ID can't be read: none in the attributes.
        {"MIDIObjectGetIntegerProperty", kMIDIUnknownProperty, 1, false, "New", "id-2", std::nullopt},
        // -50 on the unique ID: the cache, which the failed read before cleared.
        {"MIDIObjectGetIntegerProperty", kMIDIParamErr, 1, false, "New", "id-2", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.status) + " x" + std::to_string(c.count));
        source->setCachedName(std::string("Keys"));
        source->setCachedIdentifier(std::string("id-1"));
        service().failNextCalls(c.call, c.status, c.count);
        const auto attributes = source->attributes();
        service().failNextCalls(c.call, VelmorPlatform::noErr, 0);
        if (c.nullAttributes) {
            EXPECT_EQ(attributes, nullptr);
            continue;
        }
        ASSERT_NE(attributes, nullptr);
        EXPECT_EQ(attributes->name(), c.name);
        EXPECT_EQ(attributes->identifier(), c.identifier);
        EXPECT_EQ(attributes->uniqueID(), c.uniqueID);
        EXPECT_EQ(attributes->manufacturer(), std::optional<std::string>("Acme"));
    }
    // A read that works again gives the platform's values.
    const auto attributes = source->attributes();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->name(), std::optional<std::string>("New"));
    EXPECT_EQ(attributes->uniqueID(), std::optional<std::int64_t>(uniqueID));
}

TEST_F(ReceiveRouting, ALongExclusiveMessageArrivesWhole)
{
    auto exclusive = consumer("x");
    source->addConsumerForEventTypeInChannel(exclusive, VelmorEventTypeSystem, 1);
    Bytes message(200000, 0x11);
    message.front() = 0xF0;
    message.back() = 0xF7;
    inject(message);  // more than one platform packet can hold
    settle();
    ASSERT_EQ(exclusive->events.size(), 1u);
    EXPECT_EQ(bytesOf(exclusive->events[0]->data()), message);
}

// --- Re-entrancy ----------------------------------------------------------------------------------

TEST_F(ReceiveReentrancy, ConsumersChangingTheRowDuringDeliveryAffectTheNextEventOnly)
{
    auto selfRemover = consumer("selfRemover");
    auto remover = consumer("remover");
    auto removed = consumer("removed");
    auto late = consumer("late");
    auto adder = consumer("adder");
    std::weak_ptr<RecordingConsumer> weakSelf = selfRemover;
    selfRemover->onEvent = [this, weakSelf](const auto&) {
        source->removeConsumerForEventTypeInChannel(weakSelf.lock(), VelmorEventTypeNoteOn, 1);
    };
    remover->onEvent = [this, removed](const auto&) {
        source->removeConsumerForEventTypeInChannel(removed, VelmorEventTypeNoteOn, 1);
    };
    adder->onEvent = [this, late](const auto&) { source->addConsumerForEventTypeInChannel(late, VelmorEventTypeNoteOn, 1); };
    for (const auto& c : {selfRemover, remover, removed, adder})
        source->addConsumerForEventTypeInChannel(c, VelmorEventTypeNoteOn, 1);

    injectList({{1, {0x90, 0x3C, 0x40}}, {2, {0x90, 0x3C, 0x41}}});
    settle();
    // The removed ones still get the event in hand, once; the added one gets the next.
    EXPECT_EQ(selfRemover->heard(), (std::vector<std::string> {"90 3C 40"}));
    EXPECT_EQ(removed->heard(), (std::vector<std::string> {"90 3C 40"}));
    EXPECT_EQ(remover->heard(), (std::vector<std::string> {"90 3C 40", "90 3C 41"}));
    EXPECT_EQ(adder->heard(), (std::vector<std::string> {"90 3C 40", "90 3C 41"}));
    EXPECT_EQ(late->heard(), (std::vector<std::string> {"90 3C 41"}));
}

TEST_F(ReceiveReentrancy, AConsumerRemovedDuringDeliveryLivesUntilTheCopyIsDropped)
{
    auto remover = consumer("remover");
    auto victim = consumer("victim");
    std::weak_ptr<RecordingConsumer> weakVictim = victim;
    remover->onEvent = [this, weakVictim](const auto&) {
        source->removeConsumer(weakVictim.lock());
    };
    source->addConsumerForEventTypeInChannel(remover, VelmorEventTypeNoteOn, 1);
    source->addConsumerForEventTypeInChannel(victim, VelmorEventTypeNoteOn, 1);
    victim.reset();  // the row is the only owner now
    inject({0x90, 0x3C, 0x40});
    settle();
    EXPECT_TRUE(weakVictim.expired());
    EXPECT_EQ(*journal, (Journal {"remover 90 3C 40", "victim 90 3C 40"}));
}

TEST_F(ReceiveReentrancy, ADelegateThatEmptiesTheRowLeavesTheEventToNobody)
{
    auto delegate = std::make_shared<RecordingDelegate>(journal);
    manager->setDelegate(delegate);
    auto only = consumer("only");
    source->addConsumerForEventTypeInChannel(only, VelmorEventTypeNoteOn, 1);
    delegate->onWill = [this, only](const auto&) {
        source->removeConsumerForEventTypeInChannel(only, VelmorEventTypeNoteOn, 1);
    };
    CapturedLines lines;
    injectList({{1, {0x90, 0x3C, 0x40}}, {2, {0x90, 0x3C, 0x41}}});
    settle();
    // The rest of the list still runs after the disconnect; the second event finds an empty row.
    EXPECT_EQ(*journal, (Journal {"will 90 3C 40", "did 90 3C 40"}));
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorRemoteSource.cpp] Removing MIDI Source: Keys ( Acme / K1 )"}));
    EXPECT_FALSE(connected());
}

TEST_F(ReceiveReentrancy, AListPostedBeforeADisconnectIsDroppedUnlessTheSourceIsBackBeforeIt)
{
    auto c = consumer("c");
    source->addConsumer(c);
    inject({0x90, 0x3C, 0x40});
    service().waitUntilIdle();  // the read procedure has posted the list
    ASSERT_EQ(VelmorMainQueue::mainQueue().pendingCount(), 1u);
    source->removeConsumerForAllEventsInChannel(c, 0);
    EXPECT_FALSE(connected());
    {
        CapturedLines lines;
        settle();
        EXPECT_TRUE(lines.lines().empty());
    }
    EXPECT_TRUE(c->events.empty());

    inject({0x90, 0x3C, 0x41});
    service().waitUntilIdle();
    EXPECT_EQ(VelmorMainQueue::mainQueue().pendingCount(), 0u);  // not connected: nothing is read

    source->addConsumer(c);
    inject({0x90, 0x3C, 0x42});
    service().waitUntilIdle();
    source->removeConsumerForAllEventsInChannel(c, 0);
    source->addConsumer(c);  // connected again before the list arrives
    settle();
    EXPECT_EQ(c->heard(), (std::vector<std::string> {"90 3C 42"}));
}

// --- Connection -----------------------------------------------------------------------------------

TEST_F(ReceiveConnection, RegistrationConnectsOnceAndOnlyDecidingRemovalsDisconnect)
{
    auto& s = service();
    s.resetCallCounts();
    auto a = consumer("a");
    auto b = consumer("b");

    // A type without a table changes nothing and does not connect.
    source->addConsumerForEventTypeInChannel(a, 0x91, 1);
    EXPECT_FALSE(connected());
    EXPECT_EQ(s.callCount("MIDIPortConnectSource"), 0u);

    source->addConsumerForEventTypeInChannel(a, VelmorEventTypeNoteOn, 1);
    source->addConsumerForEventTypeInChannel(b, VelmorEventTypePitchWheel, 0);
    source->addConsumer(nullptr);
    EXPECT_TRUE(connected());
    EXPECT_EQ(s.callCount("MIDIPortConnectSource"), 1u);
    EXPECT_EQ(manager->inputPort()->mutableSources().size(), 1u);

    CapturedLines lines;
    // One consumer left anywhere keeps the source connected.
    source->removeConsumerForEventTypeInChannel(a, VelmorEventTypeNoteOn, 0);
    EXPECT_TRUE(connected());
    // removeConsumer() never disconnects, even of the last consumer...
    source->removeConsumer(b);
    EXPECT_TRUE(connected());
    EXPECT_EQ(s.callCount("MIDIPortDisconnectSource"), 0u);
    // ... and its packets still arrive, to stop at empty rows.
    inject({0x90, 0x3C, 0x40});
    settle();
    EXPECT_TRUE(a->events.empty());
    // A later deciding removal disconnects, even one that removes nothing, even with a type that has
    // no table.
    source->removeConsumerForEventTypeInChannel(a, 0x91, 3);
    EXPECT_FALSE(connected());
    EXPECT_EQ(s.callCount("MIDIPortDisconnectSource"), 1u);
    // The line is written whenever every row is empty, connected or not.
    source->removeConsumerForAllEventsInChannel(nullptr, 0);
    EXPECT_EQ(s.callCount("MIDIPortDisconnectSource"), 1u);
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorRemoteSource.cpp] Removing MIDI Source: Keys ( Acme / K1 )",
                                                          "[VelmorRemoteSource.cpp] Removing MIDI Source: Keys ( Acme / K1 )"}));
}

TEST_F(ReceiveConnection, ChannelsOutsideTheTablesTouchNothing)
{
    auto a = consumer("a");
    source->addConsumerForAllEventsInChannel(a, 17);
    source->addConsumerForEventTypeInChannel(a, VelmorEventTypeNoteOn, 1000);
    for (std::uint64_t type = 0x80; type <= 0xF0; type += 0x10) {
        const auto table = source->consumerArrayForEventType(type);
        ASSERT_NE(table, nullptr);
        ASSERT_EQ(table->size(), 16u);
        for (const auto& row : *table)
            EXPECT_TRUE(row.empty());
    }
    EXPECT_EQ(source->consumerArrayForEventType(0x91), nullptr);
    EXPECT_EQ(source->consumerArrayForEventType(0x00), nullptr);
}

TEST_F(ReceiveConnection, EachServiceFaultHasItsLineAndLeavesARetry)
{
    auto& s = service();
    auto c = consumer("c");
    CapturedLines lines;

    // A refused connection: the consumer stays registered and hears nothing; the next add tries again.
    s.failNextCalls("MIDIPortConnectSource", VelmorPlatform::kMIDIInvalidPort);
    source->addConsumer(c);
    EXPECT_FALSE(connected());
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorInputPort.cpp] noErr == status failed with -10831"}));
    source->addConsumerForEventTypeInChannel(c, VelmorEventTypeNoteOn, 1);
    EXPECT_TRUE(connected());

    // A refused disconnection other than -50 leaves the source connected and delivering, silently.
    s.failNextCalls("MIDIPortDisconnectSource", VelmorPlatform::kMIDIInvalidPort);
    source->removeConsumerForAllEventsInChannel(c, 0);
    EXPECT_TRUE(connected());
    source->addConsumer(c);
    inject({0x90, 0x3C, 0x40});
    settle();
    EXPECT_EQ(c->heard(), (std::vector<std::string> {"90 3C 40"}));

    // -50 counts as disconnected. Even if the service keeps calling the connection, nothing arrives.
    s.failNextCalls("MIDIPortDisconnectSource", VelmorPlatform::kMIDIParamErr);
    source->removeConsumerForAllEventsInChannel(c, 0);
    EXPECT_FALSE(connected());
    source->addConsumerForEventTypeInChannel(c, 0x91, 1);  // registered again, but not connected
    inject({0x90, 0x3C, 0x41});
    settle();
    EXPECT_EQ(c->heard(), (std::vector<std::string> {"90 3C 40"}));
    EXPECT_EQ(lines.lines().size(), 3u);  // the first line and two "Removing MIDI Source"
}

TEST(InputPort, ConstructionRefusalsAndAReadProcedureOfItsOwn)
{
    auto& s = service();
    ASSERT_NE(VelmorManager::sharedManager(), nullptr);
    auto client = VelmorManager::sharedManager()->client();
    CapturedLines lines;
    EXPECT_EQ(VelmorInputPort::init(), nullptr);
    EXPECT_EQ(VelmorInputPort::initWithClientNameReadProc(client, std::string(), nullptr), nullptr);
    EXPECT_EQ(VelmorInputPort::initWithClientNameReadProc(nullptr, std::string("In"), nullptr), nullptr);
    EXPECT_TRUE(lines.lines().empty());
    s.failNextCalls("MIDIInputPortCreate", VelmorPlatform::kMIDIInvalidClient);
    EXPECT_EQ(VelmorInputPort::initWithClientNameReadProc(client, std::string("In"), nullptr), nullptr);
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorInputPort.cpp] noErr == status failed with -10830"}));

    // A given read procedure gets the lists and the port; the port itself then gets nothing.
    static std::atomic<void*> seenPort {nullptr};
    static std::atomic<int> calls {0};
    auto readProc = [](const VelmorPlatform::MIDIPacketList*, void* port, void*) {
        seenPort = port;
        ++calls;
    };
    auto port = VelmorInputPort::initWithClientNameReadProc(client, std::string("Own"), readProc);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->name(), std::optional<std::string>("Own"));
    EXPECT_EQ(port->description(), "VelmorInputPort: <VelmorInputPort: " + VelmorPointerString(port.get()) + ">");
    auto device = s.createSimpleDevice("Pads", "Acme", "P1", true, false);
    settle();
    auto source = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(device.source, std::nullopt);
    ASSERT_NE(source, nullptr);
    port->addSource(source);
    port->addSource(source);
    EXPECT_EQ(port->mutableSources().size(), 1u);
    s.injectBytes(device.source, Bytes {0x90, 0x3C, 0x40});
    settle();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(seenPort.load(), static_cast<void*>(static_cast<VelmorRootObject*>(port.get())));

    // A closed source has no endpoint: it is neither added nor removed.
    s.resetCallCounts();
    port->removeSource(source);
    EXPECT_TRUE(port->mutableSources().empty());
    source->closeObject();
    port->addSource(source);
    port->removeAllSources();
    EXPECT_EQ(s.callCount("MIDIPortConnectSource") + s.callCount("MIDIPortDisconnectSource"), 1u);

    // Its end disposes of the platform port.
    port.reset();
    EXPECT_EQ(s.callCount("MIDIPortDispose"), 1u);
}

// --- Termination ----------------------------------------------------------------------------------

TEST_F(ReceiveTermination, RemovingTheDeviceTellsEachRowsConsumersAndEndsDelivery)
{
    auto everywhere = consumer("everywhere");
    auto threeRows = consumer("threeRows");
    source->addConsumer(everywhere);
    source->addConsumerForEventTypeInChannel(threeRows, VelmorEventTypeNoteOff, 2);
    source->addConsumerForEventTypeInChannel(threeRows, VelmorEventTypeNoteOn, 1);
    source->addConsumerForEventTypeInChannel(threeRows, VelmorEventTypeSystem, 16);
    threeRows->onTerminating = [&](const auto& terminating) { EXPECT_EQ(terminating, source); };

    inject({0x90, 0x3C, 0x40});
    settle();
    journal->clear();
    CapturedLines lines;
    ASSERT_EQ(service().removeObject(device.device), VelmorPlatform::noErr);
    settle();

    EXPECT_EQ(everywhere->terminations.size(), 128u);
    EXPECT_EQ(threeRows->terminations.size(), 3u);
    // Table order, then row order: note off 2, note on 1, system 16 (the last row of all).
    std::vector<std::size_t> positions;
    for (std::size_t i = 0; i < journal->size(); ++i) {
        if ((*journal)[i] == "threeRows terminating")
            positions.push_back(i);
    }
    ASSERT_EQ(positions.size(), 3u);
    EXPECT_EQ(positions[0], 2u);  // behind everywhere in note-off rows 1 and 2
    EXPECT_EQ(positions[1], 18u);  // behind the rest of note off and everywhere in note-on row 1
    EXPECT_EQ(positions[2], journal->size() - 1);
    EXPECT_FALSE(connected());
    EXPECT_TRUE(manager->sources().empty());
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorRemoteSource.cpp] Removing MIDI Source: Keys ( Acme / K1 )"}));

    // The rows keep their consumers; nothing reaches them any more.
    EXPECT_EQ((*source->noteOnConsumers())[0].size(), 2u);
    EXPECT_EQ(everywhere->events.size(), 1u);
}

TEST_F(ReceiveTermination, AConsumerMayUnregisterWhileTheSourceTerminates)
{
    auto first = consumer("first");
    auto second = consumer("second");
    source->addConsumerForEventTypeInChannel(first, VelmorEventTypeNoteOn, 0);
    source->addConsumerForEventTypeInChannel(second, VelmorEventTypeNoteOn, 0);
    // The first removes the second everywhere at its first call: the second still hears the row in
    // hand, and no later one.
    first->onTerminating = [this, second](const auto&) { source->removeConsumer(second); };
    source->willBeRemoved();
    EXPECT_EQ(first->terminations.size(), 16u);
    EXPECT_EQ(second->terminations.size(), 1u);
}

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ObjectTestSupport.h"
#include "SendTestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorEvent.h"
#include "VelmorLocalOutput.h"
#include "VelmorManager.h"
#include "VelmorPacket.h"
#include "VelmorRemoteOutput.h"

using namespace VelmorPlatform;
using VelmorSendTest::CapturedLines;
using VelmorSendTest::NotificationRecorder;
using VelmorSendTest::SourceReader;
using VelmorSendTest::service;
using VelmorSendTest::settle;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::shared_ptr<VelmorClient> managerClient()
{
    auto manager = VelmorManager::sharedManager();
    return manager ? manager->client() : nullptr;
}

std::shared_ptr<VelmorAttributes> attributesWith(std::optional<std::string> name, std::optional<std::string> identifier,
                                                 std::optional<std::string> manufacturer = std::nullopt,
                                                 std::optional<std::string> model = std::nullopt,
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

std::shared_ptr<VelmorEvent> eventOf(const Bytes& bytes, std::uint64_t timeOffset = 0)
{
    return VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 0, timeOffset);
}

Bytes exclusiveMessage(std::size_t length)
{
    Bytes message(length);
    message.front() = 0xF0;
    for (std::size_t i = 1; i + 1 < length; ++i)
        message[i] = static_cast<std::uint8_t>(i % 0x7F);
    message.back() = 0xF7;
    return message;
}

std::shared_ptr<VelmorRemoteOutput> remoteOutputFor(MIDIEndpointRef destination)
{
    for (const auto& output : VelmorManager::sharedManager()->remoteOutputs())
        if (output->object() == destination)
            return output;
    return nullptr;
}

} // namespace

// --- Local output: construction, identity, closing ---------------------------------------------------

namespace {

// The in-process service, except that MIDISourceCreate may say yes and make nothing.
struct ServiceWithoutSourceEndpoints : ObjectTestSupport::ForwardingService {
    bool createNothing = false;
    OSStatus sourceCreate(MIDIClientRef c, std::string_view n, MIDIEndpointRef* r) override
    {
        return createNothing ? noErr : inner->sourceCreate(c, n, r);
    }
};

} // namespace

TEST(LocalOutputTest, ConstructionFailuresWriteTheirLineAndLeaveNoEndpoint)
{
    const auto forwarding = std::make_shared<ServiceWithoutSourceEndpoints>();
    setCurrentService(forwarding);
    const auto client = managerClient();
    ASSERT_NE(client, nullptr);
    const auto named = [&](std::optional<std::string> name) {
        return [&client, name] { return VelmorLocalOutput::initWithClientAttributes(client, attributesWith(name, "id")); };
    };
    struct Case {
        const char* what;
        std::function<void()> fault;
        std::function<std::shared_ptr<VelmorLocalOutput>()> make;
        std::string line;
    };
    const std::vector<Case> cases = {
        {"init", [] {}, [] { return VelmorLocalOutput::init(); }, "[VelmorLocalOutput.cpp] client != nil failed"},
        {"no attributes", [] {}, [&] { return VelmorLocalOutput::initWithClientAttributes(client, nullptr); },
         "[VelmorLocalOutput.cpp] attributes.name.length failed"},
        {"null name", [] {}, named(std::nullopt), "[VelmorLocalOutput.cpp] attributes.name.length failed"},
        {"empty name", [] {}, named(""), "[VelmorLocalOutput.cpp] attributes.name.length failed"},
        {"service refuses", [] { service().failNextCalls("MIDISourceCreate", kMIDIInvalidClient); }, named("A"),
         "[VelmorLocalOutput.cpp] noErr == status failed with -10830"},
        {"no endpoint", [&] { forwarding->createNothing = true; }, named("A"), "[VelmorLocalOutput.cpp] sourceEndpoint != 0 failed"},
        // The endpoint exists by then; it must not stay behind as a dead source.
        {"name unreadable", [&] { forwarding->createNothing = false; service().failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty); },
         named("A"), "[VelmorObject.cpp] noErr == status failed with -10835"},
    };
    for (const auto& c : cases) {
        settle();
        const auto sourcesBefore = MIDIGetNumberOfSources();
        CapturedLines lines;
        c.fault();
        EXPECT_EQ(c.make(), nullptr) << c.what;
        EXPECT_EQ(lines.lines(), std::vector<std::string> {c.line}) << c.what;
        settle();
        EXPECT_EQ(MIDIGetNumberOfSources(), sourcesBefore) << c.what;
    }
}

TEST(LocalOutputTest, AnswersWhatItWasOpenedWithAndAnnouncesIt)
{
    CapturedLines lines;
    const auto output = VelmorLocalOutput::initWithClientAttributes(
        managerClient(), attributesWith("Lead Synth", "com.example.lead", "Example Co", "LS-1"));
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(lines.lines(), std::vector<std::string> {"[VelmorLocalOutput.cpp] Created MIDI Output: Lead Synth ( Example Co / LS-1 )"});
    EXPECT_EQ(output->identifier(), "com.example.lead");
    EXPECT_EQ(output->description(), "{VelmorLocalOutput <" + VelmorPointerString(output.get()) +
                                         ">: Example Co LS-1 \"Lead Synth\" #com.example.lead (uid:" +
                                         std::to_string(output->uniqueID()) + ")}");

    // Without an identifier, name, manufacturer and model stay as created, then and later.
    const auto plain = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Plain", std::nullopt, "Example Co", "LS-1"));
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(lines.lines().back(), "[VelmorLocalOutput.cpp] Created MIDI Output: Plain ( (null) / (null) )");
    service().resetCallCounts();
    plain->setName("Renamed");
    plain->setManufacturer("Other");
    plain->setModel("Other");
    EXPECT_EQ(service().callCount("MIDIObjectSetStringProperty"), 0u);
    EXPECT_EQ(plain->name(), "Plain");
    EXPECT_EQ(plain->description(), "{VelmorLocalOutput <" + VelmorPointerString(plain.get()) +
                                        ">: (null) (null) \"Plain\" #(null) (uid:" + std::to_string(plain->uniqueID()) + ")}");
    output->setName("Renamed");
    EXPECT_EQ(output->name(), "Renamed");
}

TEST(LocalOutputTest, ARequestedUniqueIDIsWrittenAndARefusedOneLeavesAUsableOutput)
{
    const auto first = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("First", "first", {}, {}, 424242));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->uniqueID(), 424242);

    CapturedLines lines;
    const auto second = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Second", "second", {}, {}, 424242));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorObject.cpp] noErr == status failed with -10843",
                                                         "[VelmorLocalOutput.cpp] Created MIDI Output: Second ( (null) / (null) )"}));
    EXPECT_NE(second->uniqueID(), 424242);
    EXPECT_NE(second->uniqueID(), 0);
}

TEST(LocalOutputTest, ClosingDisposesOnceSendsNothingAndKeepsTheCaches)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Closing", "closing", "Maker", "C-1"));
    const auto stuck = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Stuck", "stuck"));
    ASSERT_TRUE(output && stuck);
    const auto uniqueID = output->uniqueID();
    SourceReader reader(output->object());
    settle();
    const auto sourcesBefore = MIDIGetNumberOfSources();

    service().resetCallCounts();
    CapturedLines lines;
    output->closeObject();
    output->closeObject();
    output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0));
    // A refused dispose is reported, and the output is closed all the same.
    service().failNextCalls("MIDIEndpointDispose", kMIDIUnknownEndpoint);
    stuck->closeObject();
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {
                                 "[VelmorLocalOutput.cpp] Closing MIDI Output: Closing ( Maker / C-1 )",
                                 "[VelmorLocalOutput.cpp] Closing MIDI Output: Closing ( Maker / C-1 )",
                                 "[VelmorLocalOutput.cpp] Closing MIDI Output: Stuck ( (null) / (null) )",
                                 "[VelmorLocalOutput.cpp] noErr == status failed with -10833",
                             }));
    EXPECT_EQ(service().callCount("MIDIEndpointDispose"), 2u);
    EXPECT_EQ(service().callCount("MIDIReceived"), 0u);
    EXPECT_EQ(MIDIGetNumberOfSources(), sourcesBefore - 1);
    EXPECT_EQ(stuck->object(), 0u);
    settle();
    EXPECT_EQ(reader.listCount(), 0u);
    EXPECT_EQ(output->name(), "Closing");
    EXPECT_EQ(output->identifier(), "closing");
    EXPECT_EQ(output->manufacturer(), "Maker");
    EXPECT_EQ(output->uniqueID(), uniqueID);
}

TEST(LocalOutputTest, AChangeOfItsOwnEndpointPostsTheLocalOutputNotification)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Own", "own"));
    const auto other = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Other", "other"));
    ASSERT_TRUE(output && other);
    const auto device = service().createSimpleDevice("Device", "Maker", "Model");
    settle();

    NotificationRecorder recorder({VelmorLocalOutputPropertyChangedNotification, VelmorObjectPropertyChangedNotification});
    output->setName("Own Renamed");
    settle();
    ASSERT_EQ(recorder.names(), (std::vector<std::string> {std::string(VelmorObjectPropertyChangedNotification),
                                                            std::string(VelmorLocalOutputPropertyChangedNotification)}));
    EXPECT_EQ(recorder.seen()[1].object.get(), static_cast<VelmorRootObject*>(output.get()));
    EXPECT_FALSE(recorder.seen()[1].userInfo.has_value());

    // Any property of its own endpoint counts; another endpoint's change does not.
    recorder.clear();
    output->setModel("Model 2");
    MIDIObjectSetStringProperty(device.source, kMIDIPropertyName, "Device Renamed");
    MIDIObjectSetStringProperty(device.entity, kMIDIPropertyModel, "Entity Model");
    settle();
    EXPECT_EQ(recorder.names(), std::vector<std::string> {std::string(VelmorLocalOutputPropertyChangedNotification)});
}

// --- Sending -------------------------------------------------------------------------------------------

TEST(SendTest, EventsOutOfAVirtualOutputReachAnotherClientIntactAndInOrder)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Sender", "sender"));
    ASSERT_NE(output, nullptr);
    SourceReader reader(output->object());

    const std::vector<std::shared_ptr<VelmorEvent>> events = {
        VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0),
        VelmorEvent::noteOffEventWithNoteVelocityChannelTimeOffset(60, 0, 16, 0),
        VelmorEvent::patchChangeEventWithProgramChannelTimeOffset(5, 3, 0),
        VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(16383, 2, 0),
        VelmorEvent::systemCommonEventWithStatusData(0xF2, 0x81),
        eventOf({0xF8}),
        eventOf({0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}),
        // Bytes that would read as two messages go out as the one packet they were given in.
        eventOf({0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}),
    };
    Bytes expected;
    for (const auto& event : events) {
        ASSERT_NE(event, nullptr);
        output->sendEvent(event);
        expected.insert(expected.end(), event->data().begin(), event->data().end());
    }
    ASSERT_TRUE(reader.waitForBytes(expected.size()));
    const auto packets = reader.packets();
    ASSERT_EQ(packets.size(), events.size());
    for (std::size_t i = 0; i < events.size(); ++i)
        EXPECT_EQ(packets[i].bytes, events[i]->data().toVector()) << i;
    EXPECT_EQ(reader.listCount(), events.size());
    EXPECT_FALSE(reader.malformedListSeen());
}

TEST(SendTest, ATimeOffsetMovesTheStampOnFromTheMomentOfSending)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Timed", "timed"));
    const auto device = service().createSimpleDevice("Timed Device", "Maker", "Model", false, true);
    settle();
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(output, nullptr);
    ASSERT_NE(remote, nullptr);
    SourceReader reader(output->object());

    // One tick of the host clock is the resolution; the conversion through nanoseconds may cost one more.
    const auto expectWithin = [](std::uint64_t stamp, std::uint64_t before, std::uint64_t after, std::uint64_t ms) {
        EXPECT_GE(stamp + 1, VelmorSendTest::hostTimeAfter(before, ms)) << ms << " ms";
        EXPECT_LE(stamp, VelmorSendTest::hostTimeAfter(after, ms) + 1) << ms << " ms";
    };
    for (std::uint64_t offset : {0u, 10u, 250u}) {
        const auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(64, 90, 1, offset);
        const std::uint64_t before = AudioGetCurrentHostTime();
        output->sendEvent(event);
        remote->sendEvent(event);
        const std::uint64_t after = AudioGetCurrentHostTime();
        service().waitUntilIdle();

        const auto packets = reader.packets();
        ASSERT_FALSE(packets.empty());
        expectWithin(packets.back().timeStamp, before, after, offset);

        const auto arrivals = service().arrivals(device.destination);
        ASSERT_FALSE(arrivals.empty());
        std::vector<VelmorSendTest::PlatformPacket> sent;
        const auto& image = arrivals.back().packetListImage;
        ASSERT_TRUE(VelmorSendTest::readPacketListImage(image.data(), image.size(), sent));
        ASSERT_EQ(sent.size(), 1u);
        expectWithin(sent[0].timeStamp, before, after, offset);
    }
}

TEST(SendTest, NothingWithoutBytesReachesTheService)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Empty", "empty"));
    const auto device = service().createSimpleDevice("Empty Device", "Maker", "Model", false, true);
    settle();
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(output, nullptr);
    ASSERT_NE(remote, nullptr);

    auto nullData = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 1, 1, 0);
    nullData->setData(VelmorData());
    auto emptyData = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 1, 1, 0);
    emptyData->setData(VelmorData::empty());
    service().resetCallCounts();
    CapturedLines lines;
    for (const auto& event : {std::shared_ptr<VelmorEvent>(), nullData, emptyData}) {
        output->sendEvent(event);
        remote->sendEvent(event);
    }
    EXPECT_EQ(service().callCount("MIDIReceived"), 0u);
    EXPECT_EQ(service().callCount("MIDISend"), 0u);
    EXPECT_TRUE(lines.lines().empty());
}

TEST(SendTest, ALongExclusiveMessageGoesOutWhole)
{
    const auto output = VelmorLocalOutput::initWithClientAttributes(managerClient(), attributesWith("Dump", "dump"));
    const auto device = service().createSimpleDevice("Dump Device", "Maker", "Model", false, true);
    settle();
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(output, nullptr);
    ASSERT_NE(remote, nullptr);
    SourceReader reader(output->object());

    // 242 and 243: either side of the largest image a sender renders in its own small buffer.
    for (std::size_t length : {std::size_t(242), std::size_t(243), std::size_t(65535), std::size_t(65536),
                               std::size_t(200000)}) {
        const Bytes message = exclusiveMessage(length);
        const auto event = eventOf(message);
        ASSERT_NE(event, nullptr);
        const auto packetsBefore = reader.packets().size();
        const auto bytesBefore = reader.bytes().size();
        service().clearArrivals(device.destination);

        output->sendEvent(event);
        remote->sendEvent(event);
        ASSERT_TRUE(reader.waitForBytes(bytesBefore + length)) << length;
        service().waitUntilIdle();

        // One list, of as many platform packets as the 16-bit length field needs, all stamped alike.
        const auto packets = reader.packets();
        const std::size_t expectedPackets = (length + 65534) / 65535;
        ASSERT_EQ(packets.size() - packetsBefore, expectedPackets) << length;
        Bytes received;
        for (std::size_t i = packetsBefore; i < packets.size(); ++i) {
            EXPECT_LE(packets[i].bytes.size(), 65535u);
            EXPECT_EQ(packets[i].timeStamp, packets[packetsBefore].timeStamp);
            received.insert(received.end(), packets[i].bytes.begin(), packets[i].bytes.end());
        }
        EXPECT_TRUE(received == message) << length;
        EXPECT_FALSE(reader.malformedListSeen());

        EXPECT_TRUE(service().arrivedBytes(device.destination) == message) << length;
        const auto arrivals = service().arrivals(device.destination);
        ASSERT_EQ(arrivals.size(), 1u);
        std::vector<VelmorSendTest::PlatformPacket> sent;
        EXPECT_TRUE(VelmorSendTest::readPacketListImage(arrivals[0].packetListImage.data(),
                                                    arrivals[0].packetListImage.size(), sent));
        EXPECT_EQ(sent.size(), expectedPackets);
    }
}

// --- Remote output -------------------------------------------------------------------------------------

TEST(RemoteOutputTest, ConstructionNeedsAnEndpointAndAPort)
{
    const auto device = service().createSimpleDevice("Port Device", "Maker", "Model", false, true);
    {
        CapturedLines lines;
        EXPECT_EQ(VelmorRemoteOutput::initWithEndpointRefOutputPort(0, 77), nullptr);
        EXPECT_EQ(VelmorRemoteOutput::initWithEndpointRefOutputPort(0, 0), nullptr);
        EXPECT_EQ(VelmorRemoteOutput::init(), nullptr);
        EXPECT_TRUE(lines.lines().empty());
    }
    {
        CapturedLines lines;
        EXPECT_EQ(VelmorRemoteOutput::initWithEndpointRefOutputPort(device.destination, 0), nullptr);
        EXPECT_EQ(lines.lines(), std::vector<std::string> {"[VelmorRemoteOutput.cpp] outputPort failed"});
    }
    {
        // A remote output never writes a unique ID.
        service().resetCallCounts();
        const auto output = VelmorRemoteOutput::initWithEndpointRefOutputPort(device.destination, 77);
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(output->outputPort(), 77u);
        EXPECT_EQ(service().callCount("MIDIObjectSetIntegerProperty"), 0u);
        // It has no text form of its own: the endpoint's, under its class name.
        EXPECT_EQ(output->description().rfind("VelmorEndpoint: mod:Model mfg:Maker VelmorObject: n:Port Device", 0), 0u);
        EXPECT_NE(output->description().find("<VelmorRemoteOutput: 0x"), std::string::npos) << output->description();
    }
}

TEST(RemoteOutputTest, EventsReachTheDeviceDestinationThroughTheManagersPort)
{
    const auto device = service().createSimpleDevice("Synth", "Maker", "Model", true, true);
    settle();
    const auto output = remoteOutputFor(device.destination);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->outputPort(), VelmorManager::sharedManager()->outputPort());

    service().resetCallCounts();
    output->sendEvent(nullptr);
    EXPECT_EQ(service().callCount("MIDISend"), 0u);

    output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 10, 0));
    output->sendEvent(VelmorEvent::controlChangeEventWithControllerValueChannelTimeOffset(7, 100, 10, 0));
    service().waitUntilIdle();
    EXPECT_EQ(service().callCount("MIDISend"), 2u);
    EXPECT_EQ(service().arrivals(device.destination).size(), 2u);
    EXPECT_EQ(service().arrivedBytes(device.destination), (Bytes {0x99, 0x3C, 0x64, 0xB9, 0x07, 0x64}));

    // Once its destination is gone the output is left with the old reference; sending stays harmless.
    service().removeObject(device.device);
    settle();
    output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 10, 0));
    EXPECT_EQ(output->object(), device.destination);
    EXPECT_EQ(output->name(), "Synth");
}

// --- Threads ---------------------------------------------------------------------------------------------

TEST(SendTest, SeveralThreadsSendWhileTheMainThreadOpensAndClosesOtherOutputs)
{
    constexpr int senders = 4;
    constexpr int eventsPerSender = 2000;
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    std::vector<std::shared_ptr<VelmorLocalOutput>> outputs;
    std::vector<std::unique_ptr<SourceReader>> readers;
    for (int i = 0; i < senders; ++i) {
        auto output = manager->openVirtualOutputWithAttributes(
            VelmorAttributes::defaultAttributesWithNameIdentifier("Sender " + std::to_string(i), "sender." + std::to_string(i)));
        ASSERT_NE(output, nullptr);
        readers.push_back(std::make_unique<SourceReader>(output->object()));
        outputs.push_back(std::move(output));
    }
    const auto device = service().createSimpleDevice("Shared Synth", "Maker", "Model", false, true);
    settle();
    const auto remote = remoteOutputFor(device.destination);
    ASSERT_NE(remote, nullptr);

    // One more output, which the main thread closes while its thread sends on it.
    auto doomed = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Doomed", "doomed"));
    ASSERT_NE(doomed, nullptr);
    SourceReader doomedReader(doomed->object());

    std::atomic<bool> go {false};
    std::atomic<bool> stop {false};
    std::atomic<int> finished {0};
    std::atomic<int> doomedSent {0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!go.load())
            std::this_thread::yield();
        for (int n = 0; !stop.load(); ++n) {
            doomed->sendEvent(VelmorEvent::controlChangeEventWithControllerValueChannelTimeOffset(
                std::uint64_t(n % 128), std::uint64_t((n / 128) % 128), 1, 0));
            doomedSent.store(n + 1);
        }
    });
    for (int i = 0; i < senders; ++i) {
        threads.emplace_back([&, i] {
            while (!go.load())
                std::this_thread::yield();
            for (int n = 0; n < eventsPerSender; ++n) {
                // The note number carries the sequence, so that order shows at the reader.
                const auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(
                    std::uint64_t(n % 128), std::uint64_t(n / 128), std::uint64_t(i + 1), 0);
                outputs[i]->sendEvent(event);
                if (n % 100 == 0)
                    remote->sendEvent(event);
            }
            finished.fetch_add(1);
        });
    }
    go.store(true);
    int cycles = 0;
    CapturedLines lines;  // the open and close lines of the churn
    while (finished.load() < senders || cycles < 20) {
        auto churn = manager->openVirtualOutputWithAttributes(
            VelmorAttributes::defaultAttributesWithNameIdentifier("Churn", "churn." + std::to_string(cycles)));
        ASSERT_NE(churn, nullptr);
        churn->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(1, 1, 1, 0));
        manager->closeVirtualOutput(churn);
        if (cycles == 5) {
            ASSERT_TRUE(doomedReader.waitForBytes(300));
            manager->closeVirtualOutput(doomed);
        }
        VelmorMainQueue::mainQueue().runPending();
        ++cycles;
    }
    stop.store(true);
    for (auto& thread : threads)
        thread.join();

    // What reached the reader arrived whole and in order (the service drops what it had not yet
    // delivered when the endpoint goes).
    service().waitUntilIdle();
    const auto doomedPackets = doomedReader.packets();
    EXPECT_GE(doomedPackets.size(), 100u);
    EXPECT_LE(doomedPackets.size(), std::size_t(doomedSent.load()));
    for (std::size_t n = 0; n < doomedPackets.size(); ++n) {
        const Bytes expected {0xB0, std::uint8_t(n % 128), std::uint8_t((n / 128) % 128)};
        ASSERT_EQ(doomedPackets[n].bytes, expected) << n;
    }

    for (int i = 0; i < senders; ++i) {
        ASSERT_TRUE(readers[i]->waitForBytes(3 * eventsPerSender)) << i;
        const auto packets = readers[i]->packets();
        ASSERT_EQ(packets.size(), std::size_t(eventsPerSender)) << i;
        for (int n = 0; n < eventsPerSender; ++n) {
            const Bytes expected {std::uint8_t(0x90 | i), std::uint8_t(n % 128), std::uint8_t(n / 128)};
            ASSERT_EQ(packets[n].bytes, expected) << "sender " << i << " event " << n;
        }
    }
    service().waitUntilIdle();
    EXPECT_EQ(service().arrivals(device.destination).size(), std::size_t(senders * eventsPerSender / 100));
    EXPECT_EQ(manager->localOutputs().size(), std::size_t(senders));
}

// The manager's life: start, its names, the delegate, teardown of a manager that is let go.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "ReceiveTestSupport.h"

using namespace VelmorReceiveTest;
using VelmorTest::CapturedLines;
using namespace VelmorPlatform;

namespace {

// The process's in-process service behind a journal of the calls that name or end platform objects.
class RecordingService : public VelmorMIDIService {
public:
    const char* serviceName() const override { return "recording"; }

    std::vector<std::string> calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    OSStatus clientCreate(std::string_view name, MIDINotifyProc proc, void* refCon, MIDIClientRef* out) override
    {
        note("clientCreate " + std::string(name));
        return inner().clientCreate(name, proc, refCon, out);
    }
    OSStatus clientDispose(MIDIClientRef client) override
    {
        note("clientDispose");
        return inner().clientDispose(client);
    }
    OSStatus inputPortCreate(MIDIClientRef client, std::string_view name, MIDIReadProc proc, void* refCon,
                             MIDIPortRef* out) override
    {
        note("inputPortCreate " + std::string(name));
        return inner().inputPortCreate(client, name, proc, refCon, out);
    }
    OSStatus outputPortCreate(MIDIClientRef client, std::string_view name, MIDIPortRef* out) override
    {
        note("outputPortCreate " + std::string(name));
        return inner().outputPortCreate(client, name, out);
    }
    OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* refCon) override
    {
        return inner().portConnectSource(port, source, refCon);
    }
    OSStatus portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source) override
    {
        note("portDisconnectSource");
        return inner().portDisconnectSource(port, source);
    }
    OSStatus portDispose(MIDIPortRef port) override
    {
        note("portDispose");
        return inner().portDispose(port);
    }
    OSStatus sourceCreate(MIDIClientRef c, std::string_view n, MIDIEndpointRef* o) override { return inner().sourceCreate(c, n, o); }
    OSStatus endpointDispose(MIDIEndpointRef e) override { return inner().endpointDispose(e); }
    OSStatus received(MIDIEndpointRef s, const MIDIPacketList* l) override { return inner().received(s, l); }
    OSStatus send(MIDIPortRef p, MIDIEndpointRef d, const MIDIPacketList* l) override { return inner().send(p, d, l); }
    ItemCount numberOfSources() override { return inner().numberOfSources(); }
    MIDIEndpointRef source(ItemCount i) override { return inner().source(i); }
    ItemCount numberOfDestinations() override { return inner().numberOfDestinations(); }
    MIDIEndpointRef destination(ItemCount i) override { return inner().destination(i); }
    ItemCount deviceNumberOfEntities(MIDIDeviceRef d) override { return inner().deviceNumberOfEntities(d); }
    MIDIEntityRef deviceEntity(MIDIDeviceRef d, ItemCount i) override { return inner().deviceEntity(d, i); }
    ItemCount entityNumberOfSources(MIDIEntityRef e) override { return inner().entityNumberOfSources(e); }
    MIDIEndpointRef entitySource(MIDIEntityRef e, ItemCount i) override { return inner().entitySource(e, i); }
    ItemCount entityNumberOfDestinations(MIDIEntityRef e) override { return inner().entityNumberOfDestinations(e); }
    MIDIEndpointRef entityDestination(MIDIEntityRef e, ItemCount i) override { return inner().entityDestination(e, i); }
    OSStatus endpointGetEntity(MIDIEndpointRef e, MIDIEntityRef* o) override { return inner().endpointGetEntity(e, o); }
    OSStatus getStringProperty(MIDIObjectRef o, std::string_view p, std::optional<std::string>* s) override
    {
        return inner().getStringProperty(o, p, s);
    }
    OSStatus setStringProperty(MIDIObjectRef o, std::string_view p, std::string_view v) override
    {
        return inner().setStringProperty(o, p, v);
    }
    OSStatus getIntegerProperty(MIDIObjectRef o, std::string_view p, std::int32_t* v) override
    {
        return inner().getIntegerProperty(o, p, v);
    }
    OSStatus setIntegerProperty(MIDIObjectRef o, std::string_view p, std::int32_t v) override
    {
        return inner().setIntegerProperty(o, p, v);
    }

private:
    static VelmorInProcessMIDIService& inner() { return service(); }
    void note(std::string call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(std::move(call));
    }
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
};

std::shared_ptr<RecordingService> installRecordingService()
{
    auto recording = std::make_shared<RecordingService>();
    setCurrentService(recording);
    return recording;
}

} // namespace

// --- Names ----------------------------------------------------------------------------------------

TEST(ManagerNames, NamingStringsReachThePlatformOnlyBeforeTheStart)
{
    auto recording = installRecordingService();
    // Null and empty are ignored by all five writers.
    for (auto writer : {&VelmorManager::setClientName, &VelmorManager::setInputPortName, &VelmorManager::setOutputPortName,
                        &VelmorManager::setLocalOutputManufacturer, &VelmorManager::setLocalOutputModel}) {
        writer(std::nullopt);
        writer(std::string());
    }
    VelmorManager::setInputPortName(std::string("In"));
    VelmorManager::setOutputPortName(std::string("Out"));

    auto attributes = VelmorAttributes::init();  // the first default attributes start the manager
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(attributes->name(), std::optional<std::string>("Velmor Client"));
    EXPECT_EQ(attributes->manufacturer(), std::optional<std::string>("Brightmarrow"));
    EXPECT_EQ(attributes->model(), std::optional<std::string>("Velmor"));
    EXPECT_EQ(recording->calls(),
              (std::vector<std::string> {"clientCreate Velmor Client", "inputPortCreate In", "outputPortCreate Out"}));
    EXPECT_NE(manager->outputPort(), 0u);

    // Afterwards the names answer anew, but the platform's objects keep theirs.
    VelmorManager::setClientName(std::string("Later"));
    VelmorManager::setInputPortName(std::string("Later In"));
    VelmorManager::setLocalOutputManufacturer(std::string("Maker"));
    VelmorManager::setLocalOutputModel(std::string("M2"));
    EXPECT_EQ(manager->clientName(), "Later");
    EXPECT_EQ(manager->localOutputManufacturer(), "Maker");
    EXPECT_EQ(manager->localOutputModel(), "M2");
    auto later = VelmorAttributes::defaultAttributesWithName(std::nullopt);
    EXPECT_EQ(later->name(), std::optional<std::string>("Later"));
    EXPECT_EQ(later->manufacturer(), std::optional<std::string>("Maker"));
    EXPECT_EQ(recording->calls().size(), 3u);
    EXPECT_EQ(manager->description(), "VelmorManager: <VelmorManager: " + VelmorPointerString(manager.get()) + ">");
}

TEST(ManagerNames, ClassStringsMayBeWrittenWhileOtherThreadsReadThem)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    std::atomic<bool> go {false};
    std::thread writer([&] {
        while (!go) {
        }
        for (int i = 0; i < 2000; ++i) {
            VelmorManager::setClientName("Client " + std::to_string(i));
            VelmorManager::setLocalOutputManufacturer("Maker " + std::to_string(i));
        }
    });
    go = true;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = manager->clientName();
        EXPECT_TRUE(name.rfind("Client ", 0) == 0 || name == "Velmor Client") << name;
        EXPECT_FALSE(manager->localOutputManufacturer().empty());
    }
    writer.join();
    EXPECT_EQ(manager->clientName(), "Client 1999");
}

// --- Start and failure ----------------------------------------------------------------------------

TEST(ManagerStart, ConcurrentFirstCallsMakeOneManager)
{
    service().resetCallCounts();
    std::vector<std::shared_ptr<VelmorManager>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = VelmorManager::sharedManager(); });
    for (auto& thread : threads)
        thread.join();
    ASSERT_NE(seen[0], nullptr);
    for (const auto& manager : seen)
        EXPECT_EQ(manager, seen[0]);
    EXPECT_EQ(service().callCount("MIDIClientCreate"), 1u);
    // Nothing of the platform's endpoints is read at the start.
    EXPECT_FALSE(seen[0]->mutableSources().has_value());
    EXPECT_EQ(service().callCount("MIDIGetNumberOfSources"), 0u);
}

TEST(ManagerStart, AFailedStartIsNotTriedAgain)
{
    service().failNextCalls("MIDIClientCreate", kMIDIInvalidClient);
    CapturedLines lines;
    EXPECT_EQ(VelmorManager::sharedManager(), nullptr);
    EXPECT_EQ(VelmorManager::sharedManager(), nullptr);
    EXPECT_EQ(service().callCount("MIDIClientCreate"), 1u);
    EXPECT_EQ(lines.lines(), (std::vector<std::string> {"[VelmorClient.cpp] noErr == status failed with -10830",
                                                          "[VelmorManager.cpp] client != nil failed"}));
    // Without a manager, default attributes have nothing to take their strings from, and a source has
    // no port to connect to: nothing breaks.
    auto attributes = VelmorAttributes::init();
    ASSERT_NE(attributes, nullptr);
    auto device = service().createSimpleDevice("Keys", "Acme", "K1", true, false);
    auto source = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(device.source, std::nullopt);
    ASSERT_NE(source, nullptr);
    source->addConsumer(std::make_shared<RecordingConsumer>("c", nullptr));
    source->willBeRemoved();
    settle();
}

TEST(ManagerStart, EachFailingStepLeavesNothingBehind)
{
    auto recording = installRecordingService();
    struct Case {
        const char* call;
        std::vector<std::string> lines;
        std::vector<std::string> calls;
    };
    const std::vector<Case> cases = {
        {"MIDIClientCreate",
         {"[VelmorClient.cpp] noErr == status failed with -10830", "[VelmorManager.cpp] client != nil failed"},
         {"clientCreate Velmor Client", "clientDispose"}},
        {"MIDIInputPortCreate",
         {"[VelmorInputPort.cpp] noErr == status failed with -10830", "[VelmorManager.cpp] inputPort != nil failed"},
         {"clientCreate Velmor Client", "inputPortCreate Velmor Input", "clientDispose"}},
    };
    for (const auto& c : cases) {
        const auto before = recording->calls().size();
        service().failNextCalls(c.call, kMIDIInvalidClient);
        CapturedLines lines;
        EXPECT_EQ(VelmorManager::init(), nullptr) << c.call;
        EXPECT_EQ(lines.lines(), c.lines) << c.call;
        const auto calls = recording->calls();
        EXPECT_EQ(std::vector<std::string>(calls.begin() + before, calls.end()), c.calls) << c.call;
    }

    // Without an output port the manager runs, silently.
    service().failNextCalls("MIDIOutputPortCreate", kMIDIInvalidClient);
    CapturedLines lines;
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->outputPort(), 0u);
    EXPECT_TRUE(lines.lines().empty());
}

TEST(ManagerStart, AManagerLetGoDisconnectsItsSourcesThenDisposesPortAndClient)
{
    auto recording = installRecordingService();
    service().createSimpleDevice("Keys", "Acme", "K1", true, false);
    auto manager = VelmorManager::init();
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(VelmorNotificationCenter::defaultCenter().registrationCount(manager.get()), 5u);
    const VelmorManager* address = manager.get();
    // A second manager's sources connect to its own port: drive its port directly.
    manager->sources();
    auto source = manager->sources().at(0);
    manager->inputPort()->addSource(source);
    ASSERT_EQ(manager->inputPort()->mutableSources().size(), 1u);

    const auto before = recording->calls().size();
    manager.reset();
    const auto calls = recording->calls();
    EXPECT_EQ(std::vector<std::string>(calls.begin() + before, calls.end()),
              (std::vector<std::string> {"portDisconnectSource", "portDispose", "clientDispose"}));
    EXPECT_EQ(VelmorNotificationCenter::defaultCenter().registrationCount(address), 0u);
    settle();
}

// --- Delegate -------------------------------------------------------------------------------------

TEST(ManagerDelegate, FlagsFollowEachSetDelegateAndTheDelegateIsNotOwned)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto journal = std::make_shared<Journal>();
    auto both = std::make_shared<RecordingDelegate>(journal, true, true);
    auto onlyWill = std::make_shared<RecordingDelegate>(journal, true, false);
    manager->setDelegate(both);
    EXPECT_EQ(manager->delegateFlags().midiSourceWillHandleEvent, 1u);
    EXPECT_EQ(manager->delegateFlags().midiSourceDidHandleEvent, 1u);
    manager->setDelegate(onlyWill);
    EXPECT_EQ(manager->delegateFlags().midiSourceWillHandleEvent, 1u);
    EXPECT_EQ(manager->delegateFlags().midiSourceDidHandleEvent, 0u);
    EXPECT_EQ(manager->delegate(), onlyWill);
    manager->midiSourceWillSendEvent(nullptr, VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 1, 1, 0));
    manager->midiSourceDidSendEvent(nullptr, VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 2, 1, 0));
    EXPECT_EQ(*journal, (Journal {"will 90 3C 01"}));

    std::weak_ptr<RecordingDelegate> weak = onlyWill;
    onlyWill.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(manager->delegate(), nullptr);
    manager->setDelegate(nullptr);
    EXPECT_EQ(manager->delegateFlags().midiSourceWillHandleEvent, 0u);
    EXPECT_EQ(manager->delegateFlags().midiSourceDidHandleEvent, 0u);
}

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "VelmorInProcessMIDIService.h"
#include "VelmorMIDIServices.h"

using namespace VelmorPlatform;

namespace {

// A flat copy of a record, taken during the callback.
struct Record {
    MIDINotificationMessageID id;
    MIDIObjectRef first;        // parent, or the object of a property change
    MIDIObjectType firstType;
    MIDIObjectRef child;
    MIDIObjectType childType;
    std::string property;
    bool operator==(const Record&) const = default;
};

struct NotifyLog {
    std::mutex mutex;
    std::vector<Record> records;
    std::set<std::thread::id> threads;

    static void proc(const MIDINotification* message, void* refCon)
    {
        auto* log = static_cast<NotifyLog*>(refCon);
        Record record {message->messageID, 0, 0, 0, 0, {}};
        if (message->messageID == kMIDIMsgPropertyChanged) {
            const auto* change = reinterpret_cast<const MIDIObjectPropertyChangeNotification*>(message);
            record.first = change->object;
            record.firstType = change->objectType;
            record.property = change->propertyName;
        } else {
            const auto* addRemove = reinterpret_cast<const MIDIObjectAddRemoveNotification*>(message);
            record.first = addRemove->parent;
            record.firstType = addRemove->parentType;
            record.child = addRemove->child;
            record.childType = addRemove->childType;
        }
        std::lock_guard<std::mutex> lock(log->mutex);
        log->records.push_back(record);
        log->threads.insert(std::this_thread::get_id());
    }
    std::vector<Record> take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(records, {});
    }
};

std::vector<std::uint8_t> imageOf(const MIDIPacketList* list)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
    return {bytes, bytes + MIDIPacketListByteSize(list)};
}

struct ReadLog {
    std::mutex mutex;
    std::vector<std::pair<void*, std::vector<std::uint8_t>>> lists;  // connection reference, image
    void* portRefCon = nullptr;

    static void proc(const MIDIPacketList* list, void* readProcRefCon, void* connRefCon)
    {
        auto* log = static_cast<ReadLog*>(readProcRefCon);
        std::lock_guard<std::mutex> lock(log->mutex);
        log->lists.emplace_back(connRefCon, imageOf(list));
    }
    std::size_t size()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lists.size();
    }
};

// One packet list image: count, then (time stamp, length, bytes) per packet.
std::vector<std::uint8_t> makeImage(const std::vector<std::pair<MIDITimeStamp, std::vector<std::uint8_t>>>& packets)
{
    std::vector<std::uint8_t> image(4);
    const auto count = std::uint32_t(packets.size());
    std::memcpy(image.data(), &count, 4);
    for (const auto& [time, data] : packets) {
        std::uint8_t header[10];
        std::memcpy(header, &time, 8);
        const auto length = std::uint16_t(data.size());
        std::memcpy(header + 8, &length, 2);
        image.insert(image.end(), header, header + 10);
        image.insert(image.end(), data.begin(), data.end());
    }
    return image;
}

struct ServiceTest : ::testing::Test {
    std::shared_ptr<VelmorInProcessMIDIService> service = VelmorInProcessMIDIService::create();

    // Logs live on a test's stack: callbacks still queued at its end must run before they go.
    struct IdleOnExit {
        VelmorInProcessMIDIService& service;
        ~IdleOnExit() { service.waitUntilIdle(); }
    };

    MIDIClientRef client(NotifyLog* log)
    {
        MIDIClientRef ref = 0;
        EXPECT_EQ(noErr, service->clientCreate("test", log ? &NotifyLog::proc : nullptr, log, &ref));
        return ref;
    }
    MIDIPortRef inputPort(MIDIClientRef clientRef, ReadLog* log)
    {
        MIDIPortRef port = 0;
        EXPECT_EQ(noErr, service->inputPortCreate(clientRef, "in", &ReadLog::proc, log, &port));
        return port;
    }
};

} // namespace

TEST_F(ServiceTest, ObjectTreeEnumerationAndProperties)
{
    auto a = service->createSimpleDevice("Synth", "Maker", "M1");
    auto b = service->createSimpleDevice("Keys", "Other", "K2", true, false);
    const auto extra = service->createSource(a.entity, "Synth Out 2");

    EXPECT_EQ(3u, service->numberOfSources());
    EXPECT_EQ((std::vector<MIDIEndpointRef> {a.source, b.source, extra}),
              (std::vector<MIDIEndpointRef> {service->source(0), service->source(1), service->source(2)}));
    EXPECT_EQ(0u, service->source(3));
    EXPECT_EQ(extra, service->entitySource(a.entity, 1));
    EXPECT_EQ(a.entity, service->deviceEntity(a.device, 0));
    MIDIEntityRef entity = 0;
    EXPECT_EQ(noErr, service->endpointGetEntity(a.destination, &entity));
    EXPECT_EQ(a.entity, entity);

    // Endpoints of a simple device carry manufacturer and model; a created one only its name.
    std::optional<std::string> text;
    EXPECT_EQ(noErr, service->getStringProperty(a.source, kMIDIPropertyModel, &text));
    EXPECT_EQ("M1", text);
    EXPECT_EQ(noErr, service->getStringProperty(extra, kMIDIPropertyManufacturer, &text));
    EXPECT_EQ(std::nullopt, text);
    EXPECT_EQ(noErr, service->setStringProperty(extra, "com_example_Identifier", ""));
    EXPECT_EQ(noErr, service->getStringProperty(extra, "com_example_Identifier", &text));
    EXPECT_EQ(std::optional<std::string>(""), text);  // empty is not absent
    EXPECT_EQ(noErr, service->removeStringProperty(extra, "com_example_Identifier"));
    EXPECT_EQ(noErr, service->getStringProperty(extra, "com_example_Identifier", &text));
    EXPECT_EQ(std::nullopt, text);

    // Unique IDs: given at creation, distinct, and guarded.
    std::set<std::int32_t> ids;
    for (auto ref : {a.device, a.entity, a.source, a.destination, b.device, b.entity, b.source, extra}) {
        std::int32_t id = 0;
        EXPECT_EQ(noErr, service->getIntegerProperty(ref, kMIDIPropertyUniqueID, &id));
        EXPECT_NE(0, id);
        ids.insert(id);
    }
    EXPECT_EQ(8u, ids.size());
    std::int32_t taken = 0;
    service->getIntegerProperty(b.source, kMIDIPropertyUniqueID, &taken);
    EXPECT_EQ(kMIDIIDNotUnique, service->setIntegerProperty(a.source, kMIDIPropertyUniqueID, taken));
    EXPECT_EQ(noErr, service->setIntegerProperty(a.source, kMIDIPropertyUniqueID, -77));
    EXPECT_EQ(noErr, service->setIntegerProperty(b.source, kMIDIPropertyUniqueID, 0));
    EXPECT_EQ(noErr, service->setIntegerProperty(extra, kMIDIPropertyUniqueID, 0));  // 0 is "none", shared
    EXPECT_EQ(noErr, service->setIntegerProperty(extra, kMIDIPropertyUniqueID, taken));  // freed by b.source
    std::int32_t id = 0;

    // Gone objects, wrong kinds, wrong properties.
    ASSERT_EQ(noErr, service->removeObject(b.device));
    EXPECT_EQ(kMIDIParamErr, service->getStringProperty(b.source, kMIDIPropertyName, &text));
    EXPECT_EQ(kMIDIParamErr, service->getIntegerProperty(b.device, kMIDIPropertyUniqueID, &id));
    EXPECT_EQ(kMIDIUnknownProperty, service->getIntegerProperty(a.source, kMIDIPropertyName, &id));
    EXPECT_EQ(kMIDIUnknownProperty, service->getStringProperty(a.source, kMIDIPropertyUniqueID, &text));
    EXPECT_EQ(2u, service->numberOfSources());

    // References are never reused, not even by another service.
    auto other = VelmorInProcessMIDIService::create();
    const auto later = other->createDevice("Later");
    for (auto ref : {a.device, a.entity, a.source, a.destination, b.device, b.entity, b.source, extra})
        EXPECT_LT(ref, later);
}

TEST_F(ServiceTest, NotificationRecordsInOrderToEveryClientOnTheServiceThread)
{
    NotifyLog first, second;
    IdleOnExit idle {*service};
    const auto clientA = client(&first);
    client(&second);

    const auto device = service->createDevice("Ext", "Maker", "Model", true);
    const auto entity = service->createEntity(device, "Port 1");
    const auto source = service->createSource(entity, "Out");
    const auto destination = service->createDestination(entity, "In");
    service->setStringProperty(source, kMIDIPropertyName, "Renamed");
    MIDIEndpointRef virtualSource = 0;
    ASSERT_EQ(noErr, service->sourceCreate(clientA, "Virtual", &virtualSource));
    service->setIntegerProperty(virtualSource, kMIDIPropertyUniqueID, 1234);
    service->removeObject(device);
    service->waitUntilIdle();

    const std::vector<Record> expected {
        {kMIDIMsgObjectAdded, 0, kMIDIObjectType_Other, device, 0x10, ""},
        {kMIDIMsgObjectAdded, device, 0x10, entity, 0x11, ""},
        {kMIDIMsgObjectAdded, entity, 0x11, source, 0x12, ""},
        {kMIDIMsgObjectAdded, entity, 0x11, destination, 0x13, ""},
        {kMIDIMsgPropertyChanged, source, 0x12, 0, 0, "name"},
        {kMIDIMsgObjectAdded, 0, kMIDIObjectType_Other, virtualSource, kMIDIObjectType_Source, ""},
        {kMIDIMsgPropertyChanged, virtualSource, kMIDIObjectType_Source, 0, 0, "uniqueID"},
        // Children first.
        {kMIDIMsgObjectRemoved, entity, 0x11, source, 0x12, ""},
        {kMIDIMsgObjectRemoved, entity, 0x11, destination, 0x13, ""},
        {kMIDIMsgObjectRemoved, device, 0x10, entity, 0x11, ""},
        {kMIDIMsgObjectRemoved, 0, kMIDIObjectType_Other, device, 0x10, ""},
    };
    EXPECT_EQ(expected, first.take());
    EXPECT_EQ(expected, second.take());
    ASSERT_EQ(1u, first.threads.size());
    EXPECT_NE(std::this_thread::get_id(), *first.threads.begin());

    // A disposed client hears nothing more; its virtual source goes, and the others hear of it.
    ASSERT_EQ(noErr, service->clientDispose(clientA));
    service->createDevice("After");
    service->waitUntilIdle();
    EXPECT_TRUE(first.take().empty());
    const auto rest = second.take();
    ASSERT_EQ(2u, rest.size());
    EXPECT_EQ((Record {kMIDIMsgObjectRemoved, 0, kMIDIObjectType_Other, virtualSource, kMIDIObjectType_Source, ""}),
              rest[0]);
    EXPECT_EQ(0u, service->numberOfSources());
}

TEST_F(ServiceTest, VirtualSourcesAndPacketsReachEveryConnectedPort)
{
    NotifyLog log;
    const auto owner = client(&log);
    const auto listener = client(nullptr);
    ReadLog readA, readB;
    IdleOnExit idle {*service};
    const auto portA = inputPort(listener, &readA);
    const auto portB = inputPort(owner, &readB);

    MIDIEndpointRef source = 0;
    ASSERT_EQ(noErr, service->sourceCreate(owner, "Out", &source));
    ASSERT_EQ(1u, service->numberOfSources());
    EXPECT_EQ(source, service->source(0));  // every client sees it
    MIDIEntityRef entity = 123;
    EXPECT_EQ(noErr, service->endpointGetEntity(source, &entity));
    EXPECT_EQ(0u, entity);

    int connA = 0, connB = 0;
    ASSERT_EQ(noErr, service->portConnectSource(portA, source, &connA));
    ASSERT_EQ(noErr, service->portConnectSource(portB, source, &connB));
    const auto image = makeImage({{42, {0x90, 0x3C, 0x7F}}, {43, {0x80, 0x3C, 0x00}}});
    ASSERT_EQ(noErr, service->received(source, reinterpret_cast<const MIDIPacketList*>(image.data())));
    service->waitUntilIdle();
    ASSERT_EQ(1u, readA.size());
    EXPECT_EQ(&connA, readA.lists[0].first);
    EXPECT_EQ(image, readA.lists[0].second);
    ASSERT_EQ(1u, readB.size());
    EXPECT_EQ(&connB, readB.lists[0].first);

    // Disconnected: no more; not connected is -50.
    ASSERT_EQ(noErr, service->portDisconnectSource(portA, source));
    EXPECT_EQ(kMIDIParamErr, service->portDisconnectSource(portA, source));
    service->received(source, reinterpret_cast<const MIDIPacketList*>(image.data()));
    service->waitUntilIdle();
    EXPECT_EQ(1u, readA.size());
    EXPECT_EQ(2u, readB.size());

    // Who may receive what.
    auto device = service->createSimpleDevice("D", "M", "X");
    EXPECT_EQ(kMIDIUnknownEndpoint, service->received(device.source, reinterpret_cast<const MIDIPacketList*>(image.data())));
    EXPECT_EQ(kMIDIParamErr, service->received(source, nullptr));
    MIDIPortRef output = 0;
    service->outputPortCreate(owner, "out", &output);
    EXPECT_EQ(kMIDIInvalidPort, service->portConnectSource(output, source, nullptr));
    EXPECT_EQ(kMIDIUnknownEndpoint, service->portConnectSource(portA, device.destination, nullptr));

    // Disposing of the endpoint removes it and ends its connections.
    ASSERT_EQ(noErr, service->endpointDispose(source));
    EXPECT_EQ(kMIDIParamErr, service->received(source, reinterpret_cast<const MIDIPacketList*>(image.data())));
    EXPECT_EQ(kMIDIParamErr, service->portDisconnectSource(portB, source));
    EXPECT_EQ(kMIDIUnknownEndpoint, service->endpointDispose(device.source));  // the driver's, not a client's
    EXPECT_EQ(1u, service->numberOfSources());
}

TEST_F(ServiceTest, InjectionCutsLongDataAndChecksImages)
{
    const auto device = service->createSimpleDevice("D", "M", "X");
    ReadLog read;
    IdleOnExit idle {*service};
    const auto port = inputPort(client(nullptr), &read);
    ASSERT_EQ(noErr, service->portConnectSource(port, device.source, nullptr));

    std::vector<std::uint8_t> sysex(70000, 0x11);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    ASSERT_EQ(noErr, service->injectBytes(device.source, sysex, 99));
    ASSERT_EQ(noErr, service->injectBytes(device.source, std::vector<std::uint8_t> {0xF8}));
    const auto good = makeImage({{5, {0x90, 1, 2}}, {6, {}}});
    ASSERT_EQ(noErr, service->injectPacketList(device.source, good));
    service->waitUntilIdle();

    ASSERT_EQ(3u, read.size());
    const auto& cut = read.lists[0].second;
    std::vector<std::uint8_t> firstPart(sysex.begin(), sysex.begin() + 65535), rest(sysex.begin() + 65535, sysex.end());
    EXPECT_EQ(makeImage({{99, firstPart}, {99, rest}}), cut);
    MIDITimeStamp now = 0;
    std::memcpy(&now, read.lists[1].second.data() + 4, 8);
    EXPECT_NE(0u, now);  // 0 means now
    EXPECT_EQ(good, read.lists[2].second);

    auto truncated = good;
    truncated.pop_back();
    auto trailing = good;
    trailing.push_back(0);
    for (const auto& bad : {truncated, trailing, std::vector<std::uint8_t> {1, 0}})
        EXPECT_EQ(kMIDIParamErr, service->injectPacketList(device.source, bad));
    EXPECT_EQ(kMIDIUnknownEndpoint, service->injectBytes(device.destination, sysex));
    EXPECT_EQ(kMIDIParamErr, service->injectBytes(0xFFFFFFF0u, sysex));
}

TEST_F(ServiceTest, SendRecordsArrivalsAndCallsTheObserver)
{
    const auto device = service->createSimpleDevice("D", "M", "X");
    const auto clientRef = client(nullptr);
    MIDIPortRef output = 0, input = 0;
    ASSERT_EQ(noErr, service->outputPortCreate(clientRef, "out", &output));
    input = inputPort(clientRef, nullptr);

    std::atomic<int> observed {0};
    std::atomic<bool> onCaller {false};
    const auto caller = std::this_thread::get_id();
    service->setDestinationObserver(device.destination, [&](const MIDIPacketList* list) {
        onCaller = onCaller || std::this_thread::get_id() == caller;
        observed += int(MIDIPacketListByteSize(list));
    });
    const auto one = makeImage({{1, {0x90, 0x40, 0x40}}});
    const auto two = makeImage({{2, {0xC0, 0x05}}, {3, {0xF8}}});
    ASSERT_EQ(noErr, service->send(output, device.destination, reinterpret_cast<const MIDIPacketList*>(one.data())));
    ASSERT_EQ(noErr, service->send(output, device.destination, reinterpret_cast<const MIDIPacketList*>(two.data())));
    service->waitUntilIdle();

    const auto arrivals = service->arrivals(device.destination);
    ASSERT_EQ(2u, arrivals.size());
    EXPECT_EQ(two, arrivals[1].packetListImage);
    EXPECT_LE(arrivals[0].arrivalHostTime, arrivals[1].arrivalHostTime);
    EXPECT_EQ((std::vector<std::uint8_t> {0x90, 0x40, 0x40, 0xC0, 0x05, 0xF8}), service->arrivedBytes(device.destination));
    EXPECT_EQ(int(one.size() + two.size()), observed.load());
    EXPECT_FALSE(onCaller);
    service->clearArrivals(device.destination);
    EXPECT_TRUE(service->arrivals(device.destination).empty());

    const auto* list = reinterpret_cast<const MIDIPacketList*>(one.data());
    EXPECT_EQ(kMIDIInvalidPort, service->send(input, device.destination, list));
    EXPECT_EQ(kMIDIUnknownEndpoint, service->send(output, device.source, list));
    EXPECT_EQ(kMIDIParamErr, service->send(output, device.destination, nullptr));
    service->removeObject(device.device);
    EXPECT_EQ(kMIDIParamErr, service->send(output, device.destination, list));
}

TEST_F(ServiceTest, FaultsAndCallCounts)
{
    const auto device = service->createSimpleDevice("D", "M", "X");
    const auto port = inputPort(client(nullptr), nullptr);
    service->resetCallCounts();

    service->failNextCalls("MIDIPortConnectSource", kMIDIInvalidClient, 2);
    EXPECT_EQ(kMIDIInvalidClient, service->portConnectSource(port, device.source, nullptr));
    EXPECT_EQ(kMIDIInvalidClient, service->portConnectSource(port, device.source, nullptr));
    // The failed calls did nothing: there is no connection to end.
    EXPECT_EQ(kMIDIParamErr, service->portDisconnectSource(port, device.source));
    EXPECT_EQ(noErr, service->portConnectSource(port, device.source, nullptr));
    EXPECT_EQ(3u, service->callCount("MIDIPortConnectSource"));
    EXPECT_EQ(1u, service->callCount("MIDIPortDisconnectSource"));

    // Through the boundary's free functions, with this service current.
    auto previous = setCurrentService(service);
    service->failNextCalls("MIDIGetNumberOfSources", kMIDIParamErr, 1);
    EXPECT_EQ(0u, MIDIGetNumberOfSources());
    EXPECT_EQ(1u, MIDIGetNumberOfSources());
    service->failNextCalls("MIDIObjectGetStringProperty", -1, 5);
    service->failNextCalls("MIDIObjectGetStringProperty", 0, 0);  // cleared
    std::optional<std::string> name;
    EXPECT_EQ(noErr, MIDIObjectGetStringProperty(device.source, kMIDIPropertyName, &name));
    EXPECT_EQ("D", name);
    EXPECT_EQ(2u, service->callCount("MIDIGetNumberOfSources"));
    setCurrentService(previous);

    service->resetCallCounts();
    EXPECT_EQ(0u, service->callCount("MIDIPortConnectSource"));
    EXPECT_EQ(0u, service->callCount("NoSuchCall"));
}

TEST(InProcessService, IsTheDefaultService)
{
    EXPECT_STREQ("in-process", currentService().serviceName());
    EXPECT_EQ(static_cast<VelmorMIDIService*>(VelmorInProcessMIDIService::sharedService().get()), &currentService());
    const auto device = VelmorInProcessMIDIService::sharedService()->createSimpleDevice("Shared", "M", "X");
    EXPECT_EQ(device.source, MIDIGetSource(MIDIGetNumberOfSources() - 1));
}

// --- Threads ---------------------------------------------------------------------------------------------

namespace {

// A connection reference that dies when the connection has ended; a call after that is a fault.
struct Listener {
    std::atomic<bool> alive {true};
    std::atomic<int> calls {0};
    void check()
    {
        if (!alive.load())
            ADD_FAILURE() << "read procedure ran after its connection ended";
    }
    static void proc(const MIDIPacketList*, void*, void* connRefCon)
    {
        auto* listener = static_cast<Listener*>(connRefCon);
        listener->check();
        listener->calls.fetch_add(1);
        // Stay a while, so that an end of the connection that doesn't wait for us shows.
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(5);
        while (std::chrono::steady_clock::now() < until) {
        }
        listener->check();
    }
};

} // namespace

TEST_F(ServiceTest, NoReadProcedureRunsAfterDisconnectReturns)
{
    const auto device = service->createSimpleDevice("D", "M", "X");
    const auto clientRef = client(nullptr);
    MIDIPortRef port = 0;
    ASSERT_EQ(noErr, service->inputPortCreate(clientRef, "in", &Listener::proc, nullptr, &port));

    std::atomic<bool> stop {false};
    std::thread injector([&] {
        const std::uint8_t clock[] = {0xF8};
        for (int i = 1; !stop; ++i) {
            service->injectBytes(device.source, clock);
            if (i % 64 == 0)
                service->waitUntilIdle();  // keep the backlog short: the point is overlap, not volume
        }
    });
    int delivered = 0;
    std::vector<std::unique_ptr<Listener>> ended;  // kept, so that a late call finds alive == false
    for (int round = 0; round < 300; ++round) {
        auto& listener = ended.emplace_back(std::make_unique<Listener>());
        ASSERT_EQ(noErr, service->portConnectSource(port, device.source, listener.get()));
        while (listener->calls.load() == 0 && round % 2 == 0)
            std::this_thread::yield();
        // Three ways to end a connection; after each, the reference may be freed at once.
        if (round % 3 == 2) {
            MIDIPortRef replacement = 0;
            service->inputPortCreate(clientRef, "in", &Listener::proc, nullptr, &replacement);
            ASSERT_EQ(noErr, service->portDispose(port));
            port = replacement;
        } else {
            ASSERT_EQ(noErr, service->portDisconnectSource(port, device.source));
        }
        listener->alive = false;
        delivered += listener->calls.load();
    }
    stop = true;
    injector.join();
    service->waitUntilIdle();
    EXPECT_GT(delivered, 0);
}

TEST_F(ServiceTest, RemovingASourceWhileItFlowsEndsItsConnections)
{
    const auto clientRef = client(nullptr);
    MIDIPortRef port = 0;
    ASSERT_EQ(noErr, service->inputPortCreate(clientRef, "in", &Listener::proc, nullptr, &port));
    for (int round = 0; round < 100; ++round) {
        const auto device = service->createSimpleDevice("D", "M", "X");
        auto listener = std::make_unique<Listener>();
        ASSERT_EQ(noErr, service->portConnectSource(port, device.source, listener.get()));
        std::atomic<bool> stop {false};
        std::thread injector([&] {
            const std::uint8_t clock[] = {0xF8};
            for (int i = 1; !stop && service->injectBytes(device.source, clock) == noErr; ++i) {
                if (i % 64 == 0)
                    service->waitUntilIdle();
            }
        });
        while (listener->calls.load() < 3)
            std::this_thread::yield();
        ASSERT_EQ(noErr, service->removeObject(device.device));
        // Like the framework, learn of the removal by a failing disconnect, then let go.
        EXPECT_EQ(kMIDIParamErr, service->portDisconnectSource(port, device.source));
        listener->alive = false;
        stop = true;
        injector.join();
    }
}

TEST_F(ServiceTest, ClientDisposeEndsItsCallbacksFromAnyThread)
{
    for (int round = 0; round < 50; ++round) {
        auto log = std::make_unique<NotifyLog>();
        auto listener = std::make_unique<Listener>();
        MIDIClientRef clientRef = 0;
        ASSERT_EQ(noErr, service->clientCreate("c", &NotifyLog::proc, log.get(), &clientRef));
        MIDIPortRef port = 0;
        ASSERT_EQ(noErr, service->inputPortCreate(clientRef, "in", &Listener::proc, nullptr, &port));
        MIDIEndpointRef source = 0;
        ASSERT_EQ(noErr, service->sourceCreate(clientRef, "v", &source));
        ASSERT_EQ(noErr, service->portConnectSource(port, source, listener.get()));
        std::atomic<bool> stop {false};
        std::thread churn([&] {
            const auto image = makeImage({{0, {0xFE}}});
            for (int i = 1; !stop; ++i) {
                service->createDevice("churn");  // notifications
                service->received(source, reinterpret_cast<const MIDIPacketList*>(image.data()));
                if (i % 64 == 0)
                    service->waitUntilIdle();
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        ASSERT_EQ(noErr, service->clientDispose(clientRef));
        listener->alive = false;
        const auto heard = log->take().size();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        EXPECT_EQ(0u, log->take().size()) << "notification after dispose (heard " << heard << " before)";
        stop = true;
        churn.join();
        EXPECT_EQ(kMIDIParamErr, service->clientDispose(clientRef));
    }
}

namespace {

struct SelfDisposer {
    VelmorInProcessMIDIService* service = nullptr;
    MIDIPortRef port = 0;
    MIDIClientRef client = 0;
    std::atomic<int> reads {0};
    std::atomic<int> notes {0};
    static void read(const MIDIPacketList*, void* refCon, void*)
    {
        auto* self = static_cast<SelfDisposer*>(refCon);
        if (self->reads.fetch_add(1) == 0) {
            EXPECT_EQ(noErr, self->service->portDispose(self->port));  // from inside: must not wait for itself
        }
    }
    static void notify(const MIDINotification*, void* refCon)
    {
        auto* self = static_cast<SelfDisposer*>(refCon);
        if (self->notes.fetch_add(1) == 0) {
            EXPECT_EQ(noErr, self->service->clientDispose(self->client));
        }
    }
};

} // namespace

TEST_F(ServiceTest, DisposeFromInsideACallbackDoesNotDeadlock)
{
    SelfDisposer self;
    self.service = service.get();
    ASSERT_EQ(noErr, service->clientCreate("c", &SelfDisposer::notify, &self, &self.client));
    ASSERT_EQ(noErr, service->inputPortCreate(self.client, "in", &SelfDisposer::read, &self, &self.port));
    const auto device = service->createSimpleDevice("D", "M", "X");  // notifications: the first disposes
    service->waitUntilIdle();
    EXPECT_EQ(1, self.notes.load());

    // A port that disposes of itself on its first list gets no second one, even of the same batch.
    MIDIClientRef other = 0;
    ASSERT_EQ(noErr, service->clientCreate("d", nullptr, nullptr, &other));
    self.client = other;
    ASSERT_EQ(noErr, service->inputPortCreate(other, "in", &SelfDisposer::read, &self, &self.port));
    ASSERT_EQ(noErr, service->portConnectSource(self.port, device.source, nullptr));
    const std::uint8_t clock[] = {0xF8};
    for (int i = 0; i < 10; ++i)
        service->injectBytes(device.source, clock);
    service->waitUntilIdle();
    EXPECT_EQ(1, self.reads.load());
}

TEST_F(ServiceTest, ManyThreadsBuildAndReadTheSameGraph)
{
    NotifyLog log;
    IdleOnExit idle {*service};
    client(&log);
    constexpr int threads = 4, perThread = 50;
    std::vector<std::thread> workers;
    std::vector<std::vector<MIDIEndpointRef>> made(threads);
    std::atomic<bool> stop {false};
    std::thread reader([&] {
        std::optional<std::string> name;
        while (!stop) {
            for (ItemCount i = 0; i < service->numberOfSources(); ++i)
                service->getStringProperty(service->source(i), kMIDIPropertyName, &name);
        }
    });
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const auto own = client(nullptr);
            for (int i = 0; i < perThread; ++i) {
                MIDIEndpointRef source = 0;
                EXPECT_EQ(noErr, service->sourceCreate(own, "v" + std::to_string(i), &source));
                made[t].push_back(source);
                const auto device = service->createSimpleDevice("d", "m", "x", true, false);
                if (i % 2)
                    service->removeObject(device.device);
            }
        });
    }
    for (auto& worker : workers)
        worker.join();
    stop = true;
    reader.join();
    service->waitUntilIdle();

    std::set<MIDIEndpointRef> all;
    for (const auto& refs : made)
        all.insert(refs.begin(), refs.end());
    EXPECT_EQ(std::size_t(threads * perThread), all.size());
    EXPECT_EQ(std::size_t(threads * perThread + threads * perThread / 2), service->numberOfSources());
    // Every object added was announced once, and every removal after its addition.
    std::set<MIDIObjectRef> added;
    for (const auto& record : log.take()) {
        if (record.id == kMIDIMsgObjectAdded) {
            EXPECT_TRUE(added.insert(record.child).second);
        } else if (record.id == kMIDIMsgObjectRemoved) {
            EXPECT_TRUE(added.contains(record.child));
        }
    }
    EXPECT_EQ(std::size_t(threads * perThread * 4), added.size());  // virtual source + device, entity, source
}

TEST_F(ServiceTest, AnEnumerationPassAnswersFromTheListItsCountSaw)
{
    const auto a = service->createSimpleDevice("A", "m", "x", true, false);
    const auto b = service->createSimpleDevice("B", "m", "x", true, false);
    const auto c = service->createSimpleDevice("C", "m", "x", true, false);

    // The list changes between the count and the item calls, from this thread and from another.
    ASSERT_EQ(3u, service->numberOfSources());
    ASSERT_EQ(noErr, service->removeObject(a.device));
    std::thread([&] { service->createSimpleDevice("D", "m", "x", true, false); }).join();
    EXPECT_EQ((std::vector<MIDIEndpointRef> {a.source, b.source, c.source}),
              (std::vector<MIDIEndpointRef> {service->source(0), service->source(1), service->source(2)}));
    EXPECT_EQ(0u, service->source(3));
    // The next count starts a new pass.
    ASSERT_EQ(3u, service->numberOfSources());
    EXPECT_EQ(b.source, service->source(0));
    EXPECT_EQ(c.source, service->source(2 - 1));
    EXPECT_NE(0u, service->source(2));

    // Another thread's pass is its own.
    std::thread([&] {
        EXPECT_EQ(3u, service->numberOfSources());
        service->removeObject(b.device);
        EXPECT_EQ(b.source, service->source(0));
    }).join();
    EXPECT_EQ(b.source, service->source(0));  // still this thread's pass
    EXPECT_EQ(2u, service->numberOfSources());

    // The children of a device, an entity's destinations likewise.
    const auto device = service->createDevice("Multi");
    const auto first = service->createEntity(device, "1");
    ASSERT_EQ(1u, service->deviceNumberOfEntities(device));
    const auto second = service->createEntity(device, "2");
    EXPECT_EQ(first, service->deviceEntity(device, 0));
    EXPECT_EQ(0u, service->deviceEntity(device, 1));
    EXPECT_EQ(2u, service->deviceNumberOfEntities(device));
    EXPECT_EQ(second, service->deviceEntity(device, 1));
    EXPECT_EQ(0u, service->entityNumberOfDestinations(second));
    service->createDestination(second, "out");
    EXPECT_EQ(0u, service->entityDestination(second, 0));
    EXPECT_EQ(1u, service->entityNumberOfDestinations(second));
    EXPECT_NE(0u, service->entityDestination(second, 0));
}

TEST_F(ServiceTest, PassesUnderConcurrentChangesNeverRepeatOrSkipAnEndpoint)
{
    std::atomic<bool> stop {false};
    std::atomic<int> passes {0};
    std::thread writer([&] {
        std::vector<MIDIDeviceRef> live;
        for (int i = 0; !stop; ++i) {
            live.push_back(service->createSimpleDevice("s" + std::to_string(i), "m", "x", true, false).device);
            if (live.size() > 8) {
                service->removeObject(live[std::size_t(i) % live.size()]);
                live.erase(live.begin() + std::ptrdiff_t(std::size_t(i) % live.size()));
            }
        }
    });
    std::thread reader([&] {
        while (passes < 2000) {
            const auto count = service->numberOfSources();
            std::set<MIDIEndpointRef> seen;
            for (ItemCount i = 0; i < count; ++i) {
                const auto source = service->source(i);
                EXPECT_NE(0u, source) << "pass skipped index " << i << " of " << count;
                EXPECT_TRUE(seen.insert(source).second) << "endpoint twice in one pass";
            }
            ++passes;
        }
    });
    reader.join();
    stop = true;
    writer.join();
    service->waitUntilIdle();
}

namespace {

// Reads the changed property from inside the change's callback.
struct RenameWatcher {
    VelmorInProcessMIDIService* service = nullptr;
    std::mutex mutex;
    std::vector<std::optional<std::string>> seen;
    static void proc(const MIDINotification* message, void* refCon)
    {
        if (message->messageID != kMIDIMsgPropertyChanged)
            return;
        auto* self = static_cast<RenameWatcher*>(refCon);
        const auto* change = reinterpret_cast<const MIDIObjectPropertyChangeNotification*>(message);
        std::optional<std::string> name;
        self->service->getStringProperty(change->object, kMIDIPropertyName, &name);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.push_back(name);
    }
};

} // namespace

TEST_F(ServiceTest, AChangeIsReadableBeforeItsNotificationRuns)
{
    RenameWatcher watcher;
    watcher.service = service.get();
    IdleOnExit idle {*service};
    MIDIClientRef ref = 0;
    ASSERT_EQ(noErr, service->clientCreate("watcher", &RenameWatcher::proc, &watcher, &ref));
    const auto device = service->createSimpleDevice("Old", "m", "x");
    for (int i = 0; i < 50; ++i) {
        // Read on this thread right after the call, and in the callback on the service's thread.
        const std::string name = "Name " + std::to_string(i);
        ASSERT_EQ(noErr, service->setStringProperty(device.source, kMIDIPropertyName, name));
        std::optional<std::string> now;
        ASSERT_EQ(noErr, service->getStringProperty(device.source, kMIDIPropertyName, &now));
        EXPECT_EQ(name, now);
    }
    service->waitUntilIdle();
    std::lock_guard<std::mutex> lock(watcher.mutex);
    ASSERT_EQ(50u, watcher.seen.size());
    // Each callback ran after its own change: it sees that name or a later one, never an earlier one.
    int last = -1;
    for (const auto& name : watcher.seen) {
        ASSERT_TRUE(name && name->starts_with("Name "));
        const int number = std::stoi(name->substr(5));
        EXPECT_GE(number, last);
        last = number;
    }
    EXPECT_EQ(49, last);
}

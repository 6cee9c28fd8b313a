// Receiving speed: messages per second from injection into a device's source to a consumer on the main
// thread, and the latency of one message against a bare hand-off between two threads.
//
// The thread that runs the benchmarks is the application's main thread: it serves the main queue.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorInputPort.h"
#include "VelmorMainQueue.h"
#include "VelmorManager.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"
#include "VelmorRemoteSource.h"

namespace {

using Clock = std::chrono::steady_clock;
using Service = VelmorPlatform::VelmorInProcessMIDIService;

std::int64_t nowNanos()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

class CountingConsumer : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>&) override
    {
        ++count;
        if (stampOnArrival)
            arrivedAt = nowNanos();
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
    std::uint64_t count = 0;
    bool stampOnArrival = false;
    std::int64_t arrivedAt = 0;
};

// One device with a source, found through the manager, with one consumer of every event.
struct Setup {
    Setup()
    {
        // The throughput runs inject a whole batch before serving: they measure speed, not the bound.
        VelmorManager::setMaximumPendingInputEvents(std::uint64_t(1) << 24);
        VelmorManager::setMaximumPendingInputBytes(std::uint64_t(1) << 30);
        Service::sharedService()->setMaximumPendingCallbacks(std::size_t(1) << 24, std::size_t(1) << 30);
        device = Service::sharedService()->createSimpleDevice("Bench", "Velmor", "B1", true, false);
        manager = VelmorManager::sharedManager();
        Service::sharedService()->waitUntilIdle();
        VelmorMainQueue::mainQueue().runPending();
        manager->sources();
        auto attributes = VelmorAttributes::init();
        attributes->setName(std::string("Bench"));
        attributes->setManufacturer(std::string("Velmor"));
        attributes->setModel(std::string("B1"));
        source = manager->sourceWithAttributes(attributes);
        consumer = std::make_shared<CountingConsumer>();
        source->addConsumer(consumer);
    }
    Service::SimpleDevice device;
    std::shared_ptr<VelmorManager> manager;
    std::shared_ptr<VelmorRemoteSource> source;
    std::shared_ptr<CountingConsumer> consumer;
};

Setup& setup()
{
    static Setup* instance = new Setup;  // one for the program: the manager is a process singleton
    return *instance;
}

std::vector<std::uint8_t> listImage(int messages)
{
    std::vector<std::uint8_t> image;
    auto put = [&](std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            image.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    put(static_cast<std::uint64_t>(messages), 4);
    for (int i = 0; i < messages; ++i) {
        put(1000 + i, 8);
        put(3, 2);
        image.insert(image.end(), {0x90, static_cast<std::uint8_t>(i & 0x7F), 0x40});
    }
    return image;
}

// Messages per second through the whole road: the main thread injects a batch of lists (the service
// takes them on its own thread), then serves the queue until the consumer has had every message.
void BM_ReceiveThroughput(benchmark::State& state)
{
    auto& s = setup();
    const int messagesPerList = static_cast<int>(state.range(0));
    const int lists = 16384 / messagesPerList;
    const auto image = listImage(messagesPerList);
    auto& service = *Service::sharedService();
    auto& queue = VelmorMainQueue::mainQueue();
    for (auto _ : state) {
        const std::uint64_t target = s.consumer->count + static_cast<std::uint64_t>(lists) * messagesPerList;
        for (int i = 0; i < lists; ++i)
            service.injectPacketList(s.device.source, image);
        queue.runUntil([&] { return s.consumer->count >= target; }, std::chrono::seconds(30));
        if (s.consumer->count < target)
            state.SkipWithError("messages were lost");
    }
    state.SetItemsProcessed(state.iterations() * lists * messagesPerList);
    state.counters["msg/s"] =
        benchmark::Counter(static_cast<double>(lists) * messagesPerList, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ReceiveThroughput)->Arg(1)->Arg(16)->UseRealTime()->Unit(benchmark::kMillisecond);

// The parts of the main thread's share: one list of one message handed to the source, and the
// attributes that decoding asks the source for once per event.
void BM_DeliverOnMainThread(benchmark::State& state)
{
    auto& s = setup();
    const auto image = listImage(1);
    const auto* platformList = reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data());
    for (auto _ : state) {
        auto list = VelmorPacketList::initWithMIDIPacketList(platformList);
        s.source->handlePacketList(list);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DeliverOnMainThread);

void BM_SourceAttributes(benchmark::State& state)
{
    auto& s = setup();
    for (auto _ : state)
        benchmark::DoNotOptimize(s.source->attributes());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SourceAttributes);

// Decoding one event of a source: the event carries the source's attributes, read at that moment.
void BM_DecodeEventWithAttributes(benchmark::State& state)
{
    auto& s = setup();
    const auto image = listImage(1);
    const auto list = VelmorPacketList::initWithMIDIPacketList(
        reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data()));
    const auto packet = list->packets().front();
    packet->setSource(s.source);
    for (auto _ : state)
        benchmark::DoNotOptimize(VelmorEvent::eventWithPacket(packet));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeEventWithAttributes);

void reportPercentiles(benchmark::State& state, std::vector<std::int64_t>& samples)
{
    if (samples.empty())
        return;
    std::sort(samples.begin(), samples.end());
    state.counters["median_ns"] = static_cast<double>(samples[samples.size() / 2]);
    state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
    state.counters["samples"] = static_cast<double>(samples.size());
}

// Latency of one message at a time, the main thread waiting on the queue. Measured from the read
// procedure's start on the service's thread (a wrapper around the default one, on a port of its own),
// and from the injecting call on the main thread (which adds the service's own hop).
std::atomic<std::int64_t> readProcEnteredAt {0};

void timedReadProc(const VelmorPlatform::MIDIPacketList* list, void* port, void* connection)
{
    readProcEnteredAt.store(nowNanos(), std::memory_order_relaxed);
    VelmorInputPortDefaultReadProc(list, port, connection);
}

void BM_ReceiveLatency(benchmark::State& state)
{
    auto& s = setup();
    const bool fromReadProc = state.range(0) == 0;
    auto& service = *Service::sharedService();
    auto& queue = VelmorMainQueue::mainQueue();
    std::shared_ptr<VelmorInputPort> port;
    if (fromReadProc) {
        // The manager's port lets go of the source, and a port with the timed procedure takes it.
        s.source->removeConsumerForAllEventsInChannel(s.consumer, 0);
        port = VelmorInputPort::initWithClientNameReadProc(s.manager->client(), std::string("Timed"), timedReadProc);
        for (std::uint64_t type = 0x80; type <= 0xF0; type += 0x10)
            (*s.source->consumerArrayForEventType(type))[0].push_back(s.consumer);
        port->addSource(s.source);
    }
    const auto image = listImage(1);
    std::vector<std::int64_t> samples;
    s.consumer->stampOnArrival = true;
    for (auto _ : state) {
        const std::uint64_t target = s.consumer->count + 1;
        const std::int64_t injectedAt = nowNanos();
        service.injectPacketList(s.device.source, image);
        queue.runUntil([&] { return s.consumer->count >= target; }, std::chrono::seconds(5));
        const std::int64_t start = fromReadProc ? readProcEnteredAt.load(std::memory_order_relaxed) : injectedAt;
        samples.push_back(s.consumer->arrivedAt - start);
    }
    s.consumer->stampOnArrival = false;
    if (port) {
        port->removeSource(s.source);
        port.reset();
        s.source->removeConsumer(s.consumer);
        s.source->addConsumer(s.consumer);
    }
    reportPercentiles(state, samples);
}
BENCHMARK(BM_ReceiveLatency)->Arg(0)->Arg(1)->ArgNames({"fromInjection"})->Iterations(20000)->UseRealTime();

// The bare hand-off: a time stamp from this thread to a waiting thread through a mutex and a
// condition variable, one at a time.
void BM_BareHandOffLatency(benchmark::State& state)
{
    std::mutex mutex;
    std::condition_variable posted, taken;
    std::int64_t stamp = 0;
    bool full = false, stop = false;
    std::vector<std::int64_t> samples;
    samples.reserve(32768);
    std::thread receiver([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            posted.wait(lock, [&] { return full || stop; });
            if (stop)
                return;
            samples.push_back(nowNanos() - stamp);
            full = false;
            taken.notify_one();
        }
    });
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stamp = nowNanos();
            full = true;
        }
        posted.notify_one();
        std::unique_lock<std::mutex> lock(mutex);
        taken.wait(lock, [&] { return !full; });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    posted.notify_one();
    receiver.join();
    reportPercentiles(state, samples);
}
BENCHMARK(BM_BareHandOffLatency)->Iterations(20000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();

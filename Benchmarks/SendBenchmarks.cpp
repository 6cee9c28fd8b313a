// The cost of sending: sendEvent per event on a virtual output with a reader connected (and on a
// destination, for comparison), and events per second from sendEvent to another client's read
// procedure on the in-process service.

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>

#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorLocalOutput.h"
#include "VelmorManager.h"
#include "VelmorRemoteOutput.h"

using namespace VelmorPlatform;

namespace {

// Another program reading the virtual output: counts packets on the service's thread.
class CountingReader {
public:
    explicit CountingReader(MIDIEndpointRef source)
    {
        MIDIClientCreate("Benchmark Reader", [](const MIDINotification*, void*) {}, nullptr, &client_);
        MIDIInputPortCreate(client_, "Benchmark Input", &CountingReader::read, this, &port_);
        MIDIPortConnectSource(port_, source, nullptr);
    }
    ~CountingReader() { MIDIClientDispose(client_); }

    std::uint64_t count() const { return count_.load(std::memory_order_acquire); }
    void waitFor(std::uint64_t target)
    {
        std::unique_lock lock(mutex_);
        target_ = target;
        reached_.wait(lock, [&] { return count_.load(std::memory_order_acquire) >= target; });
    }

private:
    static void read(const MIDIPacketList* list, void* refCon, void*)
    {
        auto* reader = static_cast<CountingReader*>(refCon);
        std::uint32_t packets = 0;
        std::memcpy(&packets, list, sizeof packets);
        const auto now = reader->count_.fetch_add(packets, std::memory_order_acq_rel) + packets;
        if (now >= reader->target_.load(std::memory_order_acquire)) {
            std::lock_guard lock(reader->mutex_);
            reader->reached_.notify_all();
        }
    }

    MIDIClientRef client_ = 0;
    MIDIPortRef port_ = 0;
    std::atomic<std::uint64_t> count_ {0};
    std::atomic<std::uint64_t> target_ {~std::uint64_t(0)};
    std::mutex mutex_;
    std::condition_variable reached_;
};

struct Fixture {
    std::shared_ptr<VelmorManager> manager = VelmorManager::sharedManager();
    std::shared_ptr<VelmorLocalOutput> output = manager->openVirtualOutputWithAttributes(
        VelmorAttributes::defaultAttributesWithNameIdentifier("Benchmark Output", "benchmark.output"));
    CountingReader reader {output->object()};
    std::shared_ptr<VelmorEvent> event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0);
};

Fixture& fixture()
{
    static Fixture* shared = new Fixture;  // one virtual output for the whole run
    return *shared;
}

// Keeps the service's queue from growing without bound while the sender runs ahead of it.
constexpr std::int64_t drainEvery = 8192;

void BM_SendEventVirtualOutput(benchmark::State& state)
{
    auto& f = fixture();
    std::int64_t sent = 0;
    for (auto _ : state) {
        f.output->sendEvent(f.event);
        if (++sent % drainEvery == 0) {
            state.PauseTiming();
            VelmorInProcessMIDIService::sharedService()->waitUntilIdle();
            state.ResumeTiming();
        }
    }
    VelmorInProcessMIDIService::sharedService()->waitUntilIdle();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SendEventVirtualOutput);

// The same with the event made for each send, as an application that plays notes does.
void BM_MakeAndSendEventVirtualOutput(benchmark::State& state)
{
    auto& f = fixture();
    std::int64_t sent = 0;
    for (auto _ : state) {
        f.output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(std::uint64_t(sent & 0x7F), 100, 1, 0));
        if (++sent % drainEvery == 0) {
            state.PauseTiming();
            VelmorInProcessMIDIService::sharedService()->waitUntilIdle();
            state.ResumeTiming();
        }
    }
    VelmorInProcessMIDIService::sharedService()->waitUntilIdle();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeAndSendEventVirtualOutput);

void BM_SendEventDestination(benchmark::State& state)
{
    auto& f = fixture();
    auto& service = *VelmorInProcessMIDIService::sharedService();
    static const auto device = service.createSimpleDevice("Benchmark Synth", "Maker", "Model", false, true);
    std::shared_ptr<VelmorRemoteOutput> remote;
    for (const auto& output : f.manager->remoteOutputs())
        if (output->object() == device.destination)
            remote = output;
    if (!remote) {
        state.SkipWithError("no remote output");
        return;
    }
    std::int64_t sent = 0;
    for (auto _ : state) {
        remote->sendEvent(f.event);
        if (++sent % drainEvery == 0) {
            state.PauseTiming();
            service.clearArrivals(device.destination);  // the service records every arrival
            state.ResumeTiming();
        }
    }
    service.clearArrivals(device.destination);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SendEventDestination);

// End to end: a burst of events from sendEvent until the reader's read procedure has seen them all.
void BM_EndToEndVirtualOutputToReader(benchmark::State& state)
{
    auto& f = fixture();
    const std::int64_t burst = state.range(0);
    for (auto _ : state) {
        const std::uint64_t target = f.reader.count() + std::uint64_t(burst);
        for (std::int64_t i = 0; i < burst; ++i)
            f.output->sendEvent(f.event);
        f.reader.waitFor(target);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}
BENCHMARK(BM_EndToEndVirtualOutputToReader)->Arg(1)->Arg(1000)->Arg(100000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();

// The in-process service's hand-over from an injecting thread to a read procedure on the service thread,
// and the property read that comes with every decoded event. The target: well over a million
// one-message lists a second, end to end.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>

#include "VelmorInProcessMIDIService.h"

using namespace VelmorPlatform;

namespace {

std::atomic<std::uint64_t> received {0};

void countingReadProc(const MIDIPacketList*, void*, void*)
{
    received.fetch_add(1, std::memory_order_relaxed);
}

struct Setup {
    std::shared_ptr<VelmorInProcessMIDIService> service = VelmorInProcessMIDIService::create();
    MIDIClientRef client = 0;
    MIDIPortRef port = 0;
    VelmorInProcessMIDIService::SimpleDevice device;
    MIDIEndpointRef virtualSource = 0;
    Setup()
    {
        service->clientCreate("bench", nullptr, nullptr, &client);
        service->inputPortCreate(client, "in", &countingReadProc, nullptr, &port);
        device = service->createSimpleDevice("Bench", "M", "X");
        service->sourceCreate(client, "virtual", &virtualSource);
        service->portConnectSource(port, device.source, nullptr);
        service->portConnectSource(port, virtualSource, nullptr);
    }
};

void InjectBytesToReadProc(benchmark::State& state)
{
    Setup setup;
    const std::uint8_t noteOn[] = {0x90, 0x3C, 0x64};
    const auto before = received.load();
    for (auto _ : state)
        setup.service->injectBytes(setup.device.source, noteOn, 1);
    setup.service->waitUntilIdle();  // counted: the lists have to reach the read procedure
    if (received.load() - before != std::uint64_t(state.iterations()))
        state.SkipWithError("lists lost");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(InjectBytesToReadProc)->UseRealTime();

void ReceivedToReadProc(benchmark::State& state)
{
    Setup setup;
    std::uint8_t image[4 + 10 + 3] = {1, 0, 0, 0};
    image[12] = 3;
    image[14] = 0x90;
    image[15] = 0x3C;
    image[16] = 0x64;
    const auto* list = reinterpret_cast<const MIDIPacketList*>(image);
    for (auto _ : state)
        setup.service->received(setup.virtualSource, list);
    setup.service->waitUntilIdle();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReceivedToReadProc)->UseRealTime();

void GetStringProperty(benchmark::State& state)
{
    Setup setup;
    std::optional<std::string> name;
    for (auto _ : state) {
        setup.service->getStringProperty(setup.device.source, kMIDIPropertyName, &name);
        benchmark::DoNotOptimize(name);
    }
}
BENCHMARK(GetStringProperty)->ThreadRange(1, 2);

} // namespace

BENCHMARK_MAIN();

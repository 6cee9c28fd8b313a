// Memory under overload: a source floods while the main thread serves nothing, then the main thread
// drains. With the bound, what waits stays at a few MB and the drops are reported; without it (the
// bound set out of reach) every event waits, as before the bound existed.
//
// Counters: resident memory grown during the flood and left after draining (MB), events delivered,
// dropped as reported, and the memory per waiting event.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>

#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorInputPort.h"
#include "VelmorMainQueue.h"
#include "VelmorManager.h"
#include "VelmorNotificationCenter.h"
#include "VelmorRemoteSource.h"
#include "VelmorValue.h"

namespace {

using Service = VelmorPlatform::VelmorInProcessMIDIService;

double residentMB()
{
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0, resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

class Counter : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>&) override { ++count; }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
    std::uint64_t count = 0;
};

struct Setup {
    Setup()
    {
        device = Service::sharedService()->createSimpleDevice("Flood", "Velmor", "F1", true, false);
        manager = VelmorManager::sharedManager();
        Service::sharedService()->waitUntilIdle();
        VelmorMainQueue::mainQueue().runPending();
        manager->sources();
        auto attributes = VelmorAttributes::init();
        attributes->setName(std::string("Flood"));
        attributes->setManufacturer(std::string("Velmor"));
        attributes->setModel(std::string("F1"));
        source = manager->sourceWithAttributes(attributes);
        consumer = std::make_shared<Counter>();
        source->addConsumer(consumer);
        VelmorNotificationCenter::defaultCenter().addObserver(
            this, std::string(VelmorManager_SourceDidDropEventsNotification), [this](const VelmorNotification& n) {
                dropped += n.userInfo->objectForKey(VelmorManager_DroppedEventCountKey)->unsignedValue().value_or(0);
            });
    }
    Service::SimpleDevice device;
    std::shared_ptr<VelmorManager> manager;
    std::shared_ptr<VelmorRemoteSource> source;
    std::shared_ptr<Counter> consumer;
    std::uint64_t dropped = 0;
};

Setup& setup()
{
    static Setup* instance = new Setup;
    return *instance;
}

// Arg 1: the default bounds; 0: bounds out of reach.
void BM_FloodWithoutServing(benchmark::State& state)
{
    auto& s = setup();
    auto& service = *Service::sharedService();
    const bool bounded = state.range(0) != 0;
    constexpr int events = 1000000;
    const std::uint8_t note[] = {0x90, 0x3C, 0x40};
    for (auto _ : state) {
        VelmorManager::setMaximumPendingInputEvents(bounded ? VelmorInputPort::defaultMaximumPendingInputEvents
                                                            : std::uint64_t(1) << 40);
        VelmorManager::setMaximumPendingInputBytes(bounded ? VelmorInputPort::defaultMaximumPendingInputBytes
                                                           : std::uint64_t(1) << 40);
        if (!bounded)
            service.setMaximumPendingCallbacks(std::size_t(1) << 40, std::size_t(1) << 40);
        s.consumer->count = 0;
        s.dropped = 0;
        const double before = residentMB();
        for (int i = 0; i < events; ++i)
            service.injectBytes(s.device.source, note, 1000);
        service.waitUntilIdle();
        const double flooded = residentMB();
        VelmorMainQueue::mainQueue().runUntil(
            [&] { return VelmorMainQueue::mainQueue().pendingCount() == 0; }, std::chrono::minutes(5));
        const double drained = residentMB();
        state.counters["flood_MB"] = flooded - before;
        state.counters["after_drain_MB"] = drained - before;
        state.counters["delivered"] = static_cast<double>(s.consumer->count);
        state.counters["dropped"] = static_cast<double>(s.dropped);
        state.counters["bytes_per_waiting_event"] =
            (flooded - before) * 1024.0 * 1024.0 / static_cast<double>(std::max<std::uint64_t>(s.consumer->count, 1));
        service.setMaximumPendingCallbacks(8192, std::size_t(2) << 20);
    }
}
BENCHMARK(BM_FloodWithoutServing)->Arg(1)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

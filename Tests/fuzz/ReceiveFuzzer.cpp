// The whole receive road through the in-process service: packet lists from a device's source reach the
// read procedure on the service's thread, cross to the main queue, and are delivered as events to a
// consumer that reads every accessor. Joining state carries over from one input to the next, as it does
// on a live source.

#include "FuzzSupport.h"
#include "VelmorConsumer.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorRemoteSource.h"

using namespace VelmorFuzz;

namespace {

class ReadingConsumer : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        sum = sum + touchEvent(event);
        if (auto attributes = event->sourceAttributes())
            sum = sum + attributes->description().size();
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
    volatile std::size_t sum = 0;
};

VelmorPlatform::VelmorInProcessMIDIService* service;
VelmorPlatform::MIDIEndpointRef device;
std::shared_ptr<ReadingConsumer> consumer;

void settle()
{
    for (int round = 0; round < 100; ++round) {
        service->waitUntilIdle();
        if (VelmorMainQueue::mainQueue().runPending() == 0 && VelmorMainQueue::mainQueue().pendingCount() == 0)
            return;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceLines();
    service = VelmorPlatform::VelmorInProcessMIDIService::sharedService().get();
    device = service->createSimpleDevice("Fuzz", "Acme", "F1", true, false).source;
    auto manager = VelmorManager::sharedManager();
    if (!manager || manager->sources().size() != 1)
        std::abort();
    consumer = std::make_shared<ReadingConsumer>();
    manager->sources().front()->addConsumer(consumer);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        if (input.ConsumeBool()) {
            const Bytes image = packetListImage(input);
            service->injectPacketList(device, image);
        } else {
            const Bytes bytes = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, 512));
            service->injectBytes(device, bytes);
        }
    }
    settle();
    return 0;
}

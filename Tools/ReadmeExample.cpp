// The README's example: find a source, add a consumer, serve the main queue, send an event.
#include <chrono>
#include <cstdio>

#include "Velmor.h"

class NotePrinter : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        std::printf("%s velocity %llu\n", VelmorManager::noteName(event->note()).c_str(),
                    static_cast<unsigned long long>(event->velocity()));
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override { std::printf("gone\n"); }
};

int main()
{
    VelmorManager::setClientName("My App");
    auto manager = VelmorManager::sharedManager();
    if (!manager)
        return 1;

    // A source saved earlier as attributes; here simply the first one the system has.
    auto sources = manager->sources();
    if (sources.empty())
        return 0;
    auto source = manager->sourceWithAttributes(sources.front()->attributes());

    auto printer = std::make_shared<NotePrinter>();
    source->addConsumerForEventTypeInChannel(printer, VelmorEventTypeNoteOn, 0);  // every channel

    // Events arrive on the thread that serves the main queue.
    VelmorMainQueue::mainQueue().runFor(std::chrono::seconds(1));

    // Send out of a virtual output of our own.
    auto output = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithName("My Out"));
    if (output)
        output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0));
    manager->flushManager();
    return 0;
}

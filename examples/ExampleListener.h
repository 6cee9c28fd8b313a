#pragma once

// What the three event-loop examples share: start the manager on the system's service, list the
// sources and print what they send. Only how the main queue is served differs between them.

#include <cstdio>
#include <memory>
#include <vector>

#include "Velmor.h"
#include "VelmorSystemMIDIService.h"

class ExamplePrinter : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        const auto& source = event->sourceAttributes();
        std::printf("%s: type 0x%02llX, channel %llu", source ? source->name().value_or("").c_str() : "?",
                    static_cast<unsigned long long>(event->type()), static_cast<unsigned long long>(event->channel()));
        if (event->type() == VelmorEventTypeNoteOn || event->type() == VelmorEventTypeNoteOff)
            std::printf(", %s velocity %llu", VelmorManager::noteName(event->note()).c_str(),
                        static_cast<unsigned long long>(event->velocity()));
        std::printf("\n");
        std::fflush(stdout);
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>& source) override
    {
        std::printf("%s: gone\n", source->name().value_or("").c_str());
    }
};

// Lists the sources and listens to each; false if the framework could not start.
inline bool exampleStart(const char* clientName)
{
    VelmorManager::setClientName(std::string(clientName));
    const bool system = VelmorPlatform::useSystemServiceIfAvailable();
    auto manager = VelmorManager::sharedManager();
    if (!manager)
        return false;
    std::printf("%s on the %s service\n", clientName, system ? "system's" : "in-process");
    static const auto printer = std::make_shared<ExamplePrinter>();
    for (const auto& source : manager->sources()) {
        std::printf("  source: %s\n", source->descriptiveString().c_str());
        source->addConsumer(printer);
    }
    return true;
}

// An application that keeps the manager, a source, a consumer and outputs where applications keep them:
// in namespace-scope globals, or in a function-local static made late, or that leaves by exit() from a
// consumer. A thread of its own still sends while the process ends. The process must end with status 0
// and without a sanitizer report, in every order that static destruction takes.
//
//   velmor_globals_at_exit SERVICE ORDER
//   SERVICE: in-process (the shared one), in-process-owned (one the program makes current), alsa
//   ORDER: globals, late, exit

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "Velmor.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorSystemMIDIService.h"

namespace {

class CountingConsumer : public VelmorConsumer {
public:
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>&) override
    {
        if (++heard == exitAt)
            std::exit(0);  // static destruction begins under this frame, on the main thread
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
    std::atomic<int> heard {0};
    int exitAt = -1;
};

struct Held {
    std::shared_ptr<VelmorManager> manager;
    std::shared_ptr<VelmorRemoteSource> source;
    std::shared_ptr<CountingConsumer> consumer;
    std::shared_ptr<VelmorLocalOutput> output;
    std::shared_ptr<VelmorOutput> remote;
};

} // namespace

// Destroyed after everything the library made on first use, or before it: the definition order of a
// program is not the library's business.
std::shared_ptr<VelmorManager> gManager;
std::shared_ptr<VelmorRemoteSource> gSource;
std::shared_ptr<CountingConsumer> gConsumer;
std::shared_ptr<VelmorLocalOutput> gOutput;
std::shared_ptr<VelmorOutput> gRemote;

static Held& lateHeld()
{
    static Held held;  // made at the end of main: destroyed before what the library made earlier
    return held;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s in-process|in-process-owned|alsa globals|late|exit\n", argv[0]);
        return 2;
    }
    const std::string service = argv[1];
    const std::string order = argv[2];
    if (service == "alsa" && !VelmorPlatform::useALSAService()) {
        std::fprintf(stderr, "FAIL: no ALSA sequencer\n");
        return 3;
    }

    if (service == "in-process" || service == "in-process-owned") {
        auto inProcess = VelmorPlatform::VelmorInProcessMIDIService::sharedService();
        if (service == "in-process-owned") {
            // Owned by nothing but the current-service slot, as the ALSA and JACK services are.
            inProcess = VelmorPlatform::VelmorInProcessMIDIService::create();
            VelmorPlatform::setCurrentService(inProcess);
        }
        // A device to send to; the VM has Midi Through and the gadget.
        inProcess->createSimpleDevice("Synth", "Acme", "S1");
    }

    Held held;
    held.manager = VelmorManager::sharedManager();
    if (!held.manager) {
        std::fprintf(stderr, "FAIL: no manager\n");
        return 3;
    }
    held.output = held.manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithName("Exit Out"));
    if (!held.output) {
        std::fprintf(stderr, "FAIL: no virtual output\n");
        return 3;
    }
    // The virtual output is a source to the system; wait until the manager has it.
    auto attributes = VelmorAttributes::defaultAttributesWithName("Exit Out");
    attributes->setManufacturer(std::nullopt);
    attributes->setModel(std::nullopt);
    held.manager->sources();
    VelmorMainQueue::mainQueue().runUntil(
        [&] { return (held.source = held.manager->sourceWithAttributes(attributes)) != nullptr; },
        std::chrono::seconds(5));
    if (!held.source) {
        std::fprintf(stderr, "FAIL: the virtual output is not listed as a source\n");
        return 3;
    }
    held.consumer = std::make_shared<CountingConsumer>();
    held.source->addConsumer(held.consumer);
    auto remotes = held.manager->remoteOutputs();
    if (!remotes.empty())
        held.remote = remotes.front();

    // The application's own thread sends until the process is gone.
    std::thread([output = held.output, remote = held.remote] {
        for (std::uint64_t n = 0;; ++n) {
            output->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(n % 128, 64, 1, 0));
            if (remote)
                remote->sendEvent(VelmorEvent::noteOffEventWithNoteVelocityChannelTimeOffset(n % 128, 0, 1, 0));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }).detach();

    if (order == "exit")
        held.consumer->exitAt = 20;
    const bool heard = VelmorMainQueue::mainQueue().runUntil([&] { return held.consumer->heard >= 20; },
                                                             std::chrono::seconds(10));
    if (!heard) {
        std::fprintf(stderr, "FAIL: heard %d events\n", held.consumer->heard.load());
        return 4;
    }
    if (order == "globals") {
        gManager = held.manager;
        gSource = held.source;
        gConsumer = held.consumer;
        gOutput = held.output;
        gRemote = held.remote;
    } else if (order == "late") {
        lateHeld() = held;
    } else {
        std::fprintf(stderr, "usage: unknown order %s\n", order.c_str());
        return 2;
    }
    // Leave events waiting in the main queue, and the sender running.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::printf("heard %d events; returning from main\n", held.consumer->heard.load());
    return 0;
}

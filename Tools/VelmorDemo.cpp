// The Velmor demo: a simulated keyboard is plugged into the in-process MIDI service, and an application
// finds it, listens to it, plays through it, sends to it and sees it unplugged. Every step says what
// happened; the exit status says whether everything worked.

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "Velmor.h"
#include "VelmorInProcessMIDIService.h"

using namespace std::chrono_literals;
using VelmorPlatform::VelmorInProcessMIDIService;

namespace {

int failures = 0;

void step(const char* title)
{
    std::printf("\n== %s\n", title);
}

void check(bool condition, const std::string& what)
{
    std::printf("   %s %s\n", condition ? "ok  " : "FAIL", what.c_str());
    if (!condition)
        ++failures;
}

std::string hexBytes(const VelmorData& data)
{
    std::string text;
    char byte[4];
    for (std::size_t i = 0; i < data.length(); ++i) {
        std::snprintf(byte, sizeof byte, i ? " %02X" : "%02X", data[i]);
        text += byte;
    }
    return text;
}

// An event as a musician reads it.
std::string describeEvent(const VelmorEvent& event)
{
    const std::string channel = ", channel " + std::to_string(event.channel());
    switch (event.type()) {
    case VelmorEventTypeNoteOn:
        return "note on  " + VelmorManager::noteName(event.note()) + " (" + std::to_string(event.note())
            + "), velocity " + std::to_string(event.velocity()) + channel;
    case VelmorEventTypeNoteOff:
        return "note off " + VelmorManager::noteName(event.note()) + " (" + std::to_string(event.note())
            + "), velocity " + std::to_string(event.velocity()) + channel;
    case VelmorEventTypeAfterTouch:
        return "after touch " + VelmorManager::noteName(event.note()) + ", pressure "
            + std::to_string(event.pressure()) + channel;
    case VelmorEventTypeControlChange:
        return "control change " + *VelmorManager::controllerNameAllowCustom(event.controller(), true) + " ("
            + std::to_string(event.controller()) + ") = " + std::to_string(event.eventValue()) + channel;
    case VelmorEventTypePatchChange:
        return "patch change to program " + std::to_string(event.eventValue()) + channel;
    case VelmorEventTypeChannelPressure:
        return "channel pressure " + std::to_string(event.pressure()) + channel;
    case VelmorEventTypePitchWheel:
        return "pitch wheel " + std::to_string(event.pitch()) + " (centre 8192)" + channel;
    default:
        if (event.data().length() > 0 && event.data()[0] == 0xF0)
            return "system exclusive, " + std::to_string(event.data().length()) + " bytes: " + hexBytes(event.data());
        return "system message " + hexBytes(event.data());
    }
}

// Prints every event of the rows it stands in and remembers what it saw.
class Printer : public VelmorConsumer {
public:
    explicit Printer(std::string label) : label_(std::move(label)) {}
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        std::printf("   [%s] %s\n", label_.c_str(), describeEvent(*event).c_str());
        events.push_back(event);
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>& source) override
    {
        if (terminations++ == 0)
            std::printf("   [%s] sourceIsTerminating: %s\n", label_.c_str(), source->descriptiveString().c_str());
    }
    std::vector<std::shared_ptr<VelmorEvent>> events;
    int terminations = 0;

private:
    std::string label_;
};

// Counts the deliveries the manager announces to its delegate.
class Delegate : public VelmorManagerDelegate {
public:
    bool respondsToMidiSourceWillHandleEvent() const override { return true; }
    bool respondsToMidiSourceDidHandleEvent() const override { return true; }
    void midiSourceWillHandleEvent(const std::shared_ptr<VelmorRemoteSource>&, const std::shared_ptr<VelmorEvent>&) override
    {
        ++will;
    }
    void midiSourceDidHandleEvent(const std::shared_ptr<VelmorRemoteSource>&, const std::shared_ptr<VelmorEvent>&) override
    {
        ++did;
    }
    int will = 0;
    int did = 0;
};

// Prints the manager's notifications and keeps their names in order.
class Listener : public VelmorRootObject {
public:
    static std::shared_ptr<Listener> make() { return std::shared_ptr<Listener>(new Listener); }
    void observe(std::string_view name)
    {
        VelmorNotificationCenter::defaultCenter().addObserver(
            std::static_pointer_cast<Listener>(shared_from_this()), &Listener::notified, name);
    }
    void notified(const VelmorNotification& notification)
    {
        std::string about;
        if (auto source = std::dynamic_pointer_cast<VelmorRemoteSource>(notification.object))
            about = ": " + source->descriptiveString();
        else if (auto output = std::dynamic_pointer_cast<VelmorEndpoint>(notification.object))
            about = ": " + output->name().value_or("(no name)");
        std::printf("   notification %s%s\n", notification.name.c_str(), about.c_str());
        names.push_back(notification.name);
    }
    ~Listener() override { VelmorNotificationCenter::defaultCenter().removeObserver(this); }
    std::vector<std::string> names;
};

bool serveUntil(const std::function<bool()>& condition)
{
    return VelmorMainQueue::mainQueue().runUntil(condition, 2s);
}

// A platform packet-list image of several packets, as a device sends a long message in pieces.
std::vector<std::uint8_t> packetListImage(const std::vector<std::vector<std::uint8_t>>& packets)
{
    std::vector<std::uint8_t> image;
    const auto put = [&image](std::uint64_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            image.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    put(packets.size(), 4);
    for (const auto& packet : packets) {
        put(AudioGetCurrentHostTime(), 8);
        put(packet.size(), 2);
        image.insert(image.end(), packet.begin(), packet.end());
    }
    return image;
}

} // namespace

int main()
{
    // Line by line, so that the framework's own lines on standard error fall between ours.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::printf("Velmor demo on the in-process MIDI service\n");
    VelmorManager::setClientName("Velmor Demo");
    auto service = VelmorInProcessMIDIService::sharedService();

    step("Plug in a simulated keyboard: a device with a source and a destination");
    const auto keys = service->createSimpleDevice("Keys", "Acme", "K-1");
    check(keys.source && keys.destination, "device \"Keys\" by Acme, model K-1");

    step("Start the manager and list what the MIDI system has");
    auto manager = VelmorManager::sharedManager();
    check(manager != nullptr, "VelmorManager::sharedManager()");
    if (!manager)
        return 1;
    auto listener = Listener::make();
    for (auto name : {VelmorManager_SourcesWillChangeNotification, VelmorManager_DidAddSourceNotification,
                      VelmorManager_WillRemoveSourceNotification, VelmorManager_DidRemoveSourceNotification,
                      VelmorManager_SourcesDidChangeNotification, VelmorManager_OutputsWillChangeNotification,
                      VelmorManager_DidAddOutputNotification, VelmorManager_WillRemoveOutputNotification,
                      VelmorManager_DidRemoveOutputNotification, VelmorManager_OutputsDidChangeNotification})
        listener->observe(name);
    auto delegate = std::make_shared<Delegate>();
    manager->setDelegate(delegate);

    const auto sources = manager->sources();
    for (const auto& source : sources)
        std::printf("   source: %s\n           %s\n", source->descriptiveString().c_str(),
                    source->attributes()->description().c_str());
    const auto outputs = manager->remoteOutputs();
    for (const auto& output : outputs)
        std::printf("   output: %s\n           %s\n", output->name().value_or("(no name)").c_str(),
                    output->attributes()->description().c_str());
    check(sources.size() == 1 && outputs.size() == 1, "one source and one output");

    step("Find the keyboard again from attributes saved as a dictionary");
    const VelmorDictionary saved = sources.front()->attributes()->dictionaryRepresentation();
    std::printf("   saved: %s\n", saved.description().c_str());
    auto restored = VelmorAttributes::attributesWithDictionary(&saved);
    auto keyboard = manager->sourceWithAttributes(restored);
    check(keyboard && keyboard == sources.front(), "sourceWithAttributes() gives the same object");
    if (!keyboard)
        return 1;

    step("Register consumers: one for everything, one for note-on in channel 1");
    auto everything = std::make_shared<Printer>("all");
    auto notesOnly = std::make_shared<Printer>("note on, ch 1");
    keyboard->addConsumer(everything);
    keyboard->addConsumerForEventTypeInChannel(notesOnly, VelmorEventTypeNoteOn, 1);

    step("Play a phrase on the keyboard");
    // Several messages in one packet, as a device sends them.
    const std::vector<std::uint8_t> phrase = {0x90, 60, 100, 0x90, 64, 90, 0xB0, 7, 100, 0xE0, 0x00, 0x50,
                                              0x80, 60, 0,   0x80, 64, 0,  0x91, 67, 80};
    service->injectBytes(keys.source, phrase);
    // An exclusive message that arrives split over three packets of one list.
    service->injectPacketList(keys.source,
                              packetListImage({{0xF0, 0x7E, 0x7F}, {0x06, 0x01, 0x11}, {0x22, 0x33, 0xF7}}));
    serveUntil([&] { return everything->events.size() >= 8; });
    check(everything->events.size() == 8, "8 events reached the consumer for everything");
    check(notesOnly->events.size() == 2, "2 note-on events in channel 1 reached the note consumer");
    check(!everything->events.empty() && everything->events.back()->data().length() == 9,
          "the split exclusive message arrived whole, 9 bytes");
    check(delegate->will == 8 && delegate->did == 8, "the delegate heard before and after each delivery");
    if (!everything->events.empty()) {
        std::printf("   first event as properties: %s\n", everything->events.front()->description().c_str());
    }

    step("Open a virtual output; other programs see it as a source");
    auto virtualOutput =
        manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithNameIdentifier("Demo Out", "demo-out"));
    check(virtualOutput != nullptr, "openVirtualOutputWithAttributes()");
    serveUntil([&] { return manager->sources().size() == 2; });
    auto loopback = manager->sourceWithAttributes(virtualOutput ? virtualOutput->attributes() : nullptr);
    check(loopback != nullptr, "the virtual output is listed among the sources");
    auto listenerOfOutput = std::make_shared<Printer>("demo out");
    if (virtualOutput && loopback) {
        loopback->addConsumer(listenerOfOutput);
        virtualOutput->sendEvent(VelmorEvent::controlChangeEventWithControllerValueChannelTimeOffset(64, 127, 3, 0));
        serveUntil([&] { return !listenerOfOutput->events.empty(); });
    }
    check(listenerOfOutput->events.size() == 1, "an event sent out of it came back in through the system");

    step("Send to the keyboard's destination");
    auto keysOutput = manager->outputWithAttributes(VelmorAttributes::defaultAttributesWithName("Keys")->attributesWithOptions(
        VelmorAttributesOptionName));
    check(keysOutput != nullptr, "outputWithAttributes() finds the destination \"Keys\"");
    if (keysOutput) {
        keysOutput->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(72, 64, 1, 0));
        keysOutput->sendEvent(VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(8192, 1, 0));
    }
    service->waitUntilIdle();
    const auto arrived = service->arrivedBytes(keys.destination);
    std::printf("   bytes at the keyboard: %s\n", hexBytes(VelmorData(arrived)).c_str());
    check(arrived == std::vector<std::uint8_t>({0x90, 72, 64, 0xE0, 0x00, 0x40}), "the keyboard got note on C6 and the pitch wheel centre");

    step("Unplug the keyboard");
    listener->names.clear();
    service->removeObject(keys.device);
    serveUntil([&] { return everything->terminations > 0 && manager->remoteOutputs().empty(); });
    check(everything->terminations == 128, "the consumer for everything heard sourceIsTerminating in each of its 128 rows");
    check(notesOnly->terminations == 1, "the note consumer heard it once");
    const std::vector<std::string> expected = {
        std::string(VelmorManager_SourcesWillChangeNotification), std::string(VelmorManager_WillRemoveSourceNotification),
        std::string(VelmorManager_DidRemoveSourceNotification), std::string(VelmorManager_SourcesDidChangeNotification)};
    std::vector<std::string> sourceNames;
    for (const auto& name : listener->names)
        if (name.find("Source") != std::string::npos)
            sourceNames.push_back(name);
    check(sourceNames == expected, "source notifications: will change, will remove, did remove, did change");
    check(manager->sources().size() == 1, "only the virtual output is left among the sources");

    step("Close the virtual output and flush");
    if (virtualOutput)
        manager->closeVirtualOutput(virtualOutput);
    manager->flushManager();
    check(manager->localOutputs().empty(), "no virtual output is open");

    std::printf("\n%s\n", failures ? "Something did not work: see the FAIL lines above." : "Everything worked.");
    return failures ? 1 : 0;
}

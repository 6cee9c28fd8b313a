// The ALSA sequencer service end to end, run inside the throw-away VM of run-vm-suite.sh: the VM's
// /init has loaded the sequencer, the USB MIDI gadget and dummy_hcd, and prepared (not plugged) the
// gadget. This program is the application: it drives the manager on its main thread, plugs the
// gadget in and out, and plays the device's side through the gadget's raw MIDI device.
//
// Prints "PASS: ..." or "FAIL: ..." per check, "MEASURE: ..." for timings, and last
// "VELMOR-VM-RESULT: PASS" or "VELMOR-VM-RESULT: FAIL".

#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Velmor.h"
#include "VelmorALSAMIDIService.h"
#include "VelmorHostClock.h"
#include "VelmorMainQueue.h"
#include "VelmorSystemMIDIService.h"

using namespace VelmorPlatform;
using namespace std::chrono_literals;

namespace {

int failures = 0;
std::thread::id mainThread;

void check(bool ok, const std::string& what, const std::string& detail = "")
{
    if (ok)
        std::printf("PASS: %s\n", what.c_str());
    else {
        std::printf("FAIL: %s%s%s\n", what.c_str(), detail.empty() ? "" : ": ", detail.c_str());
        ++failures;
    }
    std::fflush(stdout);
}

bool serveUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    return VelmorMainQueue::mainQueue().runUntil(condition, timeout);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool writeFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path);
    out << text << '\n';
    out.flush();
    return bool(out);
}

std::string commandOutput(const std::string& command)
{
    std::string result;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, pipe))
            result += buffer;
        pclose(pipe);
    }
    return result;
}

double microseconds(MIDITimeStamp hostTicks)
{
    return double(AudioConvertHostTimeToNanos(hostTicks)) / 1000.0;
}

// The card number of the gadget's own side ("GadgetSide" in /proc/asound/cards), or -1.
int gadgetCard()
{
    std::istringstream cards(readFile("/proc/asound/cards"));
    std::string line;
    while (std::getline(cards, line))
        if (line.find("[GadgetSide") != std::string::npos)
            return std::atoi(line.c_str());
    return -1;
}

// Everything the manager posts, in order, as "name object-name".
struct Recorder {
    std::vector<std::string> lines;
    bool offMainThread = false;
    void start()
    {
        for (auto name : {VelmorManager_SourcesWillChangeNotification, VelmorManager_DidAddSourceNotification,
                          VelmorManager_WillRemoveSourceNotification, VelmorManager_DidRemoveSourceNotification,
                          VelmorManager_SourcesDidChangeNotification, VelmorManager_SourcePropertyChangedNotification,
                          VelmorManager_OutputsWillChangeNotification, VelmorManager_DidAddOutputNotification,
                          VelmorManager_WillRemoveOutputNotification, VelmorManager_DidRemoveOutputNotification,
                          VelmorManager_OutputsDidChangeNotification, VelmorManager_OutputPropertyChangedNotification}) {
            VelmorNotificationCenter::defaultCenter().addObserver(
                this, std::string(name), [this](const VelmorNotification& notification) {
                    std::string line = notification.name;
                    auto object = notification.object;
                    if (notification.userInfo)
                        for (auto key : {VelmorManager_SourceKey, VelmorManager_OutputKey})
                            if (auto* value = notification.userInfo->objectForKey(key))
                                object = value->objectValue();
                    if (auto endpoint = std::dynamic_pointer_cast<VelmorEndpoint>(object))
                        line += " " + endpoint->name().value_or("(null)");
                    offMainThread |= std::this_thread::get_id() != mainThread;
                    lines.push_back(line);
                });
        }
    }
    std::string joined() const
    {
        std::string text;
        for (auto& line : lines)
            text += line + "; ";
        return text;
    }
    // True when the lines hold `wanted` in this order (others may lie between).
    bool hasInOrder(const std::vector<std::string>& wanted) const
    {
        std::size_t at = 0;
        for (auto& line : lines)
            if (at < wanted.size() && line.rfind(wanted[at], 0) == 0)
                ++at;
        return at == wanted.size();
    }
};

struct Consumer : VelmorConsumer {
    std::vector<std::shared_ptr<VelmorEvent>> events;
    std::vector<MIDITimeStamp> arrivals;
    int terminating = 0;
    bool offMainThread = false;
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        offMainThread |= std::this_thread::get_id() != mainThread;
        events.push_back(event);
        arrivals.push_back(AudioGetCurrentHostTime());
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override
    {
        offMainThread |= std::this_thread::get_id() != mainThread;
        ++terminating;
    }
};

std::shared_ptr<VelmorRemoteSource> sourceNamed(VelmorManager& manager, const std::string& prefix)
{
    for (auto& source : manager.sources())
        if (source->name().value_or("").rfind(prefix, 0) == 0)
            return source;
    return nullptr;
}

std::shared_ptr<VelmorRemoteOutput> outputNamed(VelmorManager& manager, const std::string& prefix)
{
    for (auto& output : manager.remoteOutputs())
        if (output->name().value_or("").rfind(prefix, 0) == 0)
            return output;
    return nullptr;
}

MIDIEndpointRef destinationNamed(const std::string& prefix)
{
    for (ItemCount i = 0; i < MIDIGetNumberOfDestinations(); ++i) {
        std::optional<std::string> name;
        MIDIObjectGetStringProperty(MIDIGetDestination(i), kMIDIPropertyName, &name);
        if (name.value_or("").rfind(prefix, 0) == 0)
            return MIDIGetDestination(i);
    }
    return 0;
}

std::vector<std::uint8_t> bytesOf(const std::shared_ptr<VelmorEvent>& event)
{
    auto span = event->data().span();
    return {span.begin(), span.end()};
}

// Reads up to `count` bytes from a raw MIDI device within `timeout`.
std::vector<std::uint8_t> readRaw(int fd, std::size_t count, std::chrono::milliseconds timeout)
{
    std::vector<std::uint8_t> bytes;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (bytes.size() < count && std::chrono::steady_clock::now() < deadline) {
        pollfd descriptor {fd, POLLIN, 0};
        poll(&descriptor, 1, 50);
        std::uint8_t buffer[256];
        const ssize_t got = read(fd, buffer, std::min(sizeof buffer, count - bytes.size()));
        if (got > 0)
            bytes.insert(bytes.end(), buffer, buffer + got);
    }
    return bytes;
}

// Writes at most 256 bytes a millisecond, as a device would: dummy_hcd has no bus speed, and faster
// bytes overrun the 4 KiB buffer between the USB driver and the sequencer inside the kernel.
void writeRaw(int fd, const std::vector<std::uint8_t>& bytes)
{
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (at)
            std::this_thread::sleep_for(1ms);
        const ssize_t put = write(fd, bytes.data() + at, std::min<std::size_t>(256, bytes.size() - at));
        if (put > 0)
            at += std::size_t(put);
        else {
            pollfd descriptor {fd, POLLOUT, 0};
            poll(&descriptor, 1, 50);
        }
    }
}

struct Percentiles {
    double median = 0, p99 = 0, max = 0;
};

Percentiles percentiles(std::vector<double> values)
{
    if (values.empty())
        return {};
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values[std::min(values.size() - 1, values.size() * 99 / 100)], values.back()};
}

// A read procedure that notes the host time of every packet list it gets.
struct LatencyProbe {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<MIDITimeStamp> arrivals;
    static void readProc(const MIDIPacketList*, void* refCon, void*)
    {
        auto* probe = static_cast<LatencyProbe*>(refCon);
        std::lock_guard<std::mutex> lock(probe->mutex);
        probe->arrivals.push_back(AudioGetCurrentHostTime());
        probe->arrived.notify_all();
    }
};

// --- Bursts: what piles up while the service thread is busy ----------------------------------------
// A read procedure on a "gate" source holds the service thread, so that what another program sends
// meanwhile waits in the sequencer and is taken in one go. What arrives must be what was sent: split
// exclusive messages joined, a real-time byte between their pieces on its own, an exclusive message cut
// short kept apart from the note that cut it; and an overrun must be reported, not swallowed.
struct BurstProbe {
    std::mutex mutex;
    std::condition_variable changed;
    bool gateArmed = false, gateHeld = false;
    std::vector<std::vector<std::vector<std::uint8_t>>> lists;  // per list, its packets' bytes
    std::vector<MIDIInputDroppedNotification> dropped;

    static void gateReadProc(const MIDIPacketList*, void* refCon, void*)
    {
        auto* probe = static_cast<BurstProbe*>(refCon);
        std::unique_lock<std::mutex> lock(probe->mutex);
        if (!probe->gateArmed)
            return;
        probe->gateHeld = true;
        probe->changed.notify_all();
        probe->changed.wait_for(lock, 5s, [&] { return !probe->gateArmed; });
        probe->gateHeld = false;
    }
    static void recordReadProc(const MIDIPacketList* list, void* refCon, void*)
    {
        auto* probe = static_cast<BurstProbe*>(refCon);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
        std::uint32_t count = 0;
        std::memcpy(&count, bytes, 4);
        std::vector<std::vector<std::uint8_t>> packets;
        for (std::size_t i = 0, at = 4; i < count; ++i) {
            std::uint16_t length = 0;
            std::memcpy(&length, bytes + at + 8, 2);
            packets.emplace_back(bytes + at + 10, bytes + at + 10 + length);
            at += 10 + length;
        }
        std::lock_guard<std::mutex> lock(probe->mutex);
        probe->lists.push_back(std::move(packets));
        probe->changed.notify_all();
    }
    static void notifyProc(const MIDINotification* message, void* refCon)
    {
        if (message->messageID != kMIDIMsgVelmorInputDropped)
            return;
        auto* probe = static_cast<BurstProbe*>(refCon);
        std::lock_guard<std::mutex> lock(probe->mutex);
        probe->dropped.push_back(*reinterpret_cast<const MIDIInputDroppedNotification*>(message));
    }
    // Holds the service thread in the gate's read procedure, once `send` has sent a note to the gate.
    bool close(const std::function<void()>& sendToGate)
    {
        std::unique_lock<std::mutex> lock(mutex);
        gateArmed = true;
        lock.unlock();
        sendToGate();
        lock.lock();
        return changed.wait_for(lock, 3s, [&] { return gateHeld; });
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex);
        gateArmed = false;
        changed.notify_all();
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lists.clear();
    }
    std::vector<std::vector<std::uint8_t>> packets()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::vector<std::uint8_t>> all;
        for (auto& list : lists)
            all.insert(all.end(), list.begin(), list.end());
        return all;
    }
};

std::string hexOf(const std::vector<std::vector<std::uint8_t>>& packets)
{
    std::string text;
    char buffer[4];
    for (auto& packet : packets) {
        text += "[";
        for (std::size_t i = 0; i < packet.size(); ++i) {
            std::snprintf(buffer, sizeof buffer, "%02X", packet[i]);
            text += (i ? " " : "") + std::string(buffer);
        }
        text += "] ";
    }
    return text;
}

void checkBursts(VelmorManager& manager, VelmorALSAMIDIService& alsa)
{
    snd_seq_t* sender = nullptr;
    if (snd_seq_open(&sender, "default", SND_SEQ_OPEN_OUTPUT, 0) < 0) {
        check(false, "a sending program opens the sequencer");
        return;
    }
    snd_seq_set_client_name(sender, "Burst Sender");
    const unsigned caps = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
    const unsigned type = SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION;
    const int gatePort = snd_seq_create_simple_port(sender, "Burst Gate", caps, type);
    const int outPort = snd_seq_create_simple_port(sender, "Burst Out", caps, type);
    auto send = [&](int port, auto fill) {
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        fill(event);
        snd_seq_ev_set_source(&event, port);
        snd_seq_ev_set_subs(&event);
        snd_seq_ev_set_direct(&event);
        snd_seq_event_output_direct(sender, &event);
    };
    auto note = [&](int port, int key) { send(port, [&](snd_seq_event_t& e) { snd_seq_ev_set_noteon(&e, 0, key, 64); }); };
    std::vector<std::vector<std::uint8_t>> pieces;
    auto exclusive = [&](std::vector<std::uint8_t> bytes) {
        pieces.push_back(std::move(bytes));
        auto& kept = pieces.back();
        send(outPort, [&](snd_seq_event_t& e) { snd_seq_ev_set_sysex(&e, unsigned(kept.size()), kept.data()); });
    };
    serveUntil([&] { return sourceNamed(manager, "Burst Out") && sourceNamed(manager, "Burst Gate"); }, 3000ms);
    auto gate = sourceNamed(manager, "Burst Gate");
    auto out = sourceNamed(manager, "Burst Out");
    check(gate && out, "a sending program's two ports are sources");
    BurstProbe probe;
    MIDIClientRef client = 0;
    MIDIPortRef gateInput = 0, recordInput = 0;
    MIDIClientCreate("Burst Probe", &BurstProbe::notifyProc, &probe, &client);
    MIDIInputPortCreate(client, "Burst Gate In", &BurstProbe::gateReadProc, &probe, &gateInput);
    MIDIInputPortCreate(client, "Burst Record", &BurstProbe::recordReadProc, &probe, &recordInput);
    auto consumer = std::make_shared<Consumer>();
    if (gate && out && MIDIPortConnectSource(gateInput, gate->object(), nullptr) == noErr &&
        MIDIPortConnectSource(recordInput, out->object(), nullptr) == noErr) {
        out->addConsumer(consumer);

        // One burst of split, interleaved and cut-short messages.
        const bool held = probe.close([&] { note(gatePort, 1); });
        check(held, "a read procedure holds the service thread");
        exclusive({0xF0, 0x01, 0x02});
        send(outPort, [](snd_seq_event_t& e) { e.type = SND_SEQ_EVENT_CLOCK; });
        exclusive({0x03, 0xF7});
        note(outPort, 60);
        exclusive({0xF0, 0x05, 0x06});  // cut short by the next note
        note(outPort, 61);
        send(outPort, [](snd_seq_event_t& e) { snd_seq_ev_set_controller(&e, 0, 7, 100); });
        probe.open();
        alsa.waitUntilIdle();
        const std::vector<std::vector<std::uint8_t>> expected {
            {0xF8}, {0xF0, 0x01, 0x02, 0x03, 0xF7}, {0x90, 60, 64}, {0xF0, 0x05, 0x06}, {0x90, 61, 64}, {0xB0, 7, 100}};
        const auto got = probe.packets();
        check(got == expected, "a burst arrives in order: exclusive pieces joined, real-time and cut-short kept apart",
              hexOf(got));
        bool apart = true;  // the framework joins a packet that ends inside a message with the next one of its list
        std::size_t lists = 0;
        {
            std::lock_guard<std::mutex> lock(probe.mutex);
            lists = probe.lists.size();
            for (auto& list : probe.lists)
                for (std::size_t i = 0; i + 1 < list.size(); ++i)
                    apart &= list[i] != std::vector<std::uint8_t> {0xF0, 0x05, 0x06};
        }
        check(apart, "an exclusive message cut short ends its packet list");
        check(lists < got.size(), "a burst comes in fewer packet lists than messages", std::to_string(lists) + " lists");
        serveUntil([&] { return consumer->events.size() >= 5; }, 2000ms);
        serveUntil([] { return false; }, 100ms);
        std::string types;
        for (auto& event : consumer->events)
            types += hexOf({bytesOf(event)});
        const auto& events = consumer->events;
        const bool typed = events.size() >= 5 && events[0]->type() == VelmorEventTypeSystem &&
                           bytesOf(events[1]) == expected[1] && events[2]->note() == 60 &&
                           std::any_of(events.begin(), events.end(),
                                       [](auto& e) { return e->type() == VelmorEventTypeNoteOn && e->note() == 61; }) &&
                           events.back()->type() == VelmorEventTypeControlChange;
        check(typed, "the consumer gets the burst as events, the note after a cut-short exclusive message too", types);

        // An overrun: far more than the sequencer keeps for this client while the thread is held.
        probe.clear();
        check(probe.close([&] { note(gatePort, 2); }), "a read procedure holds the service thread again");
        for (int i = 0; i < 5000; ++i)
            note(outPort, i % 128);
        probe.open();
        alsa.waitUntilIdle();
        bool reported = false;
        std::size_t records = 0;
        for (int tries = 0; tries < 100 && !reported; ++tries) {
            if (tries > 0)
                std::this_thread::sleep_for(10ms);
            std::lock_guard<std::mutex> lock(probe.mutex);
            records = probe.dropped.size();
            for (auto& record : probe.dropped)
                reported |= record.port == recordInput && record.source == 0 &&
                            record.messageSize == sizeof(MIDIInputDroppedNotification);
        }
        // Whether the kernel overruns at all depends on how the emulated machine schedules the sender
        // against the held thread, so a boot without an overrun is told, not failed.
        if (reported)
            check(true, "an input overrun reaches the input port's client as a dropped-input record");
        else
            std::printf("NOTE: no dropped-input record in this boot (%zu records)\n", records);
        probe.clear();
        note(outPort, 99);
        alsa.waitUntilIdle();
        const auto after = probe.packets();
        check(!after.empty() && after.back() == std::vector<std::uint8_t> {0x90, 99, 64},
              "input goes on after an overrun", hexOf(after));
        out->removeConsumer(consumer);
    }
    MIDIClientDispose(client);
    snd_seq_close(sender);
    serveUntil([&] { return sourceNamed(manager, "Burst Out") == nullptr; }, 3000ms);
}

} // namespace

int main(int argc, char** argv)
{
    const std::string gadget = argc > 1 ? argv[1] : "/sys/kernel/config/usb_gadget/midi";
    mainThread = std::this_thread::get_id();

    check(useSystemServiceIfAvailable(), "the ALSA sequencer service is chosen");
    auto* alsa = dynamic_cast<VelmorALSAMIDIService*>(&currentService());
    if (!alsa) {
        std::printf("VELMOR-VM-RESULT: FAIL\n");
        return 1;
    }
    VelmorManager::setClientName(std::string("Velmor VM Test"));
    auto manager = VelmorManager::sharedManager();
    check(manager != nullptr, "the manager starts on the ALSA service");
    if (!manager) {
        std::printf("VELMOR-VM-RESULT: FAIL\n");
        return 1;
    }

    // --- Listing ------------------------------------------------------------------------------------
    auto sources = manager->sources();
    std::string names;
    for (auto& source : sources)
        names += "'" + source->name().value_or("(null)") + "' ";
    std::printf("sources: %s\n", names.c_str());
    names.clear();
    for (auto& output : manager->remoteOutputs())
        names += "'" + output->name().value_or("(null)") + "' ";
    std::printf("outputs: %s\n", names.c_str());
    auto through = sourceNamed(*manager, "Midi Through Port-0");
    check(through != nullptr, "sources list Midi Through by name", names);
    check(outputNamed(*manager, "Midi Through Port-0") != nullptr, "outputs list Midi Through by name");
    check(readFile("/proc/asound/seq/clients").find("\"Velmor VM Test\"") != std::string::npos,
          "the sequencer client is named after the application");

    Recorder recorder;
    recorder.start();

    // --- Plug the USB device in while the application runs -------------------------------------------
    const MIDITimeStamp plugStart = AudioGetCurrentHostTime();
    check(writeFile(gadget + "/UDC", "dummy_udc.0"), "gadget bound to dummy_udc.0");
    const bool plugged = serveUntil([&] { return sourceNamed(*manager, "VM USB MIDI") != nullptr; }, 15000ms);
    std::printf("MEASURE: plug-in to DidAddSource %.1f ms\n",
                microseconds(AudioGetCurrentHostTime() - plugStart) / 1000.0);
    check(plugged, "the USB device's source appears", recorder.joined());
    serveUntil([] { return false; }, 300ms);  // the gadget's own side may follow
    check(!recorder.offMainThread, "the manager's notifications come on the main thread");
    check(recorder.hasInOrder({"VelmorManager_SourcesWillChange", "VelmorManager_DidAddSource VM USB MIDI",
                               "VelmorManager_SourcesDidChange"}),
          "plug-in: will change, did add, did change", recorder.joined());
    check(recorder.hasInOrder({"VelmorManager_OutputsWillChange", "VelmorManager_DidAddOutput VM USB MIDI",
                               "VelmorManager_OutputsDidChange"}),
          "plug-in: the device's output is added", recorder.joined());
    auto usb = sourceNamed(*manager, "VM USB MIDI");
    auto usbOutput = outputNamed(*manager, "VM USB MIDI");
    check(usbOutput != nullptr, "the USB device's output appears");
    if (usb) {
        check(usb->manufacturer().value_or("") == "velmor-vm" && usb->model().value_or("") == "VM USB MIDI",
              "manufacturer and model come from the USB card",
              usb->manufacturer().value_or("(null)") + " / " + usb->model().value_or("(null)"));
        check(usb->uniqueID() != 0, "the USB source has a unique ID");
    }

    const int card = gadgetCard();
    const std::string raw = "/dev/snd/midiC" + std::to_string(card) + "D0";
    auto consumer = std::make_shared<Consumer>();
    if (usb && card >= 0) {
        usb->addConsumer(consumer);

        // --- Bytes on the device side arrive as typed events on the main thread ---------------------
        const int out = open(raw.c_str(), O_WRONLY);
        check(out >= 0, "gadget raw MIDI " + raw + " opens for writing");
        writeRaw(out, {0x90, 0x3C, 0x40, 0xB0, 0x07, 0x64, 0xE0, 0x00, 0x40});
        serveUntil([&] { return consumer->events.size() >= 3; }, 5000ms);
        check(consumer->events.size() == 3 && consumer->events[0]->type() == VelmorEventTypeNoteOn &&
                  consumer->events[0]->note() == 60 && consumer->events[0]->velocity() == 64 &&
                  consumer->events[1]->type() == VelmorEventTypeControlChange &&
                  consumer->events[2]->type() == VelmorEventTypePitchWheel,
              "note on, control change and pitch wheel arrive typed",
              std::to_string(consumer->events.size()) + " events");
        check(!consumer->offMainThread, "consumers are called on the main thread");
        if (!consumer->events.empty())
            check(consumer->events[0]->timeStamp() != 0 &&
                      consumer->events[0]->timeStamp() <= consumer->arrivals[0],
                  "time stamps are host time, before delivery");

        // Exclusive messages, split by the sequencer, arrive whole as one event, up to 64 KiB.
        for (std::size_t size : {std::size_t(1024), std::size_t(65536)}) {
            consumer->events.clear();
            std::vector<std::uint8_t> exclusive(size);
            exclusive.front() = 0xF0;
            for (std::size_t i = 1; i + 1 < exclusive.size(); ++i)
                exclusive[i] = std::uint8_t(i * 7 % 128);
            exclusive.back() = 0xF7;
            const MIDITimeStamp exclusiveStart = AudioGetCurrentHostTime();
            writeRaw(out, exclusive);
            const double writeMs = microseconds(AudioGetCurrentHostTime() - exclusiveStart) / 1000.0;
            serveUntil([&] { return !consumer->events.empty(); }, 20000ms);
            std::printf("MEASURE: %zu-byte exclusive device -> main thread %.1f ms (write %.1f ms)\n", size,
                        microseconds(AudioGetCurrentHostTime() - exclusiveStart) / 1000.0, writeMs);
            serveUntil([] { return false; }, 200ms);
            const bool whole = consumer->events.size() == 1 && consumer->events[0]->type() == VelmorEventTypeSystem &&
                               bytesOf(consumer->events[0]) == exclusive;
            check(whole, "an exclusive message of " + std::to_string(size) + " bytes arrives whole as one event",
                  std::to_string(consumer->events.size()) + " events" +
                      (consumer->events.empty()
                           ? ""
                           : ", first " + std::to_string(consumer->events[0]->data().length()) + " bytes"));
            if (!whole)
                std::printf("%s%s", readFile("/proc/asound/seq/clients").c_str(),
                            commandOutput("cat /proc/asound/card*/midi0").c_str());
        }
        if (out >= 0)
            close(out);

        // --- An event sent to the device's destination arrives as bytes on the device side -----------
        const int in = open(raw.c_str(), O_RDONLY | O_NONBLOCK);
        check(in >= 0, "gadget raw MIDI opens for reading");
        // The gadget drops what comes before its reader's first read: start reading now.
        std::uint8_t nothing = 0;
        [[maybe_unused]] auto none = read(in, &nothing, 1);
        std::this_thread::sleep_for(100ms);
        if (usbOutput)
            usbOutput->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(62, 90, 2, 0));
        auto got = readRaw(in, 3, 5000ms);
        check(got == std::vector<std::uint8_t> {0x91, 0x3E, 0x5A}, "the note arrives as bytes on the device side",
              std::to_string(got.size()) + " bytes");
        if (in >= 0)
            close(in);
    }

    // --- A virtual output, seen by another sequencer client -------------------------------------------
    auto virtualOutput = manager->openVirtualOutputWithAttributes(
        VelmorAttributes::defaultAttributesWithNameIdentifier("Velmor VM Output", "vm-output-1"));
    check(virtualOutput != nullptr, "a virtual output is opened");
    if (!virtualOutput) {
        std::printf("VELMOR-VM-RESULT: FAIL\n");
        return 1;
    }
    const MIDIEndpointRef virtualSource = virtualOutput->object();
    const std::string address = alsa->sequencerAddress(virtualSource);
    check(virtualOutput->identifier().value_or("") == "vm-output-1" &&
              virtualOutput->manufacturer() == manager->localOutputManufacturer(),
          "the virtual output keeps its identifier and manufacturer");
    check(commandOutput("aseqdump -l").find("Velmor VM Output") != std::string::npos,
          "aseqdump lists the virtual output by name");
    system(("aseqdump -p " + address + " > /tmp/aseqdump.log 2>&1 & echo $! > /tmp/aseqdump.pid").c_str());
    for (int i = 0; i < 50 && readFile("/proc/asound/seq/clients").find("aseqdump") == std::string::npos; ++i)
        std::this_thread::sleep_for(50ms);
    std::this_thread::sleep_for(300ms);
    virtualOutput->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(64, 100, 1, 0));
    std::this_thread::sleep_for(500ms);
    system("kill $(cat /tmp/aseqdump.pid)");
    std::this_thread::sleep_for(100ms);
    const std::string dump = readFile("/tmp/aseqdump.log");
    std::printf("%s", dump.c_str());
    check(dump.find("Note on") != std::string::npos && dump.find("64") != std::string::npos,
          "aseqdump, subscribed to the virtual output, sees the note");

    // --- Renames are property changes -----------------------------------------------------------------
    serveUntil([] { return false; }, 200ms);
    std::vector<std::pair<MIDIObjectRef, std::string>> changes;
    VelmorNotificationCenter::defaultCenter().addObserver(
        &changes, std::string(VelmorClient_PropertyChangedNotification), [&](const VelmorNotification& notification) {
            if (!notification.userInfo)
                return;
            const auto* object = notification.userInfo->objectForKey(VelmorObjectKey);
            const auto* property = notification.userInfo->objectForKey(VelmorPropertyNameKey);
            if (object && property)
                changes.emplace_back(MIDIObjectRef(object->unsignedValue().value_or(0)),
                                     property->stringValue().value_or(""));
        });
    auto changed = [&](MIDIObjectRef object) {
        return std::any_of(changes.begin(), changes.end(), [&](auto& change) {
            return change.first == object && change.second == kMIDIPropertyName;
        });
    };
    recorder.lines.clear();
    check(manager->updateVirtualOutputWithAttributes(
              VelmorAttributes::defaultAttributesWithNameIdentifier("Velmor VM Renamed", "vm-output-1")) == virtualOutput,
          "the virtual output is renamed through its identifier");
    serveUntil([&] { return changed(virtualSource); }, 3000ms);
    check(changed(virtualSource), "renaming our virtual output is a name change");
    check(recorder.hasInOrder({"VelmorManager_OutputPropertyChanged Velmor VM Renamed"}),
          "the manager reports the output's property change", recorder.joined());
    check(commandOutput("aseqdump -l").find("Velmor VM Renamed") != std::string::npos,
          "other programs see the new name");

    // Another program comes, renames its port and goes: announced by the sequencer.
    snd_seq_t* other = nullptr;
    if (snd_seq_open(&other, "default", SND_SEQ_OPEN_DUPLEX, 0) >= 0) {
        snd_seq_set_client_name(other, "Other Program");
        recorder.lines.clear();
        const int port = snd_seq_create_simple_port(other, "Other Out", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                                    SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        // Once the service is idle, the port's announcement has been handed to the main queue.
        alsa->waitUntilIdle();
        check(VelmorMainQueue::mainQueue().pendingCount() > 0, "waitUntilIdle returns after the announcement's callbacks");
        serveUntil([&] { return sourceNamed(*manager, "Other Out") != nullptr; }, 3000ms);
        auto otherSource = sourceNamed(*manager, "Other Out");
        check(otherSource != nullptr, "another program's port appears as a source", recorder.joined());
        snd_seq_port_info_t* info = nullptr;
        snd_seq_port_info_alloca(&info);
        snd_seq_get_port_info(other, port, info);
        snd_seq_port_info_set_name(info, "Other Renamed");
        snd_seq_set_port_info(other, port, info);
        if (otherSource) {
            serveUntil([&] { return changed(otherSource->object()); }, 3000ms);
            check(changed(otherSource->object()), "another program's rename is a name change");
            check(otherSource->name().value_or("") == "Other Renamed", "the source reads the new name");
            check(recorder.hasInOrder({"VelmorManager_SourcePropertyChanged Other Renamed"}),
                  "the manager reports the source's property change", recorder.joined());
        }
        snd_seq_close(other);
        serveUntil([&] { return sourceNamed(*manager, "Other") == nullptr; }, 3000ms);
        check(recorder.hasInOrder({"VelmorManager_WillRemoveSource Other Renamed", "VelmorManager_DidRemoveSource"}),
              "a program that quits removes its source", recorder.joined());
    }

    checkBursts(*manager, *alsa);

    // --- Timed sending, and the round trip of a note through the sequencer ----------------------------
    const MIDIEndpointRef throughDestination = destinationNamed("Midi Through Port-0");
    auto throughOutput = outputNamed(*manager, "Midi Through Port-0");
    if (through && throughDestination && throughOutput) {
        auto timed = std::make_shared<Consumer>();
        through->addConsumer(timed);
        int early = 0;
        std::vector<double> offsets;
        for (int i = 0; i < 10; ++i) {
            timed->events.clear();
            auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 1 + i, 1, 10);
            const MIDITimeStamp sent = AudioGetCurrentHostTime();
            throughOutput->sendEvent(event);
            serveUntil([&] { return !timed->events.empty(); }, 2000ms);
            if (timed->events.empty()) {
                ++early;
                continue;
            }
            const double ms = microseconds(timed->arrivals[0] - sent) / 1000.0;
            const double stampMs = microseconds(timed->events[0]->timeStamp() - sent) / 1000.0;
            offsets.push_back(stampMs);
            if (ms < 10.0 || stampMs < 10.0)
                ++early;
        }
        auto p = percentiles(offsets);
        std::printf("MEASURE: timeOffset 10 ms: sequencer time stamp - send, median %.2f ms, max %.2f ms\n", p.median,
                    p.max);
        check(early == 0 && offsets.size() == 10, "a send with a timeOffset of 10 ms arrives no earlier than 10 ms",
              std::to_string(early) + " early or lost");
        through->removeConsumer(timed);

        // Platform level: MIDISend -> Midi Through -> read procedure on the service thread.
        LatencyProbe probe;
        MIDIPortRef probePort = 0;
        MIDIInputPortCreate(manager->client()->client(), "Velmor latency", &LatencyProbe::readProc, &probe, &probePort);
        MIDIPortConnectSource(probePort, through->object(), nullptr);
        std::vector<double> roundTrips;
        for (int i = 0; i < 500; ++i) {
            auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0);
            const VelmorData noteImage = event->packet()->getMIDIPacketListDataWithStartTime(0);
            std::unique_lock<std::mutex> lock(probe.mutex);
            probe.arrivals.clear();
            lock.unlock();
            const MIDITimeStamp sent = AudioGetCurrentHostTime();
            MIDISend(manager->outputPort(), throughDestination, reinterpret_cast<const MIDIPacketList*>(noteImage.bytes()));
            lock.lock();
            if (probe.arrived.wait_for(lock, 1s, [&] { return !probe.arrivals.empty(); }))
                roundTrips.push_back(microseconds(probe.arrivals[0] - sent));
        }
        MIDIPortDispose(probePort);
        p = percentiles(roundTrips);
        std::printf("MEASURE: note round trip MIDISend -> Midi Through -> read procedure: %zu notes, median %.0f us, "
                    "p99 %.0f us, max %.0f us\n",
                    roundTrips.size(), p.median, p.p99, p.max);
        check(roundTrips.size() == 500, "every note of the round trip arrives");

        // Application level: to a consumer on the main thread.
        // The manager's port got the probe's notes too: let the main thread hand them on first.
        serveUntil([] { return VelmorMainQueue::mainQueue().pendingCount() == 0; }, 5000ms);
        auto consumerProbe = std::make_shared<Consumer>();
        through->addConsumer(consumerProbe);
        roundTrips.clear();
        std::size_t stray = 0;
        for (int i = 0; i < 200; ++i) {
            consumerProbe->events.clear();
            consumerProbe->arrivals.clear();
            // Each note carries its own velocity, so that a late or doubled note can't pass for this one.
            const std::uint64_t velocity = 1 + i % 127;
            auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(61, velocity, 1, 0);
            auto arrivedAt = [&]() -> std::optional<std::size_t> {
                for (std::size_t k = 0; k < consumerProbe->events.size(); ++k)
                    if (consumerProbe->events[k]->velocity() == velocity)
                        return k;
                return std::nullopt;
            };
            const MIDITimeStamp sent = AudioGetCurrentHostTime();
            throughOutput->sendEvent(event);
            if (serveUntil([&] { return arrivedAt().has_value(); }, 1000ms))
                roundTrips.push_back(microseconds(consumerProbe->arrivals[*arrivedAt()] - sent));
            stray += consumerProbe->events.size() - (arrivedAt() ? 1 : 0);
        }
        check(roundTrips.size() == 200 && stray == 0, "every note reaches the consumer once",
              std::to_string(roundTrips.size()) + " arrived, " + std::to_string(stray) + " stray");
        through->removeConsumer(consumerProbe);
        p = percentiles(roundTrips);
        std::printf("MEASURE: note round trip to a consumer on the main thread: %zu notes, median %.0f us, "
                    "p99 %.0f us, max %.0f us\n",
                    roundTrips.size(), p.median, p.p99, p.max);

        // Exclusive messages sent: an unfinished one goes out too, and the next one, in several events,
        // neither joins it nor loses a byte.
        auto exclusiveProbe = std::make_shared<Consumer>();
        through->addConsumer(exclusiveProbe);
        const std::vector<std::uint8_t> unfinished {0xF0, 0x01, 0x02, 0x03};
        std::vector<std::uint8_t> whole(600);
        whole.front() = 0xF0;
        for (std::size_t i = 1; i + 1 < whole.size(); ++i)
            whole[i] = std::uint8_t(i * 5 % 128);
        whole.back() = 0xF7;
        for (const auto& bytes : {unfinished, whole})
            throughOutput->sendEvent(VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 0, 0));
        throughOutput->sendEvent(VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(63, 1, 1, 0));
        const auto& sent = exclusiveProbe->events;
        serveUntil([&] { return !sent.empty() && sent.back()->type() == VelmorEventTypeNoteOn; }, 2000ms);
        std::vector<std::vector<std::uint8_t>> arrived;
        for (auto& event : sent)
            arrived.push_back(bytesOf(event));
        const bool cut = std::any_of(arrived.begin(), arrived.end(), [&](auto& bytes) {
            return bytes.size() >= unfinished.size() && std::equal(unfinished.begin(), unfinished.end(), bytes.begin());
        });
        check(cut && std::count(arrived.begin(), arrived.end(), whole) == 1 && sent.back()->note() == 63,
              "an unfinished exclusive message is sent, and a 600-byte one after it arrives whole",
              std::to_string(arrived.size()) + " events, sizes " + [&] {
                  std::string sizes;
                  for (auto& bytes : arrived)
                      sizes += std::to_string(bytes.size()) + " ";
                  return sizes;
              }());
        through->removeConsumer(exclusiveProbe);
    }

    // --- Unplug while a consumer listens; plug in again ----------------------------------------------
    if (usb) {
        recorder.lines.clear();
        const MIDIEndpointRef oldRef = usb->object();
        check(writeFile(gadget + "/UDC", ""), "gadget unbound");
        serveUntil([&] {
            return consumer->terminating > 0 && sourceNamed(*manager, "VM USB MIDI") == nullptr &&
                   recorder.hasInOrder({"VelmorManager_DidRemoveOutput VM USB MIDI"});
        },
                   15000ms);
        check(consumer->terminating > 0, "the consumer is told sourceIsTerminating",
              std::to_string(consumer->terminating));
        check(recorder.hasInOrder({"VelmorManager_SourcesWillChange", "VelmorManager_WillRemoveSource VM USB MIDI",
                                   "VelmorManager_DidRemoveSource VM USB MIDI", "VelmorManager_SourcesDidChange"}),
              "unplug: will change, will remove, did remove, did change", recorder.joined());
        check(recorder.hasInOrder({"VelmorManager_OutputsWillChange", "VelmorManager_WillRemoveOutput VM USB MIDI",
                                   "VelmorManager_DidRemoveOutput VM USB MIDI", "VelmorManager_OutputsDidChange"}),
              "unplug: the device's output is removed", recorder.joined());
        check(outputNamed(*manager, "VM USB MIDI") == nullptr, "the USB output is gone");

        writeFile(gadget + "/UDC", "dummy_udc.0");
        serveUntil([&] { return sourceNamed(*manager, "VM USB MIDI") != nullptr; }, 15000ms);
        auto again = sourceNamed(*manager, "VM USB MIDI");
        check(again && again != usb && again->object() != oldRef,
              "plugged in again: a new source under a new reference");
        if (again)
            check(again->uniqueID() == usb->uniqueID(), "the same device has the same unique ID again");
    }

    manager->closeVirtualOutput(virtualOutput);
    check(commandOutput("aseqdump -l").find("Velmor VM Renamed") == std::string::npos,
          "a closed virtual output is gone for other programs");
    std::printf("VELMOR-VM-RESULT: %s (%d failed)\n", failures ? "FAIL" : "PASS", failures);
    std::fflush(stdout);
    return failures ? 1 : 0;
}

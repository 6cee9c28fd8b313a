#pragma once

// What the ALSA service's files share: the sequencer's facts, the object model and the service's state.
// Private to the service; built only where libasound is found.

#include "VelmorALSAMIDIService.h"

#include <alsa/asoundlib.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "VelmorHostClock.h"
#include "VelmorObjectSnapshots.h"

namespace VelmorPlatform {

namespace ALSAInternal {

using Address = std::pair<int, int>;  // sequencer client, port

inline void reportFailure(const char* what, int error)
{
    std::fprintf(stderr, "VelmorALSAMIDIService: %s failed: %s\n", what, snd_strerror(error));
}

inline std::uint32_t hashText(std::uint32_t hash, std::string_view text)
{
    for (unsigned char c : text)
        hash = (hash ^ c) * 16777619u;
    return (hash ^ 0xFFu) * 16777619u;  // a separator, so that "ab"+"c" differs from "a"+"bc"
}

inline std::string_view trimmed(const char* text)
{
    std::string_view view = text ? text : "";
    while (!view.empty() && view.back() == ' ')
        view.remove_suffix(1);
    return view;
}

inline constexpr unsigned kSourceCaps = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
inline constexpr unsigned kDestinationCaps = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;
inline constexpr std::size_t kMaxPacketBytes = 65535;
// How often the names of other programs' ports are looked at: the sequencer announces no renames.
inline constexpr int kRescanMs = 250;
// An exclusive message that never ends is handed on in pieces of this size rather than kept forever.
inline constexpr std::size_t kMaxPendingExclusive = std::size_t(16) << 20;
// A packet list handed to a read procedure is closed once it holds this many bytes, so that one burst
// becomes a few lists of moderate size rather than one huge one.
inline constexpr std::size_t kListBytes = std::size_t(16) << 10;
// How long a send waits for a receiver whose queue is full before the event is given up.
inline constexpr std::chrono::milliseconds kSendPatience {50};

inline std::uint64_t subscriptionKey(int seqPort, Address address)
{
    return (std::uint64_t(std::uint32_t(seqPort)) << 32) | (std::uint64_t(std::uint16_t(address.first)) << 16) |
           std::uint16_t(address.second);
}

// What the sequencer tells about one port.
struct PortFacts {
    std::string name;
    unsigned caps = 0;
};

// What the sequencer and the sound card tell about one client.
struct ClientFacts {
    std::string name;
    int card = -1;
    std::string cardID;
    std::optional<std::string> manufacturer;
    std::optional<std::string> model;
};

// The sound card behind a kernel client, as the kernel lists it in /proc/asound/cards:
//  " 1 [MIDI           ]: USB-Audio - VM USB MIDI"
//  "                      velmor-vm VM USB MIDI at usb-dummy_hcd.0-1, high speed"
// This needs neither the card's control device nor libasound's configuration.
inline void readCardFacts(ClientFacts& facts)
{
    std::FILE* file = std::fopen("/proc/asound/cards", "r");
    if (!file)
        return;
    char line[512];
    bool found = false;
    std::string name;
    std::string driver;
    while (std::fgets(line, sizeof line, file)) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
            text.pop_back();
        if (found) {
            const std::string longName = text.substr(std::min(text.size(), text.find_first_not_of(' ')));
            const auto at = longName.find(" " + name + " at ");
            facts.manufacturer = at != std::string::npos && at > 0 ? longName.substr(0, at) : driver;
            break;
        }
        int number = -1;
        char id[64] = {};
        if (std::sscanf(line, " %d [%63[^]]]", &number, id) != 2 || number != facts.card)
            continue;
        facts.cardID = std::string(trimmed(id));
        const auto colon = text.find("]: ");
        const auto dash = text.find(" - ", colon);
        if (colon == std::string::npos || dash == std::string::npos)
            break;
        driver = text.substr(colon + 3, dash - colon - 3);
        name = text.substr(dash + 3);
        facts.model = name;
        facts.manufacturer = driver;
        found = true;
    }
    std::fclose(file);
}

// --- Sequencer events and MIDI bytes ---------------------------------------------------------------
// The conversions need no sequencer, so that they can also run alone (the fuzz target does).

// The MIDI bytes of one sequencer event. Exclusive bytes are taken as they are from `data` (the
// event's variable-length part, copied out of libasound's buffer): that is all the coder would do.
// Anything else goes through `decoder` into `coded`; the decoder also refuses what isn't MIDI
// (subscription notices), which gives length 0.
struct EventBytes {
    const std::uint8_t* bytes = nullptr;
    std::size_t length = 0;
    bool exclusive = false;
};
EventBytes eventBytes(snd_midi_event_t* decoder, const snd_seq_event_t& event, const std::uint8_t* data,
                      std::uint8_t (&coded)[16]);

// One connection's exclusive message while the sequencer hands it over in pieces.
struct ExclusiveJoiner {
    std::vector<std::uint8_t> pending;
    MIDITimeStamp pendingTimeStamp = 0;
    std::size_t cap = kMaxPendingExclusive;  // the fuzz target lowers it

    // Takes one event's bytes (not empty) and calls deliver(bytes, length, timeStamp) for each message
    // that is whole now, in order. Real-time messages may come between the pieces; anything else,
    // the start of another exclusive message too, delivers the unfinished one cut short.
    template <class Deliver>
    void take(const EventBytes& in, MIDITimeStamp timeStamp, Deliver&& deliver)
    {
        if (!pending.empty()) {
            if (in.exclusive && in.bytes[0] != 0xF0) {
                pending.insert(pending.end(), in.bytes, in.bytes + in.length);
                if (pending.back() == 0xF7 || pending.size() >= cap) {
                    deliver(pending.data(), pending.size(), pendingTimeStamp);
                    pending.clear();
                    if (pending.capacity() > kListBytes)
                        pending.shrink_to_fit();
                }
                return;
            }
            if (!in.exclusive && in.bytes[0] >= 0xF8) {
                deliver(in.bytes, in.length, timeStamp);
                return;
            }
            deliver(pending.data(), pending.size(), pendingTimeStamp);  // cut short
            pending.clear();
        }
        if (in.exclusive && in.bytes[0] == 0xF0 && in.bytes[in.length - 1] != 0xF7 && in.length < cap) {
            pending.assign(in.bytes, in.bytes + in.length);
            pendingTimeStamp = timeStamp;
            return;
        }
        deliver(in.bytes, in.length, timeStamp);
    }
};

// A packet-list image being filled for one read procedure: messages go in as packets of at most
// kMaxPacketBytes. It stays open for more until it is full, or until a message that the framework
// would join with the next packet of its list (separate lists keep them apart).
struct ListImage {
    std::uint32_t count = 0;
    bool open = false;
    std::vector<std::uint8_t> image;

    void start()
    {
        count = 0;
        open = true;
        image.assign(4, 0);
    }
    bool takes(std::size_t length) const { return open && image.size() + length <= kListBytes; }
    void append(const std::uint8_t* bytes, std::size_t length, MIDITimeStamp timeStamp);
};

// Exclusive bytes go out as they are, in events of at most this many bytes (the coder's own piece).
inline constexpr std::size_t kExclusivePiece = 256;

// Encodes the packets of a packet-list image of `size` bytes into sequencer events: onPacket(timeStamp)
// before each packet's events, onEvent(event) for each event, which may return false to stop. An
// exclusive event's bytes point into the image. False, with nothing read past `size`, when a packet
// runs past it.
// Each packet starts the coder afresh: no running status or half message carries over. Exclusive bytes
// bypass the coder, which would keep an unfinished message's last piece until the next packet resets
// it; so a message the framework cut over several packets (longer than one packet holds) goes out
// whole, and so does an unfinished one.
template <class OnPacket, class OnEvent>
bool encodePackets(snd_midi_event_t* encoder, const std::uint8_t* image, std::size_t size, OnPacket&& onPacket,
                   OnEvent&& onEvent)
{
    if (size < 4)
        return false;
    std::uint32_t count = 0;
    std::memcpy(&count, image, 4);
    std::size_t at = 4;
    bool inExclusive = false;  // the next data bytes continue an exclusive message
    for (std::uint32_t i = 0; i < count; ++i) {
        if (size - at < 10)
            return false;
        MIDITimeStamp timeStamp = 0;
        std::uint16_t length = 0;
        std::memcpy(&timeStamp, image + at, 8);
        std::memcpy(&length, image + at + 8, 2);
        at += 10;
        if (size - at < length)
            return false;
        onPacket(timeStamp);
        snd_midi_event_reset_encode(encoder);
        const std::uint8_t* data = image + at;
        std::size_t nextStart = 0;  // where the next exclusive message starts, once looked for
        for (std::size_t used = 0; used < length;) {
            const std::uint8_t byte = data[used];
            snd_seq_event_t event;
            snd_seq_ev_clear(&event);
            if (byte == 0xF0 || (inExclusive && (byte < 0x80 || byte == 0xF7))) {
                std::size_t end = used + 1;
                if (byte != 0xF7) {
                    while (end < length && end - used < kExclusivePiece && data[end] < 0x80)
                        ++end;
                    if (end < length && end - used < kExclusivePiece && data[end] == 0xF7)
                        ++end;
                }
                inExclusive = data[end - 1] != 0xF7;
                snd_seq_ev_set_sysex(&event, unsigned(end - used), const_cast<std::uint8_t*>(data + used));
                used = end;
                snd_midi_event_reset_encode(encoder);  // an exclusive message ends running status
            } else {
                // The coder takes what comes before the next exclusive message; a real-time message
                // inside one goes alone.
                std::size_t stop = used + 1;
                if (byte < 0xF8 || !inExclusive) {
                    if (byte >= 0x80 && byte < 0xF8)
                        inExclusive = false;  // another message cuts it short
                    if (nextStart <= used) {
                        const void* next = std::memchr(data + used, 0xF0, length - used);
                        nextStart = next ? std::size_t(static_cast<const std::uint8_t*>(next) - data) : length;
                    }
                    stop = nextStart;
                }
                const long step = snd_midi_event_encode(encoder, data + used, long(stop - used), &event);
                if (step <= 0)
                    break;
                used += std::size_t(step);
            }
            if (event.type != SND_SEQ_EVENT_NONE && !onEvent(event))
                return true;
        }
        at += length;
    }
    return true;
}

} // namespace ALSAInternal

// Only the service's own files include this header.
using namespace ALSAInternal;

struct VelmorALSAMIDIService::State {
    // --- The object model (guarded by mutex) ------------------------------------------------------
    struct Device {
        MIDIDeviceRef ref = 0;
        ClientFacts facts;
        std::int32_t uniqueID = 0;
        std::vector<int> ports;  // listed ports, in order of appearance
    };
    struct Port {
        Address address;
        PortFacts facts;
        MIDIEntityRef entity = 0;
        MIDIEndpointRef source = 0;
        MIDIEndpointRef destination = 0;
        bool own = false;
        MIDIClientRef owner = 0;  // own virtual sources: the client that made it
    };
    struct Object {
        MIDIObjectType type = kMIDIObjectType_Other;
        Address address {-1, -1};  // a device has port -1
        std::int32_t uniqueID = 0;
        std::map<std::string, std::string, std::less<>> strings;  // own ports only
    };
    struct Client {
        MIDINotifyProc notifyProc = nullptr;
        void* refCon = nullptr;
    };
    struct Connection {
        void* refCon = nullptr;
        Address address;
        ExclusiveJoiner joiner;
    };
    struct InputPort {
        MIDIClientRef client = 0;
        int seqPort = -1;
        MIDIReadProc readProc = nullptr;
        void* refCon = nullptr;
        std::map<MIDIEndpointRef, Connection> connections;
    };
    struct OutputPort {
        MIDIClientRef client = 0;
        int seqPort = -1;
        std::set<Address> subscribed;
    };

    std::mutex mutex;
    MIDIObjectRef nextRef = 1;
    std::map<int, Device> devices;
    std::map<Address, Port> ports;
    std::map<MIDIObjectRef, Object> objects;
    std::set<std::int32_t> usedIDs;
    std::vector<MIDIEndpointRef> sources;
    std::vector<MIDIEndpointRef> destinations;

    // What property reads and enumeration answer from, without the mutex. Rebuilt whole (the model is
    // small) when the model changed: before the deliveries of a change go out, and before a call of
    // ours that changed it returns. Clients and ports (type Other) are not in it.
    VelmorObjectSnapshots snapshots;
    bool modelChanged = false;  // guarded by mutex
    void publishSnapshots();    // caller holds mutex
    std::map<MIDIClientRef, Client> clients;
    std::map<MIDIPortRef, InputPort> inputPorts;
    std::map<MIDIPortRef, OutputPort> outputPorts;

    // --- Deliveries to the service thread (guarded by mutex) -------------------------------------
    struct Delivery {
        enum class Kind { Notification, InputDropped, Marker } kind = Kind::Notification;
        MIDIObjectAddRemoveNotification addRemove {};
        MIDIObjectPropertyChangeNotification property {};
        MIDIInputDroppedNotification dropped {};
        std::string propertyName;
        std::uint64_t marker = 0;
    };
    std::deque<Delivery> deliveries;

    // --- Receiving (service thread only) ---------------------------------------------------------
    // What one wake-up took from the sequencer: the events, and their variable-length data copied
    // behind each other (dataAt[i] is event i's offset there). Reused, so that a steady stream
    // allocates nothing.
    std::vector<snd_seq_event_t> burst;
    std::vector<std::size_t> dataAt;
    std::vector<std::uint8_t> burstData;
    // Packet-list images on their way to read procedures: one per connection and burst, in the
    // order of their first events. `listsUsed` of them are filled; the rest keep their buffers for
    // the next burst.
    struct OutgoingList : ListImage {
        MIDIPortRef port = 0;
        MIDIEndpointRef source = 0;
    };
    std::vector<OutgoingList> lists;
    std::size_t listsUsed = 0;
    std::uint64_t overruns = 0;

    // --- Sending -----------------------------------------------------------------------------------
    // What send() and received() need, as an immutable table that they read without the service
    // mutex. Rebuilt under the mutex when a look-up misses or after something was removed.
    struct SendTable {
        struct Entry {
            MIDIObjectType type = kMIDIObjectType_Other;
            Address address {-1, -1};
            int outputSeqPort = -1;  // an output port: its sequencer port
            bool ownSource = false;  // a virtual source of ours
        };
        std::unordered_map<MIDIObjectRef, Entry> objects;
        std::unordered_set<std::uint64_t> subscribed;  // subscriptionKey(output port's seqPort, address)
    };
    std::atomic<std::shared_ptr<const SendTable>> sendTable;
    std::atomic<bool> sendTableStale {true};
    // Coders for send(), each taken by one sender at a time; a sender that finds them all busy makes
    // its own for the call.
    struct Coder {
        std::atomic<bool> busy {false};
        snd_midi_event_t* coder = nullptr;
    };
    std::array<Coder, 4> coders;
    std::vector<pollfd> outputDescriptors;  // for waiting on a full output pool

    // --- The sequencer (handle calls guarded by seqMutex) -----------------------------------------
    std::mutex seqMutex;
    snd_seq_t* seq = nullptr;
    int myClient = -1;
    int announcePort = -1;
    int queue = -1;
    MIDITimeStamp queueBaseHostTime = 0;  // host time at the queue's real time 0
    int wakeFd = -1;

    // Held while a callback runs, so that ending a registration can wait for its callback.
    std::mutex callbackMutex;
    std::thread thread;
    std::atomic<std::thread::id> threadID {};
    std::atomic<bool> stopping {false};

    std::mutex markerMutex;
    std::condition_variable markerDone;
    std::uint64_t markersSent = 0;     // guarded by markerMutex
    std::uint64_t markersHandled = 0;  // guarded by markerMutex

    snd_midi_event_t* decoder = nullptr;  // service thread only
    std::vector<pollfd> inputDescriptors;  // service thread only: wake-up descriptor, then the sequencer's

    ~State();
    bool open();
    void run();
    void wake() const;
    bool onServiceThread() const { return threadID.load() == std::this_thread::get_id(); }
    void waitForCallbacks()
    {
        if (!onServiceThread())
            std::lock_guard<std::mutex> wait(callbackMutex);
    }

    // Sequencer queries (take seqMutex).
    std::optional<ClientFacts> queryClient(int client);
    std::optional<PortFacts> queryPort(Address address);
    std::vector<std::pair<Address, PortFacts>> queryPorts(int client);
    MIDITimeStamp hostTimeOf(const snd_seq_event_t& event) const;
    bool scheduleTime(MIDITimeStamp timeStamp, snd_seq_real_time_t* out) const;
    int output(snd_seq_event_t& event);
    std::shared_ptr<const SendTable> currentSendTable();
    std::shared_ptr<const SendTable> rebuildSendTable();  // caller holds mutex

    // Model changes (caller holds mutex); notifications queue deliveries.
    MIDIObjectRef newObject(MIDIObjectType type, Address address, std::int32_t wantedID);
    std::int32_t uniqueIDFor(std::uint32_t hash);
    void notifyAddRemove(MIDINotificationMessageID id, MIDIObjectRef parent, MIDIObjectType parentType,
                         MIDIObjectRef child, MIDIObjectType childType);
    void notifyProperty(MIDIObjectRef object, MIDIObjectType type, std::string_view property);
    Device& deviceFor(int client, const ClientFacts& facts);
    Port* addPort(Address address, const PortFacts& facts, const ClientFacts& client, bool own, MIDIClientRef owner);
    void addEndpoint(Port& port, bool source);
    void removeEndpoint(Port& port, bool source);
    void removePort(Address address);
    void updatePort(Address address, const PortFacts& facts);
    void forgetObject(MIDIObjectRef ref);
    std::uint32_t portHash(const Port& port, const ClientFacts& client) const;

    // Service thread.
    void handleAnnouncement(const snd_seq_event_t& event);
    void updateClient(int client, const ClientFacts& facts);
    void rescan();
    void resync();
    void takeBurst();
    void handleMIDI(const snd_seq_event_t& event, const std::uint8_t* data, std::unique_lock<std::mutex>& lock);
    void appendMessage(MIDIPortRef port, MIDIEndpointRef source, const std::uint8_t* bytes, std::size_t length,
                       MIDITimeStamp timeStamp);
    void deliverLists();
    void reportOverrun();
    void dispatch();
    void enumerate();
};


} // namespace VelmorPlatform

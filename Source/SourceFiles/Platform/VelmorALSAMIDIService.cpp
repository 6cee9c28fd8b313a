#include "VelmorALSAMIDIService.h"

#ifdef VELMOR_HAVE_ALSA

#include <alsa/asoundlib.h>
#include <poll.h>
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

namespace VelmorPlatform {

namespace {

using Address = std::pair<int, int>;  // sequencer client, port

void reportFailure(const char* what, int error)
{
    std::fprintf(stderr, "VelmorALSAMIDIService: %s failed: %s\n", what, snd_strerror(error));
}

std::uint32_t hashText(std::uint32_t hash, std::string_view text)
{
    for (unsigned char c : text)
        hash = (hash ^ c) * 16777619u;
    return (hash ^ 0xFFu) * 16777619u;  // a separator, so that "ab"+"c" differs from "a"+"bc"
}

std::string_view trimmed(const char* text)
{
    std::string_view view = text ? text : "";
    while (!view.empty() && view.back() == ' ')
        view.remove_suffix(1);
    return view;
}

constexpr unsigned kSourceCaps = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
constexpr unsigned kDestinationCaps = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;
constexpr std::size_t kMaxPacketBytes = 65535;
// How often the names of other programs' ports are looked at: the sequencer announces no renames.
constexpr int kRescanMs = 250;
// An exclusive message that never ends is handed on in pieces of this size rather than kept forever.
constexpr std::size_t kMaxPendingExclusive = std::size_t(16) << 20;
// A packet list handed to a read procedure is closed once it holds this many bytes, so that one burst
// becomes a few lists of moderate size rather than one huge one.
constexpr std::size_t kListBytes = std::size_t(16) << 10;

std::uint64_t subscriptionKey(int seqPort, Address address)
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
void readCardFacts(ClientFacts& facts)
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

} // namespace

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
        std::vector<std::uint8_t> pendingExclusive;
        MIDITimeStamp pendingTimeStamp = 0;
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
    struct OutgoingList {
        MIDIPortRef port = 0;
        MIDIEndpointRef source = 0;
        std::uint32_t count = 0;
        bool open = false;  // may take more packets
        std::vector<std::uint8_t> image;
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


VelmorALSAMIDIService::State::~State()
{
    stopping = true;
    wake();
    if (thread.joinable())
        thread.join();
    if (decoder)
        snd_midi_event_free(decoder);
    for (Coder& coder : coders)
        if (coder.coder)
            snd_midi_event_free(coder.coder);
    if (seq)
        snd_seq_close(seq);
    if (wakeFd >= 0)
        close(wakeFd);
}

void VelmorALSAMIDIService::State::wake() const
{
    if (wakeFd >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] auto written = write(wakeFd, &one, sizeof one);
    }
}

bool VelmorALSAMIDIService::State::open()
{
    int error = snd_seq_open(&seq, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK);
    if (error < 0) {
        seq = nullptr;
        reportFailure("snd_seq_open", error);
        return false;
    }
    snd_seq_set_client_name(seq, "Velmor");
    snd_seq_set_client_pool_input(seq, 2000);
    snd_seq_set_client_pool_output(seq, 2000);
    snd_seq_set_input_buffer_size(seq, 1 << 18);
    myClient = snd_seq_client_id(seq);
    announcePort = snd_seq_create_simple_port(seq, "Velmor system",
                                              SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_NO_EXPORT,
                                              SND_SEQ_PORT_TYPE_APPLICATION);
    if (announcePort < 0) {
        reportFailure("snd_seq_create_simple_port", announcePort);
        return false;
    }
    if ((error = snd_seq_connect_from(seq, announcePort, SND_SEQ_CLIENT_SYSTEM, SND_SEQ_PORT_SYSTEM_ANNOUNCE)) < 0) {
        reportFailure("subscribing to System:Announce", error);
        return false;
    }
    queue = snd_seq_alloc_named_queue(seq, "Velmor");
    if (queue < 0) {
        reportFailure("snd_seq_alloc_named_queue", queue);
        return false;
    }
    snd_seq_start_queue(seq, queue, nullptr);
    snd_seq_drain_output(seq);
    snd_seq_queue_status_t* status = nullptr;
    snd_seq_queue_status_alloca(&status);
    const MIDITimeStamp before = AudioGetCurrentHostTime();
    if ((error = snd_seq_get_queue_status(seq, queue, status)) < 0) {
        reportFailure("snd_seq_get_queue_status", error);
        return false;
    }
    const MIDITimeStamp after = AudioGetCurrentHostTime();
    const snd_seq_real_time_t* real = snd_seq_queue_status_get_real_time(status);
    const MIDITimeStamp queueTicks =
        AudioConvertNanosToHostTime(std::uint64_t(real->tv_sec) * 1000000000u + real->tv_nsec);
    const MIDITimeStamp middle = before + (after - before) / 2;
    queueBaseHostTime = middle > queueTicks ? middle - queueTicks : 0;

    if ((error = snd_midi_event_new(256, &decoder)) < 0) {
        reportFailure("snd_midi_event_new", error);
        return false;
    }
    snd_midi_event_no_status(decoder, 1);
    for (Coder& coder : coders)
        if ((error = snd_midi_event_new(256, &coder.coder)) < 0) {
            reportFailure("snd_midi_event_new", error);
            return false;
        }
    outputDescriptors.resize(std::size_t(snd_seq_poll_descriptors_count(seq, POLLOUT)));
    snd_seq_poll_descriptors(seq, outputDescriptors.data(), unsigned(outputDescriptors.size()), POLLOUT);
    inputDescriptors.resize(std::size_t(snd_seq_poll_descriptors_count(seq, POLLIN)) + 1);
    snd_seq_poll_descriptors(seq, inputDescriptors.data() + 1, unsigned(inputDescriptors.size() - 1), POLLIN);
    wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        std::fprintf(stderr, "VelmorALSAMIDIService: eventfd failed: %s\n", std::strerror(errno));
        return false;
    }
    enumerate();
    thread = std::thread([this] { run(); });
    return true;
}

// --- Sequencer queries ------------------------------------------------------------------------------

std::optional<ClientFacts> VelmorALSAMIDIService::State::queryClient(int client)
{
    ClientFacts facts;
    {
        std::lock_guard<std::mutex> lock(seqMutex);
        snd_seq_client_info_t* info = nullptr;
        snd_seq_client_info_alloca(&info);
        if (snd_seq_get_any_client_info(seq, client, info) < 0)
            return std::nullopt;
        facts.name = snd_seq_client_info_get_name(info);
        facts.card = snd_seq_client_info_get_card(info);
    }
    // A new card's seq port can be announced before the card is listed: give it a moment.
    for (int attempt = 0; facts.card >= 0 && facts.cardID.empty() && attempt < 50; ++attempt) {
        if (attempt)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        readCardFacts(facts);
    }
    return facts;
}

std::optional<PortFacts> VelmorALSAMIDIService::State::queryPort(Address address)
{
    std::lock_guard<std::mutex> lock(seqMutex);
    snd_seq_port_info_t* info = nullptr;
    snd_seq_port_info_alloca(&info);
    if (snd_seq_get_any_port_info(seq, address.first, address.second, info) < 0)
        return std::nullopt;
    return PortFacts {std::string(trimmed(snd_seq_port_info_get_name(info))), snd_seq_port_info_get_capability(info)};
}

std::vector<std::pair<Address, PortFacts>> VelmorALSAMIDIService::State::queryPorts(int client)
{
    std::vector<std::pair<Address, PortFacts>> result;
    std::lock_guard<std::mutex> lock(seqMutex);
    snd_seq_port_info_t* info = nullptr;
    snd_seq_port_info_alloca(&info);
    snd_seq_port_info_set_client(info, client);
    snd_seq_port_info_set_port(info, -1);
    while (snd_seq_query_next_port(seq, info) >= 0)
        result.push_back({{client, snd_seq_port_info_get_port(info)},
                          PortFacts {std::string(trimmed(snd_seq_port_info_get_name(info))),
                                     snd_seq_port_info_get_capability(info)}});
    return result;
}

MIDITimeStamp VelmorALSAMIDIService::State::hostTimeOf(const snd_seq_event_t& event) const
{
    if ((event.flags & SND_SEQ_TIME_STAMP_MASK) == SND_SEQ_TIME_STAMP_REAL && event.queue == queue) {
        const std::uint64_t nanos = std::uint64_t(event.time.time.tv_sec) * 1000000000u + event.time.time.tv_nsec;
        if (nanos)
            return queueBaseHostTime + AudioConvertNanosToHostTime(nanos);
    }
    return AudioGetCurrentHostTime();
}

bool VelmorALSAMIDIService::State::scheduleTime(MIDITimeStamp timeStamp, snd_seq_real_time_t* out) const
{
    if (timeStamp == 0 || timeStamp <= AudioGetCurrentHostTime() || timeStamp <= queueBaseHostTime)
        return false;
    const std::uint64_t nanos = AudioConvertHostTimeToNanos(timeStamp - queueBaseHostTime);
    out->tv_sec = unsigned(nanos / 1000000000u);
    out->tv_nsec = unsigned(nanos % 1000000000u);
    return true;
}

// Sends one event, waiting for room in the sequencer's pool without holding the handle.
int VelmorALSAMIDIService::State::output(snd_seq_event_t& event)
{
    // A fixed-size event goes from libasound straight to one write(2) on the handle's descriptor,
    // which any thread may do at any time; a variable-size one is staged in the handle's buffer first
    // and so needs the handle's lock.
    const bool variable = snd_seq_ev_is_variable(&event);
    for (int attempt = 0;; ++attempt) {
        int result = 0;
        if (variable) {
            std::lock_guard<std::mutex> lock(seqMutex);
            result = snd_seq_event_output_direct(seq, &event);
        } else {
            result = snd_seq_event_output_direct(seq, &event);
        }
        if (result != -EAGAIN)
            return result;
        if (attempt > 5000)
            return -EAGAIN;
        std::array<pollfd, 4> descriptors {};
        const std::size_t count = std::min(descriptors.size(), outputDescriptors.size());
        std::copy_n(outputDescriptors.begin(), count, descriptors.begin());
        poll(descriptors.data(), count, 2);
    }
}

std::shared_ptr<const VelmorALSAMIDIService::State::SendTable> VelmorALSAMIDIService::State::currentSendTable()
{
    if (!sendTableStale.load(std::memory_order_acquire))
        if (auto table = sendTable.load(std::memory_order_acquire))
            return table;
    std::lock_guard<std::mutex> lock(mutex);
    return rebuildSendTable();
}

std::shared_ptr<const VelmorALSAMIDIService::State::SendTable> VelmorALSAMIDIService::State::rebuildSendTable()
{
    auto table = std::make_shared<SendTable>();
    table->objects.reserve(objects.size());
    for (const auto& [ref, object] : objects)
        table->objects.emplace(ref, SendTable::Entry {object.type, object.address, -1, false});
    for (const auto& [ref, port] : outputPorts) {
        table->objects[ref].outputSeqPort = port.seqPort;
        for (const Address& address : port.subscribed)
            table->subscribed.insert(subscriptionKey(port.seqPort, address));
    }
    for (const auto& [address, port] : ports)
        if (port.own && port.source)
            table->objects[port.source].ownSource = true;
    std::shared_ptr<const SendTable> result = std::move(table);
    sendTable.store(result, std::memory_order_release);
    sendTableStale.store(false, std::memory_order_release);
    return result;
}

// --- The model --------------------------------------------------------------------------------------

std::int32_t VelmorALSAMIDIService::State::uniqueIDFor(std::uint32_t hash)
{
    auto id = std::int32_t(hash);
    while (id == 0 || usedIDs.count(id))
        id = std::int32_t(std::uint32_t(id) + 1);
    usedIDs.insert(id);
    return id;
}

MIDIObjectRef VelmorALSAMIDIService::State::newObject(MIDIObjectType type, Address address, std::int32_t uniqueID)
{
    const MIDIObjectRef ref = nextRef++;
    objects[ref] = Object {type, address, uniqueID, {}};
    return ref;
}

void VelmorALSAMIDIService::State::forgetObject(MIDIObjectRef ref)
{
    auto it = objects.find(ref);
    if (it == objects.end())
        return;
    usedIDs.erase(it->second.uniqueID);
    objects.erase(it);
    sendTableStale.store(true, std::memory_order_release);
}

void VelmorALSAMIDIService::State::notifyAddRemove(MIDINotificationMessageID id, MIDIObjectRef parent,
                                                   MIDIObjectType parentType, MIDIObjectRef child,
                                                   MIDIObjectType childType)
{
    Delivery delivery;
    delivery.addRemove = {id, sizeof(MIDIObjectAddRemoveNotification), parent, parentType, child, childType};
    deliveries.push_back(std::move(delivery));
}

void VelmorALSAMIDIService::State::notifyProperty(MIDIObjectRef object, MIDIObjectType type, std::string_view property)
{
    Delivery delivery;
    delivery.property = {kMIDIMsgPropertyChanged, sizeof(MIDIObjectPropertyChangeNotification), object, type, nullptr};
    delivery.propertyName = property;
    deliveries.push_back(std::move(delivery));
}

std::uint32_t VelmorALSAMIDIService::State::portHash(const Port& port, const ClientFacts& client) const
{
    std::uint32_t hash = 2166136261u;
    hash = hashText(hash, client.name);
    hash = hashText(hash, port.facts.name);
    hash = hashText(hash, std::to_string(port.address.second));
    return hashText(hash, client.cardID);
}

VelmorALSAMIDIService::State::Device& VelmorALSAMIDIService::State::deviceFor(int client, const ClientFacts& facts)
{
    auto it = devices.find(client);
    if (it != devices.end())
        return it->second;
    Device& device = devices[client];
    device.facts = facts;
    device.uniqueID = uniqueIDFor(hashText(hashText(2166136261u, facts.name), facts.cardID));
    device.ref = newObject(kMIDIObjectType_Device, {client, -1}, device.uniqueID);
    notifyAddRemove(kMIDIMsgObjectAdded, 0, kMIDIObjectType_Other, device.ref, kMIDIObjectType_Device);
    return device;
}

void VelmorALSAMIDIService::State::addEndpoint(Port& port, bool source)
{
    const ClientFacts& client = devices.at(port.address.first).facts;
    const MIDIObjectType type = source ? kMIDIObjectType_Source : kMIDIObjectType_Destination;
    const std::int32_t id = uniqueIDFor(hashText(portHash(port, client), source ? "source" : "destination"));
    const MIDIEndpointRef ref = newObject(type, port.address, id);
    (source ? port.source : port.destination) = ref;
    (source ? sources : destinations).push_back(ref);
    notifyAddRemove(kMIDIMsgObjectAdded, port.entity, kMIDIObjectType_Entity, ref, type);
}

void VelmorALSAMIDIService::State::removeEndpoint(Port& port, bool source)
{
    MIDIEndpointRef& ref = source ? port.source : port.destination;
    if (!ref)
        return;
    auto& list = source ? sources : destinations;
    list.erase(std::remove(list.begin(), list.end(), ref), list.end());
    // Connections to a source that has gone end with it; the sequencer has already dropped the subscription.
    if (source)
        for (auto& [portRef, inputPort] : inputPorts)
            inputPort.connections.erase(ref);
    notifyAddRemove(kMIDIMsgObjectRemoved, port.entity, kMIDIObjectType_Entity, ref,
                    source ? kMIDIObjectType_Source : kMIDIObjectType_Destination);
    forgetObject(ref);
    ref = 0;
}

VelmorALSAMIDIService::State::Port* VelmorALSAMIDIService::State::addPort(Address address, const PortFacts& facts,
                                                                          const ClientFacts& client, bool own,
                                                                          MIDIClientRef owner)
{
    if (auto it = ports.find(address); it != ports.end())
        return &it->second;
    if (facts.caps & SND_SEQ_PORT_CAP_NO_EXPORT)
        return nullptr;
    const bool isSource = (facts.caps & kSourceCaps) == kSourceCaps;
    const bool isDestination = (facts.caps & kDestinationCaps) == kDestinationCaps;
    if (!isSource && !isDestination)
        return nullptr;
    Device& device = deviceFor(address.first, client);
    Port& port = ports[address];
    port.address = address;
    port.facts = facts;
    port.own = own;
    port.owner = owner;
    port.entity = newObject(kMIDIObjectType_Entity, address, uniqueIDFor(hashText(portHash(port, client), "entity")));
    device.ports.push_back(address.second);
    notifyAddRemove(kMIDIMsgObjectAdded, device.ref, kMIDIObjectType_Device, port.entity, kMIDIObjectType_Entity);
    if (isSource)
        addEndpoint(port, true);
    if (isDestination)
        addEndpoint(port, false);
    return &port;
}

void VelmorALSAMIDIService::State::removePort(Address address)
{
    auto it = ports.find(address);
    if (it == ports.end())
        return;
    Port& port = it->second;
    removeEndpoint(port, true);
    removeEndpoint(port, false);
    auto deviceIt = devices.find(address.first);
    Device& device = deviceIt->second;
    notifyAddRemove(kMIDIMsgObjectRemoved, device.ref, kMIDIObjectType_Device, port.entity, kMIDIObjectType_Entity);
    forgetObject(port.entity);
    ports.erase(it);
    device.ports.erase(std::remove(device.ports.begin(), device.ports.end(), address.second), device.ports.end());
    if (device.ports.empty()) {
        notifyAddRemove(kMIDIMsgObjectRemoved, 0, kMIDIObjectType_Other, device.ref, kMIDIObjectType_Device);
        forgetObject(device.ref);
        devices.erase(deviceIt);
    }
}

void VelmorALSAMIDIService::State::updatePort(Address address, const PortFacts& facts)
{
    auto it = ports.find(address);
    if (it == ports.end())
        return;
    Port& port = it->second;
    const bool isSource = (facts.caps & kSourceCaps) == kSourceCaps && !(facts.caps & SND_SEQ_PORT_CAP_NO_EXPORT);
    const bool isDestination =
        (facts.caps & kDestinationCaps) == kDestinationCaps && !(facts.caps & SND_SEQ_PORT_CAP_NO_EXPORT);
    if (!isSource && !isDestination) {
        removePort(address);
        return;
    }
    const bool renamed = port.facts.name != facts.name;
    port.facts = facts;
    if (isSource && !port.source)
        addEndpoint(port, true);
    if (!isSource && port.source)
        removeEndpoint(port, true);
    if (isDestination && !port.destination)
        addEndpoint(port, false);
    if (!isDestination && port.destination)
        removeEndpoint(port, false);
    if (renamed) {
        notifyProperty(port.entity, kMIDIObjectType_Entity, kMIDIPropertyName);
        if (port.source)
            notifyProperty(port.source, kMIDIObjectType_Source, kMIDIPropertyName);
        if (port.destination)
            notifyProperty(port.destination, kMIDIObjectType_Destination, kMIDIPropertyName);
    }
}

void VelmorALSAMIDIService::State::enumerate()
{
    std::vector<int> clientNumbers;
    {
        std::lock_guard<std::mutex> lock(seqMutex);
        snd_seq_client_info_t* info = nullptr;
        snd_seq_client_info_alloca(&info);
        snd_seq_client_info_set_client(info, -1);
        while (snd_seq_query_next_client(seq, info) >= 0)
            clientNumbers.push_back(snd_seq_client_info_get_client(info));
    }
    for (int number : clientNumbers) {
        if (number == SND_SEQ_CLIENT_SYSTEM || number == myClient)
            continue;
        auto facts = queryClient(number);
        if (!facts)
            continue;
        auto portList = queryPorts(number);
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& [address, portFacts] : portList)
            addPort(address, portFacts, *facts, false, 0);
    }
    // What was there before anyone asked is no news.
    std::lock_guard<std::mutex> lock(mutex);
    deliveries.clear();
}

// --- The service thread -----------------------------------------------------------------------------

void VelmorALSAMIDIService::State::run()
{
    threadID = std::this_thread::get_id();
    auto lastRescan = std::chrono::steady_clock::now();
    while (!stopping) {
        inputDescriptors[0] = pollfd {wakeFd, POLLIN, 0};
        bool pending = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            pending = !deliveries.empty();
        }
        if (!pending && poll(inputDescriptors.data(), inputDescriptors.size(), kRescanMs) > 0 &&
            (inputDescriptors[0].revents & POLLIN)) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = read(wakeFd, &count, sizeof count);
        }
        if (stopping)
            break;

        takeBurst();
        dispatch();  // what was queued before this burst goes first
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        for (std::size_t i = 0; i < burst.size(); ++i) {
            snd_seq_event_t& event = burst[i];
            const bool announcement = event.source.client == SND_SEQ_CLIENT_SYSTEM && event.dest.port == announcePort;
            const bool marker = event.type == SND_SEQ_EVENT_ECHO && event.source.client == myClient;
            if (!announcement && !marker) {
                handleMIDI(event, burstData.data() + dataAt[i], lock);
                continue;
            }
            // What came before this event is handed on before what it causes.
            if (lock.owns_lock())
                lock.unlock();
            deliverLists();
            if (snd_seq_ev_is_variable(&event))
                event.data.ext.ptr = burstData.data() + dataAt[i];
            if (announcement) {
                handleAnnouncement(event);
            } else {
                std::lock_guard<std::mutex> markerLock(mutex);
                Delivery delivery;
                delivery.kind = Delivery::Kind::Marker;
                delivery.marker = event.data.raw32.d[0];
                deliveries.push_back(std::move(delivery));
            }
            dispatch();
        }
        if (lock.owns_lock())
            lock.unlock();
        deliverLists();
        if (overruns) {
            reportOverrun();
            overruns = 0;
            resync();
        }
        if (std::chrono::steady_clock::now() - lastRescan >= std::chrono::milliseconds(kRescanMs)) {
            rescan();
            lastRescan = std::chrono::steady_clock::now();
        }
        dispatch();
        // A burst of a huge exclusive message leaves big buffers behind: don't keep them for good.
        if (burstData.capacity() > (std::size_t(1) << 20))
            std::vector<std::uint8_t>().swap(burstData);
    }
}

// Takes everything the sequencer has ready, in one read where it can, copying it out of libasound's
// buffer so that the handle is free again at once.
void VelmorALSAMIDIService::State::takeBurst()
{
    burst.clear();
    dataAt.clear();
    burstData.clear();
    std::lock_guard<std::mutex> lock(seqMutex);
    for (;;) {
        snd_seq_event_t* event = nullptr;
        const int result = snd_seq_event_input(seq, &event);
        if (result == -ENOSPC) {
            // The kernel's queue for this client overflowed and was emptied: events are lost.
            ++overruns;
            continue;
        }
        if (result < 0 || !event)
            break;
        burst.push_back(*event);
        dataAt.push_back(burstData.size());
        if (snd_seq_ev_is_variable(event) && event->data.ext.len) {
            const auto* data = static_cast<const std::uint8_t*>(event->data.ext.ptr);
            burstData.insert(burstData.end(), data, data + event->data.ext.len);
        }
        if (snd_seq_event_input_pending(seq, 0) == 0)
            break;
    }
}

// After an overrun announcements may have been lost too: compare the model with what the sequencer
// lists now, and add and remove what differs as the announcements would have.
void VelmorALSAMIDIService::State::resync()
{
    std::vector<int> clientNumbers;
    {
        std::lock_guard<std::mutex> lock(seqMutex);
        snd_seq_client_info_t* info = nullptr;
        snd_seq_client_info_alloca(&info);
        snd_seq_client_info_set_client(info, -1);
        while (snd_seq_query_next_client(seq, info) >= 0)
            clientNumbers.push_back(snd_seq_client_info_get_client(info));
    }
    std::set<Address> listed;
    for (int number : clientNumbers) {
        if (number == SND_SEQ_CLIENT_SYSTEM || number == myClient)
            continue;
        auto facts = queryClient(number);
        if (!facts)
            continue;
        auto portList = queryPorts(number);
        std::lock_guard<std::mutex> lock(mutex);
        updateClient(number, *facts);
        for (auto& [address, portFacts] : portList) {
            listed.insert(address);
            if (ports.count(address))
                updatePort(address, portFacts);
            else
                addPort(address, portFacts, *facts, false, 0);
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Address> gone;
    for (auto& [address, port] : ports)
        if (!port.own && !listed.count(address))
            gone.push_back(address);
    for (const Address& address : gone)
        removePort(address);
}

void VelmorALSAMIDIService::State::handleAnnouncement(const snd_seq_event_t& event)
{
    const Address address {event.data.addr.client, event.data.addr.port};
    if (address.first == myClient || address.first == SND_SEQ_CLIENT_SYSTEM)
        return;  // our own ports are entered when they are made
    switch (event.type) {
    case SND_SEQ_EVENT_PORT_START: {
        auto client = queryClient(address.first);
        auto port = queryPort(address);
        if (!client || !port)
            return;
        std::lock_guard<std::mutex> lock(mutex);
        addPort(address, *port, *client, false, 0);
        break;
    }
    case SND_SEQ_EVENT_PORT_EXIT: {
        std::lock_guard<std::mutex> lock(mutex);
        removePort(address);
        break;
    }
    case SND_SEQ_EVENT_PORT_CHANGE: {
        auto port = queryPort(address);
        if (!port)
            return;
        auto client = queryClient(address.first);
        std::lock_guard<std::mutex> lock(mutex);
        if (ports.count(address))
            updatePort(address, *port);
        else if (client)
            addPort(address, *port, *client, false, 0);  // it may have become a MIDI port
        break;
    }
    case SND_SEQ_EVENT_CLIENT_EXIT: {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = devices.find(address.first);
        if (it == devices.end())
            return;
        const auto portNumbers = it->second.ports;
        for (int port : portNumbers)
            removePort({address.first, port});
        break;
    }
    case SND_SEQ_EVENT_CLIENT_CHANGE: {
        if (auto client = queryClient(address.first)) {
            std::lock_guard<std::mutex> lock(mutex);
            updateClient(address.first, *client);
        }
        break;
    }
    default:
        break;  // client start: its ports announce themselves
    }
}

void VelmorALSAMIDIService::State::updateClient(int client, const ClientFacts& facts)
{
    auto it = devices.find(client);
    if (it == devices.end())
        return;
    Device& device = it->second;
    const bool renamed = device.facts.name != facts.name;
    device.facts = facts;
    if (renamed)
        notifyProperty(device.ref, kMIDIObjectType_Device, kMIDIPropertyName);
}

// The sequencer announces no rename of a port (and not every change of a client), so the service looks
// at the names of other programs' ports and clients from time to time.
void VelmorALSAMIDIService::State::rescan()
{
    std::vector<Address> portAddresses;
    std::vector<int> clientNumbers;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& [address, port] : ports)
            if (!port.own)
                portAddresses.push_back(address);
        for (auto& [number, device] : devices)
            if (number != myClient)
                clientNumbers.push_back(number);
    }
    for (int number : clientNumbers) {
        std::string name;
        {
            std::lock_guard<std::mutex> lock(seqMutex);
            snd_seq_client_info_t* info = nullptr;
            snd_seq_client_info_alloca(&info);
            if (snd_seq_get_any_client_info(seq, number, info) < 0)
                continue;
            name = snd_seq_client_info_get_name(info);
        }
        std::unique_lock<std::mutex> lock(mutex);
        auto it = devices.find(number);
        if (it == devices.end() || it->second.facts.name == name)
            continue;
        lock.unlock();
        if (auto facts = queryClient(number)) {
            lock.lock();
            updateClient(number, *facts);
        }
    }
    for (const Address& address : portAddresses) {
        auto facts = queryPort(address);
        if (!facts)
            continue;  // gone: its exit is announced
        std::lock_guard<std::mutex> lock(mutex);
        auto it = ports.find(address);
        if (it != ports.end() && (it->second.facts.name != facts->name || it->second.facts.caps != facts->caps))
            updatePort(address, *facts);
    }
}

namespace {

// The length of the message at `data` as the framework cuts a packet: channel messages by their
// status, anything else up to and including the first 0xF7, or to the end.
std::size_t cutLength(const std::uint8_t* data, std::size_t length)
{
    const std::uint8_t status = data[0];
    std::size_t wanted = 0;
    if (status >= 0x80 && status < 0xC0)
        wanted = 3;
    else if (status >= 0xC0 && status < 0xE0)
        wanted = 2;
    else if (status >= 0xE0 && status < 0xF0)
        wanted = 3;
    else {
        const void* end = std::memchr(data, 0xF7, length);
        wanted = end ? std::size_t(static_cast<const std::uint8_t*>(end) - data) + 1 : length;
    }
    return std::min(wanted, length);
}

// True when the framework would join the next packet of the same list onto this one: its last
// message is cut short (a channel or system common message without all its bytes, or an exclusive
// message without its 0xF7).
bool endsInsideMessage(const std::uint8_t* data, std::size_t length)
{
    std::size_t last = 0;
    for (std::size_t at = 0; at < length; at += cutLength(data + at, length - at))
        last = at;
    for (std::size_t at = last; at < length;) {
        const std::uint8_t status = data[at];
        std::size_t size = 1;
        if (status >= 0x80 && status < 0xC0)
            size = 3;
        else if (status >= 0xC0 && status < 0xE0)
            size = 2;
        else if (status >= 0xE0 && status < 0xF0)
            size = 3;
        else if (status == 0xF0) {
            const void* end = at + 1 < length ? std::memchr(data + at + 1, 0xF7, length - at - 1) : nullptr;
            if (!end)
                return true;
            size = std::size_t(static_cast<const std::uint8_t*>(end) - (data + at)) + 1;
        } else if (status == 0xF1 || status == 0xF3)
            size = 2;
        else if (status == 0xF2)
            size = 3;
        if (size > length - at)
            return true;
        at += size;
    }
    return false;
}

} // namespace

// Routes one MIDI event to its connection and adds its bytes to the list for that connection,
// joining an exclusive message that the sequencer split into several events. Takes `lock` (the
// model's mutex) if it isn't held yet and leaves it held, so that a run of events takes it once.
void VelmorALSAMIDIService::State::handleMIDI(const snd_seq_event_t& event, const std::uint8_t* data,
                                              std::unique_lock<std::mutex>& lock)
{
    // Exclusive bytes are taken as they are (that is all the coder would do); everything else goes
    // through libasound's coder, which also refuses what isn't MIDI (subscription notices).
    const bool exclusive = event.type == SND_SEQ_EVENT_SYSEX;
    std::uint8_t coded[16];
    const std::uint8_t* bytes = coded;
    std::size_t length = 0;
    if (exclusive) {
        if (!snd_seq_ev_is_variable(&event) || event.data.ext.len == 0)
            return;
        bytes = data;
        length = event.data.ext.len;
    } else {
        snd_midi_event_reset_decode(decoder);
        const long decoded = snd_midi_event_decode(decoder, coded, long(sizeof coded), &event);
        if (decoded <= 0)
            return;
        length = std::size_t(decoded);
    }
    const MIDITimeStamp timeStamp = hostTimeOf(event);

    if (!lock.owns_lock())
        lock.lock();
    auto portIt = std::find_if(inputPorts.begin(), inputPorts.end(),
                               [&](const auto& entry) { return entry.second.seqPort == event.dest.port; });
    if (portIt == inputPorts.end())
        return;
    auto sourceIt = ports.find({event.source.client, event.source.port});
    if (sourceIt == ports.end() || !sourceIt->second.source)
        return;
    auto connectionIt = portIt->second.connections.find(sourceIt->second.source);
    if (connectionIt == portIt->second.connections.end())
        return;
    const MIDIPortRef port = portIt->first;
    const MIDIEndpointRef source = connectionIt->first;
    Connection& connection = connectionIt->second;
    auto& pending = connection.pendingExclusive;
    if (!pending.empty()) {
        if (exclusive) {
            pending.insert(pending.end(), bytes, bytes + length);
            if (pending.back() == 0xF7 || pending.size() >= kMaxPendingExclusive) {
                appendMessage(port, source, pending.data(), pending.size(), connection.pendingTimeStamp);
                pending.clear();
                if (pending.capacity() > kListBytes)
                    pending.shrink_to_fit();
            }
            return;
        }
        if (bytes[0] >= 0xF8) {  // real-time messages may come between the pieces
            appendMessage(port, source, bytes, length, timeStamp);
            return;
        }
        appendMessage(port, source, pending.data(), pending.size(), connection.pendingTimeStamp);  // cut short
        pending.clear();
    }
    if (exclusive && bytes[0] == 0xF0 && bytes[length - 1] != 0xF7) {
        pending.assign(bytes, bytes + length);
        connection.pendingTimeStamp = timeStamp;
        return;
    }
    appendMessage(port, source, bytes, length, timeStamp);
}

// Adds one message to the list being filled for (port, source), as packets of at most 64 KiB. The
// connection's next list begins when its list is full, and after a message that the framework would
// join with the next packet of its list (which separate lists keep apart).
void VelmorALSAMIDIService::State::appendMessage(MIDIPortRef port, MIDIEndpointRef source, const std::uint8_t* bytes,
                                                 std::size_t length, MIDITimeStamp timeStamp)
{
    OutgoingList* list = nullptr;
    for (std::size_t i = listsUsed; i-- > 0;)
        if (lists[i].port == port && lists[i].source == source) {
            if (lists[i].open && lists[i].image.size() + length <= kListBytes)
                list = &lists[i];
            break;
        }
    if (!list) {
        if (listsUsed == lists.size())
            lists.emplace_back();
        list = &lists[listsUsed++];
        list->port = port;
        list->source = source;
        list->count = 0;
        list->open = true;
        list->image.assign(4, 0);
    }
    const std::size_t packets = std::max<std::size_t>(1, (length + kMaxPacketBytes - 1) / kMaxPacketBytes);
    std::size_t at = list->image.size();
    list->image.resize(at + packets * 10 + length);
    std::uint8_t* out = list->image.data();
    for (std::size_t offset = 0, i = 0; i < packets; ++i) {
        const auto size = std::uint16_t(std::min(kMaxPacketBytes, length - offset));
        std::memcpy(out + at, &timeStamp, 8);
        std::memcpy(out + at + 8, &size, 2);
        if (size)
            std::memcpy(out + at + 10, bytes + offset, size);
        at += 10 + size;
        offset += size;
    }
    list->count += std::uint32_t(packets);
    std::memcpy(out, &list->count, 4);
    const std::size_t lastSize = length - (packets - 1) * kMaxPacketBytes;
    if (endsInsideMessage(bytes + length - lastSize, lastSize))
        list->open = false;
}

// Hands the filled lists to their read procedures, in order. A connection ended meanwhile gets
// nothing: its end waits for callbackMutex, so once it has returned no list of it is delivered.
void VelmorALSAMIDIService::State::deliverLists()
{
    for (std::size_t i = 0; i < listsUsed; ++i) {
        OutgoingList& list = lists[i];
        std::lock_guard<std::mutex> callbacks(callbackMutex);
        MIDIReadProc readProc = nullptr;
        void* readRefCon = nullptr;
        void* connectionRefCon = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto port = inputPorts.find(list.port);
            if (port == inputPorts.end())
                continue;
            auto connection = port->second.connections.find(list.source);
            if (connection == port->second.connections.end())
                continue;
            readProc = port->second.readProc;
            readRefCon = port->second.refCon;
            connectionRefCon = connection->second.refCon;
        }
        if (readProc)
            readProc(reinterpret_cast<const MIDIPacketList*>(list.image.data()), readRefCon, connectionRefCon);
    }
    for (std::size_t i = 0; i < listsUsed; ++i)
        if (lists[i].image.capacity() > 4 * kListBytes)
            std::vector<std::uint8_t>().swap(lists[i].image);  // after a huge exclusive message
    listsUsed = 0;
}

// The sequencer lost events on their way to this client, and can't say whose: every input port with
// a connection hears of it, with no source and no count.
void VelmorALSAMIDIService::State::reportOverrun()
{
    std::fprintf(stderr, "VelmorALSAMIDIService: input overrun, events lost\n");
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& [ref, port] : inputPorts) {
        if (port.connections.empty())
            continue;
        Delivery delivery;
        delivery.kind = Delivery::Kind::InputDropped;
        delivery.dropped = {kMIDIMsgVelmorInputDropped, sizeof(MIDIInputDroppedNotification), ref, 0, 0};
        deliveries.push_back(std::move(delivery));
    }
}

void VelmorALSAMIDIService::State::dispatch()
{
    for (;;) {
        std::lock_guard<std::mutex> callbacks(callbackMutex);
        Delivery delivery;
        std::vector<Client> targets;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (deliveries.empty())
                return;
            delivery = std::move(deliveries.front());
            deliveries.pop_front();
            if (delivery.kind == Delivery::Kind::Notification) {
                for (auto& [ref, client] : clients)
                    if (client.notifyProc)
                        targets.push_back(client);
            } else if (delivery.kind == Delivery::Kind::InputDropped) {
                // To the client that owns the port, if both are still there.
                auto port = inputPorts.find(delivery.dropped.port);
                auto client = port != inputPorts.end() ? clients.find(port->second.client) : clients.end();
                if (client != clients.end() && client->second.notifyProc)
                    targets.push_back(client->second);
            }
        }
        switch (delivery.kind) {
        case Delivery::Kind::Notification:
            if (delivery.property.messageID == kMIDIMsgPropertyChanged) {
                delivery.property.propertyName = delivery.propertyName.c_str();
                for (const Client& client : targets)
                    client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.property), client.refCon);
            } else {
                for (const Client& client : targets)
                    client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.addRemove), client.refCon);
            }
            break;
        case Delivery::Kind::InputDropped:
            for (const Client& client : targets)
                client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.dropped), client.refCon);
            break;
        case Delivery::Kind::Marker: {
            std::lock_guard<std::mutex> lock(markerMutex);
            markersHandled = std::max(markersHandled, delivery.marker);
            markerDone.notify_all();
            break;
        }
        }
    }
}

// --- The service ------------------------------------------------------------------------------------

std::shared_ptr<VelmorALSAMIDIService> VelmorALSAMIDIService::create()
{
    std::shared_ptr<VelmorALSAMIDIService> service(new VelmorALSAMIDIService());
    service->state_ = std::make_unique<State>();
    if (!service->state_->open())
        return nullptr;
    return service;
}

VelmorALSAMIDIService::~VelmorALSAMIDIService() = default;

int VelmorALSAMIDIService::sequencerClientID() const
{
    return state_->myClient;
}

std::string VelmorALSAMIDIService::sequencerAddress(MIDIObjectRef object) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(object);
    if (it == state_->objects.end() || it->second.address.second < 0)
        return "";
    return std::to_string(it->second.address.first) + ":" + std::to_string(it->second.address.second);
}

void VelmorALSAMIDIService::waitUntilIdle(int timeoutMs)
{
    State& state = *state_;
    if (state.onServiceThread())
        return;
    std::uint64_t marker = 0;
    {
        std::lock_guard<std::mutex> lock(state.markerMutex);
        marker = ++state.markersSent;
    }
    snd_seq_event_t event;
    snd_seq_ev_clear(&event);
    event.type = SND_SEQ_EVENT_ECHO;
    event.data.raw32.d[0] = std::uint32_t(marker);
    snd_seq_ev_set_source(&event, state.announcePort);
    snd_seq_ev_set_dest(&event, state.myClient, state.announcePort);
    snd_seq_ev_set_direct(&event);
    if (state.output(event) < 0)
        return;
    std::unique_lock<std::mutex> lock(state.markerMutex);
    state.markerDone.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return state.markersHandled >= marker; });
}

OSStatus VelmorALSAMIDIService::clientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon,
                                             MIDIClientRef* outClient)
{
    if (!outClient)
        return kMIDIParamErr;
    State& state = *state_;
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        first = state.clients.empty();
        *outClient = state.nextRef++;
        state.objects[*outClient] = State::Object {kMIDIObjectType_Other, {-1, -1}, 0, {}};
        state.clients[*outClient] = State::Client {notifyProc, notifyRefCon};
    }
    if (first && !name.empty()) {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_set_client_name(state.seq, std::string(name).c_str());
    }
    return noErr;
}

OSStatus VelmorALSAMIDIService::clientDispose(MIDIClientRef client)
{
    State& state = *state_;
    std::vector<MIDIPortRef> portsToDispose;
    std::vector<MIDIEndpointRef> sourcesToDispose;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
        for (auto& [ref, port] : state.inputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [ref, port] : state.outputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [address, port] : state.ports)
            if (port.own && port.owner == client && port.source)
                sourcesToDispose.push_back(port.source);
    }
    for (auto ref : portsToDispose)
        portDispose(ref);
    for (auto ref : sourcesToDispose)
        endpointDispose(ref);
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.clients.erase(client);
        state.objects.erase(client);
        state.sendTableStale.store(true, std::memory_order_release);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::inputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc,
                                                void* refCon, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = -1;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_port_info_t* info = nullptr;
        snd_seq_port_info_alloca(&info);
        snd_seq_port_info_set_name(info, std::string(portName).c_str());
        snd_seq_port_info_set_capability(info, SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE |
                                                   SND_SEQ_PORT_CAP_NO_EXPORT);
        snd_seq_port_info_set_type(info, SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        snd_seq_port_info_set_timestamping(info, 1);
        snd_seq_port_info_set_timestamp_real(info, 1);
        snd_seq_port_info_set_timestamp_queue(info, state.queue);
        const int error = snd_seq_create_port(state.seq, info);
        if (error < 0) {
            reportFailure("snd_seq_create_port", error);
            return kMIDIInvalidPort;
        }
        seqPort = snd_seq_port_info_get_port(info);
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    *outPort = state.nextRef++;
    state.objects[*outPort] = State::Object {kMIDIObjectType_Other, {state.myClient, seqPort}, 0, {}};
    auto& port = state.inputPorts[*outPort];
    port.client = client;
    port.seqPort = seqPort;
    port.readProc = readProc;
    port.refCon = refCon;
    return noErr;
}

OSStatus VelmorALSAMIDIService::outputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = 0;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        seqPort = snd_seq_create_simple_port(state.seq, std::string(portName).c_str(),
                                             SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ |
                                                 SND_SEQ_PORT_CAP_NO_EXPORT,
                                             SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    }
    if (seqPort < 0) {
        reportFailure("snd_seq_create_simple_port", seqPort);
        return kMIDIInvalidPort;
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    *outPort = state.nextRef++;
    state.objects[*outPort] = State::Object {kMIDIObjectType_Other, {state.myClient, seqPort}, 0, {}};
    state.outputPorts[*outPort] = State::OutputPort {client, seqPort, {}};
    return noErr;
}

OSStatus VelmorALSAMIDIService::portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon)
{
    State& state = *state_;
    int seqPort = -1;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto sourceIt = state.objects.find(source);
        if (sourceIt == state.objects.end())
            return kMIDIParamErr;
        if (sourceIt->second.type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        if (portIt->second.connections.count(source)) {
            portIt->second.connections[source].refCon = connRefCon;
            return noErr;
        }
        seqPort = portIt->second.seqPort;
        address = sourceIt->second.address;
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_port_subscribe_t* subscription = nullptr;
        snd_seq_port_subscribe_alloca(&subscription);
        snd_seq_addr_t sender {std::uint8_t(address.first), std::uint8_t(address.second)};
        snd_seq_addr_t receiver {std::uint8_t(state.myClient), std::uint8_t(seqPort)};
        snd_seq_port_subscribe_set_sender(subscription, &sender);
        snd_seq_port_subscribe_set_dest(subscription, &receiver);
        snd_seq_port_subscribe_set_queue(subscription, state.queue);
        snd_seq_port_subscribe_set_time_update(subscription, 1);
        snd_seq_port_subscribe_set_time_real(subscription, 1);
        const int error = snd_seq_subscribe_port(state.seq, subscription);
        if (error < 0 && error != -EBUSY) {
            reportFailure("snd_seq_subscribe_port", error);
            return kMIDIUnknownEndpoint;
        }
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    auto portIt = state.inputPorts.find(port);
    if (portIt == state.inputPorts.end())
        return kMIDIParamErr;
    auto& connection = portIt->second.connections[source];
    connection.refCon = connRefCon;
    connection.address = address;
    return noErr;
}

OSStatus VelmorALSAMIDIService::portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source)
{
    State& state = *state_;
    int seqPort = -1;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto connection = portIt->second.connections.find(source);
        if (connection == portIt->second.connections.end())
            return kMIDIParamErr;  // not connected (or the source has gone)
        seqPort = portIt->second.seqPort;
        address = connection->second.address;
        portIt->second.connections.erase(connection);
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_disconnect_from(state.seq, seqPort, address.first, address.second);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::portDispose(MIDIPortRef port)
{
    State& state = *state_;
    int seqPort = -1;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (auto it = state.inputPorts.find(port); it != state.inputPorts.end()) {
            seqPort = it->second.seqPort;
            state.inputPorts.erase(it);
        } else if (auto out = state.outputPorts.find(port); out != state.outputPorts.end()) {
            seqPort = out->second.seqPort;
            state.outputPorts.erase(out);
        } else {
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        }
        state.objects.erase(port);
        state.sendTableStale.store(true, std::memory_order_release);
    }
    {
        // Deleting the port ends its subscriptions too.
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_delete_simple_port(state.seq, seqPort);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::sourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource)
{
    if (!outSource)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = 0;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        seqPort = snd_seq_create_simple_port(state.seq, std::string(name).c_str(),
                                             SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                             SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    }
    if (seqPort < 0) {
        reportFailure("snd_seq_create_simple_port", seqPort);
        return kMIDIUnknownEndpoint;
    }
    auto facts = state.queryClient(state.myClient);
    auto portFacts = state.queryPort({state.myClient, seqPort});
    if (!facts || !portFacts)
        return kMIDIUnknownEndpoint;
    facts->manufacturer.reset();
    facts->model.reset();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        State::Port* port = state.addPort({state.myClient, seqPort}, *portFacts, *facts, true, client);
        *outSource = port ? port->source : 0;
    }
    state.wake();
    return *outSource ? noErr : kMIDIUnknownEndpoint;
}

OSStatus VelmorALSAMIDIService::endpointDispose(MIDIEndpointRef endpoint)
{
    State& state = *state_;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.objects.find(endpoint);
        if (it == state.objects.end())
            return kMIDIParamErr;
        address = it->second.address;
        auto port = state.ports.find(address);
        if (port == state.ports.end() || !port->second.own || port->second.source != endpoint)
            return kMIDIUnknownEndpoint;  // not ours to dispose of
        state.removePort(address);
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_delete_simple_port(state.seq, address.second);
    }
    state.wake();
    return noErr;
}

namespace {

// Walks a packet-list image: calls `each(timeStamp, data, length)` for every packet.
template <class Each>
void forEachPacket(const MIDIPacketList* list, Each each)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
    std::uint32_t count = 0;
    std::memcpy(&count, bytes, 4);
    std::size_t at = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        MIDITimeStamp timeStamp = 0;
        std::uint16_t length = 0;
        std::memcpy(&timeStamp, bytes + at, 8);
        std::memcpy(&length, bytes + at + 8, 2);
        each(timeStamp, bytes + at + 10, std::size_t(length));
        at += 10 + length;
    }
}

} // namespace

// Encodes every packet with libasound's coder and sends the events from `seqPort`, to `destination` or,
// without one, to the port's subscribers.
static OSStatus sendPackets(VelmorALSAMIDIService::State& state, int seqPort, std::optional<Address> destination,
                            const MIDIPacketList* list)
{
    VelmorALSAMIDIService::State::Coder* taken = nullptr;
    for (auto& coder : state.coders)
        if (!coder.busy.exchange(true, std::memory_order_acquire)) {
            taken = &coder;
            break;
        }
    snd_midi_event_t* encoder = taken ? taken->coder : nullptr;
    if (!encoder) {
        if (int error = snd_midi_event_new(256, &encoder); error < 0) {
            reportFailure("snd_midi_event_new", error);
            return kMIDIUnknownEndpoint;
        }
    }
    OSStatus status = noErr;
    forEachPacket(list, [&](MIDITimeStamp timeStamp, const std::uint8_t* data, std::size_t length) {
        snd_seq_real_time_t when {};
        const bool scheduled = state.scheduleTime(timeStamp, &when);
        // Each packet starts afresh: no running status or half message carries over from another.
        snd_midi_event_reset_encode(encoder);
        std::size_t at = 0;
        while (at < length && status == noErr) {
            snd_seq_event_t event;
            snd_seq_ev_clear(&event);
            const long used = snd_midi_event_encode(encoder, data + at, long(length - at), &event);
            if (used <= 0)
                break;
            at += std::size_t(used);
            if (event.type == SND_SEQ_EVENT_NONE)
                continue;
            snd_seq_ev_set_source(&event, std::uint8_t(seqPort));
            if (destination)
                snd_seq_ev_set_dest(&event, std::uint8_t(destination->first), std::uint8_t(destination->second));
            else
                snd_seq_ev_set_subs(&event);
            if (scheduled)
                snd_seq_ev_schedule_real(&event, state.queue, 0, &when);
            else
                snd_seq_ev_set_direct(&event);
            if (int error = state.output(event); error < 0) {
                reportFailure("snd_seq_event_output_direct", error);
                status = kMIDIUnknownEndpoint;
            }
        }
    });
    if (taken)
        taken->busy.store(false, std::memory_order_release);
    else
        snd_midi_event_free(encoder);
    return status;
}

OSStatus VelmorALSAMIDIService::received(MIDIEndpointRef source, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    auto table = state.currentSendTable();
    auto it = table->objects.find(source);
    if (it == table->objects.end()) {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.objects.count(source))
            return kMIDIParamErr;
        table = state.rebuildSendTable();  // it was made after the table
        it = table->objects.find(source);
    }
    if (!it->second.ownSource)
        return kMIDIUnknownEndpoint;
    return sendPackets(state, it->second.address.second, std::nullopt, packetList);
}

OSStatus VelmorALSAMIDIService::send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    auto table = state.currentSendTable();
    auto portIt = table->objects.find(port);
    auto it = table->objects.find(destination);
    if (portIt == table->objects.end() || it == table->objects.end()) {
        // Gone (an output may outlive its destination), or made after the table: the model decides.
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.objects.count(port))
            return kMIDIParamErr;
        if (!state.outputPorts.count(port))
            return kMIDIInvalidPort;
        if (!state.objects.count(destination))
            return kMIDIParamErr;
        table = state.rebuildSendTable();
        portIt = table->objects.find(port);
        it = table->objects.find(destination);
    }
    if (portIt->second.outputSeqPort < 0)
        return kMIDIInvalidPort;
    if (it->second.type != kMIDIObjectType_Destination)
        return kMIDIUnknownEndpoint;
    const int seqPort = portIt->second.outputSeqPort;
    const Address address = it->second.address;
    if (!table->subscribed.count(subscriptionKey(seqPort, address))) {
        // Some drivers take events only while a subscription to them exists.
        int error = 0;
        {
            std::lock_guard<std::mutex> lock(state.seqMutex);
            error = snd_seq_connect_to(state.seq, seqPort, address.first, address.second);
        }
        if (error < 0 && error != -EBUSY) {
            reportFailure("snd_seq_connect_to", error);
            return kMIDIUnknownEndpoint;
        }
        std::lock_guard<std::mutex> lock(state.mutex);
        if (auto portEntry = state.outputPorts.find(port); portEntry != state.outputPorts.end()) {
            portEntry->second.subscribed.insert(address);
            state.rebuildSendTable();
        }
    }
    return sendPackets(state, seqPort, address, packetList);
}

ItemCount VelmorALSAMIDIService::numberOfSources()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->sources.size();
}

MIDIEndpointRef VelmorALSAMIDIService::source(ItemCount index)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return index < state_->sources.size() ? state_->sources[index] : 0;
}

ItemCount VelmorALSAMIDIService::numberOfDestinations()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->destinations.size();
}

MIDIEndpointRef VelmorALSAMIDIService::destination(ItemCount index)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return index < state_->destinations.size() ? state_->destinations[index] : 0;
}

ItemCount VelmorALSAMIDIService::deviceNumberOfEntities(MIDIDeviceRef device)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(device);
    if (it == state_->objects.end() || it->second.type != kMIDIObjectType_Device)
        return 0;
    return state_->devices.at(it->second.address.first).ports.size();
}

MIDIEntityRef VelmorALSAMIDIService::deviceEntity(MIDIDeviceRef device, ItemCount index)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(device);
    if (it == state_->objects.end() || it->second.type != kMIDIObjectType_Device)
        return 0;
    const int client = it->second.address.first;
    const auto& ports = state_->devices.at(client).ports;
    return index < ports.size() ? state_->ports.at({client, ports[index]}).entity : 0;
}

ItemCount VelmorALSAMIDIService::entityNumberOfSources(MIDIEntityRef entity)
{
    return entitySource(entity, 0) ? 1 : 0;
}

MIDIEndpointRef VelmorALSAMIDIService::entitySource(MIDIEntityRef entity, ItemCount index)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(entity);
    if (index != 0 || it == state_->objects.end() || it->second.type != kMIDIObjectType_Entity)
        return 0;
    return state_->ports.at(it->second.address).source;
}

ItemCount VelmorALSAMIDIService::entityNumberOfDestinations(MIDIEntityRef entity)
{
    return entityDestination(entity, 0) ? 1 : 0;
}

MIDIEndpointRef VelmorALSAMIDIService::entityDestination(MIDIEntityRef entity, ItemCount index)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(entity);
    if (index != 0 || it == state_->objects.end() || it->second.type != kMIDIObjectType_Entity)
        return 0;
    return state_->ports.at(it->second.address).destination;
}

OSStatus VelmorALSAMIDIService::endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity)
{
    if (!outEntity)
        return kMIDIParamErr;
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(endpoint);
    if (it == state_->objects.end())
        return kMIDIParamErr;
    if (it->second.type != kMIDIObjectType_Source && it->second.type != kMIDIObjectType_Destination)
        return kMIDIUnknownEndpoint;
    *outEntity = state_->ports.at(it->second.address).entity;
    return noErr;
}

OSStatus VelmorALSAMIDIService::getStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                                  std::optional<std::string>* outString)
{
    if (!outString)
        return kMIDIParamErr;
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(object);
    if (it == state_->objects.end())
        return kMIDIParamErr;
    const State::Object& info = it->second;
    if (propertyID == kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    outString->reset();
    if (auto own = info.strings.find(propertyID); own != info.strings.end()) {
        *outString = own->second;
        return noErr;
    }
    auto device = state_->devices.find(info.address.first);
    if (info.type == kMIDIObjectType_Other || device == state_->devices.end())
        return noErr;
    const ClientFacts& client = device->second.facts;
    if (propertyID == kMIDIPropertyName) {
        if (info.type == kMIDIObjectType_Device)
            *outString = client.name;
        else
            *outString = state_->ports.at(info.address).facts.name;
    } else if (propertyID == kMIDIPropertyManufacturer) {
        *outString = client.manufacturer;
    } else if (propertyID == kMIDIPropertyModel) {
        *outString = client.model;
    }
    return noErr;
}

OSStatus VelmorALSAMIDIService::setStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                                  std::string_view value)
{
    State& state = *state_;
    Address address;
    MIDIObjectType type = kMIDIObjectType_Other;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.objects.find(object);
        if (it == state.objects.end())
            return kMIDIParamErr;
        type = it->second.type;
        address = it->second.address;
        auto port = state.ports.find(address);
        const bool own = port != state.ports.end() && port->second.own && type != kMIDIObjectType_Device;
        if (!own || propertyID.empty() || propertyID == kMIDIPropertyUniqueID)
            return kMIDIUnknownProperty;
        if (propertyID != kMIDIPropertyName) {
            it->second.strings[std::string(propertyID)] = std::string(value);
            state.notifyProperty(object, type, propertyID);
            state.wake();
            return noErr;
        }
    }
    // A name goes to the sequencer port, where every program sees it.
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_port_info_t* info = nullptr;
        snd_seq_port_info_alloca(&info);
        int error = snd_seq_get_port_info(state.seq, address.second, info);
        if (error >= 0) {
            snd_seq_port_info_set_name(info, std::string(value).c_str());
            error = snd_seq_set_port_info(state.seq, address.second, info);
        }
        if (error < 0) {
            reportFailure("snd_seq_set_port_info", error);
            return kMIDIUnknownProperty;
        }
    }
    auto facts = state.queryPort(address);
    std::lock_guard<std::mutex> lock(state.mutex);
    if (facts)
        state.updatePort(address, *facts);
    state.wake();
    return noErr;
}

OSStatus VelmorALSAMIDIService::getIntegerProperty(MIDIObjectRef object, std::string_view propertyID,
                                                   std::int32_t* outValue)
{
    if (!outValue)
        return kMIDIParamErr;
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(object);
    if (it == state_->objects.end())
        return kMIDIParamErr;
    if (propertyID != kMIDIPropertyUniqueID || it->second.type == kMIDIObjectType_Other)
        return kMIDIUnknownProperty;
    *outValue = it->second.uniqueID;
    return noErr;
}

OSStatus VelmorALSAMIDIService::setIntegerProperty(MIDIObjectRef object, std::string_view propertyID,
                                                   std::int32_t value)
{
    State& state = *state_;
    std::lock_guard<std::mutex> lock(state.mutex);
    auto it = state.objects.find(object);
    if (it == state.objects.end())
        return kMIDIParamErr;
    auto port = state.ports.find(it->second.address);
    const bool own = port != state.ports.end() && port->second.own && it->second.type == kMIDIObjectType_Source;
    if (!own || propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    if (value == it->second.uniqueID)
        return noErr;
    if (value == 0 || state.usedIDs.count(value))
        return kMIDIIDNotUnique;
    state.usedIDs.erase(it->second.uniqueID);
    state.usedIDs.insert(value);
    it->second.uniqueID = value;
    state.notifyProperty(object, it->second.type, kMIDIPropertyUniqueID);
    state.wake();
    return noErr;
}

} // namespace VelmorPlatform

#endif // VELMOR_HAVE_ALSA

#pragma once

// The JACK service's shared state. Private to Platform/JACK/.

#include <jack/jack.h>
#include <jack/metadata.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <jack/uuid.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <pthread.h>
#include <thread>
#include <vector>

#include "VelmorJACKMIDIService.h"

namespace VelmorPlatform {

namespace JACK {

// Property keys under which strings of our own ports are kept as JACK metadata, so that another Velmor
// process reads them too, and the mark of our private ports, which other Velmor processes leave out.
inline constexpr const char* kPropertyKeyPrefix = "urn:velmor:property:";
inline constexpr const char* kPrivateKey = "urn:velmor:private";

// Connects two ports. A port is announced when it is registered, but JACK connects it only once its
// client is active, a moment later: a refusal is tried again for a short while before it counts.
inline int connectPorts(jack_client_t* client, const char* from, const char* to)
{
    if (!client)
        return -1;
    int error = jack_connect(client, from, to);
    for (int attempt = 0; attempt < 50 && error != 0 && error != EEXIST; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        error = jack_connect(client, from, to);
    }
    return error;
}

// Bytes of one JACK event that we write: longer messages (exclusive ones) go as several events, one
// piece each, and are joined again by the receiving side.
inline constexpr std::size_t kPieceBytes = 1024;
inline constexpr std::size_t kInputRingBytes = std::size_t(256) << 10;
inline constexpr std::size_t kOutputRingBytes = std::size_t(128) << 10;
inline constexpr std::size_t kMaxSlots = 512;
inline constexpr std::size_t kMaxPacketBytes = 65535;
// An exclusive message that never ends is handed on in pieces of this size rather than kept forever.
inline constexpr std::size_t kMaxPendingExclusive = std::size_t(16) << 20;

// What goes through a ring: this header, then `length` bytes.
struct RingRecord {
    std::uint64_t jackTime;  // microseconds of JACK's clock; for a send, 0 means "as soon as possible"
    std::uint32_t length;
    std::uint32_t reserved;
};
static_assert(sizeof(RingRecord) == 16);

// Reads the header of the next record without taking it, and only when all of the record is in the
// ring (a writer may be halfway through it). No lock, no allocation: the process callback uses it.
inline bool peekWholeRecord(jack_ringbuffer_t* ring, RingRecord& record)
{
    const std::size_t available = jack_ringbuffer_read_space(ring);
    if (available < sizeof record)
        return false;
    jack_ringbuffer_peek(ring, reinterpret_cast<char*>(&record), sizeof record);
    return available >= sizeof record + record.length;
}

// One JACK port of ours that the process callback serves, by a fixed array so that the callback finds
// them without a lock. A slot is claimed and released by other threads under State::mutex; the
// callback sees only `state`, and a slot's port and ring are set before it turns active.
struct Slot {
    enum : int { Free = 0, Input = 1, Output = 2 };
    std::atomic<int> state {Free};
    jack_port_t* port = nullptr;
    jack_ringbuffer_t* ring = nullptr;       // kept for the slot's life, reused
    std::size_t ringBytes = 0;
    std::atomic<std::uint64_t> dropped {0};  // input: events lost to a full ring
    std::atomic<std::uint64_t> generation {0};  // counts claims, so that a writer notices a reused slot
    std::mutex writer;                       // output: one writer at a time (never the callback)
    bool claimed = false;                    // guarded by State::mutex
};

// The object model as the enumeration and property calls see it: an immutable snapshot, swapped whole.
struct ObjectInfo {
    MIDIObjectType type = kMIDIObjectType_Other;
    MIDIObjectRef parent = 0;              // entity: its device; endpoint: its entity
    std::string jackName;                  // device: the client's name; others: the port's full name
    std::optional<std::string> name;
    std::int32_t uniqueID = 0;
    std::map<std::string, std::string, std::less<>> strings;  // further string properties
    std::vector<MIDIObjectRef> children;   // device: its entities
    MIDIEndpointRef source = 0;            // entity
    MIDIEndpointRef destination = 0;       // entity
    bool own = false;                      // a virtual source of this process, or its entity / device
};

struct Model {
    std::map<MIDIObjectRef, ObjectInfo> objects;
    std::vector<MIDIEndpointRef> sources;
    std::vector<MIDIEndpointRef> destinations;
};

// Where the current snapshot is kept. The lock guards the copy of one pointer and nothing else, so
// readers never wait behind work; libstdc++'s atomic shared_ptr would do as well, but ThreadSanitizer
// misreads its lock bit.
class SnapshotCell {
public:
    std::shared_ptr<const Model> load() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return model_;
    }
    void store(std::shared_ptr<const Model> model)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        model_.swap(model);
    }  // the old snapshot, if this was its last holder, goes here, outside the lock

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const Model> model_;
};

} // namespace JACK

struct VelmorJACKMIDIService::State {
    using Slot = JACK::Slot;

    // --- JACK -----------------------------------------------------------------------------------------
    std::atomic<jack_client_t*> client {nullptr};
    std::string clientName;
    std::atomic<bool> serverGone {false};
    std::atomic<std::int64_t> clockOffsetMicros {0};  // CLOCK_MONOTONIC minus JACK's clock
    bool clockMeasured = false;                        // measureClocks only
    std::chrono::steady_clock::time_point clockMeasuredAt;
    std::array<Slot, JACK::kMaxSlots> slots;
    std::atomic<std::size_t> slotsInUse {0};  // high-water mark of claimed slots
    std::atomic<std::uint64_t> cycle {0};      // odd while the process callback runs

    // --- The model (guarded by mutex) -------------------------------------------------------------------
    struct Port {
        std::string fullName;
        jack_uuid_t uuid = 0;
        bool output = false;  // a JACK output port: our source
        MIDIEntityRef entity = 0;
        MIDIEndpointRef endpoint = 0;
        std::string device;   // client name
        bool own = false;
        MIDIClientRef owner = 0;
        std::size_t slot = 0;  // own virtual sources
    };
    struct Device {
        MIDIDeviceRef ref = 0;
        std::vector<std::string> ports;  // full names, in order of appearance
    };
    struct Client {
        MIDINotifyProc notifyProc = nullptr;
        void* refCon = nullptr;
    };
    struct Connection {
        void* refCon = nullptr;
        std::size_t slot = 0;
        std::vector<std::uint8_t> pendingExclusive;  // service thread
        MIDITimeStamp pendingTimeStamp = 0;
        MIDITimeStamp lastTimeStamp = 0;  // stamps of one source never go back
    };
    struct InputPort {
        MIDIClientRef client = 0;
        std::string name;
        MIDIReadProc readProc = nullptr;
        void* refCon = nullptr;
        std::map<MIDIEndpointRef, Connection> connections;
    };
    struct OutputPort {
        MIDIClientRef client = 0;
        std::string name;
        std::map<MIDIEndpointRef, std::size_t> destinations;  // destination -> slot
    };

    std::mutex mutex;
    MIDIObjectRef nextRef = 1;
    JACK::Model model;
    std::map<std::string, Port> ports;  // by full name
    std::map<std::string, Device> devices;  // by client name
    std::set<std::int32_t> usedIDs;
    std::set<MIDIObjectRef> otherRefs;  // clients and ports of the boundary
    std::map<MIDIClientRef, Client> clients;
    std::map<MIDIPortRef, InputPort> inputPorts;
    std::map<MIDIPortRef, OutputPort> outputPorts;
    unsigned nextPortNumber = 1;
    std::vector<std::size_t> pendingReleases;  // slots to release once the mutex is let go
    JACK::SnapshotCell snapshot;

    // --- Deliveries to the service thread (guarded by mutex) ---------------------------------------------
    struct Delivery {
        enum class Kind { Notification, Packets, Dropped, Marker } kind = Kind::Notification;
        MIDIObjectAddRemoveNotification addRemove {};
        MIDIObjectPropertyChangeNotification property {};
        std::string propertyName;
        MIDIPortRef port = 0;
        MIDIEndpointRef source = 0;
        std::vector<std::uint8_t> image;
        std::uint64_t count = 0;
    };
    std::deque<Delivery> deliveries;
    // Set by JACK's notification thread: the port list or a port's metadata changed.
    std::atomic<bool> resyncWanted {false};

    // --- The service thread ------------------------------------------------------------------------------
    sem_t wakeSemaphore;
    std::mutex callbackMutex;  // held while a callback runs
    std::thread thread;
    std::atomic<std::thread::id> threadID {};
    std::atomic<bool> stopping {false};
    std::mutex markerMutex;
    std::condition_variable markerDone;
    std::uint64_t markersSent = 0;     // guarded by markerMutex
    std::uint64_t markersHandled = 0;  // guarded by markerMutex
    std::uint64_t markerWanted = 0;    // guarded by mutex: queued once what came before it is handled

    State();
    ~State();
    bool open(const std::string& name, const std::string& serverName);
    void shutDown();
    void run();
    void wake() { sem_post(&wakeSemaphore); }
    bool onServiceThread() const { return threadID.load() == std::this_thread::get_id(); }
    void waitForCallbacks()
    {
        if (!onServiceThread())
            std::lock_guard<std::mutex> wait(callbackMutex);
    }
    jack_client_t* jack() const { return client.load(std::memory_order_acquire); }

    // Time: JACK's microseconds and host time.
    void measureClocks();
    MIDITimeStamp hostTimeOfJackTime(jack_time_t time) const;
    jack_time_t jackTimeOfHostTime(MIDITimeStamp timeStamp) const;

    // Slots (claim/release take mutex themselves unless noted).
    std::optional<std::size_t> claimSlot(int kind, const std::string& portName, bool input);
    void releaseSlot(std::size_t index);
    void waitForCycle();
    void waitForCycles(int count);  // whole cycles, bounded
    void releasePending();  // caller doesn't hold mutex

    // The process callback and its halves (Receive, Send).
    static int process(jack_nframes_t frames, void* arg);
    void processInput(Slot& slot, jack_nframes_t frames, jack_nframes_t cycleStart, bool& wrote);
    void processOutput(Slot& slot, jack_nframes_t frames, jack_nframes_t cycleStart);

    // Receive (service thread).
    void drainInputs();
    void handleMessage(MIDIPortRef port, MIDIEndpointRef source, Connection& connection, const std::uint8_t* bytes,
                       std::size_t length, MIDITimeStamp timeStamp, std::vector<std::uint8_t>& image,
                       std::size_t& packets);
    void dispatch();

    // Send: `list` to the ring of `slot`.
    OSStatus writePackets(std::size_t slot, std::uint64_t generation, const MIDIPacketList* list);

    // The model (caller holds mutex).
    MIDIObjectRef newObject(JACK::ObjectInfo info);
    std::int32_t uniqueIDFor(std::uint32_t hash);
    void forgetObject(MIDIObjectRef ref);
    Port* addPort(const std::string& fullName, jack_uuid_t uuid, bool output, const std::optional<std::string>& name,
                  std::map<std::string, std::string, std::less<>> strings, bool own, MIDIClientRef owner);
    void removePort(std::string fullName);  // by value: callers pass names that it frees
    void setObjectName(MIDIObjectRef ref, const std::optional<std::string>& name);
    void setObjectString(MIDIObjectRef ref, std::string_view key, const std::optional<std::string>& value);
    void publish();
    void retireConnectionsTo(MIDIEndpointRef endpoint);

    // Announcements.
    void notifyAddRemove(MIDINotificationMessageID id, MIDIObjectRef parent, MIDIObjectType parentType,
                         MIDIObjectRef child, MIDIObjectType childType);
    void notifyProperty(MIDIObjectRef object, MIDIObjectType type, std::string_view property);
    void resync();
    static void registrationCallback(jack_port_id_t port, int registered, void* arg);
    static void clientCallback(const char* name, int registered, void* arg);
    static void renameCallback(jack_port_id_t port, const char* oldName, const char* newName, void* arg);
    static void propertyCallback(jack_uuid_t subject, const char* key, jack_property_change_t change, void* arg);
    static void shutdownCallback(void* arg);
    static int graphCallback(void* arg);
};

} // namespace VelmorPlatform

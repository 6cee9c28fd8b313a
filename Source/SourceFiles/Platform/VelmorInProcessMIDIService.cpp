#include "VelmorInProcessMIDIService.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>  // std::shared_lock
#include <thread>
#include <unordered_map>
#include <utility>

#include "VelmorHostClock.h"

namespace VelmorPlatform {

namespace {

// --- Calls that can be counted and made to fail ------------------------------------------------------

enum class Call : std::size_t {
    ClientCreate, ClientDispose, InputPortCreate, OutputPortCreate, PortConnectSource, PortDisconnectSource,
    PortDispose, SourceCreate, EndpointDispose, Received, Send, GetNumberOfSources, GetSource,
    GetNumberOfDestinations, GetDestination, DeviceGetNumberOfEntities, DeviceGetEntity,
    EntityGetNumberOfSources, EntityGetSource, EntityGetNumberOfDestinations, EntityGetDestination,
    EndpointGetEntity, ObjectGetStringProperty, ObjectSetStringProperty, ObjectGetIntegerProperty,
    ObjectSetIntegerProperty, Count
};

constexpr std::array<std::string_view, std::size_t(Call::Count)> callNames = {
    "MIDIClientCreate", "MIDIClientDispose", "MIDIInputPortCreate", "MIDIOutputPortCreate",
    "MIDIPortConnectSource", "MIDIPortDisconnectSource", "MIDIPortDispose", "MIDISourceCreate",
    "MIDIEndpointDispose", "MIDIReceived", "MIDISend", "MIDIGetNumberOfSources", "MIDIGetSource",
    "MIDIGetNumberOfDestinations", "MIDIGetDestination", "MIDIDeviceGetNumberOfEntities", "MIDIDeviceGetEntity",
    "MIDIEntityGetNumberOfSources", "MIDIEntityGetSource", "MIDIEntityGetNumberOfDestinations",
    "MIDIEntityGetDestination", "MIDIEndpointGetEntity", "MIDIObjectGetStringProperty",
    "MIDIObjectSetStringProperty", "MIDIObjectGetIntegerProperty", "MIDIObjectSetIntegerProperty",
};

static_assert(!callNames.back().empty(), "a name for every call");

std::optional<std::size_t> callIndex(std::string_view name)
{
    for (std::size_t i = 0; i < callNames.size(); ++i) {
        if (callNames[i] == name)
            return i;
    }
    return std::nullopt;
}

// References are never reused in the process, not even by a second service.
std::atomic<MIDIObjectRef> lastReference {0x10000};

MIDIObjectRef newReference()
{
    return lastReference.fetch_add(1, std::memory_order_relaxed) + 1;
}

// --- Packet-list images --------------------------------------------------------------------------------

constexpr std::size_t packetHeaderSize = 10;   // time stamp, length
constexpr std::size_t listHeaderSize = 4;      // count
constexpr std::size_t maxPacketLength = 65535;

void putLE(std::uint8_t* out, std::uint64_t value, std::size_t width)
{
    for (std::size_t i = 0; i < width; ++i)
        out[i] = std::uint8_t(value >> (8 * i));
}

std::uint64_t getLE(const std::uint8_t* in, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t(in[i]) << (8 * i);
    return value;
}

std::size_t imageSizeForBytes(std::size_t length)
{
    const std::size_t packets = length == 0 ? 1 : (length + maxPacketLength - 1) / maxPacketLength;
    return listHeaderSize + packets * packetHeaderSize + length;
}

// Writes `bytes` as one list, cut into packets of at most 65535 bytes, all with the same time stamp.
void writeImageForBytes(std::uint8_t* out, std::span<const std::uint8_t> bytes, MIDITimeStamp timeStamp)
{
    const std::size_t packets = bytes.empty() ? 1 : (bytes.size() + maxPacketLength - 1) / maxPacketLength;
    putLE(out, packets, 4);
    out += listHeaderSize;
    std::size_t position = 0;
    for (std::size_t i = 0; i < packets; ++i) {
        const std::size_t length = std::min(maxPacketLength, bytes.size() - position);
        putLE(out, timeStamp, 8);
        putLE(out + 8, length, 2);
        if (length)
            std::memcpy(out + packetHeaderSize, bytes.data() + position, length);
        out += packetHeaderSize + length;
        position += length;
    }
}

// True when `image` is exactly one well-formed packet list.
bool isWellFormedImage(std::span<const std::uint8_t> image)
{
    if (image.size() < listHeaderSize)
        return false;
    const std::uint64_t count = getLE(image.data(), 4);
    std::size_t position = listHeaderSize;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (image.size() - position < packetHeaderSize)
            return false;
        const std::size_t length = getLE(image.data() + position + 8, 2);
        position += packetHeaderSize;
        if (image.size() - position < length)
            return false;
        position += length;
    }
    return position == image.size();
}

// --- Callback targets ----------------------------------------------------------------------------------

// Who a running callback belongs to: the port (or client) in the high half, the source in the low half. A
// client's notifications have 0 as source; a destination's observer has 0 as owner. References are
// unique in the process, so a key names one connection, one client or one observer.
using CallbackKey = std::uint64_t;

constexpr CallbackKey keyOf(std::uint32_t owner, std::uint32_t endpoint)
{
    return (CallbackKey(owner) << 32) | endpoint;
}
constexpr std::uint32_t ownerOf(CallbackKey key) { return std::uint32_t(key >> 32); }
constexpr std::uint32_t endpointOf(CallbackKey key) { return std::uint32_t(key); }

// Something a queued callback calls. Ending it makes every queued call of it a no-op; the ender then
// waits until a call already running has returned.
struct Target {
    explicit Target(CallbackKey targetKey) : key(targetKey) {}
    const CallbackKey key;
    std::atomic<bool> active {true};
};

struct Connection : Target {
    Connection(CallbackKey targetKey, MIDIReadProc proc, void* portRefCon, void* connectionRefCon)
        : Target(targetKey), readProc(proc), readProcRefCon(portRefCon), connRefCon(connectionRefCon) {}
    const MIDIReadProc readProc;
    void* const readProcRefCon;  // the client's; the service never touches what it points at
    void* const connRefCon;      // likewise
};
using ConnectionList = std::vector<std::shared_ptr<Connection>>;

struct NotifyTarget : Target {
    NotifyTarget(CallbackKey targetKey, MIDINotifyProc proc, void* notifyRefCon)
        : Target(targetKey), notifyProc(proc), refCon(notifyRefCon) {}
    const MIDINotifyProc notifyProc;
    void* const refCon;
};

struct ObserverTarget : Target {
    ObserverTarget(CallbackKey targetKey, std::function<void(const MIDIPacketList*)> function)
        : Target(targetKey), observer(std::move(function)) {}
    const std::function<void(const MIDIPacketList*)> observer;
};

// What the callers of an ending call wait for: no callback with a matching key may still be running.
struct EndedCallbacks {
    std::vector<std::uint32_t> owners;     // every callback of these ports and clients
    std::vector<std::uint32_t> sources;    // every connection of these sources
    std::vector<CallbackKey> keys;         // exactly these
    bool matches(CallbackKey key) const
    {
        const auto owner = ownerOf(key);
        const auto endpoint = endpointOf(key);
        return std::find(owners.begin(), owners.end(), owner) != owners.end()
            || (owner != 0 && endpoint != 0 && std::find(sources.begin(), sources.end(), endpoint) != sources.end())
            || std::find(keys.begin(), keys.end(), key) != keys.end();
    }
    bool empty() const { return owners.empty() && sources.empty() && keys.empty(); }
};

// --- The service thread ----------------------------------------------------------------------------------

struct Entry {
    enum class Kind : std::uint8_t { Packets, Notification, Observer };
    Kind kind = Kind::Packets;
    std::size_t offset = 0;  // packet-list image or property name in the batch's bytes
    std::shared_ptr<const ConnectionList> connections;  // Packets
    std::shared_ptr<Target> target;                     // Notification, Observer
    MIDIObjectAddRemoveNotification record {};          // Notification; a property change reuses parent/parentType
};

struct Batch {
    std::vector<std::uint8_t> bytes;
    std::vector<Entry> entries;
};

// One thread runs every callback of a service, in the order the work was queued. Queuing copies the
// bytes into the pending batch under one lock; the thread takes the whole batch at once.
class Dispatcher : public std::enable_shared_from_this<Dispatcher> {
public:
    void start()
    {
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
        threadId_ = thread_.get_id();
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        abandon_.store(true, std::memory_order_relaxed);
        wake_.notify_all();
        idle_.notify_all();
        if (!thread_.joinable())
            return;
        // A service let go from one of its own callbacks can't wait for itself: the thread keeps this
        // dispatcher alive and ends after that batch.
        if (onServiceThread())
            thread_.detach();
        else
            thread_.join();
    }

    bool onServiceThread() const { return std::this_thread::get_id() == threadId_; }

    // `fill` writes `size` bytes of packet-list image.
    template <class Fill>
    void enqueuePackets(std::shared_ptr<const ConnectionList> connections, std::size_t size, Fill&& fill)
    {
        Entry entry;
        entry.kind = Entry::Kind::Packets;
        entry.connections = std::move(connections);
        std::unique_lock<std::mutex> lock(mutex_);
        entry.offset = reserve(size);
        fill(pending_.bytes.data() + entry.offset);
        push(std::move(entry), lock);
    }

    void enqueueObserver(std::shared_ptr<ObserverTarget> observer, std::span<const std::uint8_t> image)
    {
        Entry entry;
        entry.kind = Entry::Kind::Observer;
        entry.target = std::move(observer);
        std::unique_lock<std::mutex> lock(mutex_);
        entry.offset = reserve(image.size());
        std::memcpy(pending_.bytes.data() + entry.offset, image.data(), image.size());
        push(std::move(entry), lock);
    }

    // One record for each target, queued together so that nothing comes between them.
    void enqueueNotifications(const std::vector<std::shared_ptr<NotifyTarget>>& targets,
                              const MIDIObjectAddRemoveNotification& record, std::string_view propertyName)
    {
        if (targets.empty())
            return;
        std::unique_lock<std::mutex> lock(mutex_);
        std::size_t nameOffset = 0;
        if (record.messageID == kMIDIMsgPropertyChanged) {
            nameOffset = reserve(propertyName.size() + 1);
            std::memcpy(pending_.bytes.data() + nameOffset, propertyName.data(), propertyName.size());
            pending_.bytes[nameOffset + propertyName.size()] = 0;
        }
        for (const auto& target : targets) {
            Entry entry;
            entry.kind = Entry::Kind::Notification;
            entry.offset = nameOffset;
            entry.target = target;
            entry.record = record;
            push(std::move(entry), lock, false);
        }
        wakeIfSleeping(lock);
    }

    // Blocks until the callbacks queued so far, and those they queued in turn, have run.
    void waitUntilIdle()
    {
        if (onServiceThread())
            return;  // it would wait for itself
        std::unique_lock<std::mutex> lock(mutex_);
        ++idleWaiters_;
        for (;;) {
            const auto target = enqueued_;
            const auto byService = enqueuedByService_;
            idle_.wait(lock, [&] { return done_ >= target || stopping_; });
            if (stopping_ || enqueuedByService_ == byService)
                break;
        }
        --idleWaiters_;
    }

    // Waits until no callback that `ended` matches is running. Its targets were ended before, so none
    // starts again. On the service thread the callback that called is the running one: no wait.
    void waitForEnded(const EndedCallbacks& ended) const
    {
        if (ended.empty() || onServiceThread())
            return;
        for (unsigned round = 0;; ++round) {
            const auto key = running_.load(std::memory_order_seq_cst);
            if (key == 0 || !ended.matches(key))
                return;
            if (round < 200)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }

private:
    std::size_t reserve(std::size_t size)
    {
        // Images start 8-aligned, so a reader may look at the fields in place.
        const std::size_t offset = (pending_.bytes.size() + 7) & ~std::size_t(7);
        pending_.bytes.resize(offset + size);
        return offset;
    }

    void push(Entry&& entry, std::unique_lock<std::mutex>& lock, bool wake = true)
    {
        pending_.entries.push_back(std::move(entry));
        ++enqueued_;
        if (onServiceThread())
            ++enqueuedByService_;
        if (wake)
            wakeIfSleeping(lock);
    }

    void wakeIfSleeping(std::unique_lock<std::mutex>& lock)
    {
        if (!sleeping_)
            return;
        sleeping_ = false;
        lock.unlock();
        wake_.notify_one();
    }

    // Dekker with the enders: publish the key, then look at the flag; an ender clears the flag, then
    // looks at the key. One of the two sees the other.
    bool enter(const Target& target)
    {
        running_.store(target.key, std::memory_order_seq_cst);
        if (target.active.load(std::memory_order_seq_cst))
            return true;
        running_.store(0, std::memory_order_release);
        return false;
    }
    void leave() { running_.store(0, std::memory_order_release); }

    void dispatch(const Entry& entry, const std::uint8_t* bytes)
    {
        switch (entry.kind) {
        case Entry::Kind::Packets: {
            const auto* list = reinterpret_cast<const MIDIPacketList*>(bytes + entry.offset);
            for (const auto& connection : *entry.connections) {
                if (enter(*connection)) {
                    connection->readProc(list, connection->readProcRefCon, connection->connRefCon);
                    leave();
                }
            }
            break;
        }
        case Entry::Kind::Notification: {
            const auto& target = static_cast<const NotifyTarget&>(*entry.target);
            if (!enter(target))
                break;
            if (entry.record.messageID == kMIDIMsgPropertyChanged) {
                MIDIObjectPropertyChangeNotification record {};
                record.messageID = kMIDIMsgPropertyChanged;
                record.messageSize = sizeof record;
                record.object = entry.record.parent;
                record.objectType = entry.record.parentType;
                record.propertyName = reinterpret_cast<const char*>(bytes + entry.offset);
                target.notifyProc(reinterpret_cast<const MIDINotification*>(&record), target.refCon);
            } else {
                MIDIObjectAddRemoveNotification record = entry.record;
                target.notifyProc(reinterpret_cast<const MIDINotification*>(&record), target.refCon);
            }
            leave();
            break;
        }
        case Entry::Kind::Observer: {
            const auto& target = static_cast<const ObserverTarget&>(*entry.target);
            if (enter(target)) {
                target.observer(reinterpret_cast<const MIDIPacketList*>(bytes + entry.offset));
                leave();
            }
            break;
        }
        }
    }

    void run()
    {
        Batch working;
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            // Callbacks tend to come in runs: look for the next one a little while, yielding the
            // processor, before going to sleep; that spares the enqueuer a wake-up through the kernel.
            if (pending_.entries.empty() && !stopping_) {
                const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
                do {
                    lock.unlock();
                    std::this_thread::yield();
                    lock.lock();
                } while (pending_.entries.empty() && !stopping_ && std::chrono::steady_clock::now() < until);
            }
            while (pending_.entries.empty() && !stopping_) {
                sleeping_ = true;
                wake_.wait(lock);
                sleeping_ = false;
            }
            if (stopping_)
                break;
            std::swap(working, pending_);
            lock.unlock();
            for (const auto& entry : working.entries) {
                if (abandon_.load(std::memory_order_relaxed))
                    break;  // the service is going: what is left of the batch goes unheard
                dispatch(entry, working.bytes.data());
            }
            const auto ran = working.entries.size();
            working.entries.clear();
            working.bytes.clear();
            if (working.bytes.capacity() > (std::size_t(1) << 20))
                working.bytes.shrink_to_fit();  // one long exclusive message shouldn't pin its buffer
            lock.lock();
            done_ += ran;
            if (idleWaiters_)
                idle_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    Batch pending_;                       // guarded by mutex_, as are the fields up to idleWaiters_
    bool sleeping_ = false;
    bool stopping_ = false;
    std::uint64_t enqueued_ = 0;
    std::uint64_t enqueuedByService_ = 0;
    std::uint64_t done_ = 0;
    int idleWaiters_ = 0;
    std::atomic<CallbackKey> running_ {0};
    std::atomic<bool> abandon_ {false};
    std::thread thread_;
    std::thread::id threadId_;            // set before any work is queued
};

// --- The graph's lock ------------------------------------------------------------------------------------

// A reader-writer lock that lets a waiting writer in before new readers. Injection from several threads
// can hold a plain shared lock without a gap, and a disconnect must not starve behind it. Readers pay
// one compare-and-swap each way; only a waiting side takes the inner mutex.
class GraphMutex {
public:
    void lock_shared()
    {
        auto state = state_.load(std::memory_order_relaxed);
        for (;;) {
            if (state & writerBit) {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return !(state_.load(std::memory_order_relaxed) & writerBit); });
                state = state_.load(std::memory_order_relaxed);
                continue;
            }
            if (state_.compare_exchange_weak(state, state + 1, std::memory_order_acquire, std::memory_order_relaxed))
                return;
        }
    }
    void unlock_shared()
    {
        // The last reader out tells a waiting writer.
        if (state_.fetch_sub(1, std::memory_order_release) - 1 == writerBit) {
            std::lock_guard<std::mutex> lock(mutex_);
            changed_.notify_all();
        }
    }
    void lock()
    {
        writers_.lock();
        state_.fetch_or(writerBit, std::memory_order_acquire);
        if (state_.load(std::memory_order_acquire) != writerBit) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return state_.load(std::memory_order_acquire) == writerBit; });
        }
    }
    void unlock()
    {
        state_.fetch_and(~writerBit, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            changed_.notify_all();
        }
        writers_.unlock();
    }

private:
    static constexpr std::uint32_t writerBit = 0x80000000u;
    std::atomic<std::uint32_t> state_ {0};  // readers inside, and the bit of a writer waiting or inside
    std::mutex writers_;                    // one writer at a time
    std::mutex mutex_;                      // for waiting only
    std::condition_variable changed_;
};

// --- The object graph ------------------------------------------------------------------------------------

struct Object {
    MIDIObjectRef ref = 0;
    MIDIObjectType type = kMIDIObjectType_Other;
    bool external = false;
    MIDIObjectRef parent = 0;   // device of an entity, entity of an endpoint; 0 for devices and virtual sources
    MIDIClientRef owner = 0;    // the client of a virtual source
    std::int32_t uniqueID = 0;
    std::map<std::string, std::string, std::less<>> strings;
    std::vector<MIDIObjectRef> entities;       // of a device
    std::vector<MIDIObjectRef> sources;        // of an entity
    std::vector<MIDIObjectRef> destinations;   // of an entity
    std::shared_ptr<const ConnectionList> connections = std::make_shared<const ConnectionList>();  // of a source
    std::shared_ptr<ObserverTarget> observer;  // of a destination

    MIDIObjectType wireType() const { return type | (external ? kMIDIObjectType_ExternalMask : 0); }
};

struct Port {
    MIDIPortRef ref = 0;
    MIDIClientRef client = 0;
    bool input = false;
    MIDIReadProc readProc = nullptr;
    void* refCon = nullptr;
    std::map<MIDIEndpointRef, std::shared_ptr<Connection>> connections;
};

struct Client {
    MIDIClientRef ref = 0;
    std::string name;
    std::shared_ptr<NotifyTarget> notify;  // null without a notify proc
    std::vector<MIDIPortRef> ports;
    std::vector<MIDIEndpointRef> sources;  // its virtual sources
};

template <class T>
void eraseValue(std::vector<T>& values, const T& value)
{
    values.erase(std::remove(values.begin(), values.end(), value), values.end());
}

} // namespace

// --- State -------------------------------------------------------------------------------------------------

struct VelmorInProcessMIDIService::State {
    std::shared_ptr<Dispatcher> dispatcher = std::make_shared<Dispatcher>();

    mutable GraphMutex mutex;  // the graph below; reads come on every decoded event
    std::unordered_map<MIDIObjectRef, Object> objects;
    std::vector<MIDIEndpointRef> sourceList;       // in the order of creation
    std::vector<MIDIEndpointRef> destinationList;
    std::map<MIDIClientRef, Client> clients;       // in the order of creation: notifications go out so
    std::unordered_map<MIDIPortRef, Port> ports;
    std::unordered_map<std::int32_t, MIDIObjectRef> uniqueIDs;
    std::uint32_t uniqueIDCounter = 0;

    mutable std::mutex arrivalsMutex;
    std::unordered_map<MIDIEndpointRef, std::vector<Arrival>> arrivals;

    std::array<std::atomic<std::uint64_t>, std::size_t(Call::Count)> counts {};
    struct Fault {
        std::atomic<int> remaining {0};
        OSStatus status = noErr;  // guarded by faultMutex
    };
    std::array<Fault, std::size_t(Call::Count)> faults;
    std::mutex faultMutex;

    // Counts the call; a status other than noErr means it fails without doing anything.
    OSStatus begin(Call call)
    {
        const auto index = std::size_t(call);
        counts[index].fetch_add(1, std::memory_order_relaxed);
        auto& fault = faults[index];
        if (fault.remaining.load(std::memory_order_acquire) <= 0)
            return noErr;
        std::lock_guard<std::mutex> lock(faultMutex);
        if (fault.remaining.load(std::memory_order_relaxed) <= 0)
            return noErr;
        fault.remaining.fetch_sub(1, std::memory_order_relaxed);
        return fault.status;
    }

    // --- Under the exclusive lock ---

    Object* find(MIDIObjectRef ref)
    {
        auto it = objects.find(ref);
        return it == objects.end() ? nullptr : &it->second;
    }
    const Object* find(MIDIObjectRef ref) const
    {
        auto it = objects.find(ref);
        return it == objects.end() ? nullptr : &it->second;
    }

    // A well-spread ID that no object holds: a bijection of a counter, so IDs are varied (negative ones
    // included) and still the same from run to run.
    std::int32_t newUniqueID()
    {
        for (;;) {
            std::uint32_t x = ++uniqueIDCounter * 0x9E3779B1u;
            x ^= x >> 15;
            x *= 0x2C1B3C6Du;
            x ^= x >> 12;
            const auto id = std::int32_t(x);
            if (id != 0 && !uniqueIDs.contains(id))
                return id;
        }
    }

    void notifyAll(const MIDIObjectAddRemoveNotification& record, std::string_view propertyName = {})
    {
        std::vector<std::shared_ptr<NotifyTarget>> targets;
        for (const auto& [ref, client] : clients) {
            if (client.notify)
                targets.push_back(client.notify);
        }
        dispatcher->enqueueNotifications(targets, record, propertyName);
    }

    void notifyAddedRemoved(MIDINotificationMessageID messageID, const Object& child)
    {
        MIDIObjectAddRemoveNotification record {};
        record.messageID = messageID;
        record.messageSize = sizeof record;
        record.parent = child.parent;
        record.parentType = kMIDIObjectType_Other;
        if (const auto* parent = find(child.parent))
            record.parentType = parent->wireType();
        record.child = child.ref;
        record.childType = child.wireType();
        notifyAll(record);
    }

    void notifyPropertyChanged(const Object& object, std::string_view propertyName)
    {
        MIDIObjectAddRemoveNotification record {};
        record.messageID = kMIDIMsgPropertyChanged;
        record.messageSize = sizeof(MIDIObjectPropertyChangeNotification);
        record.parent = object.ref;
        record.parentType = object.wireType();
        notifyAll(record, propertyName);
    }

    Object& addObject(MIDIObjectType type, MIDIObjectRef parent, bool external, std::string_view name)
    {
        const auto ref = newReference();
        Object& object = objects[ref];
        object.ref = ref;
        object.type = type;
        object.parent = parent;
        object.external = external;
        object.uniqueID = newUniqueID();
        uniqueIDs.emplace(object.uniqueID, ref);
        object.strings.emplace(kMIDIPropertyName, name);
        return object;
    }

    MIDIEndpointRef addEndpoint(MIDIObjectType type, MIDIEntityRef entityRef, std::string_view name,
                                std::string_view manufacturer, std::string_view model)
    {
        Object* entity = find(entityRef);
        if (!entity || entity->type != kMIDIObjectType_Entity)
            return 0;
        Object& endpoint = addObject(type, entityRef, entity->external, name);
        if (!manufacturer.empty())
            endpoint.strings.emplace(kMIDIPropertyManufacturer, manufacturer);
        if (!model.empty())
            endpoint.strings.emplace(kMIDIPropertyModel, model);
        (type == kMIDIObjectType_Source ? entity->sources : entity->destinations).push_back(endpoint.ref);
        (type == kMIDIObjectType_Source ? sourceList : destinationList).push_back(endpoint.ref);
        notifyAddedRemoved(kMIDIMsgObjectAdded, endpoint);
        return endpoint.ref;
    }

    // Ends the connections of a source; their callbacks end with them.
    void endConnections(Object& source, EndedCallbacks& ended)
    {
        for (const auto& connection : *source.connections) {
            connection->active.store(false, std::memory_order_seq_cst);
            if (auto port = ports.find(ownerOf(connection->key)); port != ports.end())
                port->second.connections.erase(source.ref);
        }
        source.connections = std::make_shared<const ConnectionList>();
        ended.sources.push_back(source.ref);
    }

    void replaceConnection(Object& source, const std::shared_ptr<Connection>& old,
                           std::shared_ptr<Connection> replacement)
    {
        auto list = std::make_shared<ConnectionList>();
        list->reserve(source.connections->size() + 1);
        for (const auto& connection : *source.connections) {
            if (connection != old)
                list->push_back(connection);
        }
        if (replacement)
            list->push_back(std::move(replacement));
        source.connections = std::move(list);
    }

    // Removes an object and everything below it, the children first, each with its notification.
    void removeTree(MIDIObjectRef ref, EndedCallbacks& ended)
    {
        Object* object = find(ref);
        if (!object)
            return;
        for (auto child : std::vector<MIDIObjectRef>(object->entities))
            removeTree(child, ended);
        for (auto child : std::vector<MIDIObjectRef>(object->sources))
            removeTree(child, ended);
        for (auto child : std::vector<MIDIObjectRef>(object->destinations))
            removeTree(child, ended);
        object = find(ref);
        if (object->type == kMIDIObjectType_Source) {
            endConnections(*object, ended);
            eraseValue(sourceList, ref);
        } else if (object->type == kMIDIObjectType_Destination) {
            if (object->observer) {
                object->observer->active.store(false, std::memory_order_seq_cst);
                ended.keys.push_back(object->observer->key);
            }
            eraseValue(destinationList, ref);
        }
        if (Object* parent = find(object->parent)) {
            eraseValue(parent->entities, ref);
            eraseValue(parent->sources, ref);
            eraseValue(parent->destinations, ref);
        }
        if (auto client = clients.find(object->owner); client != clients.end())
            eraseValue(client->second.sources, ref);
        if (auto id = uniqueIDs.find(object->uniqueID); id != uniqueIDs.end() && id->second == ref)
            uniqueIDs.erase(id);
        notifyAddedRemoved(kMIDIMsgObjectRemoved, *object);
        objects.erase(ref);
    }

    void disposePort(Port& port, EndedCallbacks& ended)
    {
        for (auto& [sourceRef, connection] : port.connections) {
            connection->active.store(false, std::memory_order_seq_cst);
            if (Object* source = find(sourceRef))
                replaceConnection(*source, connection, nullptr);
        }
        port.connections.clear();
        ended.owners.push_back(port.ref);
    }

    // The status for a reference that isn't of the kind a call wants: unknown ones are bad arguments.
    OSStatus wrongKind(MIDIObjectRef ref, OSStatus ifKnown) const
    {
        const bool known = objects.contains(ref) || ports.contains(ref) || clients.contains(ref);
        return known ? ifKnown : kMIDIParamErr;
    }
};

// --- Construction ------------------------------------------------------------------------------------------

VelmorInProcessMIDIService::VelmorInProcessMIDIService() : state_(std::make_unique<State>())
{
    state_->dispatcher->start();
}

VelmorInProcessMIDIService::~VelmorInProcessMIDIService()
{
    state_->dispatcher->stop();
}

std::shared_ptr<VelmorInProcessMIDIService> VelmorInProcessMIDIService::sharedService()
{
    // Never destroyed: framework objects and the service thread may still call in while the process ends.
    static auto* shared = new std::shared_ptr<VelmorInProcessMIDIService>(create());
    return *shared;
}

std::shared_ptr<VelmorInProcessMIDIService> VelmorInProcessMIDIService::create()
{
    return std::shared_ptr<VelmorInProcessMIDIService>(new VelmorInProcessMIDIService);
}

// --- Control surface ---------------------------------------------------------------------------------------

MIDIDeviceRef VelmorInProcessMIDIService::createDevice(std::string_view name, std::string_view manufacturer,
                                                      std::string_view model, bool external)
{
    std::unique_lock lock(state_->mutex);
    Object& device = state_->addObject(kMIDIObjectType_Device, 0, external, name);
    if (!manufacturer.empty())
        device.strings.emplace(kMIDIPropertyManufacturer, manufacturer);
    if (!model.empty())
        device.strings.emplace(kMIDIPropertyModel, model);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, device);
    return device.ref;
}

MIDIEntityRef VelmorInProcessMIDIService::createEntity(MIDIDeviceRef deviceRef, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    const Object* device = state_->find(deviceRef);
    if (!device || device->type != kMIDIObjectType_Device)
        return 0;
    const bool external = device->external;
    Object& entity = state_->addObject(kMIDIObjectType_Entity, deviceRef, external, name);
    state_->find(deviceRef)->entities.push_back(entity.ref);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, entity);
    return entity.ref;
}

MIDIEndpointRef VelmorInProcessMIDIService::createSource(MIDIEntityRef entity, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    return state_->addEndpoint(kMIDIObjectType_Source, entity, name, {}, {});
}

MIDIEndpointRef VelmorInProcessMIDIService::createDestination(MIDIEntityRef entity, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    return state_->addEndpoint(kMIDIObjectType_Destination, entity, name, {}, {});
}

VelmorInProcessMIDIService::SimpleDevice VelmorInProcessMIDIService::createSimpleDevice(
    std::string_view name, std::string_view manufacturer, std::string_view model, bool withSource,
    bool withDestination)
{
    SimpleDevice made;
    made.device = createDevice(name, manufacturer, model);
    std::unique_lock lock(state_->mutex);
    if (!state_->find(made.device))
        return made;  // removed by another thread in between
    Object& entity = state_->addObject(kMIDIObjectType_Entity, made.device, false, name);
    made.entity = entity.ref;
    state_->find(made.device)->entities.push_back(entity.ref);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, entity);
    if (withSource)
        made.source = state_->addEndpoint(kMIDIObjectType_Source, made.entity, name, manufacturer, model);
    if (withDestination)
        made.destination = state_->addEndpoint(kMIDIObjectType_Destination, made.entity, name, manufacturer, model);
    return made;
}

OSStatus VelmorInProcessMIDIService::removeObject(MIDIObjectRef object)
{
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        if (!state_->find(object))
            return kMIDIParamErr;
        state_->removeTree(object, ended);
    }
    state_->dispatcher->waitForEnded(ended);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::removeStringProperty(MIDIObjectRef objectRef, std::string_view propertyID)
{
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        return kMIDIUnknownProperty;
    object->strings.erase(it);
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

MIDIObjectType VelmorInProcessMIDIService::objectType(MIDIObjectRef objectRef) const
{
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    return object ? object->type : kMIDIObjectType_Other;
}

OSStatus VelmorInProcessMIDIService::injectBytes(MIDIEndpointRef source, std::span<const std::uint8_t> bytes,
                                                 MIDITimeStamp timeStamp)
{
    std::shared_ptr<const ConnectionList> connections;
    {
        std::shared_lock lock(state_->mutex);
        const Object* object = state_->find(source);
        if (!object)
            return kMIDIParamErr;
        if (object->type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        connections = object->connections;
    }
    if (connections->empty())
        return noErr;  // nobody listens
    if (timeStamp == 0)
        timeStamp = AudioGetCurrentHostTime();
    state_->dispatcher->enqueuePackets(std::move(connections), imageSizeForBytes(bytes.size()),
                                       [&](std::uint8_t* out) { writeImageForBytes(out, bytes, timeStamp); });
    return noErr;
}

OSStatus VelmorInProcessMIDIService::injectPacketList(MIDIEndpointRef source,
                                                      std::span<const std::uint8_t> packetListImage)
{
    if (!isWellFormedImage(packetListImage))
        return kMIDIParamErr;
    std::shared_ptr<const ConnectionList> connections;
    {
        std::shared_lock lock(state_->mutex);
        const Object* object = state_->find(source);
        if (!object)
            return kMIDIParamErr;
        if (object->type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        connections = object->connections;
    }
    if (connections->empty())
        return noErr;
    state_->dispatcher->enqueuePackets(std::move(connections), packetListImage.size(), [&](std::uint8_t* out) {
        std::memcpy(out, packetListImage.data(), packetListImage.size());
    });
    return noErr;
}

std::vector<VelmorInProcessMIDIService::Arrival> VelmorInProcessMIDIService::arrivals(
    MIDIEndpointRef destination) const
{
    std::lock_guard<std::mutex> lock(state_->arrivalsMutex);
    auto it = state_->arrivals.find(destination);
    return it == state_->arrivals.end() ? std::vector<Arrival>() : it->second;
}

std::vector<std::uint8_t> VelmorInProcessMIDIService::arrivedBytes(MIDIEndpointRef destination) const
{
    std::vector<std::uint8_t> bytes;
    for (const auto& arrival : arrivals(destination)) {
        const auto* image = arrival.packetListImage.data();
        const auto count = getLE(image, 4);
        std::size_t position = listHeaderSize;
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::size_t length = getLE(image + position + 8, 2);
            bytes.insert(bytes.end(), image + position + packetHeaderSize, image + position + packetHeaderSize + length);
            position += packetHeaderSize + length;
        }
    }
    return bytes;
}

void VelmorInProcessMIDIService::clearArrivals(MIDIEndpointRef destination)
{
    std::lock_guard<std::mutex> lock(state_->arrivalsMutex);
    state_->arrivals.erase(destination);
}

void VelmorInProcessMIDIService::setDestinationObserver(MIDIEndpointRef destination,
                                                        std::function<void(const MIDIPacketList*)> observer)
{
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        Object* object = state_->find(destination);
        if (!object || object->type != kMIDIObjectType_Destination)
            return;
        if (object->observer) {
            object->observer->active.store(false, std::memory_order_seq_cst);
            ended.keys.push_back(object->observer->key);
        }
        object->observer = observer ? std::make_shared<ObserverTarget>(keyOf(0, destination), std::move(observer))
                                    : nullptr;
    }
    // The old observer and its captures may go once this returns. The new one shares its key, so
    // waiting could also cover a call of the new one; that is harmless.
    state_->dispatcher->waitForEnded(ended);
}

void VelmorInProcessMIDIService::failNextCalls(std::string_view callName, OSStatus status, int count)
{
    const auto index = callIndex(callName);
    if (!index)
        return;
    std::lock_guard<std::mutex> lock(state_->faultMutex);
    state_->faults[*index].status = status;
    state_->faults[*index].remaining.store(std::max(count, 0), std::memory_order_release);
}

std::uint64_t VelmorInProcessMIDIService::callCount(std::string_view callName) const
{
    const auto index = callIndex(callName);
    return index ? state_->counts[*index].load(std::memory_order_relaxed) : 0;
}

void VelmorInProcessMIDIService::resetCallCounts()
{
    for (auto& count : state_->counts)
        count.store(0, std::memory_order_relaxed);
}

void VelmorInProcessMIDIService::waitUntilIdle()
{
    state_->dispatcher->waitUntilIdle();
}

// --- Clients and ports ---------------------------------------------------------------------------------------

OSStatus VelmorInProcessMIDIService::clientCreate(std::string_view name, MIDINotifyProc notifyProc,
                                                  void* notifyRefCon, MIDIClientRef* outClient)
{
    if (auto status = state_->begin(Call::ClientCreate))
        return status;
    if (!outClient)
        return kMIDIParamErr;
    std::unique_lock lock(state_->mutex);
    const auto ref = newReference();
    Client& client = state_->clients[ref];
    client.ref = ref;
    client.name = name;
    if (notifyProc)
        client.notify = std::make_shared<NotifyTarget>(keyOf(ref, 0), notifyProc, notifyRefCon);
    *outClient = ref;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::clientDispose(MIDIClientRef clientRef)
{
    if (auto status = state_->begin(Call::ClientDispose))
        return status;
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        auto it = state_->clients.find(clientRef);
        if (it == state_->clients.end())
            return state_->wrongKind(clientRef, kMIDIInvalidClient);
        Client client = std::move(it->second);
        state_->clients.erase(it);  // before its sources go: it hears nothing more
        if (client.notify)
            client.notify->active.store(false, std::memory_order_seq_cst);
        ended.owners.push_back(clientRef);
        for (auto portRef : client.ports) {
            if (auto port = state_->ports.find(portRef); port != state_->ports.end()) {
                state_->disposePort(port->second, ended);
                state_->ports.erase(port);
            }
        }
        for (auto sourceRef : client.sources)
            state_->removeTree(sourceRef, ended);
    }
    state_->dispatcher->waitForEnded(ended);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::inputPortCreate(MIDIClientRef clientRef, std::string_view, MIDIReadProc readProc,
                                                     void* refCon, MIDIPortRef* outPort)
{
    if (auto status = state_->begin(Call::InputPortCreate))
        return status;
    if (!outPort || !readProc)
        return kMIDIParamErr;
    std::unique_lock lock(state_->mutex);
    auto client = state_->clients.find(clientRef);
    if (client == state_->clients.end())
        return state_->wrongKind(clientRef, kMIDIInvalidClient);
    const auto ref = newReference();
    Port& port = state_->ports[ref];
    port.ref = ref;
    port.client = clientRef;
    port.input = true;
    port.readProc = readProc;
    port.refCon = refCon;
    client->second.ports.push_back(ref);
    *outPort = ref;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::outputPortCreate(MIDIClientRef clientRef, std::string_view, MIDIPortRef* outPort)
{
    if (auto status = state_->begin(Call::OutputPortCreate))
        return status;
    if (!outPort)
        return kMIDIParamErr;
    std::unique_lock lock(state_->mutex);
    auto client = state_->clients.find(clientRef);
    if (client == state_->clients.end())
        return state_->wrongKind(clientRef, kMIDIInvalidClient);
    const auto ref = newReference();
    Port& port = state_->ports[ref];
    port.ref = ref;
    port.client = clientRef;
    client->second.ports.push_back(ref);
    *outPort = ref;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::portConnectSource(MIDIPortRef portRef, MIDIEndpointRef sourceRef,
                                                       void* connRefCon)
{
    if (auto status = state_->begin(Call::PortConnectSource))
        return status;
    std::unique_lock lock(state_->mutex);
    auto port = state_->ports.find(portRef);
    if (port == state_->ports.end() || !port->second.input)
        return state_->wrongKind(portRef, kMIDIInvalidPort);
    Object* source = state_->find(sourceRef);
    if (!source || source->type != kMIDIObjectType_Source)
        return state_->wrongKind(sourceRef, kMIDIUnknownEndpoint);
    auto& slot = port->second.connections[sourceRef];
    if (slot && slot->connRefCon == connRefCon)
        return noErr;  // already connected so
    // Connecting again with another reference replaces the connection; lists queued before go nowhere.
    auto connection = std::make_shared<Connection>(keyOf(portRef, sourceRef), port->second.readProc,
                                                   port->second.refCon, connRefCon);
    if (slot)
        slot->active.store(false, std::memory_order_seq_cst);
    state_->replaceConnection(*source, slot, connection);
    slot = std::move(connection);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::portDisconnectSource(MIDIPortRef portRef, MIDIEndpointRef sourceRef)
{
    if (auto status = state_->begin(Call::PortDisconnectSource))
        return status;
    OSStatus status = noErr;
    {
        std::unique_lock lock(state_->mutex);
        auto port = state_->ports.find(portRef);
        if (port == state_->ports.end() || !port->second.input)
            return state_->wrongKind(portRef, kMIDIInvalidPort);
        auto connection = port->second.connections.find(sourceRef);
        if (connection == port->second.connections.end()) {
            // Not connected, or no more: the source may have gone, with a callback of it still running
            // on the service thread. Wait for that below like for any disconnect.
            status = kMIDIParamErr;
        } else {
            connection->second->active.store(false, std::memory_order_seq_cst);
            if (Object* source = state_->find(sourceRef))
                state_->replaceConnection(*source, connection->second, nullptr);
            port->second.connections.erase(connection);
        }
    }
    EndedCallbacks ended;
    ended.keys.push_back(keyOf(portRef, sourceRef));
    state_->dispatcher->waitForEnded(ended);
    return status;
}

OSStatus VelmorInProcessMIDIService::portDispose(MIDIPortRef portRef)
{
    if (auto status = state_->begin(Call::PortDispose))
        return status;
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        auto port = state_->ports.find(portRef);
        if (port == state_->ports.end())
            return state_->wrongKind(portRef, kMIDIInvalidPort);
        state_->disposePort(port->second, ended);
        if (auto client = state_->clients.find(port->second.client); client != state_->clients.end())
            eraseValue(client->second.ports, portRef);
        state_->ports.erase(port);
    }
    state_->dispatcher->waitForEnded(ended);
    return noErr;
}

// --- Endpoints and packets -------------------------------------------------------------------------------------

OSStatus VelmorInProcessMIDIService::sourceCreate(MIDIClientRef clientRef, std::string_view name,
                                                  MIDIEndpointRef* outSource)
{
    if (auto status = state_->begin(Call::SourceCreate))
        return status;
    if (!outSource)
        return kMIDIParamErr;
    std::unique_lock lock(state_->mutex);
    auto client = state_->clients.find(clientRef);
    if (client == state_->clients.end())
        return state_->wrongKind(clientRef, kMIDIInvalidClient);
    Object& source = state_->addObject(kMIDIObjectType_Source, 0, false, name);
    source.owner = clientRef;
    client->second.sources.push_back(source.ref);
    state_->sourceList.push_back(source.ref);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, source);
    *outSource = source.ref;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::endpointDispose(MIDIEndpointRef endpoint)
{
    if (auto status = state_->begin(Call::EndpointDispose))
        return status;
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        const Object* object = state_->find(endpoint);
        if (!object)
            return state_->wrongKind(endpoint, kMIDIUnknownEndpoint);
        // Only endpoints a client made can be disposed of; a device's belong to its driver.
        if (object->owner == 0)
            return kMIDIUnknownEndpoint;
        state_->removeTree(endpoint, ended);
    }
    state_->dispatcher->waitForEnded(ended);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::received(MIDIEndpointRef sourceRef, const MIDIPacketList* packetList)
{
    if (auto status = state_->begin(Call::Received))
        return status;
    if (!packetList)
        return kMIDIParamErr;
    std::shared_ptr<const ConnectionList> connections;
    {
        std::shared_lock lock(state_->mutex);
        const Object* source = state_->find(sourceRef);
        if (!source)
            return state_->wrongKind(sourceRef, kMIDIUnknownEndpoint);
        if (source->type != kMIDIObjectType_Source || source->owner == 0)
            return kMIDIUnknownEndpoint;  // only a virtual source receives from its client
        connections = source->connections;
    }
    if (connections->empty())
        return noErr;
    const auto size = MIDIPacketListByteSize(packetList);
    state_->dispatcher->enqueuePackets(std::move(connections), size,
                                       [&](std::uint8_t* out) { std::memcpy(out, packetList, size); });
    return noErr;
}

OSStatus VelmorInProcessMIDIService::send(MIDIPortRef portRef, MIDIEndpointRef destinationRef,
                                          const MIDIPacketList* packetList)
{
    if (auto status = state_->begin(Call::Send))
        return status;
    if (!packetList)
        return kMIDIParamErr;
    std::shared_ptr<ObserverTarget> observer;
    {
        std::shared_lock lock(state_->mutex);
        auto port = state_->ports.find(portRef);
        if (port == state_->ports.end() || port->second.input)
            return state_->wrongKind(portRef, kMIDIInvalidPort);
        const Object* destination = state_->find(destinationRef);
        if (!destination || destination->type != kMIDIObjectType_Destination)
            return state_->wrongKind(destinationRef, kMIDIUnknownEndpoint);
        observer = destination->observer;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(packetList);
        Arrival arrival {std::vector<std::uint8_t>(bytes, bytes + MIDIPacketListByteSize(packetList)),
                         AudioGetCurrentHostTime()};
        // Still under the shared lock, so that arrivals and observer calls keep one order.
        std::lock_guard<std::mutex> arrivalsLock(state_->arrivalsMutex);
        if (observer)
            state_->dispatcher->enqueueObserver(observer, arrival.packetListImage);
        state_->arrivals[destinationRef].push_back(std::move(arrival));
    }
    return noErr;
}

// --- Enumeration -------------------------------------------------------------------------------------------

ItemCount VelmorInProcessMIDIService::numberOfSources()
{
    if (state_->begin(Call::GetNumberOfSources))
        return 0;
    std::shared_lock lock(state_->mutex);
    return state_->sourceList.size();
}

MIDIEndpointRef VelmorInProcessMIDIService::source(ItemCount index)
{
    if (state_->begin(Call::GetSource))
        return 0;
    std::shared_lock lock(state_->mutex);
    return index < state_->sourceList.size() ? state_->sourceList[index] : 0;
}

ItemCount VelmorInProcessMIDIService::numberOfDestinations()
{
    if (state_->begin(Call::GetNumberOfDestinations))
        return 0;
    std::shared_lock lock(state_->mutex);
    return state_->destinationList.size();
}

MIDIEndpointRef VelmorInProcessMIDIService::destination(ItemCount index)
{
    if (state_->begin(Call::GetDestination))
        return 0;
    std::shared_lock lock(state_->mutex);
    return index < state_->destinationList.size() ? state_->destinationList[index] : 0;
}

namespace {

template <class Member>
ItemCount childCount(const std::unordered_map<MIDIObjectRef, Object>& objects, MIDIObjectRef ref,
                     MIDIObjectType type, Member member)
{
    auto it = objects.find(ref);
    return it == objects.end() || it->second.type != type ? 0 : (it->second.*member).size();
}

template <class Member>
MIDIObjectRef childAt(const std::unordered_map<MIDIObjectRef, Object>& objects, MIDIObjectRef ref,
                      MIDIObjectType type, Member member, ItemCount index)
{
    auto it = objects.find(ref);
    if (it == objects.end() || it->second.type != type)
        return 0;
    const auto& children = it->second.*member;
    return index < children.size() ? children[index] : 0;
}

} // namespace

ItemCount VelmorInProcessMIDIService::deviceNumberOfEntities(MIDIDeviceRef device)
{
    if (state_->begin(Call::DeviceGetNumberOfEntities))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, device, kMIDIObjectType_Device, &Object::entities);
}

MIDIEntityRef VelmorInProcessMIDIService::deviceEntity(MIDIDeviceRef device, ItemCount index)
{
    if (state_->begin(Call::DeviceGetEntity))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, device, kMIDIObjectType_Device, &Object::entities, index);
}

ItemCount VelmorInProcessMIDIService::entityNumberOfSources(MIDIEntityRef entity)
{
    if (state_->begin(Call::EntityGetNumberOfSources))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, entity, kMIDIObjectType_Entity, &Object::sources);
}

MIDIEndpointRef VelmorInProcessMIDIService::entitySource(MIDIEntityRef entity, ItemCount index)
{
    if (state_->begin(Call::EntityGetSource))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, entity, kMIDIObjectType_Entity, &Object::sources, index);
}

ItemCount VelmorInProcessMIDIService::entityNumberOfDestinations(MIDIEntityRef entity)
{
    if (state_->begin(Call::EntityGetNumberOfDestinations))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, entity, kMIDIObjectType_Entity, &Object::destinations);
}

MIDIEndpointRef VelmorInProcessMIDIService::entityDestination(MIDIEntityRef entity, ItemCount index)
{
    if (state_->begin(Call::EntityGetDestination))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, entity, kMIDIObjectType_Entity, &Object::destinations, index);
}

OSStatus VelmorInProcessMIDIService::endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity)
{
    if (auto status = state_->begin(Call::EndpointGetEntity))
        return status;
    if (!outEntity)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(endpoint);
    if (!object || (object->type != kMIDIObjectType_Source && object->type != kMIDIObjectType_Destination))
        return state_->wrongKind(endpoint, kMIDIUnknownEndpoint);
    *outEntity = object->parent;  // 0 for a virtual source
    return noErr;
}

// --- Properties ----------------------------------------------------------------------------------------------

OSStatus VelmorInProcessMIDIService::getStringProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                       std::optional<std::string>* outString)
{
    if (auto status = state_->begin(Call::ObjectGetStringProperty))
        return status;
    if (!outString)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID == kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;  // an integer
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        outString->reset();
    else
        *outString = it->second;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::setStringProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                       std::string_view value)
{
    if (auto status = state_->begin(Call::ObjectSetStringProperty))
        return status;
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID == kMIDIPropertyUniqueID || propertyID.empty())
        return kMIDIUnknownProperty;
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        object->strings.emplace(propertyID, value);
    else
        it->second = value;
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::getIntegerProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                        std::int32_t* outValue)
{
    if (auto status = state_->begin(Call::ObjectGetIntegerProperty))
        return status;
    if (!outValue)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    *outValue = object->uniqueID;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::setIntegerProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                        std::int32_t value)
{
    if (auto status = state_->begin(Call::ObjectSetIntegerProperty))
        return status;
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    // 0 is "no ID", which any number of objects may have.
    if (value != 0) {
        auto holder = state_->uniqueIDs.find(value);
        if (holder != state_->uniqueIDs.end() && holder->second != objectRef)
            return kMIDIIDNotUnique;
    }
    if (auto own = state_->uniqueIDs.find(object->uniqueID); own != state_->uniqueIDs.end() && own->second == objectRef)
        state_->uniqueIDs.erase(own);
    object->uniqueID = value;
    if (value != 0)
        state_->uniqueIDs[value] = objectRef;
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

} // namespace VelmorPlatform

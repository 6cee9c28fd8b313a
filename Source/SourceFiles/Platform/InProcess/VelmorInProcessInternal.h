#pragma once

// What the in-process service's files share: the call table, packet-list images, the service thread,
// the graph's lock and the object graph. Private to the service.

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
#include <pthread.h>
#include <thread>
#include <unordered_map>
#include <utility>

#include "VelmorHostClock.h"
#include "VelmorObjectSnapshots.h"

namespace VelmorPlatform {

namespace InProcessInternal {

// --- Calls that can be counted and made to fail ------------------------------------------------------

enum class Call : std::size_t {
    ClientCreate, ClientDispose, InputPortCreate, OutputPortCreate, PortConnectSource, PortDisconnectSource,
    PortDispose, SourceCreate, EndpointDispose, Received, Send, GetNumberOfSources, GetSource,
    GetNumberOfDestinations, GetDestination, DeviceGetNumberOfEntities, DeviceGetEntity,
    EntityGetNumberOfSources, EntityGetSource, EntityGetNumberOfDestinations, EntityGetDestination,
    EndpointGetEntity, ObjectGetStringProperty, ObjectSetStringProperty, ObjectGetIntegerProperty,
    ObjectSetIntegerProperty, Count
};

inline constexpr std::array<std::string_view, std::size_t(Call::Count)> callNames = {
    "MIDIClientCreate", "MIDIClientDispose", "MIDIInputPortCreate", "MIDIOutputPortCreate",
    "MIDIPortConnectSource", "MIDIPortDisconnectSource", "MIDIPortDispose", "MIDISourceCreate",
    "MIDIEndpointDispose", "MIDIReceived", "MIDISend", "MIDIGetNumberOfSources", "MIDIGetSource",
    "MIDIGetNumberOfDestinations", "MIDIGetDestination", "MIDIDeviceGetNumberOfEntities", "MIDIDeviceGetEntity",
    "MIDIEntityGetNumberOfSources", "MIDIEntityGetSource", "MIDIEntityGetNumberOfDestinations",
    "MIDIEntityGetDestination", "MIDIEndpointGetEntity", "MIDIObjectGetStringProperty",
    "MIDIObjectSetStringProperty", "MIDIObjectGetIntegerProperty", "MIDIObjectSetIntegerProperty",
};

static_assert(!callNames.back().empty(), "a name for every call");

inline std::optional<std::size_t> callIndex(std::string_view name)
{
    for (std::size_t i = 0; i < callNames.size(); ++i) {
        if (callNames[i] == name)
            return i;
    }
    return std::nullopt;
}

// References are never reused in the process, not even by a second service.
inline std::atomic<MIDIObjectRef> lastReference {0x10000};

inline MIDIObjectRef newReference()
{
    return lastReference.fetch_add(1, std::memory_order_relaxed) + 1;
}

// --- Packet-list images --------------------------------------------------------------------------------

inline constexpr std::size_t packetHeaderSize = 10;   // time stamp, length
inline constexpr std::size_t listHeaderSize = 4;      // count
inline constexpr std::size_t maxPacketLength = 65535;

inline void putLE(std::uint8_t* out, std::uint64_t value, std::size_t width)
{
    for (std::size_t i = 0; i < width; ++i)
        out[i] = std::uint8_t(value >> (8 * i));
}

inline std::uint64_t getLE(const std::uint8_t* in, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t(in[i]) << (8 * i);
    return value;
}

inline std::size_t imageSizeForBytes(std::size_t length)
{
    const std::size_t packets = length == 0 ? 1 : (length + maxPacketLength - 1) / maxPacketLength;
    return listHeaderSize + packets * packetHeaderSize + length;
}

// Writes `bytes` as one list, cut into packets of at most 65535 bytes, all with the same time stamp.
inline void writeImageForBytes(std::uint8_t* out, std::span<const std::uint8_t> bytes, MIDITimeStamp timeStamp)
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
inline bool isWellFormedImage(std::span<const std::uint8_t> image)
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

struct NotifyTarget : Target {
    NotifyTarget(CallbackKey targetKey, MIDINotifyProc proc, void* notifyRefCon)
        : Target(targetKey), notifyProc(proc), refCon(notifyRefCon) {}
    const MIDINotifyProc notifyProc;
    void* const refCon;
};

struct Connection : Target {
    Connection(CallbackKey targetKey, MIDIReadProc proc, void* portRefCon, void* connectionRefCon,
               std::shared_ptr<NotifyTarget> clientNotify)
        : Target(targetKey), readProc(proc), readProcRefCon(portRefCon), connRefCon(connectionRefCon),
          notify(std::move(clientNotify)) {}
    const MIDIReadProc readProc;
    void* const readProcRefCon;  // the client's; the service never touches what it points at
    void* const connRefCon;      // likewise
    const std::shared_ptr<NotifyTarget> notify;  // the port's client's, told of input it lost; may be null
    std::atomic<std::uint64_t> lost {0};         // packets dropped and not yet told
    std::atomic<bool> lossQueued {false};        // a report of them waits in the queue
};
using ConnectionList = std::vector<std::shared_ptr<Connection>>;

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
    enum class Kind : std::uint8_t { Packets, Notification, Observer, Lost };
    Kind kind = Kind::Packets;
    std::size_t offset = 0;  // packet-list image or property name in the batch's bytes
    std::shared_ptr<const ConnectionList> connections;  // Packets
    std::shared_ptr<Target> target;                     // Notification, Observer, Lost (the connection)
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
        thread_ = std::thread([self = shared_from_this()] {
            pthread_setname_np(pthread_self(), "Velmor service");  // for top, perf and debuggers
            self->run();
        });
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

    // `fill` writes `size` bytes of packet-list image. A device's input (`bounded`) beyond the bound is
    // dropped, as a device can't be made to wait, and each connection's client hears how many packets
    // it lost, once per run of losses: the report takes one entry per connection at most. A client's
    // own MIDIReceived is not dropped: nothing in the process may lose what a program sent.
    template <class Fill>
    void enqueuePackets(std::shared_ptr<const ConnectionList> connections, std::size_t size, Fill&& fill,
                        bool bounded = false)
    {
        Entry entry;
        entry.kind = Entry::Kind::Packets;
        std::unique_lock<std::mutex> lock(mutex_);
        const std::size_t before = pending_.bytes.size();
        entry.offset = reserve(size);
        fill(pending_.bytes.data() + entry.offset);
        if (bounded && !pending_.entries.empty()
            && (pending_.entries.size() >= maximumEntries_ || pending_.bytes.size() > maximumBytes_)) {
            const std::uint64_t packets = getLE(pending_.bytes.data() + entry.offset, 4);
            pending_.bytes.resize(before);
            for (const auto& connection : *connections) {
                connection->lost.fetch_add(packets, std::memory_order_relaxed);
                if (connection->notify && !connection->lossQueued.exchange(true, std::memory_order_relaxed)) {
                    Entry report;
                    report.kind = Entry::Kind::Lost;
                    report.target = connection;
                    push(std::move(report), lock, false);
                }
            }
            wakeIfSleeping(lock);
            return;
        }
        entry.connections = std::move(connections);
        push(std::move(entry), lock);
    }

    // The bound on callbacks waiting for the service thread: entries, and bytes of their images.
    void setMaximumPending(std::size_t entries, std::size_t bytes)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        maximumEntries_ = entries;
        maximumBytes_ = bytes;
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
        case Entry::Kind::Lost: {
            auto& connection = static_cast<Connection&>(*entry.target);
            connection.lossQueued.store(false, std::memory_order_relaxed);
            const std::uint64_t lost = connection.lost.exchange(0, std::memory_order_relaxed);
            if (lost == 0 || !connection.active.load(std::memory_order_seq_cst) || !enter(*connection.notify))
                break;
            MIDIInputDroppedNotification record {};
            record.messageID = kMIDIMsgVelmorInputDropped;
            record.messageSize = sizeof record;
            record.port = ownerOf(connection.key);
            record.source = endpointOf(connection.key);
            record.eventsLost = lost;
            connection.notify->notifyProc(reinterpret_cast<const MIDINotification*>(&record), connection.notify->refCon);
            leave();
            break;
        }
        }
    }

    void run()
    {
        Batch working;
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            // No look-ahead spin: on one processor it takes time from the thread that feeds us.
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
            // A burst or one long exclusive message shouldn't pin its memory after it has drained.
            if (working.bytes.capacity() > (std::size_t(1) << 20))
                working.bytes.shrink_to_fit();
            if (working.entries.capacity() > 4096)
                working.entries.shrink_to_fit();
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
    std::size_t maximumEntries_ = 8192;
    std::size_t maximumBytes_ = std::size_t(2) << 20;
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
        if (beforeUnlock_)
            beforeUnlock_(context_);  // still exclusive
        state_.fetch_and(~writerBit, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            changed_.notify_all();
        }
        writers_.unlock();
    }

    // Runs at the end of every exclusive section, before another thread can get in.
    void setBeforeUnlock(void (*hook)(void*), void* context)
    {
        beforeUnlock_ = hook;
        context_ = context;
    }

private:
    static constexpr std::uint32_t writerBit = 0x80000000u;
    void (*beforeUnlock_)(void*) = nullptr;
    void* context_ = nullptr;
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

} // namespace InProcessInternal

// Only the service's own files include this header.
using namespace InProcessInternal;

// --- State -------------------------------------------------------------------------------------------------

struct VelmorInProcessMIDIService::State {
    std::shared_ptr<Dispatcher> dispatcher = std::make_shared<Dispatcher>();

    State() { mutex.setBeforeUnlock([](void* state) { static_cast<State*>(state)->endWrite(); }, this); }

    mutable GraphMutex mutex;  // the graph below; writers only: reads go to the snapshots
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

    // What readers see: published at the end of each exclusive section, before the section's
    // notifications are queued, so that a callback already reads what it reports.
    VelmorObjectSnapshots snapshots;
    std::vector<MIDIObjectRef> changed;  // objects whose snapshot is out of date
    bool listsChanged = false;
    struct PendingNotification {
        MIDIObjectAddRemoveNotification record {};
        std::string propertyName;
    };
    std::vector<PendingNotification> pendingNotifications;

    // Publishes the changed snapshots, then queues the notifications of the section.
    void endWrite();
    std::shared_ptr<const VelmorObjectSnapshot> snapshotOf(const Object& object) const;

    void notifyAll(const MIDIObjectAddRemoveNotification& record, std::string_view propertyName = {});
    void notifyAddedRemoved(MIDINotificationMessageID messageID, const Object& child);
    void notifyPropertyChanged(const Object& object, std::string_view propertyName);

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

} // namespace VelmorPlatform

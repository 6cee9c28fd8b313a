#pragma once

// Property reads and enumeration without a lock, for the services behind the boundary.
//
// A service keeps an immutable snapshot of each of its objects (properties and children) and of its
// lists of sources and destinations. When something changes it stages the new snapshots and publishes
// them as one new version. A reader on any thread usually pays one atomic load: each thread keeps the
// version it saw last and takes the new one (under a mutex held for a pointer copy) only when the
// version moved on.
//
// Enumeration is consistent per thread: a count call takes the list as it is, and the item calls of
// the same thread answer from that list until the thread's next count call of the same kind, so that
// a pass never sees one endpoint twice or skips one. An item call without a count before it answers
// from the current version.

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "VelmorMIDIServices.h"

namespace VelmorPlatform {

struct VelmorObjectSnapshot {
    MIDIObjectType type = kMIDIObjectType_Other;
    MIDIObjectRef parent = 0;  // entity of an endpoint, device of an entity
    std::int32_t uniqueID = 0;
    std::map<std::string, std::string, std::less<>> strings;  // a missing key reads as no string
    std::vector<MIDIObjectRef> entities;                       // of a device
    std::vector<MIDIObjectRef> sources;                        // of an entity
    std::vector<MIDIObjectRef> destinations;                   // of an entity
};

class VelmorObjectSnapshots {
public:
    enum class List : std::uint8_t { Sources, Destinations };
    enum class Children : std::uint8_t { Entities, Sources, Destinations };

    VelmorObjectSnapshots();
    VelmorObjectSnapshots(const VelmorObjectSnapshots&) = delete;
    VelmorObjectSnapshots& operator=(const VelmorObjectSnapshots&) = delete;

    // --- Writer: one thread at a time, under the service's own lock -------------------------------
    // Stages the snapshot of `ref` for the next version; null removes the object.
    void put(MIDIObjectRef ref, std::shared_ptr<const VelmorObjectSnapshot> snapshot);
    // Stages the removal of every object (a full rebuild follows with put()).
    void removeAll();
    void putList(List list, std::vector<MIDIEndpointRef> refs);
    bool hasStaged() const { return staged_; }
    // Makes what was staged visible to every reader at once. Nothing staged: nothing happens.
    void publish();

    // --- Readers: any thread, no lock -------------------------------------------------------------
    // The object's snapshot in the current version, or null. The pointer stays valid until this thread
    // calls a reader operation again (of any instance).
    const VelmorObjectSnapshot* find(MIDIObjectRef ref) const;
    ItemCount count(List list) const;
    MIDIObjectRef item(List list, ItemCount index) const;
    // The children of `parent` if it is of `parentType`, else none.
    ItemCount childCount(MIDIObjectRef parent, MIDIObjectType parentType, Children children) const;
    MIDIObjectRef child(MIDIObjectRef parent, MIDIObjectType parentType, Children children, ItemCount index) const;

    struct Graph;
    struct Reader;

private:
    static constexpr std::size_t kBuckets = 64;
    using Bucket = std::unordered_map<MIDIObjectRef, std::shared_ptr<const VelmorObjectSnapshot>>;
    using RefList = std::vector<MIDIEndpointRef>;

    const Graph& current(Reader& reader) const;
    const std::vector<MIDIObjectRef>* childList(const VelmorObjectSnapshot* object, MIDIObjectType parentType,
                                                Children children) const;

    const std::uint64_t id_;  // tells the instances apart in a thread's reader
    // A reader takes the mutex only when the version has moved on since its last read, once per version.
    mutable std::mutex publishedMutex_;
    std::shared_ptr<const Graph> published_;  // guarded by publishedMutex_
    std::atomic<std::uint64_t> version_ {1};

    // Writer only.
    std::shared_ptr<const Graph> writerGraph_;
    std::array<std::shared_ptr<Bucket>, kBuckets> stagedBuckets_;
    std::array<std::shared_ptr<const RefList>, 2> stagedLists_;
    bool staged_ = false;
};

} // namespace VelmorPlatform

#include "VelmorObjectSnapshots.h"

#include <utility>

namespace VelmorPlatform {

struct VelmorObjectSnapshots::Graph {
    std::uint64_t version = 1;
    // Objects spread over buckets by reference, so that a change copies one bucket, not every object.
    std::array<std::shared_ptr<const Bucket>, kBuckets> buckets;
    std::array<std::shared_ptr<const RefList>, 2> lists;
};

// What one thread last saw of one instance, and its enumeration passes.
struct VelmorObjectSnapshots::Reader {
    std::uint64_t owner = 0;
    std::uint64_t version = 0;
    std::shared_ptr<const Graph> graph;
    std::array<std::shared_ptr<const RefList>, 2> lists;
    struct ChildPass {
        MIDIObjectRef parent = 0;
        MIDIObjectType parentType = kMIDIObjectType_Other;
        std::shared_ptr<const Graph> graph;  // keeps `object` alive
        const VelmorObjectSnapshot* object = nullptr;
    };
    std::array<ChildPass, 3> children;
};

namespace {

std::atomic<std::uint64_t> lastInstance {0};

// A thread's reader lives in a thread_local whose destructor runs at the thread's end. The main thread
// may read again after that, from the destructor of an object with static storage duration: it then
// reads through a reader that is never destroyed.
thread_local VelmorObjectSnapshots::Reader* readerOfThread = nullptr;

VelmorObjectSnapshots::Reader& readerAfterExit()
{
    static auto* reader = new VelmorObjectSnapshots::Reader;  // kept on purpose, for the process's life
    return *reader;
}

struct ReaderHolder {
    VelmorObjectSnapshots::Reader reader;
    ~ReaderHolder() { readerOfThread = &readerAfterExit(); }
};

VelmorObjectSnapshots::Reader& threadReader()
{
    if (!readerOfThread) {
        thread_local ReaderHolder holder;
        readerOfThread = &holder.reader;
    }
    return *readerOfThread;
}

std::size_t bucketOf(MIDIObjectRef ref, std::size_t buckets)
{
    return ref % buckets;
}

} // namespace

VelmorObjectSnapshots::VelmorObjectSnapshots()
    : id_(lastInstance.fetch_add(1, std::memory_order_relaxed) + 1)
{
    auto graph = std::make_shared<Graph>();
    for (auto& list : graph->lists)
        list = std::make_shared<const RefList>();
    writerGraph_ = graph;
    published_ = std::move(graph);
}

// --- Writer ------------------------------------------------------------------------------------------

void VelmorObjectSnapshots::put(MIDIObjectRef ref, std::shared_ptr<const VelmorObjectSnapshot> snapshot)
{
    const std::size_t index = bucketOf(ref, kBuckets);
    auto& bucket = stagedBuckets_[index];
    if (!bucket) {
        const auto& published = writerGraph_->buckets[index];
        bucket = published ? std::make_shared<Bucket>(*published) : std::make_shared<Bucket>();
    }
    if (snapshot)
        (*bucket)[ref] = std::move(snapshot);
    else
        bucket->erase(ref);
    staged_ = true;
}

void VelmorObjectSnapshots::removeAll()
{
    for (auto& bucket : stagedBuckets_)
        bucket = std::make_shared<Bucket>();
    staged_ = true;
}

void VelmorObjectSnapshots::putList(List list, std::vector<MIDIEndpointRef> refs)
{
    stagedLists_[std::size_t(list)] = std::make_shared<const RefList>(std::move(refs));
    staged_ = true;
}

void VelmorObjectSnapshots::publish()
{
    if (!staged_)
        return;
    auto next = std::make_shared<Graph>(*writerGraph_);
    for (std::size_t i = 0; i < kBuckets; ++i) {
        if (stagedBuckets_[i])
            next->buckets[i] = std::move(stagedBuckets_[i]);
        stagedBuckets_[i].reset();
    }
    for (std::size_t i = 0; i < stagedLists_.size(); ++i) {
        if (stagedLists_[i])
            next->lists[i] = std::move(stagedLists_[i]);
        stagedLists_[i].reset();
    }
    next->version = writerGraph_->version + 1;
    staged_ = false;
    writerGraph_ = next;
    // The graph before the version: a reader that sees the new version finds the new graph.
    std::shared_ptr<const Graph> previous;  // let go of outside the mutex
    {
        std::lock_guard<std::mutex> lock(publishedMutex_);
        previous = std::exchange(published_, next);
    }
    version_.store(next->version, std::memory_order_release);
}

// --- Readers -----------------------------------------------------------------------------------------

const VelmorObjectSnapshots::Graph& VelmorObjectSnapshots::current(Reader& reader) const
{
    const auto version = version_.load(std::memory_order_acquire);
    if (reader.owner != id_) {
        reader = Reader {};
        reader.owner = id_;
    } else if (reader.version == version) {
        return *reader.graph;
    }
    std::shared_ptr<const Graph> graph;
    {
        std::lock_guard<std::mutex> lock(publishedMutex_);
        graph = published_;
    }
    reader.graph = std::move(graph);
    reader.version = reader.graph->version;
    return *reader.graph;
}

const VelmorObjectSnapshot* VelmorObjectSnapshots::find(MIDIObjectRef ref) const
{
    const Graph& graph = current(threadReader());
    const auto& bucket = graph.buckets[bucketOf(ref, kBuckets)];
    if (!bucket)
        return nullptr;
    auto it = bucket->find(ref);
    return it == bucket->end() ? nullptr : it->second.get();
}

ItemCount VelmorObjectSnapshots::count(List list) const
{
    Reader& reader = threadReader();
    const Graph& graph = current(reader);
    auto& pass = reader.lists[std::size_t(list)];
    pass = graph.lists[std::size_t(list)];
    return pass->size();
}

MIDIObjectRef VelmorObjectSnapshots::item(List list, ItemCount index) const
{
    Reader& reader = threadReader();
    const Graph& graph = current(reader);
    const auto& pass = reader.lists[std::size_t(list)];
    const RefList& refs = pass ? *pass : *graph.lists[std::size_t(list)];
    return index < refs.size() ? refs[index] : 0;
}

const std::vector<MIDIObjectRef>* VelmorObjectSnapshots::childList(const VelmorObjectSnapshot* object,
                                                                   MIDIObjectType parentType,
                                                                   Children children) const
{
    if (!object || object->type != parentType)
        return nullptr;
    switch (children) {
    case Children::Entities: return &object->entities;
    case Children::Sources: return &object->sources;
    case Children::Destinations: return &object->destinations;
    }
    return nullptr;
}

ItemCount VelmorObjectSnapshots::childCount(MIDIObjectRef parent, MIDIObjectType parentType,
                                            Children children) const
{
    const VelmorObjectSnapshot* object = find(parent);
    Reader& reader = threadReader();
    auto& pass = reader.children[std::size_t(children)];
    pass.parent = parent;
    pass.parentType = parentType;
    pass.graph = reader.graph;
    pass.object = object;
    const auto* list = childList(object, parentType, children);
    return list ? list->size() : 0;
}

MIDIObjectRef VelmorObjectSnapshots::child(MIDIObjectRef parent, MIDIObjectType parentType, Children children,
                                           ItemCount index) const
{
    const VelmorObjectSnapshot* object = find(parent);
    Reader& reader = threadReader();
    const auto& pass = reader.children[std::size_t(children)];
    if (pass.graph && pass.parent == parent && pass.parentType == parentType)
        object = pass.object;
    const auto* list = childList(object, parentType, children);
    return list && index < list->size() ? (*list)[index] : 0;
}

} // namespace VelmorPlatform

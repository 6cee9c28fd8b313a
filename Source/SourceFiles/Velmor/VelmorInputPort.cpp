#include "VelmorInputPort.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <limits>

#include "VelmorCallbackContext.h"
#include "VelmorClient.h"
#include "VelmorFailure.h"
#include "VelmorMainQueue.h"
#include "VelmorManager.h"
#include "VelmorPacketList.h"
#include "VelmorRemoteSource.h"
#include "VelmorValue.h"

namespace {

std::atomic<std::uint64_t> sMaximumPendingEvents {VelmorInputPort::defaultMaximumPendingInputEvents};
std::atomic<std::uint64_t> sMaximumPendingBytes {VelmorInputPort::defaultMaximumPendingInputBytes};

} // namespace

// What the service calls the read procedure with for the port: the port, weakly, and the count of
// what waits for the main thread.
struct VelmorInputPort::PortContext final : VelmorCallbackContext {
    using VelmorCallbackContext::VelmorCallbackContext;

    // Any thread: reserves room for a list, or says no when it would pass the bound.
    bool admit(std::uint64_t events, std::uint64_t bytes)
    {
        const std::uint64_t maximumEvents = sMaximumPendingEvents.load(std::memory_order_relaxed);
        const std::uint64_t maximumBytes = sMaximumPendingBytes.load(std::memory_order_relaxed);
        std::uint64_t waiting = pendingEvents.load(std::memory_order_relaxed);
        do {
            if (waiting != 0
                && (waiting + events > maximumEvents
                    || pendingBytes.load(std::memory_order_relaxed) + bytes > maximumBytes))
                return false;
        } while (!pendingEvents.compare_exchange_weak(waiting, waiting + events, std::memory_order_relaxed));
        pendingBytes.fetch_add(bytes, std::memory_order_relaxed);
        return true;
    }
    // Main thread. Once a large backlog has drained, its memory goes back to the system: the lists
    // were made on another thread, and the allocator would otherwise keep their pages for good.
    void delivered(std::uint64_t events, std::uint64_t bytes)
    {
        const std::uint64_t waiting = release(events, bytes);
        peakSinceTrim = std::max(peakSinceTrim, waiting + events);
        if (waiting == 0 && peakSinceTrim >= 4096) {
            peakSinceTrim = 0;
            malloc_trim(0);
        }
    }

    // Any thread: gives back what admit() reserved; returns the events still waiting.
    std::uint64_t release(std::uint64_t events, std::uint64_t bytes)
    {
        pendingBytes.fetch_sub(bytes, std::memory_order_relaxed);
        return pendingEvents.fetch_sub(events, std::memory_order_relaxed) - events;
    }

    std::atomic<std::uint64_t> pendingEvents {0};
    std::atomic<std::uint64_t> pendingBytes {0};
    std::uint64_t peakSinceTrim = 0;  // main thread
};

// What the service calls the read procedure with for one connection: the source, weakly, and what
// was lost of its input and not yet reported.
struct VelmorInputPort::ConnectionContext final : VelmorCallbackContext {
    using VelmorCallbackContext::VelmorCallbackContext;

    // Any thread. `events` 0: an unknown number. The first drop since the last report asks for one
    // ahead of the backlog; later ones add to it.
    void addDrop(std::uint64_t events)
    {
        if (events)
            dropped.fetch_add(events, std::memory_order_relaxed);
        else
            uncounted.fetch_add(1, std::memory_order_relaxed);
        if (reportQueued.exchange(true, std::memory_order_acq_rel))
            return;
        auto self = std::static_pointer_cast<ConnectionContext>(weak_from_this().lock());
        if (self)
            VelmorMainQueue::mainQueue().postUrgent([self] { self->report(); });
    }

    // Main thread: at most one notification per source per pass of the queue; a second waits for the
    // next pass, with whatever is lost until then.
    void report()
    {
        auto& queue = VelmorMainQueue::mainQueue();
        if (reportedInPass == queue.passCount()) {
            auto self = std::static_pointer_cast<ConnectionContext>(shared_from_this());
            queue.post([self] { self->report(); });
            return;
        }
        // Cleared before the counts are taken: a drop from now on asks for a report of its own.
        reportQueued.store(false, std::memory_order_seq_cst);
        const std::uint64_t events = dropped.exchange(0, std::memory_order_relaxed);
        const std::uint64_t unknown = uncounted.exchange(0, std::memory_order_relaxed);
        if (events == 0 && unknown == 0)
            return;
        reportedInPass = queue.passCount();
        VelmorDictionary userInfo;
        if (auto source = object<VelmorRemoteSource>())
            userInfo.setObjectForKey(VelmorValue(std::static_pointer_cast<VelmorRootObject>(source)), VelmorManager_SourceKey);
        userInfo.setObjectForKey(VelmorValue(events), VelmorManager_DroppedEventCountKey);
        VelmorNotificationCenter::defaultCenter().postNotification(
            VelmorNotification {std::string(VelmorManager_SourceDidDropEventsNotification),
                                VelmorManager::sharedManager(), std::move(userInfo)});
    }

    std::atomic<std::uint64_t> dropped {0};
    std::atomic<std::uint64_t> uncounted {0};
    std::atomic<bool> reportQueued {false};
    std::uint64_t reportedInPass = std::numeric_limits<std::uint64_t>::max();  // main thread
};

namespace {

// The deferred call of one packet list. It holds the port, the source and the list strongly, and runs
// and is freed on the main thread. Spent calls are kept for reuse, so a steady stream allocates none.
struct Delivery final : VelmorMainQueueItem {
    void run() override
    {
        port->handlePacketListFromSource(list, source);
        context->delivered(events, bytes);
    }
    void release() override;

    std::shared_ptr<VelmorInputPort> port;
    std::shared_ptr<VelmorRemoteSource> source;
    std::shared_ptr<VelmorPacketList> list;
    VelmorInputPort::PortContext* context = nullptr;  // the port's, alive with the port
    std::uint64_t events = 0;
    std::uint64_t bytes = 0;
    Delivery* nextFree = nullptr;
};

// Spent deliveries go back from the main thread onto one stack; a reading thread takes the whole stack
// at once into a cache of its own. Pushing one and taking all need no lock and suffer no ABA.
class DeliveryPool {
public:
    static DeliveryPool& pool()
    {
        static DeliveryPool* pool = new DeliveryPool;  // never destroyed: service threads may still read
        return *pool;
    }

    Delivery* take()
    {
        Cache& own = cache();
        if (!own.head)
            own.head = returned_.exchange(nullptr, std::memory_order_acquire);
        if (Delivery* delivery = own.head) {
            own.head = delivery->nextFree;
            kept_.fetch_sub(1, std::memory_order_relaxed);
            return delivery;
        }
        return new Delivery;
    }

    void give(Delivery* delivery)
    {
        // Enough for a burst; more would only hold memory after it.
        if (kept_.fetch_add(1, std::memory_order_relaxed) >= 4096) {
            kept_.fetch_sub(1, std::memory_order_relaxed);
            delete delivery;
            return;
        }
        delivery->nextFree = returned_.load(std::memory_order_relaxed);
        while (!returned_.compare_exchange_weak(delivery->nextFree, delivery, std::memory_order_release,
                                                std::memory_order_relaxed)) {
        }
    }

private:
    struct Cache {
        Delivery* head = nullptr;
        ~Cache()
        {
            while (Delivery* delivery = head) {
                head = delivery->nextFree;
                delete delivery;
            }
        }
    };
    static Cache& cache()
    {
        thread_local Cache own;
        return own;
    }

    std::atomic<Delivery*> returned_ {nullptr};
    std::atomic<std::size_t> kept_ {0};
};

void Delivery::release()
{
    port.reset();
    source.reset();
    list.reset();
    context = nullptr;
    DeliveryPool::pool().give(this);
}

std::uint64_t byteCount(const VelmorPacketList& list)
{
    std::uint64_t bytes = 0;
    for (const auto& packet : list.mutablePackets())
        bytes += packet ? packet->length() : 0;
    return bytes;
}

} // namespace

void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList* packetList, void* readProcRefCon,
                                    void* srcConnRefCon)
{
    if (!readProcRefCon || !srcConnRefCon || VelmorPlatform::processIsExiting())
        return;
    // The port gave the service these contexts, which outlive every call the service may still make.
    auto* portContext = static_cast<VelmorInputPort::PortContext*>(static_cast<VelmorRootObject*>(readProcRefCon));
    auto* connection = static_cast<VelmorInputPort::ConnectionContext*>(static_cast<VelmorRootObject*>(srcConnRefCon));
    // All cutting and joining happens here, off the main thread; nothing of the platform's list is kept.
    auto list = VelmorPacketList::initWithMIDIPacketList(packetList);
    const std::uint64_t events = list->count();
    if (events == 0)
        return;
    const std::uint64_t bytes = byteCount(*list);
    // Refused before any strong reference is taken: nothing of the framework's is released here.
    if (!portContext->admit(events, bytes)) {
        connection->addDrop(events);
        return;
    }
    auto port = portContext->object<VelmorInputPort>();
    if (!port) {
        portContext->release(events, bytes);
        return;
    }
    // Even without a source the call goes to the main thread: the port's last reference must drop there.
    Delivery* delivery = DeliveryPool::pool().take();
    delivery->port = std::move(port);
    delivery->source = connection->object<VelmorRemoteSource>();
    delivery->list = std::move(list);
    delivery->context = portContext;
    delivery->events = events;
    delivery->bytes = bytes;
    VelmorMainQueue::mainQueue().post(delivery);
}

// --- Construction ---------------------------------------------------------------------------------

std::shared_ptr<VelmorInputPort> VelmorInputPort::initWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                                                             const std::optional<std::string>& name,
                                                                             VelmorPlatform::MIDIReadProc readProc)
{
    if (!client || !name || name->empty())
        return nullptr;
    std::shared_ptr<VelmorInputPort> port(new VelmorInputPort());
    if (!port->constructWithClientNameReadProc(client, name, readProc))
        return nullptr;
    return port;
}

std::shared_ptr<VelmorInputPort> VelmorInputPort::init()
{
    return initWithClientNameReadProc(nullptr, std::nullopt, nullptr);
}

bool VelmorInputPort::constructWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                                      const std::optional<std::string>& name,
                                                      VelmorPlatform::MIDIReadProc readProc)
{
    defaultReadProc_ = readProc == nullptr;
    context_ = std::make_shared<PortContext>(weak_from_this());
    // A read procedure of the application's own gets the port itself, as a reference it does not own.
    void* reference = defaultReadProc_ ? context_->reference() : static_cast<VelmorRootObject*>(this);
    const VelmorPlatform::OSStatus status = VelmorPlatform::MIDIInputPortCreate(
        client->client(), *name, readProc ? readProc : VelmorInputPortDefaultReadProc, reference, &port_);
    if (status != VelmorPlatform::noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return false;
    }
    if (port_ == 0) {
        VELMOR_FAILED("_port");
        return false;
    }
    name_ = name;
    mutableSources_.clear();
    unknownSource_ = std::make_shared<ConnectionContext>(std::weak_ptr<VelmorRootObject>());
    auto self = std::static_pointer_cast<VelmorInputPort>(shared_from_this());
    VelmorNotificationCenter::defaultCenter().addObserver(self, &VelmorInputPort::inputDropped,
                                                          VelmorClient_InputDroppedNotification);
    return true;
}

VelmorInputPort::~VelmorInputPort()
{
    VelmorNotificationCenter::defaultCenter().removeObserver(this);
    removeAllSources();
    bool ended = port_ == 0;  // a port the service never made holds nothing
    if (port_ != 0) {
        ended = VelmorPlatform::MIDIPortDispose(port_) == VelmorPlatform::noErr;
        port_ = 0;
    }
    // Connections whose end the service refused may still be called, unless the whole port has ended.
    for (auto& connection : connections_)
        VelmorCallbackContext::end(std::move(connection), ended);
    VelmorCallbackContext::end(std::move(context_), ended);
}

std::string VelmorInputPort::description() const
{
    return "VelmorInputPort: " + rootDescription();
}

// --- The bound ------------------------------------------------------------------------------------

std::uint64_t VelmorInputPort::maximumPendingInputEvents()
{
    return sMaximumPendingEvents.load(std::memory_order_relaxed);
}

void VelmorInputPort::setMaximumPendingInputEvents(std::uint64_t events)
{
    sMaximumPendingEvents.store(events, std::memory_order_relaxed);
}

std::uint64_t VelmorInputPort::maximumPendingInputBytes()
{
    return sMaximumPendingBytes.load(std::memory_order_relaxed);
}

void VelmorInputPort::setMaximumPendingInputBytes(std::uint64_t bytes)
{
    sMaximumPendingBytes.store(bytes, std::memory_order_relaxed);
}

std::uint64_t VelmorInputPort::pendingInputEvents() const
{
    return context_ ? context_->pendingEvents.load(std::memory_order_relaxed) : 0;
}

// --- Connections ----------------------------------------------------------------------------------

bool VelmorInputPort::containsSource(const VelmorRemoteSource* source) const
{
    // Identity of live objects: every source compared here is held strongly.
    return std::any_of(mutableSources_.begin(), mutableSources_.end(),
                       [source](const std::shared_ptr<VelmorRemoteSource>& member) { return member.get() == source; });
}

void VelmorInputPort::addSource(const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (!source || containsSource(source.get()))
        return;
    const VelmorPlatform::MIDIEndpointRef endpoint = source->object();
    if (endpoint == 0)
        return;
    std::shared_ptr<ConnectionContext> context;
    void* reference = static_cast<VelmorRootObject*>(source.get());
    if (defaultReadProc_) {
        context = std::make_shared<ConnectionContext>(source);
        reference = context->reference();
    }
    const VelmorPlatform::OSStatus status = VelmorPlatform::MIDIPortConnectSource(port_, endpoint, reference);
    if (status != VelmorPlatform::noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return;  // a refused connection leaves the service nothing to call with
    }
    // The service keeps one connection per endpoint, and a new one replaces the old: another object of
    // this endpoint is no longer connected, and must not disconnect this one later. At its next
    // consumer it connects again. No call ended the old connection's context: it is kept.
    std::erase_if(mutableSources_, [&](const std::shared_ptr<VelmorRemoteSource>& member) {
        return member != source && member->object() == endpoint;
    });
    std::erase_if(connections_, [&](std::shared_ptr<ConnectionContext>& connection) {
        const auto member = connection->object<VelmorRemoteSource>();
        if (!member || member == source || member->object() != endpoint)
            return false;
        VelmorCallbackContext::end(std::move(connection), false);
        return true;
    });
    if (context)
        connections_.push_back(std::move(context));
    mutableSources_.push_back(source);
}

void VelmorInputPort::removeSource(const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (!source || !containsSource(source.get()))
        return;
    const VelmorPlatform::MIDIEndpointRef endpoint = source->object();
    if (endpoint == 0)
        return;
    const VelmorPlatform::OSStatus status = VelmorPlatform::MIDIPortDisconnectSource(port_, endpoint);
    if (status != VelmorPlatform::noErr && status != VelmorPlatform::kMIDIParamErr)
        return;
    std::erase_if(mutableSources_,
                  [&](const std::shared_ptr<VelmorRemoteSource>& member) { return member == source; });
    // After -50 the service may still hold the connection: its context stays for good.
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if ((*it)->object<VelmorRemoteSource>() == source) {
            auto context = std::move(*it);
            connections_.erase(it);
            VelmorCallbackContext::end(std::move(context), status == VelmorPlatform::noErr);
            break;
        }
    }
}

void VelmorInputPort::removeAllSources()
{
    const auto sources = mutableSources_;
    for (const auto& source : sources)
        removeSource(source);
}

// --- Arrival on the main thread -------------------------------------------------------------------

void VelmorInputPort::handlePacketListFromSource(const std::shared_ptr<VelmorPacketList>& packetList,
                                                 const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (source && containsSource(source.get()))
        source->handlePacketList(packetList);
}

void VelmorInputPort::inputDropped(const VelmorNotification& notification)
{
    if (!notification.userInfo)
        return;
    const auto& info = *notification.userInfo;
    const auto* port = info.objectForKey(VelmorPortKey);
    if (!port || port->unsignedValue().value_or(0) != port_ || port_ == 0)
        return;
    const auto* lost = info.objectForKey(VelmorEventsLostKey);
    const std::uint64_t events = lost ? lost->unsignedValue().value_or(0) : 0;
    const auto* endpoint = info.objectForKey(VelmorSourceKey);
    const std::uint64_t reference = endpoint ? endpoint->unsignedValue().value_or(0) : 0;
    if (reference != 0) {
        for (const auto& connection : connections_) {
            const auto source = connection->object<VelmorRemoteSource>();
            if (source && source->object() == reference) {
                connection->addDrop(events);
                return;
            }
        }
    }
    if (unknownSource_)
        unknownSource_->addDrop(events);
}

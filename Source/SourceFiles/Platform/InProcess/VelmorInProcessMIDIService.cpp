#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

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

// --- Faults, counts and waiting ----------------------------------------------------------------------------

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

// --- Virtual sources ----------------------------------------------------------------------------------------

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

} // namespace VelmorPlatform

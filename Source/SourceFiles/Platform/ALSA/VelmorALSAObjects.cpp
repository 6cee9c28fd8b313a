#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

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

// --- Enumeration and properties ---------------------------------------------------------------------

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

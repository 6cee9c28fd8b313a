// The JACK service's object graph: devices, entities and endpoints, their enumeration and properties.

#include "VelmorJACKInternal.h"

#include <jack/metadata.h>

#include <algorithm>
#include <cstdio>

namespace VelmorPlatform {

namespace {

std::uint32_t hashText(std::uint32_t hash, std::string_view text)
{
    for (unsigned char c : text)
        hash = (hash ^ c) * 16777619u;
    return (hash ^ 0xFFu) * 16777619u;  // a separator, so that "ab"+"c" differs from "a"+"bc"
}

std::uint32_t hashOf(std::string_view first, std::string_view second = {})
{
    return hashText(hashText(2166136261u, first), second);
}

// One enumeration pass per thread: the count call takes the snapshot that the item calls answer from.
struct Pass {
    const void* owner = nullptr;
    std::shared_ptr<const JACK::Model> model;
};
thread_local Pass sourcesPass;
thread_local Pass destinationsPass;

std::shared_ptr<const JACK::Model> passModel(Pass& pass, const void* owner,
                                             const JACK::SnapshotCell& snapshot)
{
    if (pass.owner == owner && pass.model)
        return pass.model;
    return snapshot.load();
}

} // namespace

// --- The model (caller holds mutex) -------------------------------------------------------------------

std::int32_t VelmorJACKMIDIService::State::uniqueIDFor(std::uint32_t hash)
{
    auto id = std::int32_t(hash);
    while (id == 0 || usedIDs.count(id))
        id = std::int32_t(std::uint32_t(id) + 1);
    usedIDs.insert(id);
    return id;
}

MIDIObjectRef VelmorJACKMIDIService::State::newObject(JACK::ObjectInfo info)
{
    const MIDIObjectRef ref = nextRef++;
    model.objects[ref] = std::move(info);
    return ref;
}

void VelmorJACKMIDIService::State::forgetObject(MIDIObjectRef ref)
{
    auto it = model.objects.find(ref);
    if (it == model.objects.end())
        return;
    usedIDs.erase(it->second.uniqueID);
    model.objects.erase(it);
}

void VelmorJACKMIDIService::State::publish()
{
    snapshot.store(std::make_shared<const JACK::Model>(model));
}

VelmorJACKMIDIService::State::Port* VelmorJACKMIDIService::State::addPort(
    const std::string& fullName, jack_uuid_t uuid, bool output, const std::optional<std::string>& name,
    std::map<std::string, std::string, std::less<>> strings, bool own, MIDIClientRef owner)
{
    if (auto it = ports.find(fullName); it != ports.end())
        return &it->second;
    const auto colon = fullName.find(':');
    const std::string deviceName = fullName.substr(0, colon);
    const std::string shortName = colon == std::string::npos ? fullName : fullName.substr(colon + 1);

    auto deviceIt = devices.find(deviceName);
    if (deviceIt == devices.end()) {
        JACK::ObjectInfo info;
        info.type = kMIDIObjectType_Device;
        info.jackName = deviceName;
        info.name = deviceName;
        info.uniqueID = uniqueIDFor(hashOf(deviceName, "device"));
        info.own = own;
        deviceIt = devices.emplace(deviceName, Device {newObject(std::move(info)), {}}).first;
        notifyAddRemove(kMIDIMsgObjectAdded, 0, kMIDIObjectType_Other, deviceIt->second.ref, kMIDIObjectType_Device);
    }
    Device& device = deviceIt->second;

    Port& port = ports[fullName];
    port.fullName = fullName;
    port.uuid = uuid;
    port.output = output;
    port.device = deviceName;
    port.own = own;
    port.owner = owner;

    JACK::ObjectInfo entity;
    entity.type = kMIDIObjectType_Entity;
    entity.parent = device.ref;
    entity.jackName = fullName;
    entity.name = name ? name : shortName;
    entity.uniqueID = uniqueIDFor(hashOf(fullName, "entity"));
    entity.own = own;
    port.entity = newObject(std::move(entity));
    device.ports.push_back(fullName);
    model.objects[device.ref].children.push_back(port.entity);
    notifyAddRemove(kMIDIMsgObjectAdded, device.ref, kMIDIObjectType_Device, port.entity, kMIDIObjectType_Entity);

    const MIDIObjectType type = output ? kMIDIObjectType_Source : kMIDIObjectType_Destination;
    JACK::ObjectInfo endpoint;
    endpoint.type = type;
    endpoint.parent = port.entity;
    endpoint.jackName = fullName;
    endpoint.name = name ? name : shortName;
    endpoint.uniqueID = uniqueIDFor(hashOf(fullName, output ? "source" : "destination"));
    endpoint.strings = std::move(strings);
    endpoint.own = own;
    port.endpoint = newObject(std::move(endpoint));
    (output ? model.objects[port.entity].source : model.objects[port.entity].destination) = port.endpoint;
    (output ? model.sources : model.destinations).push_back(port.endpoint);
    notifyAddRemove(kMIDIMsgObjectAdded, port.entity, kMIDIObjectType_Entity, port.endpoint, type);
    return &port;
}

// Connections to a source that has gone, and sends to a destination that has gone, end with it: their
// slots are released by the caller once it has let go of the mutex (pendingReleases).
void VelmorJACKMIDIService::State::retireConnectionsTo(MIDIEndpointRef endpoint)
{
    for (auto& [ref, inputPort] : inputPorts)
        if (auto it = inputPort.connections.find(endpoint); it != inputPort.connections.end()) {
            pendingReleases.push_back(it->second.slot);
            inputPort.connections.erase(it);
        }
    for (auto& [ref, outputPort] : outputPorts)
        if (auto it = outputPort.destinations.find(endpoint); it != outputPort.destinations.end()) {
            pendingReleases.push_back(it->second);
            outputPort.destinations.erase(it);
        }
}

void VelmorJACKMIDIService::State::removePort(std::string fullName)
{
    auto it = ports.find(fullName);
    if (it == ports.end())
        return;
    Port& port = it->second;
    const MIDIObjectType type = port.output ? kMIDIObjectType_Source : kMIDIObjectType_Destination;
    auto& list = port.output ? model.sources : model.destinations;
    list.erase(std::remove(list.begin(), list.end(), port.endpoint), list.end());
    retireConnectionsTo(port.endpoint);
    notifyAddRemove(kMIDIMsgObjectRemoved, port.entity, kMIDIObjectType_Entity, port.endpoint, type);
    forgetObject(port.endpoint);

    auto deviceIt = devices.find(port.device);
    Device& device = deviceIt->second;
    notifyAddRemove(kMIDIMsgObjectRemoved, device.ref, kMIDIObjectType_Device, port.entity, kMIDIObjectType_Entity);
    forgetObject(port.entity);
    auto& children = model.objects[device.ref].children;
    children.erase(std::remove(children.begin(), children.end(), port.entity), children.end());
    device.ports.erase(std::remove(device.ports.begin(), device.ports.end(), fullName), device.ports.end());
    ports.erase(it);
    if (device.ports.empty()) {
        notifyAddRemove(kMIDIMsgObjectRemoved, 0, kMIDIObjectType_Other, device.ref, kMIDIObjectType_Device);
        forgetObject(device.ref);
        devices.erase(deviceIt);
    }
}

void VelmorJACKMIDIService::State::setObjectName(MIDIObjectRef ref, const std::optional<std::string>& name)
{
    auto it = model.objects.find(ref);
    if (it == model.objects.end() || it->second.name == name)
        return;
    it->second.name = name;
    notifyProperty(ref, it->second.type, kMIDIPropertyName);
}

void VelmorJACKMIDIService::State::setObjectString(MIDIObjectRef ref, std::string_view key,
                                                   const std::optional<std::string>& value)
{
    auto it = model.objects.find(ref);
    if (it == model.objects.end())
        return;
    auto& strings = it->second.strings;
    auto existing = strings.find(key);
    if (value ? existing != strings.end() && existing->second == *value : existing == strings.end())
        return;
    if (value)
        strings[std::string(key)] = *value;
    else
        strings.erase(existing);
    notifyProperty(ref, it->second.type, key);
}

// --- Enumeration ----------------------------------------------------------------------------------------

ItemCount VelmorJACKMIDIService::numberOfSources()
{
    sourcesPass = {state_.get(), state_->snapshot.load()};
    return sourcesPass.model->sources.size();
}

MIDIEndpointRef VelmorJACKMIDIService::source(ItemCount index)
{
    auto model = passModel(sourcesPass, state_.get(), state_->snapshot);
    return index < model->sources.size() ? model->sources[index] : 0;
}

ItemCount VelmorJACKMIDIService::numberOfDestinations()
{
    destinationsPass = {state_.get(), state_->snapshot.load()};
    return destinationsPass.model->destinations.size();
}

MIDIEndpointRef VelmorJACKMIDIService::destination(ItemCount index)
{
    auto model = passModel(destinationsPass, state_.get(), state_->snapshot);
    return index < model->destinations.size() ? model->destinations[index] : 0;
}

ItemCount VelmorJACKMIDIService::deviceNumberOfEntities(MIDIDeviceRef device)
{
    auto model = state_->snapshot.load();
    auto it = model->objects.find(device);
    return it == model->objects.end() || it->second.type != kMIDIObjectType_Device ? 0 : it->second.children.size();
}

MIDIEntityRef VelmorJACKMIDIService::deviceEntity(MIDIDeviceRef device, ItemCount index)
{
    auto model = state_->snapshot.load();
    auto it = model->objects.find(device);
    if (it == model->objects.end() || it->second.type != kMIDIObjectType_Device)
        return 0;
    return index < it->second.children.size() ? it->second.children[index] : 0;
}

ItemCount VelmorJACKMIDIService::entityNumberOfSources(MIDIEntityRef entity)
{
    return entitySource(entity, 0) ? 1 : 0;
}

MIDIEndpointRef VelmorJACKMIDIService::entitySource(MIDIEntityRef entity, ItemCount index)
{
    auto model = state_->snapshot.load();
    auto it = model->objects.find(entity);
    if (index != 0 || it == model->objects.end() || it->second.type != kMIDIObjectType_Entity)
        return 0;
    return it->second.source;
}

ItemCount VelmorJACKMIDIService::entityNumberOfDestinations(MIDIEntityRef entity)
{
    return entityDestination(entity, 0) ? 1 : 0;
}

MIDIEndpointRef VelmorJACKMIDIService::entityDestination(MIDIEntityRef entity, ItemCount index)
{
    auto model = state_->snapshot.load();
    auto it = model->objects.find(entity);
    if (index != 0 || it == model->objects.end() || it->second.type != kMIDIObjectType_Entity)
        return 0;
    return it->second.destination;
}

OSStatus VelmorJACKMIDIService::endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity)
{
    if (!outEntity)
        return kMIDIParamErr;
    auto model = state_->snapshot.load();
    auto it = model->objects.find(endpoint);
    if (it == model->objects.end())
        return kMIDIParamErr;
    if (it->second.type != kMIDIObjectType_Source && it->second.type != kMIDIObjectType_Destination)
        return kMIDIUnknownEndpoint;
    *outEntity = it->second.parent;
    return noErr;
}

// --- Properties -----------------------------------------------------------------------------------------

OSStatus VelmorJACKMIDIService::getStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                                  std::optional<std::string>* outString)
{
    if (!outString)
        return kMIDIParamErr;
    auto model = state_->snapshot.load();
    auto it = model->objects.find(object);
    if (it == model->objects.end()) {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->otherRefs.count(object) ? kMIDIUnknownProperty : kMIDIParamErr;
    }
    if (propertyID == kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    outString->reset();
    if (propertyID == kMIDIPropertyName)
        *outString = it->second.name;
    else if (auto value = it->second.strings.find(propertyID); value != it->second.strings.end())
        *outString = value->second;
    return noErr;
}

OSStatus VelmorJACKMIDIService::setStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                                  std::string_view value)
{
    State& state = *state_;
    jack_uuid_t uuid = 0;
    MIDIObjectRef entity = 0;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.model.objects.find(object);
        if (it == state.model.objects.end())
            return state.otherRefs.count(object) ? kMIDIUnknownProperty : kMIDIParamErr;
        const bool ownEndpoint = it->second.own && it->second.type == kMIDIObjectType_Source;
        if (!ownEndpoint || propertyID.empty() || propertyID == kMIDIPropertyUniqueID)
            return kMIDIUnknownProperty;
        auto port = state.ports.find(it->second.jackName);
        if (port == state.ports.end())
            return kMIDIUnknownProperty;
        uuid = port->second.uuid;
        entity = port->second.entity;
        if (propertyID == kMIDIPropertyName) {
            state.setObjectName(entity, std::string(value));
            state.setObjectName(object, std::string(value));
        } else {
            state.setObjectString(object, propertyID, std::string(value));
        }
        state.publish();
    }
    // Other programs see the name as the port's pretty name, other strings under our own keys.
    if (jack_client_t* handle = state.jack()) {
        const std::string text(value);
        const std::string key = propertyID == kMIDIPropertyName ? std::string(JACK_METADATA_PRETTY_NAME)
                                                                : JACK::kPropertyKeyPrefix + std::string(propertyID);
        if (jack_set_property(handle, uuid, key.c_str(), text.c_str(), "text/plain") != 0)
            std::fprintf(stderr, "VelmorJACKMIDIService: jack_set_property %s failed\n", key.c_str());
    }
    state.wake();
    return noErr;
}

OSStatus VelmorJACKMIDIService::getIntegerProperty(MIDIObjectRef object, std::string_view propertyID,
                                                   std::int32_t* outValue)
{
    if (!outValue)
        return kMIDIParamErr;
    auto model = state_->snapshot.load();
    auto it = model->objects.find(object);
    if (it == model->objects.end()) {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->otherRefs.count(object) ? kMIDIUnknownProperty : kMIDIParamErr;
    }
    if (propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    *outValue = it->second.uniqueID;
    return noErr;
}

OSStatus VelmorJACKMIDIService::setIntegerProperty(MIDIObjectRef object, std::string_view propertyID,
                                                   std::int32_t value)
{
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.model.objects.find(object);
        if (it == state.model.objects.end())
            return state.otherRefs.count(object) ? kMIDIUnknownProperty : kMIDIParamErr;
        if (!it->second.own || it->second.type != kMIDIObjectType_Source || propertyID != kMIDIPropertyUniqueID)
            return kMIDIUnknownProperty;
        if (value == it->second.uniqueID)
            return noErr;
        if (value == 0 || state.usedIDs.count(value))
            return kMIDIIDNotUnique;
        state.usedIDs.erase(it->second.uniqueID);
        state.usedIDs.insert(value);
        it->second.uniqueID = value;
        state.notifyProperty(object, it->second.type, kMIDIPropertyUniqueID);
        state.publish();
    }
    state.wake();
    return noErr;
}

} // namespace VelmorPlatform

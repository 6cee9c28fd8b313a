#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

// --- What reaches a destination -----------------------------------------------------------------------------

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

// --- Packets out ------------------------------------------------------------------------------------------------

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

} // namespace VelmorPlatform

#include "VelmorMIDIServices.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "VelmorInProcessMIDIService.h"

namespace VelmorPlatform {

namespace {

// The current service is never destroyed by static destruction: objects of the application held in
// globals may call it while the process exits, in any order.
std::mutex& serviceMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}
std::shared_ptr<VelmorMIDIService>& serviceOwner()  // guarded by serviceMutex()
{
    static auto* owner = new std::shared_ptr<VelmorMIDIService>;
    return *owner;
}
std::atomic<VelmorMIDIService*> serviceCurrent {nullptr};
std::atomic<bool> exiting {false};
std::atomic<bool> exitHandlerRegistered {false};

// Registered once a service is in use, so that it runs before the static destructors of everything
// made earlier.
void registerExitHandler()
{
    if (!exitHandlerRegistered.exchange(true))
        std::atexit([] { exiting.store(true, std::memory_order_seq_cst); });
}

} // namespace

bool processIsExiting()
{
    return exiting.load(std::memory_order_acquire);
}

VelmorMIDIService& currentService()
{
    if (auto* service = serviceCurrent.load(std::memory_order_acquire))
        return *service;
    std::lock_guard<std::mutex> lock(serviceMutex());
    auto& owner = serviceOwner();
    if (!owner) {
        registerExitHandler();
        owner = VelmorInProcessMIDIService::sharedService();
        serviceCurrent.store(owner.get(), std::memory_order_release);
    }
    return *owner;
}

std::shared_ptr<VelmorMIDIService> setCurrentService(std::shared_ptr<VelmorMIDIService> service)
{
    std::lock_guard<std::mutex> lock(serviceMutex());
    registerExitHandler();
    auto previous = std::move(serviceOwner());
    serviceOwner() = std::move(service);
    serviceCurrent.store(serviceOwner().get(), std::memory_order_release);
    return previous;
}

std::size_t MIDIPacketListByteSize(const MIDIPacketList* list)
{
    if (!list)
        return 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
    std::uint32_t count = 0;
    std::memcpy(&count, bytes, sizeof count);
    std::size_t position = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint16_t length = 0;
        std::memcpy(&length, bytes + position + 8, sizeof length);
        position += 10 + length;
    }
    return position;
}

OSStatus MIDIClientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon, MIDIClientRef* outClient)
{
    return currentService().clientCreate(name, notifyProc, notifyRefCon, outClient);
}
OSStatus MIDIClientDispose(MIDIClientRef client) { return currentService().clientDispose(client); }
OSStatus MIDIInputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc, void* refCon,
                             MIDIPortRef* outPort)
{
    return currentService().inputPortCreate(client, portName, readProc, refCon, outPort);
}
OSStatus MIDIOutputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort)
{
    return currentService().outputPortCreate(client, portName, outPort);
}
OSStatus MIDIPortConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon)
{
    return currentService().portConnectSource(port, source, connRefCon);
}
OSStatus MIDIPortDisconnectSource(MIDIPortRef port, MIDIEndpointRef source)
{
    return currentService().portDisconnectSource(port, source);
}
OSStatus MIDIPortDispose(MIDIPortRef port) { return currentService().portDispose(port); }
OSStatus MIDISourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource)
{
    return currentService().sourceCreate(client, name, outSource);
}
OSStatus MIDIEndpointDispose(MIDIEndpointRef endpoint) { return currentService().endpointDispose(endpoint); }
OSStatus MIDIReceived(MIDIEndpointRef source, const MIDIPacketList* packetList)
{
    return currentService().received(source, packetList);
}
OSStatus MIDISend(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList)
{
    return currentService().send(port, destination, packetList);
}
ItemCount MIDIGetNumberOfSources() { return currentService().numberOfSources(); }
MIDIEndpointRef MIDIGetSource(ItemCount index) { return currentService().source(index); }
ItemCount MIDIGetNumberOfDestinations() { return currentService().numberOfDestinations(); }
MIDIEndpointRef MIDIGetDestination(ItemCount index) { return currentService().destination(index); }
ItemCount MIDIDeviceGetNumberOfEntities(MIDIDeviceRef device) { return currentService().deviceNumberOfEntities(device); }
MIDIEntityRef MIDIDeviceGetEntity(MIDIDeviceRef device, ItemCount index)
{
    return currentService().deviceEntity(device, index);
}
ItemCount MIDIEntityGetNumberOfSources(MIDIEntityRef entity) { return currentService().entityNumberOfSources(entity); }
MIDIEndpointRef MIDIEntityGetSource(MIDIEntityRef entity, ItemCount index)
{
    return currentService().entitySource(entity, index);
}
ItemCount MIDIEntityGetNumberOfDestinations(MIDIEntityRef entity)
{
    return currentService().entityNumberOfDestinations(entity);
}
MIDIEndpointRef MIDIEntityGetDestination(MIDIEntityRef entity, ItemCount index)
{
    return currentService().entityDestination(entity, index);
}
OSStatus MIDIEndpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity)
{
    return currentService().endpointGetEntity(endpoint, outEntity);
}
OSStatus MIDIObjectGetStringProperty(MIDIObjectRef object, std::string_view propertyID, std::optional<std::string>* outString)
{
    return currentService().getStringProperty(object, propertyID, outString);
}
OSStatus MIDIObjectSetStringProperty(MIDIObjectRef object, std::string_view propertyID, std::string_view value)
{
    return currentService().setStringProperty(object, propertyID, value);
}
OSStatus MIDIObjectGetIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t* outValue)
{
    return currentService().getIntegerProperty(object, propertyID, outValue);
}
OSStatus MIDIObjectSetIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t value)
{
    return currentService().setIntegerProperty(object, propertyID, value);
}

} // namespace VelmorPlatform

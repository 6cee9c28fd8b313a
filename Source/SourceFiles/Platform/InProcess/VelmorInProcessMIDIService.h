#pragma once

// The MIDI service that runs inside the process: the default service, what the demo runs on and what
// the tests drive. Thread-safe. Callbacks (notifications and read procedures) run on a thread of the
// service, never on the caller's.
//
// Beside the calls of VelmorMIDIService it has a control surface for tests and the demo: devices,
// entities and endpoints can be made and removed, properties set, bytes injected into a device's
// source, what reached a device's destination inspected, calls made to fail, calls counted, and the
// service waited on until every queued callback has run.
//
// Statuses: an unknown reference gives kMIDIParamErr; a known one of the wrong kind gives
// kMIDIInvalidClient, kMIDIInvalidPort or kMIDIUnknownEndpoint. Once MIDIPortDisconnectSource,
// MIDIPortDispose, MIDIClientDispose, MIDIEndpointDispose or removeObject has returned, no callback of
// what it ended is running or will run; called from such a callback, the call doesn't wait for itself.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorMIDIServices.h"

namespace VelmorPlatform {

class VelmorInProcessMIDIService : public VelmorMIDIService {
public:
    // The process's instance, made current by currentService() unless another was set.
    static std::shared_ptr<VelmorInProcessMIDIService> sharedService();
    // A separate instance, for tests that make one current with setCurrentService().
    static std::shared_ptr<VelmorInProcessMIDIService> create();
    ~VelmorInProcessMIDIService() override;

    const char* serviceName() const override { return "in-process"; }

    // --- Control surface -------------------------------------------------------------------------

    // A device with the given name, manufacturer and model. An external device's objects carry the
    // external bit (0x10) in the types of their notifications. Notifies "added" (parent 0).
    MIDIDeviceRef createDevice(std::string_view name, std::string_view manufacturer = "",
                               std::string_view model = "", bool external = false);
    // An entity of a device; notifies "added" with the device as parent. 0 if the device is unknown.
    MIDIEntityRef createEntity(MIDIDeviceRef device, std::string_view name);
    // A source or destination of an entity, with the given name; it inherits nothing else. Notifies
    // "added" with the entity as parent. 0 if the entity is unknown.
    MIDIEndpointRef createSource(MIDIEntityRef entity, std::string_view name);
    MIDIEndpointRef createDestination(MIDIEntityRef entity, std::string_view name);
    // Convenience: a device with one entity that has one source and/or one destination, all of the
    // same name, with manufacturer and model set on the endpoints too.
    struct SimpleDevice {
        MIDIDeviceRef device = 0;
        MIDIEntityRef entity = 0;
        MIDIEndpointRef source = 0;
        MIDIEndpointRef destination = 0;
    };
    SimpleDevice createSimpleDevice(std::string_view name, std::string_view manufacturer, std::string_view model,
                                    bool withSource = true, bool withDestination = true);
    // Removes a device, entity or endpoint with everything below it; notifies "removed" for each, the
    // children first. Connections to a removed source end. kMIDIParamErr if the object is unknown.
    OSStatus removeObject(MIDIObjectRef object);
    // Removes a string property (so that a read gives no string); notifies a property change.
    OSStatus removeStringProperty(MIDIObjectRef object, std::string_view propertyID);
    // The type of an object (kMIDIObjectType_*), or kMIDIObjectType_Other if unknown.
    MIDIObjectType objectType(MIDIObjectRef object) const;

    // Bytes into a device's (or virtual) source, as one packet of a one-packet list with `timeStamp`
    // (0: now). The bytes may exceed 65535: then they go as several packets of one list.
    OSStatus injectBytes(MIDIEndpointRef source, std::span<const std::uint8_t> bytes, MIDITimeStamp timeStamp = 0);
    // A whole packet-list image into a source, delivered unchanged.
    OSStatus injectPacketList(MIDIEndpointRef source, std::span<const std::uint8_t> packetListImage);

    // What reached a device's destination, in order of arrival.
    struct Arrival {
        std::vector<std::uint8_t> packetListImage;
        MIDITimeStamp arrivalHostTime = 0;  // when MIDISend handed it over
    };
    std::vector<Arrival> arrivals(MIDIEndpointRef destination) const;
    // The data bytes of all arrivals at `destination`, concatenated in order.
    std::vector<std::uint8_t> arrivedBytes(MIDIEndpointRef destination) const;
    void clearArrivals(MIDIEndpointRef destination);
    // Called on a thread of the service for each packet list that reaches `destination`. Once this
    // returns, an observer it replaced (or cleared, with nullptr) is not running and won't run again.
    void setDestinationObserver(MIDIEndpointRef destination, std::function<void(const MIDIPacketList*)> observer);

    // The next `count` uses of the call `callName` (e.g. "MIDIPortConnectSource") fail with `status`
    // without doing anything. A count of 0 clears the fault.
    void failNextCalls(std::string_view callName, OSStatus status, int count = 1);
    // How often the call `callName` has been made (failed ones included), and a reset of all counts.
    std::uint64_t callCount(std::string_view callName) const;
    void resetCallCounts();

    // Blocks until every callback queued so far has run, and those they queued in turn. From a callback
    // it returns at once (it would wait for itself).
    void waitUntilIdle();

    // --- The service's calls ---------------------------------------------------------------------
    OSStatus clientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon,
                          MIDIClientRef* outClient) override;
    OSStatus clientDispose(MIDIClientRef client) override;
    OSStatus inputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc, void* refCon,
                             MIDIPortRef* outPort) override;
    OSStatus outputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort) override;
    OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon) override;
    OSStatus portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source) override;
    OSStatus portDispose(MIDIPortRef port) override;
    OSStatus sourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource) override;
    OSStatus endpointDispose(MIDIEndpointRef endpoint) override;
    OSStatus received(MIDIEndpointRef source, const MIDIPacketList* packetList) override;
    OSStatus send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList) override;
    ItemCount numberOfSources() override;
    MIDIEndpointRef source(ItemCount index) override;
    ItemCount numberOfDestinations() override;
    MIDIEndpointRef destination(ItemCount index) override;
    ItemCount deviceNumberOfEntities(MIDIDeviceRef device) override;
    MIDIEntityRef deviceEntity(MIDIDeviceRef device, ItemCount index) override;
    ItemCount entityNumberOfSources(MIDIEntityRef entity) override;
    MIDIEndpointRef entitySource(MIDIEntityRef entity, ItemCount index) override;
    ItemCount entityNumberOfDestinations(MIDIEntityRef entity) override;
    MIDIEndpointRef entityDestination(MIDIEntityRef entity, ItemCount index) override;
    OSStatus endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity) override;
    OSStatus getStringProperty(MIDIObjectRef object, std::string_view propertyID,
                               std::optional<std::string>* outString) override;
    OSStatus setStringProperty(MIDIObjectRef object, std::string_view propertyID, std::string_view value) override;
    OSStatus getIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t* outValue) override;
    OSStatus setIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t value) override;

private:
    VelmorInProcessMIDIService();
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace VelmorPlatform

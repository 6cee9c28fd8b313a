#pragma once

// The MIDI service of a JACK server (jackd, or PipeWire through its JACK library), through libjack.
// Built only where libjack is found (VELMOR_HAVE_JACK). An application chooses it with
// VelmorPlatform::useJACKService() (VelmorSystemMIDIService.h) before the manager starts.
//
// How JACK maps onto the service's objects, decided once:
//
// Objects
// - Each JACK client with at least one MIDI port is a device, named after the client.
// - Each MIDI port of it is an entity with one endpoint: a source for a JACK output port (others read
//   from it), a destination for a JACK input port. Audio ports are not listed.
// - The ports this process makes to receive and send (one per connected source, one per destination
//   sent to) are not endpoints; they carry the metadata key urn:velmor:private so that other Velmor
//   processes leave them out too. A virtual source (MIDISourceCreate) is a JACK output port of our
//   client, listed like any other source.
// - References come from one counter: a reference stays the same while its port (or client) lives and
//   is never handed out again in this process, even when JACK reuses a port id.
//
// Properties
// - name: the port's pretty name (JACK_METADATA_PRETTY_NAME) where it has one, else its short name;
//   the client's name for a device. Writing the name of our own virtual source sets its pretty name.
// - manufacturer and model: none, except what the process wrote on its own virtual sources.
// - uniqueID: a 32-bit hash of the port's full name ("client:port") and its direction (of the client's
//   name for a device), so that the same port has the same ID across runs and sessions (JACK's port
//   UUIDs are per session); made unique among the live objects by counting up. A virtual source of ours
//   may be given its own ID (kMIDIIDNotUnique if another object has it).
// - Other string properties (the endpoint identifier) of our own virtual sources are kept as JACK
//   metadata on the port under urn:velmor:property:<name>, where another Velmor process reads them.
// - Reads answer from an immutable snapshot of the model, swapped whole when something changes (a
//   lock guards the swap of the pointer only, so a read never waits behind work). A
//   MIDIGetNumberOfSources (or ...Destinations) takes the snapshot that the MIDIGetSource (or
//   ...Destination) calls of the same thread then answer from, so that one pass sees one list.
//
// Notifications (on the service's thread, to every client's notify procedure)
// - JACK's port registration callback: added entity (with the device first when the client's first
//   MIDI port appears), then its source or destination; removed in the reverse order when it goes.
// - JACK's port rename callback, and a change of a port's pretty name in the metadata: a "name" change
//   of the entity and its endpoint. Our own virtual sources are announced when made and disposed of.
//
// Receiving
// - MIDIPortConnectSource makes a private JACK input port and connects the source to it. The process
//   callback copies each event with its frame time into a lock-free ring (jack_ringbuffer); the
//   service thread turns them into packet lists, with host time stamps from JACK's frame time, and
//   calls the read procedure. An exclusive message that came as several events is joined again (beyond
//   64 KiB it goes as several packets of one list). Events that find the ring full are lost and
//   counted; the input port's client hears of them through the input-dropped record.
//
// Sending
// - MIDISend goes through a private JACK output port connected to the destination, made on first use;
//   MIDIReceived on a virtual source goes out of its own port. The caller's thread cuts the packets
//   into messages, and messages longer than 1024 bytes into pieces, and puts them into the port's ring;
//   the process callback writes each one in the cycle it is due, at the frame its time stamp names;
//   a time stamp of 0 or in the past goes at the start of the next cycle. Messages leave in the order
//   they were sent: one that is due later holds back those behind it.
// - The process callback takes no lock, allocates nothing and makes no call that can block.
//
// Statuses: an unknown reference gives kMIDIParamErr; a known one of the wrong kind kMIDIInvalidClient,
// kMIDIInvalidPort or kMIDIUnknownEndpoint; a JACK failure kMIDIUnknownEndpoint or kMIDIInvalidPort
// with a line on the error stream. Once MIDIPortDisconnectSource, MIDIPortDispose, MIDIClientDispose or
// MIDIEndpointDispose has returned, no callback of what it ended is running or will run; called from
// such a callback, the call doesn't wait for itself. At exit the service stops its thread and closes
// its JACK client before static objects go, so no callback reaches a destroyed object.

#include <memory>
#include <string>

#include "VelmorMIDIServices.h"

namespace VelmorPlatform {

class VelmorJACKMIDIService : public VelmorMIDIService {
public:
    // A service on the JACK server `serverName` (empty: the default server, or $JACK_DEFAULT_SERVER),
    // as a JACK client named `clientName`; null, with a line, when no server answers. Never starts a
    // server.
    static std::shared_ptr<VelmorJACKMIDIService> create(const std::string& clientName = "Velmor",
                                                         const std::string& serverName = "");
    ~VelmorJACKMIDIService() override;

    const char* serviceName() const override { return "JACK"; }

    // JACK's name of our client, and the full JACK port name behind an endpoint or entity ("" if none).
    std::string jackClientName() const;
    std::string jackPortName(MIDIObjectRef object) const;
    // Blocks until what JACK has handed over so far (announcements and events) has been handled and its
    // callbacks have run, or `timeoutMs` has passed. From a callback it returns at once.
    void waitUntilIdle(int timeoutMs = 2000);

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

    struct State;

private:
    VelmorJACKMIDIService() = default;
    std::unique_ptr<State> state_;
};

} // namespace VelmorPlatform

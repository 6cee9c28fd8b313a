#pragma once

// The MIDI service of a Linux machine: the ALSA sequencer, through libasound. Built only where libasound
// is found (VELMOR_HAVE_ALSA). An application chooses it with VelmorPlatform::useALSAService() or
// useSystemServiceIfAvailable() (VelmorSystemMIDIService.h) before the manager starts.
//
// How the sequencer maps onto the service's objects, decided once:
//
// Objects
// - Each sequencer client that has at least one MIDI port is a device. The System client (0) is not.
// - Each port of it is an entity of that device, with one source if the port is readable and
//   subscribable for reading, and one destination if it is writable and subscribable for writing.
//   A port with neither, or marked "no export", is not listed.
// - The ports this process makes for its own input and output ports are not subscribable by others and
//   so are not endpoints. A virtual source (MIDISourceCreate) is a readable port of our client, listed
//   like any other source.
// - References are the service's own numbers, handed out from one counter: a reference stays the same
//   while its port (or client) lives and is never handed out again in this process, even when the
//   kernel reuses the client or port number.
//
// Properties
// - name: the port's name for an entity and its endpoints, the client's name for a device.
// - manufacturer and model: from the sound card behind a kernel client (the card's long name before its
//   short name, else the driver; the card's name); none for a software client. For our own virtual
//   sources, whatever the process wrote.
// - uniqueID: a 32-bit hash of client name, port name, port number and card id, so that the same port
//   has the same ID across runs; made unique among the live objects by counting up. A virtual source of
//   ours may be given its own ID (kMIDIIDNotUnique if another object has it).
// - Other string properties (the endpoint identifier) are kept for this process's own ports only.
//   Writing name, manufacturer or model of another program's object gives kMIDIUnknownProperty.
//
// Notifications (on the service's thread, to every client's notify procedure)
// - The System:Announce port's client and port start, exit and change events become the records:
//   added device (parent 0), entity (parent device), source/destination (parent entity) when a port
//   appears; removed in the reverse order when it goes (the device with its last port); a changed
//   port name is a "name" change of the entity and its endpoints, a changed client name one of the
//   device; a port that gains or loses a direction adds or removes that endpoint. The sequencer
//   announces no rename of a port, so the service also looks at other programs' names four times a
//   second; our own renames are reported when they are made.
// - Our own virtual sources are announced when made and disposed of, without waiting for the kernel.
//
// Receiving
// - MIDIPortConnectSource subscribes the source to the input port's sequencer port, with time stamps
//   from the service's real-time queue. Events become bytes with libasound's MIDI event coder; an
//   exclusive message that the sequencer split into several events is joined again before delivery
//   (beyond 64 KiB it goes as several packets of one list). Time stamps are host time.
//
// Sending
// - MIDIReceived on a virtual source goes to its subscribers; MIDISend goes to the destination's
//   address over a subscription from the output port, made on first use. A packet whose time stamp
//   lies in the future is scheduled on the real-time queue; 0 or a past time stamp goes at once.
//
// Statuses: an unknown reference gives kMIDIParamErr; a known one of the wrong kind kMIDIInvalidClient,
// kMIDIInvalidPort or kMIDIUnknownEndpoint; a sequencer failure kMIDIUnknownEndpoint or
// kMIDIInvalidPort with a line on the error stream. Once MIDIPortDisconnectSource, MIDIPortDispose,
// MIDIClientDispose or MIDIEndpointDispose has returned, no callback of what it ended is running or
// will run; called from such a callback, the call doesn't wait for itself.

#include <memory>

#include "VelmorMIDIServices.h"

namespace VelmorPlatform {

class VelmorALSAMIDIService : public VelmorMIDIService {
public:
    // A service on the system's sequencer, or null (with a line) when it cannot be opened.
    static std::shared_ptr<VelmorALSAMIDIService> create();
    ~VelmorALSAMIDIService() override;

    const char* serviceName() const override { return "ALSA sequencer"; }

    // The sequencer's number for our client, for tools and tests.
    int sequencerClientID() const;
    // The sequencer address ("client:port") behind an endpoint or entity, or "" if unknown.
    std::string sequencerAddress(MIDIObjectRef object) const;
    // Blocks until the announcements and events that the sequencer has handed over so far have been
    // handled and their callbacks have run (or `timeoutMs` has passed). From a callback it returns at once.
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
    VelmorALSAMIDIService() = default;
    std::unique_ptr<State> state_;
};

} // namespace VelmorPlatform

#pragma once

// The boundary between the framework and a MIDI service. Everything the framework asks of the MIDI
// system goes through these calls; a service (VelmorMIDIService) stands behind them. The shapes follow
// what the framework passes and relies on, so that any service can answer them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace VelmorPlatform {

using OSStatus = std::int32_t;
using ItemCount = std::uint64_t;
using MIDITimeStamp = std::uint64_t;
using MIDIObjectRef = std::uint32_t;
using MIDIClientRef = MIDIObjectRef;
using MIDIPortRef = MIDIObjectRef;
using MIDIDeviceRef = MIDIObjectRef;
using MIDIEntityRef = MIDIObjectRef;
using MIDIEndpointRef = MIDIObjectRef;
using MIDIObjectType = std::int32_t;
using MIDINotificationMessageID = std::int32_t;

inline constexpr OSStatus noErr = 0;
// The one failing status the framework tells apart: the object is gone (or the argument is bad).
inline constexpr OSStatus kMIDIParamErr = -50;
// Any other failure of the service.
inline constexpr OSStatus kMIDIInvalidClient = -10830;
inline constexpr OSStatus kMIDIInvalidPort = -10831;
inline constexpr OSStatus kMIDIUnknownEndpoint = -10833;
inline constexpr OSStatus kMIDIUnknownProperty = -10835;
inline constexpr OSStatus kMIDIIDNotUnique = -10843;

inline constexpr MIDIObjectType kMIDIObjectType_Other = -1;
inline constexpr MIDIObjectType kMIDIObjectType_Device = 0;
inline constexpr MIDIObjectType kMIDIObjectType_Entity = 1;
inline constexpr MIDIObjectType kMIDIObjectType_Source = 2;
inline constexpr MIDIObjectType kMIDIObjectType_Destination = 3;
inline constexpr MIDIObjectType kMIDIObjectType_ExternalMask = 0x10;

inline constexpr std::string_view kMIDIPropertyName = "name";
inline constexpr std::string_view kMIDIPropertyManufacturer = "manufacturer";
inline constexpr std::string_view kMIDIPropertyModel = "model";
inline constexpr std::string_view kMIDIPropertyUniqueID = "uniqueID";

// Packets and packet lists are byte images, little-endian, without gaps:
//   MIDIPacket:     time stamp (8 bytes), length (2 bytes), `length` data bytes
//   MIDIPacketList: count (4 bytes), then `count` packets back to back
// The types are opaque; a pointer to one points at the first byte of its image.
struct MIDIPacket;
struct MIDIPacketList;

// The number of bytes of a packet-list image, found by walking its packets.
std::size_t MIDIPacketListByteSize(const MIDIPacketList* list);

// Notification records. The service fills one and hands it to the client's callback for the length
// of the call only; a string in it must be copied to outlive the call.
inline constexpr MIDINotificationMessageID kMIDIMsgSetupChanged = 1;
inline constexpr MIDINotificationMessageID kMIDIMsgObjectAdded = 2;
inline constexpr MIDINotificationMessageID kMIDIMsgObjectRemoved = 3;
inline constexpr MIDINotificationMessageID kMIDIMsgPropertyChanged = 4;
// Our own record: the service lost input on its way to an input port (a sequencer overrun, a full
// ring, a bound of its own). Sent on the service's thread to the notification callback of the client
// that owns the port.
inline constexpr MIDINotificationMessageID kMIDIMsgVelmorInputDropped = 0x7601;

struct MIDINotification {
    MIDINotificationMessageID messageID;  // offset 0
    std::uint32_t messageSize;            // offset 4
};

struct MIDIObjectAddRemoveNotification {
    MIDINotificationMessageID messageID;  // offset 0: 2 or 3
    std::uint32_t messageSize;            // offset 4
    MIDIObjectRef parent;                 // offset 8
    MIDIObjectType parentType;            // offset 12
    MIDIObjectRef child;                  // offset 16
    MIDIObjectType childType;             // offset 20
};

struct MIDIObjectPropertyChangeNotification {
    MIDINotificationMessageID messageID;  // offset 0: 4
    std::uint32_t messageSize;            // offset 4
    MIDIObjectRef object;                 // offset 8
    MIDIObjectType objectType;            // offset 12
    const char* propertyName;             // offset 16: NUL-terminated, valid during the call only
};

struct MIDIInputDroppedNotification {
    MIDINotificationMessageID messageID;  // offset 0: kMIDIMsgVelmorInputDropped
    std::uint32_t messageSize;            // offset 4
    MIDIPortRef port;                     // offset 8: the input port that lost the input
    MIDIEndpointRef source;               // offset 12: 0 when the service cannot tell
    std::uint64_t eventsLost;             // offset 16: 0 when the service cannot tell
};

static_assert(offsetof(MIDIObjectAddRemoveNotification, parent) == 8);
static_assert(offsetof(MIDIObjectAddRemoveNotification, childType) == 20);
static_assert(offsetof(MIDIObjectPropertyChangeNotification, object) == 8);
static_assert(offsetof(MIDIObjectPropertyChangeNotification, objectType) == 12);
static_assert(offsetof(MIDIObjectPropertyChangeNotification, propertyName) == 16);
static_assert(offsetof(MIDIInputDroppedNotification, port) == 8);
static_assert(offsetof(MIDIInputDroppedNotification, source) == 12);
static_assert(offsetof(MIDIInputDroppedNotification, eventsLost) == 16);
static_assert(sizeof(MIDIInputDroppedNotification) == 24);

// Called on a thread of the service with a record that lives for the call only.
// A context value (the client's notifyRefCon, a port's refCon, a connection's connRefCon) may be used
// by the service until the matching MIDIClientDispose / MIDIPortDispose / MIDIPortDisconnectSource has
// returned noErr; once it has, no callback with that context runs or will run (a call made from
// inside such a callback does not wait for itself).
using MIDINotifyProc = void (*)(const MIDINotification* message, void* refCon);
// Called on a thread of the service with the port's reference and the connection's reference.
using MIDIReadProc = void (*)(const MIDIPacketList* packetList, void* readProcRefCon, void* srcConnRefCon);

OSStatus MIDIClientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon,
                          MIDIClientRef* outClient);
OSStatus MIDIClientDispose(MIDIClientRef client);
OSStatus MIDIInputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc,
                             void* refCon, MIDIPortRef* outPort);
OSStatus MIDIOutputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort);
OSStatus MIDIPortConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon);
OSStatus MIDIPortDisconnectSource(MIDIPortRef port, MIDIEndpointRef source);
OSStatus MIDIPortDispose(MIDIPortRef port);
OSStatus MIDISourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource);
OSStatus MIDIEndpointDispose(MIDIEndpointRef endpoint);
OSStatus MIDIReceived(MIDIEndpointRef source, const MIDIPacketList* packetList);
OSStatus MIDISend(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList);

ItemCount MIDIGetNumberOfSources();
MIDIEndpointRef MIDIGetSource(ItemCount index);
ItemCount MIDIGetNumberOfDestinations();
MIDIEndpointRef MIDIGetDestination(ItemCount index);

ItemCount MIDIDeviceGetNumberOfEntities(MIDIDeviceRef device);
MIDIEntityRef MIDIDeviceGetEntity(MIDIDeviceRef device, ItemCount index);
ItemCount MIDIEntityGetNumberOfSources(MIDIEntityRef entity);
MIDIEndpointRef MIDIEntityGetSource(MIDIEntityRef entity, ItemCount index);
ItemCount MIDIEntityGetNumberOfDestinations(MIDIEntityRef entity);
MIDIEndpointRef MIDIEntityGetDestination(MIDIEntityRef entity, ItemCount index);
OSStatus MIDIEndpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity);

// A string read hands the caller its own copy (nullopt when the object has no such string): there is
// nothing to release.
OSStatus MIDIObjectGetStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                     std::optional<std::string>* outString);
OSStatus MIDIObjectSetStringProperty(MIDIObjectRef object, std::string_view propertyID, std::string_view value);
OSStatus MIDIObjectGetIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t* outValue);
OSStatus MIDIObjectSetIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t value);

// A MIDI service: what stands behind the calls above. Exactly one is current for the process.
class VelmorMIDIService {
public:
    virtual ~VelmorMIDIService() = default;
    virtual const char* serviceName() const = 0;

    virtual OSStatus clientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon,
                                  MIDIClientRef* outClient) = 0;
    virtual OSStatus clientDispose(MIDIClientRef client) = 0;
    virtual OSStatus inputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc,
                                     void* refCon, MIDIPortRef* outPort) = 0;
    virtual OSStatus outputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort) = 0;
    virtual OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon) = 0;
    virtual OSStatus portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source) = 0;
    virtual OSStatus portDispose(MIDIPortRef port) = 0;
    virtual OSStatus sourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource) = 0;
    virtual OSStatus endpointDispose(MIDIEndpointRef endpoint) = 0;
    virtual OSStatus received(MIDIEndpointRef source, const MIDIPacketList* packetList) = 0;
    virtual OSStatus send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList) = 0;

    virtual ItemCount numberOfSources() = 0;
    virtual MIDIEndpointRef source(ItemCount index) = 0;
    virtual ItemCount numberOfDestinations() = 0;
    virtual MIDIEndpointRef destination(ItemCount index) = 0;

    virtual ItemCount deviceNumberOfEntities(MIDIDeviceRef device) = 0;
    virtual MIDIEntityRef deviceEntity(MIDIDeviceRef device, ItemCount index) = 0;
    virtual ItemCount entityNumberOfSources(MIDIEntityRef entity) = 0;
    virtual MIDIEndpointRef entitySource(MIDIEntityRef entity, ItemCount index) = 0;
    virtual ItemCount entityNumberOfDestinations(MIDIEntityRef entity) = 0;
    virtual MIDIEndpointRef entityDestination(MIDIEntityRef entity, ItemCount index) = 0;
    virtual OSStatus endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity) = 0;

    virtual OSStatus getStringProperty(MIDIObjectRef object, std::string_view propertyID,
                                       std::optional<std::string>* outString) = 0;
    virtual OSStatus setStringProperty(MIDIObjectRef object, std::string_view propertyID, std::string_view value) = 0;
    virtual OSStatus getIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t* outValue) = 0;
    virtual OSStatus setIntegerProperty(MIDIObjectRef object, std::string_view propertyID, std::int32_t value) = 0;
};

// True once the process has begun to exit (std::exit or a return from main). The services and the
// notification center outlive static destruction; from then on the framework's callbacks return at
// once, so that no service thread runs framework code while the program's globals are destroyed.
bool processIsExiting();

// The current service. Until one is set, the first call makes the in-process service current. It is
// never destroyed by static destruction.
VelmorMIDIService& currentService();
// Makes `service` current. Call it before the manager starts; a service that clients already use must
// not be replaced. Returns the service that was current, if any.
std::shared_ptr<VelmorMIDIService> setCurrentService(std::shared_ptr<VelmorMIDIService> service);

} // namespace VelmorPlatform

#include "VelmorLocalOutput.h"

#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorEvent.h"
#include "VelmorFailure.h"

using namespace VelmorPlatform;

namespace {

std::string textOrNull(const std::optional<std::string>& text)
{
    return text ? *text : std::string(VelmorNullText);
}

} // namespace

std::shared_ptr<VelmorLocalOutput> VelmorLocalOutput::initWithClientAttributes(
    const std::shared_ptr<VelmorClient>& client, const std::shared_ptr<VelmorAttributes>& attributes)
{
    std::shared_ptr<VelmorLocalOutput> output(new VelmorLocalOutput);
    if (!output->constructWithClientAttributes(client, attributes))
        return nullptr;
    return output;
}

std::shared_ptr<VelmorLocalOutput> VelmorLocalOutput::init()
{
    return initWithClientAttributes(nullptr, nullptr);
}

bool VelmorLocalOutput::constructWithClientAttributes(const std::shared_ptr<VelmorClient>& client,
                                                      const std::shared_ptr<VelmorAttributes>& attributes)
{
    if (!client) {
        VELMOR_FAILED("client != nil");
        return false;
    }
    if (!attributes || !attributes->name() || attributes->name()->empty()) {
        VELMOR_FAILED("attributes.name.length");
        return false;
    }

    MIDIEndpointRef sourceEndpoint = 0;
    const OSStatus status = MIDISourceCreate(client->client(), *attributes->name(), &sourceEndpoint);
    if (status != noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return false;
    }
    if (sourceEndpoint == 0) {
        VELMOR_FAILED("sourceEndpoint != 0");
        return false;
    }

    if (!constructWithEndpointRefRequestedUniqueID(sourceEndpoint, attributes->uniqueID())) {
        // Nobody else knows the endpoint: leaving it would leave a dead source in the system.
        MIDIEndpointDispose(sourceEndpoint);
        return false;
    }

    // The identifier first: manufacturer and model are written only to an output that has one.
    setIdentifier(attributes->identifier());
    setManufacturer(attributes->manufacturer());
    setModel(attributes->model());

    sendingEndpoint_.store(sourceEndpoint, std::memory_order_release);
    VELMOR_LINE("Created MIDI Output: " + textOrNull(name()) + " ( " + textOrNull(manufacturer()) + " / " +
                textOrNull(model()) + " )");
    return true;
}

std::string VelmorLocalOutput::description() const
{
    return std::string("{") + className() + " <" + VelmorPointerString(this) + ">: " + textOrNull(manufacturer()) +
           " " + textOrNull(model()) + " \"" + textOrNull(name()) + "\" #" + textOrNull(identifier()) +
           " (uid:" + std::to_string(uniqueID()) + ")}";
}

void VelmorLocalOutput::objectPropertyChanged(const VelmorNotification& notification)
{
    VelmorEndpoint::objectPropertyChanged(notification);

    const MIDIEndpointRef endpoint = object();
    if (!notification.userInfo || endpoint == 0)
        return;
    const VelmorDictionary& userInfo = *notification.userInfo;
    const VelmorValue* typeValue = userInfo.objectForKey(VelmorObjectTypeKey);
    const auto type = typeValue ? typeValue->int64Value() : std::nullopt;
    // The endpoint came from MIDISourceCreate: the system reports it as a source.
    if (!type || (*type & ~std::int64_t(kMIDIObjectType_ExternalMask)) != kMIDIObjectType_Source)
        return;
    const VelmorValue* objectValue = userInfo.objectForKey(VelmorObjectKey);
    const auto changedObject = objectValue ? objectValue->unsignedValue() : std::nullopt;
    if (!changedObject || static_cast<MIDIObjectRef>(*changedObject) != endpoint)
        return;

    VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorLocalOutputPropertyChangedNotification,
                                                                   shared_from_this());
}

void VelmorLocalOutput::closeObject()
{
    VELMOR_LINE("Closing MIDI Output: " + textOrNull(name()) + " ( " + textOrNull(manufacturer()) + " / " +
                textOrNull(model()) + " )");
    sendingEndpoint_.store(0, std::memory_order_release);
    if (const MIDIEndpointRef endpoint = object(); endpoint != 0) {
        const OSStatus status = MIDIEndpointDispose(endpoint);
        if (status != noErr)
            VELMOR_FAILED_WITH("noErr == status", status);
    }
    VelmorEndpoint::closeObject();
}

bool VelmorLocalOutput::hasIdentifier() const
{
    const auto current = identifier();
    return current && !current->empty();
}

void VelmorLocalOutput::setName(const std::optional<std::string>& name)
{
    if (hasIdentifier())
        VelmorEndpoint::setName(name);
}

void VelmorLocalOutput::setManufacturer(const std::optional<std::string>& manufacturer)
{
    if (hasIdentifier())
        VelmorEndpoint::setManufacturer(manufacturer);
}

void VelmorLocalOutput::setModel(const std::optional<std::string>& model)
{
    if (hasIdentifier())
        VelmorEndpoint::setModel(model);
}

void VelmorLocalOutput::sendEvent(const std::shared_ptr<VelmorEvent>& event)
{
    if (!event)
        return;
    // Not object(): the main thread may be closing the output right now.
    const MIDIEndpointRef endpoint = sendingEndpoint_.load(std::memory_order_acquire);
    if (endpoint == 0)
        return;
    PacketListImage image;
    renderPacketListImageForEvent(event, image);
    // A count alone, or nothing, is no list worth handing over.
    if (image.length <= 4)
        return;
    MIDIReceived(endpoint, reinterpret_cast<const MIDIPacketList*>(image.bytes));
}

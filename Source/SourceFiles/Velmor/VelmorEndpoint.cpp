#include "VelmorEndpoint.h"

#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorFailure.h"

using namespace VelmorPlatform;

namespace {

// The custom string property, on the platform's endpoint objects, that holds the framework's identifier.
constexpr std::string_view identifierProperty = "com_brightmarrow_Velmor_EndpointIdentifier";

// Name, manufacturer and model match only when both sides have one, and the same.
bool presentAndEqual(const std::optional<std::string>& mine, const std::optional<std::string>& theirs)
{
    return mine && theirs && *mine == *theirs;
}

std::string textOrNull(const std::optional<std::string>& text)
{
    return text ? *text : std::string(VelmorNullText);
}

} // namespace

std::shared_ptr<VelmorEndpoint> VelmorEndpoint::initWithEndpointRefRequestedUniqueID(
    MIDIEndpointRef endpoint, std::optional<std::int64_t> requestedUniqueID)
{
    std::shared_ptr<VelmorEndpoint> wrapper(new VelmorEndpoint);
    if (!wrapper->constructWithEndpointRefRequestedUniqueID(endpoint, requestedUniqueID))
        return nullptr;
    return wrapper;
}

std::shared_ptr<VelmorEndpoint> VelmorEndpoint::init()
{
    return initWithEndpointRefRequestedUniqueID(0, std::nullopt);
}

bool VelmorEndpoint::constructWithEndpointRefRequestedUniqueID(MIDIEndpointRef endpoint,
                                                               std::optional<std::int64_t> requestedUniqueID)
{
    if (!constructWithObjectRefRequestedUniqueID(endpoint, requestedUniqueID))
        return false;
    // Most endpoints have no identifier: a failing read is no failure.
    std::optional<std::string> identifier;
    if (MIDIObjectGetStringProperty(object(), identifierProperty, &identifier) == noErr)
        cachedIdentifier_ = std::move(identifier);
    return true;
}

std::string VelmorEndpoint::description() const
{
    return "VelmorEndpoint: mod:" + textOrNull(model()) + " mfg:" + textOrNull(manufacturer()) + " " +
           VelmorObject::description();
}

void VelmorEndpoint::setName(const std::optional<std::string>& name)
{
    if (object() == 0)
        return;
    VelmorObject::setName(name);
}

std::optional<std::string> VelmorEndpoint::manufacturer() const
{
    return readCachedString(kMIDIPropertyManufacturer, cachedManufacturer_);
}

void VelmorEndpoint::setManufacturer(const std::optional<std::string>& manufacturer)
{
    writeStringProperty(kMIDIPropertyManufacturer, manufacturer);
}

std::optional<std::string> VelmorEndpoint::model() const
{
    return readCachedString(kMIDIPropertyModel, cachedModel_);
}

void VelmorEndpoint::setModel(const std::optional<std::string>& model)
{
    writeStringProperty(kMIDIPropertyModel, model);
}

std::optional<std::string> VelmorEndpoint::identifier() const
{
    if (object() == 0)
        return cachedIdentifier_;
    std::optional<std::string> value;
    // Unlike manufacturer and model, a failing read answers from the cache, and "no string" clears it.
    if (MIDIObjectGetStringProperty(object(), identifierProperty, &value) == noErr)
        cachedIdentifier_ = std::move(value);
    return cachedIdentifier_;
}

void VelmorEndpoint::setIdentifier(const std::optional<std::string>& identifier)
{
    writeStringProperty(identifierProperty, identifier);
}

void VelmorEndpoint::writeStringProperty(std::string_view propertyID, const std::optional<std::string>& value)
{
    if (!value || value->empty() || object() == 0)
        return;
    // The caches follow reads only: after closeObject a getter gives the last value read.
    const OSStatus status = MIDIObjectSetStringProperty(object(), propertyID, *value);
    if (status != noErr)
        VELMOR_FAILED_WITH("noErr == status", status);
}

void VelmorEndpoint::objectPropertyChanged(const VelmorNotification& notification)
{
    VelmorObject::objectPropertyChanged(notification);

    if (!notification.userInfo || object() == 0)
        return;
    const VelmorDictionary& userInfo = *notification.userInfo;
    const VelmorValue* typeValue = userInfo.objectForKey(VelmorObjectTypeKey);
    const auto type = typeValue ? typeValue->int64Value() : std::nullopt;
    if (!type || *type != kMIDIObjectType_Entity)
        return;

    MIDIEntityRef entity = 0;
    if (MIDIEndpointGetEntity(object(), &entity) != noErr || entity == 0)
        return;
    const VelmorValue* objectValue = userInfo.objectForKey(VelmorObjectKey);
    const auto changedObject = objectValue ? objectValue->unsignedValue() : std::nullopt;
    if (!changedObject || static_cast<MIDIObjectRef>(*changedObject) != entity)
        return;

    VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorEndpointPropertyChangedNotification,
                                                                   shared_from_this());
}

bool VelmorEndpoint::matchesAttributesOptions(const std::shared_ptr<VelmorAttributes>& attributes,
                                              std::uint64_t options) const
{
    // Null attributes have every field null: no line, and an option word of 0 matches them too.
    static const std::optional<std::string> none;
    if ((options & VelmorAttributesOptionName) && !presentAndEqual(name(), attributes ? attributes->name() : none))
        return false;
    if ((options & VelmorAttributesOptionManufacturer) &&
        !presentAndEqual(manufacturer(), attributes ? attributes->manufacturer() : none))
        return false;
    if ((options & VelmorAttributesOptionModel) && !presentAndEqual(model(), attributes ? attributes->model() : none))
        return false;
    if ((options & VelmorAttributesOptionUniqueID) && attributes && attributes->uniqueID() &&
        uniqueID() != *attributes->uniqueID())
        return false;
    if ((options & VelmorAttributesOptionIdentifier) && attributes && attributes->identifier() &&
        !presentAndEqual(identifier(), attributes->identifier()))
        return false;
    return true;
}

std::shared_ptr<VelmorAttributes> VelmorEndpoint::attributes() const
{
    // Every field comes from a getter, so the manager's defaults that init() would copy in first are
    // left out: this runs for every decoded event.
    std::shared_ptr<VelmorAttributes> result(new VelmorAttributes);
    result->name_ = name();
    result->model_ = model();
    result->manufacturer_ = manufacturer();
    result->identifier_ = identifier();
    if (const std::int64_t id = uniqueID(); id != 0)
        result->uniqueID_ = id;
    return result;
}

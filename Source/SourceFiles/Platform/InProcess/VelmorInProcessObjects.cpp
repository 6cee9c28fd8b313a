#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

// --- Control surface ---------------------------------------------------------------------------------------

MIDIDeviceRef VelmorInProcessMIDIService::createDevice(std::string_view name, std::string_view manufacturer,
                                                      std::string_view model, bool external)
{
    std::unique_lock lock(state_->mutex);
    Object& device = state_->addObject(kMIDIObjectType_Device, 0, external, name);
    if (!manufacturer.empty())
        device.strings.emplace(kMIDIPropertyManufacturer, manufacturer);
    if (!model.empty())
        device.strings.emplace(kMIDIPropertyModel, model);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, device);
    return device.ref;
}

MIDIEntityRef VelmorInProcessMIDIService::createEntity(MIDIDeviceRef deviceRef, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    const Object* device = state_->find(deviceRef);
    if (!device || device->type != kMIDIObjectType_Device)
        return 0;
    const bool external = device->external;
    Object& entity = state_->addObject(kMIDIObjectType_Entity, deviceRef, external, name);
    state_->find(deviceRef)->entities.push_back(entity.ref);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, entity);
    return entity.ref;
}

MIDIEndpointRef VelmorInProcessMIDIService::createSource(MIDIEntityRef entity, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    return state_->addEndpoint(kMIDIObjectType_Source, entity, name, {}, {});
}

MIDIEndpointRef VelmorInProcessMIDIService::createDestination(MIDIEntityRef entity, std::string_view name)
{
    std::unique_lock lock(state_->mutex);
    return state_->addEndpoint(kMIDIObjectType_Destination, entity, name, {}, {});
}

VelmorInProcessMIDIService::SimpleDevice VelmorInProcessMIDIService::createSimpleDevice(
    std::string_view name, std::string_view manufacturer, std::string_view model, bool withSource,
    bool withDestination)
{
    SimpleDevice made;
    made.device = createDevice(name, manufacturer, model);
    std::unique_lock lock(state_->mutex);
    if (!state_->find(made.device))
        return made;  // removed by another thread in between
    Object& entity = state_->addObject(kMIDIObjectType_Entity, made.device, false, name);
    made.entity = entity.ref;
    state_->find(made.device)->entities.push_back(entity.ref);
    state_->notifyAddedRemoved(kMIDIMsgObjectAdded, entity);
    if (withSource)
        made.source = state_->addEndpoint(kMIDIObjectType_Source, made.entity, name, manufacturer, model);
    if (withDestination)
        made.destination = state_->addEndpoint(kMIDIObjectType_Destination, made.entity, name, manufacturer, model);
    return made;
}

OSStatus VelmorInProcessMIDIService::removeObject(MIDIObjectRef object)
{
    EndedCallbacks ended;
    {
        std::unique_lock lock(state_->mutex);
        if (!state_->find(object))
            return kMIDIParamErr;
        state_->removeTree(object, ended);
    }
    state_->dispatcher->waitForEnded(ended);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::removeStringProperty(MIDIObjectRef objectRef, std::string_view propertyID)
{
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        return kMIDIUnknownProperty;
    object->strings.erase(it);
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

MIDIObjectType VelmorInProcessMIDIService::objectType(MIDIObjectRef objectRef) const
{
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    return object ? object->type : kMIDIObjectType_Other;
}

// --- Enumeration -------------------------------------------------------------------------------------------

ItemCount VelmorInProcessMIDIService::numberOfSources()
{
    if (state_->begin(Call::GetNumberOfSources))
        return 0;
    std::shared_lock lock(state_->mutex);
    return state_->sourceList.size();
}

MIDIEndpointRef VelmorInProcessMIDIService::source(ItemCount index)
{
    if (state_->begin(Call::GetSource))
        return 0;
    std::shared_lock lock(state_->mutex);
    return index < state_->sourceList.size() ? state_->sourceList[index] : 0;
}

ItemCount VelmorInProcessMIDIService::numberOfDestinations()
{
    if (state_->begin(Call::GetNumberOfDestinations))
        return 0;
    std::shared_lock lock(state_->mutex);
    return state_->destinationList.size();
}

MIDIEndpointRef VelmorInProcessMIDIService::destination(ItemCount index)
{
    if (state_->begin(Call::GetDestination))
        return 0;
    std::shared_lock lock(state_->mutex);
    return index < state_->destinationList.size() ? state_->destinationList[index] : 0;
}

namespace {

template <class Member>
ItemCount childCount(const std::unordered_map<MIDIObjectRef, Object>& objects, MIDIObjectRef ref,
                     MIDIObjectType type, Member member)
{
    auto it = objects.find(ref);
    return it == objects.end() || it->second.type != type ? 0 : (it->second.*member).size();
}

template <class Member>
MIDIObjectRef childAt(const std::unordered_map<MIDIObjectRef, Object>& objects, MIDIObjectRef ref,
                      MIDIObjectType type, Member member, ItemCount index)
{
    auto it = objects.find(ref);
    if (it == objects.end() || it->second.type != type)
        return 0;
    const auto& children = it->second.*member;
    return index < children.size() ? children[index] : 0;
}

} // namespace

ItemCount VelmorInProcessMIDIService::deviceNumberOfEntities(MIDIDeviceRef device)
{
    if (state_->begin(Call::DeviceGetNumberOfEntities))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, device, kMIDIObjectType_Device, &Object::entities);
}

MIDIEntityRef VelmorInProcessMIDIService::deviceEntity(MIDIDeviceRef device, ItemCount index)
{
    if (state_->begin(Call::DeviceGetEntity))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, device, kMIDIObjectType_Device, &Object::entities, index);
}

ItemCount VelmorInProcessMIDIService::entityNumberOfSources(MIDIEntityRef entity)
{
    if (state_->begin(Call::EntityGetNumberOfSources))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, entity, kMIDIObjectType_Entity, &Object::sources);
}

MIDIEndpointRef VelmorInProcessMIDIService::entitySource(MIDIEntityRef entity, ItemCount index)
{
    if (state_->begin(Call::EntityGetSource))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, entity, kMIDIObjectType_Entity, &Object::sources, index);
}

ItemCount VelmorInProcessMIDIService::entityNumberOfDestinations(MIDIEntityRef entity)
{
    if (state_->begin(Call::EntityGetNumberOfDestinations))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childCount(state_->objects, entity, kMIDIObjectType_Entity, &Object::destinations);
}

MIDIEndpointRef VelmorInProcessMIDIService::entityDestination(MIDIEntityRef entity, ItemCount index)
{
    if (state_->begin(Call::EntityGetDestination))
        return 0;
    std::shared_lock lock(state_->mutex);
    return childAt(state_->objects, entity, kMIDIObjectType_Entity, &Object::destinations, index);
}

OSStatus VelmorInProcessMIDIService::endpointGetEntity(MIDIEndpointRef endpoint, MIDIEntityRef* outEntity)
{
    if (auto status = state_->begin(Call::EndpointGetEntity))
        return status;
    if (!outEntity)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(endpoint);
    if (!object || (object->type != kMIDIObjectType_Source && object->type != kMIDIObjectType_Destination))
        return state_->wrongKind(endpoint, kMIDIUnknownEndpoint);
    *outEntity = object->parent;  // 0 for a virtual source
    return noErr;
}

// --- Properties ----------------------------------------------------------------------------------------------

OSStatus VelmorInProcessMIDIService::getStringProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                       std::optional<std::string>* outString)
{
    if (auto status = state_->begin(Call::ObjectGetStringProperty))
        return status;
    if (!outString)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID == kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;  // an integer
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        outString->reset();
    else
        *outString = it->second;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::setStringProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                       std::string_view value)
{
    if (auto status = state_->begin(Call::ObjectSetStringProperty))
        return status;
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID == kMIDIPropertyUniqueID || propertyID.empty())
        return kMIDIUnknownProperty;
    auto it = object->strings.find(propertyID);
    if (it == object->strings.end())
        object->strings.emplace(propertyID, value);
    else
        it->second = value;
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

OSStatus VelmorInProcessMIDIService::getIntegerProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                        std::int32_t* outValue)
{
    if (auto status = state_->begin(Call::ObjectGetIntegerProperty))
        return status;
    if (!outValue)
        return kMIDIParamErr;
    std::shared_lock lock(state_->mutex);
    const Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    *outValue = object->uniqueID;
    return noErr;
}

OSStatus VelmorInProcessMIDIService::setIntegerProperty(MIDIObjectRef objectRef, std::string_view propertyID,
                                                        std::int32_t value)
{
    if (auto status = state_->begin(Call::ObjectSetIntegerProperty))
        return status;
    std::unique_lock lock(state_->mutex);
    Object* object = state_->find(objectRef);
    if (!object)
        return kMIDIParamErr;
    if (propertyID != kMIDIPropertyUniqueID)
        return kMIDIUnknownProperty;
    // 0 is "no ID", which any number of objects may have.
    if (value != 0) {
        auto holder = state_->uniqueIDs.find(value);
        if (holder != state_->uniqueIDs.end() && holder->second != objectRef)
            return kMIDIIDNotUnique;
    }
    if (auto own = state_->uniqueIDs.find(object->uniqueID); own != state_->uniqueIDs.end() && own->second == objectRef)
        state_->uniqueIDs.erase(own);
    object->uniqueID = value;
    if (value != 0)
        state_->uniqueIDs[value] = objectRef;
    state_->notifyPropertyChanged(*object, propertyID);
    return noErr;
}

} // namespace VelmorPlatform

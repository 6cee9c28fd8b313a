#include "VelmorAttributes.h"

#include <typeinfo>

#include "VelmorManager.h"

namespace {

bool hasLength(const std::optional<std::string>& text)
{
    return text && !text->empty();
}

std::string orNull(const std::optional<std::string>& text)
{
    return text ? *text : std::string(VelmorNullText);
}

// The value under the plain key, or under the long key when the plain key is missing.
const VelmorValue* lookUp(const VelmorDictionary& dictionary, std::string_view plainKey, std::string_view longKey)
{
    if (const VelmorValue* value = dictionary.objectForKey(plainKey))
        return value;
    return dictionary.objectForKey(longKey);
}

} // namespace

std::shared_ptr<VelmorAttributes> VelmorAttributes::initWithDictionary(const VelmorDictionary* dictionary)
{
    if (!dictionary)
        return nullptr;
    std::shared_ptr<VelmorAttributes> attributes(new VelmorAttributes);

    const auto requiredString = [&](std::string_view plainKey, std::string_view longKey,
                                    std::optional<std::string>& field) {
        const VelmorValue* value = lookUp(*dictionary, plainKey, longKey);
        if (!value || !value->isString())
            return false;
        field = value->stringValue();
        return true;
    };
    if (!requiredString("name", VelmorEventSourceNameKey, attributes->name_)
        || !requiredString("model", VelmorEventSourceModelKey, attributes->model_)
        || !requiredString("manufacturer", VelmorEventSourceManufacturerKey, attributes->manufacturer_))
        return nullptr;

    if (const VelmorValue* value = lookUp(*dictionary, "uniqueID", VelmorEventSourceUniqueIDKey)) {
        if (!value->isNumber())
            return nullptr;
        attributes->uniqueID_ = value->int64Value();
    }
    if (const VelmorValue* value = lookUp(*dictionary, "index", VelmorEventSourceIndexKey)) {
        const auto index = value->unsignedValue();
        if (!index)
            return nullptr;
        attributes->index_ = *index;
    }
    if (const VelmorValue* value = lookUp(*dictionary, "identifier", VelmorEventSourceIdentifierKey)) {
        if (!value->isString())
            return nullptr;
        attributes->identifier_ = value->stringValue();
    }
    return attributes;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::init()
{
    std::shared_ptr<VelmorAttributes> attributes(new VelmorAttributes);
    // The manager's three strings are never empty, so the dictionary form would accept them: set the
    // fields directly. This runs for every decoded event.
    if (auto manager = VelmorManager::sharedManager()) {
        attributes->name_ = manager->clientName();
        attributes->model_ = manager->localOutputModel();
        attributes->manufacturer_ = manager->localOutputManufacturer();
    }
    return attributes;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::defaultAttributesWithName(const std::optional<std::string>& name)
{
    auto attributes = init();
    if (hasLength(name))
        attributes->name_ = name;
    return attributes;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::defaultAttributesWithNameIdentifier(
    const std::optional<std::string>& name, const std::optional<std::string>& identifier)
{
    auto attributes = defaultAttributesWithName(name);
    if (hasLength(identifier))
        attributes->identifier_ = identifier;
    return attributes;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::attributesWithDictionary(const VelmorDictionary* dictionary)
{
    return initWithDictionary(dictionary);
}

std::string VelmorAttributes::description() const
{
    std::string text = "{";
    text += className();
    text += " <" + VelmorPointerString(this) + ">: ";
    text += orNull(manufacturer_) + " " + orNull(model_) + " \"" + orNull(name_) + "\" #";
    text += identifier_ ? *identifier_ : "n/a";
    text += " (uid:";
    text += uniqueID_ ? std::to_string(*uniqueID_) : "n/a";
    text += " i:" + std::to_string(index_) + ")}";
    return text;
}

bool VelmorAttributes::isEqual(const std::shared_ptr<const VelmorRootObject>& other) const
{
    if (other.get() == this)
        return true;
    const auto* attributes = dynamic_cast<const VelmorAttributes*>(other.get());
    return attributes && isEqual(*attributes);
}

bool VelmorAttributes::isOfThisClassOrDerived(const VelmorAttributes& other) const
{
    const std::type_info& mine = typeid(*this);
    const std::type_info& theirs = typeid(other);
    if (mine == theirs || mine == typeid(VelmorAttributes))
        return true;
#if defined(__GLIBCXX__)
    // Asks what a catch clause of this object's class asks of a thrown object: is it of that class or
    // derived from it. Works for classes the framework has never seen.
    void* object = const_cast<void*>(dynamic_cast<const void*>(&other));
    return mine.__do_catch(&theirs, &object, 1);
#else
    return false;
#endif
}

bool VelmorAttributes::isEqual(const VelmorAttributes& other) const
{
    if (&other == this)
        return true;
    if (!isOfThisClassOrDerived(other))
        return false;
    return name_ == other.name_ && model_ == other.model_ && manufacturer_ == other.manufacturer_
        && uniqueID_.value_or(0) == other.uniqueID_.value_or(0) && index_ == other.index_
        && identifier_ == other.identifier_;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::copy() const
{
    // The dictionary form refuses exactly a missing name, model or manufacturer and gives every other
    // field back as it was: copy directly under the same rule.
    if (!name_ || !model_ || !manufacturer_)
        return nullptr;
    std::shared_ptr<VelmorAttributes> copy(new VelmorAttributes);
    copy->name_ = name_;
    copy->model_ = model_;
    copy->manufacturer_ = manufacturer_;
    copy->uniqueID_ = uniqueID_;
    copy->index_ = index_;
    copy->identifier_ = identifier_;
    return copy;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::attributesByReplacingNameWith(
    const std::optional<std::string>& name) const
{
    auto result = copy();
    if (result)
        result->setName(name);
    return result;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::attributesWithOptions(std::uint64_t options) const
{
    auto result = copy();
    if (!result)
        return nullptr;
    if (!(options & VelmorAttributesOptionManufacturer))
        result->manufacturer_.reset();
    if (!(options & VelmorAttributesOptionModel))
        result->model_.reset();
    if (!(options & VelmorAttributesOptionUniqueID))
        result->uniqueID_.reset();
    if (!(options & VelmorAttributesOptionIndex))
        result->index_ = 0;
    if (!(options & VelmorAttributesOptionIdentifier))
        result->identifier_.reset();
    return result;
}

std::shared_ptr<VelmorAttributes> VelmorAttributes::attributesbyReplacingIndexWith(std::uint64_t index) const
{
    auto result = copy();
    if (result)
        result->index_ = index;
    return result;
}

VelmorDictionary VelmorAttributes::dictionaryRepresentation() const
{
    VelmorDictionary dictionary;
    if (name_)
        dictionary.setObjectForKey(VelmorValue(*name_), VelmorEventSourceNameKey);
    if (model_)
        dictionary.setObjectForKey(VelmorValue(*model_), VelmorEventSourceModelKey);
    if (manufacturer_)
        dictionary.setObjectForKey(VelmorValue(*manufacturer_), VelmorEventSourceManufacturerKey);
    if (uniqueID_)
        dictionary.setObjectForKey(VelmorValue(*uniqueID_), VelmorEventSourceUniqueIDKey);
    dictionary.setObjectForKey(VelmorValue(index_), VelmorEventSourceIndexKey);
    if (identifier_)
        dictionary.setObjectForKey(VelmorValue(*identifier_), VelmorEventSourceIdentifierKey);
    return dictionary;
}

std::string VelmorAttributes::descriptiveString() const
{
    const bool name = hasLength(name_);
    const bool manufacturer = hasLength(manufacturer_);
    const bool model = hasLength(model_);
    if (name) {
        if (!manufacturer && !model)
            return *name_;
        std::string text = *name_ + " (";
        if (manufacturer)
            text += " " + *manufacturer_;
        if (model)
            text += " " + *model_;
        return text + " )";
    }
    if (manufacturer)
        return model ? *manufacturer_ + " " + *model_ : *manufacturer_;
    if (model)
        return *model_;
    return "Device ID#" + (uniqueID_ ? std::to_string(*uniqueID_) : std::string(VelmorNullText));
}

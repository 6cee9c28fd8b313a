#include "VelmorValue.h"

VelmorDictionary::VelmorDictionary(std::initializer_list<std::pair<const std::string, VelmorValue>> entries)
{
    for (const auto& entry : entries)
        entries_.insert_or_assign(entry.first, entry.second);
}

const VelmorValue* VelmorDictionary::objectForKey(std::string_view key) const
{
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : &found->second;
}

void VelmorDictionary::setObjectForKey(VelmorValue value, std::string_view key)
{
    const auto found = entries_.find(key);
    if (found != entries_.end())
        found->second = std::move(value);
    else
        entries_.emplace(std::string(key), std::move(value));
}

void VelmorDictionary::removeObjectForKey(std::string_view key)
{
    const auto found = entries_.find(key);
    if (found != entries_.end())
        entries_.erase(found);
}

std::vector<std::string> VelmorDictionary::allKeys() const
{
    std::vector<std::string> keys;
    keys.reserve(entries_.size());
    for (const auto& entry : entries_)
        keys.push_back(entry.first);
    return keys;
}

bool operator==(const VelmorDictionary& a, const VelmorDictionary& b)
{
    return a.entries_ == b.entries_;
}

std::string VelmorDictionary::description() const
{
    std::string text = "{";
    for (const auto& [key, value] : entries_) {
        text += key;
        text += " = ";
        text += value.description();
        text += "; ";
    }
    text += '}';
    return text;
}

std::optional<std::string> VelmorValue::stringValue() const
{
    if (const auto* string = std::get_if<std::string>(&storage_))
        return *string;
    return std::nullopt;
}

std::optional<std::int64_t> VelmorValue::int64Value() const
{
    if (const auto* number = std::get_if<std::int64_t>(&storage_))
        return *number;
    if (const auto* number = std::get_if<std::uint64_t>(&storage_))
        return static_cast<std::int64_t>(*number);
    return std::nullopt;
}

std::optional<std::uint64_t> VelmorValue::unsignedValue() const
{
    if (const auto* number = std::get_if<std::uint64_t>(&storage_))
        return *number;
    if (const auto* number = std::get_if<std::int64_t>(&storage_))
        return static_cast<std::uint64_t>(*number);
    return std::nullopt;
}

const VelmorDictionary* VelmorValue::dictionaryValue() const
{
    if (const auto* dictionary = std::get_if<DictionaryPointer>(&storage_))
        return dictionary->get();
    return nullptr;
}

const VelmorArray* VelmorValue::arrayValue() const
{
    if (const auto* array = std::get_if<ArrayPointer>(&storage_))
        return array->get();
    return nullptr;
}

std::shared_ptr<VelmorRootObject> VelmorValue::objectValue() const
{
    if (const auto* object = std::get_if<ObjectPointer>(&storage_))
        return *object;
    return nullptr;
}

bool operator==(const VelmorValue& a, const VelmorValue& b)
{
    if (a.storage_.index() != b.storage_.index())
        return false;
    if (const auto* dictionary = a.dictionaryValue())
        return *dictionary == *b.dictionaryValue();
    if (const auto* array = a.arrayValue())
        return *array == *b.arrayValue();
    return a.storage_ == b.storage_;
}

std::string VelmorArrayDescription(const VelmorArray& array)
{
    std::string text = "(";
    for (std::size_t i = 0; i < array.size(); ++i) {
        if (i > 0)
            text += ", ";
        text += array[i].description();
    }
    text += ')';
    return text;
}

std::string VelmorValue::description() const
{
    if (const auto* string = std::get_if<std::string>(&storage_)) {
        std::string text = "\"";
        for (const char c : *string) {
            if (c == '"' || c == '\\')
                text += '\\';
            text += c;
        }
        text += '"';
        return text;
    }
    if (const auto* number = std::get_if<std::int64_t>(&storage_))
        return std::to_string(*number);
    if (const auto* number = std::get_if<std::uint64_t>(&storage_))
        return std::to_string(*number);
    if (const auto* dictionary = dictionaryValue())
        return dictionary->description();
    if (const auto* array = arrayValue())
        return VelmorArrayDescription(*array);
    const auto object = objectValue();
    return object ? object->description() : VelmorNullText;
}

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VelmorRootObject.h"

class VelmorValue;

// An array of values.
using VelmorArray = std::vector<VelmorValue>;

// A dictionary with string keys. Keys are kept sorted so that the text form is the same every time.
class VelmorDictionary {
public:
    VelmorDictionary() = default;
    VelmorDictionary(std::initializer_list<std::pair<const std::string, VelmorValue>> entries);

    // Null when the key is missing.
    const VelmorValue* objectForKey(std::string_view key) const;
    void setObjectForKey(VelmorValue value, std::string_view key);
    void removeObjectForKey(std::string_view key);
    bool containsKey(std::string_view key) const { return objectForKey(key) != nullptr; }
    std::size_t count() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    std::vector<std::string> allKeys() const;

    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }

    friend bool operator==(const VelmorDictionary& a, const VelmorDictionary& b);

    // "{key = value; key2 = \"text\"; }", keys in sorted order.
    std::string description() const;

private:
    std::map<std::string, VelmorValue, std::less<>> entries_;
};

// One value of a dictionary or array: a string, a signed or unsigned number, a nested dictionary, an
// array, or a reference to a framework object. A dictionary never holds a null value: absence is a
// missing key.
class VelmorValue {
public:
    VelmorValue(std::string string) : storage_(std::move(string)) {}
    VelmorValue(const char* string) : storage_(std::string(string)) {}
    VelmorValue(std::string_view string) : storage_(std::string(string)) {}
    VelmorValue(std::int64_t number) : storage_(number) {}
    VelmorValue(std::int32_t number) : storage_(std::int64_t(number)) {}
    VelmorValue(std::uint64_t number) : storage_(number) {}
    VelmorValue(std::uint32_t number) : storage_(std::uint64_t(number)) {}
    VelmorValue(VelmorDictionary dictionary)
        : storage_(std::make_shared<const VelmorDictionary>(std::move(dictionary))) {}
    VelmorValue(VelmorArray array) : storage_(std::make_shared<const VelmorArray>(std::move(array))) {}
    VelmorValue(std::shared_ptr<VelmorRootObject> object) : storage_(std::move(object)) {}
    template <class T, class = std::enable_if_t<std::is_base_of_v<VelmorRootObject, T>>>
    VelmorValue(std::shared_ptr<T> object) : storage_(std::shared_ptr<VelmorRootObject>(std::move(object))) {}

    static VelmorValue signedNumber(std::int64_t number) { return VelmorValue(number); }
    static VelmorValue unsignedNumber(std::uint64_t number) { return VelmorValue(number); }

    // Type tests.
    bool isString() const { return std::holds_alternative<std::string>(storage_); }
    bool isSignedNumber() const { return std::holds_alternative<std::int64_t>(storage_); }
    bool isUnsignedNumber() const { return std::holds_alternative<std::uint64_t>(storage_); }
    bool isNumber() const { return isSignedNumber() || isUnsignedNumber(); }
    bool isDictionary() const { return std::holds_alternative<DictionaryPointer>(storage_); }
    bool isArray() const { return std::holds_alternative<ArrayPointer>(storage_); }
    bool isObject() const { return std::holds_alternative<ObjectPointer>(storage_); }

    // Accessors answer only for their own type: stringValue of a number is nullopt.
    std::optional<std::string> stringValue() const;
    // Numbers of either sign answer both, by two's-complement conversion, as numbers do.
    std::optional<std::int64_t> int64Value() const;
    std::optional<std::uint64_t> unsignedValue() const;
    const VelmorDictionary* dictionaryValue() const;
    const VelmorArray* arrayValue() const;
    std::shared_ptr<VelmorRootObject> objectValue() const;
    template <class T>
    std::shared_ptr<T> objectAs() const { return std::dynamic_pointer_cast<T>(objectValue()); }

    // Same type and equal content; objects by identity.
    friend bool operator==(const VelmorValue& a, const VelmorValue& b);

    // Strings in double quotes, numbers in decimal, objects by their own text form.
    std::string description() const;

private:
    using DictionaryPointer = std::shared_ptr<const VelmorDictionary>;
    using ArrayPointer = std::shared_ptr<const VelmorArray>;
    using ObjectPointer = std::shared_ptr<VelmorRootObject>;
    std::variant<std::string, std::int64_t, std::uint64_t, DictionaryPointer, ArrayPointer, ObjectPointer> storage_;
};

std::string VelmorArrayDescription(const VelmorArray& array);

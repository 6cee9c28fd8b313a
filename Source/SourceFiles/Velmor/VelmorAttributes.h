#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VelmorRootObject.h"
#include "VelmorValue.h"

inline constexpr std::string_view VelmorAttributesKey = "VelmorSourceAttributesKey";
inline constexpr std::string_view VelmorAttributesPboardType = "com.brightmarrow.uti.Velmor.SourceAttributes";

// The long keys of the dictionary form; also the keys under which an event's properties embed it.
inline constexpr std::string_view VelmorEventSourceNameKey = "VelmorEventSourceName";
inline constexpr std::string_view VelmorEventSourceModelKey = "VelmorEventSourceModel";
inline constexpr std::string_view VelmorEventSourceManufacturerKey = "VelmorEventSourceManufacturer";
inline constexpr std::string_view VelmorEventSourceUniqueIDKey = "VelmorEventSourceUniqueID";
inline constexpr std::string_view VelmorEventSourceIndexKey = "VelmorEventSourceIndex";
inline constexpr std::string_view VelmorEventSourceIdentifierKey = "VelmorEventSourceIdentifier";

// Option bits: which fields take part in attributesWithOptions() and in a match.
inline constexpr std::uint64_t VelmorAttributesOptionName = 0x01;
inline constexpr std::uint64_t VelmorAttributesOptionManufacturer = 0x02;
inline constexpr std::uint64_t VelmorAttributesOptionModel = 0x04;
inline constexpr std::uint64_t VelmorAttributesOptionUniqueID = 0x08;
inline constexpr std::uint64_t VelmorAttributesOptionIndex = 0x10;
inline constexpr std::uint64_t VelmorAttributesOptionIdentifier = 0x20;

// The value that names a MIDI source or output: what an application saves to find a device again.
class VelmorAttributes : public VelmorRootObject {
public:
    // A new value with the manager's default strings (starts the manager if needed), the name replaced
    // when `name` is not empty, and the identifier set when `identifier` is not empty.
    static std::shared_ptr<VelmorAttributes> defaultAttributesWithName(const std::optional<std::string>& name);
    static std::shared_ptr<VelmorAttributes> defaultAttributesWithNameIdentifier(
        const std::optional<std::string>& name, const std::optional<std::string>& identifier);
    static std::shared_ptr<VelmorAttributes> attributesWithDictionary(const VelmorDictionary* dictionary);

    // Null when a required field is missing or a field has the wrong type. A null dictionary gives null.
    static std::shared_ptr<VelmorAttributes> initWithDictionary(const VelmorDictionary* dictionary);
    // The manager's client name, local output model and manufacturer; no unique ID, index 0, no
    // identifier. Without a manager all three strings are null.
    static std::shared_ptr<VelmorAttributes> init();

    const char* className() const override { return "VelmorAttributes"; }
    // "{VelmorAttributes <0x...>: manufacturer model \"name\" #identifier (uid:uniqueID i:index)}"
    std::string description() const override;

    // Field by field, nulls equal nulls, a null unique ID equals 0, index exactly.
    bool isEqual(const std::shared_ptr<const VelmorRootObject>& other) const;
    bool isEqual(const VelmorAttributes& other) const;
    // True when `other` is of this object's dynamic class or of a class derived from it.
    bool isOfThisClassOrDerived(const VelmorAttributes& other) const;
    std::uint64_t hash() const { return 0; }

    // A copy through the dictionary form: null when name, model or manufacturer is null.
    std::shared_ptr<VelmorAttributes> copy() const;
    std::shared_ptr<VelmorAttributes> attributesByReplacingNameWith(const std::optional<std::string>& name) const;
    std::shared_ptr<VelmorAttributes> attributesWithOptions(std::uint64_t options) const;
    std::shared_ptr<VelmorAttributes> attributesbyReplacingIndexWith(std::uint64_t index) const;

    // Long keys only; index always, as an unsigned number.
    VelmorDictionary dictionaryRepresentation() const;
    // "Name ( Manufacturer Model )" and its variants.
    std::string descriptiveString() const;
    // True exactly when an identifier is present (an empty one counts).
    bool isLocal() const { return identifier_.has_value(); }

    const std::optional<std::string>& name() const { return name_; }
    void setName(const std::optional<std::string>& name) { name_ = name; }
    const std::optional<std::string>& model() const { return model_; }
    void setModel(const std::optional<std::string>& model) { model_ = model; }
    const std::optional<std::string>& manufacturer() const { return manufacturer_; }
    void setManufacturer(const std::optional<std::string>& manufacturer) { manufacturer_ = manufacturer; }
    const std::optional<std::int64_t>& uniqueID() const { return uniqueID_; }
    void setUniqueID(const std::optional<std::int64_t>& uniqueID) { uniqueID_ = uniqueID; }
    std::uint64_t index() const { return index_; }
    void setIndex(std::uint64_t index) { index_ = index; }
    const std::optional<std::string>& identifier() const { return identifier_; }
    void setIdentifier(const std::optional<std::string>& identifier) { identifier_ = identifier; }

protected:
    VelmorAttributes() = default;
    // An endpoint fills in every field itself, for every decoded event: the defaults would be
    // overwritten at once.
    friend class VelmorEndpoint;

private:
    std::optional<std::string> name_;
    std::optional<std::string> model_;
    std::optional<std::string> manufacturer_;
    std::optional<std::int64_t> uniqueID_;
    std::uint64_t index_ = 0;
    std::optional<std::string> identifier_;
};

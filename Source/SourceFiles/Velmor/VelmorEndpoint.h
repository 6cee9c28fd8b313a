#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VelmorObject.h"

class VelmorAttributes;

// Posted by an endpoint, without user information, when a property of its entity has changed.
inline constexpr std::string_view VelmorEndpointPropertyChangedNotification = "VelmorEndpointPropertyChanged";

// A MIDI source or destination: an object with manufacturer, model and the framework's own identifier,
// each read from the platform with a cache behind it.
class VelmorEndpoint : public VelmorObject {
public:
    static std::shared_ptr<VelmorEndpoint> initWithEndpointRefRequestedUniqueID(
        VelmorPlatform::MIDIEndpointRef endpoint, std::optional<std::int64_t> requestedUniqueID);
    // Always null.
    static std::shared_ptr<VelmorEndpoint> init();

    const char* className() const override { return "VelmorEndpoint"; }
    // "VelmorEndpoint: mod:<model> mfg:<manufacturer> <object text form>"
    std::string description() const override;

    // Does nothing on a closed endpoint.
    void setName(const std::optional<std::string>& name) override;
    // The object's own handling first; then a change of the endpoint's entity posts
    // VelmorEndpointPropertyChangedNotification.
    void objectPropertyChanged(const VelmorNotification& notification) override;

    // True when every field the options select agrees. Name, manufacturer and model must be present
    // on both sides; a null unique ID or identifier in `attributes` asks for nothing. The index bit is
    // ignored here.
    virtual bool matchesAttributesOptions(const std::shared_ptr<VelmorAttributes>& attributes,
                                          std::uint64_t options) const;

    // Null on a failing read (other than -50); the cache when closed or on -50.
    virtual std::optional<std::string> manufacturer() const;
    virtual void setManufacturer(const std::optional<std::string>& manufacturer);
    virtual std::optional<std::string> model() const;
    virtual void setModel(const std::optional<std::string>& model);
    // The cache on any failing read.
    virtual std::optional<std::string> identifier() const;
    virtual void setIdentifier(const std::optional<std::string>& identifier);

    // A new value from the getters: name, model, manufacturer, identifier; the unique ID unless 0;
    // index 0.
    virtual std::shared_ptr<VelmorAttributes> attributes() const;

    // Plain fields: the setters only store.
    const std::optional<std::string>& cachedManufacturer() const { return cachedManufacturer_; }
    void setCachedManufacturer(const std::optional<std::string>& value) { cachedManufacturer_ = value; }
    const std::optional<std::string>& cachedModel() const { return cachedModel_; }
    void setCachedModel(const std::optional<std::string>& value) { cachedModel_ = value; }
    const std::optional<std::string>& cachedIdentifier() const { return cachedIdentifier_; }
    void setCachedIdentifier(const std::optional<std::string>& value) { cachedIdentifier_ = value; }

protected:
    VelmorEndpoint() = default;
    // The object's construction, then the identifier read. Subclasses call it first.
    bool constructWithEndpointRefRequestedUniqueID(VelmorPlatform::MIDIEndpointRef endpoint,
                                                   std::optional<std::int64_t> requestedUniqueID);

    // The write of setManufacturer, setModel and setIdentifier: nothing for null, empty or closed.
    void writeStringProperty(std::string_view propertyID, const std::optional<std::string>& value);

private:
    mutable std::optional<std::string> cachedManufacturer_;
    mutable std::optional<std::string> cachedModel_;
    mutable std::optional<std::string> cachedIdentifier_;
};

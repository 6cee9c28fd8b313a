#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class VelmorAttributes;
class VelmorConsumer;

// A MIDI source as an application sees it: registration of consumers by event type and channel, and
// identity. A channel is 1 to 16, or 0 for all sixteen.
class VelmorSource {
public:
    virtual ~VelmorSource() = default;

    // Every event of the source.
    virtual void addConsumer(const std::shared_ptr<VelmorConsumer>& consumer) = 0;
    // Out of every row. Unlike the other removals it never disconnects the source.
    virtual void removeConsumer(const std::shared_ptr<VelmorConsumer>& consumer) = 0;
    // A type without a table (anything but 0x80, 0x90, ... 0xF0) does nothing at all.
    virtual void addConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer, std::uint64_t type,
                                                  std::uint64_t channel) = 0;
    virtual void removeConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                     std::uint64_t type, std::uint64_t channel) = 0;
    virtual void addConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                  std::uint64_t channel) = 0;
    virtual void removeConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                     std::uint64_t channel) = 0;

    virtual std::optional<std::string> name() const = 0;
    // Never null: "" when the platform has none.
    virtual std::optional<std::string> manufacturer() const = 0;
    virtual std::optional<std::string> model() const = 0;
    virtual std::int64_t uniqueID() const = 0;
    virtual std::uint64_t index() const = 0;
    virtual std::optional<std::string> identifier() const = 0;
    virtual std::string descriptiveString() const = 0;
    virtual std::shared_ptr<VelmorAttributes> attributes() const = 0;
    virtual bool matchesAttributesOptions(const std::shared_ptr<VelmorAttributes>& attributes,
                                          std::uint64_t options) const = 0;
};

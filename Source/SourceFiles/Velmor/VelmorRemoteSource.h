#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorAttributes.h"
#include "VelmorConsumer.h"
#include "VelmorEndpoint.h"
#include "VelmorSource.h"

class VelmorManager;
class VelmorPacket;
class VelmorPacketList;

// Posted by a source, without user information, when one of its own properties changed.
inline constexpr std::string_view VelmorRemoteSourcePropertyChangedNotification = "VelmorRemoteSourcePropertyChanged";

// A row: the consumers of one event type in one channel, oldest registration first, each at most once.
using VelmorConsumerRow = std::vector<std::shared_ptr<VelmorConsumer>>;
// A table: the 16 rows of one event type; channel c stands at position c - 1.
using VelmorConsumerTable = std::vector<VelmorConsumerRow>;

// Appends `consumer` unless it is null or already in the row (by the consumer's equality test).
void addObjectIfNotAlreadyPresent(VelmorConsumerRow& row, const std::shared_ptr<VelmorConsumer>& consumer);

// A MIDI source of the system. The manager makes one per platform source and keeps it while the
// platform lists the endpoint. Consumers stand in eight tables of sixteen rows; the first registration
// connects the source to the manager's input port, and a removal that leaves every row empty
// disconnects it (except removeConsumer()).
//
// Everything here runs on the main thread.
class VelmorRemoteSource : public VelmorEndpoint, public VelmorSource {
public:
    // Null for reference 0 (silently) and when the endpoint can't be wrapped. A source never writes a
    // unique ID: the requested one is not passed on.
    static std::shared_ptr<VelmorRemoteSource> initWithEndpointRefRequestedUniqueID(
        VelmorPlatform::MIDIEndpointRef endpoint, std::optional<std::int64_t> requestedUniqueID);
    // Always null: a source needs an endpoint.
    static std::shared_ptr<VelmorRemoteSource> init();

    const char* className() const override { return "VelmorRemoteSource"; }
    // "{VelmorRemoteSource <0x...>: manufacturer model \"name\" #identifier (uid:uniqueID i:index)}"
    std::string description() const override;

    // --- Registration -----------------------------------------------------------------------------
    void addConsumer(const std::shared_ptr<VelmorConsumer>& consumer) override;
    void removeConsumer(const std::shared_ptr<VelmorConsumer>& consumer) override;
    void addConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer, std::uint64_t type,
                                          std::uint64_t channel) override;
    void removeConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer, std::uint64_t type,
                                             std::uint64_t channel) override;
    void addConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                          std::uint64_t channel) override;
    void removeConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                             std::uint64_t channel) override;

    // The table of an event type code (0x80, 0x90, ... 0xF0), or null for any other value.
    std::shared_ptr<VelmorConsumerTable> consumerArrayForEventType(std::uint64_t type) const;
    // Leaves the input port when every row is empty, with the "Removing MIDI Source" line.
    void disconnectFromInputPortIfPossible();
    // Decodes each packet and hands the event to a copy of its row, with the manager told around it.
    void handlePacketList(const std::shared_ptr<VelmorPacketList>& packetList);

    // The tables. A table installed here should have 16 rows; rows it lacks count as empty.
    std::shared_ptr<VelmorConsumerTable> noteOffConsumers() const { return noteOffConsumers_; }
    void setNoteOffConsumers(std::shared_ptr<VelmorConsumerTable> table) { noteOffConsumers_ = std::move(table); }
    std::shared_ptr<VelmorConsumerTable> noteOnConsumers() const { return noteOnConsumers_; }
    void setNoteOnConsumers(std::shared_ptr<VelmorConsumerTable> table) { noteOnConsumers_ = std::move(table); }
    std::shared_ptr<VelmorConsumerTable> afterTouchConsumers() const { return afterTouchConsumers_; }
    void setAfterTouchConsumers(std::shared_ptr<VelmorConsumerTable> table) { afterTouchConsumers_ = std::move(table); }
    std::shared_ptr<VelmorConsumerTable> controlChangeConsumers() const { return controlChangeConsumers_; }
    void setControlChangeConsumers(std::shared_ptr<VelmorConsumerTable> table)
    {
        controlChangeConsumers_ = std::move(table);
    }
    std::shared_ptr<VelmorConsumerTable> patchChangeConsumers() const { return patchChangeConsumers_; }
    void setPatchChangeConsumers(std::shared_ptr<VelmorConsumerTable> table) { patchChangeConsumers_ = std::move(table); }
    std::shared_ptr<VelmorConsumerTable> channelPressureConsumers() const { return channelPressureConsumers_; }
    void setChannelPressureConsumers(std::shared_ptr<VelmorConsumerTable> table)
    {
        channelPressureConsumers_ = std::move(table);
    }
    std::shared_ptr<VelmorConsumerTable> pitchWheelConsumers() const { return pitchWheelConsumers_; }
    void setPitchWheelConsumers(std::shared_ptr<VelmorConsumerTable> table) { pitchWheelConsumers_ = std::move(table); }
    std::shared_ptr<VelmorConsumerTable> sysExConsumers() const { return sysExConsumers_; }
    void setSysExConsumers(std::shared_ptr<VelmorConsumerTable> table) { sysExConsumers_ = std::move(table); }

    // --- Identity ---------------------------------------------------------------------------------
    std::optional<std::string> name() const override { return VelmorEndpoint::name(); }
    // "" where the endpoint has none.
    std::optional<std::string> manufacturer() const override;
    std::optional<std::string> model() const override;
    std::int64_t uniqueID() const override { return VelmorEndpoint::uniqueID(); }
    // 0 for a lone source, 1, 2, ... within a group of identical sources. Set by the manager only.
    std::uint64_t index() const override { return index_; }
    void setIndex(std::uint64_t index) { index_ = index; }
    std::optional<std::string> identifier() const override { return VelmorEndpoint::identifier(); }
    // "Name ( Manufacturer Model )" and its variants; "Device ID#uniqueID" without any of the three.
    std::string descriptiveString() const override;
    // The endpoint's attributes with this source's index: a new value at each call, read from the
    // platform each time (decoding asks for it once per event). Null where the name can't be read.
    std::shared_ptr<VelmorAttributes> attributes() const override;
    // The endpoint's test, then the index if VelmorAttributesOptionIndex is set: 0 and 1 match each other.
    bool matchesAttributesOptions(const std::shared_ptr<VelmorAttributes>& attributes,
                                  std::uint64_t options) const override;

    // The endpoint's handling, then VelmorRemoteSourcePropertyChangedNotification for a change of this
    // source itself.
    void objectPropertyChanged(const VelmorNotification& notification) override;
    // The source has left the system: every consumer hears sourceIsTerminating() once per row it stands
    // in, and the source leaves the input port. The rows keep their consumers.
    void willBeRemoved();

protected:
    VelmorRemoteSource();
    bool constructWithEndpointRef(VelmorPlatform::MIDIEndpointRef endpoint);

private:
    std::shared_ptr<VelmorRemoteSource> self() const;
    // The eight tables in field order.
    template <class Visit>
    void forEachTable(Visit&& visit) const;
    // The rows `channel` names in `table`: one, all for 0, none for a channel the table lacks.
    template <class Visit>
    static void forEachRow(VelmorConsumerTable& table, std::uint64_t channel, Visit&& visit);
    void connectToInputPort();
    void deliver(const std::shared_ptr<VelmorPacket>& packet, const std::shared_ptr<VelmorRemoteSource>& source,
                 VelmorManager* manager);
    std::string lineWithPrefix(std::string_view prefix) const;

    std::uint64_t index_ = 0;
    std::shared_ptr<VelmorConsumerTable> noteOffConsumers_;
    std::shared_ptr<VelmorConsumerTable> noteOnConsumers_;
    std::shared_ptr<VelmorConsumerTable> afterTouchConsumers_;
    std::shared_ptr<VelmorConsumerTable> controlChangeConsumers_;
    std::shared_ptr<VelmorConsumerTable> patchChangeConsumers_;
    std::shared_ptr<VelmorConsumerTable> channelPressureConsumers_;
    std::shared_ptr<VelmorConsumerTable> pitchWheelConsumers_;
    std::shared_ptr<VelmorConsumerTable> sysExConsumers_;
};

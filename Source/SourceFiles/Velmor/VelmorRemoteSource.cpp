#include "VelmorRemoteSource.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "VelmorClient.h"
#include "VelmorEvent.h"
#include "VelmorFailure.h"
#include "VelmorInputPort.h"
#include "VelmorManager.h"
#include "VelmorNotificationCenter.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"

namespace {

constexpr std::size_t kRowsPerTable = 16;

std::shared_ptr<VelmorConsumerTable> makeTable()
{
    auto table = std::make_shared<VelmorConsumerTable>();
    table->reserve(kRowsPerTable);
    return table;
}

std::string textOf(const std::optional<std::string>& value)
{
    return value ? *value : std::string(VelmorNullText);
}

bool isSet(const std::optional<std::string>& value)
{
    return value && !value->empty();
}

void removeFromRow(VelmorConsumerRow& row, const std::shared_ptr<VelmorConsumer>& consumer)
{
    if (!consumer)
        return;
    std::erase_if(row, [&](const std::shared_ptr<VelmorConsumer>& member) {
        return member && member->isEqualToConsumer(consumer.get());
    });
}

} // namespace

void addObjectIfNotAlreadyPresent(VelmorConsumerRow& row, const std::shared_ptr<VelmorConsumer>& consumer)
{
    if (!consumer)
        return;
    for (const auto& member : row) {
        if (member && member->isEqualToConsumer(consumer.get()))
            return;
    }
    row.push_back(consumer);
}

// --- Construction ---------------------------------------------------------------------------------

VelmorRemoteSource::VelmorRemoteSource()
{
    noteOffConsumers_ = makeTable();
    noteOnConsumers_ = makeTable();
    afterTouchConsumers_ = makeTable();
    controlChangeConsumers_ = makeTable();
    patchChangeConsumers_ = makeTable();
    channelPressureConsumers_ = makeTable();
    pitchWheelConsumers_ = makeTable();
    sysExConsumers_ = makeTable();
    for (std::size_t row = 0; row < kRowsPerTable; ++row) {
        forEachTable([](VelmorConsumerTable& table) {
            table.emplace_back();
            return true;
        });
    }
}

std::shared_ptr<VelmorRemoteSource> VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(
    VelmorPlatform::MIDIEndpointRef endpoint, std::optional<std::int64_t> requestedUniqueID)
{
    (void)requestedUniqueID;  // A source never writes a unique ID.
    if (endpoint == 0)
        return nullptr;
    std::shared_ptr<VelmorRemoteSource> source(new VelmorRemoteSource());
    if (!source->constructWithEndpointRef(endpoint))
        return nullptr;
    return source;
}

std::shared_ptr<VelmorRemoteSource> VelmorRemoteSource::init()
{
    return initWithEndpointRefRequestedUniqueID(0, std::nullopt);
}

bool VelmorRemoteSource::constructWithEndpointRef(VelmorPlatform::MIDIEndpointRef endpoint)
{
    if (!constructWithEndpointRefRequestedUniqueID(endpoint, std::nullopt))
        return false;
    VELMOR_LINE(lineWithPrefix("Created MIDI Source: "));
    return true;
}

std::shared_ptr<VelmorRemoteSource> VelmorRemoteSource::self() const
{
    return std::static_pointer_cast<VelmorRemoteSource>(
        std::const_pointer_cast<VelmorRootObject>(shared_from_this()));
}

std::string VelmorRemoteSource::lineWithPrefix(std::string_view prefix) const
{
    std::string line(prefix);
    line += textOf(name());
    line += " ( ";
    line += textOf(manufacturer());
    line += " / ";
    line += textOf(model());
    line += " )";
    return line;
}

// --- Tables ---------------------------------------------------------------------------------------

template <class Visit>
void VelmorRemoteSource::forEachTable(Visit&& visit) const
{
    // Field order. `visit` returns false to stop the walk.
    for (const auto* table : {&noteOffConsumers_, &noteOnConsumers_, &afterTouchConsumers_, &controlChangeConsumers_,
                              &patchChangeConsumers_, &channelPressureConsumers_, &pitchWheelConsumers_,
                              &sysExConsumers_}) {
        // Hold the table: a consumer may install another one while we walk.
        std::shared_ptr<VelmorConsumerTable> held = *table;
        if (held && !visit(*held))
            return;
    }
}

template <class Visit>
void VelmorRemoteSource::forEachRow(VelmorConsumerTable& table, std::uint64_t channel, Visit&& visit)
{
    if (channel == 0) {
        for (auto& row : table)
            visit(row);
    } else if (channel <= table.size()) {
        visit(table[channel - 1]);
    }
}

std::shared_ptr<VelmorConsumerTable> VelmorRemoteSource::consumerArrayForEventType(std::uint64_t type) const
{
    switch (type) {
    case 0x80: return noteOffConsumers_;
    case 0x90: return noteOnConsumers_;
    case 0xA0: return afterTouchConsumers_;
    case 0xB0: return controlChangeConsumers_;
    case 0xC0: return patchChangeConsumers_;
    case 0xD0: return channelPressureConsumers_;
    case 0xE0: return pitchWheelConsumers_;
    case 0xF0: return sysExConsumers_;
    default: return nullptr;
    }
}

void VelmorRemoteSource::connectToInputPort()
{
    auto manager = VelmorManager::sharedManager();
    auto port = manager ? manager->inputPort() : nullptr;
    if (port)
        port->addSource(self());
}

void VelmorRemoteSource::addConsumer(const std::shared_ptr<VelmorConsumer>& consumer)
{
    addConsumerForAllEventsInChannel(consumer, 0);
}

void VelmorRemoteSource::removeConsumer(const std::shared_ptr<VelmorConsumer>& consumer)
{
    forEachTable([&](VelmorConsumerTable& table) {
        forEachRow(table, 0, [&](VelmorConsumerRow& row) { removeFromRow(row, consumer); });
        return true;
    });
}

void VelmorRemoteSource::addConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                          std::uint64_t type, std::uint64_t channel)
{
    auto table = consumerArrayForEventType(type);
    if (!table)
        return;
    forEachRow(*table, channel, [&](VelmorConsumerRow& row) { addObjectIfNotAlreadyPresent(row, consumer); });
    connectToInputPort();
}

void VelmorRemoteSource::removeConsumerForEventTypeInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                             std::uint64_t type, std::uint64_t channel)
{
    if (auto table = consumerArrayForEventType(type))
        forEachRow(*table, channel, [&](VelmorConsumerRow& row) { removeFromRow(row, consumer); });
    disconnectFromInputPortIfPossible();
}

void VelmorRemoteSource::addConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                          std::uint64_t channel)
{
    forEachTable([&](VelmorConsumerTable& table) {
        forEachRow(table, channel, [&](VelmorConsumerRow& row) { addObjectIfNotAlreadyPresent(row, consumer); });
        return true;
    });
    connectToInputPort();
}

void VelmorRemoteSource::removeConsumerForAllEventsInChannel(const std::shared_ptr<VelmorConsumer>& consumer,
                                                             std::uint64_t channel)
{
    forEachTable([&](VelmorConsumerTable& table) {
        forEachRow(table, channel, [&](VelmorConsumerRow& row) { removeFromRow(row, consumer); });
        return true;
    });
    disconnectFromInputPortIfPossible();
}

void VelmorRemoteSource::disconnectFromInputPortIfPossible()
{
    bool anyConsumer = false;
    forEachTable([&](VelmorConsumerTable& table) {
        anyConsumer = std::any_of(table.begin(), table.end(), [](const VelmorConsumerRow& row) { return !row.empty(); });
        return !anyConsumer;
    });
    if (anyConsumer)
        return;
    VELMOR_LINE(lineWithPrefix("Removing MIDI Source: "));
    auto manager = VelmorManager::sharedManager();
    auto port = manager ? manager->inputPort() : nullptr;
    if (port)
        port->removeSource(self());
}

// --- Delivery -------------------------------------------------------------------------------------

void VelmorRemoteSource::handlePacketList(const std::shared_ptr<VelmorPacketList>& packetList)
{
    if (!packetList)
        return;
    auto manager = VelmorManager::sharedManager();
    auto source = self();
    // Walk a copy of the packets: a consumer may change the list. A list of one needs no array for it.
    const auto& packets = packetList->mutablePackets();
    if (packets.size() == 1) {
        const auto packet = packets.front();
        deliver(packet, source, manager.get());
        return;
    }
    const auto copy = packetList->packets();
    for (const auto& packet : copy)
        deliver(packet, source, manager.get());
}

void VelmorRemoteSource::deliver(const std::shared_ptr<VelmorPacket>& packet,
                                 const std::shared_ptr<VelmorRemoteSource>& source, VelmorManager* manager)
{
    if (!packet)
        return;
    packet->setSource(source);  // decoding reads it
    auto event = VelmorEvent::eventWithPacket(packet);
    if (!event)
        return;
    // Hold the table: the delegate or a consumer may install another one.
    const auto table = consumerArrayForEventType(event->type());
    const std::uint64_t channel = event->channel();
    if (!table || channel == 0 || channel > table->size() || (*table)[channel - 1].empty())
        return;
    if (manager)
        manager->midiSourceWillSendEvent(source, event);
    // The copy, taken after the delegate ran: consumers may change the row while they are called. A row
    // of one is copied as the one reference.
    if (channel <= table->size()) {
        const VelmorConsumerRow& row = (*table)[channel - 1];
        if (row.size() == 1) {
            const auto consumer = row.front();
            if (consumer)
                consumer->handleMIDIEvent(event);
        } else if (!row.empty()) {
            const VelmorConsumerRow consumers = row;
            for (const auto& consumer : consumers) {
                if (consumer)
                    consumer->handleMIDIEvent(event);
            }
        }
    }
    if (manager)
        manager->midiSourceDidSendEvent(source, event);
}

// --- Identity -------------------------------------------------------------------------------------

std::optional<std::string> VelmorRemoteSource::manufacturer() const
{
    auto value = VelmorEndpoint::manufacturer();
    return value ? std::move(value) : std::optional<std::string>(std::string());
}

std::optional<std::string> VelmorRemoteSource::model() const
{
    auto value = VelmorEndpoint::model();
    return value ? std::move(value) : std::optional<std::string>(std::string());
}

std::shared_ptr<VelmorAttributes> VelmorRemoteSource::attributes() const
{
    if (!endpointAttributes_)
        endpointAttributes_ = VelmorEndpoint::attributes();
    const auto& fields = endpointAttributes_;
    // What a copy with the index replaced gives, without the round trip through the dictionary form: a
    // copy fails where name, model or manufacturer is null, and keeps every other field.
    if (!fields || !fields->name() || !fields->model() || !fields->manufacturer()) {
        endpointAttributes_.reset();  // a failed read is not kept
        return nullptr;
    }
    auto attributes = VelmorAttributes::init();
    if (!attributes)
        return nullptr;
    attributes->setName(fields->name());
    attributes->setModel(fields->model());
    attributes->setManufacturer(fields->manufacturer());
    attributes->setUniqueID(fields->uniqueID());
    attributes->setIdentifier(fields->identifier());
    attributes->setIndex(index_);
    return attributes;
}

bool VelmorRemoteSource::matchesAttributesOptions(const std::shared_ptr<VelmorAttributes>& attributes,
                                                  std::uint64_t options) const
{
    if (!VelmorEndpoint::matchesAttributesOptions(attributes, options))
        return false;
    if (!(options & VelmorAttributesOptionIndex))
        return true;
    const std::uint64_t wanted = attributes ? attributes->index() : 0;
    if (wanted < 2 && index_ < 2)
        return true;
    return wanted == index_;
}

std::string VelmorRemoteSource::descriptiveString() const
{
    const auto theName = name();
    const auto theManufacturer = manufacturer();
    const auto theModel = model();
    const bool hasName = isSet(theName), hasManufacturer = isSet(theManufacturer), hasModel = isSet(theModel);
    std::string text;
    if (hasName) {
        text = *theName;
        if (hasManufacturer || hasModel) {
            text += " (";
            if (hasManufacturer)
                text += " " + *theManufacturer;
            if (hasModel)
                text += " " + *theModel;
            text += " )";
        }
    } else if (hasManufacturer) {
        text = *theManufacturer;
        if (hasModel)
            text += " " + *theModel;
    } else if (hasModel) {
        text = *theModel;
    } else {
        char buffer[48];
        std::snprintf(buffer, sizeof buffer, "Device ID#%" PRId64, uniqueID());
        text = buffer;
    }
    return text;
}

std::string VelmorRemoteSource::description() const
{
    const auto theIdentifier = identifier();
    char numbers[80];
    std::snprintf(numbers, sizeof numbers, " (uid:%" PRId64 " i:%" PRIu64 ")}", uniqueID(), index_);
    std::string text = "{";
    text += className();
    text += " <" + VelmorPointerString(this) + ">: ";
    text += textOf(manufacturer()) + " " + textOf(model()) + " \"" + textOf(name()) + "\" #";
    text += theIdentifier ? *theIdentifier : std::string("n/a");
    text += numbers;
    return text;
}

// --- Changes --------------------------------------------------------------------------------------

void VelmorRemoteSource::objectPropertyChanged(const VelmorNotification& notification)
{
    VelmorEndpoint::objectPropertyChanged(notification);
    if (!notification.userInfo)
        return;
    const VelmorValue* type = notification.userInfo->objectForKey(VelmorObjectTypeKey);
    const VelmorValue* object = notification.userInfo->objectForKey(VelmorObjectKey);
    if (!type || !object)
        return;
    const auto typeValue = type->int64Value();
    const auto objectValue = object->unsignedValue();
    if (!typeValue || !objectValue || static_cast<VelmorPlatform::MIDIObjectRef>(*objectValue) != this->object())
        return;
    // Any property of this endpoint may be one that its attributes carry.
    endpointAttributes_.reset();
    if (static_cast<std::int32_t>(*typeValue) == VelmorPlatform::kMIDIObjectType_Source) {
        VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorRemoteSourcePropertyChangedNotification,
                                                                       self());
    }
}

void VelmorRemoteSource::willBeRemoved()
{
    auto source = self();
    forEachTable([&](VelmorConsumerTable& table) {
        for (std::size_t position = 0; position < table.size(); ++position) {
            // Each consumer that stands in the row when the walk reaches it is called, even if an
            // earlier one changes the row meanwhile.
            const VelmorConsumerRow consumers = table[position];
            for (const auto& consumer : consumers) {
                if (consumer)
                    consumer->sourceIsTerminating(source);
            }
        }
        return true;
    });
    VELMOR_LINE(lineWithPrefix("Removing MIDI Source: "));
    auto manager = VelmorManager::sharedManager();
    auto port = manager ? manager->inputPort() : nullptr;
    if (port)
        port->removeSource(source);
}

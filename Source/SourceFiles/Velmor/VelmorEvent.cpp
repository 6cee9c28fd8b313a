#include "VelmorEvent.h"

#include <string>

#include "VelmorAttributes.h"
#include "VelmorFailure.h"
#include "VelmorManager.h"
#include "VelmorPacket.h"
#include "VelmorRemoteSource.h"

namespace {

std::uint8_t channelNibble(std::uint64_t channel)
{
    return static_cast<std::uint8_t>((channel + 15) & 0x0F);
}

VelmorData channelMessage(std::uint64_t type, std::uint64_t channel, std::uint64_t first)
{
    return VelmorData({static_cast<std::uint8_t>(type | channelNibble(channel)), static_cast<std::uint8_t>(first & 0x7F)});
}

VelmorData channelMessage(std::uint64_t type, std::uint64_t channel, std::uint64_t first, std::uint64_t second)
{
    return VelmorData({static_cast<std::uint8_t>(type | channelNibble(channel)), static_cast<std::uint8_t>(first & 0x7F),
                       static_cast<std::uint8_t>(second & 0x7F)});
}

std::shared_ptr<VelmorEvent> encoded(const VelmorData& data, std::uint64_t timeOffset)
{
    return VelmorEvent::initWithDataSourceTimeStampTimeOffset(data, nullptr, 0, timeOffset);
}

bool isSevenBit(std::uint64_t value) { return value <= 0x7F; }
bool isFourteenBit(std::uint64_t value) { return value <= 0x3FFF; }
bool isChannel(std::uint64_t channel) { return channel >= 1 && channel <= 16; }

std::size_t minimumLengthForType(std::uint64_t type)
{
    switch (type) {
    case VelmorEventTypePatchChange:
    case VelmorEventTypeChannelPressure:
        return 2;
    case VelmorEventTypeSystem:
        return 1;
    default:
        return 3;
    }
}

// Objects are made in one allocation with their control block; the constructor stays protected.
struct MadeEvent final : VelmorEvent {};

} // namespace

std::shared_ptr<VelmorEvent> VelmorEvent::eventWithPacket(const std::shared_ptr<VelmorPacket>& packet)
{
    return initWithPacket(packet);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initWithPacket(const std::shared_ptr<VelmorPacket>& packet)
{
    if (!packet)
        return initWithDataSourceTimeStampTimeOffset(VelmorData(), nullptr, 0, 0);
    return initWithDataSourceTimeStampTimeOffset(packet->data(), packet->source(), packet->timeStamp(), packet->timeOffset());
}

std::shared_ptr<VelmorEvent> VelmorEvent::initWithDataSourceTimeStampTimeOffset(const VelmorData& data,
                                                                                const std::shared_ptr<VelmorRemoteSource>& source,
                                                                                std::uint64_t timeStamp, std::uint64_t timeOffset)
{
    std::shared_ptr<VelmorEvent> event = std::make_shared<MadeEvent>();
    if (!event->constructWithDataSourceTimeStampTimeOffset(data, source, timeStamp, timeOffset))
        return nullptr;
    return event;
}

std::shared_ptr<VelmorEvent> VelmorEvent::init()
{
    return initWithDataSourceTimeStampTimeOffset(VelmorData(), nullptr, 0, 0);
}

bool VelmorEvent::constructWithDataSourceTimeStampTimeOffset(const VelmorData& data,
                                                             const std::shared_ptr<VelmorRemoteSource>& source,
                                                             std::uint64_t timeStamp, std::uint64_t timeOffset)
{
    const std::size_t actualLength = data.length();
    if (actualLength == 0) {
        VELMOR_FAILED("actualLength");
        return false;
    }
    const std::uint64_t eventType = data[0] & 0xF0;
    if (!(eventType & 0x80)) {
        VELMOR_FAILED_WITH("( eventType & 0x80 )", static_cast<std::int64_t>(eventType));
        return false;
    }
    const std::size_t minimumLength = minimumLengthForType(eventType);
    if (actualLength < minimumLength) {
        VELMOR_FAILED_WITH("actualLength >= minimumLength",
                           "Expected at least " + std::to_string(minimumLength) + " bytes, received " +
                               std::to_string(actualLength) + ", for type " + std::to_string(eventType));
        return false;
    }
    type_ = eventType;
    channel_ = (data[0] & 0x0F) + 1;
    data_ = data;
    sourceAttributes_ = source ? source->attributes() : nullptr;
    timeOffset_ = timeOffset;
    timeStamp_ = timeStamp;
    return true;
}

std::shared_ptr<VelmorEvent> VelmorEvent::noteOffEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                        std::uint64_t channel, std::uint64_t timeOffset)
{
    if (!isSevenBit(note) || !isSevenBit(velocity) || !isChannel(channel))
        return nullptr;
    return initNoteOffEventWithNoteVelocityChannelTimeOffset(note, velocity, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                       std::uint64_t channel, std::uint64_t timeOffset)
{
    if (!isSevenBit(note) || !isSevenBit(velocity) || !isChannel(channel))
        return nullptr;
    return initNoteOnEventWithNoteVelocityChannelTimeOffset(note, velocity, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::afterTouchEventWithNotePressureChannelTimeOffset(std::uint64_t note, std::uint64_t pressure,
                                                                                           std::uint64_t channel,
                                                                                           std::uint64_t timeOffset)
{
    if (!isSevenBit(note) || !isSevenBit(pressure) || !isChannel(channel))
        return nullptr;
    return initAfterTouchEventWithNotePressureChannelTimeOffset(note, pressure, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::controlChangeEventWithControllerValueChannelTimeOffset(std::uint64_t controller,
                                                                                                 std::uint64_t value,
                                                                                                 std::uint64_t channel,
                                                                                                 std::uint64_t timeOffset)
{
    if (!isSevenBit(controller) || !isSevenBit(value) || !isChannel(channel))
        return nullptr;
    return initControlChangeEventWithControllerValueChannelTimeOffset(controller, value, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::patchChangeEventWithProgramChannelTimeOffset(std::uint64_t program, std::uint64_t channel,
                                                                                       std::uint64_t timeOffset)
{
    if (!isSevenBit(program) || !isChannel(channel))
        return nullptr;
    return initPatchChangeEventWithProgramChannelTimeOffset(program, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::channelPressureEventWithPressureChannelTimeOffset(std::uint64_t pressure,
                                                                                            std::uint64_t channel,
                                                                                            std::uint64_t timeOffset)
{
    if (!isSevenBit(pressure) || !isChannel(channel))
        return nullptr;
    return initChannelPressureEventWithPressureChannelTimeOffset(pressure, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(std::uint64_t value, std::uint64_t channel,
                                                                                    std::uint64_t timeOffset)
{
    if (!isFourteenBit(value) || !isChannel(channel))
        return nullptr;
    return initPitchWheelEventWithValueChannelTimeOffset(value, channel, timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::systemCommonEventWithStatusData(std::uint64_t status, std::uint64_t data)
{
    if (status < 0xF1 || status > 0xF7 || !isFourteenBit(data))
        return nullptr;
    return initSystemCommonEventWithStatusData(status, data);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initNoteOffEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                            std::uint64_t channel,
                                                                                            std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypeNoteOff, channel, note, velocity), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initNoteOnEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                           std::uint64_t channel,
                                                                                           std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypeNoteOn, channel, note, velocity), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initAfterTouchEventWithNotePressureChannelTimeOffset(std::uint64_t note,
                                                                                               std::uint64_t pressure,
                                                                                               std::uint64_t channel,
                                                                                               std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypeAfterTouch, channel, note, pressure), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initControlChangeEventWithControllerValueChannelTimeOffset(std::uint64_t controller,
                                                                                                     std::uint64_t value,
                                                                                                     std::uint64_t channel,
                                                                                                     std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypeControlChange, channel, controller, value), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initPatchChangeEventWithProgramChannelTimeOffset(std::uint64_t program,
                                                                                           std::uint64_t channel,
                                                                                           std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypePatchChange, channel, program), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initChannelPressureEventWithPressureChannelTimeOffset(std::uint64_t pressure,
                                                                                                std::uint64_t channel,
                                                                                                std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypeChannelPressure, channel, pressure), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initPitchWheelEventWithValueChannelTimeOffset(std::uint64_t value, std::uint64_t channel,
                                                                                        std::uint64_t timeOffset)
{
    return encoded(channelMessage(VelmorEventTypePitchWheel, channel, value, value >> 7), timeOffset);
}

std::shared_ptr<VelmorEvent> VelmorEvent::initSystemCommonEventWithStatusData(std::uint64_t status, std::uint64_t data)
{
    return encoded(VelmorData({static_cast<std::uint8_t>(status & 0xFF), static_cast<std::uint8_t>(data & 0x7F),
                               static_cast<std::uint8_t>((data >> 7) & 0x7F)}),
                   0);
}

std::uint64_t VelmorEvent::pressure() const
{
    if (type_ == VelmorEventTypeAfterTouch)
        return byteAt(2);
    if (type_ == VelmorEventTypeChannelPressure)
        return byteAt(1);
    return 0;
}

std::uint64_t VelmorEvent::eventValue() const
{
    if (type_ == VelmorEventTypeControlChange)
        return byteAt(2);
    if (type_ == VelmorEventTypePatchChange)
        return byteAt(1);
    return 0;
}

std::shared_ptr<VelmorPacket> VelmorEvent::packet() const
{
    return VelmorPacket::initWithTimeOffsetData(timeOffset_, data_);
}

VelmorDictionary VelmorEvent::propertiesDictionary() const
{
    VelmorDictionary properties;
    if (sourceAttributes_) {
        const VelmorAttributes& attributes = *sourceAttributes_;
        properties.setObjectForKey(VelmorValue(attributes.dictionaryRepresentation()), VelmorEventSourceAttributesKey);
        if (attributes.manufacturer())
            properties.setObjectForKey(VelmorValue(*attributes.manufacturer()), VelmorEventSourceManufacturerKey);
        if (attributes.model())
            properties.setObjectForKey(VelmorValue(*attributes.model()), VelmorEventSourceModelKey);
        if (attributes.name())
            properties.setObjectForKey(VelmorValue(*attributes.name()), VelmorEventSourceNameKey);
        if (attributes.uniqueID())
            properties.setObjectForKey(VelmorValue(*attributes.uniqueID()), VelmorEventSourceUniqueIDKey);
        if (attributes.identifier())
            properties.setObjectForKey(VelmorValue(*attributes.identifier()), VelmorEventSourceIdentifierKey);
    }
    properties.setObjectForKey(VelmorValue(channel_), VelmorEventChannelNumberKey);
    properties.setObjectForKey(VelmorValue(timeStamp_), VelmorEventTimeStampKey);
    properties.setObjectForKey(VelmorValue(type_), VelmorEventTypeKey);

    switch (type_) {
    case VelmorEventTypeNoteOff:
    case VelmorEventTypeNoteOn:
        properties.setObjectForKey(VelmorValue(note()), VelmorEventNoteNumberKey);
        properties.setObjectForKey(VelmorValue(velocity()), VelmorEventVelocityKey);
        break;
    case VelmorEventTypeAfterTouch:
        properties.setObjectForKey(VelmorValue(note()), VelmorEventNoteNumberKey);
        properties.setObjectForKey(VelmorValue(pressure()), VelmorEventPressureKey);
        break;
    case VelmorEventTypeControlChange:
        properties.setObjectForKey(VelmorValue(controller()), VelmorEventControllerNumberKey);
        properties.setObjectForKey(VelmorValue(*VelmorManager::controllerNameAllowCustom(controller(), true)),
                                   VelmorEventControllerNameKey);
        properties.setObjectForKey(VelmorValue(eventValue()), VelmorEventValueKey);
        break;
    case VelmorEventTypePatchChange:
        properties.setObjectForKey(VelmorValue(eventValue()), VelmorEventValueKey);
        break;
    case VelmorEventTypeChannelPressure:
        properties.setObjectForKey(VelmorValue(pressure()), VelmorEventPressureKey);
        break;
    case VelmorEventTypePitchWheel:
        properties.setObjectForKey(VelmorValue(pitch()), VelmorEventPitchKey);
        break;
    default:
        break;
    }
    return properties;
}

std::string VelmorEvent::description() const
{
    return "VelmorEvent: " + propertiesDictionary().description();
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "VelmorData.h"
#include "VelmorRootObject.h"
#include "VelmorValue.h"

class VelmorAttributes;
class VelmorPacket;
class VelmorRemoteSource;

// Event type codes: the high nibble of a message's first byte, left in place.
inline constexpr std::uint64_t VelmorEventTypeNoteOff = 0x80;
inline constexpr std::uint64_t VelmorEventTypeNoteOn = 0x90;
inline constexpr std::uint64_t VelmorEventTypeAfterTouch = 0xA0;
inline constexpr std::uint64_t VelmorEventTypeControlChange = 0xB0;
inline constexpr std::uint64_t VelmorEventTypePatchChange = 0xC0;
inline constexpr std::uint64_t VelmorEventTypeChannelPressure = 0xD0;
inline constexpr std::uint64_t VelmorEventTypePitchWheel = 0xE0;
// Every system message: exclusive, common and real-time. They differ by channel (low nibble + 1).
inline constexpr std::uint64_t VelmorEventTypeSystem = 0xF0;

// One decoded MIDI message: its bytes unchanged, and the type and one-based channel that consumers are
// routed by. Values (note, velocity, ...) are read from the bytes on demand.
//
// The factory class operations check their arguments and give null, without a line, when one is out of
// range; the constructors behind them only mask. All of them decode their own bytes by the one decoder.

// Keys of an event's properties. The source keys of the attributes' dictionary form
// (VelmorEventSourceNameKey ...) are declared with VelmorAttributes.
inline constexpr std::string_view VelmorEventPropertiesPboardType = "com.brightmarrow.uti.Velmor.EventProperties";
inline constexpr std::string_view VelmorEventChannelNumberKey = "VelmorEventChannelNumber";
inline constexpr std::string_view VelmorEventControllerNameKey = "VelmorEventControllerName";
inline constexpr std::string_view VelmorEventControllerNumberKey = "VelmorEventControllerNumber";
inline constexpr std::string_view VelmorEventNoteNumberKey = "VelmorEventNoteNumber";
inline constexpr std::string_view VelmorEventPitchKey = "VelmorEventPitch";
inline constexpr std::string_view VelmorEventPressureKey = "VelmorEventPressure";
inline constexpr std::string_view VelmorEventSourceAttributesKey = "VelmorEventSourceAttributes";
inline constexpr std::string_view VelmorEventTimeStampKey = "VelmorEventTimeStamp";
inline constexpr std::string_view VelmorEventTypeKey = "VelmorEventType";
inline constexpr std::string_view VelmorEventValueKey = "VelmorEventValue";
inline constexpr std::string_view VelmorEventVelocityKey = "VelmorEventVelocity";

class VelmorEvent : public VelmorRootObject {
public:
    // Decoding. Each failure writes one line and gives null.
    static std::shared_ptr<VelmorEvent> eventWithPacket(const std::shared_ptr<VelmorPacket>& packet);
    static std::shared_ptr<VelmorEvent> initWithPacket(const std::shared_ptr<VelmorPacket>& packet);
    // The one place where an event comes to be. Shares `data`; stores what the source's `attributes`
    // answers, or null without a source.
    static std::shared_ptr<VelmorEvent> initWithDataSourceTimeStampTimeOffset(const VelmorData& data,
                                                                              const std::shared_ptr<VelmorRemoteSource>& source,
                                                                              std::uint64_t timeStamp, std::uint64_t timeOffset);
    // Has no data: writes the line for it and gives null.
    static std::shared_ptr<VelmorEvent> init();

    // Encoding. Notes, velocities, pressures, controllers, values and programs up to 127, pitch wheel
    // values and system data up to 16383, channels 1 to 16, system status 0xF1 to 0xF7.
    static std::shared_ptr<VelmorEvent> noteOffEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                      std::uint64_t channel, std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> noteOnEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                     std::uint64_t channel, std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> afterTouchEventWithNotePressureChannelTimeOffset(std::uint64_t note, std::uint64_t pressure,
                                                                                         std::uint64_t channel, std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> controlChangeEventWithControllerValueChannelTimeOffset(std::uint64_t controller,
                                                                                               std::uint64_t value,
                                                                                               std::uint64_t channel,
                                                                                               std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> patchChangeEventWithProgramChannelTimeOffset(std::uint64_t program, std::uint64_t channel,
                                                                                     std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> channelPressureEventWithPressureChannelTimeOffset(std::uint64_t pressure,
                                                                                          std::uint64_t channel,
                                                                                          std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> pitchWheelEventWithValueChannelTimeOffset(std::uint64_t value, std::uint64_t channel,
                                                                                  std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> systemCommonEventWithStatusData(std::uint64_t status, std::uint64_t data);

    // The constructors behind the factories: no checks, the values masked into place. The channel nibble
    // is (channel + 15) & 0x0F, so channel 0 gives 15 and channel 17 gives 0.
    static std::shared_ptr<VelmorEvent> initNoteOffEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                          std::uint64_t channel,
                                                                                          std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initNoteOnEventWithNoteVelocityChannelTimeOffset(std::uint64_t note, std::uint64_t velocity,
                                                                                         std::uint64_t channel,
                                                                                         std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initAfterTouchEventWithNotePressureChannelTimeOffset(std::uint64_t note,
                                                                                             std::uint64_t pressure,
                                                                                             std::uint64_t channel,
                                                                                             std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initControlChangeEventWithControllerValueChannelTimeOffset(std::uint64_t controller,
                                                                                                   std::uint64_t value,
                                                                                                   std::uint64_t channel,
                                                                                                   std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initPatchChangeEventWithProgramChannelTimeOffset(std::uint64_t program,
                                                                                         std::uint64_t channel,
                                                                                         std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initChannelPressureEventWithPressureChannelTimeOffset(std::uint64_t pressure,
                                                                                              std::uint64_t channel,
                                                                                              std::uint64_t timeOffset);
    static std::shared_ptr<VelmorEvent> initPitchWheelEventWithValueChannelTimeOffset(std::uint64_t value, std::uint64_t channel,
                                                                                      std::uint64_t timeOffset);
    // Always three bytes, whatever the message. A status below 0x80 fails in the decoder.
    static std::shared_ptr<VelmorEvent> initSystemCommonEventWithStatusData(std::uint64_t status, std::uint64_t data);

    const char* className() const override { return "VelmorEvent"; }

    // Plain stores: none of them touches another field, and setData does not decode again.
    std::uint64_t channel() const { return channel_; }
    void setChannel(std::uint64_t channel) { channel_ = channel; }
    const std::shared_ptr<VelmorAttributes>& sourceAttributes() const { return sourceAttributes_; }
    void setSourceAttributes(std::shared_ptr<VelmorAttributes> sourceAttributes) { sourceAttributes_ = std::move(sourceAttributes); }
    std::uint64_t timeOffset() const { return timeOffset_; }
    void setTimeOffset(std::uint64_t timeOffset) { timeOffset_ = timeOffset; }
    std::uint64_t timeStamp() const { return timeStamp_; }
    void setTimeStamp(std::uint64_t timeStamp) { timeStamp_ = timeStamp; }
    std::uint64_t type() const { return type_; }
    void setType(std::uint64_t type) { type_ = type; }
    const VelmorData& data() const { return data_; }
    void setData(const VelmorData& data) { data_ = data; }

    // Values read from the bytes, unmasked. A byte behind the end of the data reads as 0, so a short
    // message (the velocity of a patch change, the note of a one-byte system message) gives 0 there.
    std::uint64_t note() const { return byteAt(1); }
    std::uint64_t controller() const { return byteAt(1); }
    std::uint64_t velocity() const { return byteAt(2); }
    // Byte 1 + byte 2 x 128, for every type.
    std::uint64_t pitch() const { return byteAt(1) + byteAt(2) * 128; }
    // Byte 2 of an after touch, byte 1 of a channel pressure, otherwise 0.
    std::uint64_t pressure() const;
    // Byte 2 of a control change, byte 1 of a patch change, otherwise 0.
    std::uint64_t eventValue() const;

    // A new packet of the event's offset and bytes, with time stamp 0 and no source.
    std::shared_ptr<VelmorPacket> packet() const;

    // The event as a dictionary, new at each call: source keys (when there are source attributes),
    // channel, time stamp and type, then the keys of the event's type. Neither the time offset nor the
    // bytes. A source string that is null is left out, since a dictionary holds no null.
    VelmorDictionary propertiesDictionary() const;
    // "VelmorEvent: " and the text form of propertiesDictionary().
    std::string description() const override;

protected:
    VelmorEvent() = default;
    bool constructWithDataSourceTimeStampTimeOffset(const VelmorData& data, const std::shared_ptr<VelmorRemoteSource>& source,
                                                    std::uint64_t timeStamp, std::uint64_t timeOffset);

private:
    std::uint64_t byteAt(std::size_t position) const { return position < data_.length() ? data_[position] : 0; }

    std::uint64_t channel_ = 0;
    std::shared_ptr<VelmorAttributes> sourceAttributes_;
    std::uint64_t timeOffset_ = 0;
    std::uint64_t timeStamp_ = 0;
    std::uint64_t type_ = 0;
    VelmorData data_;
};

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorPacket.h"
#include "VelmorRemoteSource.h"

using VelmorTest::CapturedLines;
using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

namespace {

std::shared_ptr<VelmorEvent> decode(const Bytes& bytes)
{
    return VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 0, 0);
}

class TestAttributes : public VelmorAttributes {
public:
    static std::shared_ptr<TestAttributes> make() { return std::shared_ptr<TestAttributes>(new TestAttributes()); }
};

class TestSource : public VelmorRemoteSource {
public:
    static std::shared_ptr<TestSource> make() { return std::shared_ptr<TestSource>(new TestSource()); }
    std::shared_ptr<VelmorAttributes> attributes() const override
    {
        ++asked;
        return current;
    }
    std::shared_ptr<VelmorAttributes> current = TestAttributes::make();
    mutable int asked = 0;
};

} // namespace

// --- Decoding --------------------------------------------------------------------------------------

TEST(EventDecoding, TypeAndChannelFromTheFirstByte)
{
    struct Case {
        Bytes bytes;
        std::uint64_t type;
        std::uint64_t channel;
    };
    const std::vector<Case> cases = {
        // A note on with velocity 0 stays a note on.
        {{0x90, 0x3C, 0x00}, VelmorEventTypeNoteOn, 1},
        {{0x9F, 0x3C, 0x40}, VelmorEventTypeNoteOn, 16},
        {{0x85, 0x3C, 0x40}, VelmorEventTypeNoteOff, 6},
        {{0xA0, 0x3C, 0x20}, VelmorEventTypeAfterTouch, 1},
        {{0xB3, 0x07, 0x64}, VelmorEventTypeControlChange, 4},
        {{0xC0, 0x05}, VelmorEventTypePatchChange, 1},
        {{0xDA, 0x20}, VelmorEventTypeChannelPressure, 11},
        {{0xE0, 0x00, 0x40}, VelmorEventTypePitchWheel, 1},
        {{0xF8}, VelmorEventTypeSystem, 9},
        {{0xF7}, VelmorEventTypeSystem, 8},
        {{0xFF}, VelmorEventTypeSystem, 16},
        {{0xF0, 0x01, 0x02, 0xF7}, VelmorEventTypeSystem, 1},
        // An exclusive message without its end decodes all the same.
        {{0xF0, 0x01, 0x02}, VelmorEventTypeSystem, 1},
        // More bytes than the minimum, and data bytes above 0x7F, are accepted.
        {{0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, VelmorEventTypeNoteOn, 1},
        {{0x90, 0xF8, 0x3C}, VelmorEventTypeNoteOn, 1},
    };
    CapturedLines lines;
    for (const auto& c : cases) {
        const auto event = decode(c.bytes);
        ASSERT_NE(event, nullptr) << VelmorData(c.bytes).description();
        EXPECT_EQ(event->type(), c.type) << VelmorData(c.bytes).description();
        EXPECT_EQ(event->channel(), c.channel) << VelmorData(c.bytes).description();
        EXPECT_EQ(event->data().toVector(), c.bytes);
    }
    EXPECT_TRUE(lines.lines().empty());
}

TEST(EventDecoding, EachFailureWritesItsLineAndGivesNull)
{
    struct Case {
        std::string name;
        std::function<std::shared_ptr<VelmorEvent>()> make;
        std::string line;
    };
    const std::vector<Case> cases = {
        {"empty", [] { return decode({}); }, "[VelmorEvent.cpp] actualLength failed"},
        {"null", [] { return VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(), nullptr, 1, 2); },
         "[VelmorEvent.cpp] actualLength failed"},
        {"init", [] { return VelmorEvent::init(); }, "[VelmorEvent.cpp] actualLength failed"},
        {"null packet", [] { return VelmorEvent::eventWithPacket(nullptr); }, "[VelmorEvent.cpp] actualLength failed"},
        {"empty packet", [] { return VelmorEvent::initWithPacket(VelmorPacket::initWithTimeStampData(1, VelmorData::empty())); },
         "[VelmorEvent.cpp] actualLength failed"},
        {"data byte", [] { return decode({0x3E, 0x40}); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 48"},
        {"zero", [] { return decode({0x00}); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 0"},
        {"top data byte", [] { return decode({0x7F, 0x7F, 0x7F}); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 112"},
        {"short note on", [] { return decode({0x90, 0x3C}); },
         "[VelmorEvent.cpp] actualLength >= minimumLength failed with Expected at least 3 bytes, received 2, for type 144"},
        {"lone patch change", [] { return decode({0xC0}); },
         "[VelmorEvent.cpp] actualLength >= minimumLength failed with Expected at least 2 bytes, received 1, for type 192"},
        {"lone pitch wheel", [] { return decode({0xEF}); },
         "[VelmorEvent.cpp] actualLength >= minimumLength failed with Expected at least 3 bytes, received 1, for type 224"},
        {"system constructor below 0x80", [] { return VelmorEvent::initSystemCommonEventWithStatusData(0x40, 0); },
         "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 64"},
    };
    for (const auto& c : cases) {
        CapturedLines lines;
        EXPECT_EQ(c.make(), nullptr) << c.name;
        EXPECT_EQ(lines.messages(), Lines {c.line}) << c.name;
    }
}

TEST(EventDecoding, TakesTimesSourceAndBytesFromThePacket)
{
    const auto source = TestSource::make();
    const auto packet = VelmorPacket::initWithTimeOffsetTimeStampData(4, 5, VelmorData({0x90, 0x3C, 0x40}));
    packet->setSource(source);
    const auto event = VelmorEvent::eventWithPacket(packet);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->timeStamp(), 5u);
    EXPECT_EQ(event->timeOffset(), 4u);
    EXPECT_EQ(event->sourceAttributes(), source->current);
    EXPECT_EQ(source->asked, 1);
    // The event holds the packet's buffer.
    EXPECT_EQ(event->data().bytes(), packet->data().bytes());

    // Without a source there are no attributes; a failing decode does not ask the source.
    EXPECT_EQ(decode({0xF8})->sourceAttributes(), nullptr);
    CapturedLines lines;
    EXPECT_EQ(VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData({0x90}), source, 0, 0), nullptr);
    EXPECT_EQ(source->asked, 1);
}

TEST(EventDecoding, SettersAreStoresThatDoNotDecodeAgain)
{
    const auto event = decode({0x90, 0x3C, 0x40});
    event->setData(VelmorData({0xC5, 0x01}));
    EXPECT_EQ(event->type(), VelmorEventTypeNoteOn);
    EXPECT_EQ(event->channel(), 1u);
    event->setType(VelmorEventTypeControlChange);
    event->setChannel(3);
    EXPECT_EQ(event->data().toVector(), (Bytes {0xC5, 0x01}));
    // Value accessors go by the bytes, pressure and eventValue by the stored type.
    EXPECT_EQ(event->note(), 1u);
    EXPECT_EQ(event->eventValue(), 0u);
}

// --- Value accessors -------------------------------------------------------------------------------

TEST(EventAccessors, ReadFixedPositionsAndNeverPastTheBytes)
{
    struct Case {
        Bytes bytes;
        std::uint64_t note, controller, velocity, pitch, pressure, eventValue;
    };
    const std::vector<Case> cases = {
        {{0x90, 0x3C, 0x00}, 60, 60, 0, 60, 0, 0},
        {{0xC0, 0x05}, 5, 5, 0, 5, 0, 5},
        {{0xB0, 0x07, 0x64}, 7, 7, 100, 7 + 100 * 128, 0, 100},
        {{0xA0, 0x3C, 0x20}, 60, 60, 32, 60 + 32 * 128, 32, 0},
        {{0xD0, 0x20}, 32, 32, 0, 32, 32, 0},
        {{0xE0, 0x00, 0x40}, 0, 0, 64, 8192, 0, 0},
        {{0xE0, 0x7F, 0x7F}, 127, 127, 127, 16383, 0, 0},
        {{0x90, 0xF8, 0x3C}, 248, 248, 60, 248 + 60 * 128, 0, 0},
        {{0xF8}, 0, 0, 0, 0, 0, 0},
        {{0xF2, 0x10}, 16, 16, 0, 16, 0, 0},
    };
    for (const auto& c : cases) {
        // Exactly sized buffers, so that a read past the end shows under AddressSanitizer.
        const auto event = decode(c.bytes);
        ASSERT_NE(event, nullptr);
        const std::string name = VelmorData(c.bytes).description();
        EXPECT_EQ(event->note(), c.note) << name;
        EXPECT_EQ(event->controller(), c.controller) << name;
        EXPECT_EQ(event->velocity(), c.velocity) << name;
        EXPECT_EQ(event->pitch(), c.pitch) << name;
        EXPECT_EQ(event->pressure(), c.pressure) << name;
        EXPECT_EQ(event->eventValue(), c.eventValue) << name;
    }
}

TEST(EventAccessors, NoBytesReadAsZero)
{
    for (const VelmorData& data : {VelmorData(), VelmorData::empty()}) {
        const auto event = decode({0xA0, 0x3C, 0x20});
        event->setData(data);
        EXPECT_EQ(event->note(), 0u);
        EXPECT_EQ(event->velocity(), 0u);
        EXPECT_EQ(event->pitch(), 0u);
        EXPECT_EQ(event->pressure(), 0u);
        EXPECT_EQ(event->packet() == nullptr, data.isNull());
    }
}

// --- Encoding --------------------------------------------------------------------------------------

TEST(EventEncoding, FactoriesBuildTheBytesAndDecodeThem)
{
    struct Case {
        std::string name;
        std::shared_ptr<VelmorEvent> event;
        Bytes bytes;
        std::uint64_t type, channel, timeOffset;
    };
    const std::vector<Case> cases = {
        {"note off", VelmorEvent::noteOffEventWithNoteVelocityChannelTimeOffset(60, 64, 1, 10), {0x80, 0x3C, 0x40},
         VelmorEventTypeNoteOff, 1, 10},
        {"note on", VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(127, 127, 16, 0), {0x9F, 0x7F, 0x7F},
         VelmorEventTypeNoteOn, 16, 0},
        {"after touch", VelmorEvent::afterTouchEventWithNotePressureChannelTimeOffset(60, 32, 2, 1), {0xA1, 0x3C, 0x20},
         VelmorEventTypeAfterTouch, 2, 1},
        {"control change", VelmorEvent::controlChangeEventWithControllerValueChannelTimeOffset(7, 100, 10, 2),
         {0xB9, 0x07, 0x64}, VelmorEventTypeControlChange, 10, 2},
        {"patch change", VelmorEvent::patchChangeEventWithProgramChannelTimeOffset(5, 3, 3), {0xC2, 0x05},
         VelmorEventTypePatchChange, 3, 3},
        {"channel pressure", VelmorEvent::channelPressureEventWithPressureChannelTimeOffset(0, 4, 4), {0xD3, 0x00},
         VelmorEventTypeChannelPressure, 4, 4},
        {"pitch wheel top", VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(16383, 1, 5), {0xE0, 0x7F, 0x7F},
         VelmorEventTypePitchWheel, 1, 5},
        {"pitch wheel centre", VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(8192, 1, 0), {0xE0, 0x00, 0x40},
         VelmorEventTypePitchWheel, 1, 0},
        {"pitch wheel low", VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(0x81, 1, 0), {0xE0, 0x01, 0x01},
         VelmorEventTypePitchWheel, 1, 0},
        {"system common", VelmorEvent::systemCommonEventWithStatusData(0xF1, 0x81), {0xF1, 0x01, 0x01}, VelmorEventTypeSystem, 2, 0},
        {"tune request", VelmorEvent::systemCommonEventWithStatusData(0xF6, 0), {0xF6, 0x00, 0x00}, VelmorEventTypeSystem, 7, 0},
        {"end of exclusive", VelmorEvent::systemCommonEventWithStatusData(0xF7, 16383), {0xF7, 0x7F, 0x7F}, VelmorEventTypeSystem, 8, 0},
    };
    for (const auto& c : cases) {
        ASSERT_NE(c.event, nullptr) << c.name;
        EXPECT_EQ(c.event->data().toVector(), c.bytes) << c.name;
        EXPECT_EQ(c.event->type(), c.type) << c.name;
        EXPECT_EQ(c.event->channel(), c.channel) << c.name;
        EXPECT_EQ(c.event->timeOffset(), c.timeOffset) << c.name;
        EXPECT_EQ(c.event->timeStamp(), 0u) << c.name;
        EXPECT_EQ(c.event->sourceAttributes(), nullptr) << c.name;
    }
    EXPECT_EQ(VelmorEvent::pitchWheelEventWithValueChannelTimeOffset(8192, 1, 0)->pitch(), 8192u);
}

TEST(EventEncoding, FactoriesRefuseValuesOutOfRangeWithoutALine)
{
    using E = VelmorEvent;
    CapturedLines lines;
    const std::vector<std::pair<std::string, std::shared_ptr<VelmorEvent>>> cases = {
        {"note off note", E::noteOffEventWithNoteVelocityChannelTimeOffset(128, 0, 1, 0)},
        {"note off velocity", E::noteOffEventWithNoteVelocityChannelTimeOffset(0, 128, 1, 0)},
        {"note off channel 0", E::noteOffEventWithNoteVelocityChannelTimeOffset(0, 0, 0, 0)},
        {"note on note", E::noteOnEventWithNoteVelocityChannelTimeOffset(128, 0, 1, 0)},
        {"note on velocity", E::noteOnEventWithNoteVelocityChannelTimeOffset(0, 128, 1, 0)},
        {"note on channel 0", E::noteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 0, 0)},
        {"note on channel 17", E::noteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 17, 0)},
        {"note on huge", E::noteOnEventWithNoteVelocityChannelTimeOffset(0x100000000ull + 60, 64, 1, 0)},
        {"after touch note", E::afterTouchEventWithNotePressureChannelTimeOffset(128, 0, 1, 0)},
        {"after touch pressure", E::afterTouchEventWithNotePressureChannelTimeOffset(0, 128, 1, 0)},
        {"after touch channel", E::afterTouchEventWithNotePressureChannelTimeOffset(0, 0, 17, 0)},
        {"controller", E::controlChangeEventWithControllerValueChannelTimeOffset(128, 0, 1, 0)},
        {"control value", E::controlChangeEventWithControllerValueChannelTimeOffset(0, 128, 1, 0)},
        {"control channel", E::controlChangeEventWithControllerValueChannelTimeOffset(0, 0, 0, 0)},
        {"program", E::patchChangeEventWithProgramChannelTimeOffset(128, 1, 0)},
        {"program channel", E::patchChangeEventWithProgramChannelTimeOffset(0, 17, 0)},
        {"channel pressure", E::channelPressureEventWithPressureChannelTimeOffset(128, 1, 0)},
        {"channel pressure channel", E::channelPressureEventWithPressureChannelTimeOffset(0, 0, 0)},
        {"pitch wheel value", E::pitchWheelEventWithValueChannelTimeOffset(16384, 1, 0)},
        {"pitch wheel channel", E::pitchWheelEventWithValueChannelTimeOffset(0, 17, 0)},
        {"system exclusive status", E::systemCommonEventWithStatusData(0xF0, 0)},
        {"real-time status", E::systemCommonEventWithStatusData(0xF8, 0)},
        {"channel status", E::systemCommonEventWithStatusData(0x90, 0)},
        {"status beyond a byte", E::systemCommonEventWithStatusData(0x1F1, 0)},
        {"system data", E::systemCommonEventWithStatusData(0xF2, 16384)},
    };
    for (const auto& [name, event] : cases)
        EXPECT_EQ(event, nullptr) << name;
    EXPECT_TRUE(lines.lines().empty());
}

TEST(EventEncoding, ConstructorsMaskInsteadOfChecking)
{
    struct Case {
        std::string name;
        std::shared_ptr<VelmorEvent> event;
        Bytes bytes;
        std::uint64_t channel;
    };
    const std::vector<Case> cases = {
        {"channel 0", VelmorEvent::initNoteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 0, 0), {0x9F, 0x3C, 0x40}, 16},
        {"channel 17", VelmorEvent::initNoteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 17, 0), {0x90, 0x3C, 0x40}, 1},
        {"note 200", VelmorEvent::initNoteOffEventWithNoteVelocityChannelTimeOffset(200, 255, 1, 0), {0x80, 0x48, 0x7F}, 1},
        {"after touch", VelmorEvent::initAfterTouchEventWithNotePressureChannelTimeOffset(128, 129, 2, 0), {0xA1, 0x00, 0x01}, 2},
        {"control", VelmorEvent::initControlChangeEventWithControllerValueChannelTimeOffset(0xFF, 0x80, 33, 0), {0xB0, 0x7F, 0x00}, 1},
        {"program", VelmorEvent::initPatchChangeEventWithProgramChannelTimeOffset(0x85, 16, 0), {0xCF, 0x05}, 16},
        {"pressure", VelmorEvent::initChannelPressureEventWithPressureChannelTimeOffset(0x180, 1, 0), {0xD0, 0x00}, 1},
        {"pitch wheel", VelmorEvent::initPitchWheelEventWithValueChannelTimeOffset(16384 + 3, 1, 0), {0xE0, 0x03, 0x00}, 1},
        {"system status", VelmorEvent::initSystemCommonEventWithStatusData(0x1F8, 0x4000 + 0x85), {0xF8, 0x05, 0x01}, 9},
        {"system exclusive", VelmorEvent::initSystemCommonEventWithStatusData(0xF0, 0), {0xF0, 0x00, 0x00}, 1},
    };
    for (const auto& c : cases) {
        ASSERT_NE(c.event, nullptr) << c.name;
        EXPECT_EQ(c.event->data().toVector(), c.bytes) << c.name;
        EXPECT_EQ(c.event->channel(), c.channel) << c.name;
    }
}

// --- The way out -----------------------------------------------------------------------------------

TEST(EventPacket, CarriesOffsetAndBytesButNoTimeStampOrSource)
{
    const auto made = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 1, 10);
    const auto packet = made->packet();
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->timeOffset(), 10u);
    EXPECT_EQ(packet->timeStamp(), 0u);
    EXPECT_EQ(packet->data().toVector(), (Bytes {0x90, 0x3C, 0x40}));
    EXPECT_NE(made->packet(), packet) << "a new packet each time";

    const auto incoming = VelmorPacket::initWithTimeOffsetTimeStampData(0, 5, VelmorData({0xF8}));
    incoming->setSource(TestSource::make());
    const auto decoded = VelmorEvent::eventWithPacket(incoming);
    const auto out = decoded->packet();
    EXPECT_EQ(out->timeStamp(), 0u);
    EXPECT_EQ(out->source(), nullptr);
    // The image goes by the offset only.
    EXPECT_EQ(out->getMIDIPacketListDataWithStartTime(300).toVector(), VelmorTest::packetListImage({{300, {0xF8}}}));
}

#include <gtest/gtest.h>

#include <functional>

#include "TestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorPacket.h"
#include "VelmorRemoteSource.h"

using namespace VelmorTest;
using Lines = std::vector<std::string>;
using E = VelmorEvent;

namespace {

std::shared_ptr<VelmorEvent> decode(const Bytes& bytes)
{
    return VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 0, 0);
}

std::string text(const Bytes& bytes) { return VelmorData(bytes).description(); }

class TestAttributes : public VelmorAttributes {};

class TestSource : public VelmorRemoteSource {
public:
    std::shared_ptr<VelmorAttributes> attributes() const override
    {
        ++asked;
        return current;
    }
    std::shared_ptr<VelmorAttributes> current = std::make_shared<TestAttributes>();
    mutable int asked = 0;
};

} // namespace

TEST(EventDecoding, EachFailureWritesItsLineAndGivesNull)
{
    const std::string noBytes = "[VelmorEvent.cpp] actualLength failed";
    const std::string tooShort = "[VelmorEvent.cpp] actualLength >= minimumLength failed with Expected at least ";
    const std::vector<std::pair<std::function<std::shared_ptr<VelmorEvent>()>, std::string>> cases = {
        {[] { return decode({}); }, noBytes},
        {[] { return E::initWithDataSourceTimeStampTimeOffset(VelmorData(), nullptr, 1, 2); }, noBytes},
        {[] { return E::init(); }, noBytes},
        {[] { return E::eventWithPacket(nullptr); }, noBytes},
        {[] { return E::initWithPacket(VelmorPacket::initWithTimeStampData(1, VelmorData::empty())); }, noBytes},
        {[] { return decode({0x3E, 0x40}); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 48"},
        {[] { return decode({0x7F, 0x7F, 0x7F}); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 112"},
        {[] { return E::initSystemCommonEventWithStatusData(0x40, 0); }, "[VelmorEvent.cpp] ( eventType & 0x80 ) failed with 64"},
        {[] { return decode({0x90, 0x3C}); }, tooShort + "3 bytes, received 2, for type 144"},
        {[] { return decode({0xC0}); }, tooShort + "2 bytes, received 1, for type 192"},
        {[] { return decode({0xEF}); }, tooShort + "3 bytes, received 1, for type 224"},
    };
    for (const auto& [make, line] : cases) {
        CapturedLines lines;
        EXPECT_EQ(make(), nullptr) << line;
        EXPECT_EQ(lines.lines(), Lines {line});
    }
}

TEST(EventDecoding, TakesTimesAndTheSourcesAttributesFromThePacket)
{
    const auto source = std::make_shared<TestSource>();
    const auto packet = VelmorPacket::initWithTimeOffsetTimeStampData(4, 5, VelmorData({0x90, 0x3C, 0x40}));
    packet->setSource(source);
    const auto event = VelmorEvent::eventWithPacket(packet);
    EXPECT_EQ(event->timeStamp(), 5u);
    EXPECT_EQ(event->timeOffset(), 4u);
    EXPECT_EQ(event->sourceAttributes(), source->current);
    EXPECT_EQ(source->asked, 1);
    EXPECT_EQ(decode({0xF8})->sourceAttributes(), nullptr);

    // The way out carries offset and bytes, but neither the time stamp nor the source.
    const auto out = event->packet();
    EXPECT_EQ(out->description(), "0 (4 ms) <90 3c 40>");
    EXPECT_EQ(out->source(), nullptr);
    EXPECT_NE(event->packet(), out);
}

TEST(EventDecoding, TypeChannelAndValuesFromTheBytes)
{
    struct Case {
        Bytes bytes;
        std::uint64_t type, channel, note, velocity, pitch, pressure, eventValue;
    };
    // Exactly sized buffers, so that a value read past the end shows under AddressSanitizer.
    const std::vector<Case> cases = {
        {{0x90, 0x3C, 0x00}, 0x90, 1, 60, 0, 60, 0, 0},       {{0x9F, 0x3C, 0x40}, 0x90, 16, 60, 64, 8252, 0, 0},
        {{0x85, 0x3C, 0x40}, 0x80, 6, 60, 64, 8252, 0, 0},    {{0xA0, 0x3C, 0x20}, 0xA0, 1, 60, 32, 4156, 32, 0},
        {{0xB3, 0x07, 0x64}, 0xB0, 4, 7, 100, 12807, 0, 100}, {{0xC0, 0x05}, 0xC0, 1, 5, 0, 5, 0, 5},
        {{0xDA, 0x20}, 0xD0, 11, 32, 0, 32, 32, 0},           {{0xE0, 0x00, 0x40}, 0xE0, 1, 0, 64, 8192, 0, 0},
        {{0xE0, 0x7F, 0x7F}, 0xE0, 1, 127, 127, 16383, 0, 0}, {{0xF8}, 0xF0, 9, 0, 0, 0, 0, 0},
        {{0xF7}, 0xF0, 8, 0, 0, 0, 0, 0},                     {{0xFF}, 0xF0, 16, 0, 0, 0, 0, 0},
        {{0xF2, 0x10}, 0xF0, 3, 16, 0, 16, 0, 0},             {{0xF0, 0x01, 0x02, 0xF7}, 0xF0, 1, 1, 2, 257, 0, 0},
        // An unended exclusive message, more bytes than the minimum, data bytes above 0x7F: all accepted.
        {{0xF0, 0x01}, 0xF0, 1, 1, 0, 1, 0, 0},               {{0x90, 0x3C, 0x40, 0x80}, 0x90, 1, 60, 64, 8252, 0, 0},
        {{0x90, 0xF8, 0x3C}, 0x90, 1, 248, 60, 7928, 0, 0},
    };
    CapturedLines lines;
    for (const auto& c : cases) {
        const auto event = decode(c.bytes);
        ASSERT_NE(event, nullptr) << text(c.bytes);
        EXPECT_EQ(event->data().toVector(), c.bytes);
        EXPECT_EQ(event->type(), c.type) << text(c.bytes);
        EXPECT_EQ(event->channel(), c.channel) << text(c.bytes);
        EXPECT_EQ(event->note(), c.note) << text(c.bytes);
        EXPECT_EQ(event->controller(), c.note) << text(c.bytes);
        EXPECT_EQ(event->velocity(), c.velocity) << text(c.bytes);
        EXPECT_EQ(event->pitch(), c.pitch) << text(c.bytes);
        EXPECT_EQ(event->pressure(), c.pressure) << text(c.bytes);
        EXPECT_EQ(event->eventValue(), c.eventValue) << text(c.bytes);
    }
    EXPECT_TRUE(lines.lines().empty());
    // setData does not decode again, and bytes taken away read as 0.
    for (const VelmorData& data : {VelmorData(), VelmorData::empty()}) {
        const auto event = decode({0xA0, 0x3C, 0x20});
        event->setData(data);
        EXPECT_EQ(event->type(), VelmorEventTypeAfterTouch);
        EXPECT_EQ(event->note() + event->velocity() + event->pitch() + event->pressure(), 0u);
    }
}

TEST(EventEncoding, FactoriesBuildTheBytesAndDecodeThem)
{
    const std::vector<std::pair<std::shared_ptr<VelmorEvent>, std::string>> cases = {
        {E::noteOffEventWithNoteVelocityChannelTimeOffset(60, 64, 1, 10), "<80 3c 40> 128/1 10"},
        {E::noteOnEventWithNoteVelocityChannelTimeOffset(127, 127, 16, 0), "<9f 7f 7f> 144/16 0"},
        {E::afterTouchEventWithNotePressureChannelTimeOffset(60, 32, 2, 1), "<a1 3c 20> 160/2 1"},
        {E::controlChangeEventWithControllerValueChannelTimeOffset(7, 100, 10, 2), "<b9 07 64> 176/10 2"},
        {E::patchChangeEventWithProgramChannelTimeOffset(5, 3, 3), "<c2 05> 192/3 3"},
        {E::channelPressureEventWithPressureChannelTimeOffset(0, 4, 4), "<d3 00> 208/4 4"},
        {E::pitchWheelEventWithValueChannelTimeOffset(16383, 1, 5), "<e0 7f 7f> 224/1 5"},
        {E::pitchWheelEventWithValueChannelTimeOffset(8192, 1, 0), "<e0 00 40> 224/1 0"},
        {E::systemCommonEventWithStatusData(0xF1, 0x81), "<f1 01 01> 240/2 0"},
        {E::systemCommonEventWithStatusData(0xF6, 0), "<f6 00 00> 240/7 0"},
        {E::systemCommonEventWithStatusData(0xF7, 16383), "<f7 7f 7f> 240/8 0"},
        // The constructors mask instead of checking.
        {E::initNoteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 0, 0), "<9f 3c 40> 144/16 0"},
        {E::initNoteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 17, 0), "<90 3c 40> 144/1 0"},
        {E::initNoteOffEventWithNoteVelocityChannelTimeOffset(200, 255, 1, 0), "<80 48 7f> 128/1 0"},
        {E::initAfterTouchEventWithNotePressureChannelTimeOffset(128, 129, 2, 0), "<a1 00 01> 160/2 0"},
        {E::initControlChangeEventWithControllerValueChannelTimeOffset(0xFF, 0x80, 33, 0), "<b0 7f 00> 176/1 0"},
        {E::initPatchChangeEventWithProgramChannelTimeOffset(0x85, 16, 0), "<cf 05> 192/16 0"},
        {E::initChannelPressureEventWithPressureChannelTimeOffset(0x180, 1, 0), "<d0 00> 208/1 0"},
        {E::initPitchWheelEventWithValueChannelTimeOffset(16384 + 3, 1, 0), "<e0 03 00> 224/1 0"},
        {E::initSystemCommonEventWithStatusData(0x1F8, 0x4000 + 0x85), "<f8 05 01> 240/9 0"},
    };
    for (const auto& [event, expected] : cases) {
        ASSERT_NE(event, nullptr) << expected;
        EXPECT_EQ(event->data().description() + " " + std::to_string(event->type()) + "/" + std::to_string(event->channel()) +
                      " " + std::to_string(event->timeOffset()),
                  expected);
        EXPECT_EQ(event->timeStamp(), 0u);
        EXPECT_EQ(event->sourceAttributes(), nullptr);
    }
}

TEST(EventEncoding, FactoriesRefuseValuesOutOfRangeWithoutALine)
{
    CapturedLines lines;
    const std::vector<std::shared_ptr<VelmorEvent>> refused = {
        E::noteOffEventWithNoteVelocityChannelTimeOffset(128, 0, 1, 0), E::noteOffEventWithNoteVelocityChannelTimeOffset(0, 128, 1, 0),
        E::noteOffEventWithNoteVelocityChannelTimeOffset(0, 0, 0, 0), E::noteOnEventWithNoteVelocityChannelTimeOffset(128, 0, 1, 0),
        E::noteOnEventWithNoteVelocityChannelTimeOffset(0, 128, 1, 0), E::noteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 0, 0),
        E::noteOnEventWithNoteVelocityChannelTimeOffset(60, 64, 17, 0),
        E::noteOnEventWithNoteVelocityChannelTimeOffset(0x100000000ull + 60, 64, 1, 0),
        E::afterTouchEventWithNotePressureChannelTimeOffset(128, 0, 1, 0),
        E::afterTouchEventWithNotePressureChannelTimeOffset(0, 128, 1, 0),
        E::afterTouchEventWithNotePressureChannelTimeOffset(0, 0, 17, 0),
        E::controlChangeEventWithControllerValueChannelTimeOffset(128, 0, 1, 0),
        E::controlChangeEventWithControllerValueChannelTimeOffset(0, 128, 1, 0),
        E::controlChangeEventWithControllerValueChannelTimeOffset(0, 0, 0, 0),
        E::patchChangeEventWithProgramChannelTimeOffset(128, 1, 0), E::patchChangeEventWithProgramChannelTimeOffset(0, 17, 0),
        E::channelPressureEventWithPressureChannelTimeOffset(128, 1, 0), E::channelPressureEventWithPressureChannelTimeOffset(0, 0, 0),
        E::pitchWheelEventWithValueChannelTimeOffset(16384, 1, 0), E::pitchWheelEventWithValueChannelTimeOffset(0, 17, 0),
        E::systemCommonEventWithStatusData(0xF0, 0), E::systemCommonEventWithStatusData(0xF8, 0),
        E::systemCommonEventWithStatusData(0x90, 0), E::systemCommonEventWithStatusData(0x1F1, 0),
        E::systemCommonEventWithStatusData(0xF2, 16384),
    };
    for (std::size_t i = 0; i < refused.size(); ++i)
        EXPECT_EQ(refused[i], nullptr) << "#" << i;
    EXPECT_TRUE(lines.lines().empty());
}

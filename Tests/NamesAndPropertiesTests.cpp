#include <gtest/gtest.h>

#include "VelmorAttributes.h"
#include "VelmorEvent.h"
#include "VelmorManager.h"

namespace {

std::shared_ptr<VelmorEvent> decode(std::initializer_list<std::uint8_t> bytes)
{
    return VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 77, 5);
}

std::shared_ptr<VelmorAttributes> sourceAttributes()
{
    VelmorDictionary form {{"name", VelmorValue("Keys")}, {"model", VelmorValue("K-1")},
                           {"manufacturer", VelmorValue("Acme")}, {"index", VelmorValue(std::uint64_t {2})}};
    return VelmorAttributes::initWithDictionary(&form);
}

} // namespace

TEST(MIDINames, ControllerNames)
{
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(7, false), "Volume (Coarse)");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(7, true), "Volume (Coarse)");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(0, false), "Bank Select (Coarse)");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(66, false), "Sustenuto Pedal");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(98, false), "Non-registered Parameter (Fine)");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(127, false), "Poly Operation");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(3, false), std::nullopt);
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(3, true), "Custom Controller #3");
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(200, false), std::nullopt);
    EXPECT_EQ(VelmorManager::controllerNameAllowCustom(248, true), "Custom Controller #248");

    // 67 names, and exactly the documented gaps.
    int named = 0;
    for (std::uint64_t number = 0; number < 128; ++number)
        named += VelmorManager::controllerNameAllowCustom(number, false).has_value();
    EXPECT_EQ(named, 67);
    for (std::uint64_t gap : {3, 9, 14, 15, 20, 31, 35, 41, 46, 63, 84, 90, 102, 119})
        EXPECT_EQ(VelmorManager::controllerNameAllowCustom(gap, false), std::nullopt) << gap;
}

TEST(MIDINames, NoteNamesFollowTheOctaveOffset)
{
    EXPECT_EQ(VelmorManager::noteNameOctaveOffset(), 0);
    EXPECT_EQ(VelmorManager::noteName(0), "C0");
    EXPECT_EQ(VelmorManager::noteName(60), "C5");
    EXPECT_EQ(VelmorManager::noteName(61), "C\u266F" "5");
    EXPECT_EQ(VelmorManager::noteName(127), "G10");
    EXPECT_EQ(VelmorManager::noteName(70), "A\u266F" "5");
    EXPECT_EQ(VelmorManager::noteName(131), "B10");  // not checked against 127

    VelmorManager::setNoteNameOctaveOffset(-1);
    EXPECT_EQ(VelmorManager::noteName(60), "C4");
    VelmorManager::setNoteNameOctaveOffset(-2);
    EXPECT_EQ(VelmorManager::noteName(60), "C3");
    EXPECT_EQ(VelmorManager::noteName(0), "C-2");
    VelmorManager::setNoteNameOctaveOffset(1);
    VelmorManager::setNoteNameOctaveOffset(-3);
    EXPECT_EQ(VelmorManager::noteNameOctaveOffset(), -2);
    VelmorManager::setNoteNameOctaveOffset(0);
    EXPECT_EQ(VelmorManager::noteName(60), "C5");
}

TEST(EventProperties, KeysOfEachType)
{
    auto cc = decode({0xB0, 0x07, 0x64});
    auto properties = cc->propertiesDictionary();
    EXPECT_EQ(properties.count(), 6u);
    EXPECT_EQ(properties.objectForKey(VelmorEventControllerNumberKey)->unsignedValue(), 7u);
    EXPECT_EQ(properties.objectForKey(VelmorEventControllerNameKey)->stringValue(), "Volume (Coarse)");
    EXPECT_EQ(properties.objectForKey(VelmorEventValueKey)->unsignedValue(), 100u);
    EXPECT_EQ(properties.objectForKey(VelmorEventTimeStampKey)->unsignedValue(), 77u);
    EXPECT_EQ(properties.objectForKey(VelmorEventTypeKey)->unsignedValue(), 0xB0u);
    EXPECT_EQ(properties.objectForKey(VelmorEventChannelNumberKey)->unsignedValue(), 1u);
    EXPECT_EQ(decode({0xB0, 0x03, 0x40})->propertiesDictionary().objectForKey(VelmorEventControllerNameKey)->stringValue(),
              "Custom Controller #3");
    EXPECT_EQ(decode({0xB0, 0xF8, 0x00})->propertiesDictionary().objectForKey(VelmorEventControllerNumberKey)->unsignedValue(),
              248u);

    auto noteOn = decode({0x93, 0x3C, 0x00})->propertiesDictionary();
    EXPECT_EQ(noteOn.count(), 5u);
    EXPECT_EQ(noteOn.objectForKey(VelmorEventNoteNumberKey)->unsignedValue(), 60u);
    EXPECT_EQ(noteOn.objectForKey(VelmorEventVelocityKey)->unsignedValue(), 0u);
    EXPECT_EQ(noteOn.objectForKey(VelmorEventChannelNumberKey)->unsignedValue(), 4u);

    auto touch = decode({0xA0, 0x3C, 0x20})->propertiesDictionary();
    EXPECT_EQ(touch.objectForKey(VelmorEventPressureKey)->unsignedValue(), 32u);
    EXPECT_FALSE(touch.containsKey(VelmorEventVelocityKey));
    EXPECT_EQ(decode({0xC0, 0x05})->propertiesDictionary().objectForKey(VelmorEventValueKey)->unsignedValue(), 5u);
    auto pressure = decode({0xD0, 0x20})->propertiesDictionary();
    EXPECT_EQ(pressure.count(), 4u);
    EXPECT_EQ(pressure.objectForKey(VelmorEventPressureKey)->unsignedValue(), 32u);
    EXPECT_EQ(decode({0xE0, 0x00, 0x40})->propertiesDictionary().objectForKey(VelmorEventPitchKey)->unsignedValue(), 8192u);
    auto clock = decode({0xF8})->propertiesDictionary();
    EXPECT_EQ(clock.count(), 3u);
    EXPECT_EQ(clock.objectForKey(VelmorEventChannelNumberKey)->unsignedValue(), 9u);
}

TEST(EventProperties, SourceKeysAndTextForm)
{
    auto event = decode({0x90, 0x3C, 0x40});
    auto attributes = sourceAttributes();
    event->setSourceAttributes(attributes);
    auto properties = event->propertiesDictionary();
    EXPECT_EQ(properties.objectForKey(VelmorEventSourceNameKey)->stringValue(), "Keys");
    EXPECT_EQ(properties.objectForKey(VelmorEventSourceManufacturerKey)->stringValue(), "Acme");
    EXPECT_EQ(properties.objectForKey(VelmorEventSourceModelKey)->stringValue(), "K-1");
    EXPECT_FALSE(properties.containsKey(VelmorEventSourceUniqueIDKey));
    EXPECT_FALSE(properties.containsKey(VelmorEventSourceIdentifierKey));
    EXPECT_FALSE(properties.containsKey(VelmorEventSourceIndexKey));  // only nested
    const VelmorDictionary* nested = properties.objectForKey(VelmorEventSourceAttributesKey)->dictionaryValue();
    ASSERT_NE(nested, nullptr);
    EXPECT_TRUE(*nested == attributes->dictionaryRepresentation());

    attributes->setUniqueID(-12);
    attributes->setIdentifier("mine");
    attributes->setModel(std::nullopt);  // a null string is left out, not stored as a null
    properties = event->propertiesDictionary();
    EXPECT_EQ(properties.objectForKey(VelmorEventSourceUniqueIDKey)->int64Value(), -12);
    EXPECT_EQ(properties.objectForKey(VelmorEventSourceIdentifierKey)->stringValue(), "mine");
    EXPECT_FALSE(properties.containsKey(VelmorEventSourceModelKey));
    EXPECT_FALSE(properties.objectForKey(VelmorEventSourceAttributesKey)->dictionaryValue()->containsKey(
        VelmorEventSourceModelKey));

    const std::string text = event->description();
    EXPECT_EQ(text.rfind("VelmorEvent: {", 0), 0u) << text;
    EXPECT_NE(text.find("VelmorEventNoteNumber = 60"), std::string::npos) << text;
    EXPECT_EQ(text.find("VelmorEventTimeOffset"), std::string::npos);
}

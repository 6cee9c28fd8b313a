#include <gtest/gtest.h>

#include "ObjectTestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorEndpoint.h"
#include "VelmorManager.h"

using namespace ObjectTestSupport;
using namespace VelmorPlatform;

namespace {

constexpr std::string_view identifierProperty = "com_brightmarrow_Velmor_EndpointIdentifier";

// The in-process service, except that every read of the identifier property fails.
class IdentifierFaultService : public ForwardingService {
public:
    OSStatus getStringProperty(MIDIObjectRef o, std::string_view p, std::optional<std::string>* s) override
    {
        return p == identifierProperty ? kMIDIUnknownProperty : inner->getStringProperty(o, p, s);
    }
};

struct Device {
    VelmorInProcessMIDIService::SimpleDevice refs = service().createSimpleDevice("Keys", "Acme", "K1", true, false);
    std::shared_ptr<VelmorEndpoint> endpoint = VelmorEndpoint::initWithEndpointRefRequestedUniqueID(refs.source, std::nullopt);
};

std::shared_ptr<VelmorAttributes> attributesWith(std::optional<std::string> name, std::optional<std::string> manufacturer,
                                                 std::optional<std::string> model)
{
    auto attributes = VelmorAttributes::init();
    attributes->setName(name);
    attributes->setManufacturer(manufacturer);
    attributes->setModel(model);
    return attributes;
}

} // namespace

TEST(EndpointTest, ConstructionReadsTheIdentifierWithoutFailingOnIt)
{
    CapturedLines lines;
    EXPECT_EQ(VelmorEndpoint::init(), nullptr);
    EXPECT_EQ(VelmorEndpoint::initWithEndpointRefRequestedUniqueID(0x7ffffff0, std::nullopt), nullptr);

    Device plain;
    ASSERT_NE(plain.endpoint, nullptr);
    EXPECT_EQ(plain.endpoint->cachedIdentifier(), std::nullopt);
    EXPECT_EQ(plain.endpoint->identifier(), std::nullopt);

    ASSERT_EQ(MIDIObjectSetStringProperty(plain.refs.source, identifierProperty, "mine"), noErr);
    auto marked = VelmorEndpoint::initWithEndpointRefRequestedUniqueID(plain.refs.source, std::nullopt);
    ASSERT_NE(marked, nullptr);
    EXPECT_EQ(marked->cachedIdentifier(), "mine");

    // A failing identifier read builds the endpoint all the same, silently.
    auto faulty = std::make_shared<IdentifierFaultService>();
    setCurrentService(faulty);
    auto unread = VelmorEndpoint::initWithEndpointRefRequestedUniqueID(plain.refs.source, std::nullopt);
    setCurrentService(faulty->inner);
    ASSERT_NE(unread, nullptr);
    EXPECT_EQ(unread->cachedIdentifier(), std::nullopt);
    EXPECT_EQ(unread->identifier(), "mine");
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{"VelmorObject.cpp: noErr == status failed with -50"}));
}

TEST(EndpointTest, GettersAndTheirCaches)
{
    Device d;
    ASSERT_NE(d.endpoint, nullptr);
    auto& e = *d.endpoint;
    MIDIObjectSetStringProperty(d.refs.source, identifierProperty, "id-1");
    EXPECT_EQ(e.manufacturer(), "Acme");
    EXPECT_EQ(e.model(), "K1");
    EXPECT_EQ(e.identifier(), "id-1");

    // -50: all three answer from their caches.
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIParamErr, 3);
    EXPECT_EQ(e.manufacturer(), "Acme");
    EXPECT_EQ(e.model(), "K1");
    EXPECT_EQ(e.identifier(), "id-1");

    // Any other failure: manufacturer and model are null, the identifier is its cache.
    service().failNextCalls("MIDIObjectGetStringProperty", kMIDIUnknownProperty, 3);
    EXPECT_EQ(e.manufacturer(), std::nullopt);
    EXPECT_EQ(e.model(), std::nullopt);
    EXPECT_EQ(e.identifier(), "id-1");
    EXPECT_EQ(e.cachedManufacturer(), "Acme");

    // No string: null for all three, but only the identifier's cache is cleared.
    service().removeStringProperty(d.refs.source, kMIDIPropertyManufacturer);
    service().removeStringProperty(d.refs.source, kMIDIPropertyModel);
    service().removeStringProperty(d.refs.source, identifierProperty);
    EXPECT_EQ(e.manufacturer(), std::nullopt);
    EXPECT_EQ(e.model(), std::nullopt);
    EXPECT_EQ(e.identifier(), std::nullopt);
    EXPECT_EQ(e.cachedManufacturer(), "Acme");
    EXPECT_EQ(e.cachedModel(), "K1");
    EXPECT_EQ(e.cachedIdentifier(), std::nullopt);
    EXPECT_EQ(e.description().rfind("VelmorEndpoint: mod:(null) mfg:(null) VelmorObject: n:Keys id:0x", 0), 0u);
}

TEST(EndpointTest, SettersWriteOnlyRealValuesOnOpenEndpointsAndLeaveTheCaches)
{
    CapturedLines lines;
    Device d;
    ASSERT_NE(d.endpoint, nullptr);
    auto& e = *d.endpoint;
    service().resetCallCounts();
    for (const std::optional<std::string>& nothing : {std::optional<std::string>(), std::optional<std::string>("")}) {
        e.setManufacturer(nothing);
        e.setModel(nothing);
        e.setIdentifier(nothing);
        e.setName(nothing);
    }
    EXPECT_EQ(service().callCount("MIDIObjectSetStringProperty"), 0u);

    EXPECT_EQ(e.manufacturer(), "Acme");
    e.setManufacturer("Maker");
    e.setModel("M2");
    e.setIdentifier("id-2");
    EXPECT_EQ(e.cachedManufacturer(), "Acme");
    service().failNextCalls("MIDIObjectSetStringProperty", kMIDIUnknownProperty, 2);
    e.setModel("M3");
    e.setName("Other");
    EXPECT_EQ(e.model(), "M2");
    EXPECT_EQ(e.identifier(), "id-2");

    // Closed: getters answer with the last value read, setters do nothing and say nothing.
    e.setManufacturer("Later");
    e.closeObject();
    service().resetCallCounts();
    e.setManufacturer("X");
    e.setModel("X");
    e.setIdentifier("X");
    e.setName("X");
    EXPECT_EQ(service().callCount("MIDIObjectSetStringProperty"), 0u);
    EXPECT_EQ(e.manufacturer(), "Acme");
    EXPECT_EQ(e.model(), "M2");
    EXPECT_EQ(e.identifier(), "id-2");
    EXPECT_EQ(lines.messages(), (std::vector<std::string>{"VelmorEndpoint.cpp: noErr == status failed with -10835",
                                                          "VelmorObject.cpp: noErr == status failed with -10835"}));
}

TEST(EndpointTest, AttributesComeFromTheGetters)
{
    Device d;
    ASSERT_NE(d.endpoint, nullptr);
    MIDIObjectSetIntegerProperty(d.refs.source, kMIDIPropertyUniqueID, -9);
    MIDIObjectSetStringProperty(d.refs.source, identifierProperty, "id-3");
    auto attributes = d.endpoint->attributes();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->name(), "Keys");
    EXPECT_EQ(attributes->manufacturer(), "Acme");
    EXPECT_EQ(attributes->model(), "K1");
    EXPECT_EQ(attributes->identifier(), "id-3");
    EXPECT_EQ(attributes->uniqueID(), -9);
    EXPECT_EQ(attributes->index(), 0u);

    // No model: null, not the default, so the value can't be copied. Unique ID 0: null.
    MIDIObjectSetIntegerProperty(d.refs.source, kMIDIPropertyUniqueID, 0);
    service().removeStringProperty(d.refs.source, kMIDIPropertyModel);
    attributes = d.endpoint->attributes();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->model(), std::nullopt);
    EXPECT_EQ(attributes->uniqueID(), std::nullopt);
    EXPECT_EQ(attributes->copy(), nullptr);
}

TEST(EndpointTest, MatchesTheFieldsTheOptionsSelect)
{
    Device d;
    ASSERT_NE(d.endpoint, nullptr);
    auto& e = *d.endpoint;
    MIDIObjectSetIntegerProperty(d.refs.source, kMIDIPropertyUniqueID, 31);
    const auto same = attributesWith("Keys", "Acme", "K1");
    const auto all = VelmorAttributesOptionName | VelmorAttributesOptionManufacturer | VelmorAttributesOptionModel |
                     VelmorAttributesOptionUniqueID | VelmorAttributesOptionIndex | VelmorAttributesOptionIdentifier;
    auto with = [&](auto change) {
        auto attributes = attributesWith("Keys", "Acme", "K1");
        change(*attributes);
        return attributes;
    };
    struct Row {
        const char* what;
        std::shared_ptr<VelmorAttributes> attributes;
        std::uint64_t options;
        bool matches;
    };
    const Row rows[] = {
        {"all equal", same, all, true},
        {"options 0", attributesWith(std::nullopt, std::nullopt, std::nullopt), 0, true},
        {"name case differs", with([](auto& a) { a.setName("keys"); }), VelmorAttributesOptionName, false},
        {"name differs, not asked", with([](auto& a) { a.setName("Pads"); }), VelmorAttributesOptionModel, true},
        {"null manufacturer", with([](auto& a) { a.setManufacturer(std::nullopt); }), VelmorAttributesOptionManufacturer, false},
        {"model differs", with([](auto& a) { a.setModel("K2"); }), VelmorAttributesOptionModel, false},
        {"unique ID equal", with([](auto& a) { a.setUniqueID(31); }), VelmorAttributesOptionUniqueID, true},
        {"unique ID 0", with([](auto& a) { a.setUniqueID(0); }), VelmorAttributesOptionUniqueID, false},
        {"unique ID differs, name asked", with([](auto& a) { a.setUniqueID(32); }), all, false},
        {"identifier the endpoint lacks", with([](auto& a) { a.setIdentifier("id"); }), VelmorAttributesOptionIdentifier, false},
        {"index ignored", with([](auto& a) { a.setIndex(5); }), VelmorAttributesOptionIndex, true},
        // Null attributes hold nothing: an option word of 0 matches them, and so do the wildcard fields.
        {"null attributes, options 0", nullptr, 0, true},
        {"null attributes, name asked", nullptr, VelmorAttributesOptionName, false},
        {"null attributes, unique ID and identifier asked", nullptr,
         VelmorAttributesOptionUniqueID | VelmorAttributesOptionIdentifier, true},
    };
    CapturedLines lines;
    for (const auto& row : rows)
        EXPECT_EQ(e.matchesAttributesOptions(row.attributes, row.options), row.matches) << row.what;
    EXPECT_TRUE(lines.messages().empty());

    MIDIObjectSetStringProperty(d.refs.source, identifierProperty, "id");
    EXPECT_TRUE(e.matchesAttributesOptions(with([](auto& a) { a.setIdentifier("id"); }), all));
    // Without a name an endpoint matches nothing by name, not even a nameless value.
    service().removeStringProperty(d.refs.source, kMIDIPropertyName);
    EXPECT_FALSE(e.matchesAttributesOptions(attributesWith(std::nullopt, "Acme", "K1"), VelmorAttributesOptionName));
}

TEST(EndpointTest, ReportsChangesOfItsOwnEntityOnly)
{
    auto client = VelmorClient::initWithName("Tests");
    ASSERT_NE(client, nullptr);
    Device d;
    Device other;
    MIDIEndpointRef virtualRef = 0;
    ASSERT_EQ(MIDISourceCreate(client->client(), "Virtual", &virtualRef), noErr);
    auto orphan = VelmorEndpoint::initWithEndpointRefRequestedUniqueID(virtualRef, std::nullopt);
    ASSERT_NE(d.endpoint, nullptr);
    ASSERT_NE(orphan, nullptr);
    deliverPending();
    NotificationRecorder recorder({VelmorObjectPropertyChangedNotification, VelmorEndpointPropertyChangedNotification});

    MIDIObjectSetStringProperty(other.refs.entity, kMIDIPropertyName, "Other entity");
    MIDIObjectSetStringProperty(d.refs.device, kMIDIPropertyName, "Device");
    MIDIObjectSetStringProperty(d.refs.source, kMIDIPropertyManufacturer, "Self");
    deliverPending();
    EXPECT_EQ(recorder.count(VelmorEndpointPropertyChangedNotification, d.endpoint.get()), 0u);
    EXPECT_EQ(recorder.count(VelmorEndpointPropertyChangedNotification, other.endpoint.get()), 1u);
    recorder.notifications.clear();

    // The endpoint's own rename: only the object's notification. Its entity's: the endpoint's, after.
    MIDIObjectSetStringProperty(d.refs.source, kMIDIPropertyName, "Renamed");
    MIDIObjectSetStringProperty(d.refs.entity, "anything", "x");
    deliverPending();
    ASSERT_EQ(recorder.notifications.size(), 2u);
    EXPECT_EQ(recorder.count(VelmorObjectPropertyChangedNotification, d.endpoint.get()), 1u);
    EXPECT_EQ(recorder.count(VelmorEndpointPropertyChangedNotification, d.endpoint.get()), 1u);
    EXPECT_EQ(recorder.notifications[1].name, VelmorEndpointPropertyChangedNotification);
    EXPECT_FALSE(recorder.notifications[1].userInfo.has_value());

    // An entity that can't be found means no notification.
    MIDIObjectSetStringProperty(d.refs.entity, kMIDIPropertyName, "Again");
    service().waitUntilIdle();
    service().failNextCalls("MIDIEndpointGetEntity", kMIDIUnknownEndpoint, 3);
    deliverPending();
    EXPECT_EQ(recorder.notifications.size(), 2u);
}

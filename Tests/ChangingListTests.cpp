// Discovery against a platform whose list changes while a pass walks it, and sources that lose their
// one connection to another object of the same endpoint: one object per endpoint, and a listed source
// with consumers hears its device.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "ObjectTestSupport.h"
#include "ReceiveTestSupport.h"
#include "VelmorRemoteOutput.h"

using namespace VelmorReceiveTest;

namespace {

// Runs `afterFirstItem` once, right after the first item call of the next pass, and answers every item
// call from the platform's list as it is then: the pass sees the list change under it.
class ChangingListService : public ObjectTestSupport::ForwardingService {
public:
    std::function<void()> afterFirstSource;
    std::function<void()> afterFirstDestination;

    VelmorPlatform::MIDIEndpointRef source(VelmorPlatform::ItemCount index) override
    {
        inner->numberOfSources();  // a service that answers from the count's snapshot reads the list anew
        const auto endpoint = inner->source(index);
        if (auto action = std::exchange(afterFirstSource, nullptr))
            action();
        return endpoint;
    }
    VelmorPlatform::MIDIEndpointRef destination(VelmorPlatform::ItemCount index) override
    {
        inner->numberOfDestinations();
        const auto endpoint = inner->destination(index);
        if (auto action = std::exchange(afterFirstDestination, nullptr))
            action();
        return endpoint;
    }
};

std::shared_ptr<ChangingListService> installChangingList()
{
    auto changing = std::make_shared<ChangingListService>();
    VelmorPlatform::setCurrentService(changing);
    return changing;
}

template <typename T>
std::vector<VelmorPlatform::MIDIEndpointRef> endpointsOf(const std::vector<std::shared_ptr<T>>& objects)
{
    std::vector<VelmorPlatform::MIDIEndpointRef> result;
    for (const auto& object : objects)
        result.push_back(object->object());
    std::sort(result.begin(), result.end());
    return result;
}

std::vector<VelmorPlatform::MIDIEndpointRef> sorted(std::vector<VelmorPlatform::MIDIEndpointRef> endpoints)
{
    std::sort(endpoints.begin(), endpoints.end());
    return endpoints;
}

} // namespace

// A device plugged in while one lower in the list goes: the pass meets the new endpoint at two
// positions. The application adds a consumer to every source it is told of, as applications do.
TEST(ChangingList, AnEndpointNamedTwiceInOnePassGetsOneSourceThatHears)
{
    auto changing = installChangingList();
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto a = service().createSimpleDevice("A", "Acme", "K1", true, false);
    auto b = service().createSimpleDevice("B", "Acme", "K1", true, false);
    ASSERT_EQ(manager->sources().size(), 2u);

    auto journal = std::make_shared<Journal>();
    std::vector<std::shared_ptr<RecordingConsumer>> consumers;
    NotificationRecorder recorder(kSourceNotifications);
    recorder.onNotification = [&](const VelmorNotification& notification) {
        if (notification.name != VelmorManager_DidAddSourceNotification)
            return;
        auto source = std::dynamic_pointer_cast<VelmorRemoteSource>(notification.object);
        consumers.push_back(std::make_shared<RecordingConsumer>("c", journal));
        source->addConsumer(consumers.back());
    };

    auto d = service().createSimpleDevice("D", "Acme", "K2", true, false);
    changing->afterFirstSource = [&] { service().removeObject(a.device); };
    settle();

    EXPECT_EQ(endpointsOf(manager->sources()), sorted({b.source, d.source}));
    ASSERT_EQ(consumers.size(), 1u) << "DidAddSource for one device only";
    const auto names = recorder.names();
    EXPECT_EQ(std::count(names.begin(), names.end(), std::string(VelmorManager_DidRemoveSourceNotification)), 1);

    service().injectBytes(d.source, Bytes {0x90, 60, 100});
    settle();
    EXPECT_EQ(consumers[0]->heard(), (std::vector<std::string> {"90 3C 64"}));
}

TEST(ChangingList, ADestinationNamedTwiceInOnePassGetsOneOutput)
{
    auto changing = installChangingList();
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto a = service().createSimpleDevice("A", "Acme", "K1", false, true);
    auto b = service().createSimpleDevice("B", "Acme", "K1", false, true);
    ASSERT_EQ(manager->remoteOutputs().size(), 2u);

    NotificationRecorder recorder({VelmorManager_DidAddOutputNotification, VelmorManager_DidRemoveOutputNotification});
    auto d = service().createSimpleDevice("D", "Acme", "K2", false, true);
    changing->afterFirstDestination = [&] { service().removeObject(a.device); };
    settle();
    EXPECT_EQ(endpointsOf(manager->remoteOutputs()), sorted({b.destination, d.destination}));
    // Told once of each change: no output that comes and goes again for a device still plugged in.
    EXPECT_EQ(recorder.names(), (std::vector<std::string> {std::string(VelmorManager_DidAddOutputNotification),
                                                          std::string(VelmorManager_DidRemoveOutputNotification)}));
}

// An application keeps a source from before a flush and registers on it again, next to the new object
// of the same endpoint. Whichever connected last holds the connection; the other connects again at its
// next consumer, and the old one letting go never silences the new one.
TEST(ChangingList, ASourceWhoseConnectionWasTakenConnectsAgainAtItsNextConsumer)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto keys = service().createSimpleDevice("Keys", "Acme", "K1", true, false);
    auto old = manager->sources().at(0);
    manager->flushManager();
    auto fresh = manager->sources().at(0);
    ASSERT_NE(old, fresh);
    ASSERT_EQ(old->object(), fresh->object());

    auto journal = std::make_shared<Journal>();
    auto heardNew = std::make_shared<RecordingConsumer>("new", journal);
    auto heardOld = std::make_shared<RecordingConsumer>("old", journal);
    fresh->addConsumer(heardNew);
    old->addConsumer(heardOld);  // takes the endpoint's one connection
    service().injectBytes(keys.source, Bytes {0x90, 1, 1});
    settle();
    old->removeConsumerForAllEventsInChannel(heardOld, 0);  // lets it go
    service().injectBytes(keys.source, Bytes {0x90, 2, 2});
    settle();
    fresh->addConsumerForEventTypeInChannel(heardNew, VelmorEventTypeNoteOn, 1);
    service().injectBytes(keys.source, Bytes {0x90, 3, 3});
    settle();

    EXPECT_EQ(*journal, (Journal {"old 90 01 01", "new 90 03 03"}));
}

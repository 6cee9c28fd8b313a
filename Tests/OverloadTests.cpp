// Overload: what waits for the main thread is bounded, and every event dropped on the way is reported
// on the main thread, with its source and the count, ahead of the backlog.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "ReceiveTestSupport.h"
#include "VelmorPacketList.h"

using namespace VelmorReceiveTest;

namespace {

struct Drop {
    std::shared_ptr<VelmorRootObject> source;  // null when the key is missing
    std::uint64_t count = 0;
};

class Overload : public ReceiveFixture {
protected:
    void SetUp() override
    {
        ReceiveFixture::SetUp();
        VelmorManager::setMaximumPendingInputEvents(100);
        heard = consumer("heard");
        source->addConsumer(heard);
        drops.onNotification = [this](const VelmorNotification& notification) {
            Drop drop;
            if (const auto* value = notification.userInfo->objectForKey(VelmorManager_SourceKey))
                drop.source = value->objectValue();
            drop.count = notification.userInfo->objectForKey(VelmorManager_DroppedEventCountKey)->unsignedValue().value();
            journal->push_back("dropped " + std::to_string(drop.count));
            received.push_back(drop);
        };
    }
    void TearDown() override
    {
        VelmorManager::setMaximumPendingInputEvents(VelmorInputPort::defaultMaximumPendingInputEvents);
        VelmorManager::setMaximumPendingInputBytes(VelmorInputPort::defaultMaximumPendingInputBytes);
        ReceiveFixture::TearDown();
    }
    // `count` notes, each its own list, while the main thread serves nothing.
    void flood(int count)
    {
        for (int i = 0; i < count; ++i)
            inject({0x90, static_cast<std::uint8_t>(i & 0x7F), 0x40});
        service().waitUntilIdle();
    }

    std::shared_ptr<RecordingConsumer> heard;
    NotificationRecorder drops {{VelmorManager_SourceDidDropEventsNotification}};
    std::vector<Drop> received;
};

} // namespace

TEST_F(Overload, AFloodStaysUnderTheBoundAndReportsExactlyWhatWasDroppedAheadOfTheBacklog)
{
    flood(1000);
    EXPECT_EQ(manager->inputPort()->pendingInputEvents(), 100u);
    EXPECT_LE(VelmorMainQueue::mainQueue().pendingCount(), 101u);  // the lists and one report
    settle();

    // The first hundred arrive in order; the report of the other 900 comes first, once.
    ASSERT_EQ(heard->events.size(), 100u);
    EXPECT_EQ(heard->heard().front(), "90 00 40");
    EXPECT_EQ(heard->heard().back(), "90 63 40");
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].source, source);
    EXPECT_EQ(received[0].count, 900u);
    EXPECT_EQ(journal->front(), "dropped 900");
    EXPECT_EQ(manager->inputPort()->pendingInputEvents(), 0u);

    // Drained, the road is open again and nothing more is reported.
    journal->clear();
    flood(50);
    settle();
    EXPECT_EQ(heard->events.size(), 150u);
    EXPECT_EQ(received.size(), 1u);
}

TEST_F(Overload, ReportsAreCoalescedToOnePerSourcePerPassAndAddUpToEveryDrop)
{
    // The main thread serves one list at a time while the flood goes on: every pass may report once,
    // and all reports together count every dropped event.
    VelmorManager::setMaximumPendingInputEvents(10);
    std::uint64_t passes = 0;
    for (int burst = 0; burst < 20; ++burst) {
        flood(30);
        const auto before = VelmorMainQueue::mainQueue().passCount();
        VelmorMainQueue::mainQueue().runPending();
        passes += VelmorMainQueue::mainQueue().passCount() - before;
    }
    settle();
    std::uint64_t dropped = 0;
    for (const auto& drop : received) {
        EXPECT_EQ(drop.source, source);
        dropped += drop.count;
    }
    EXPECT_EQ(heard->events.size() + dropped, 600u);
    EXPECT_GT(dropped, 0u);
    EXPECT_LE(received.size(), passes + 1);  // settle() adds a pass at most for what is left
}

TEST_F(Overload, TheByteBoundLetsALargeMessageThroughAlone)
{
    VelmorManager::setMaximumPendingInputBytes(1000);
    Bytes exclusive(5000, 0x01);
    exclusive.front() = 0xF0;
    exclusive.back() = 0xF7;
    inject(exclusive);  // alone: it passes
    inject(exclusive);  // behind it: dropped
    inject({0x90, 0x3C, 0x40});  // the bound of bytes is reached: dropped
    service().waitUntilIdle();
    settle();
    ASSERT_EQ(heard->events.size(), 1u);
    EXPECT_EQ(heard->events[0]->data().length(), 5000u);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].count, 2u);
}

TEST_F(Overload, ADevicePluggedInDuringABacklogIsAnnouncedBehindNoMoreThanTheBound)
{
    NotificationRecorder added({VelmorManager_DidAddSourceNotification});
    added.onNotification = [this](const VelmorNotification&) { journal->push_back("added"); };
    flood(1000);
    service().createSimpleDevice("Late", "Acme", "L1", true, false);
    service().waitUntilIdle();
    settle();
    const auto at = std::find(journal->begin(), journal->end(), "added");
    ASSERT_NE(at, journal->end());
    EXPECT_LE(at - journal->begin(), 1 + 100);  // the report, then at most the bound's events
}

TEST_F(Overload, InputTheServiceLostIsReportedWithItsSourceOrWithout)
{
    const auto port = manager->inputPort()->port();
    auto record = [&](VelmorPlatform::MIDIEndpointRef endpoint, std::uint64_t lost) {
        VelmorPlatform::MIDIInputDroppedNotification dropped {VelmorPlatform::kMIDIMsgVelmorInputDropped,
                                                              sizeof dropped, port, endpoint, lost};
        VelmorNotificationCallback(reinterpret_cast<const VelmorPlatform::MIDINotification*>(&dropped),
                                   manager->client()->notificationContext());
    };
    flood(20);  // a backlog the reports overtake
    record(device.source, 5);
    record(device.source, 7);
    record(0, 0);  // the service can't tell the source or the count
    VelmorPlatform::MIDIInputDroppedNotification otherPort {VelmorPlatform::kMIDIMsgVelmorInputDropped,
                                                            sizeof otherPort, port + 1000, device.source, 3};
    VelmorNotificationCallback(reinterpret_cast<const VelmorPlatform::MIDINotification*>(&otherPort),
                               manager->client()->notificationContext());
    settle();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].source, source);
    EXPECT_EQ(received[0].count, 12u);
    EXPECT_EQ(received[1].source, nullptr);
    EXPECT_EQ(received[1].count, 0u);
    EXPECT_EQ((std::vector<std::string>(journal->begin(), journal->begin() + 2)),
              (std::vector<std::string> {"dropped 12", "dropped 0"}));
    EXPECT_EQ(heard->events.size(), 20u);
}

TEST_F(Overload, TheInProcessServiceBoundsWhatWaitsForItsThreadAndTellsWhatItLost)
{
    // Another client's read procedure holds the service's thread, as a slow reader would.
    struct Blocker {
        std::mutex mutex;
        std::condition_variable changed;
        bool entered = false;
        bool released = false;
        int calls = 0;
        static void read(const VelmorPlatform::MIDIPacketList*, void* refCon, void*)
        {
            auto* self = static_cast<Blocker*>(refCon);
            std::unique_lock<std::mutex> lock(self->mutex);
            ++self->calls;
            self->entered = true;
            self->changed.notify_all();
            self->changed.wait(lock, [self] { return self->released; });
        }
    } blocker;
    VelmorPlatform::MIDIClientRef client = 0;
    VelmorPlatform::MIDIPortRef port = 0;
    ASSERT_EQ(service().clientCreate("Slow", nullptr, nullptr, &client), VelmorPlatform::noErr);
    ASSERT_EQ(service().inputPortCreate(client, "Slow", &Blocker::read, &blocker, &port), VelmorPlatform::noErr);
    ASSERT_EQ(service().portConnectSource(port, device.source, nullptr), VelmorPlatform::noErr);
    service().setMaximumPendingCallbacks(10, std::size_t(1) << 20);

    inject({0x90, 0x00, 0x40});
    {
        std::unique_lock<std::mutex> lock(blocker.mutex);
        blocker.changed.wait(lock, [&] { return blocker.entered; });
    }
    for (int i = 1; i <= 100; ++i)
        inject({0x90, static_cast<std::uint8_t>(i), 0x40});
    {
        std::lock_guard<std::mutex> lock(blocker.mutex);
        blocker.released = true;
    }
    blocker.changed.notify_all();
    service().waitUntilIdle();
    settle();
    service().setMaximumPendingCallbacks(8192, std::size_t(2) << 20);

    EXPECT_EQ(blocker.calls, 11);
    EXPECT_EQ(heard->events.size(), 11u);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].source, source);
    EXPECT_EQ(received[0].count, 90u);
    service().portDispose(port);
    service().clientDispose(client);
}

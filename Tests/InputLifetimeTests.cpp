// Lifetimes on the road from the service's thread to the consumers: a list that waits in the main
// queue never reaches another source's consumers, and no callback of the service reaches a framework
// object that is gone, whatever the service answers to the calls that end its use of them.

#include <gtest/gtest.h>

#include "ReceiveTestSupport.h"
#include "VelmorCallbackContext.h"

using namespace VelmorReceiveTest;

namespace {

std::shared_ptr<VelmorRemoteSource> sourceOf(Service::SimpleDevice device)
{
    return VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(device.source, std::nullopt);
}

} // namespace

TEST(InputLifetime, AWaitingListNeverReachesASourceMadeAfterItsOwnWentAway)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto port = manager->inputPort();
    auto journal = std::make_shared<Journal>();
    // Many rounds: the freed source's memory is handed to the next object of its size more often than
    // not, which is what used to make the old list look like the new source's.
    int reused = 0;
    for (int round = 0; round < 20; ++round) {
        auto oldDevice = service().createSimpleDevice("Old", "Acme", "O1", true, false);
        auto newDevice = service().createSimpleDevice("New", "Acme", "N1", true, false);
        settle();
        auto oldSource = sourceOf(oldDevice);
        auto heardByOld = std::make_shared<RecordingConsumer>("old", journal);
        oldSource->addConsumer(heardByOld);
        ASSERT_EQ(service().injectBytes(oldDevice.source, Bytes {0x90, 0x3C, 0x40}), VelmorPlatform::noErr);
        service().waitUntilIdle();  // the list waits in the main queue
        oldSource->removeConsumerForAllEventsInChannel(heardByOld, 0);
        const void* oldAddress = oldSource.get();
        oldSource.reset();

        auto newSource = sourceOf(newDevice);
        reused += newSource.get() == oldAddress;
        auto heardByNew = std::make_shared<RecordingConsumer>("new", journal);
        newSource->addConsumer(heardByNew);
        settle();
        EXPECT_TRUE(heardByNew->events.empty()) << "round " << round;
        EXPECT_TRUE(heardByOld->events.empty()) << "round " << round;

        newSource->removeConsumerForAllEventsInChannel(heardByNew, 0);
        service().removeObject(oldDevice.device);
        service().removeObject(newDevice.device);
        settle();
    }
    RecordProperty("addressReused", reused);
}

TEST(InputLifetime, ADisposeTheServiceRefusesLeavesNoCallbackToAFreedClient)
{
    service().waitUntilIdle();
    auto client = VelmorClient::initWithName("Refused");
    ASSERT_NE(client, nullptr);
    const auto retired = VelmorCallbackContext::retiredCount();
    for (auto status : {VelmorPlatform::kMIDIParamErr, VelmorPlatform::kMIDIInvalidClient}) {
        auto refused = VelmorClient::initWithName("Refused");
        ASSERT_NE(refused, nullptr);
        service().failNextCalls("MIDIClientDispose", status);
        refused.reset();
    }
    EXPECT_EQ(VelmorCallbackContext::retiredCount(), retired + 2);
    // The service still calls the refused clients' callback; it finds nothing to reach.
    service().createSimpleDevice("After", "Acme", "A1");
    settle();

    // A dispose the service accepts frees the context: nothing is kept.
    client.reset();
    EXPECT_EQ(VelmorCallbackContext::retiredCount(), retired + 2);
    service().createSimpleDevice("Later", "Acme", "L1");
    settle();
}

TEST(InputLifetime, ADisconnectAndDisposeTheServiceRefusesLeaveNoReadProcedureToAFreedPort)
{
    auto manager = VelmorManager::sharedManager();
    ASSERT_NE(manager, nullptr);
    auto device = service().createSimpleDevice("Pads", "Acme", "P1", true, false);
    settle();
    const auto retired = VelmorCallbackContext::retiredCount();
    {
        auto port = VelmorInputPort::initWithClientNameReadProc(manager->client(), std::string("Doomed"), nullptr);
        ASSERT_NE(port, nullptr);
        auto source = sourceOf(device);
        port->addSource(source);
        ASSERT_EQ(port->mutableSources().size(), 1u);
        // -50 takes the source off the list, yet this service keeps the connection; the port's dispose
        // fails as well.
        service().failNextCalls("MIDIPortDisconnectSource", VelmorPlatform::kMIDIParamErr);
        service().failNextCalls("MIDIPortDispose", VelmorPlatform::kMIDIInvalidPort);
        port.reset();
        source.reset();
    }
    EXPECT_EQ(VelmorCallbackContext::retiredCount(), retired + 2);  // the port's and the connection's
    ASSERT_EQ(service().injectBytes(device.source, Bytes {0x90, 0x3C, 0x40}), VelmorPlatform::noErr);
    settle();

    // A source still listed when the port goes, its disconnect refused: the port's dispose ends both.
    auto port = VelmorInputPort::initWithClientNameReadProc(manager->client(), std::string("Kept"), nullptr);
    ASSERT_NE(port, nullptr);
    auto source = sourceOf(device);
    port->addSource(source);
    ASSERT_EQ(service().injectBytes(device.source, Bytes {0x90, 0x3C, 0x41}), VelmorPlatform::noErr);
    service().waitUntilIdle();  // a list waits, holding the port
    service().failNextCalls("MIDIPortDisconnectSource", VelmorPlatform::kMIDIInvalidPort);
    port.reset();
    source.reset();
    settle();
    EXPECT_EQ(VelmorCallbackContext::retiredCount(), retired + 2);
    ASSERT_EQ(service().injectBytes(device.source, Bytes {0x90, 0x3C, 0x42}), VelmorPlatform::noErr);
    settle();
}

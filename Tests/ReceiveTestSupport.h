#pragma once

// Shared helpers of the receiving tests: the in-process service, serving the main queue, consumers and
// a delegate that write what they hear into one journal, so that order across them can be checked.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorConsumer.h"
#include "VelmorEvent.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorInputPort.h"
#include "VelmorMainQueue.h"
#include "VelmorManager.h"
#include "VelmorNotificationCenter.h"
#include "VelmorRemoteSource.h"

namespace VelmorReceiveTest {

using Bytes = std::vector<std::uint8_t>;
using Service = VelmorPlatform::VelmorInProcessMIDIService;

inline Service& service()
{
    return *Service::sharedService();
}

// Runs what the service has queued, then everything that reached the main queue, until both are quiet.
inline void settle()
{
    for (int round = 0; round < 100; ++round) {
        service().waitUntilIdle();
        if (VelmorMainQueue::mainQueue().runPending() == 0 && VelmorMainQueue::mainQueue().pendingCount() == 0)
            return;
    }
}

inline std::string hex(const Bytes& bytes)
{
    static const char* digits = "0123456789ABCDEF";
    std::string text;
    for (std::uint8_t byte : bytes) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

inline Bytes bytesOf(const VelmorData& data)
{
    Bytes bytes;
    for (std::size_t i = 0; i < data.length(); ++i)
        bytes.push_back(data[i]);
    return bytes;
}

// One journal for everything a test listens to, in the order it happened.
using Journal = std::vector<std::string>;

class RecordingConsumer : public VelmorConsumer {
public:
    RecordingConsumer(std::string name, std::shared_ptr<Journal> journal) : name_(std::move(name)), journal_(std::move(journal)) {}

    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        events.push_back(event);
        onMainThread = onMainThread && std::this_thread::get_id() == mainThread;
        if (journal_)
            journal_->push_back(name_ + " " + hex(bytesOf(event->data())));
        if (onEvent)
            onEvent(event);
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>& source) override
    {
        terminations.push_back(source);
        if (journal_)
            journal_->push_back(name_ + " terminating");
        if (onTerminating)
            onTerminating(source);
    }

    // The bytes of each event heard, in order.
    std::vector<std::string> heard() const
    {
        std::vector<std::string> result;
        for (const auto& event : events)
            result.push_back(hex(bytesOf(event->data())));
        return result;
    }

    std::vector<std::shared_ptr<VelmorEvent>> events;
    std::vector<std::shared_ptr<VelmorRemoteSource>> terminations;
    std::function<void(const std::shared_ptr<VelmorEvent>&)> onEvent;
    std::function<void(const std::shared_ptr<VelmorRemoteSource>&)> onTerminating;
    std::thread::id mainThread = std::this_thread::get_id();
    bool onMainThread = true;

private:
    std::string name_;
    std::shared_ptr<Journal> journal_;
};

class RecordingDelegate : public VelmorManagerDelegate {
public:
    RecordingDelegate(std::shared_ptr<Journal> journal, bool will = true, bool did = true)
        : journal_(std::move(journal)), will_(will), did_(did)
    {
    }
    bool respondsToMidiSourceWillHandleEvent() const override { return will_; }
    bool respondsToMidiSourceDidHandleEvent() const override { return did_; }
    void midiSourceWillHandleEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                   const std::shared_ptr<VelmorEvent>& event) override
    {
        journal_->push_back("will " + hex(bytesOf(event->data())));
        lastSource = source;
        if (onWill)
            onWill(event);
    }
    void midiSourceDidHandleEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                  const std::shared_ptr<VelmorEvent>& event) override
    {
        journal_->push_back("did " + hex(bytesOf(event->data())));
        lastSource = source;
    }

    std::shared_ptr<VelmorRemoteSource> lastSource;
    std::function<void(const std::shared_ptr<VelmorEvent>&)> onWill;

private:
    std::shared_ptr<Journal> journal_;
    bool will_;
    bool did_;
};

// Records the names of the notifications it observes, with their objects.
class NotificationRecorder {
public:
    explicit NotificationRecorder(const std::vector<std::string_view>& names)
    {
        for (auto name : names) {
            VelmorNotificationCenter::defaultCenter().addObserver(this, std::string(name),
                                                                  [this](const VelmorNotification& notification) {
                                                                      received.push_back(notification);
                                                                      if (onNotification)
                                                                          onNotification(notification);
                                                                  });
        }
    }
    ~NotificationRecorder() { VelmorNotificationCenter::defaultCenter().removeObserver(this); }
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto& notification : received)
            result.push_back(notification.name);
        return result;
    }

    std::vector<VelmorNotification> received;
    std::function<void(const VelmorNotification&)> onNotification;
};

// The manager notifications of source discovery.
inline const std::vector<std::string_view> kSourceNotifications = {
    VelmorManager_SourcesWillChangeNotification,    VelmorManager_DidAddSourceNotification,
    VelmorManager_WillRemoveSourceNotification,     VelmorManager_DidRemoveSourceNotification,
    VelmorManager_SourcesDidChangeNotification,     VelmorManager_SourcePropertyChangedNotification,
};

// Attributes that ask only for what is given: every other field is a wildcard.
inline std::shared_ptr<VelmorAttributes> attributesWith(std::optional<std::string> name,
                                                        std::optional<std::string> manufacturer = std::nullopt,
                                                        std::optional<std::string> model = std::nullopt,
                                                        std::uint64_t index = 0,
                                                        std::optional<std::string> identifier = std::nullopt)
{
    auto attributes = VelmorAttributes::init();
    attributes->setName(name);
    attributes->setManufacturer(manufacturer);
    attributes->setModel(model);
    attributes->setIndex(index);
    attributes->setIdentifier(identifier);
    return attributes;
}

inline constexpr std::string_view kIdentifierProperty = "com_brightmarrow_Velmor_EndpointIdentifier";

// A running manager with one device "Keys" (Acme / K1) whose source the application has found.
class ReceiveFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        device = service().createSimpleDevice("Keys", "Acme", "K1", true, false);
        manager = VelmorManager::sharedManager();
        ASSERT_NE(manager, nullptr);
        settle();
        ASSERT_EQ(manager->sources().size(), 1u);
        source = manager->sourceWithAttributes(attributesWith("Keys", "Acme", "K1"));
        ASSERT_NE(source, nullptr);
    }
    void TearDown() override
    {
        if (manager)
            manager->setDelegate(nullptr);
    }

    std::shared_ptr<RecordingConsumer> consumer(const std::string& name)
    {
        return std::make_shared<RecordingConsumer>(name, journal);
    }
    void inject(const Bytes& bytes) { ASSERT_EQ(service().injectBytes(device.source, bytes, 1000), VelmorPlatform::noErr); }
    void injectList(const std::vector<VelmorTest::PlatformPacket>& packets)
    {
        const Bytes image = VelmorTest::packetListImage(packets);
        ASSERT_EQ(service().injectPacketList(device.source, image), VelmorPlatform::noErr);
    }
    bool connected() const
    {
        const auto& list = manager->inputPort()->mutableSources();
        return std::find(list.begin(), list.end(), source) != list.end();
    }

    Service::SimpleDevice device;
    std::shared_ptr<VelmorManager> manager;
    std::shared_ptr<VelmorRemoteSource> source;
    std::shared_ptr<Journal> journal = std::make_shared<Journal>();
};

} // namespace VelmorReceiveTest

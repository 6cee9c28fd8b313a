#pragma once

// Helpers of the sending and output discovery tests: a second client of the MIDI service that reads a
// source through the boundary calls alone, a recorder of notifications, and the serving of the main
// queue until the service is quiet.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorFailure.h"
#include "VelmorHostClock.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorMIDIServices.h"
#include "VelmorNotificationCenter.h"

namespace VelmorSendTest {

inline VelmorPlatform::VelmorInProcessMIDIService& service()
{
    return *VelmorPlatform::VelmorInProcessMIDIService::sharedService();
}

// Lets every callback the service has queued run, then every item they posted to the main queue.
inline void settle()
{
    for (int round = 0; round < 3; ++round) {
        service().waitUntilIdle();
        VelmorMainQueue::mainQueue().runPending();
    }
}

// Failure lines while alive, each as "[File.cpp] message", without date, time and line number.
class CapturedLines {
public:
    CapturedLines()
    {
        VelmorSetLineSink([this](const std::string& line) {
            const auto open = line.find(" [");
            const auto colon = line.find(':', open);
            const auto close = line.find("] ", colon);
            std::string message = line.substr(close + 2);
            if (!message.empty() && message.back() == '\n')
                message.pop_back();
            std::lock_guard lock(mutex_);
            lines_.push_back(line.substr(open + 1, colon - open - 1) + "] " + message);
        });
    }
    ~CapturedLines() { VelmorSetLineSink(nullptr); }
    CapturedLines(const CapturedLines&) = delete;
    CapturedLines& operator=(const CapturedLines&) = delete;

    std::vector<std::string> lines() const
    {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// One platform packet of a list image.
struct PlatformPacket {
    std::uint64_t timeStamp;
    std::vector<std::uint8_t> bytes;
};

// Reads a platform packet list image back into its packets; false when the image is malformed or its
// count disagrees with its bytes.
inline bool readPacketListImage(const std::uint8_t* image, std::size_t size, std::vector<PlatformPacket>& packets)
{
    packets.clear();
    if (size < 4)
        return false;
    auto read = [&](std::size_t at, int bytes) {
        std::uint64_t value = 0;
        for (int i = bytes - 1; i >= 0; --i)
            value = (value << 8) | image[at + i];
        return value;
    };
    const std::uint64_t count = read(0, 4);
    std::size_t position = 4;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (position + 10 > size)
            return false;
        const std::uint64_t timeStamp = read(position, 8);
        const std::size_t length = read(position + 8, 2);
        if (position + 10 + length > size)
            return false;
        packets.push_back({timeStamp, std::vector<std::uint8_t>(image + position + 10, image + position + 10 + length)});
        position += 10 + length;
    }
    return position == size;
}

// One packet as a reader saw it.
struct ReadPacket {
    std::uint64_t timeStamp;
    std::vector<std::uint8_t> bytes;
    std::uint64_t readHostTime;  // when the read procedure ran
};

// Another program's view of a source: its own client and input port, connected with the boundary calls.
class SourceReader {
public:
    explicit SourceReader(VelmorPlatform::MIDIEndpointRef source, std::string_view name = "Reader")
    {
        using namespace VelmorPlatform;
        EXPECT_EQ(MIDIClientCreate(name, &SourceReader::notify, nullptr, &client_), noErr);
        EXPECT_EQ(MIDIInputPortCreate(client_, "Reader Input", &SourceReader::read, this, &port_), noErr);
        EXPECT_EQ(MIDIPortConnectSource(port_, source, nullptr), noErr);
    }
    ~SourceReader()
    {
        // After the client is gone no read procedure of it runs: `this` may go.
        VelmorPlatform::MIDIClientDispose(client_);
    }
    SourceReader(const SourceReader&) = delete;
    SourceReader& operator=(const SourceReader&) = delete;

    std::vector<ReadPacket> packets() const
    {
        std::lock_guard lock(mutex_);
        return packets_;
    }
    std::vector<std::uint8_t> bytes() const
    {
        std::lock_guard lock(mutex_);
        std::vector<std::uint8_t> all;
        for (const auto& packet : packets_)
            all.insert(all.end(), packet.bytes.begin(), packet.bytes.end());
        return all;
    }
    std::size_t listCount() const
    {
        std::lock_guard lock(mutex_);
        return lists_;
    }
    bool malformedListSeen() const
    {
        std::lock_guard lock(mutex_);
        return malformed_;
    }
    // Waits until `count` bytes have arrived in all.
    bool waitForBytes(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return byteCount_ >= count; });
    }

private:
    static void notify(const VelmorPlatform::MIDINotification*, void*) {}
    static void read(const VelmorPlatform::MIDIPacketList* list, void* refCon, void*)
    {
        const std::uint64_t now = AudioGetCurrentHostTime();
        auto* reader = static_cast<SourceReader*>(refCon);
        const auto* image = reinterpret_cast<const std::uint8_t*>(list);
        std::vector<PlatformPacket> packets;
        const bool wellFormed = readPacketListImage(image, VelmorPlatform::MIDIPacketListByteSize(list), packets);
        std::lock_guard lock(reader->mutex_);
        ++reader->lists_;
        if (!wellFormed || packets.empty())
            reader->malformed_ = true;
        for (auto& packet : packets) {
            reader->byteCount_ += packet.bytes.size();
            reader->packets_.push_back({packet.timeStamp, std::move(packet.bytes), now});
        }
        reader->arrived_.notify_all();
    }

    VelmorPlatform::MIDIClientRef client_ = 0;
    VelmorPlatform::MIDIPortRef port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<ReadPacket> packets_;
    std::size_t byteCount_ = 0;
    std::size_t lists_ = 0;
    bool malformed_ = false;
};

// Records the names (and objects) of notifications posted under the given names, on the posting thread.
class NotificationRecorder {
public:
    explicit NotificationRecorder(std::vector<std::string_view> names)
    {
        for (auto name : names)
            VelmorNotificationCenter::defaultCenter().addObserver(
                this, std::string(name), [this](const VelmorNotification& notification) { seen_.push_back(notification); });
    }
    ~NotificationRecorder() { VelmorNotificationCenter::defaultCenter().removeObserver(this); }
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    const std::vector<VelmorNotification>& seen() const { return seen_; }
    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto& notification : seen_)
            result.push_back(notification.name);
        return result;
    }
    void clear() { seen_.clear(); }

private:
    std::vector<VelmorNotification> seen_;
};

// The platform time stamp that an offset of `milliseconds` after `hostTime` gives.
inline std::uint64_t hostTimeAfter(std::uint64_t hostTime, std::uint64_t milliseconds)
{
    return AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(hostTime) + milliseconds * 1000000);
}

} // namespace VelmorSendTest

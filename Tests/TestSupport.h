#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VelmorFailure.h"
#include "VelmorMIDIServices.h"

namespace VelmorTest {

// One platform packet of a list image under construction.
struct PlatformPacket {
    std::uint64_t timeStamp;
    std::vector<std::uint8_t> bytes;
};

inline void appendLittleEndian(std::vector<std::uint8_t>& image, std::uint64_t value, int size)
{
    for (int i = 0; i < size; ++i)
        image.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// The image of a platform packet list: count, then each packet as time stamp, length and bytes.
inline std::vector<std::uint8_t> packetListImage(const std::vector<PlatformPacket>& packets)
{
    std::vector<std::uint8_t> image;
    appendLittleEndian(image, packets.size(), 4);
    for (const auto& packet : packets) {
        appendLittleEndian(image, packet.timeStamp, 8);
        appendLittleEndian(image, packet.bytes.size(), 2);
        image.insert(image.end(), packet.bytes.begin(), packet.bytes.end());
    }
    return image;
}

// The image of one platform packet.
inline std::vector<std::uint8_t> packetImage(const PlatformPacket& packet)
{
    std::vector<std::uint8_t> image;
    appendLittleEndian(image, packet.timeStamp, 8);
    appendLittleEndian(image, packet.bytes.size(), 2);
    image.insert(image.end(), packet.bytes.begin(), packet.bytes.end());
    return image;
}

inline const VelmorPlatform::MIDIPacketList* asPacketList(const std::vector<std::uint8_t>& image)
{
    return reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data());
}

inline const VelmorPlatform::MIDIPacket* asPacket(const std::vector<std::uint8_t>& image)
{
    return reinterpret_cast<const VelmorPlatform::MIDIPacket*>(image.data());
}

// Reads a platform packet list image back into its packets; empty when the image is malformed.
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

// Collects failure lines while alive and restores standard error afterwards.
class CapturedLines {
public:
    CapturedLines()
    {
        VelmorSetLineSink([this](const std::string& line) { lines_.push_back(line); });
    }
    ~CapturedLines() { VelmorSetLineSink(nullptr); }
    CapturedLines(const CapturedLines&) = delete;
    CapturedLines& operator=(const CapturedLines&) = delete;

    const std::vector<std::string>& lines() const { return lines_; }
    // Each line as "[File.cpp] message", without date, time and line number.
    std::vector<std::string> messages() const
    {
        std::vector<std::string> result;
        for (const auto& line : lines_) {
            const auto open = line.find(" [");
            const auto colon = line.find(':', open);
            const auto close = line.find("] ", colon);
            if (open == std::string::npos || colon == std::string::npos || close == std::string::npos) {
                result.push_back(line);
                continue;
            }
            std::string message = line.substr(close + 2);
            if (!message.empty() && message.back() == '\n')
                message.pop_back();
            result.push_back(line.substr(open + 1, colon - open - 1) + "] " + message);
        }
        return result;
    }

private:
    std::vector<std::string> lines_;
};

} // namespace VelmorTest

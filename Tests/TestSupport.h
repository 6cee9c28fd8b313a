#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VelmorFailure.h"
#include "VelmorMIDIServices.h"

namespace VelmorTest {

using Bytes = std::vector<std::uint8_t>;

// One platform packet: its time stamp and bytes.
struct PlatformPacket {
    std::uint64_t timeStamp;
    Bytes bytes;
};

inline void appendPacketImage(Bytes& image, const PlatformPacket& packet)
{
    for (int i = 0; i < 8; ++i)
        image.push_back(static_cast<std::uint8_t>(packet.timeStamp >> (8 * i)));
    image.push_back(static_cast<std::uint8_t>(packet.bytes.size()));
    image.push_back(static_cast<std::uint8_t>(packet.bytes.size() >> 8));
    image.insert(image.end(), packet.bytes.begin(), packet.bytes.end());
}

// The image of a platform packet list: count, then each packet as time stamp, length and bytes.
inline Bytes packetListImage(const std::vector<PlatformPacket>& packets)
{
    Bytes image;
    for (int i = 0; i < 4; ++i)
        image.push_back(static_cast<std::uint8_t>(packets.size() >> (8 * i)));
    for (const auto& packet : packets)
        appendPacketImage(image, packet);
    return image;
}

inline Bytes packetImage(const PlatformPacket& packet)
{
    Bytes image;
    appendPacketImage(image, packet);
    return image;
}

inline const VelmorPlatform::MIDIPacketList* asPacketList(const Bytes& image)
{
    return reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data());
}

inline const VelmorPlatform::MIDIPacket* asPacket(const Bytes& image)
{
    return reinterpret_cast<const VelmorPlatform::MIDIPacket*>(image.data());
}

// Collects lines while alive as "[File.cpp] message", without date, time and line number.
class CapturedLines {
public:
    CapturedLines()
    {
        VelmorSetLineSink([this](const std::string& line) {
            const auto open = line.find(" [");
            const auto colon = line.find(':', open);
            const auto close = line.find("] ", colon);
            lines_.push_back(line.substr(open + 1, colon - open - 1) + line.substr(close, line.size() - close - 1));
        });
    }
    ~CapturedLines() { VelmorSetLineSink(nullptr); }
    CapturedLines(const CapturedLines&) = delete;
    CapturedLines& operator=(const CapturedLines&) = delete;
    const std::vector<std::string>& lines() const { return lines_; }
    const std::vector<std::string>& messages() const { return lines_; }

private:
    std::vector<std::string> lines_;
};

} // namespace VelmorTest

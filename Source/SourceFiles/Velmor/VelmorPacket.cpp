#include "VelmorPacket.h"

#include <algorithm>
#include <cstring>

#include "VelmorFailure.h"
#include "VelmorHostClock.h"
#include "VelmorRemoteSource.h"

namespace {

// Platform packet: time stamp (8), length (2), data. Packet list: count (4), packets back to back.
constexpr std::size_t packetHeaderSize = 10;
constexpr std::size_t listHeaderSize = 4;

std::uint64_t readLittleEndian(const std::uint8_t* bytes, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i)
        value = (value << 8) | bytes[i - 1];
    return value;
}

std::uint8_t* writeLittleEndian(std::uint8_t* out, std::uint64_t value, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i)
        *out++ = static_cast<std::uint8_t>(value >> (8 * i));
    return out;
}

// The position of the first 0xF7 in [from, end), or end.
const std::uint8_t* findEndOfExclusive(const std::uint8_t* from, const std::uint8_t* end)
{
    if (from >= end)
        return end;
    const void* found = std::memchr(from, 0xF7, static_cast<std::size_t>(end - from));
    return found ? static_cast<const std::uint8_t*>(found) : end;
}

// The first byte at or behind `from` with its top bit set, or end. Data bytes are one-byte messages to
// `partial`, and the tails of long exclusive messages are all data bytes: skip them a word at a time.
const std::uint8_t* findStatusByte(const std::uint8_t* from, const std::uint8_t* end)
{
    constexpr std::uint64_t topBits = 0x8080808080808080u;
    while (end - from >= 8) {
        std::uint64_t word;
        std::memcpy(&word, from, sizeof word);
        if (word & topBits)
            break;
        from += 8;
    }
    while (from < end && *from < 0x80)
        ++from;
    return from;
}

// Message lengths for cutting: channel messages by their high nibble; everything else runs up to and
// including the first 0xF7 at or behind its first byte.
std::size_t cutLength(const std::uint8_t* message, const std::uint8_t* end)
{
    switch (message[0] >> 4) {
    case 0x8: case 0x9: case 0xA: case 0xB: case 0xE:
        return 3;
    case 0xC: case 0xD:
        return 2;
    default:
        return static_cast<std::size_t>(std::min(findEndOfExclusive(message, end) + 1, end) - message);
    }
}

// Message lengths for `partial`, for every first byte but 0xF0 (the walk skips runs of data bytes itself).
std::size_t walkLength(std::uint8_t first)
{
    if (first < 0x80)
        return 1;
    switch (first >> 4) {
    case 0x8: case 0x9: case 0xA: case 0xB: case 0xE:
        return 3;
    case 0xC: case 0xD:
        return 2;
    default:
        break;
    }
    switch (first) {
    case 0xF1: case 0xF3:
        return 2;
    case 0xF2:
        return 3;
    default:
        return 1;
    }
}

// Objects are made in one allocation with their control block; the constructor stays protected.
struct MadePacket final : VelmorPacket {};

} // namespace

std::vector<std::shared_ptr<VelmorPacket>> VelmorPacket::packetsWithMIDIPacket(const VelmorPlatform::MIDIPacket* packet)
{
    std::vector<std::shared_ptr<VelmorPacket>> packets;
    if (!packet)
        return packets;
    const auto* image = reinterpret_cast<const std::uint8_t*>(packet);
    const std::uint64_t timeStamp = readLittleEndian(image, 8);
    const std::size_t length = static_cast<std::size_t>(readLittleEndian(image + 8, 2));
    const std::uint8_t* position = image + packetHeaderSize;
    const std::uint8_t* const end = position + length;
    while (position < end) {
        const std::size_t messageLength = cutLengthAt(position, end);
        packets.push_back(initWithTimeOffsetTimeStampData(0, timeStamp, VelmorData(position, messageLength)));
        position += messageLength;
    }
    return packets;
}

std::size_t VelmorPacket::cutLengthAt(const std::uint8_t* position, const std::uint8_t* end)
{
    // A message cut short by the end of the platform packet becomes a short packet.
    return std::min(cutLength(position, end), static_cast<std::size_t>(end - position));
}

std::shared_ptr<VelmorPacket> VelmorPacket::initWithTimeOffsetTimeStampData(std::uint64_t timeOffset, std::uint64_t timeStamp,
                                                                           const VelmorData& data)
{
    std::shared_ptr<VelmorPacket> packet = std::make_shared<MadePacket>();
    if (!packet->constructWithTimeOffsetTimeStampData(timeOffset, timeStamp, data))
        return nullptr;
    return packet;
}

std::shared_ptr<VelmorPacket> VelmorPacket::initWithTimeStampData(std::uint64_t timeStamp, const VelmorData& data)
{
    return initWithTimeOffsetTimeStampData(0, timeStamp, data);
}

std::shared_ptr<VelmorPacket> VelmorPacket::initWithTimeOffsetData(std::uint64_t timeOffset, const VelmorData& data)
{
    return initWithTimeOffsetTimeStampData(timeOffset, 0, data);
}

std::shared_ptr<VelmorPacket> VelmorPacket::init()
{
    return initWithTimeOffsetTimeStampData(0, 0, VelmorData());
}

bool VelmorPacket::constructWithTimeOffsetTimeStampData(std::uint64_t timeOffset, std::uint64_t timeStamp,
                                                        const VelmorData& data)
{
    if (data.isNull())
        return false;
    data_ = data;
    timeOffset_ = timeOffset;
    timeStamp_ = timeStamp;
    walk();
    return true;
}

void VelmorPacket::setData(const VelmorData& data)
{
    data_ = data;
    scan_ = Scan {};
    walk();
}

void VelmorPacket::walk()
{
    const std::uint8_t* const bytes = data_.bytes();
    const std::size_t length = data_.length();
    std::size_t start = scan_.messageStart;
    std::size_t scanned = scan_.scanned;
    while (start < length) {
        const std::uint8_t first = bytes[start];
        if (first < 0x80) {
            start = static_cast<std::size_t>(findStatusByte(bytes + start, bytes + length) - bytes);
            continue;
        }
        if (first == 0xF0) {
            // Bytes an earlier walk has searched are not searched again.
            const std::uint8_t* from = bytes + std::max(start + 1, scanned);
            const std::uint8_t* found = findEndOfExclusive(from, bytes + length);
            if (found == bytes + length) {
                scanned = length;
                break;
            }
            start = static_cast<std::size_t>(found - bytes) + 1;
            continue;
        }
        const std::size_t messageLength = walkLength(first);
        if (messageLength > length - start)
            break;
        start += messageLength;
    }
    scan_ = Scan {start, scanned};
}

std::shared_ptr<VelmorPacket> VelmorPacket::packetByAppendingPacket(const std::shared_ptr<VelmorPacket>& packet) const
{
    if (!packet || data_.isNull())
        return nullptr;
    std::shared_ptr<VelmorPacket> joined = std::make_shared<MadePacket>();
    // The joined bytes begin with the receiver's, so its walk goes on from where the receiver's stands.
    joined->scan_ = scan_;
    if (!joined->constructWithTimeOffsetTimeStampData(timeOffset_, std::max(timeStamp_, packet->timeStamp_),
                                                      data_.byAppending(packet->data_)))
        return nullptr;
    return joined;
}

bool VelmorPacket::endsInExclusiveMessage() const
{
    return partial() && data_[scan_.messageStart] == 0xF0;
}

void VelmorPacket::appendInPlace(const std::uint8_t* bytes, std::size_t length, std::uint64_t timeStamp,
                                 std::size_t noEndBefore)
{
    if (endsInExclusiveMessage())
        scan_.scanned = std::max(scan_.scanned, noEndBefore);
    data_.append(bytes, length);
    timeStamp_ = std::max(timeStamp_, timeStamp);
    source_ = nullptr;
    walk();
}

namespace {

std::uint64_t imageTimeStamp(std::uint64_t timeOffset, std::uint64_t startTime)
{
    return AudioConvertNanosToHostTime(AudioConvertHostTimeToNanos(startTime) + timeOffset * 1000000u);
}

std::uint64_t platformPacketCountFor(std::size_t length)
{
    return (length + VelmorPacket::maximumPlatformPacketLength - 1) / VelmorPacket::maximumPlatformPacketLength;
}

std::uint8_t* writePlatformPacketsOf(std::uint8_t* out, std::uint64_t timeStamp, const std::uint8_t* bytes,
                                     std::size_t remaining)
{
    while (remaining > 0) {
        const std::size_t length = std::min(remaining, VelmorPacket::maximumPlatformPacketLength);
        out = writeLittleEndian(out, timeStamp, 8);
        out = writeLittleEndian(out, length, 2);
        std::memcpy(out, bytes, length);
        out += length;
        bytes += length;
        remaining -= length;
    }
    return out;
}

} // namespace

std::uint64_t VelmorPacket::imageTimeStampWithStartTime(std::uint64_t startTime) const
{
    return imageTimeStamp(timeOffset_, startTime);
}

std::uint64_t VelmorPacket::platformPacketCount() const
{
    return platformPacketCountFor(data_.length());
}

std::size_t VelmorPacket::platformPacketsByteSize() const
{
    return data_.length() + packetHeaderSize * platformPacketCount();
}

std::size_t VelmorPacket::listImageSize(std::size_t length)
{
    return listHeaderSize + length + packetHeaderSize * platformPacketCountFor(length);
}

void VelmorPacket::writeListImage(std::uint8_t* out, std::uint64_t timeOffset, const VelmorData& data,
                                  std::uint64_t startTime)
{
    out = writeLittleEndian(out, platformPacketCountFor(data.length()), listHeaderSize);
    writePlatformPacketsOf(out, imageTimeStamp(timeOffset, startTime), data.bytes(), data.length());
}

std::uint8_t* VelmorPacket::writePlatformPackets(std::uint8_t* out, std::uint64_t startTime) const
{
    return writePlatformPacketsOf(out, imageTimeStampWithStartTime(startTime), data_.bytes(), data_.length());
}

VelmorData VelmorPacket::getMidiPacketDataWithStartTime(std::uint64_t startTime) const
{
    if (data_.length() == 0)
        return VelmorData::empty();
    if (data_.length() > maximumPlatformPacketLength) {
        VELMOR_FAILED("length <= 65535");
        return VelmorData::empty();
    }
    return VelmorData::make(platformPacketsByteSize(), [&](std::uint8_t* out) { writePlatformPackets(out, startTime); });
}

VelmorData VelmorPacket::getMidiPacketData() const
{
    return getMidiPacketDataWithStartTime(AudioGetCurrentHostTime());
}

VelmorData VelmorPacket::getMIDIPacketListDataWithStartTime(std::uint64_t startTime) const
{
    if (data_.length() == 0)
        return VelmorData::empty();
    return VelmorData::make(listHeaderSize + platformPacketsByteSize(), [&](std::uint8_t* out) {
        out = writeLittleEndian(out, platformPacketCount(), listHeaderSize);
        writePlatformPackets(out, startTime);
    });
}

VelmorData VelmorPacket::getMIDIPacketListData() const
{
    return getMIDIPacketListDataWithStartTime(AudioGetCurrentHostTime());
}

std::string VelmorPacket::description() const
{
    return std::to_string(timeStamp_) + " (" + std::to_string(timeOffset_) + " ms) " +
           (data_.isNull() ? std::string("<>") : data_.description());
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VelmorData.h"
#include "VelmorMIDIServices.h"
#include "VelmorRootObject.h"

class VelmorRemoteSource;

// One run of MIDI bytes, as a rule one message, with the two time values and the source it came from.
//
// Incoming platform packets are cut into one packet per message (packetsWithMIDIPacket); a list joins
// the pieces of a message that arrived split (partial, packetByAppendingPacket). Outgoing, a packet
// renders the byte image of a platform packet or of a platform packet list that holds it alone.
//
// Images and the 16-bit length field: a platform packet holds at most 65535 data bytes.
// - getMidiPacketDataWithStartTime of a longer packet is an empty buffer, and writes the line
//   "length <= 65535 failed": a single platform packet cannot carry it.
// - The list images (getMIDIPacketListDataWithStartTime here and in VelmorPacketList) split a longer
//   packet into consecutive platform packets of at most 65535 bytes, all with the same time stamp, and
//   count each of them, so a long exclusive message goes out whole and a reader joins it again.
// - A packet without bytes renders to an empty packet image and an empty list image; inside the image
//   of a VelmorPacketList it contributes nothing, and is not counted.
class VelmorPacket : public VelmorRootObject {
public:
    // The most data bytes one platform packet can carry.
    static constexpr std::size_t maximumPlatformPacketLength = 0xFFFF;

    // Cuts a platform packet into one packet per message, in the order of their bytes. Never fails:
    // a null pointer or a packet of no bytes gives an empty array.
    static std::vector<std::shared_ptr<VelmorPacket>> packetsWithMIDIPacket(const VelmorPlatform::MIDIPacket* packet);
    // How many bytes cutting takes for the message at `position`, the bytes ending at `end`.
    static std::size_t cutLengthAt(const std::uint8_t* position, const std::uint8_t* end);

    // Null when `data` is null; an empty buffer gives a packet of length 0.
    static std::shared_ptr<VelmorPacket> initWithTimeOffsetTimeStampData(std::uint64_t timeOffset, std::uint64_t timeStamp,
                                                                        const VelmorData& data);
    static std::shared_ptr<VelmorPacket> initWithTimeStampData(std::uint64_t timeStamp, const VelmorData& data);
    static std::shared_ptr<VelmorPacket> initWithTimeOffsetData(std::uint64_t timeOffset, const VelmorData& data);
    // Has no data, and so is always null.
    static std::shared_ptr<VelmorPacket> init();

    const char* className() const override { return "VelmorPacket"; }
    // "timeStamp (timeOffset ms) <bytes>", with "<>" for null data.
    std::string description() const override;

    const VelmorData& data() const { return data_; }
    void setData(const VelmorData& data);
    std::uint64_t timeOffset() const { return timeOffset_; }
    void setTimeOffset(std::uint64_t timeOffset) { timeOffset_ = timeOffset; }
    std::uint64_t timeStamp() const { return timeStamp_; }
    void setTimeStamp(std::uint64_t timeStamp) { timeStamp_ = timeStamp; }
    const std::shared_ptr<VelmorRemoteSource>& source() const { return source_; }
    void setSource(std::shared_ptr<VelmorRemoteSource> source) { source_ = std::move(source); }

    // The number of bytes of `data`, 0 when it is null.
    std::uint64_t length() const { return data_.length(); }
    // True when the data ends inside a message.
    bool partial() const { return scan_.messageStart < data_.length(); }

    // A new packet: the receiver's offset, the greater time stamp, the receiver's bytes followed by the
    // argument's, no source. Null without an argument or when the receiver's data is null.
    std::shared_ptr<VelmorPacket> packetByAppendingPacket(const std::shared_ptr<VelmorPacket>& packet) const;

    // The image of one platform packet, its time stamp `startTime` moved on by timeOffset milliseconds.
    VelmorData getMidiPacketDataWithStartTime(std::uint64_t startTime) const;
    VelmorData getMidiPacketData() const;
    // The image of a platform packet list that holds this packet alone.
    VelmorData getMIDIPacketListDataWithStartTime(std::uint64_t startTime) const;
    VelmorData getMIDIPacketListData() const;
    // The same list image for a packet not made: of a packet of `timeOffset` and `data` (neither null
    // nor empty), written at `out`, which holds listImageSize(data.length()) bytes. Senders render into
    // a buffer of their own this way, without an allocation.
    static std::size_t listImageSize(std::size_t length);
    static void writeListImage(std::uint8_t* out, std::uint64_t timeOffset, const VelmorData& data, std::uint64_t startTime);

protected:
    VelmorPacket() = default;
    bool constructWithTimeOffsetTimeStampData(std::uint64_t timeOffset, std::uint64_t timeStamp, const VelmorData& data);

private:
    friend class VelmorPacketList;

    // The platform time stamp of an image made at `startTime`.
    std::uint64_t imageTimeStampWithStartTime(std::uint64_t startTime) const;
    // How many platform packets, and how many image bytes, this packet takes in a list image.
    std::uint64_t platformPacketCount() const;
    std::size_t platformPacketsByteSize() const;
    // Writes those platform packets at `out` and returns the position behind them.
    std::uint8_t* writePlatformPackets(std::uint8_t* out, std::uint64_t startTime) const;
    // What packetByAppendingPacket gives for a piece of time stamp `timeStamp`, made in this packet
    // itself: the piece's bytes go behind this packet's in its own buffer, which grows geometrically.
    // Only for a packet that nobody else can see yet. When the packet ends in an exclusive message, the
    // caller may vouch that the joined bytes before `noEndBefore` hold no 0xF7, which spares the walk a
    // search.
    void appendInPlace(const std::uint8_t* bytes, std::size_t length, std::uint64_t timeStamp, std::size_t noEndBefore = 0);
    // True while the data ends inside an exclusive message, which only a 0xF7 can end.
    bool endsInExclusiveMessage() const;

    // Where the message-by-message walk of `partial` stands at the end of the data. A joined packet
    // starts from the receiver's state and walks only the appended bytes, which keeps the joining of a
    // long exclusive message linear.
    struct Scan {
        // Start of the message the walk stands in; equal to the data's length when it ends between messages.
        std::size_t messageStart = 0;
        // For an exclusive message at messageStart: the bytes before this position hold no 0xF7.
        std::size_t scanned = 0;
    };
    void walk();

    VelmorData data_;
    std::uint64_t timeOffset_ = 0;
    std::uint64_t timeStamp_ = 0;
    std::shared_ptr<VelmorRemoteSource> source_;
    Scan scan_;
};

#include "VelmorPacketList.h"

#include <algorithm>
#include <cstring>

#include "VelmorValue.h"

namespace {

// Objects are made in one allocation with their control block; the constructor stays protected.
struct MadePacketList final : VelmorPacketList {};

// One message cut from a platform packet, with that packet's time stamp.
struct Piece {
    const std::uint8_t* bytes = nullptr;
    std::size_t length = 0;
    std::uint64_t timeStamp = 0;
};

bool containsEndOfExclusive(const Piece& piece)
{
    // Only a channel message (at most three bytes) can hold a 0xF7 before its end: cutting ends every
    // other message at its first 0xF7.
    if (piece.length <= 3)
        return std::memchr(piece.bytes, 0xF7, piece.length) != nullptr;
    return piece.bytes[piece.length - 1] == 0xF7;
}

// Walks a platform packet list image piece by piece, in the order of the bytes.
class PieceReader {
public:
    explicit PieceReader(const std::uint8_t* image) : next_(image + 4)
    {
        std::memcpy(&remaining_, image, sizeof remaining_);
    }

    // Platform packets not yet loaded.
    std::uint32_t remaining() const { return remaining_; }

    bool next(Piece& piece)
    {
        if (!load())
            return false;
        piece.bytes = position_;
        piece.length = VelmorPacket::cutLengthAt(position_, end_);
        piece.timeStamp = timeStamp_;
        position_ += piece.length;
        return true;
    }

private:
    // Moves on to the next platform packet that has bytes left; false at the end of the list.
    bool load()
    {
        while (position_ == end_) {
            if (remaining_ == 0)
                return false;
            --remaining_;
            timeStamp_ = 0;
            for (std::size_t b = 8; b > 0; --b)
                timeStamp_ = (timeStamp_ << 8) | next_[b - 1];
            const std::size_t length = std::size_t(next_[8]) | std::size_t(next_[9]) << 8;
            position_ = next_ + 10;
            end_ = position_ + length;
            next_ = end_;
        }
        return true;
    }

    const std::uint8_t* next_;
    std::uint32_t remaining_ = 0;
    const std::uint8_t* position_ = nullptr;
    const std::uint8_t* end_ = nullptr;
    std::uint64_t timeStamp_ = 0;
};

} // namespace

std::shared_ptr<VelmorPacketList> VelmorPacketList::packetListWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList)
{
    return initWithMIDIPacketList(packetList);
}

std::shared_ptr<VelmorPacketList> VelmorPacketList::initWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList)
{
    std::shared_ptr<VelmorPacketList> list = initWithPackets(Packets {});
    if (!packetList)
        return list;
    // Cutting every platform packet (packetsWithMIDIPacket) and appending the pieces in one pass, done
    // piece by piece. The list is not handed out yet and every packet in it was made here, so a piece
    // that joins the partial last packet can grow that packet in place: nobody can tell it from the new
    // joined packet.
    Packets& packets = list->mutablePackets_;
    PieceReader reader(reinterpret_cast<const std::uint8_t*>(packetList));
    // Commonly one packet per platform packet; capped, since a message split over many joins into one.
    packets.reserve(std::min<std::size_t>(reader.remaining(), 64));
    Piece piece;
    while (reader.next(piece)) {
        const std::shared_ptr<VelmorPacket> last = packets.empty() ? nullptr : packets.back();
        if (!last || !last->partial()) {
            packets.push_back(VelmorPacket::initWithTimeOffsetTimeStampData(0, piece.timeStamp, VelmorData(piece.bytes, piece.length)));
            continue;
        }
        // The piece goes behind the packet's bytes in its own buffer. An open exclusive message takes
        // every piece up to the first that brings a 0xF7: cutting has just searched the piece, and it is
        // copied while it is still in the cache, so a long message is read once.
        const std::size_t before = last->length();
        const bool exclusive = last->endsInExclusiveMessage();
        last->appendInPlace(piece.bytes, piece.length, piece.timeStamp,
                            exclusive && !containsEndOfExclusive(piece) ? before + piece.length : 0);
    }
    return list;
}

std::shared_ptr<VelmorPacketList> VelmorPacketList::initWithPackets(std::optional<Packets> packets)
{
    std::shared_ptr<VelmorPacketList> list = std::make_shared<MadePacketList>();
    if (!list->constructWithPackets(packets))
        return nullptr;
    return list;
}

std::shared_ptr<VelmorPacketList> VelmorPacketList::init()
{
    return initWithPackets(Packets {});
}

bool VelmorPacketList::constructWithPackets(const std::optional<Packets>& packets)
{
    if (!packets)
        return false;
    mutablePackets_.clear();
    appendPackets(*packets);
    return true;
}

void VelmorPacketList::appendPackets(const std::optional<Packets>& packets)
{
    if (packets)
        appendPackets(*packets);
}

void VelmorPacketList::appendPackets(const Packets& packets)
{
    if (&packets == &mutablePackets_) {
        appendPackets(Packets(packets));
        return;
    }
    mutablePackets_.reserve(mutablePackets_.size() + packets.size());
    std::shared_ptr<VelmorPacket> last = mutablePackets_.empty() ? nullptr : mutablePackets_.back();
    for (std::shared_ptr<VelmorPacket> packet : packets) {
        if (!packet)
            continue;
        if (last && last->partial()) {
            // A partial packet has bytes, so the join always yields a packet.
            packet = last->packetByAppendingPacket(packet);
            mutablePackets_.pop_back();
        }
        mutablePackets_.push_back(packet);
        last = std::move(packet);
    }
}

void VelmorPacketList::appendPacketList(const std::shared_ptr<VelmorPacketList>& packetList)
{
    if (packetList)
        appendPackets(packetList->packets());
}

VelmorData VelmorPacketList::getMIDIPacketListDataWithStartTime(std::uint64_t startTime) const
{
    std::uint64_t count = 0;
    std::size_t size = 4;
    for (const auto& packet : mutablePackets_) {
        if (!packet)
            continue;
        count += packet->platformPacketCount();
        size += packet->platformPacketsByteSize();
    }
    return VelmorData::make(size, [&](std::uint8_t* out) {
        for (std::size_t i = 0; i < 4; ++i)
            *out++ = static_cast<std::uint8_t>(count >> (8 * i));
        for (const auto& packet : mutablePackets_)
            if (packet)
                out = packet->writePlatformPackets(out, startTime);
    });
}

std::string VelmorPacketList::description() const
{
    VelmorArray array;
    array.reserve(mutablePackets_.size());
    for (const auto& packet : mutablePackets_)
        array.emplace_back(std::static_pointer_cast<VelmorRootObject>(packet));
    return "VelmorPacketList: " + VelmorArrayDescription(array);
}

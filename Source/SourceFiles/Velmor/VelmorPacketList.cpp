#include "VelmorPacketList.h"

#include <cstring>

#include "VelmorValue.h"

namespace {

// Objects are made in one allocation with their control block; the constructor stays protected.
struct MadePacketList final : VelmorPacketList {};

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
    Packets& packets = list->mutablePackets_;
    const auto* image = reinterpret_cast<const std::uint8_t*>(packetList);
    std::uint32_t count = 0;
    std::memcpy(&count, image, sizeof count);
    const std::uint8_t* position = image + 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint64_t timeStamp = 0;
        for (std::size_t b = 8; b > 0; --b)
            timeStamp = (timeStamp << 8) | position[b - 1];
        const std::size_t length = std::size_t(position[8]) | std::size_t(position[9]) << 8;
        const std::uint8_t* message = position + 10;
        const std::uint8_t* const end = message + length;
        // Cutting every platform packet (packetsWithMIDIPacket) and appending the pieces in one pass,
        // done piece by piece. The list is not handed out yet and every packet in it was made here, so
        // a piece that joins the partial last packet can grow that packet in place: nobody can tell it
        // from the new joined packet, and a long exclusive message costs no more than its bytes.
        while (message < end) {
            const std::size_t messageLength = VelmorPacket::cutLengthAt(message, end);
            if (!packets.empty() && packets.back()->partial())
                packets.back()->joinInPlace(message, messageLength, timeStamp);
            else
                packets.push_back(VelmorPacket::initWithTimeOffsetTimeStampData(0, timeStamp, VelmorData(message, messageLength)));
            message += messageLength;
        }
        position = end;
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

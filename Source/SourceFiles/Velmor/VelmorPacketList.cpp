#include "VelmorPacketList.h"

#include <cstring>

#include "VelmorValue.h"

std::shared_ptr<VelmorPacketList> VelmorPacketList::packetListWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList)
{
    return initWithMIDIPacketList(packetList);
}

std::shared_ptr<VelmorPacketList> VelmorPacketList::initWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList)
{
    Packets packets;
    if (packetList) {
        const auto* image = reinterpret_cast<const std::uint8_t*>(packetList);
        std::uint32_t count = 0;
        std::memcpy(&count, image, sizeof count);
        const std::uint8_t* position = image + 4;
        for (std::uint32_t i = 0; i < count; ++i) {
            Packets cut = VelmorPacket::packetsWithMIDIPacket(reinterpret_cast<const VelmorPlatform::MIDIPacket*>(position));
            packets.insert(packets.end(), std::make_move_iterator(cut.begin()), std::make_move_iterator(cut.end()));
            const std::size_t length = std::size_t(position[8]) | std::size_t(position[9]) << 8;
            position += 10 + length;
        }
    }
    return initWithPackets(std::move(packets));
}

std::shared_ptr<VelmorPacketList> VelmorPacketList::initWithPackets(std::optional<Packets> packets)
{
    std::shared_ptr<VelmorPacketList> list(new VelmorPacketList());
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

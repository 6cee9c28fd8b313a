#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VelmorData.h"
#include "VelmorMIDIServices.h"
#include "VelmorPacket.h"
#include "VelmorRootObject.h"

// An ordered list of packets. While packets are appended, a packet follows a partial last packet into
// one joined packet, so that a message split over several platform packets of one platform packet list
// becomes one packet again. The state of joining is nothing but the last packet.
class VelmorPacketList : public VelmorRootObject {
public:
    using Packets = std::vector<std::shared_ptr<VelmorPacket>>;

    static std::shared_ptr<VelmorPacketList> packetListWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList);
    // Cuts every platform packet of the list and joins the pieces in one pass. A null pointer gives an
    // empty list.
    static std::shared_ptr<VelmorPacketList> initWithMIDIPacketList(const VelmorPlatform::MIDIPacketList* packetList);
    // Null without an array; otherwise the packets appended as by appendPackets.
    static std::shared_ptr<VelmorPacketList> initWithPackets(std::optional<Packets> packets);
    // An empty list.
    static std::shared_ptr<VelmorPacketList> init();

    const char* className() const override { return "VelmorPacketList"; }
    // "VelmorPacketList: (packet, packet)"
    std::string description() const override;

    const Packets& mutablePackets() const { return mutablePackets_; }
    void setMutablePackets(Packets packets) { mutablePackets_ = std::move(packets); }
    // A copy: later changes of the list don't show in it.
    Packets packets() const { return mutablePackets_; }
    std::uint64_t count() const { return mutablePackets_.size(); }

    // Appends in order, joining each packet to a partial last packet. Null elements are passed over.
    void appendPackets(const Packets& packets);
    // Without an array, does nothing.
    void appendPackets(const std::optional<Packets>& packets);
    // Appends the other list's packets; null does nothing.
    void appendPacketList(const std::shared_ptr<VelmorPacketList>& packetList);
    // Also forgets a pending partial packet.
    void removeAllPackets() { mutablePackets_.clear(); }

    // The image of a platform packet list of all packets, each moved on from `startTime` by its own
    // offset. Packets without bytes are left out; a packet of more than 65535 bytes becomes several
    // platform packets with one time stamp. The count always agrees with the packets that follow it.
    VelmorData getMIDIPacketListDataWithStartTime(std::uint64_t startTime) const;

protected:
    VelmorPacketList() = default;
    bool constructWithPackets(const std::optional<Packets>& packets);

private:
    Packets mutablePackets_;
};

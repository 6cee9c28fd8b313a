#include <gtest/gtest.h>

#include <random>

#include "TestSupport.h"
#include "VelmorHostClock.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"
#include "VelmorRemoteSource.h"

using namespace VelmorTest;
using Packets = VelmorPacketList::Packets;

namespace {

std::shared_ptr<VelmorPacket> packetOf(const Bytes& bytes, std::uint64_t timeStamp = 0, std::uint64_t timeOffset = 0)
{
    return VelmorPacket::initWithTimeOffsetTimeStampData(timeOffset, timeStamp, VelmorData(bytes));
}

std::shared_ptr<VelmorPacketList> listOf(const std::vector<PlatformPacket>& packets)
{
    return VelmorPacketList::packetListWithMIDIPacketList(asPacketList(packetListImage(packets)));
}

std::string text(const Bytes& bytes) { return VelmorData(bytes).description(); }

class TestSource : public VelmorRemoteSource {};

} // namespace

TEST(PacketCutting, OnePacketPerMessage)
{
    const std::vector<std::pair<Bytes, std::vector<Bytes>>> cases = {
        {{0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, {{0x90, 0x3C, 0x40}, {0x80, 0x3C, 0x00}}},
        {{0xF0, 0x01, 0x02, 0xF7, 0x90, 0x3C, 0x40}, {{0xF0, 0x01, 0x02, 0xF7}, {0x90, 0x3C, 0x40}}},
        {{0x01, 0x02, 0xF7, 0x90, 0x3C, 0x40}, {{0x01, 0x02, 0xF7}, {0x90, 0x3C, 0x40}}},
        {{0xF8}, {{0xF8}}},
        {{0xF8, 0xFA}, {{0xF8, 0xFA}}},
        {{0xF8, 0x90, 0x3C, 0x40}, {{0xF8, 0x90, 0x3C, 0x40}}},
        {{0x90, 0xF8, 0x3C, 0x40}, {{0x90, 0xF8, 0x3C}, {0x40}}},
        {{0xF1, 0x10, 0x90, 0x3C, 0x40}, {{0xF1, 0x10, 0x90, 0x3C, 0x40}}},
        {{0x90, 0x3C, 0x40, 0x3E, 0x40}, {{0x90, 0x3C, 0x40}, {0x3E, 0x40}}},
        {{0x90, 0x3C}, {{0x90, 0x3C}}},
        {{0xC0, 0x01, 0x02}, {{0xC0, 0x01}, {0x02}}},
        {{0xD5, 0x10, 0xE1, 0x00, 0x40, 0xB0, 0x07}, {{0xD5, 0x10}, {0xE1, 0x00, 0x40}, {0xB0, 0x07}}},
        {{0xF7, 0xF7, 0x01}, {{0xF7}, {0xF7}, {0x01}}},
        {{}, {}},
    };
    for (const auto& [bytes, expected] : cases) {
        // A byte behind the length field must not be read.
        Bytes image = packetImage({1234, bytes});
        image.push_back(0x90);
        const auto packets = VelmorPacket::packetsWithMIDIPacket(asPacket(image));
        ASSERT_EQ(packets.size(), expected.size()) << text(bytes);
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(packets[i]->data().toVector(), expected[i]) << text(bytes) << " #" << i;
            EXPECT_EQ(packets[i]->timeStamp(), 1234u);
            EXPECT_EQ(packets[i]->timeOffset(), 0u);
        }
    }
    EXPECT_TRUE(VelmorPacket::packetsWithMIDIPacket(nullptr).empty());
}

TEST(PacketPartial, TrueExactlyWhenTheDataEndsInsideAMessage)
{
    const std::vector<std::pair<Bytes, bool>> cases = {
        {{0xF0}, true}, {{0xF0, 0x01, 0x02}, true}, {{0xC0}, true}, {{0xF1}, true}, {{0xF2, 0x01}, true},
        {{0xF3}, true}, {{0x90, 0x3C}, true}, {{0xF1, 0x01, 0xF3}, true}, {{0x01, 0x80, 0x3C}, true},
        {{0x90, 0x3C, 0x40, 0x80, 0x3C}, true}, {{0xF0, 0x01, 0xF7, 0xC0}, true}, {{0xF0, 0x01, 0xF7, 0xF0}, true},
        {{}, false}, {{0xF0, 0xF7}, false}, {{0xF7}, false}, {{0x01, 0x02}, false}, {{0xF3, 0x01}, false},
        {{0xF2, 0x01, 0x02}, false}, {{0xF1, 0x10, 0x90, 0x3C, 0x40}, false}, {{0xF0, 0x01, 0xF7, 0xF8}, false},
        {{0xF4, 0xF5, 0xF6, 0xF8, 0xFF}, false},
    };
    for (const auto& [bytes, partial] : cases)
        EXPECT_EQ(packetOf(bytes)->partial(), partial) << text(bytes);

    // The walk skips runs of data bytes; a status byte behind a run of any length must be seen.
    for (std::size_t run = 0; run < 40; ++run) {
        for (const Bytes& tail : {Bytes {0x90, 0x3C}, Bytes {0xF0, 1, 2, 3, 4, 5, 6, 7, 8}}) {
            Bytes bytes(run, 0x01);
            bytes.insert(bytes.end(), tail.begin(), tail.end());
            EXPECT_TRUE(packetOf(bytes)->partial()) << text(bytes);
            bytes.push_back(tail.front() == 0xF0 ? 0xF7 : 0x40);
            EXPECT_FALSE(packetOf(bytes)->partial()) << text(bytes);
        }
    }

    // setData starts the walk afresh.
    const auto packet = packetOf({0xF0, 0x01});
    packet->setData(VelmorData({0x90, 0x3C, 0x40}));
    EXPECT_FALSE(packet->partial());
    packet->setData(VelmorData({0x90}));
    EXPECT_TRUE(packet->partial());
}

TEST(PacketJoining, ReceiversOffsetGreaterTimeStampNoSource)
{
    EXPECT_EQ(VelmorPacket::init(), nullptr);
    EXPECT_EQ(VelmorPacket::initWithTimeOffsetData(1, VelmorData()), nullptr);
    EXPECT_EQ(VelmorPacket::initWithTimeStampData(7, VelmorData::empty())->length(), 0u);

    const auto early = packetOf({0xF0, 0x01}, 5, 9);
    const auto late = packetOf({0x02, 0xF7}, 7, 2);
    early->setSource(std::make_shared<TestSource>());
    const auto joined = early->packetByAppendingPacket(late);
    EXPECT_EQ(joined->description(), "7 (9 ms) <f0 01 02 f7>");
    EXPECT_EQ(joined->source(), nullptr);
    EXPECT_FALSE(joined->partial());
    EXPECT_EQ(late->packetByAppendingPacket(early)->description(), "7 (2 ms) <02 f7 f0 01>");
    EXPECT_EQ(early->description(), "5 (9 ms) <f0 01>");
    EXPECT_TRUE(early->partial());

    EXPECT_EQ(early->packetByAppendingPacket(nullptr), nullptr);
    early->setData(VelmorData());
    EXPECT_EQ(early->description(), "5 (9 ms) <>");
    EXPECT_EQ(early->packetByAppendingPacket(late), nullptr);
}

TEST(PacketListReading, JoinsMessagesSplitAcrossPlatformPackets)
{
    // Each joined packet by its text form: time stamp (offset) bytes.
    const std::vector<std::pair<std::vector<PlatformPacket>, std::vector<std::string>>> cases = {
        {{{5, {0xF0, 0x01, 0x02}}, {7, {0x03, 0x04, 0xF7}}}, {"7 (0 ms) <f0 01 02 03 04 f7>"}},
        {{{5, {0xF0, 0x01}}, {7, {0x02}}, {6, {0x03, 0xF7}}}, {"7 (0 ms) <f0 01 02 03 f7>"}},
        {{{5, {0xF0, 0x01, 0x02, 0xF7}}, {7, {0x90, 0x3C, 0x40}}}, {"5 (0 ms) <f0 01 02 f7>", "7 (0 ms) <90 3c 40>"}},
        {{{5, {0xF0, 0x01, 0xF7, 0xF0, 0x02}}, {7, {0x03, 0xF7, 0x90, 0x3C, 0x40}}},
         {"5 (0 ms) <f0 01 f7>", "7 (0 ms) <f0 02 03 f7>", "7 (0 ms) <90 3c 40>"}},
        {{{5, {0x90, 0x3C}}, {7, {0x40, 0x80, 0x3C, 0x00}}}, {"7 (0 ms) <90 3c 40 80 3c 00>"}},
        {{{5, {0xF0, 0x01}}, {7, {0x90, 0x3C, 0x40}}, {8, {0x80, 0x3C, 0x00}}}, {"8 (0 ms) <f0 01 90 3c 40 80 3c 00>"}},
        {{{5, {0xB0}}, {6, {0x07}}, {4, {0x64}}, {3, {0xC0, 0x01}}}, {"6 (0 ms) <b0 07 64>", "3 (0 ms) <c0 01>"}},
        // A platform packet of no bytes adds nothing, and the walk goes on behind it.
        {{{5, {0xF0, 0x01}}, {6, {}}, {7, {0xF7}}}, {"7 (0 ms) <f0 01 f7>"}},
        {{}, {}},
    };
    for (const auto& [platform, expected] : cases) {
        std::vector<std::string> packets;
        for (const auto& packet : listOf(platform)->packets())
            packets.push_back(packet->description());
        EXPECT_EQ(packets, expected);
    }
    EXPECT_TRUE(listOf({{5, {0xF0, 0x01}}, {7, {0x90, 0x3C, 0x40}}})->packets()[0]->partial());
    EXPECT_EQ(VelmorPacketList::packetListWithMIDIPacketList(nullptr)->count(), 0u);
}

TEST(PacketListReading, ReadingAnImageAgreesWithCuttingAndAppendingStepByStep)
{
    // Random bytes in random platform packets. Reading an image must give what cutting each platform
    // packet and appending the pieces gives, and a joined packet, which resumes the walk of its first
    // part, must judge `partial` as a packet that walks the same bytes from the start.
    std::mt19937 random(20240611);
    const Bytes alphabet = {0x00, 0x40, 0x7F, 0x80, 0x90, 0xB0, 0xC0, 0xD0, 0xE0, 0xF0, 0xF1, 0xF2, 0xF3, 0xF7, 0xF8, 0xFF};
    for (int round = 0; round < 3000; ++round) {
        std::vector<PlatformPacket> platform(1 + random() % 8);
        const auto stepByStep = VelmorPacketList::init();
        for (auto& packet : platform) {
            packet.timeStamp = random() % 10;
            packet.bytes.resize(random() % 7);
            for (auto& byte : packet.bytes)
                byte = random() % 2 == 0 ? alphabet[random() % alphabet.size()] : std::uint8_t(random() % 0x80);
            stepByStep->appendPackets(VelmorPacket::packetsWithMIDIPacket(asPacket(packetImage(packet))));
        }
        const auto expected = stepByStep->packets();
        const auto packets = listOf(platform)->packets();
        ASSERT_EQ(packets.size(), expected.size()) << "round " << round;
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(packets[i]->description(), expected[i]->description()) << "round " << round;
            for (const auto& packet : {packets[i], expected[i]}) {
                EXPECT_EQ(packet->partial(), packetOf(packet->data().toVector())->partial()) << packet->description();
                EXPECT_TRUE(!packet->partial() || i + 1 == packets.size()) << "only the last packet may stay partial";
            }
        }
    }
}

TEST(PacketListEditing, AppendingJoinsToAPartialLastPacket)
{
    const auto list = VelmorPacketList::initWithPackets(Packets {nullptr, packetOf({0x90, 0x3C, 0x40}, 1), packetOf({0xF0, 0x01}, 2)});
    ASSERT_EQ(list->count(), 2u);
    list->appendPackets(Packets {packetOf({0x02, 0xF7}, 3), packetOf({0xF8}, 4)});
    EXPECT_EQ(list->description(), "VelmorPacketList: (1 (0 ms) <90 3c 40>, 3 (0 ms) <f0 01 02 f7>, 4 (0 ms) <f8>)");
    list->appendPackets(std::nullopt);
    list->appendPacketList(nullptr);
    EXPECT_EQ(list->count(), 3u);

    const auto other = VelmorPacketList::initWithPackets(Packets {packetOf({0xF0})});
    other->appendPacketList(VelmorPacketList::initWithPackets(Packets {packetOf({0xF7}), packetOf({0xF8})}));
    EXPECT_EQ(other->description(), "VelmorPacketList: (0 (0 ms) <f0 f7>, 0 (0 ms) <f8>)");
    other->appendPacketList(other);
    other->appendPackets(other->mutablePackets());
    EXPECT_EQ(other->count(), 8u);

    EXPECT_EQ(VelmorPacketList::initWithPackets(std::nullopt), nullptr);
}

TEST(PacketListEditing, RemovingForgetsAPendingPartialButNotHandedOutPackets)
{
    const auto list = VelmorPacketList::initWithPackets(Packets {packetOf({0x90, 0x3C, 0x40}), packetOf({0xF0})});
    const auto before = list->packets();
    list->removeAllPackets();
    EXPECT_EQ(before.size(), 2u);
    list->appendPackets(Packets {packetOf({0xF7})});
    EXPECT_EQ(list->description(), "VelmorPacketList: (0 (0 ms) <f7>)");
    EXPECT_EQ(VelmorPacketList::init()->description(), "VelmorPacketList: ()");
}

TEST(PacketImages, PacketAndListImagesByteForByte)
{
    // The host clock runs at 24 MHz: one second, and 10 ms behind it.
    const auto packet = packetOf({0x90, 0x3C, 0x40}, 99, 10);
    EXPECT_EQ(packet->getMidiPacketDataWithStartTime(24000000).toVector(), packetImage({24240000, {0x90, 0x3C, 0x40}}));
    EXPECT_EQ(packet->getMIDIPacketListDataWithStartTime(24000000).toVector(), packetListImage({{24240000, {0x90, 0x3C, 0x40}}}));
    EXPECT_EQ(packet->getMIDIPacketListDataWithStartTime(0).length(), 17u);

    // An offset of 0 gives the start time itself, not 0 and not the packet's own time stamp.
    packet->setTimeOffset(0);
    EXPECT_EQ(packet->getMidiPacketDataWithStartTime(1000).toVector(), packetImage({1000, {0x90, 0x3C, 0x40}}));
    const std::uint64_t before = AudioGetCurrentHostTime();
    const Bytes now = packet->getMIDIPacketListData().toVector();
    const std::uint64_t stamp = VelmorPacketList::packetListWithMIDIPacketList(asPacketList(now))->packets()[0]->timeStamp();
    EXPECT_TRUE(before <= stamp && stamp <= AudioGetCurrentHostTime());

    const auto list = VelmorPacketList::initWithPackets(Packets {packetOf({0x90, 0x3C, 0x40}), packetOf({0xC0, 0x05}, 0, 1)});
    EXPECT_EQ(list->getMIDIPacketListDataWithStartTime(3000).toVector(),
              packetListImage({{3000, {0x90, 0x3C, 0x40}}, {27000, {0xC0, 0x05}}}));
    EXPECT_EQ(VelmorPacketList::init()->getMIDIPacketListDataWithStartTime(3000).toVector(), (Bytes {0, 0, 0, 0}));
}

TEST(PacketImages, PacketsWithoutBytesRenderToNothing)
{
    const auto empty = packetOf({});
    EXPECT_FALSE(empty->getMidiPacketDataWithStartTime(5).isNull());
    EXPECT_EQ(empty->getMidiPacketDataWithStartTime(5).length(), 0u);
    EXPECT_EQ(empty->getMIDIPacketListDataWithStartTime(5).length(), 0u);
    // Inside a list image it is left out, and not counted.
    const auto list = VelmorPacketList::initWithPackets(Packets {packetOf({0xF8}), empty, packetOf({0xFA})});
    EXPECT_EQ(list->getMIDIPacketListDataWithStartTime(5).toVector(), packetListImage({{5, {0xF8}}, {5, {0xFA}}}));
}

TEST(PacketImages, LongPacketsAreSplitInListImagesAndHaveNoPacketImage)
{
    for (const std::size_t length : {65535u, 65536u, 131070u, 200000u}) {
        Bytes bytes(length, 0x33);
        bytes.front() = 0xF0;
        bytes.back() = 0xF7;
        // Pieces of at most 65535 bytes, each with the time stamp of the whole: 100 ticks + 2 ms.
        std::vector<PlatformPacket> pieces;
        for (std::size_t at = 0; at < length; at += 65535)
            pieces.push_back({48100, Bytes(bytes.begin() + at, bytes.begin() + std::min(length, at + 65535))});
        const auto packet = packetOf(bytes, 0, 2);
        EXPECT_TRUE(packet->getMIDIPacketListDataWithStartTime(100).toVector() == packetListImage(pieces)) << length;

        const auto list = VelmorPacketList::initWithPackets(Packets {packet, packetOf({0xF8}, 0, 2)});
        pieces.push_back({48100, {0xF8}});
        const Bytes image = list->getMIDIPacketListDataWithStartTime(100).toVector();
        EXPECT_TRUE(image == packetListImage(pieces)) << length;
        // A reader joins the pieces into the one message again.
        const auto back = VelmorPacketList::packetListWithMIDIPacketList(asPacketList(image))->packets();
        ASSERT_EQ(back.size(), 2u);
        EXPECT_TRUE(back[0]->data().toVector() == bytes) << length;

        CapturedLines lines;
        const VelmorData single = packet->getMidiPacketDataWithStartTime(0);
        EXPECT_EQ(single.length(), length == 65535 ? 65545u : 0u);
        EXPECT_EQ(lines.lines(), length == 65535 ? std::vector<std::string> {}
                                                 : std::vector<std::string> {"[VelmorPacket.cpp] length <= 65535 failed"});
    }
}

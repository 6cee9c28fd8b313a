#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VelmorHostClock.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"
#include "VelmorRemoteSource.h"

using VelmorTest::CapturedLines;
using VelmorTest::PlatformPacket;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes bytesOf(const VelmorData& data)
{
    return data.toVector();
}

std::shared_ptr<VelmorPacket> packetOf(Bytes bytes, std::uint64_t timeStamp = 0, std::uint64_t timeOffset = 0)
{
    return VelmorPacket::initWithTimeOffsetTimeStampData(timeOffset, timeStamp, VelmorData(bytes));
}

std::shared_ptr<VelmorPacketList> listOf(const std::vector<PlatformPacket>& packets)
{
    const Bytes image = VelmorTest::packetListImage(packets);
    return VelmorPacketList::packetListWithMIDIPacketList(VelmorTest::asPacketList(image));
}

class TestSource : public VelmorRemoteSource {
public:
    static std::shared_ptr<TestSource> make() { return std::shared_ptr<TestSource>(new TestSource()); }
};

} // namespace

// --- Cutting one platform packet -------------------------------------------------------------------

TEST(PacketCutting, OnePacketPerMessageByTheCuttingTable)
{
    struct Case {
        Bytes platform;
        std::vector<Bytes> packets;
    };
    const std::vector<Case> cases = {
        {{0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, {{0x90, 0x3C, 0x40}, {0x80, 0x3C, 0x00}}},
        {{0xF0, 0x01, 0x02, 0xF7, 0x90, 0x3C, 0x40}, {{0xF0, 0x01, 0x02, 0xF7}, {0x90, 0x3C, 0x40}}},
        // The tail of an exclusive message runs up to its 0xF7.
        {{0x01, 0x02, 0xF7, 0x90, 0x3C, 0x40}, {{0x01, 0x02, 0xF7}, {0x90, 0x3C, 0x40}}},
        {{0xF8}, {{0xF8}}},
        {{0xF8, 0xFA}, {{0xF8, 0xFA}}},
        {{0xF8, 0x90, 0x3C, 0x40}, {{0xF8, 0x90, 0x3C, 0x40}}},
        {{0x90, 0xF8, 0x3C, 0x40}, {{0x90, 0xF8, 0x3C}, {0x40}}},
        {{0xF1, 0x10, 0x90, 0x3C, 0x40}, {{0xF1, 0x10, 0x90, 0x3C, 0x40}}},
        // No running status.
        {{0x90, 0x3C, 0x40, 0x3E, 0x40}, {{0x90, 0x3C, 0x40}, {0x3E, 0x40}}},
        {{0x90, 0x3C}, {{0x90, 0x3C}}},
        {{0xC0, 0x01, 0x02}, {{0xC0, 0x01}, {0x02}}},
        {{0xD5, 0x10, 0xE1, 0x00, 0x40, 0xB0, 0x07}, {{0xD5, 0x10}, {0xE1, 0x00, 0x40}, {0xB0, 0x07}}},
        // A 0xF7 as the first byte ends its own message.
        {{0xF7, 0xF7, 0x01}, {{0xF7}, {0xF7}, {0x01}}},
        {{0xF0, 0xF7, 0xF0, 0x01}, {{0xF0, 0xF7}, {0xF0, 0x01}}},
    };
    for (const auto& c : cases) {
        const Bytes image = VelmorTest::packetImage({1234, c.platform});
        const auto packets = VelmorPacket::packetsWithMIDIPacket(VelmorTest::asPacket(image));
        ASSERT_EQ(packets.size(), c.packets.size()) << VelmorData(c.platform).description();
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(bytesOf(packets[i]->data()), c.packets[i]) << VelmorData(c.platform).description() << " #" << i;
            EXPECT_EQ(packets[i]->timeStamp(), 1234u);
            EXPECT_EQ(packets[i]->timeOffset(), 0u);
            EXPECT_EQ(packets[i]->source(), nullptr);
        }
    }
}

TEST(PacketCutting, NothingToCutGivesNoPackets)
{
    EXPECT_TRUE(VelmorPacket::packetsWithMIDIPacket(nullptr).empty());
    const Bytes image = VelmorTest::packetImage({5, {}});
    EXPECT_TRUE(VelmorPacket::packetsWithMIDIPacket(VelmorTest::asPacket(image)).empty());
}

TEST(PacketCutting, GoesByTheLengthFieldBeyond256Bytes)
{
    Bytes exclusive(1000, 0x11);
    exclusive.front() = 0xF0;
    exclusive.back() = 0xF7;
    Bytes bytes = exclusive;
    bytes.insert(bytes.end(), {0x90, 0x3C, 0x40});
    // Bytes behind the length field must not be read.
    Bytes image = VelmorTest::packetImage({9, bytes});
    image.insert(image.end(), {0x80, 0x3C, 0x00});
    const auto packets = VelmorPacket::packetsWithMIDIPacket(VelmorTest::asPacket(image));
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(bytesOf(packets[0]->data()), exclusive);
    EXPECT_EQ(bytesOf(packets[1]->data()), (Bytes {0x90, 0x3C, 0x40}));
}

// --- partial ---------------------------------------------------------------------------------------

TEST(PacketPartial, TrueExactlyWhenTheDataEndsInsideAMessage)
{
    struct Case {
        Bytes bytes;
        bool partial;
    };
    const std::vector<Case> cases = {
        {{}, false},
        {{0xF0}, true},
        {{0xF0, 0x01, 0x02}, true},
        {{0xC0}, true},
        {{0xF1}, true},
        {{0xF2, 0x01}, true},
        {{0x90, 0x3C}, true},
        {{0xF0, 0xF7}, false},
        {{0xF7}, false},
        {{0x01, 0x02}, false},
        {{0xF3, 0x01}, false},
        {{0xF2, 0x01, 0x02}, false},
        {{0xF1, 0x10, 0x90, 0x3C, 0x40}, false},
        {{0xF1, 0x10, 0x90, 0x3C}, true},
        {{0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, false},
        {{0x90, 0x3C, 0x40, 0x80, 0x3C}, true},
        // The 0xF7 is searched from the second byte on, and the walk goes on behind it.
        {{0xF0, 0x01, 0xF7, 0xC0}, true},
        {{0xF0, 0x01, 0xF7, 0xF0}, true},
        {{0xF0, 0x01, 0xF7, 0xF8}, false},
        {{0xF4, 0xF5, 0xF6, 0xF8, 0xFF}, false},
    };
    for (const auto& c : cases) {
        const auto packet = packetOf(c.bytes);
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->partial(), c.partial) << VelmorData(c.bytes).description();
    }
}

TEST(PacketPartial, SetDataWalksTheNewBytes)
{
    const auto packet = packetOf({0xF0, 0x01});
    EXPECT_TRUE(packet->partial());
    packet->setData(VelmorData({0x90, 0x3C, 0x40}));
    EXPECT_FALSE(packet->partial());
    packet->setData(VelmorData({0x90}));
    EXPECT_TRUE(packet->partial());
    packet->setData(VelmorData());
    EXPECT_FALSE(packet->partial());
    EXPECT_EQ(packet->length(), 0u);
}

// --- Constructors and joining two packets ----------------------------------------------------------

TEST(PacketConstruction, NullDataGivesNoPacketButEmptyDataDoes)
{
    EXPECT_EQ(VelmorPacket::init(), nullptr);
    EXPECT_EQ(VelmorPacket::initWithTimeOffsetTimeStampData(1, 2, VelmorData()), nullptr);
    const auto empty = VelmorPacket::initWithTimeStampData(7, VelmorData::empty());
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->length(), 0u);
    EXPECT_EQ(empty->timeStamp(), 7u);
    EXPECT_EQ(empty->timeOffset(), 0u);
    const auto offset = VelmorPacket::initWithTimeOffsetData(9, VelmorData({0xF8}));
    EXPECT_EQ(offset->timeOffset(), 9u);
    EXPECT_EQ(offset->timeStamp(), 0u);
}

TEST(PacketJoining, KeepsTheReceiversOffsetAndTheGreaterTimeStamp)
{
    const auto early = packetOf({0xF0, 0x01}, 5, 9);
    const auto late = packetOf({0x02, 0xF7}, 7, 2);
    early->setSource(TestSource::make());
    late->setSource(TestSource::make());

    const auto joined = early->packetByAppendingPacket(late);
    ASSERT_NE(joined, nullptr);
    EXPECT_EQ(joined->timeStamp(), 7u);
    EXPECT_EQ(joined->timeOffset(), 9u);
    EXPECT_EQ(bytesOf(joined->data()), (Bytes {0xF0, 0x01, 0x02, 0xF7}));
    EXPECT_EQ(joined->source(), nullptr);
    EXPECT_FALSE(joined->partial());

    const auto other = late->packetByAppendingPacket(early);
    EXPECT_EQ(other->timeStamp(), 7u);
    EXPECT_EQ(other->timeOffset(), 2u);

    // Neither operand changes.
    EXPECT_EQ(bytesOf(early->data()), (Bytes {0xF0, 0x01}));
    EXPECT_TRUE(early->partial());
    EXPECT_EQ(bytesOf(late->data()), (Bytes {0x02, 0xF7}));
}

TEST(PacketJoining, RefusesNullOperands)
{
    const auto packet = packetOf({0xF0});
    EXPECT_EQ(packet->packetByAppendingPacket(nullptr), nullptr);
    packet->setData(VelmorData());
    EXPECT_EQ(packet->packetByAppendingPacket(packetOf({0xF7})), nullptr);
}

TEST(PacketJoining, TwoJoinsOfOneReceiverDoNotSeeEachOthersBytes)
{
    // The first join may extend the receiver's storage in place; the second must not see those bytes.
    const auto head = packetOf({0xF0, 0x01});
    const auto first = head->packetByAppendingPacket(packetOf({0x02, 0xF7}));
    const auto second = head->packetByAppendingPacket(packetOf({0x03}));
    const auto third = first->packetByAppendingPacket(packetOf({0xF8}));
    EXPECT_EQ(bytesOf(first->data()), (Bytes {0xF0, 0x01, 0x02, 0xF7}));
    EXPECT_EQ(bytesOf(second->data()), (Bytes {0xF0, 0x01, 0x03}));
    EXPECT_EQ(bytesOf(third->data()), (Bytes {0xF0, 0x01, 0x02, 0xF7, 0xF8}));
    EXPECT_FALSE(first->partial());
    EXPECT_TRUE(second->partial());
    EXPECT_EQ(bytesOf(head->data()), (Bytes {0xF0, 0x01}));
}

// --- Reading a platform packet list ----------------------------------------------------------------

TEST(PacketListReading, JoinsMessagesSplitAcrossPlatformPackets)
{
    struct Expected {
        Bytes bytes;
        std::uint64_t timeStamp;
        bool partial;
    };
    struct Case {
        std::vector<PlatformPacket> platform;
        std::vector<Expected> packets;
    };
    const std::vector<Case> cases = {
        {{{5, {0xF0, 0x01, 0x02}}, {7, {0x03, 0x04, 0xF7}}}, {{{0xF0, 0x01, 0x02, 0x03, 0x04, 0xF7}, 7, false}}},
        {{{5, {0xF0, 0x01}}, {7, {0x02}}, {6, {0x03, 0xF7}}}, {{{0xF0, 0x01, 0x02, 0x03, 0xF7}, 7, false}}},
        {{{5, {0xF0, 0x01, 0x02, 0xF7}}, {7, {0x90, 0x3C, 0x40}}},
         {{{0xF0, 0x01, 0x02, 0xF7}, 5, false}, {{0x90, 0x3C, 0x40}, 7, false}}},
        {{{5, {0xF0, 0x01, 0xF7, 0xF0, 0x02}}, {7, {0x03, 0xF7, 0x90, 0x3C, 0x40}}},
         {{{0xF0, 0x01, 0xF7}, 5, false}, {{0xF0, 0x02, 0x03, 0xF7}, 7, false}, {{0x90, 0x3C, 0x40}, 7, false}}},
        {{{5, {0x90, 0x3C}}, {7, {0x40, 0x80, 0x3C, 0x00}}}, {{{0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, 7, false}}},
        {{{5, {0xF0, 0x01}}, {7, {0x90, 0x3C, 0x40}}, {8, {0x80, 0x3C, 0x00}}},
         {{{0xF0, 0x01, 0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, 8, true}}},
        // A channel message split after its status byte; a tail that starts with a data byte is cut as
        // one run, so the patch change stays inside it.
        {{{5, {0xB0}}, {6, {0x07}}, {4, {0x64, 0xC0, 0x01}}}, {{{0xB0, 0x07, 0x64, 0xC0, 0x01}, 6, false}}},
        {{{5, {0xB0}}, {6, {0x07}}, {4, {0x64}}, {3, {0xC0, 0x01}}}, {{{0xB0, 0x07, 0x64}, 6, false}, {{0xC0, 0x01}, 3, false}}},
        // A platform packet of no bytes adds nothing, and the walk goes on behind it.
        {{{5, {0xF0, 0x01}}, {6, {}}, {7, {0xF7}}}, {{{0xF0, 0x01, 0xF7}, 7, false}}},
        {{{5, {}}, {6, {0xF8}}}, {{{0xF8}, 6, false}}},
    };
    for (std::size_t n = 0; n < cases.size(); ++n) {
        const auto list = listOf(cases[n].platform);
        ASSERT_NE(list, nullptr);
        const auto packets = list->packets();
        ASSERT_EQ(packets.size(), cases[n].packets.size()) << "case " << n << ": " << list->description();
        EXPECT_EQ(list->count(), packets.size());
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(bytesOf(packets[i]->data()), cases[n].packets[i].bytes) << "case " << n << " #" << i;
            EXPECT_EQ(packets[i]->timeStamp(), cases[n].packets[i].timeStamp) << "case " << n << " #" << i;
            EXPECT_EQ(packets[i]->timeOffset(), 0u);
            EXPECT_EQ(packets[i]->partial(), cases[n].packets[i].partial) << "case " << n << " #" << i;
        }
    }
}

TEST(PacketListReading, NothingToReadGivesAnEmptyList)
{
    const auto fromNull = VelmorPacketList::packetListWithMIDIPacketList(nullptr);
    ASSERT_NE(fromNull, nullptr);
    EXPECT_EQ(fromNull->count(), 0u);
    const auto fromEmpty = listOf({});
    ASSERT_NE(fromEmpty, nullptr);
    EXPECT_EQ(fromEmpty->count(), 0u);
}

TEST(PacketListReading, AnExclusiveMessageOverManyPlatformPacketsBecomesOnePacket)
{
    // 1 MiB in 4096 platform packets: the joining must keep every byte in order.
    constexpr std::size_t packetCount = 4096;
    constexpr std::size_t packetSize = 256;
    std::vector<PlatformPacket> platform;
    Bytes whole;
    for (std::size_t i = 0; i < packetCount; ++i) {
        Bytes bytes(packetSize);
        for (std::size_t j = 0; j < packetSize; ++j)
            bytes[j] = static_cast<std::uint8_t>((i * 7 + j) & 0x7F);
        if (i == 0)
            bytes.front() = 0xF0;
        if (i == packetCount - 1)
            bytes.back() = 0xF7;
        whole.insert(whole.end(), bytes.begin(), bytes.end());
        platform.push_back({i + 1, std::move(bytes)});
    }
    platform.push_back({1, {0x90, 0x3C, 0x40}});
    const auto packets = listOf(platform)->packets();
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0]->length(), whole.size());
    EXPECT_TRUE(bytesOf(packets[0]->data()) == whole);
    EXPECT_EQ(packets[0]->timeStamp(), packetCount);
    EXPECT_FALSE(packets[0]->partial());
    EXPECT_EQ(bytesOf(packets[1]->data()), (Bytes {0x90, 0x3C, 0x40}));
}

TEST(PacketListReading, JoinedPacketsAgreeWithAFreshWalkOfTheirBytes)
{
    // Random bytes in random platform packets: a joined packet resumes the walk of its first part, and
    // must judge `partial` as a packet that walks the same bytes from the start.
    std::mt19937 random(20240611);
    const Bytes alphabet = {0x00, 0x40, 0x7F, 0x80, 0x90, 0xB0, 0xC0, 0xD0, 0xE0, 0xF0, 0xF1, 0xF2, 0xF3, 0xF7, 0xF8, 0xFF};
    for (int round = 0; round < 300; ++round) {
        std::vector<PlatformPacket> platform;
        const int count = 1 + int(random() % 8);
        for (int i = 0; i < count; ++i) {
            Bytes bytes(1 + random() % 6);
            for (auto& byte : bytes)
                byte = random() % 3 == 0 ? alphabet[random() % alphabet.size()] : std::uint8_t(random() % 0x80);
            platform.push_back({std::uint64_t(i), bytes});
        }
        Bytes all;
        for (const auto& p : platform)
            all.insert(all.end(), p.bytes.begin(), p.bytes.end());
        Bytes joined;
        const auto packets = listOf(platform)->packets();
        for (std::size_t i = 0; i < packets.size(); ++i) {
            const auto fresh = packetOf(bytesOf(packets[i]->data()));
            ASSERT_EQ(packets[i]->partial(), fresh->partial()) << "round " << round << ": " << packets[i]->description();
            // Only the last packet of a list may stay partial.
            if (i + 1 < packets.size()) {
                EXPECT_FALSE(packets[i]->partial()) << "round " << round;
            }
            const Bytes bytes = bytesOf(packets[i]->data());
            joined.insert(joined.end(), bytes.begin(), bytes.end());
        }
        EXPECT_EQ(joined, all) << "round " << round;
    }
}

// --- Building and changing lists -------------------------------------------------------------------

TEST(PacketListEditing, AppendingJoinsToAPartialLastPacket)
{
    const auto list = VelmorPacketList::init();
    ASSERT_NE(list, nullptr);
    list->appendPackets(VelmorPacketList::Packets {packetOf({0x90, 0x3C, 0x40}, 1), packetOf({0xF0, 0x01}, 2)});
    ASSERT_EQ(list->count(), 2u);
    list->appendPackets(VelmorPacketList::Packets {packetOf({0x02, 0xF7}, 3), packetOf({0xF8}, 4)});
    const auto packets = list->packets();
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(bytesOf(packets[1]->data()), (Bytes {0xF0, 0x01, 0x02, 0xF7}));
    EXPECT_EQ(packets[1]->timeStamp(), 3u);
    EXPECT_EQ(bytesOf(packets[2]->data()), (Bytes {0xF8}));

    list->appendPackets(std::nullopt);
    EXPECT_EQ(list->count(), 3u);
}

TEST(PacketListEditing, AppendingAListAndItselfAppendsItsPackets)
{
    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packetOf({0xF0, 0x01})});
    const auto other = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packetOf({0xF7}), packetOf({0xF8})});
    list->appendPacketList(other);
    ASSERT_EQ(list->count(), 2u);
    EXPECT_EQ(bytesOf(list->packets()[0]->data()), (Bytes {0xF0, 0x01, 0xF7}));
    EXPECT_EQ(other->count(), 2u);

    list->appendPacketList(nullptr);
    EXPECT_EQ(list->count(), 2u);
    list->appendPacketList(list);
    EXPECT_EQ(list->count(), 4u);
    list->appendPackets(list->mutablePackets());
    EXPECT_EQ(list->count(), 8u);
}

TEST(PacketListEditing, RemovingForgetsAPendingPartialButNotHandedOutPackets)
{
    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packetOf({0x90, 0x3C, 0x40}), packetOf({0xF0})});
    const auto before = list->packets();
    list->removeAllPackets();
    EXPECT_EQ(list->count(), 0u);
    EXPECT_EQ(before.size(), 2u);
    list->appendPackets(VelmorPacketList::Packets {packetOf({0xF7})});
    ASSERT_EQ(list->count(), 1u);
    EXPECT_EQ(bytesOf(list->packets()[0]->data()), (Bytes {0xF7}));
}

TEST(PacketListEditing, ConstructionNeedsAnArrayAndPassesOverNullPackets)
{
    EXPECT_EQ(VelmorPacketList::initWithPackets(std::nullopt), nullptr);
    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {nullptr, packetOf({0xF0}), nullptr, packetOf({0xF7})});
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count(), 1u);
    EXPECT_EQ(bytesOf(list->packets()[0]->data()), (Bytes {0xF0, 0xF7}));
}

// --- Images ----------------------------------------------------------------------------------------

TEST(PacketImages, PacketAndListImagesByteForByte)
{
    // One second of a 24 MHz clock, and 10 ms behind it.
    const auto packet = packetOf({0x90, 0x3C, 0x40}, 99, 10);
    const Bytes packetImage = bytesOf(packet->getMidiPacketDataWithStartTime(24000000));
    EXPECT_EQ(packetImage, VelmorTest::packetImage({24240000, {0x90, 0x3C, 0x40}}));
    EXPECT_EQ(packetImage.size(), 13u);

    const Bytes listImage = bytesOf(packet->getMIDIPacketListDataWithStartTime(24000000));
    EXPECT_EQ(listImage, VelmorTest::packetListImage({{24240000, {0x90, 0x3C, 0x40}}}));
    EXPECT_EQ(listImage.size(), 17u);

    // An offset of 0 gives the start time itself, not 0 and not the packet's own time stamp.
    packet->setTimeOffset(0);
    EXPECT_EQ(bytesOf(packet->getMidiPacketDataWithStartTime(1000)), VelmorTest::packetImage({1000, {0x90, 0x3C, 0x40}}));
}

TEST(PacketImages, ImagesWithoutAStartTimeUseTheHostClock)
{
    const auto packet = packetOf({0xF8});
    const std::uint64_t before = AudioGetCurrentHostTime();
    const Bytes image = bytesOf(packet->getMIDIPacketListData());
    const std::uint64_t after = AudioGetCurrentHostTime();
    std::vector<PlatformPacket> read;
    ASSERT_TRUE(VelmorTest::readPacketListImage(image.data(), image.size(), read));
    ASSERT_EQ(read.size(), 1u);
    EXPECT_GE(read[0].timeStamp, before);
    EXPECT_LE(read[0].timeStamp, after);
    EXPECT_EQ(packet->getMidiPacketData().length(), 11u);
}

TEST(PacketImages, AListImageHoldsEachPacketAtItsOwnOffset)
{
    const auto list = VelmorPacketList::initWithPackets(
        VelmorPacketList::Packets {packetOf({0x90, 0x3C, 0x40}, 0, 0), packetOf({0xC0, 0x05}, 0, 1)});
    const Bytes image = bytesOf(list->getMIDIPacketListDataWithStartTime(3000));
    EXPECT_EQ(image.size(), 4u + 13u + 12u);
    EXPECT_EQ(image, VelmorTest::packetListImage({{3000, {0x90, 0x3C, 0x40}}, {27000, {0xC0, 0x05}}}));

    EXPECT_EQ(bytesOf(VelmorPacketList::init()->getMIDIPacketListDataWithStartTime(3000)), (Bytes {0, 0, 0, 0}));
}

TEST(PacketImages, PacketsWithoutBytesRenderToNothing)
{
    const auto empty = packetOf({});
    EXPECT_FALSE(empty->getMidiPacketDataWithStartTime(5).isNull());
    EXPECT_EQ(empty->getMidiPacketDataWithStartTime(5).length(), 0u);
    EXPECT_EQ(empty->getMIDIPacketListDataWithStartTime(5).length(), 0u);

    // Inside a list image it is left out, and not counted.
    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packetOf({0xF8}), empty, packetOf({0xFA})});
    EXPECT_EQ(list->count(), 3u);
    EXPECT_EQ(bytesOf(list->getMIDIPacketListDataWithStartTime(5)), VelmorTest::packetListImage({{5, {0xF8}}, {5, {0xFA}}}));

    const auto nulled = packetOf({0xF8});
    nulled->setData(VelmorData());
    EXPECT_EQ(nulled->getMIDIPacketListDataWithStartTime(5).length(), 0u);
}

TEST(PacketImages, PacketsLongerThanTheLengthFieldAreSplitInListImages)
{
    struct Case {
        std::size_t length;
        std::vector<std::size_t> pieces;
    };
    const std::vector<Case> cases = {
        {65535, {65535}},
        {65536, {65535, 1}},
        {131070, {65535, 65535}},
        {200000, {65535, 65535, 65535, 3395}},
    };
    for (const auto& c : cases) {
        Bytes bytes(c.length, 0x33);
        bytes.front() = 0xF0;
        bytes.back() = 0xF7;
        const auto packet = packetOf(bytes, 0, 2);
        const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packet, packetOf({0xF8})});
        ASSERT_EQ(list->count(), 2u);

        const Bytes packetListImage = bytesOf(packet->getMIDIPacketListDataWithStartTime(100));
        const Bytes listImage = bytesOf(list->getMIDIPacketListDataWithStartTime(100));
        std::vector<PlatformPacket> read;
        ASSERT_TRUE(VelmorTest::readPacketListImage(packetListImage.data(), packetListImage.size(), read)) << c.length;
        ASSERT_EQ(read.size(), c.pieces.size()) << c.length;
        Bytes rejoined;
        for (std::size_t i = 0; i < read.size(); ++i) {
            EXPECT_EQ(read[i].bytes.size(), c.pieces[i]) << c.length << " #" << i;
            EXPECT_EQ(read[i].timeStamp, 100u + 48000u);
            rejoined.insert(rejoined.end(), read[i].bytes.begin(), read[i].bytes.end());
        }
        EXPECT_TRUE(rejoined == bytes) << c.length;

        ASSERT_TRUE(VelmorTest::readPacketListImage(listImage.data(), listImage.size(), read)) << c.length;
        EXPECT_EQ(read.size(), c.pieces.size() + 1) << c.length;

        // A reader joins the pieces into the one message again.
        const auto back = VelmorPacketList::packetListWithMIDIPacketList(VelmorTest::asPacketList(listImage))->packets();
        ASSERT_EQ(back.size(), 2u) << c.length;
        EXPECT_TRUE(bytesOf(back[0]->data()) == bytes) << c.length;
        EXPECT_EQ(bytesOf(back[1]->data()), (Bytes {0xF8}));
    }
}

TEST(PacketImages, APacketImageCannotCarryMoreThanTheLengthField)
{
    Bytes bytes(65536, 0x01);
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    CapturedLines lines;
    EXPECT_EQ(packetOf(Bytes(65535, 0xF8))->getMidiPacketDataWithStartTime(0).length(), 65545u);
    EXPECT_TRUE(lines.lines().empty());
    const VelmorData image = packetOf(bytes)->getMidiPacketDataWithStartTime(0);
    EXPECT_FALSE(image.isNull());
    EXPECT_EQ(image.length(), 0u);
    EXPECT_EQ(lines.messages(), (std::vector<std::string> {"[VelmorPacket.cpp] length <= 65535 failed"}));
}

TEST(PacketImages, ARoundTripKeepsPacketsAndOffsets)
{
    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {
        packetOf({0x90, 0x3C, 0x40}, 0, 0), packetOf({0xF0, 0x01, 0x02, 0xF7}, 0, 5), packetOf({0xE0, 0x00, 0x40}, 0, 5)});
    const Bytes image = bytesOf(list->getMIDIPacketListDataWithStartTime(0));
    const auto packets = VelmorPacketList::packetListWithMIDIPacketList(VelmorTest::asPacketList(image))->packets();
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(packets[0]->timeStamp(), 0u);
    EXPECT_EQ(packets[1]->timeStamp(), 120000u);
    EXPECT_EQ(bytesOf(packets[1]->data()), (Bytes {0xF0, 0x01, 0x02, 0xF7}));
    EXPECT_EQ(packets[2]->timeStamp(), 120000u);
}

// --- Text forms ------------------------------------------------------------------------------------

TEST(PacketText, TimeStampOffsetAndBytes)
{
    const auto packet = packetOf({0x90, 0x3C, 0x40}, 1234, 10);
    EXPECT_EQ(packet->description(), "1234 (10 ms) <90 3c 40>");
    packet->setData(VelmorData());
    EXPECT_EQ(packet->description(), "1234 (10 ms) <>");

    const auto list = VelmorPacketList::initWithPackets(VelmorPacketList::Packets {packetOf({0xF8}, 1), packetOf({0xC0, 0x05}, 2, 3)});
    EXPECT_EQ(list->description(), "VelmorPacketList: (1 (0 ms) <f8>, 2 (3 ms) <c0 05>)");
    EXPECT_EQ(VelmorPacketList::init()->description(), "VelmorPacketList: ()");
}

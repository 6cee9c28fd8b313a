#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "VelmorEvent.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"

namespace {

// The image of a platform packet list that carries one exclusive message of `packetCount` x
// `packetSize` bytes, one platform packet after the other.
std::vector<std::uint8_t> exclusiveMessageImage(std::size_t packetCount, std::size_t packetSize)
{
    std::vector<std::uint8_t> image;
    image.reserve(4 + packetCount * (10 + packetSize));
    auto put = [&](std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            image.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    put(packetCount, 4);
    for (std::size_t p = 0; p < packetCount; ++p) {
        put(1000 + p, 8);
        put(packetSize, 2);
        for (std::size_t i = 0; i < packetSize; ++i) {
            std::uint8_t byte = static_cast<std::uint8_t>((p + i) & 0x7F);
            if (p == 0 && i == 0)
                byte = 0xF0;
            if (p == packetCount - 1 && i == packetSize - 1)
                byte = 0xF7;
            image.push_back(byte);
        }
    }
    return image;
}

void cutAndJoinExclusive(benchmark::State& state)
{
    const auto packetCount = static_cast<std::size_t>(state.range(0));
    const std::vector<std::uint8_t> image = exclusiveMessageImage(packetCount, 256);
    const auto* list = reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data());
    for (auto _ : state) {
        auto packets = VelmorPacketList::packetListWithMIDIPacketList(list);
        if (packets->count() != 1 || packets->packets()[0]->length() != packetCount * 256)
            state.SkipWithError("the message was not joined into one packet");
        benchmark::DoNotOptimize(packets);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * packetCount * 256));
}
// 1 MiB in 4096 platform packets, 4 MiB in 16384.
BENCHMARK(cutAndJoinExclusive)->Arg(4096)->Arg(16384)->Unit(benchmark::kMicrosecond);

// The yardstick: a copy of the same number of bytes into a fresh buffer (4 MiB shows what the caches
// alone cost at that size).
void copyPlain(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::vector<std::uint8_t> source(size, 0x42);
    for (auto _ : state) {
        auto copy = std::make_unique_for_overwrite<std::uint8_t[]>(size);
        std::memcpy(copy.get(), source.data(), size);
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(copyPlain)->Arg(1 << 20)->Arg(4 << 20)->Unit(benchmark::kMicrosecond);

void decodeThreeByteMessages(benchmark::State& state)
{
    std::vector<std::shared_ptr<VelmorPacket>> packets;
    for (std::uint8_t i = 0; i < 128; ++i)
        packets.push_back(VelmorPacket::initWithTimeStampData(i, VelmorData({static_cast<std::uint8_t>(0x90 | (i & 0x0F)), i, 0x40})));
    std::size_t next = 0;
    for (auto _ : state) {
        auto event = VelmorEvent::eventWithPacket(packets[next]);
        benchmark::DoNotOptimize(event);
        next = (next + 1) & 127;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(decodeThreeByteMessages);

} // namespace

BENCHMARK_MAIN();

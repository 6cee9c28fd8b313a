#pragma once

// Shared by the fuzz targets: a platform packet-list image made from fuzz input, and every accessor and
// text form of what the framework makes of it.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "VelmorEvent.h"
#include "VelmorFailure.h"
#include "VelmorManager.h"
#include "VelmorPacket.h"
#include "VelmorPacketList.h"

namespace VelmorFuzz {

using Bytes = std::vector<std::uint8_t>;

// Lines go nowhere: an undecodable packet writes one, and stderr would dominate the run.
inline void silenceLines()
{
    VelmorSetLineSink([](const std::string&) {});
}

// A well-formed image (the services make the structure; the bytes come from other processes): up to
// 16 packets, each with a time stamp and a length the input picks, the bytes themselves from the input.
inline Bytes packetListImage(FuzzedDataProvider& input)
{
    Bytes image(4, 0);
    std::uint32_t count = 0;
    const unsigned wanted = input.ConsumeIntegralInRange<unsigned>(0, 16);
    while (count < wanted && input.remaining_bytes() > 0) {
        const std::uint64_t timeStamp = input.ConsumeBool() ? 0 : input.ConsumeIntegral<std::uint64_t>();
        const std::size_t length = input.ConsumeIntegralInRange<std::size_t>(0, input.remaining_bytes());
        const Bytes bytes = input.ConsumeBytes<std::uint8_t>(length);
        for (int i = 0; i < 8; ++i)
            image.push_back(static_cast<std::uint8_t>(timeStamp >> (8 * i)));
        image.push_back(static_cast<std::uint8_t>(bytes.size()));
        image.push_back(static_cast<std::uint8_t>(bytes.size() >> 8));
        image.insert(image.end(), bytes.begin(), bytes.end());
        ++count;
    }
    for (int i = 0; i < 4; ++i)
        image[i] = static_cast<std::uint8_t>(count >> (8 * i));
    return image;
}

inline const VelmorPlatform::MIDIPacketList* asPacketList(const Bytes& image)
{
    return reinterpret_cast<const VelmorPlatform::MIDIPacketList*>(image.data());
}

// Reads everything an application can read of an event. The sum keeps the reads from being optimised
// away.
inline std::size_t touchEvent(const std::shared_ptr<VelmorEvent>& event)
{
    if (!event)
        return 0;
    std::size_t sum = event->channel() + event->type() + event->note() + event->velocity() + event->pitch() +
                      event->pressure() + event->eventValue() + event->controller() + event->timeStamp() +
                      event->timeOffset() + event->data().length();
    if (event->channel() < 1 || event->channel() > 16)
        std::abort();  // routing indexes a row by it
    sum += event->description().size();
    sum += event->propertiesDictionary().description().size();
    sum += VelmorManager::noteName(event->note()).size();
    sum += VelmorManager::controllerNameAllowCustom(event->controller(), true).value_or("").size();
    if (auto packet = event->packet())
        sum += packet->getMIDIPacketListData().length();
    return sum;
}

inline std::size_t touchPacket(const std::shared_ptr<VelmorPacket>& packet)
{
    if (!packet)
        return 0;
    std::size_t sum = packet->description().size() + packet->length() + packet->partial();
    sum += packet->getMidiPacketData().length() + packet->getMIDIPacketListDataWithStartTime(1).length();
    sum += touchEvent(VelmorEvent::eventWithPacket(packet));
    return sum;
}

} // namespace VelmorFuzz

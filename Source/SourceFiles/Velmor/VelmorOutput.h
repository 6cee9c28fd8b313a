#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VelmorData.h"

class VelmorAttributes;
class VelmorEvent;

// What an application may do with an output of either kind: a virtual output of this process
// (VelmorLocalOutput) or a destination of another program or device (VelmorRemoteOutput).
//
// sendEvent runs on the caller's thread, from any thread, and goes straight to the MIDI service: one
// event, one packet list, no queue. The event's timeOffset (milliseconds) moves its time stamp on from
// the moment of the call. A null event, an event without bytes and a closed output send nothing; the
// service is never handed an empty or malformed list.
//
// A message longer than 65535 bytes (a long exclusive message) cannot travel in one platform packet,
// whose length field has 16 bits: the packet list then holds it as several consecutive platform packets
// of at most 65535 bytes, all with the same time stamp, and the reader receives all its bytes in order.
class VelmorOutput {
public:
    virtual ~VelmorOutput() = default;

    virtual void sendEvent(const std::shared_ptr<VelmorEvent>& event) = 0;
    virtual std::optional<std::string> name() const = 0;
    virtual std::int64_t uniqueID() const = 0;
    // A new value on each call.
    virtual std::shared_ptr<VelmorAttributes> attributes() const = 0;

protected:
    // The image of a packet list that carries `event` alone, timed at the current host time plus its
    // offset; empty when there is nothing to send.
    static VelmorData packetListImageForEvent(const std::shared_ptr<VelmorEvent>& event);

    // The same image where it fits in `buffer` (channel messages and short exclusive ones: no allocation
    // on the sending thread), else in `storage`.
    struct PacketListImage {
        std::uint8_t buffer[256];
        VelmorData storage;
        const std::uint8_t* bytes = nullptr;
        std::size_t length = 0;
    };
    static void renderPacketListImageForEvent(const std::shared_ptr<VelmorEvent>& event, PacketListImage& image);
};

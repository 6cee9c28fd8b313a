// Platform packet-list images through cutting, joining and decoding, and every accessor and text form
// of the packets and events that come out; the list's own image is read back the same way.

#include "FuzzSupport.h"

using namespace VelmorFuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceLines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const Bytes image = packetListImage(input);
    if (VelmorPlatform::MIDIPacketListByteSize(asPacketList(image)) != image.size())
        std::abort();
    auto list = VelmorPacketList::initWithMIDIPacketList(asPacketList(image));
    if (!list)
        return 0;
    volatile std::size_t sum = list->description().size();
    std::shared_ptr<VelmorPacket> joined;
    for (const auto& packet : list->packets()) {
        sum = sum + touchPacket(packet);
        joined = joined ? joined->packetByAppendingPacket(packet) : packet;
    }
    sum = sum + touchPacket(joined);

    // What the list renders for the platform is an image it can read again.
    const VelmorData rendered = list->getMIDIPacketListDataWithStartTime(0);
    if (rendered.length() >= 4) {
        const Bytes again(rendered.bytes(), rendered.bytes() + rendered.length());
        if (VelmorPlatform::MIDIPacketListByteSize(asPacketList(again)) != again.size())
            std::abort();
        if (auto reread = VelmorPacketList::initWithMIDIPacketList(asPacketList(again)))
            for (const auto& packet : reread->packets())
                sum = sum + touchPacket(packet);
    }
    return 0;
}

#include "VelmorOutput.h"

#include "VelmorEvent.h"
#include "VelmorHostClock.h"
#include "VelmorPacket.h"

VelmorData VelmorOutput::packetListImageForEvent(const std::shared_ptr<VelmorEvent>& event)
{
    if (!event)
        return VelmorData::empty();
    // An event whose data was set to null has no packet; one whose data is empty renders an empty image.
    const auto packet = event->packet();
    if (!packet)
        return VelmorData::empty();
    return packet->getMIDIPacketListData();
}

void VelmorOutput::renderPacketListImageForEvent(const std::shared_ptr<VelmorEvent>& event, PacketListImage& image)
{
    image.bytes = nullptr;
    image.length = 0;
    if (!event)
        return;
    const VelmorData& data = event->data();
    if (data.isNull() || data.length() == 0)
        return;  // no packet, or an empty image: nothing to send either way
    const std::size_t size = VelmorPacket::listImageSize(data.length());
    if (size <= sizeof image.buffer) {
        VelmorPacket::writeListImage(image.buffer, event->timeOffset(), data, AudioGetCurrentHostTime());
        image.bytes = image.buffer;
        image.length = size;
        return;
    }
    image.storage = packetListImageForEvent(event);
    image.bytes = image.storage.bytes();
    image.length = image.storage.length();
}

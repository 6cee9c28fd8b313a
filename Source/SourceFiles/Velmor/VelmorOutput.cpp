#include "VelmorOutput.h"

#include "VelmorEvent.h"
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

#include "VelmorRemoteOutput.h"

#include "VelmorEvent.h"
#include "VelmorFailure.h"

using namespace VelmorPlatform;

std::shared_ptr<VelmorRemoteOutput> VelmorRemoteOutput::initWithEndpointRefOutputPort(MIDIEndpointRef endpoint,
                                                                                      MIDIPortRef outputPort)
{
    std::shared_ptr<VelmorRemoteOutput> output(new VelmorRemoteOutput);
    if (!output->constructWithEndpointRefOutputPort(endpoint, outputPort))
        return nullptr;
    return output;
}

std::shared_ptr<VelmorRemoteOutput> VelmorRemoteOutput::init()
{
    return nullptr;
}

bool VelmorRemoteOutput::constructWithEndpointRefOutputPort(MIDIEndpointRef endpoint, MIDIPortRef outputPort)
{
    // Only virtual outputs of this process ask for a unique ID.
    if (!constructWithEndpointRefRequestedUniqueID(endpoint, std::nullopt))
        return false;
    if (outputPort == 0) {
        VELMOR_FAILED("outputPort");
        return false;
    }
    outputPort_ = outputPort;
    return true;
}

void VelmorRemoteOutput::sendEvent(const std::shared_ptr<VelmorEvent>& event)
{
    if (!event)
        return;
    const MIDIEndpointRef destination = object();
    if (destination == 0)
        return;
    PacketListImage image;
    renderPacketListImageForEvent(event, image);
    if (image.length <= 4)
        return;
    MIDISend(outputPort_, destination, reinterpret_cast<const MIDIPacketList*>(image.bytes));
}

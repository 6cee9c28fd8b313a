#include "VelmorInProcessInternal.h"

namespace VelmorPlatform {

// --- Bytes into a source ------------------------------------------------------------------------------------

OSStatus VelmorInProcessMIDIService::injectBytes(MIDIEndpointRef source, std::span<const std::uint8_t> bytes,
                                                 MIDITimeStamp timeStamp)
{
    std::shared_ptr<const ConnectionList> connections;
    {
        std::shared_lock lock(state_->mutex);
        const Object* object = state_->find(source);
        if (!object)
            return kMIDIParamErr;
        if (object->type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        connections = object->connections;
    }
    if (connections->empty())
        return noErr;  // nobody listens
    if (timeStamp == 0)
        timeStamp = AudioGetCurrentHostTime();
    state_->dispatcher->enqueuePackets(std::move(connections), imageSizeForBytes(bytes.size()),
                                       [&](std::uint8_t* out) { writeImageForBytes(out, bytes, timeStamp); });
    return noErr;
}

OSStatus VelmorInProcessMIDIService::injectPacketList(MIDIEndpointRef source,
                                                      std::span<const std::uint8_t> packetListImage)
{
    if (!isWellFormedImage(packetListImage))
        return kMIDIParamErr;
    std::shared_ptr<const ConnectionList> connections;
    {
        std::shared_lock lock(state_->mutex);
        const Object* object = state_->find(source);
        if (!object)
            return kMIDIParamErr;
        if (object->type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        connections = object->connections;
    }
    if (connections->empty())
        return noErr;
    state_->dispatcher->enqueuePackets(std::move(connections), packetListImage.size(), [&](std::uint8_t* out) {
        std::memcpy(out, packetListImage.data(), packetListImage.size());
    });
    return noErr;
}

} // namespace VelmorPlatform

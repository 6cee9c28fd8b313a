#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

// --- Outgoing events --------------------------------------------------------------------------------

bool VelmorALSAMIDIService::State::scheduleTime(MIDITimeStamp timeStamp, snd_seq_real_time_t* out) const
{
    if (timeStamp == 0 || timeStamp <= AudioGetCurrentHostTime() || timeStamp <= queueBaseHostTime)
        return false;
    const std::uint64_t nanos = AudioConvertHostTimeToNanos(timeStamp - queueBaseHostTime);
    out->tv_sec = unsigned(nanos / 1000000000u);
    out->tv_nsec = unsigned(nanos % 1000000000u);
    return true;
}

// Sends one event, waiting for room in the sequencer's pool without holding the handle.
int VelmorALSAMIDIService::State::output(snd_seq_event_t& event)
{
    for (int attempt = 0;; ++attempt) {
        int result = 0;
        std::vector<pollfd> descriptors;
        {
            std::lock_guard<std::mutex> lock(seqMutex);
            result = snd_seq_event_output_direct(seq, &event);
            if (result != -EAGAIN)
                return result;
            descriptors.resize(std::size_t(snd_seq_poll_descriptors_count(seq, POLLOUT)));
            snd_seq_poll_descriptors(seq, descriptors.data(), unsigned(descriptors.size()), POLLOUT);
        }
        if (attempt > 5000)
            return -EAGAIN;
        poll(descriptors.data(), descriptors.size(), 2);
    }
}

namespace {

// Walks a packet-list image: calls `each(timeStamp, data, length)` for every packet.
template <class Each>
void forEachPacket(const MIDIPacketList* list, Each each)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
    std::uint32_t count = 0;
    std::memcpy(&count, bytes, 4);
    std::size_t at = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        MIDITimeStamp timeStamp = 0;
        std::uint16_t length = 0;
        std::memcpy(&timeStamp, bytes + at, 8);
        std::memcpy(&length, bytes + at + 8, 2);
        each(timeStamp, bytes + at + 10, std::size_t(length));
        at += 10 + length;
    }
}

} // namespace

// Encodes every packet with libasound's coder and sends the events from `seqPort`, to `destination` or,
// without one, to the port's subscribers.
static OSStatus sendPackets(VelmorALSAMIDIService::State& state, int seqPort, std::optional<Address> destination,
                            const MIDIPacketList* list)
{
    snd_midi_event_t* encoder = nullptr;
    if (int error = snd_midi_event_new(256, &encoder); error < 0) {
        reportFailure("snd_midi_event_new", error);
        return kMIDIUnknownEndpoint;
    }
    OSStatus status = noErr;
    forEachPacket(list, [&](MIDITimeStamp timeStamp, const std::uint8_t* data, std::size_t length) {
        snd_seq_real_time_t when {};
        const bool scheduled = state.scheduleTime(timeStamp, &when);
        std::size_t at = 0;
        while (at < length && status == noErr) {
            snd_seq_event_t event;
            snd_seq_ev_clear(&event);
            const long used = snd_midi_event_encode(encoder, data + at, long(length - at), &event);
            if (used <= 0)
                break;
            at += std::size_t(used);
            if (event.type == SND_SEQ_EVENT_NONE)
                continue;
            snd_seq_ev_set_source(&event, std::uint8_t(seqPort));
            if (destination)
                snd_seq_ev_set_dest(&event, std::uint8_t(destination->first), std::uint8_t(destination->second));
            else
                snd_seq_ev_set_subs(&event);
            if (scheduled)
                snd_seq_ev_schedule_real(&event, state.queue, 0, &when);
            else
                snd_seq_ev_set_direct(&event);
            if (int error = state.output(event); error < 0) {
                reportFailure("snd_seq_event_output_direct", error);
                status = kMIDIUnknownEndpoint;
            }
        }
    });
    snd_midi_event_free(encoder);
    return status;
}

OSStatus VelmorALSAMIDIService::received(MIDIEndpointRef source, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    int seqPort = -1;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.objects.find(source);
        if (it == state.objects.end())
            return kMIDIParamErr;
        auto port = state.ports.find(it->second.address);
        if (port == state.ports.end() || !port->second.own || port->second.source != source)
            return kMIDIUnknownEndpoint;
        seqPort = it->second.address.second;
    }
    return sendPackets(state, seqPort, std::nullopt, packetList);
}

OSStatus VelmorALSAMIDIService::send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    int seqPort = -1;
    Address address;
    bool subscribed = false;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.outputPorts.find(port);
        if (portIt == state.outputPorts.end())
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto it = state.objects.find(destination);
        if (it == state.objects.end())
            return kMIDIParamErr;
        if (it->second.type != kMIDIObjectType_Destination)
            return kMIDIUnknownEndpoint;
        seqPort = portIt->second.seqPort;
        address = it->second.address;
        subscribed = portIt->second.subscribed.count(address) > 0;
    }
    if (!subscribed) {
        // Some drivers take events only while a subscription to them exists.
        int error = 0;
        {
            std::lock_guard<std::mutex> lock(state.seqMutex);
            error = snd_seq_connect_to(state.seq, seqPort, address.first, address.second);
        }
        if (error < 0 && error != -EBUSY) {
            reportFailure("snd_seq_connect_to", error);
            return kMIDIUnknownEndpoint;
        }
        std::lock_guard<std::mutex> lock(state.mutex);
        if (auto portIt = state.outputPorts.find(port); portIt != state.outputPorts.end())
            portIt->second.subscribed.insert(address);
    }
    return sendPackets(state, seqPort, address, packetList);
}

} // namespace VelmorPlatform

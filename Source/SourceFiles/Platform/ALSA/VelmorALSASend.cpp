#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

// --- Outgoing events --------------------------------------------------------------------------------

bool VelmorALSAMIDIService::State::scheduleTime(MIDITimeStamp timeStamp, snd_seq_real_time_t* out) const
{
    // A packet stamped "now" by the sender's own thread is in the past without another clock read.
    if (timeStamp == 0 || timeStamp <= VelmorLatestHostTimeOnThisThread() || timeStamp <= queueBaseHostTime ||
        timeStamp <= AudioGetCurrentHostTime())
        return false;
    const std::uint64_t nanos = AudioConvertHostTimeToNanos(timeStamp - queueBaseHostTime);
    out->tv_sec = unsigned(nanos / 1000000000u);
    out->tv_nsec = unsigned(nanos % 1000000000u);
    return true;
}

// Sends one event. -EAGAIN means a full pool: ours (timed events waiting on the queue), or the
// receiving client's queue when it reads slower than we send. The first frees up as the queue plays
// and poll() waits for it; for the second poll() returns at once, so the sender backs off and tries
// again. Only a receiver stuck for longer than kSendPatience loses the event (with a line).
int VelmorALSAMIDIService::State::output(snd_seq_event_t& event)
{
    // A fixed-size event goes from libasound straight to one write(2) on the handle's descriptor,
    // which any thread may do at any time; a variable-size one is staged in the handle's buffer first
    // and so needs the handle's lock.
    const bool variable = snd_seq_ev_is_variable(&event);
    auto attempt = [&] {
        if (!variable)
            return snd_seq_event_output_direct(seq, &event);
        std::lock_guard<std::mutex> lock(seqMutex);
        return snd_seq_event_output_direct(seq, &event);
    };
    int result = attempt();
    if (result != -EAGAIN)
        return result;
    const auto deadline = std::chrono::steady_clock::now() + kSendPatience;
    auto pause = std::chrono::microseconds(20);
    while (result == -EAGAIN && std::chrono::steady_clock::now() < deadline) {
        std::array<pollfd, 4> descriptors {};
        const std::size_t count = std::min(descriptors.size(), outputDescriptors.size());
        std::copy_n(outputDescriptors.begin(), count, descriptors.begin());
        if (poll(descriptors.data(), count, 1) != 0) {
            std::this_thread::sleep_for(pause);
            pause = std::min(pause * 2, std::chrono::microseconds(1000));
        }
        result = attempt();
    }
    return result;
}

std::shared_ptr<const VelmorALSAMIDIService::State::SendTable> VelmorALSAMIDIService::State::currentSendTable()
{
    if (!sendTableStale.load(std::memory_order_acquire))
        if (auto table = sendTable.load(std::memory_order_acquire))
            return table;
    std::lock_guard<std::mutex> lock(mutex);
    return rebuildSendTable();
}

std::shared_ptr<const VelmorALSAMIDIService::State::SendTable> VelmorALSAMIDIService::State::rebuildSendTable()
{
    auto table = std::make_shared<SendTable>();
    table->objects.reserve(objects.size());
    for (const auto& [ref, object] : objects)
        table->objects.emplace(ref, SendTable::Entry {object.type, object.address, -1, false});
    for (const auto& [ref, port] : outputPorts) {
        table->objects[ref].outputSeqPort = port.seqPort;
        for (const Address& address : port.subscribed)
            table->subscribed.insert(subscriptionKey(port.seqPort, address));
    }
    for (const auto& [address, port] : ports)
        if (port.own && port.source)
            table->objects[port.source].ownSource = true;
    std::shared_ptr<const SendTable> result = std::move(table);
    sendTable.store(result, std::memory_order_release);
    sendTableStale.store(false, std::memory_order_release);
    return result;
}

// Encodes every packet (encodePackets, with a reused coder) and sends the events from `seqPort`, to
// `destination` or, without one, to the port's subscribers.
static OSStatus sendPackets(VelmorALSAMIDIService::State& state, int seqPort, std::optional<Address> destination,
                            const MIDIPacketList* list)
{
    VelmorALSAMIDIService::State::Coder* taken = nullptr;
    for (auto& coder : state.coders)
        if (!coder.busy.exchange(true, std::memory_order_acquire)) {
            taken = &coder;
            break;
        }
    snd_midi_event_t* encoder = taken ? taken->coder : nullptr;
    if (!encoder) {
        if (int error = snd_midi_event_new(256, &encoder); error < 0) {
            reportFailure("snd_midi_event_new", error);
            return kMIDIUnknownEndpoint;
        }
    }
    OSStatus status = noErr;
    snd_seq_real_time_t when {};
    bool scheduled = false;
    // The boundary hands over no size: the framework rendered this image from packets it made, so its
    // count and lengths are trusted here.
    const bool whole = encodePackets(
        encoder, reinterpret_cast<const std::uint8_t*>(list), std::numeric_limits<std::size_t>::max(),
        [&](MIDITimeStamp timeStamp) { scheduled = state.scheduleTime(timeStamp, &when); },
        [&](snd_seq_event_t& event) {
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
                return false;
            }
            return true;
        });
    if (!whole && status == noErr)
        status = kMIDIParamErr;
    if (taken)
        taken->busy.store(false, std::memory_order_release);
    else
        snd_midi_event_free(encoder);
    return status;
}

OSStatus VelmorALSAMIDIService::received(MIDIEndpointRef source, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    auto table = state.currentSendTable();
    auto it = table->objects.find(source);
    if (it == table->objects.end()) {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.objects.count(source))
            return kMIDIParamErr;
        table = state.rebuildSendTable();  // it was made after the table
        it = table->objects.find(source);
    }
    if (!it->second.ownSource)
        return kMIDIUnknownEndpoint;
    return sendPackets(state, it->second.address.second, std::nullopt, packetList);
}

OSStatus VelmorALSAMIDIService::send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    auto table = state.currentSendTable();
    auto portIt = table->objects.find(port);
    auto it = table->objects.find(destination);
    if (portIt == table->objects.end() || it == table->objects.end()) {
        // Gone (an output may outlive its destination), or made after the table: the model decides.
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.objects.count(port))
            return kMIDIParamErr;
        if (!state.outputPorts.count(port))
            return kMIDIInvalidPort;
        if (!state.objects.count(destination))
            return kMIDIParamErr;
        table = state.rebuildSendTable();
        portIt = table->objects.find(port);
        it = table->objects.find(destination);
    }
    if (portIt->second.outputSeqPort < 0)
        return kMIDIInvalidPort;
    if (it->second.type != kMIDIObjectType_Destination)
        return kMIDIUnknownEndpoint;
    const int seqPort = portIt->second.outputSeqPort;
    const Address address = it->second.address;
    if (!table->subscribed.count(subscriptionKey(seqPort, address))) {
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
        if (auto portEntry = state.outputPorts.find(port); portEntry != state.outputPorts.end()) {
            portEntry->second.subscribed.insert(address);
            state.rebuildSendTable();
        }
    }
    return sendPackets(state, seqPort, address, packetList);
}

} // namespace VelmorPlatform

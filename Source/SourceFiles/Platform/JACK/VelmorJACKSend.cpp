// The JACK service's outgoing MIDI: the caller's thread cuts packets into JACK events and puts them
// into a ring; the process callback writes each in the cycle it is due, at its frame.

#include "VelmorJACKInternal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace VelmorPlatform {

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

// The length of the message at `data`: a JACK event carries one message. An exclusive message runs to
// its 0xF7; a run of data bytes (the rest of an exclusive message sent in several packets) to the next
// status byte, or through a closing 0xF7.
std::size_t messageLength(const std::uint8_t* data, std::size_t length)
{
    const std::uint8_t status = data[0];
    std::size_t wanted = 1;
    if (status < 0x80 || status == 0xF0 || status == 0xF7) {
        std::size_t at = 1;
        while (at < length && data[at] != 0xF7 && (data[at] < 0x80 || status == 0xF0))
            ++at;
        wanted = at < length && data[at] == 0xF7 ? at + 1 : at;
        if (status == 0xF7)
            wanted = 1;
    } else if (status < 0xC0 || (status >= 0xE0 && status < 0xF0) || status == 0xF2)
        wanted = 3;
    else if (status < 0xE0 || status == 0xF1 || status == 0xF3)
        wanted = 2;
    return std::min(wanted, length);
}

} // namespace

OSStatus VelmorJACKMIDIService::State::writePackets(std::size_t index, std::uint64_t generation,
                                                    const MIDIPacketList* list)
{
    Slot& slot = slots[index];
    std::lock_guard<std::mutex> writer(slot.writer);
    OSStatus status = noErr;
    auto put = [&](jack_time_t due, const std::uint8_t* bytes, std::size_t length) {
        const JACK::RingRecord record {due, std::uint32_t(length), 0};
        // A full ring empties at the pace of the cycles; a send waits for room rather than lose bytes.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (jack_ringbuffer_write_space(slot.ring) < sizeof record + length) {
            if (slot.state.load() != Slot::Output || slot.generation.load() != generation || !jack() || serverGone) {
                status = kMIDIUnknownEndpoint;
                return;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                std::fprintf(stderr, "VelmorJACKMIDIService: sending failed: the JACK port takes nothing\n");
                status = kMIDIUnknownEndpoint;
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        jack_ringbuffer_write(slot.ring, reinterpret_cast<const char*>(&record), sizeof record);
        jack_ringbuffer_write(slot.ring, reinterpret_cast<const char*>(bytes), length);
    };
    if (slot.state.load() != Slot::Output || slot.generation.load() != generation)
        return kMIDIUnknownEndpoint;
    forEachPacket(list, [&](MIDITimeStamp timeStamp, const std::uint8_t* data, std::size_t length) {
        const jack_time_t due = timeStamp ? jackTimeOfHostTime(timeStamp) : 0;
        for (std::size_t at = 0; at < length && status == noErr;) {
            const std::size_t message = messageLength(data + at, length - at);
            for (std::size_t piece = 0; piece < message && status == noErr; piece += JACK::kPieceBytes)
                put(due, data + at + piece, std::min(JACK::kPieceBytes, message - piece));
            at += message;
        }
    });
    return status;
}

// Real-time thread: writes what is due in this cycle, in order, at its frame; what is due later, or
// doesn't fit in the port's buffer, waits in the ring for a later cycle.
void VelmorJACKMIDIService::State::processOutput(Slot& slot, jack_nframes_t frames, jack_nframes_t cycleStart)
{
    void* buffer = jack_port_get_buffer(slot.port, frames);
    if (!buffer)
        return;
    jack_midi_clear_buffer(buffer);
    jack_client_t* handle = jack();
    jack_nframes_t lastOffset = 0;
    for (;;) {
        JACK::RingRecord record {};
        if (!JACK::peekWholeRecord(slot.ring, record))
            break;
        jack_nframes_t offset = 0;
        if (record.jackTime) {
            const auto delta = std::int32_t(jack_time_to_frames(handle, record.jackTime) - cycleStart);
            if (delta >= std::int32_t(frames))
                break;  // due in a later cycle
            if (delta > 0)
                offset = jack_nframes_t(delta);
        }
        offset = std::max(offset, lastOffset);  // events of a cycle go in time order
        if (jack_midi_max_event_size(buffer) < record.length)
            break;
        jack_midi_data_t* place = jack_midi_event_reserve(buffer, offset, record.length);
        if (!place)
            break;
        jack_ringbuffer_read_advance(slot.ring, sizeof record);
        jack_ringbuffer_read(slot.ring, reinterpret_cast<char*>(place), record.length);
        lastOffset = offset;
    }
}

OSStatus VelmorJACKMIDIService::received(MIDIEndpointRef source, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    std::size_t slot = 0;
    std::uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.model.objects.find(source);
        if (it == state.model.objects.end())
            return kMIDIParamErr;
        auto port = state.ports.find(it->second.jackName);
        if (port == state.ports.end() || !port->second.own || port->second.endpoint != source)
            return kMIDIUnknownEndpoint;
        slot = port->second.slot;
        generation = state.slots[slot].generation.load();
    }
    return state.writePackets(slot, generation, packetList);
}

OSStatus VelmorJACKMIDIService::send(MIDIPortRef port, MIDIEndpointRef destination, const MIDIPacketList* packetList)
{
    if (!packetList)
        return kMIDIParamErr;
    State& state = *state_;
    std::optional<std::size_t> slot;
    std::uint64_t generation = 0;
    std::string destinationName;
    std::string slotName;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.outputPorts.find(port);
        if (portIt == state.outputPorts.end())
            return state.otherRefs.count(port) || state.model.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto it = state.model.objects.find(destination);
        if (it == state.model.objects.end())
            return kMIDIParamErr;
        if (it->second.type != kMIDIObjectType_Destination)
            return kMIDIUnknownEndpoint;
        if (auto known = portIt->second.destinations.find(destination); known != portIt->second.destinations.end()) {
            slot = known->second;
            generation = state.slots[*slot].generation.load();
        } else {
            destinationName = it->second.jackName;
            slotName = portIt->second.name + " " + std::to_string(state.nextPortNumber++);
        }
    }
    if (!slot) {
        // The first send to a destination makes our port for it and connects it.
        slot = state.claimSlot(State::Slot::Output, slotName, true);
        if (!slot)
            return kMIDIUnknownEndpoint;
        const std::string ours = jack_port_name(state.slots[*slot].port);
        const int error = JACK::connectPorts(state.jack(), ours.c_str(), destinationName.c_str());
        if (error != 0 && error != EEXIST) {
            std::fprintf(stderr, "VelmorJACKMIDIService: jack_connect %s -> %s failed\n", ours.c_str(),
                         destinationName.c_str());
            state.releaseSlot(*slot);
            return kMIDIUnknownEndpoint;
        }
        // JACK makes a connection effective at a later cycle: what we wrote before would go nowhere.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
        while (jack_port_connected(state.slots[*slot].port) <= 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        state.waitForCycles(2);
        bool kept = false;
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            auto portIt = state.outputPorts.find(port);
            if (portIt != state.outputPorts.end() && state.model.objects.count(destination)) {
                auto [entry, inserted] = portIt->second.destinations.emplace(destination, *slot);
                kept = inserted;
                if (!inserted) {  // another thread was first
                    state.pendingReleases.push_back(*slot);
                    slot = entry->second;
                }
                generation = state.slots[*slot].generation.load();
            } else {
                state.pendingReleases.push_back(*slot);
                slot.reset();
            }
        }
        if (!kept)
            state.releasePending();
        if (!slot)
            return kMIDIParamErr;
    }
    return state.writePackets(*slot, generation, packetList);
}

} // namespace VelmorPlatform

// The JACK service's incoming MIDI: from the process callback through a ring to the service thread,
// which joins exclusive messages, builds packet lists and calls the read procedures.

#include "VelmorJACKInternal.h"

#include <algorithm>
#include <cstring>

#include "VelmorHostClock.h"

namespace VelmorPlatform {

// Real-time thread: copy each event with its time into the slot's ring; count what doesn't fit.
void VelmorJACKMIDIService::State::processInput(Slot& slot, jack_nframes_t frames, jack_nframes_t cycleStart,
                                                bool& wrote)
{
    void* buffer = jack_port_get_buffer(slot.port, frames);
    if (!buffer)
        return;
    // The frames of a cycle stand for the period that has just passed: an event is stamped with the
    // time of its frame one period earlier, so that no stamp lies after the moment it reaches us.
    jack_nframes_t currentFrames = 0;
    jack_time_t currentMicros = 0;
    jack_time_t nextMicros = 0;
    float periodMicros = 0;
    if (jack_get_cycle_times(jack(), &currentFrames, &currentMicros, &nextMicros, &periodMicros) != 0 ||
        currentFrames != cycleStart || nextMicros <= currentMicros) {
        currentMicros = jack_frames_to_time(jack(), cycleStart);
        nextMicros = currentMicros + jack_time_t(double(frames) * 1e6 / 48000.0);
    }
    const double span = double(nextMicros - currentMicros);
    const double microsPerFrame = span / double(frames ? frames : 1);
    const jack_nframes_t count = jack_midi_get_event_count(buffer);
    for (jack_nframes_t i = 0; i < count; ++i) {
        jack_midi_event_t event;
        if (jack_midi_event_get(&event, buffer, i) != 0 || event.size == 0)
            continue;
        const double at = double(currentMicros) - span + double(event.time) * microsPerFrame;
        const JACK::RingRecord record {at > 0 ? jack_time_t(at) : 0, std::uint32_t(event.size), 0};
        if (jack_ringbuffer_write_space(slot.ring) < sizeof record + event.size) {
            slot.dropped.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        jack_ringbuffer_write(slot.ring, reinterpret_cast<const char*>(&record), sizeof record);
        jack_ringbuffer_write(slot.ring, reinterpret_cast<const char*>(event.buffer), event.size);
        wrote = true;
    }
}

namespace {

// Appends `length` bytes as packets of at most 65535 bytes to a packet-list image whose count is
// fixed up when it is handed on.
void appendPackets(std::vector<std::uint8_t>& image, std::size_t& packets, const std::uint8_t* bytes,
                   std::size_t length, MIDITimeStamp timeStamp)
{
    if (image.empty())
        image.resize(4);
    for (std::size_t offset = 0; offset < length;) {
        const auto piece = std::uint16_t(std::min(JACK::kMaxPacketBytes, length - offset));
        const std::size_t at = image.size();
        image.resize(at + 10 + piece);
        std::memcpy(image.data() + at, &timeStamp, 8);
        std::memcpy(image.data() + at + 8, &piece, 2);
        std::memcpy(image.data() + at + 10, bytes + offset, piece);
        offset += piece;
        ++packets;
    }
}

} // namespace

// Service thread, mutex held. One JACK event is one message or one piece of an exclusive message.
void VelmorJACKMIDIService::State::handleMessage(MIDIPortRef port, MIDIEndpointRef source, Connection& connection,
                                                 const std::uint8_t* bytes, std::size_t length,
                                                 MIDITimeStamp timeStamp, std::vector<std::uint8_t>& image,
                                                 std::size_t& packets)
{
    auto flush = [&] {
        if (!packets)
            return;
        const auto count = std::uint32_t(packets);
        std::memcpy(image.data(), &count, 4);
        Delivery delivery;
        delivery.kind = Delivery::Kind::Packets;
        delivery.port = port;
        delivery.source = source;
        delivery.image = std::move(image);
        deliveries.push_back(std::move(delivery));
        image.clear();
        packets = 0;
    };
    auto deliver = [&](const std::uint8_t* message, std::size_t size, MIDITimeStamp stamp) {
        if (image.size() + size > JACK::kMaxPacketBytes)
            flush();  // lists stay small, and never split a message between two lists
        appendPackets(image, packets, message, size, stamp);
    };
    if (!bytes) {  // the end of a pass
        flush();
        return;
    }
    auto& pending = connection.pendingExclusive;
    if (!pending.empty()) {
        if (bytes[0] < 0x80 || bytes[0] == 0xF7) {  // the next piece
            pending.insert(pending.end(), bytes, bytes + length);
            if (pending.back() == 0xF7 || pending.size() >= JACK::kMaxPendingExclusive) {
                deliver(pending.data(), pending.size(), connection.pendingTimeStamp);
                pending.clear();
            }
            return;
        }
        if (bytes[0] >= 0xF8) {  // real-time messages may come between the pieces
            deliver(bytes, length, timeStamp);
            return;
        }
        deliver(pending.data(), pending.size(), connection.pendingTimeStamp);  // cut short by another message
        pending.clear();
    }
    if (bytes[0] == 0xF0 && bytes[length - 1] != 0xF7) {
        pending.assign(bytes, bytes + length);
        connection.pendingTimeStamp = timeStamp;
        return;
    }
    deliver(bytes, length, timeStamp);
}

// Service thread: empties the rings of every connection into deliveries, in order.
void VelmorJACKMIDIService::State::drainInputs()
{
    std::vector<std::uint8_t> bytes;
    std::vector<std::uint8_t> image;
    std::lock_guard<std::mutex> lock(mutex);
    const MIDITimeStamp now = AudioGetCurrentHostTime();
    for (auto& [portRef, inputPort] : inputPorts) {
        for (auto& [sourceRef, connection] : inputPort.connections) {
            Slot& slot = slots[connection.slot];
            if (slot.state.load() != Slot::Input)
                continue;
            std::size_t packets = 0;
            image.clear();
            for (;;) {
                JACK::RingRecord record {};
                if (!JACK::peekWholeRecord(slot.ring, record))
                    break;
                jack_ringbuffer_read_advance(slot.ring, sizeof record);
                bytes.resize(record.length);
                jack_ringbuffer_read(slot.ring, reinterpret_cast<char*>(bytes.data()), record.length);
                // JACK's estimate of a cycle's time moves when a cycle runs late: keep one source's
                // stamps in order, and none after the moment we hold the event.
                const MIDITimeStamp stamp =
                    std::max(std::min(hostTimeOfJackTime(record.jackTime), now), connection.lastTimeStamp);
                connection.lastTimeStamp = stamp;
                if (record.length)
                    handleMessage(portRef, sourceRef, connection, bytes.data(), bytes.size(), stamp, image, packets);
            }
            handleMessage(portRef, sourceRef, connection, nullptr, 0, 0, image, packets);
            if (const std::uint64_t lost = slot.dropped.exchange(0)) {
                Delivery delivery;
                delivery.kind = Delivery::Kind::Dropped;
                delivery.port = portRef;
                delivery.source = sourceRef;
                delivery.count = lost;
                deliveries.push_back(std::move(delivery));
            }
        }
    }
}

// Service thread: hands every delivery to its callback, one at a time, holding callbackMutex so that
// ending a registration can wait for a callback that is running.
void VelmorJACKMIDIService::State::dispatch()
{
    for (;;) {
        std::lock_guard<std::mutex> callbacks(callbackMutex);
        if (stopping)
            return;
        Delivery delivery;
        std::vector<Client> targets;
        MIDIReadProc readProc = nullptr;
        void* readRefCon = nullptr;
        void* connectionRefCon = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (deliveries.empty())
                return;
            delivery = std::move(deliveries.front());
            deliveries.pop_front();
            if (delivery.kind == Delivery::Kind::Notification) {
                for (auto& [ref, client] : clients)
                    if (client.notifyProc)
                        targets.push_back(client);
            } else if (delivery.kind == Delivery::Kind::Packets || delivery.kind == Delivery::Kind::Dropped) {
                auto port = inputPorts.find(delivery.port);
                if (port == inputPorts.end())
                    continue;
                auto connection = port->second.connections.find(delivery.source);
                if (connection == port->second.connections.end())
                    continue;
                readProc = port->second.readProc;
                readRefCon = port->second.refCon;
                connectionRefCon = connection->second.refCon;
                if (delivery.kind == Delivery::Kind::Dropped)
                    if (auto client = clients.find(port->second.client); client != clients.end())
                        targets.push_back(client->second);
            }
        }
        switch (delivery.kind) {
        case Delivery::Kind::Notification:
            if (delivery.property.messageID == kMIDIMsgPropertyChanged) {
                delivery.property.propertyName = delivery.propertyName.c_str();
                for (const Client& client : targets)
                    client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.property), client.refCon);
            } else {
                for (const Client& client : targets)
                    client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.addRemove), client.refCon);
            }
            break;
        case Delivery::Kind::Packets:
            if (readProc)
                readProc(reinterpret_cast<const MIDIPacketList*>(delivery.image.data()), readRefCon, connectionRefCon);
            break;
        case Delivery::Kind::Dropped: {
            const MIDIInputDroppedNotification record {kMIDIMsgVelmorInputDropped, sizeof(MIDIInputDroppedNotification),
                                                       delivery.port, delivery.source, delivery.count};
            for (const Client& client : targets)
                if (client.notifyProc)
                    client.notifyProc(reinterpret_cast<const MIDINotification*>(&record), client.refCon);
            break;
        }
        case Delivery::Kind::Marker: {
            std::lock_guard<std::mutex> lock(markerMutex);
            markersHandled = std::max(markersHandled, delivery.count);
            markerDone.notify_all();
            break;
        }
        }
    }
}

} // namespace VelmorPlatform

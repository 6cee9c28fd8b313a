#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

// --- Incoming events --------------------------------------------------------------------------------

MIDITimeStamp VelmorALSAMIDIService::State::hostTimeOf(const snd_seq_event_t& event) const
{
    if ((event.flags & SND_SEQ_TIME_STAMP_MASK) == SND_SEQ_TIME_STAMP_REAL && event.queue == queue) {
        const std::uint64_t nanos = std::uint64_t(event.time.time.tv_sec) * 1000000000u + event.time.time.tv_nsec;
        if (nanos)
            return queueBaseHostTime + AudioConvertNanosToHostTime(nanos);
    }
    return AudioGetCurrentHostTime();
}

void VelmorALSAMIDIService::State::handleMIDI(const snd_seq_event_t& event, std::vector<std::uint8_t>& bytes)
{
    // libasound's coder turns the event back into bytes; what isn't MIDI (subscription notices) fails here.
    const std::size_t room = snd_seq_ev_is_variable(&event) ? event.data.ext.len + 16 : 16;
    bytes.resize(room);
    snd_seq_event_t copy = event;
    snd_midi_event_reset_decode(decoder);
    const long length = snd_midi_event_decode(decoder, bytes.data(), long(room), &copy);
    if (length <= 0)
        return;
    bytes.resize(std::size_t(length));
    const MIDITimeStamp timeStamp = hostTimeOf(event);

    std::lock_guard<std::mutex> lock(mutex);
    auto portIt = std::find_if(inputPorts.begin(), inputPorts.end(),
                               [&](const auto& entry) { return entry.second.seqPort == event.dest.port; });
    if (portIt == inputPorts.end())
        return;
    auto sourceIt = ports.find({event.source.client, event.source.port});
    if (sourceIt == ports.end() || !sourceIt->second.source)
        return;
    auto connectionIt = portIt->second.connections.find(sourceIt->second.source);
    if (connectionIt == portIt->second.connections.end())
        return;
    Connection& connection = connectionIt->second;
    auto deliver = [&](const std::vector<std::uint8_t>& message, MIDITimeStamp stamp) {
        Delivery delivery;
        delivery.kind = Delivery::Kind::Packets;
        delivery.port = portIt->first;
        delivery.source = connectionIt->first;
        delivery.image = packetListImage(message, stamp);
        deliveries.push_back(std::move(delivery));
    };
    const bool exclusive = event.type == SND_SEQ_EVENT_SYSEX;
    auto& pending = connection.pendingExclusive;
    if (!pending.empty()) {
        if (exclusive) {
            pending.insert(pending.end(), bytes.begin(), bytes.end());
            if (pending.back() == 0xF7 || pending.size() >= kMaxPendingExclusive) {
                deliver(pending, connection.pendingTimeStamp);
                pending.clear();
            }
            return;
        }
        if (bytes[0] >= 0xF8) {  // real-time messages may come between the pieces
            deliver(bytes, timeStamp);
            return;
        }
        deliver(pending, connection.pendingTimeStamp);  // cut short by another message
        pending.clear();
    }
    if (exclusive && bytes[0] == 0xF0 && bytes.back() != 0xF7) {
        pending = bytes;
        connection.pendingTimeStamp = timeStamp;
        return;
    }
    deliver(bytes, timeStamp);
}

void VelmorALSAMIDIService::State::dispatch()
{
    for (;;) {
        std::lock_guard<std::mutex> callbacks(callbackMutex);
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
            } else if (delivery.kind == Delivery::Kind::Packets) {
                auto port = inputPorts.find(delivery.port);
                if (port == inputPorts.end())
                    continue;
                auto connection = port->second.connections.find(delivery.source);
                if (connection == port->second.connections.end())
                    continue;
                readProc = port->second.readProc;
                readRefCon = port->second.refCon;
                connectionRefCon = connection->second.refCon;
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
        case Delivery::Kind::Marker: {
            std::lock_guard<std::mutex> lock(markerMutex);
            markersHandled = std::max(markersHandled, delivery.marker);
            markerDone.notify_all();
            break;
        }
        }
    }
}

} // namespace VelmorPlatform

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

// Takes everything the sequencer has ready, in one read where it can, copying it out of libasound's
// buffer so that the handle is free again at once.
void VelmorALSAMIDIService::State::takeBurst()
{
    burst.clear();
    dataAt.clear();
    burstData.clear();
    std::lock_guard<std::mutex> lock(seqMutex);
    for (;;) {
        snd_seq_event_t* event = nullptr;
        const int result = snd_seq_event_input(seq, &event);
        if (result == -ENOSPC) {
            // The kernel's queue for this client overflowed and was emptied: events are lost.
            ++overruns;
            continue;
        }
        if (result < 0 || !event)
            break;
        burst.push_back(*event);
        dataAt.push_back(burstData.size());
        if (snd_seq_ev_is_variable(event) && event->data.ext.len) {
            const auto* data = static_cast<const std::uint8_t*>(event->data.ext.ptr);
            burstData.insert(burstData.end(), data, data + event->data.ext.len);
        }
        if (snd_seq_event_input_pending(seq, 0) == 0)
            break;
    }
}

namespace {

// The length of the message at `data` as the framework cuts a packet: channel messages by their
// status, anything else up to and including the first 0xF7, or to the end.
std::size_t cutLength(const std::uint8_t* data, std::size_t length)
{
    const std::uint8_t status = data[0];
    std::size_t wanted = 0;
    if (status >= 0x80 && status < 0xC0)
        wanted = 3;
    else if (status >= 0xC0 && status < 0xE0)
        wanted = 2;
    else if (status >= 0xE0 && status < 0xF0)
        wanted = 3;
    else {
        const void* end = std::memchr(data, 0xF7, length);
        wanted = end ? std::size_t(static_cast<const std::uint8_t*>(end) - data) + 1 : length;
    }
    return std::min(wanted, length);
}

// True when the framework would join the next packet of the same list onto this one: its last
// message is cut short (a channel or system common message without all its bytes, or an exclusive
// message without its 0xF7).
bool endsInsideMessage(const std::uint8_t* data, std::size_t length)
{
    std::size_t last = 0;
    for (std::size_t at = 0; at < length; at += cutLength(data + at, length - at))
        last = at;
    for (std::size_t at = last; at < length;) {
        const std::uint8_t status = data[at];
        std::size_t size = 1;
        if (status >= 0x80 && status < 0xC0)
            size = 3;
        else if (status >= 0xC0 && status < 0xE0)
            size = 2;
        else if (status >= 0xE0 && status < 0xF0)
            size = 3;
        else if (status == 0xF0) {
            const void* end = at + 1 < length ? std::memchr(data + at + 1, 0xF7, length - at - 1) : nullptr;
            if (!end)
                return true;
            size = std::size_t(static_cast<const std::uint8_t*>(end) - (data + at)) + 1;
        } else if (status == 0xF1 || status == 0xF3)
            size = 2;
        else if (status == 0xF2)
            size = 3;
        if (size > length - at)
            return true;
        at += size;
    }
    return false;
}

} // namespace

EventBytes ALSAInternal::eventBytes(snd_midi_event_t* decoder, const snd_seq_event_t& event, const std::uint8_t* data,
                                   std::uint8_t (&coded)[16])
{
    EventBytes out;
    if (event.type == SND_SEQ_EVENT_SYSEX) {
        if (snd_seq_ev_is_variable(&event) && event.data.ext.len)
            out = {data, event.data.ext.len, true};
        return out;
    }
    snd_midi_event_reset_decode(decoder);
    const long decoded = snd_midi_event_decode(decoder, coded, long(sizeof coded), &event);
    if (decoded > 0)
        out = {coded, std::size_t(decoded), false};
    return out;
}

void ListImage::append(const std::uint8_t* bytes, std::size_t length, MIDITimeStamp timeStamp)
{
    const std::size_t packets = std::max<std::size_t>(1, (length + kMaxPacketBytes - 1) / kMaxPacketBytes);
    std::size_t at = image.size();
    image.resize(at + packets * 10 + length);
    std::uint8_t* out = image.data();
    for (std::size_t offset = 0, i = 0; i < packets; ++i) {
        const auto size = std::uint16_t(std::min(kMaxPacketBytes, length - offset));
        std::memcpy(out + at, &timeStamp, 8);
        std::memcpy(out + at + 8, &size, 2);
        if (size)
            std::memcpy(out + at + 10, bytes + offset, size);
        at += 10 + size;
        offset += size;
    }
    count += std::uint32_t(packets);
    std::memcpy(out, &count, 4);
    const std::size_t lastSize = length - (packets - 1) * kMaxPacketBytes;
    if (endsInsideMessage(bytes + length - lastSize, lastSize))
        open = false;
}

// Routes one MIDI event to its connection and adds its bytes to the list for that connection,
// joining an exclusive message that the sequencer split into several events. Takes `lock` (the
// model's mutex) if it isn't held yet and leaves it held, so that a run of events takes it once.
void VelmorALSAMIDIService::State::handleMIDI(const snd_seq_event_t& event, const std::uint8_t* data,
                                              std::unique_lock<std::mutex>& lock)
{
    std::uint8_t coded[16];
    const EventBytes bytes = eventBytes(decoder, event, data, coded);
    if (!bytes.length)
        return;
    const MIDITimeStamp timeStamp = hostTimeOf(event);

    if (!lock.owns_lock())
        lock.lock();
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
    const MIDIPortRef port = portIt->first;
    const MIDIEndpointRef source = connectionIt->first;
    connectionIt->second.joiner.take(bytes, timeStamp,
                                     [&](const std::uint8_t* message, std::size_t length, MIDITimeStamp stamp) {
                                         appendMessage(port, source, message, length, stamp);
                                     });
}

// Adds one message to the list being filled for (port, source). The connection's next list begins
// when its list no longer takes it.
void VelmorALSAMIDIService::State::appendMessage(MIDIPortRef port, MIDIEndpointRef source, const std::uint8_t* bytes,
                                                 std::size_t length, MIDITimeStamp timeStamp)
{
    OutgoingList* list = nullptr;
    for (std::size_t i = listsUsed; i-- > 0;)
        if (lists[i].port == port && lists[i].source == source) {
            if (lists[i].takes(length))
                list = &lists[i];
            break;
        }
    if (!list) {
        if (listsUsed == lists.size())
            lists.emplace_back();
        list = &lists[listsUsed++];
        list->port = port;
        list->source = source;
        list->start();
    }
    list->append(bytes, length, timeStamp);
}

// Hands the filled lists to their read procedures, in order. A connection ended meanwhile gets
// nothing: its end waits for callbackMutex, so once it has returned no list of it is delivered.
void VelmorALSAMIDIService::State::deliverLists()
{
    for (std::size_t i = 0; i < listsUsed; ++i) {
        OutgoingList& list = lists[i];
        std::lock_guard<std::mutex> callbacks(callbackMutex);
        MIDIReadProc readProc = nullptr;
        void* readRefCon = nullptr;
        void* connectionRefCon = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto port = inputPorts.find(list.port);
            if (port == inputPorts.end())
                continue;
            auto connection = port->second.connections.find(list.source);
            if (connection == port->second.connections.end())
                continue;
            readProc = port->second.readProc;
            readRefCon = port->second.refCon;
            connectionRefCon = connection->second.refCon;
        }
        if (readProc)
            readProc(reinterpret_cast<const MIDIPacketList*>(list.image.data()), readRefCon, connectionRefCon);
    }
    for (std::size_t i = 0; i < listsUsed; ++i)
        if (lists[i].image.capacity() > 4 * kListBytes)
            std::vector<std::uint8_t>().swap(lists[i].image);  // after a huge exclusive message
    listsUsed = 0;
}

// The sequencer lost events on their way to this client, and can't say whose: every input port with
// a connection hears of it, with no source and no count.
void VelmorALSAMIDIService::State::reportOverrun()
{
    std::fprintf(stderr, "VelmorALSAMIDIService: input overrun, events lost\n");
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& [ref, port] : inputPorts) {
        if (port.connections.empty())
            continue;
        Delivery delivery;
        delivery.kind = Delivery::Kind::InputDropped;
        delivery.dropped = {kMIDIMsgVelmorInputDropped, sizeof(MIDIInputDroppedNotification), ref, 0, 0};
        deliveries.push_back(std::move(delivery));
    }
}

void VelmorALSAMIDIService::State::dispatch()
{
    for (;;) {
        std::lock_guard<std::mutex> callbacks(callbackMutex);
        Delivery delivery;
        std::vector<Client> targets;
        {
            std::lock_guard<std::mutex> lock(mutex);
            publishSnapshots();  // a callback reads what its record reports
            if (deliveries.empty())
                return;
            delivery = std::move(deliveries.front());
            deliveries.pop_front();
            if (delivery.kind == Delivery::Kind::Notification) {
                for (auto& [ref, client] : clients)
                    if (client.notifyProc)
                        targets.push_back(client);
            } else if (delivery.kind == Delivery::Kind::InputDropped) {
                // To the client that owns the port, if both are still there.
                auto port = inputPorts.find(delivery.dropped.port);
                auto client = port != inputPorts.end() ? clients.find(port->second.client) : clients.end();
                if (client != clients.end() && client->second.notifyProc)
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
        case Delivery::Kind::InputDropped:
            for (const Client& client : targets)
                client.notifyProc(reinterpret_cast<const MIDINotification*>(&delivery.dropped), client.refCon);
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

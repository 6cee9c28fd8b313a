#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

// --- Records to the clients -------------------------------------------------------------------------

void VelmorALSAMIDIService::State::notifyAddRemove(MIDINotificationMessageID id, MIDIObjectRef parent,
                                                   MIDIObjectType parentType, MIDIObjectRef child,
                                                   MIDIObjectType childType)
{
    Delivery delivery;
    delivery.addRemove = {id, sizeof(MIDIObjectAddRemoveNotification), parent, parentType, child, childType};
    deliveries.push_back(std::move(delivery));
}

void VelmorALSAMIDIService::State::notifyProperty(MIDIObjectRef object, MIDIObjectType type, std::string_view property)
{
    Delivery delivery;
    delivery.property = {kMIDIMsgPropertyChanged, sizeof(MIDIObjectPropertyChangeNotification), object, type, nullptr};
    delivery.propertyName = property;
    deliveries.push_back(std::move(delivery));
}

// --- What the sequencer announces -------------------------------------------------------------------

// After an overrun announcements may have been lost too: compare the model with what the sequencer
// lists now, and add and remove what differs as the announcements would have.
void VelmorALSAMIDIService::State::resync()
{
    std::vector<int> clientNumbers;
    {
        std::lock_guard<std::mutex> lock(seqMutex);
        snd_seq_client_info_t* info = nullptr;
        snd_seq_client_info_alloca(&info);
        snd_seq_client_info_set_client(info, -1);
        while (snd_seq_query_next_client(seq, info) >= 0)
            clientNumbers.push_back(snd_seq_client_info_get_client(info));
    }
    std::set<Address> listed;
    for (int number : clientNumbers) {
        if (number == SND_SEQ_CLIENT_SYSTEM || number == myClient)
            continue;
        auto facts = queryClient(number);
        if (!facts)
            continue;
        auto portList = queryPorts(number);
        std::lock_guard<std::mutex> lock(mutex);
        updateClient(number, *facts);
        for (auto& [address, portFacts] : portList) {
            listed.insert(address);
            if (ports.count(address))
                updatePort(address, portFacts);
            else
                addPort(address, portFacts, *facts, false, 0);
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Address> gone;
    for (auto& [address, port] : ports)
        if (!port.own && !listed.count(address))
            gone.push_back(address);
    for (const Address& address : gone)
        removePort(address);
}

void VelmorALSAMIDIService::State::handleAnnouncement(const snd_seq_event_t& event)
{
    const Address address {event.data.addr.client, event.data.addr.port};
    if (address.first == myClient || address.first == SND_SEQ_CLIENT_SYSTEM)
        return;  // our own ports are entered when they are made
    switch (event.type) {
    case SND_SEQ_EVENT_PORT_START: {
        auto client = queryClient(address.first);
        auto port = queryPort(address);
        if (!client || !port)
            return;
        std::lock_guard<std::mutex> lock(mutex);
        addPort(address, *port, *client, false, 0);
        break;
    }
    case SND_SEQ_EVENT_PORT_EXIT: {
        std::lock_guard<std::mutex> lock(mutex);
        removePort(address);
        break;
    }
    case SND_SEQ_EVENT_PORT_CHANGE: {
        auto port = queryPort(address);
        if (!port)
            return;
        auto client = queryClient(address.first);
        std::lock_guard<std::mutex> lock(mutex);
        if (ports.count(address))
            updatePort(address, *port);
        else if (client)
            addPort(address, *port, *client, false, 0);  // it may have become a MIDI port
        break;
    }
    case SND_SEQ_EVENT_CLIENT_EXIT: {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = devices.find(address.first);
        if (it == devices.end())
            return;
        const auto portNumbers = it->second.ports;
        for (int port : portNumbers)
            removePort({address.first, port});
        break;
    }
    case SND_SEQ_EVENT_CLIENT_CHANGE: {
        if (auto client = queryClient(address.first)) {
            std::lock_guard<std::mutex> lock(mutex);
            updateClient(address.first, *client);
        }
        break;
    }
    default:
        break;  // client start: its ports announce themselves
    }
}

void VelmorALSAMIDIService::State::updateClient(int client, const ClientFacts& facts)
{
    auto it = devices.find(client);
    if (it == devices.end())
        return;
    Device& device = it->second;
    const bool renamed = device.facts.name != facts.name;
    device.facts = facts;
    if (renamed)
        notifyProperty(device.ref, kMIDIObjectType_Device, kMIDIPropertyName);
}

// The sequencer announces no rename of a port (and not every change of a client), so the service looks
// at the names of other programs' ports and clients from time to time.
void VelmorALSAMIDIService::State::rescan()
{
    std::vector<Address> portAddresses;
    std::vector<int> clientNumbers;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& [address, port] : ports)
            if (!port.own)
                portAddresses.push_back(address);
        for (auto& [number, device] : devices)
            if (number != myClient)
                clientNumbers.push_back(number);
    }
    for (int number : clientNumbers) {
        std::string name;
        {
            std::lock_guard<std::mutex> lock(seqMutex);
            snd_seq_client_info_t* info = nullptr;
            snd_seq_client_info_alloca(&info);
            if (snd_seq_get_any_client_info(seq, number, info) < 0)
                continue;
            name = snd_seq_client_info_get_name(info);
        }
        std::unique_lock<std::mutex> lock(mutex);
        auto it = devices.find(number);
        if (it == devices.end() || it->second.facts.name == name)
            continue;
        lock.unlock();
        if (auto facts = queryClient(number)) {
            lock.lock();
            updateClient(number, *facts);
        }
    }
    for (const Address& address : portAddresses) {
        auto facts = queryPort(address);
        if (!facts)
            continue;  // gone: its exit is announced
        std::lock_guard<std::mutex> lock(mutex);
        auto it = ports.find(address);
        if (it != ports.end() && (it->second.facts.name != facts->name || it->second.facts.caps != facts->caps))
            updatePort(address, *facts);
    }
}

} // namespace VelmorPlatform

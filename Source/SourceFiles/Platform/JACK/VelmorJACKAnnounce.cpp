// The JACK service's announcements: JACK's port list and metadata become added / removed /
// property-changed records.

#include "VelmorJACKInternal.h"

#include <jack/metadata.h>

#include <cstring>

namespace VelmorPlatform {

void VelmorJACKMIDIService::State::notifyAddRemove(MIDINotificationMessageID id, MIDIObjectRef parent,
                                                   MIDIObjectType parentType, MIDIObjectRef child,
                                                   MIDIObjectType childType)
{
    Delivery delivery;
    delivery.addRemove = {id, sizeof(MIDIObjectAddRemoveNotification), parent, parentType, child, childType};
    deliveries.push_back(std::move(delivery));
}

void VelmorJACKMIDIService::State::notifyProperty(MIDIObjectRef object, MIDIObjectType type, std::string_view property)
{
    Delivery delivery;
    delivery.property = {kMIDIMsgPropertyChanged, sizeof(MIDIObjectPropertyChangeNotification), object, type, nullptr};
    delivery.propertyName = property;
    deliveries.push_back(std::move(delivery));
}

namespace {

struct PortFacts {
    std::string fullName;
    jack_uuid_t uuid = 0;
    bool output = false;
    std::optional<std::string> prettyName;
    std::map<std::string, std::string, std::less<>> strings;
};

} // namespace

// JACK's registration, rename and metadata callbacks only say that something changed (they run on
// JACK's notification thread, which must not wait for us): the service thread reads the list of MIDI
// ports again and compares it with the model by port UUID, so that a renamed port stays the same object.
void VelmorJACKMIDIService::State::resync()
{
    jack_client_t* handle = jack();
    if (!handle)
        return;
    std::vector<PortFacts> found;
    if (const char** names = jack_get_ports(handle, nullptr, JACK_DEFAULT_MIDI_TYPE, 0)) {
        for (const char** name = names; *name; ++name) {
            jack_port_t* port = jack_port_by_name(handle, *name);
            if (!port || jack_port_is_mine(handle, port))
                continue;  // our own virtual sources are entered when they are made
            PortFacts facts;
            facts.fullName = *name;
            facts.uuid = jack_port_uuid(port);
            facts.output = (jack_port_flags(port) & JackPortIsOutput) != 0;
            bool hidden = false;
            jack_description_t description {};
            const int count = jack_get_properties(facts.uuid, &description);
            for (int i = 0; i < count; ++i) {
                const char* key = description.properties[i].key;
                const char* data = description.properties[i].data;
                if (!key || !data)
                    continue;
                if (std::strcmp(key, JACK_METADATA_PRETTY_NAME) == 0 && *data)
                    facts.prettyName = data;
                else if (std::strcmp(key, JACK::kPrivateKey) == 0)
                    hidden = true;
                else if (std::strncmp(key, JACK::kPropertyKeyPrefix, std::strlen(JACK::kPropertyKeyPrefix)) == 0)
                    facts.strings[key + std::strlen(JACK::kPropertyKeyPrefix)] = data;
            }
            if (count > 0)
                jack_free_description(&description, 0);
            if (!hidden)
                found.push_back(std::move(facts));
        }
        jack_free(names);
    }

    {
        std::lock_guard<std::mutex> lock(mutex);
        std::map<jack_uuid_t, const PortFacts*> foundByUUID;
        for (const auto& facts : found)
            foundByUUID[facts.uuid] = &facts;
        std::vector<std::string> gone;
        std::map<jack_uuid_t, std::string> known;
        for (auto& [name, port] : ports) {
            if (port.own)
                continue;
            if (foundByUUID.count(port.uuid))
                known[port.uuid] = name;
            else
                gone.push_back(name);
        }
        for (const auto& name : gone)
            removePort(name);
        for (const auto& facts : found) {
            auto existing = known.find(facts.uuid);
            if (existing == known.end()) {
                addPort(facts.fullName, facts.uuid, facts.output, facts.prettyName, facts.strings, false, 0);
                continue;
            }
            if (existing->second != facts.fullName) {  // renamed: same port, new full name
                auto node = ports.extract(existing->second);
                node.key() = facts.fullName;
                node.mapped().fullName = facts.fullName;
                for (auto& portName : devices[node.mapped().device].ports)
                    if (portName == existing->second)
                        portName = facts.fullName;
                model.objects[node.mapped().entity].jackName = facts.fullName;
                model.objects[node.mapped().endpoint].jackName = facts.fullName;
                ports.insert(std::move(node));
            }
            const Port& port = ports.at(facts.fullName);
            const auto colon = facts.fullName.find(':');
            const std::string name =
                facts.prettyName ? *facts.prettyName
                                 : (colon == std::string::npos ? facts.fullName : facts.fullName.substr(colon + 1));
            setObjectName(port.entity, name);
            setObjectName(port.endpoint, name);
            const auto& strings = model.objects[port.endpoint].strings;
            std::vector<std::string> removedKeys;
            for (auto& [key, value] : strings)
                if (!facts.strings.count(key))
                    removedKeys.push_back(key);
            for (auto& key : removedKeys)
                setObjectString(port.endpoint, key, std::nullopt);
            for (auto& [key, value] : facts.strings)
                setObjectString(port.endpoint, key, value);
        }
        publish();
    }
    releasePending();
}

} // namespace VelmorPlatform

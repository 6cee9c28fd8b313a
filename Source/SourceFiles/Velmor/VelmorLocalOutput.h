#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VelmorEndpoint.h"
#include "VelmorOutput.h"

class VelmorAttributes;
class VelmorClient;
class VelmorEvent;

// Posted by a local output, without user information, when the MIDI system reports a change of a
// property of the output's own endpoint.
inline constexpr std::string_view VelmorLocalOutputPropertyChangedNotification = "VelmorLocalOutputPropertyChanged";

// A virtual output of this process: a new endpoint that other programs see among the system's sources
// and read from. Events sent into it appear on that endpoint (MIDIReceived).
//
// Open from construction until closeObject; a closed output sends nothing and answers name,
// manufacturer, model, identifier and uniqueID from its caches. The manager opens and closes these
// (openVirtualOutputWithAttributes, closeVirtualOutput, flushManager).
//
// Name, manufacturer and model can be changed only on an output that has an identifier: an output
// opened without one keeps the name it was created with and never gets a manufacturer or a model.
//
// sendEvent may run on any thread, also while the main thread closes the output: an event sent while
// it closes either goes out or is dropped.
//
// Property changes: the MIDI system reports a change of the output's own endpoint with the type of a
// source (a virtual output is a source to everyone else), the external bit cleared. Such a change posts
// VelmorLocalOutputPropertyChangedNotification after the object's own handling (name and unique ID
// caches, VelmorObjectPropertyChangedNotification).
class VelmorLocalOutput : public VelmorEndpoint, public VelmorOutput {
public:
    // Creates the virtual endpoint under the attributes' name, writes a requested unique ID, then the
    // identifier, manufacturer and model, and writes the "Created MIDI Output" line. Null, with a line,
    // without a client, without a name, or when the service refuses; an endpoint made before a later
    // step failed is disposed of again.
    static std::shared_ptr<VelmorLocalOutput> initWithClientAttributes(const std::shared_ptr<VelmorClient>& client,
                                                                       const std::shared_ptr<VelmorAttributes>& attributes);
    // No client: writes the "client != nil" line and gives null.
    static std::shared_ptr<VelmorLocalOutput> init();

    const char* className() const override { return "VelmorLocalOutput"; }
    // "{VelmorLocalOutput <0x...>: manufacturer model \"name\" #identifier (uid:uniqueID)}"
    std::string description() const override;

    void objectPropertyChanged(const VelmorNotification& notification) override;
    // Writes the "Closing MIDI Output" line, disposes of the endpoint and leaves the output closed, even
    // when the service refuses. Sends nothing first. A second call only writes the line again.
    void closeObject() override;

    // Each does nothing unless the output has an identifier.
    void setName(const std::optional<std::string>& name) override;
    void setManufacturer(const std::optional<std::string>& manufacturer) override;
    void setModel(const std::optional<std::string>& model) override;

    // VelmorOutput.
    void sendEvent(const std::shared_ptr<VelmorEvent>& event) override;
    std::optional<std::string> name() const override { return VelmorEndpoint::name(); }
    std::int64_t uniqueID() const override { return VelmorEndpoint::uniqueID(); }
    std::shared_ptr<VelmorAttributes> attributes() const override { return VelmorEndpoint::attributes(); }

protected:
    VelmorLocalOutput() = default;
    bool constructWithClientAttributes(const std::shared_ptr<VelmorClient>& client,
                                       const std::shared_ptr<VelmorAttributes>& attributes);

private:
    bool hasIdentifier() const;

    // The endpoint as the sending threads see it: set once the output is open, 0 from the start of
    // closing. object() is the main thread's; this copy lets closeObject run while another thread sends.
    std::atomic<VelmorPlatform::MIDIEndpointRef> sendingEndpoint_ {0};
};

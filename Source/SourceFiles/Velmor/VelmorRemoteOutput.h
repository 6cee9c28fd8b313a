#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VelmorEndpoint.h"
#include "VelmorOutput.h"

class VelmorAttributes;
class VelmorEvent;

// A MIDI destination of the system: a port of a device or a virtual destination of another program.
// Events go to it through the manager's output port (MIDISend). The manager makes one for each
// destination it lists; nothing closes it, and an output still held after its destination has gone
// keeps sending to the old reference, which the service ignores.
class VelmorRemoteOutput : public VelmorEndpoint, public VelmorOutput {
public:
    // Null for reference 0 (silently), for an endpoint that can't be wrapped, and for port 0 (with the
    // "outputPort" line). Never writes a unique ID.
    static std::shared_ptr<VelmorRemoteOutput> initWithEndpointRefOutputPort(VelmorPlatform::MIDIEndpointRef endpoint,
                                                                             VelmorPlatform::MIDIPortRef outputPort);
    // Always null, without a line.
    static std::shared_ptr<VelmorRemoteOutput> init();

    const char* className() const override { return "VelmorRemoteOutput"; }

    // Plain field: the port is the manager's, not this output's.
    VelmorPlatform::MIDIPortRef outputPort() const { return outputPort_; }
    void setOutputPort(VelmorPlatform::MIDIPortRef outputPort) { outputPort_ = outputPort; }

    // VelmorOutput.
    void sendEvent(const std::shared_ptr<VelmorEvent>& event) override;
    std::optional<std::string> name() const override { return VelmorEndpoint::name(); }
    std::int64_t uniqueID() const override { return VelmorEndpoint::uniqueID(); }
    std::shared_ptr<VelmorAttributes> attributes() const override { return VelmorEndpoint::attributes(); }

protected:
    VelmorRemoteOutput() = default;
    bool constructWithEndpointRefOutputPort(VelmorPlatform::MIDIEndpointRef endpoint,
                                            VelmorPlatform::MIDIPortRef outputPort);

private:
    VelmorPlatform::MIDIPortRef outputPort_ = 0;
};

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VelmorMIDIServices.h"
#include "VelmorRootObject.h"

class VelmorClient;
class VelmorPacketList;
class VelmorRemoteSource;

// The read procedure the port installs when it is given none. Runs on the service's thread: builds the
// VelmorPacketList there (all cutting and joining) and posts its handling to the main queue, without
// waiting. `readProcRefCon` is the VelmorInputPort, `srcConnRefCon` the VelmorRemoteSource, both as
// VelmorRootObject pointers.
void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList* packetList, void* readProcRefCon,
                                    void* srcConnRefCon);

// The one input port of the process and the list of sources connected to it.
//
// Lifetimes: the port's list holds each connected source strongly, and the service calls no read
// procedure of a connection after MIDIPortDisconnectSource has returned (nor of the port after
// MIDIPortDispose). The default read procedure never touches the source itself: it posts the connection
// reference as a plain key, and the main thread delivers only to a source that the list holds under
// that key at that moment. So a disconnect that races with a read procedure, or a service that answers
// a disconnect with -50 but keeps the connection, never leads to a source that is gone.
class VelmorInputPort : public VelmorRootObject {
public:
    // Null for a null client or a null or empty name (silently) and when the service refuses. A null
    // `readProc` installs VelmorInputPortDefaultReadProc.
    static std::shared_ptr<VelmorInputPort> initWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                                                       const std::optional<std::string>& name,
                                                                       VelmorPlatform::MIDIReadProc readProc);
    // Always null.
    static std::shared_ptr<VelmorInputPort> init();
    // Disconnects every source, then disposes of the platform port.
    ~VelmorInputPort() override;

    const char* className() const override { return "VelmorInputPort"; }
    // "VelmorInputPort: <VelmorInputPort: 0x...>"
    std::string description() const override;

    // Connects the source unless it is null, already connected or has no endpoint. A failed connection
    // writes a line and leaves the source unconnected.
    void addSource(const std::shared_ptr<VelmorRemoteSource>& source);
    // Disconnects a connected source. It leaves the list on status 0 or -50; on any other status it
    // stays, silently.
    void removeSource(const std::shared_ptr<VelmorRemoteSource>& source);
    void removeAllSources();
    // Main thread: hands the list to the source if it is still connected, else drops it silently.
    void handlePacketListFromSource(const std::shared_ptr<VelmorPacketList>& packetList,
                                    const std::shared_ptr<VelmorRemoteSource>& source);

    // Plain fields.
    VelmorPlatform::MIDIPortRef port() const { return port_; }
    void setPort(VelmorPlatform::MIDIPortRef port) { port_ = port; }
    const std::optional<std::string>& name() const { return name_; }
    void setName(const std::optional<std::string>& name) { name_ = name; }
    const std::vector<std::shared_ptr<VelmorRemoteSource>>& mutableSources() const { return mutableSources_; }
    void setMutableSources(std::vector<std::shared_ptr<VelmorRemoteSource>> sources)
    {
        mutableSources_ = std::move(sources);
    }

protected:
    VelmorInputPort() = default;
    bool constructWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                         const std::optional<std::string>& name,
                                         VelmorPlatform::MIDIReadProc readProc);

private:
    friend void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList*, void*, void*);

    // The connection reference the port gives the service for `source`, and the key it comes back as.
    static void* connectionReference(const VelmorRemoteSource* source);
    static std::uintptr_t connectionKey(const void* connectionReference);
    // The main-thread half of the default read procedure.
    void handlePacketListFromConnection(const std::shared_ptr<VelmorPacketList>& packetList, std::uintptr_t key);
    bool containsSource(const VelmorRemoteSource* source) const;

    VelmorPlatform::MIDIPortRef port_ = 0;
    std::optional<std::string> name_;
    std::vector<std::shared_ptr<VelmorRemoteSource>> mutableSources_;
};

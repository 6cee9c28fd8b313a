#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VelmorMIDIServices.h"
#include "VelmorNotificationCenter.h"
#include "VelmorRootObject.h"

class VelmorClient;
class VelmorPacketList;
class VelmorRemoteSource;

// The read procedure the port installs when it is given none. Runs on the service's thread: builds the
// VelmorPacketList there (all cutting and joining) and posts its handling to the main queue, without
// waiting. `readProcRefCon` is the port's callback context, `srcConnRefCon` the connection's.
void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList* packetList, void* readProcRefCon,
                                    void* srcConnRefCon);

// The one input port of the process and the list of sources connected to it.
//
// Lifetimes: with the default read procedure the service is given callback contexts, not the port and
// the sources: each holds its object weakly, and lives until the service has said noErr to the call
// that ends its use (a refused one is kept for the process's life). The read procedure takes strong
// references to the port and the source from them, and its deferred call holds those with the list,
// so the main thread tests membership by identity, never by address. A deferred call runs and is freed
// on the main thread, so the last reference to a source never drops on a service thread.
//
// Overload: what waits for the main thread is bounded (maximumPendingInputEvents / Bytes). Above the
// bound the read procedure drops the list, counts it on its source, and the main thread hears of it
// through VelmorManager_SourceDidDropEventsNotification ahead of the backlog, at most once per source
// per pass of the main queue. A read procedure of the application's own gets the port and the source
// objects themselves, as references it does not own.
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

    // The bound on what the read procedure lets wait for the main thread, over all sources: events, and
    // bytes of MIDI data. A list that would pass either is dropped, unless nothing waits at all (so a
    // message larger than the bound still arrives). Any thread, at any time.
    static std::uint64_t maximumPendingInputEvents();
    static void setMaximumPendingInputEvents(std::uint64_t events);
    static std::uint64_t maximumPendingInputBytes();
    static void setMaximumPendingInputBytes(std::uint64_t bytes);
    static constexpr std::uint64_t defaultMaximumPendingInputEvents = 8192;
    static constexpr std::uint64_t defaultMaximumPendingInputBytes = 1 << 20;
    // Events waiting for the main thread now.
    std::uint64_t pendingInputEvents() const;

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

public:
    struct PortContext;
    struct ConnectionContext;

private:
    friend void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList*, void*, void*);
    friend struct ConnectionContext;

    bool containsSource(const VelmorRemoteSource* source) const;
    // The service told us of input it lost (main thread).
    void inputDropped(const VelmorNotification& notification);

    VelmorPlatform::MIDIPortRef port_ = 0;
    std::optional<std::string> name_;
    std::vector<std::shared_ptr<VelmorRemoteSource>> mutableSources_;
    // With the default read procedure: the port's context, and one per connected source.
    bool defaultReadProc_ = false;
    std::shared_ptr<PortContext> context_;
    std::vector<std::shared_ptr<ConnectionContext>> connections_;
    // Drops the service reported for a source it couldn't name, or one no longer connected.
    std::shared_ptr<ConnectionContext> unknownSource_;
};

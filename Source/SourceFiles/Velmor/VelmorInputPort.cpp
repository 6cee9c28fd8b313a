#include "VelmorInputPort.h"

#include <algorithm>

#include "VelmorClient.h"
#include "VelmorFailure.h"
#include "VelmorMainQueue.h"
#include "VelmorPacketList.h"
#include "VelmorRemoteSource.h"

void VelmorInputPortDefaultReadProc(const VelmorPlatform::MIDIPacketList* packetList, void* readProcRefCon,
                                    void* srcConnRefCon)
{
    if (!readProcRefCon || VelmorPlatform::processIsExiting())
        return;
    // The port made this reference from itself, and the service calls no read procedure of the port
    // after MIDIPortDispose, which the port's destructor calls: the object is there. While it is being
    // destroyed the lock gives null, and the list is dropped.
    auto* root = static_cast<VelmorRootObject*>(readProcRefCon);
    auto port = std::static_pointer_cast<VelmorInputPort>(root->weak_from_this().lock());
    if (!port)
        return;
    // All cutting and joining happens here, off the main thread; nothing of the platform's list is kept.
    auto list = VelmorPacketList::initWithMIDIPacketList(packetList);
    const std::uintptr_t key = VelmorInputPort::connectionKey(srcConnRefCon);
    VelmorPerformOnMainThread([port = std::move(port), list = std::move(list), key] {
        port->handlePacketListFromConnection(list, key);
    });
}

// --- Construction ---------------------------------------------------------------------------------

std::shared_ptr<VelmorInputPort> VelmorInputPort::initWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                                                             const std::optional<std::string>& name,
                                                                             VelmorPlatform::MIDIReadProc readProc)
{
    if (!client || !name || name->empty())
        return nullptr;
    std::shared_ptr<VelmorInputPort> port(new VelmorInputPort());
    if (!port->constructWithClientNameReadProc(client, name, readProc))
        return nullptr;
    return port;
}

std::shared_ptr<VelmorInputPort> VelmorInputPort::init()
{
    return initWithClientNameReadProc(nullptr, std::nullopt, nullptr);
}

bool VelmorInputPort::constructWithClientNameReadProc(const std::shared_ptr<VelmorClient>& client,
                                                      const std::optional<std::string>& name,
                                                      VelmorPlatform::MIDIReadProc readProc)
{
    // The reference the service hands back to the read procedure; what keeps it valid is told in
    // VelmorInputPortDefaultReadProc.
    void* reference = static_cast<VelmorRootObject*>(this);
    const VelmorPlatform::OSStatus status = VelmorPlatform::MIDIInputPortCreate(
        client->client(), *name, readProc ? readProc : VelmorInputPortDefaultReadProc, reference, &port_);
    if (status != VelmorPlatform::noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return false;
    }
    if (port_ == 0) {
        VELMOR_FAILED("_port");
        return false;
    }
    name_ = name;
    mutableSources_.clear();
    return true;
}

VelmorInputPort::~VelmorInputPort()
{
    removeAllSources();
    if (port_ != 0) {
        VelmorPlatform::MIDIPortDispose(port_);
        port_ = 0;
    }
}

std::string VelmorInputPort::description() const
{
    return "VelmorInputPort: " + rootDescription();
}

// --- Connections ----------------------------------------------------------------------------------

void* VelmorInputPort::connectionReference(const VelmorRemoteSource* source)
{
    return const_cast<VelmorRootObject*>(static_cast<const VelmorRootObject*>(source));
}

std::uintptr_t VelmorInputPort::connectionKey(const void* connectionReference)
{
    return reinterpret_cast<std::uintptr_t>(connectionReference);
}

bool VelmorInputPort::containsSource(const VelmorRemoteSource* source) const
{
    return std::any_of(mutableSources_.begin(), mutableSources_.end(),
                       [source](const std::shared_ptr<VelmorRemoteSource>& member) { return member.get() == source; });
}

void VelmorInputPort::addSource(const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (!source || containsSource(source.get()))
        return;
    const VelmorPlatform::MIDIEndpointRef endpoint = source->object();
    if (endpoint == 0)
        return;
    const VelmorPlatform::OSStatus status =
        VelmorPlatform::MIDIPortConnectSource(port_, endpoint, connectionReference(source.get()));
    if (status != VelmorPlatform::noErr) {
        VELMOR_FAILED_WITH("noErr == status", status);
        return;
    }
    // The service keeps one connection per endpoint, and a new one replaces the old: another object of
    // this endpoint is no longer connected, and must not disconnect this one later. At its next
    // consumer it connects again.
    std::erase_if(mutableSources_, [&](const std::shared_ptr<VelmorRemoteSource>& member) {
        return member != source && member->object() == endpoint;
    });
    mutableSources_.push_back(source);
}

void VelmorInputPort::removeSource(const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (!source || !containsSource(source.get()))
        return;
    const VelmorPlatform::MIDIEndpointRef endpoint = source->object();
    if (endpoint == 0)
        return;
    const VelmorPlatform::OSStatus status = VelmorPlatform::MIDIPortDisconnectSource(port_, endpoint);
    if (status != VelmorPlatform::noErr && status != VelmorPlatform::kMIDIParamErr)
        return;
    std::erase_if(mutableSources_,
                  [&](const std::shared_ptr<VelmorRemoteSource>& member) { return member == source; });
}

void VelmorInputPort::removeAllSources()
{
    const auto sources = mutableSources_;
    for (const auto& source : sources)
        removeSource(source);
}

// --- Arrival on the main thread -------------------------------------------------------------------

void VelmorInputPort::handlePacketListFromSource(const std::shared_ptr<VelmorPacketList>& packetList,
                                                 const std::shared_ptr<VelmorRemoteSource>& source)
{
    if (source && containsSource(source.get()))
        source->handlePacketList(packetList);
}

void VelmorInputPort::handlePacketListFromConnection(const std::shared_ptr<VelmorPacketList>& packetList,
                                                     std::uintptr_t key)
{
    // A source is found only while the list holds it, and then it is alive: the key is compared, never
    // followed.
    for (const auto& source : mutableSources_) {
        if (connectionKey(connectionReference(source.get())) == key) {
            auto held = source;  // the source may leave the list during its own delivery
            held->handlePacketList(packetList);
            return;
        }
    }
}

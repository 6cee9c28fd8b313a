// The JACK service: its life, its thread, and the boundary's calls for clients, ports and connections.

#include "VelmorJACKInternal.h"

#include <jack/metadata.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "VelmorHostClock.h"

namespace VelmorPlatform {

namespace {

void reportFailure(const char* what, const std::string& detail = "")
{
    std::fprintf(stderr, "VelmorJACKMIDIService: %s failed%s%s\n", what, detail.empty() ? "" : ": ", detail.c_str());
}

std::int64_t monotonicMicros()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Live services, so that exit can close their JACK clients before static objects go. Never destroyed.
struct Registry {
    std::mutex mutex;
    std::set<VelmorJACKMIDIService::State*> states;
};

Registry& registry()
{
    static auto* instance = new Registry;
    return *instance;
}

void shutDownAtExit()
{
    std::vector<VelmorJACKMIDIService::State*> states;
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        states.assign(registry().states.begin(), registry().states.end());
    }
    for (auto* state : states)
        state->shutDown();
}

} // namespace

// --- Life ---------------------------------------------------------------------------------------------

VelmorJACKMIDIService::State::State()
{
    sem_init(&wakeSemaphore, 0, 0);
    snapshot.store(std::make_shared<const JACK::Model>());
}

VelmorJACKMIDIService::State::~State()
{
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        registry().states.erase(this);
    }
    shutDown();
    for (Slot& slot : slots)
        if (slot.ring)
            jack_ringbuffer_free(slot.ring);
    sem_destroy(&wakeSemaphore);
}

bool VelmorJACKMIDIService::State::open(const std::string& name, const std::string& serverName)
{
    jack_status_t status {};
    const int options = JackNoStartServer | (serverName.empty() ? 0 : JackServerName);
    jack_client_t* handle = serverName.empty()
                                ? jack_client_open(name.c_str(), jack_options_t(options), &status)
                                : jack_client_open(name.c_str(), jack_options_t(options), &status, serverName.c_str());
    if (!handle) {
        reportFailure("jack_client_open", "no JACK server answers (status 0x" + [&] {
            char text[16];
            std::snprintf(text, sizeof text, "%x", unsigned(status));
            return std::string(text);
        }() + ")");
        return false;
    }
    client.store(handle, std::memory_order_release);
    clientName = jack_get_client_name(handle);
    jack_set_process_callback(handle, &State::process, this);
    jack_set_port_registration_callback(handle, &State::registrationCallback, this);
    jack_set_port_rename_callback(handle, &State::renameCallback, this);
    jack_set_client_registration_callback(handle, &State::clientCallback, this);
    jack_set_property_change_callback(handle, &State::propertyCallback, this);
    jack_on_shutdown(handle, &State::shutdownCallback, this);

    if (jack_activate(handle) != 0) {
        reportFailure("jack_activate");
        jack_client_close(handle);
        client.store(nullptr);
        return false;
    }
    measureClocks();
    resync();
    {
        // What was there before anyone asked is no news.
        std::lock_guard<std::mutex> lock(mutex);
        deliveries.clear();
    }
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        registry().states.insert(this);
    }
    static const bool registered = [] { return std::atexit(shutDownAtExit) == 0; }();
    (void)registered;
    thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "Velmor JACK");  // for top, perf and debuggers
        run();
    });
    return true;
}

// Stops the thread and closes the JACK client: no callback of ours runs after this returns. The model
// stays, so that late calls of the boundary answer (and fail) without touching JACK.
void VelmorJACKMIDIService::State::shutDown()
{
    stopping = true;
    wake();
    if (thread.joinable()) {
        if (onServiceThread())
            thread.detach();
        else
            thread.join();
    }
    if (jack_client_t* handle = client.exchange(nullptr)) {
        if (!serverGone) {
            // JACK keeps metadata beyond the port and gives its UUID to later ports: take ours away.
            for (Slot& slot : slots)
                if (slot.port)
                    jack_remove_properties(handle, jack_port_uuid(slot.port));
            jack_deactivate(handle);
        }
        jack_client_close(handle);
    }
    {
        std::lock_guard<std::mutex> lock(markerMutex);
        markersHandled = markersSent;
    }
    markerDone.notify_all();
}

// JACK's clock runs apart from the host clock (it need not be the same clock, and one may be slewed):
// their distance is taken as the middle of the shortest of a few windows, and taken again from time
// to time on the service thread.
void VelmorJACKMIDIService::State::measureClocks()
{
    std::int64_t best = INT64_MAX;
    std::int64_t offset = 0;
    for (int i = 0; i < 9; ++i) {
        const std::int64_t before = monotonicMicros();
        const std::int64_t jackNow = std::int64_t(jack_get_time());
        const std::int64_t after = monotonicMicros();
        if (after - before < best) {
            best = after - before;
            offset = before + (after - before) / 2 - jackNow;
        }
    }
    // A window that a busy machine stretched says little: keep the last good distance for a while.
    const auto now = std::chrono::steady_clock::now();
    if (best > 200 && clockMeasured && now - clockMeasuredAt < std::chrono::seconds(1))
        return;
    clockOffsetMicros.store(offset, std::memory_order_relaxed);
    clockMeasured = true;
    clockMeasuredAt = now;
}

MIDITimeStamp VelmorJACKMIDIService::State::hostTimeOfJackTime(jack_time_t time) const
{
    const std::int64_t micros = std::int64_t(time) + clockOffsetMicros.load(std::memory_order_relaxed);
    return micros > 0 ? AudioConvertNanosToHostTime(std::uint64_t(micros) * 1000u) : 0;
}

jack_time_t VelmorJACKMIDIService::State::jackTimeOfHostTime(MIDITimeStamp timeStamp) const
{
    const std::int64_t micros =
        std::int64_t(AudioConvertHostTimeToNanos(timeStamp) / 1000u) - clockOffsetMicros.load(std::memory_order_relaxed);
    return micros > 0 ? jack_time_t(micros) : 1;
}

// --- The process callback: runs on JACK's real-time thread. No lock, no allocation, no blocking call. --

int VelmorJACKMIDIService::State::process(jack_nframes_t frames, void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->cycle.fetch_add(1);
    jack_client_t* handle = state->jack();
    bool wrote = false;
    if (handle) {
        const jack_nframes_t cycleStart = jack_last_frame_time(handle);
        const std::size_t count = state->slotsInUse.load(std::memory_order_acquire);
        for (std::size_t i = 0; i < count; ++i) {
            Slot& slot = state->slots[i];
            const int kind = slot.state.load();
            if (kind == Slot::Input)
                state->processInput(slot, frames, cycleStart, wrote);
            else if (kind == Slot::Output)
                state->processOutput(slot, frames, cycleStart);
        }
    }
    state->cycle.fetch_add(1);
    if (wrote)
        sem_post(&state->wakeSemaphore);  // never blocks
    return 0;
}

// Once the slot is no longer active, waits until a cycle that may still have seen it has ended.
void VelmorJACKMIDIService::State::waitForCycle()
{
    const std::uint64_t seen = cycle.load();
    if (!(seen & 1))
        return;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (cycle.load() == seen && !serverGone && jack() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void VelmorJACKMIDIService::State::waitForCycles(int count)
{
    const std::uint64_t start = cycle.load();
    const std::uint64_t until = (start | 1) + 1 + 2 * std::uint64_t(count);  // whole cycles begun after now
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (cycle.load() < until && !serverGone && jack() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

std::optional<std::size_t> VelmorJACKMIDIService::State::claimSlot(int kind, const std::string& portName, bool privatePort)
{
    jack_client_t* handle = jack();
    if (!handle)
        return std::nullopt;
    std::size_t index = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        while (index < slots.size() && slots[index].claimed)
            ++index;
        if (index == slots.size()) {
            reportFailure("claiming a port", "more than 512 JACK ports in use");
            return std::nullopt;
        }
        slots[index].claimed = true;
        slots[index].generation.fetch_add(1);
        if (index + 1 > slotsInUse.load())
            slotsInUse.store(index + 1, std::memory_order_release);
    }
    Slot& slot = slots[index];
    const unsigned long flags = kind == Slot::Input ? JackPortIsInput : JackPortIsOutput;
    slot.port = jack_port_register(handle, portName.c_str(), JACK_DEFAULT_MIDI_TYPE, flags, 0);
    if (!slot.port) {
        reportFailure("jack_port_register", portName);
        std::lock_guard<std::mutex> lock(mutex);
        slot.claimed = false;
        return std::nullopt;
    }
    if (!slot.ring) {
        slot.ring = jack_ringbuffer_create(kind == Slot::Input ? JACK::kInputRingBytes : JACK::kOutputRingBytes);
        slot.ringBytes = kind == Slot::Input ? JACK::kInputRingBytes : JACK::kOutputRingBytes;
        if (slot.ring)
            jack_ringbuffer_mlock(slot.ring);
    } else if (slot.ringBytes < (kind == Slot::Input ? JACK::kInputRingBytes : JACK::kOutputRingBytes)) {
        jack_ringbuffer_free(slot.ring);
        slot.ring = jack_ringbuffer_create(JACK::kInputRingBytes);
        slot.ringBytes = JACK::kInputRingBytes;
    }
    if (!slot.ring) {
        reportFailure("jack_ringbuffer_create");
        jack_port_unregister(handle, slot.port);
        slot.port = nullptr;
        std::lock_guard<std::mutex> lock(mutex);
        slot.claimed = false;
        return std::nullopt;
    }
    jack_ringbuffer_reset(slot.ring);
    slot.dropped.store(0);
    if (privatePort)
        jack_set_property(handle, jack_port_uuid(slot.port), JACK::kPrivateKey, "yes", nullptr);
    slot.state.store(kind);
    return index;
}

void VelmorJACKMIDIService::State::releaseSlot(std::size_t index)
{
    Slot& slot = slots[index];
    slot.state.store(Slot::Free);
    { std::lock_guard<std::mutex> leave(slot.writer); }  // a writer sees the slot free and leaves
    waitForCycle();
    if (jack_client_t* handle = jack(); handle && slot.port) {
        jack_remove_properties(handle, jack_port_uuid(slot.port));
        jack_port_unregister(handle, slot.port);
    }
    slot.port = nullptr;
    std::lock_guard<std::mutex> lock(mutex);
    slot.claimed = false;
}

void VelmorJACKMIDIService::State::releasePending()
{
    std::vector<std::size_t> releases;
    {
        std::lock_guard<std::mutex> lock(mutex);
        releases.swap(pendingReleases);
    }
    for (std::size_t slot : releases)
        releaseSlot(slot);
}

// --- The service thread -------------------------------------------------------------------------------

void VelmorJACKMIDIService::State::run()
{
    threadID = std::this_thread::get_id();
    auto lastMeasure = std::chrono::steady_clock::now();
    std::vector<std::chrono::steady_clock::time_point> followUps;
    while (!stopping) {
        // JACK's clock follows its cycles: when they run late it drifts from the host clock.
        if (std::chrono::steady_clock::now() - lastMeasure > std::chrono::milliseconds(100)) {
            measureClocks();
            lastMeasure = std::chrono::steady_clock::now();
        }
        timespec until {};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += (followUps.empty() ? 100 : 20) * 1000000;
        if (until.tv_nsec >= 1000000000) {
            until.tv_sec += 1;
            until.tv_nsec -= 1000000000;
        }
        sem_clockwait(&wakeSemaphore, CLOCK_MONOTONIC, &until);
        while (sem_trywait(&wakeSemaphore) == 0) {
        }
        if (stopping)
            break;
        // Events that are in the rings came before any change that is announced now.
        drainInputs();
        dispatch();
        // JACK tells of a port going before its list drops it: look again a little later, twice.
        const auto now = std::chrono::steady_clock::now();
        if (resyncWanted.exchange(false)) {
            resync();
            followUps = {now + std::chrono::milliseconds(50), now + std::chrono::milliseconds(500)};
        } else if (!followUps.empty() && now >= followUps.front()) {
            followUps.erase(followUps.begin());
            resync();
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (markerWanted) {
                Delivery delivery;
                delivery.kind = Delivery::Kind::Marker;
                delivery.count = markerWanted;
                deliveries.push_back(std::move(delivery));
                markerWanted = 0;
            }
        }
        dispatch();
    }
}

void VelmorJACKMIDIService::State::registrationCallback(jack_port_id_t, int, void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->resyncWanted = true;
    state->wake();
}

void VelmorJACKMIDIService::State::clientCallback(const char*, int, void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->resyncWanted = true;
    state->wake();
}

void VelmorJACKMIDIService::State::renameCallback(jack_port_id_t, const char*, const char*, void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->resyncWanted = true;
    state->wake();
}

void VelmorJACKMIDIService::State::propertyCallback(jack_uuid_t, const char*, jack_property_change_t, void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->resyncWanted = true;
    state->wake();
}

void VelmorJACKMIDIService::State::shutdownCallback(void* arg)
{
    auto* state = static_cast<State*>(arg);
    state->serverGone = true;
    state->wake();
}

// --- The service ------------------------------------------------------------------------------------

std::shared_ptr<VelmorJACKMIDIService> VelmorJACKMIDIService::create(const std::string& clientName,
                                                                   const std::string& serverName)
{
    std::shared_ptr<VelmorJACKMIDIService> service(new VelmorJACKMIDIService());
    service->state_ = std::make_unique<State>();
    if (!service->state_->open(clientName.empty() ? "Velmor" : clientName, serverName))
        return nullptr;
    return service;
}

VelmorJACKMIDIService::~VelmorJACKMIDIService() = default;

std::string VelmorJACKMIDIService::jackClientName() const
{
    return state_->clientName;
}

std::string VelmorJACKMIDIService::jackPortName(MIDIObjectRef object) const
{
    auto model = state_->snapshot.load();
    auto it = model->objects.find(object);
    if (it == model->objects.end() || it->second.type == kMIDIObjectType_Device)
        return "";
    return it->second.jackName;
}

void VelmorJACKMIDIService::waitUntilIdle(int timeoutMs)
{
    State& state = *state_;
    if (state.onServiceThread() || !state.jack())
        return;
    // Two whole cycles: what other clients wrote so far has passed our process callback.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    state.waitForCycles(2);
    std::uint64_t marker = 0;
    {
        std::lock_guard<std::mutex> lock(state.markerMutex);
        marker = ++state.markersSent;
    }
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.markerWanted = marker;
    }
    state.resyncWanted = true;
    state.wake();
    std::unique_lock<std::mutex> lock(state.markerMutex);
    state.markerDone.wait_until(lock, deadline, [&] { return state.markersHandled >= marker; });
}

OSStatus VelmorJACKMIDIService::clientCreate(std::string_view, MIDINotifyProc notifyProc, void* notifyRefCon,
                                             MIDIClientRef* outClient)
{
    if (!outClient)
        return kMIDIParamErr;
    State& state = *state_;
    std::lock_guard<std::mutex> lock(state.mutex);
    *outClient = state.nextRef++;
    state.otherRefs.insert(*outClient);
    state.clients[*outClient] = State::Client {notifyProc, notifyRefCon};
    return noErr;
}

OSStatus VelmorJACKMIDIService::clientDispose(MIDIClientRef client)
{
    State& state = *state_;
    std::vector<MIDIPortRef> portsToDispose;
    std::vector<MIDIEndpointRef> sourcesToDispose;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.otherRefs.count(client) || state.model.objects.count(client) ? kMIDIInvalidClient
                                                                                       : kMIDIParamErr;
        for (auto& [ref, port] : state.inputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [ref, port] : state.outputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [name, port] : state.ports)
            if (port.own && port.owner == client)
                sourcesToDispose.push_back(port.endpoint);
    }
    for (auto ref : portsToDispose)
        portDispose(ref);
    for (auto ref : sourcesToDispose)
        endpointDispose(ref);
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.clients.erase(client);
        state.otherRefs.erase(client);
    }
    state.waitForCallbacks();
    return noErr;
}

// A reference for a new port of `client`, or why there is none. Caller holds the model's mutex.
static OSStatus newPortRef(VelmorJACKMIDIService::State& state, MIDIClientRef client, MIDIPortRef* outPort)
{
    if (!state.clients.count(client))
        return state.otherRefs.count(client) || state.model.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    *outPort = state.nextRef++;
    state.otherRefs.insert(*outPort);
    return noErr;
}

OSStatus VelmorJACKMIDIService::inputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc,
                                                void* refCon, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    std::lock_guard<std::mutex> lock(state.mutex);
    if (OSStatus status = newPortRef(state, client, outPort))
        return status;
    auto& port = state.inputPorts[*outPort];
    port.client = client;
    port.name = portName.empty() ? "input" : std::string(portName);
    port.readProc = readProc;
    port.refCon = refCon;
    return noErr;
}

OSStatus VelmorJACKMIDIService::outputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    std::lock_guard<std::mutex> lock(state.mutex);
    if (OSStatus status = newPortRef(state, client, outPort))
        return status;
    auto& port = state.outputPorts[*outPort];
    port.client = client;
    port.name = portName.empty() ? "output" : std::string(portName);
    return noErr;
}

OSStatus VelmorJACKMIDIService::portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon)
{
    State& state = *state_;
    std::string sourceName;
    std::string slotName;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.otherRefs.count(port) || state.model.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto sourceIt = state.model.objects.find(source);
        if (sourceIt == state.model.objects.end())
            return kMIDIParamErr;
        if (sourceIt->second.type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        if (auto connection = portIt->second.connections.find(source); connection != portIt->second.connections.end()) {
            connection->second.refCon = connRefCon;
            return noErr;
        }
        sourceName = sourceIt->second.jackName;
        slotName = portIt->second.name + " " + std::to_string(state.nextPortNumber++);
    }
    auto slot = state.claimSlot(State::Slot::Input, slotName, true);
    if (!slot)
        return kMIDIUnknownEndpoint;
    std::string ours;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt != state.inputPorts.end() && state.model.objects.count(source)) {
            auto& connection = portIt->second.connections[source];
            connection.refCon = connRefCon;
            connection.slot = *slot;
            ours = jack_port_name(state.slots[*slot].port);
        }
    }
    if (ours.empty()) {  // the port or the source went meanwhile
        state.releaseSlot(*slot);
        return kMIDIParamErr;
    }
    const int error = JACK::connectPorts(state.jack(), sourceName.c_str(), ours.c_str());
    if (error != 0 && error != EEXIST) {
        reportFailure("jack_connect", sourceName + " -> " + ours);
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            if (auto portIt = state.inputPorts.find(port); portIt != state.inputPorts.end())
                portIt->second.connections.erase(source);
        }
        state.releaseSlot(*slot);
        return kMIDIUnknownEndpoint;
    }
    return noErr;
}

OSStatus VelmorJACKMIDIService::portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source)
{
    State& state = *state_;
    std::size_t slot = 0;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.otherRefs.count(port) || state.model.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto connection = portIt->second.connections.find(source);
        if (connection == portIt->second.connections.end())
            return kMIDIParamErr;  // not connected (or the source has gone)
        slot = connection->second.slot;
        portIt->second.connections.erase(connection);
    }
    state.releaseSlot(slot);  // unregistering the port ends the JACK connection
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorJACKMIDIService::portDispose(MIDIPortRef port)
{
    State& state = *state_;
    std::vector<std::size_t> slotsToRelease;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (auto it = state.inputPorts.find(port); it != state.inputPorts.end()) {
            for (auto& [source, connection] : it->second.connections)
                slotsToRelease.push_back(connection.slot);
            state.inputPorts.erase(it);
        } else if (auto out = state.outputPorts.find(port); out != state.outputPorts.end()) {
            for (auto& [destination, slot] : out->second.destinations)
                slotsToRelease.push_back(slot);
            state.outputPorts.erase(out);
        } else {
            return state.otherRefs.count(port) || state.model.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        }
        state.otherRefs.erase(port);
    }
    for (std::size_t slot : slotsToRelease)
        state.releaseSlot(slot);
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorJACKMIDIService::sourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource)
{
    if (!outSource)
        return kMIDIParamErr;
    *outSource = 0;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.otherRefs.count(client) || state.model.objects.count(client) ? kMIDIInvalidClient
                                                                                       : kMIDIParamErr;
    }
    // JACK wants port names unique within the client: a second source of the same name gets a number.
    const std::string wanted = name.empty() ? "source" : std::string(name);
    std::optional<std::size_t> slot;
    std::string shortName = wanted;
    jack_client_t* handle = state.jack();
    for (int attempt = 2; handle && attempt < 100; ++attempt) {
        const std::string full = state.clientName + ":" + shortName;
        if (!jack_port_by_name(handle, full.c_str())) {
            slot = state.claimSlot(State::Slot::Output, shortName, false);
            break;
        }
        shortName = wanted + " " + std::to_string(attempt);
    }
    if (!slot)
        return kMIDIUnknownEndpoint;
    jack_port_t* jackPort = state.slots[*slot].port;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        State::Port* port = state.addPort(jack_port_name(jackPort), jack_port_uuid(jackPort), true, std::string(name),
                                          {}, true, client);
        if (port) {
            port->slot = *slot;
            *outSource = port->endpoint;
        }
        state.publish();
    }
    state.wake();
    if (!*outSource) {
        state.releaseSlot(*slot);
        return kMIDIUnknownEndpoint;
    }
    return noErr;
}

OSStatus VelmorJACKMIDIService::endpointDispose(MIDIEndpointRef endpoint)
{
    State& state = *state_;
    std::size_t slot = 0;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.model.objects.find(endpoint);
        if (it == state.model.objects.end())
            return kMIDIParamErr;
        auto port = state.ports.find(it->second.jackName);
        if (port == state.ports.end() || !port->second.own || port->second.endpoint != endpoint)
            return kMIDIUnknownEndpoint;  // not ours to dispose of
        slot = port->second.slot;
        state.removePort(it->second.jackName);
        state.publish();
    }
    state.releaseSlot(slot);
    state.releasePending();
    state.wake();
    return noErr;
}

} // namespace VelmorPlatform

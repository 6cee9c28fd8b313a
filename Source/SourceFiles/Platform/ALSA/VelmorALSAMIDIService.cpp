#include "VelmorALSAInternal.h"

namespace VelmorPlatform {

// --- Opening and closing ----------------------------------------------------------------------------

VelmorALSAMIDIService::State::~State()
{
    stopping = true;
    wake();
    if (thread.joinable())
        thread.join();
    if (decoder)
        snd_midi_event_free(decoder);
    for (Coder& coder : coders)
        if (coder.coder)
            snd_midi_event_free(coder.coder);
    if (seq)
        snd_seq_close(seq);
    if (wakeFd >= 0)
        close(wakeFd);
}

void VelmorALSAMIDIService::State::wake() const
{
    if (wakeFd >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] auto written = write(wakeFd, &one, sizeof one);
    }
}

bool VelmorALSAMIDIService::State::open()
{
    int error = snd_seq_open(&seq, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK);
    if (error < 0) {
        seq = nullptr;
        reportFailure("snd_seq_open", error);
        return false;
    }
    snd_seq_set_client_name(seq, "Velmor");
    snd_seq_set_client_pool_input(seq, 2000);
    snd_seq_set_client_pool_output(seq, 2000);
    snd_seq_set_input_buffer_size(seq, 1 << 18);
    myClient = snd_seq_client_id(seq);
    announcePort = snd_seq_create_simple_port(seq, "Velmor system",
                                              SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_NO_EXPORT,
                                              SND_SEQ_PORT_TYPE_APPLICATION);
    if (announcePort < 0) {
        reportFailure("snd_seq_create_simple_port", announcePort);
        return false;
    }
    if ((error = snd_seq_connect_from(seq, announcePort, SND_SEQ_CLIENT_SYSTEM, SND_SEQ_PORT_SYSTEM_ANNOUNCE)) < 0) {
        reportFailure("subscribing to System:Announce", error);
        return false;
    }
    queue = snd_seq_alloc_named_queue(seq, "Velmor");
    if (queue < 0) {
        reportFailure("snd_seq_alloc_named_queue", queue);
        return false;
    }
    snd_seq_start_queue(seq, queue, nullptr);
    snd_seq_drain_output(seq);
    snd_seq_queue_status_t* status = nullptr;
    snd_seq_queue_status_alloca(&status);
    const MIDITimeStamp before = AudioGetCurrentHostTime();
    if ((error = snd_seq_get_queue_status(seq, queue, status)) < 0) {
        reportFailure("snd_seq_get_queue_status", error);
        return false;
    }
    const MIDITimeStamp after = AudioGetCurrentHostTime();
    const snd_seq_real_time_t* real = snd_seq_queue_status_get_real_time(status);
    const MIDITimeStamp queueTicks =
        AudioConvertNanosToHostTime(std::uint64_t(real->tv_sec) * 1000000000u + real->tv_nsec);
    const MIDITimeStamp middle = before + (after - before) / 2;
    queueBaseHostTime = middle > queueTicks ? middle - queueTicks : 0;

    if ((error = snd_midi_event_new(256, &decoder)) < 0) {
        reportFailure("snd_midi_event_new", error);
        return false;
    }
    snd_midi_event_no_status(decoder, 1);
    for (Coder& coder : coders)
        if ((error = snd_midi_event_new(256, &coder.coder)) < 0) {
            reportFailure("snd_midi_event_new", error);
            return false;
        }
    outputDescriptors.resize(std::size_t(snd_seq_poll_descriptors_count(seq, POLLOUT)));
    snd_seq_poll_descriptors(seq, outputDescriptors.data(), unsigned(outputDescriptors.size()), POLLOUT);
    inputDescriptors.resize(std::size_t(snd_seq_poll_descriptors_count(seq, POLLIN)) + 1);
    snd_seq_poll_descriptors(seq, inputDescriptors.data() + 1, unsigned(inputDescriptors.size() - 1), POLLIN);
    wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        std::fprintf(stderr, "VelmorALSAMIDIService: eventfd failed: %s\n", std::strerror(errno));
        return false;
    }
    enumerate();
    {
        std::lock_guard<std::mutex> lock(mutex);
        publishSnapshots();
    }
    thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "Velmor ALSA");  // for top, perf and debuggers
        run();
    });
    return true;
}

// --- The service thread -----------------------------------------------------------------------------

void VelmorALSAMIDIService::State::run()
{
    threadID = std::this_thread::get_id();
    // The rescan's timer needs no precision: the coarse clock reads a kernel variable, where the precise
    // one reads the processor's counter once per wake-up on the MIDI road.
    auto coarseNow = [] {
        timespec now {};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    auto lastRescan = coarseNow();
    while (!stopping) {
        inputDescriptors[0] = pollfd {wakeFd, POLLIN, 0};
        bool pending = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            pending = !deliveries.empty();
        }
        if (!pending && poll(inputDescriptors.data(), inputDescriptors.size(), kRescanMs) > 0 &&
            (inputDescriptors[0].revents & POLLIN)) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = read(wakeFd, &count, sizeof count);
        }
        if (stopping)
            break;

        takeBurst();
        dispatch();  // what was queued before this burst goes first
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        for (std::size_t i = 0; i < burst.size(); ++i) {
            snd_seq_event_t& event = burst[i];
            const bool announcement = event.source.client == SND_SEQ_CLIENT_SYSTEM && event.dest.port == announcePort;
            const bool marker = event.type == SND_SEQ_EVENT_ECHO && event.source.client == myClient;
            if (!announcement && !marker) {
                handleMIDI(event, burstData.data() + dataAt[i], lock);
                continue;
            }
            // What came before this event is handed on before what it causes.
            if (lock.owns_lock())
                lock.unlock();
            deliverLists();
            if (snd_seq_ev_is_variable(&event))
                event.data.ext.ptr = burstData.data() + dataAt[i];
            if (announcement) {
                handleAnnouncement(event);
            } else {
                std::lock_guard<std::mutex> markerLock(mutex);
                Delivery delivery;
                delivery.kind = Delivery::Kind::Marker;
                delivery.marker = event.data.raw32.d[0];
                deliveries.push_back(std::move(delivery));
            }
            dispatch();
        }
        if (lock.owns_lock())
            lock.unlock();
        deliverLists();
        if (overruns) {
            reportOverrun();
            overruns = 0;
            resync();
        }
        if (coarseNow() - lastRescan >= std::chrono::milliseconds(kRescanMs)) {
            rescan();
            lastRescan = coarseNow();
        }
        dispatch();
        // A burst of a huge exclusive message leaves big buffers behind: don't keep them for good.
        if (burstData.capacity() > (std::size_t(1) << 20))
            std::vector<std::uint8_t>().swap(burstData);
    }
}

// --- The service ------------------------------------------------------------------------------------

std::shared_ptr<VelmorALSAMIDIService> VelmorALSAMIDIService::create()
{
    std::shared_ptr<VelmorALSAMIDIService> service(new VelmorALSAMIDIService());
    service->state_ = std::make_unique<State>();
    if (!service->state_->open())
        return nullptr;
    return service;
}

VelmorALSAMIDIService::~VelmorALSAMIDIService() = default;

int VelmorALSAMIDIService::sequencerClientID() const
{
    return state_->myClient;
}

std::string VelmorALSAMIDIService::sequencerAddress(MIDIObjectRef object) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->objects.find(object);
    if (it == state_->objects.end() || it->second.address.second < 0)
        return "";
    return std::to_string(it->second.address.first) + ":" + std::to_string(it->second.address.second);
}

void VelmorALSAMIDIService::waitUntilIdle(int timeoutMs)
{
    State& state = *state_;
    if (state.onServiceThread())
        return;
    std::uint64_t marker = 0;
    {
        std::lock_guard<std::mutex> lock(state.markerMutex);
        marker = ++state.markersSent;
    }
    snd_seq_event_t event;
    snd_seq_ev_clear(&event);
    event.type = SND_SEQ_EVENT_ECHO;
    event.data.raw32.d[0] = std::uint32_t(marker);
    snd_seq_ev_set_source(&event, state.announcePort);
    snd_seq_ev_set_dest(&event, state.myClient, state.announcePort);
    snd_seq_ev_set_direct(&event);
    if (state.output(event) < 0)
        return;
    std::unique_lock<std::mutex> lock(state.markerMutex);
    state.markerDone.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return state.markersHandled >= marker; });
}

OSStatus VelmorALSAMIDIService::clientCreate(std::string_view name, MIDINotifyProc notifyProc, void* notifyRefCon,
                                             MIDIClientRef* outClient)
{
    if (!outClient)
        return kMIDIParamErr;
    State& state = *state_;
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        first = state.clients.empty();
        *outClient = state.nextRef++;
        state.objects[*outClient] = State::Object {kMIDIObjectType_Other, {-1, -1}, 0, {}};
        state.clients[*outClient] = State::Client {notifyProc, notifyRefCon};
    }
    if (first && !name.empty()) {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_set_client_name(state.seq, std::string(name).c_str());
    }
    return noErr;
}

OSStatus VelmorALSAMIDIService::clientDispose(MIDIClientRef client)
{
    State& state = *state_;
    std::vector<MIDIPortRef> portsToDispose;
    std::vector<MIDIEndpointRef> sourcesToDispose;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
        for (auto& [ref, port] : state.inputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [ref, port] : state.outputPorts)
            if (port.client == client)
                portsToDispose.push_back(ref);
        for (auto& [address, port] : state.ports)
            if (port.own && port.owner == client && port.source)
                sourcesToDispose.push_back(port.source);
    }
    for (auto ref : portsToDispose)
        portDispose(ref);
    for (auto ref : sourcesToDispose)
        endpointDispose(ref);
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.clients.erase(client);
        state.objects.erase(client);
        state.sendTableStale.store(true, std::memory_order_release);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::inputPortCreate(MIDIClientRef client, std::string_view portName, MIDIReadProc readProc,
                                                void* refCon, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = -1;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_port_info_t* info = nullptr;
        snd_seq_port_info_alloca(&info);
        snd_seq_port_info_set_name(info, std::string(portName).c_str());
        snd_seq_port_info_set_capability(info, SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE |
                                                   SND_SEQ_PORT_CAP_NO_EXPORT);
        snd_seq_port_info_set_type(info, SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        snd_seq_port_info_set_timestamping(info, 1);
        snd_seq_port_info_set_timestamp_real(info, 1);
        snd_seq_port_info_set_timestamp_queue(info, state.queue);
        const int error = snd_seq_create_port(state.seq, info);
        if (error < 0) {
            reportFailure("snd_seq_create_port", error);
            return kMIDIInvalidPort;
        }
        seqPort = snd_seq_port_info_get_port(info);
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    *outPort = state.nextRef++;
    state.objects[*outPort] = State::Object {kMIDIObjectType_Other, {state.myClient, seqPort}, 0, {}};
    auto& port = state.inputPorts[*outPort];
    port.client = client;
    port.seqPort = seqPort;
    port.readProc = readProc;
    port.refCon = refCon;
    return noErr;
}

OSStatus VelmorALSAMIDIService::outputPortCreate(MIDIClientRef client, std::string_view portName, MIDIPortRef* outPort)
{
    if (!outPort)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = 0;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        seqPort = snd_seq_create_simple_port(state.seq, std::string(portName).c_str(),
                                             SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ |
                                                 SND_SEQ_PORT_CAP_NO_EXPORT,
                                             SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    }
    if (seqPort < 0) {
        reportFailure("snd_seq_create_simple_port", seqPort);
        return kMIDIInvalidPort;
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    *outPort = state.nextRef++;
    state.objects[*outPort] = State::Object {kMIDIObjectType_Other, {state.myClient, seqPort}, 0, {}};
    state.outputPorts[*outPort] = State::OutputPort {client, seqPort, {}};
    return noErr;
}

OSStatus VelmorALSAMIDIService::portConnectSource(MIDIPortRef port, MIDIEndpointRef source, void* connRefCon)
{
    State& state = *state_;
    int seqPort = -1;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto sourceIt = state.objects.find(source);
        if (sourceIt == state.objects.end())
            return kMIDIParamErr;
        if (sourceIt->second.type != kMIDIObjectType_Source)
            return kMIDIUnknownEndpoint;
        if (portIt->second.connections.count(source)) {
            portIt->second.connections[source].refCon = connRefCon;
            return noErr;
        }
        seqPort = portIt->second.seqPort;
        address = sourceIt->second.address;
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_port_subscribe_t* subscription = nullptr;
        snd_seq_port_subscribe_alloca(&subscription);
        snd_seq_addr_t sender {std::uint8_t(address.first), std::uint8_t(address.second)};
        snd_seq_addr_t receiver {std::uint8_t(state.myClient), std::uint8_t(seqPort)};
        snd_seq_port_subscribe_set_sender(subscription, &sender);
        snd_seq_port_subscribe_set_dest(subscription, &receiver);
        snd_seq_port_subscribe_set_queue(subscription, state.queue);
        snd_seq_port_subscribe_set_time_update(subscription, 1);
        snd_seq_port_subscribe_set_time_real(subscription, 1);
        const int error = snd_seq_subscribe_port(state.seq, subscription);
        if (error < 0 && error != -EBUSY) {
            reportFailure("snd_seq_subscribe_port", error);
            return kMIDIUnknownEndpoint;
        }
    }
    std::lock_guard<std::mutex> lock(state.mutex);
    auto portIt = state.inputPorts.find(port);
    if (portIt == state.inputPorts.end())
        return kMIDIParamErr;
    auto& connection = portIt->second.connections[source];
    connection.refCon = connRefCon;
    connection.address = address;
    return noErr;
}

OSStatus VelmorALSAMIDIService::portDisconnectSource(MIDIPortRef port, MIDIEndpointRef source)
{
    State& state = *state_;
    int seqPort = -1;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto portIt = state.inputPorts.find(port);
        if (portIt == state.inputPorts.end())
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        auto connection = portIt->second.connections.find(source);
        if (connection == portIt->second.connections.end())
            return kMIDIParamErr;  // not connected (or the source has gone)
        seqPort = portIt->second.seqPort;
        address = connection->second.address;
        portIt->second.connections.erase(connection);
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_disconnect_from(state.seq, seqPort, address.first, address.second);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::portDispose(MIDIPortRef port)
{
    State& state = *state_;
    int seqPort = -1;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (auto it = state.inputPorts.find(port); it != state.inputPorts.end()) {
            seqPort = it->second.seqPort;
            state.inputPorts.erase(it);
        } else if (auto out = state.outputPorts.find(port); out != state.outputPorts.end()) {
            seqPort = out->second.seqPort;
            state.outputPorts.erase(out);
        } else {
            return state.objects.count(port) ? kMIDIInvalidPort : kMIDIParamErr;
        }
        state.objects.erase(port);
        state.sendTableStale.store(true, std::memory_order_release);
    }
    {
        // Deleting the port ends its subscriptions too.
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_delete_simple_port(state.seq, seqPort);
    }
    state.waitForCallbacks();
    return noErr;
}

OSStatus VelmorALSAMIDIService::sourceCreate(MIDIClientRef client, std::string_view name, MIDIEndpointRef* outSource)
{
    if (!outSource)
        return kMIDIParamErr;
    State& state = *state_;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.clients.count(client))
            return state.objects.count(client) ? kMIDIInvalidClient : kMIDIParamErr;
    }
    int seqPort = 0;
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        seqPort = snd_seq_create_simple_port(state.seq, std::string(name).c_str(),
                                             SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                             SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    }
    if (seqPort < 0) {
        reportFailure("snd_seq_create_simple_port", seqPort);
        return kMIDIUnknownEndpoint;
    }
    auto facts = state.queryClient(state.myClient);
    auto portFacts = state.queryPort({state.myClient, seqPort});
    if (!facts || !portFacts)
        return kMIDIUnknownEndpoint;
    facts->manufacturer.reset();
    facts->model.reset();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        State::Port* port = state.addPort({state.myClient, seqPort}, *portFacts, *facts, true, client);
        *outSource = port ? port->source : 0;
        state.publishSnapshots();
    }
    state.wake();
    return *outSource ? noErr : kMIDIUnknownEndpoint;
}

OSStatus VelmorALSAMIDIService::endpointDispose(MIDIEndpointRef endpoint)
{
    State& state = *state_;
    Address address;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.objects.find(endpoint);
        if (it == state.objects.end())
            return kMIDIParamErr;
        address = it->second.address;
        auto port = state.ports.find(address);
        if (port == state.ports.end() || !port->second.own || port->second.source != endpoint)
            return kMIDIUnknownEndpoint;  // not ours to dispose of
        state.removePort(address);
        state.publishSnapshots();
    }
    {
        std::lock_guard<std::mutex> lock(state.seqMutex);
        snd_seq_delete_simple_port(state.seq, address.second);
    }
    state.wake();
    return noErr;
}

} // namespace VelmorPlatform

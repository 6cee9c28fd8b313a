// Velmor against RtMidi and a plain libasound client on the ALSA sequencer, side by side in one process.
// Runs inside the VM of Tests/alsa-vm (the job peer-benchmark); see README.md next to this file.
//
// The peer process: forked before anything else starts, it owns the sequencer client "Peer Sender"
// (a port the receivers subscribe to) and "Peer Receiver" (a port the senders send to). The two
// processes share one anonymous mapping: the receiver's count, the send times, the sender's state.
// The peer's own work stays out of this process's getrusage.
//
// Every trial is one Google Benchmark run of one iteration; the libraries take turns test by test, each
// round starting with the next library, and the table at the end gives medians over the rounds with
// their spreads (min-max) and the Velmor/RtMidi ratios.

#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <poll.h>
#include <rtmidi/RtMidi.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Velmor.h"
#include "VelmorMainQueue.h"
#include "VelmorMIDIServices.h"
#include "VelmorSystemMIDIService.h"

using namespace VelmorPlatform;

namespace {

// --- Settings (environment, so that the VM's command line can carry them) ----------------------------

long setting(const char* name, long fallback)
{
    const char* text = std::getenv(name);
    return text && *text ? std::strtol(text, nullptr, 10) : fallback;
}

const int kRounds = int(setting("PEER_ROUNDS", 3));
const long kReceiveCount = setting("PEER_RECEIVE_COUNT", 20000);
const long kLatencyCount = std::min(setting("PEER_LATENCY_COUNT", 2000), 127L * 128L);
const long kSendCount = setting("PEER_SEND_COUNT", 100000);
const long kWindow = 64;
const std::size_t kExclusiveSize = 65536;
const std::size_t kExclusivePiece = 256;

std::int64_t nowNs()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t(time.tv_sec) * 1000000000 + time.tv_nsec;
}

double cpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A note carries its number in note and velocity (velocity 0 would read as a note off).
constexpr long kIds = 127 * 128;
std::uint8_t noteOf(long id) { return std::uint8_t(id % 128); }
std::uint8_t velocityOf(long id) { return std::uint8_t(1 + (id / 128) % 127); }
long idOf(unsigned note, unsigned velocity) { return long(note) + 128 * (long(velocity) - 1); }

std::uint8_t exclusiveByte(std::size_t i)
{
    return i == 0 ? 0xF0 : i + 1 == kExclusiveSize ? 0xF7 : std::uint8_t(i * 7 % 128);
}

// --- Shared with the peer process --------------------------------------------------------------------

enum class Command : int { Windowed = 1, Paced, Exclusive, ResetReceived, Quit };

struct Shared {
    std::atomic<int> ready {0};
    int senderClient = 0, senderPort = 0, receiverClient = 0, receiverPort = 0;
    // This process counts what it receives; the windowed sender stays at most kWindow ahead of it.
    std::atomic<long> received {0};
    std::atomic<long> wakeAt {0};
    std::atomic<std::uint32_t> senderWaiting {0};  // futex word
    std::atomic<int> senderDone {0};
    std::atomic<long> sent {0};
    std::int64_t startNs = 0;
    std::atomic<std::int64_t> lastPieceNs {0};  // before the last piece of an exclusive message is written
    std::atomic<long> peerReceived {0};         // notes that reached "Peer Receiver"
    std::int64_t sendNs[kIds];
};

Shared* shared = nullptr;
int commandPipe[2] = {-1, -1};

long futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value, const timespec* timeout)
{
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op, value, timeout, nullptr, 0);
}

// --- The peer process --------------------------------------------------------------------------------

snd_seq_t* openClient(const char* clientName, int mode)
{
    snd_seq_t* seq = nullptr;
    if (snd_seq_open(&seq, "default", mode, 0) < 0) {
        std::fprintf(stderr, "peer: cannot open the sequencer\n");
        _exit(2);
    }
    snd_seq_set_client_name(seq, clientName);
    return seq;
}

void peerSend(snd_seq_t* seq, int port, snd_seq_event_t& event)
{
    snd_seq_ev_set_source(&event, port);
    snd_seq_ev_set_subs(&event);
    snd_seq_ev_set_direct(&event);
    while (snd_seq_event_output_direct(seq, &event) == -EAGAIN)
        std::this_thread::yield();
}

void peerWindowed(snd_seq_t* seq, int port, long count)
{
    shared->startNs = nowNs();
    std::int64_t lastProgress = shared->startNs;
    long lastReceived = 0;
    for (long i = 0; i < count; ++i) {
        while (i - shared->received.load() >= kWindow) {
            shared->wakeAt.store(i - kWindow / 2);
            shared->senderWaiting.store(1);
            if (i - shared->received.load() >= kWindow) {
                const timespec timeout {0, 20000000};
                futex(&shared->senderWaiting, FUTEX_WAIT, 1, &timeout);
            }
            shared->senderWaiting.store(0);
            const long received = shared->received.load();
            if (received != lastReceived) {
                lastReceived = received;
                lastProgress = nowNs();
            } else if (nowNs() - lastProgress > 2000000000) {
                return;  // the receiver lost notes: the window never opens again
            }
        }
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        snd_seq_ev_set_noteon(&event, 0, noteOf(i % kIds), velocityOf(i % kIds));
        peerSend(seq, port, event);
        shared->sent.store(i + 1);
    }
}

void peerPaced(snd_seq_t* seq, int port, long count)
{
    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    shared->startNs = nowNs();
    for (long i = 0; i < count; ++i) {
        next.tv_nsec += 1000000;
        if (next.tv_nsec >= 1000000000) {
            next.tv_nsec -= 1000000000;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        snd_seq_ev_set_noteon(&event, 0, noteOf(i), velocityOf(i));
        shared->sendNs[i] = nowNs();
        peerSend(seq, port, event);
        shared->sent.store(i + 1);
    }
}

// Pieces of 256 bytes a millisecond, as a fast device would deliver them.
void peerExclusive(snd_seq_t* seq, int port)
{
    std::vector<std::uint8_t> bytes(kExclusiveSize);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = exclusiveByte(i);
    shared->startNs = nowNs();
    for (std::size_t at = 0; at < bytes.size(); at += kExclusivePiece) {
        if (at)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        snd_seq_ev_set_sysex(&event, std::min(kExclusivePiece, bytes.size() - at), bytes.data() + at);
        if (at + kExclusivePiece >= bytes.size())
            shared->lastPieceNs.store(nowNs());
        peerSend(seq, port, event);
    }
}

[[noreturn]] void peerMain()
{
    snd_seq_t* out = openClient("Peer Sender", SND_SEQ_OPEN_OUTPUT);
    const int outPort = snd_seq_create_simple_port(out, "Peer Sender Out", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                                   SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    snd_seq_t* in = openClient("Peer Receiver", SND_SEQ_OPEN_INPUT);
    // Room for bursts and few reads, so that this reader keeps up with the fastest sender.
    snd_seq_set_client_pool_input(in, 2000);
    snd_seq_set_input_buffer_size(in, 65536);
    const int inPort = snd_seq_create_simple_port(in, "Peer Receiver In", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                                  SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    shared->senderClient = snd_seq_client_id(out);
    shared->senderPort = outPort;
    shared->receiverClient = snd_seq_client_id(in);
    shared->receiverPort = inPort;
    std::thread([in] {
        pthread_setname_np(pthread_self(), "peer-recv");
        for (;;) {
            snd_seq_event_t* event = nullptr;
            if (snd_seq_event_input(in, &event) >= 0 && event && event->type == SND_SEQ_EVENT_NOTEON)
                shared->peerReceived.fetch_add(1, std::memory_order_relaxed);
        }
    }).detach();
    shared->ready.store(1);
    for (;;) {
        int message[2];
        if (read(commandPipe[0], message, sizeof message) != sizeof message)
            _exit(0);
        switch (Command(message[0])) {
        case Command::Windowed: peerWindowed(out, outPort, message[1]); break;
        case Command::Paced: peerPaced(out, outPort, message[1]); break;
        case Command::Exclusive: peerExclusive(out, outPort); break;
        case Command::ResetReceived: shared->peerReceived.store(0); break;
        case Command::Quit: _exit(0);
        }
        shared->senderDone.store(1);
    }
}

void tellPeer(Command command, long argument = 0)
{
    shared->senderDone.store(0);
    shared->sent.store(0);
    const int message[2] = {int(command), int(argument)};
    if (write(commandPipe[1], message, sizeof message) != sizeof message)
        std::abort();
}

// --- What every receiver does with what it gets -------------------------------------------------------

enum class Mode { Count, Latency, Exclusive };

struct Reception {
    Mode mode = Mode::Count;
    long target = 0;
    std::atomic<std::int64_t> lastNs {0};   // when the target count was reached
    std::vector<std::int64_t> latencyNs;    // by id; sized before the trial, never in a callback
    std::vector<std::int64_t> serviceLatencyNs;  // by id: send -> the probe on the service thread
    std::atomic<std::int64_t> exclusiveNs {0};
    std::atomic<std::int64_t> serviceNs {0};  // the service thread had the last piece (probe)
    std::atomic<std::size_t> exclusiveBytes {0};
    std::atomic<bool> exclusiveIntact {true};
    std::atomic<long> stray {0};
};

Reception reception;

void noteArrived(unsigned note, unsigned velocity)
{
    const long count = shared->received.fetch_add(1) + 1;
    if (shared->senderWaiting.load() && count >= shared->wakeAt.load(std::memory_order_relaxed) &&
        shared->senderWaiting.exchange(0))
        futex(&shared->senderWaiting, FUTEX_WAKE, 1, nullptr);
    if (reception.mode == Mode::Latency) {
        const long id = idOf(note, velocity);
        if (id >= 0 && id < long(reception.latencyNs.size()) && reception.latencyNs[id] < 0)
            reception.latencyNs[id] = nowNs() - shared->sendNs[id];
        else
            reception.stray.fetch_add(1);
    }
    if (count == reception.target)
        reception.lastNs.store(nowNs());
}

// A whole message, as the consumer and RtMidi give it.
void exclusiveArrived(const std::uint8_t* bytes, std::size_t length)
{
    const std::int64_t now = nowNs();
    bool intact = length == kExclusiveSize;
    for (std::size_t i = 0; intact && i < length; i += 97)
        intact = bytes[i] == exclusiveByte(i);
    intact = intact && bytes[length - 1] == 0xF7;
    reception.exclusiveIntact.store(intact);
    reception.exclusiveBytes.store(length);
    reception.exclusiveNs.store(now);
}

// A piece of one, as a read procedure and the plain client get them.
void exclusivePieceArrived(const std::uint8_t* bytes, std::size_t length, std::atomic<std::int64_t>& doneNs)
{
    const std::size_t before = reception.exclusiveBytes.fetch_add(length);
    for (std::size_t i = 0; i < length; i += 31)
        if (bytes[i] != exclusiveByte(before + i))
            reception.exclusiveIntact.store(false);
    if (length && bytes[length - 1] == 0xF7)
        doneNs.store(nowNs());
}

// MIDI bytes of a packet-list image (count, then time stamp, length and data per packet).
template <typename Visit>
void forEachPacket(const MIDIPacketList* list, Visit visit)
{
    const auto* at = reinterpret_cast<const std::uint8_t*>(list);
    std::uint32_t count;
    std::memcpy(&count, at, 4);
    at += 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint16_t length;
        std::memcpy(&length, at + 8, 2);
        visit(at + 10, std::size_t(length));
        at += 10 + length;
    }
}

void bytesArrived(const std::uint8_t* data, std::size_t length, std::atomic<std::int64_t>& exclusiveDone)
{
    if (reception.mode == Mode::Exclusive) {
        exclusivePieceArrived(data, length, exclusiveDone);
        return;
    }
    for (std::size_t i = 0; i + 2 < length; ++i)
        if ((data[i] & 0xF0) == 0x90) {
            noteArrived(data[i + 1], data[i + 2]);
            i += 2;
        }
}

// --- The contenders ----------------------------------------------------------------------------------

struct Contender {
    std::string name;
    std::function<void()> startReceiving, stopReceiving;
    std::function<void()> serve;  // called on the main thread while a trial waits
    std::function<void(long)> sendNotes;  // empty: this one doesn't send
    bool receives = true;
};

// Velmor, on the main thread: the application's path.
struct VelmorConsumerProbe : VelmorConsumer {
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        if (event->type() == VelmorEventTypeNoteOn)
            noteArrived(unsigned(event->note()), unsigned(event->velocity()));
        else if (event->type() == VelmorEventTypeSystem && event->data().length())
            exclusiveArrived(event->data().bytes(), event->data().length());
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
};

// Velmor's boundary, on the service thread: a read procedure of our own.
void readProc(const MIDIPacketList* list, void*, void*)
{
    forEachPacket(list, [](const std::uint8_t* data, std::size_t length) {
        bytesArrived(data, length, reception.exclusiveNs);
    });
}

// Experiment: the hop alone, bytes copied into a std::function.
void bareHopReadProc(const MIDIPacketList* list, void*, void*)
{
    forEachPacket(list, [](const std::uint8_t* data, std::size_t length) {
        if (length == 3) {
            const unsigned note = data[1], velocity = data[2];
            VelmorMainQueue::mainQueue().post([note, velocity] { noteArrived(note, velocity); });
        }
    });
}
// Experiment: the hop with a packet list, decoded on the main thread without a source.
void listHopReadProc(const MIDIPacketList* list, void*, void*)
{
    auto packets = VelmorPacketList::initWithMIDIPacketList(list);
    VelmorMainQueue::mainQueue().post([packets] {
        for (const auto& packet : packets->packets()) {
            auto event = VelmorEvent::eventWithPacket(packet);
            if (event && event->type() == VelmorEventTypeNoteOn)
                noteArrived(unsigned(event->note()), unsigned(event->velocity()));
        }
    });
}

// Only notes when the service thread had the last exclusive piece, next to the consumer.
void serviceProbeReadProc(const MIDIPacketList* list, void*, void*)
{
    forEachPacket(list, [](const std::uint8_t* data, std::size_t length) {
        if (length && data[length - 1] == 0xF7)
            reception.serviceNs.store(nowNs());
        if (reception.mode == Mode::Latency && length == 3 && (data[0] & 0xF0) == 0x90) {
            const long id = idOf(data[1], data[2]);
            if (id >= 0 && id < long(reception.serviceLatencyNs.size()))
                reception.serviceLatencyNs[id] = nowNs() - shared->sendNs[id];
        }
    });
}

void rtMidiCallback(double, std::vector<unsigned char>* message, void*)
{
    if (message->empty())
        return;
    if ((*message)[0] == 0xF0)
        exclusiveArrived(message->data(), message->size());
    else if (((*message)[0] & 0xF0) == 0x90 && message->size() == 3)
        noteArrived((*message)[1], (*message)[2]);
}

// The floor: a thread that drains the sequencer and nothing else.
struct PlainClient {
    snd_seq_t* seq = nullptr;
    int port = -1;
    int wakePipe[2] = {-1, -1};
    std::atomic<bool> stop {false};
    std::thread thread;

    bool open()
    {
        if (snd_seq_open(&seq, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK) < 0)
            return false;
        snd_seq_set_client_name(seq, "Peer ALSA In");
        port = snd_seq_create_simple_port(seq, "in", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                          SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        if (pipe(wakePipe) != 0)
            return false;
        thread = std::thread([this] { run(); });
        return port >= 0;
    }
    void run()
    {
        const int count = snd_seq_poll_descriptors_count(seq, POLLIN);
        std::vector<pollfd> fds(std::size_t(count) + 1);
        snd_seq_poll_descriptors(seq, fds.data(), unsigned(count), POLLIN);
        fds[std::size_t(count)] = {wakePipe[0], POLLIN, 0};
        while (!stop.load()) {
            poll(fds.data(), fds.size(), -1);
            snd_seq_event_t* event = nullptr;
            while (snd_seq_event_input(seq, &event) >= 0 && event) {
                if (event->type == SND_SEQ_EVENT_NOTEON)
                    noteArrived(event->data.note.note, event->data.note.velocity);
                else if (event->type == SND_SEQ_EVENT_SYSEX)
                    exclusivePieceArrived(static_cast<const std::uint8_t*>(event->data.ext.ptr), event->data.ext.len,
                                          reception.exclusiveNs);
                event = nullptr;
            }
        }
    }
    void close()
    {
        stop.store(true);
        if (write(wakePipe[1], "x", 1) != 1)
            std::abort();
        thread.join();
        snd_seq_close(seq);
    }
    // The same as the send side of the floor: one event straight to the peer's port.
    void sendNotes(long count)
    {
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        snd_seq_ev_set_source(&event, port);
        snd_seq_ev_set_dest(&event, shared->receiverClient, shared->receiverPort);
        snd_seq_ev_set_direct(&event);
        snd_seq_ev_set_noteon(&event, 0, 60, 100);
        for (long i = 0; i < count; ++i) {
            int result;
            while ((result = snd_seq_event_output_direct(seq, &event)) == -EAGAIN)
                std::this_thread::yield();
            if (result < 0)
                refused.fetch_add(1);
        }
    }
    std::atomic<long> refused {0};
};

PlainClient plain;
std::vector<Contender> contenders;

// --- Results -----------------------------------------------------------------------------------------

struct Spread {
    double median = NAN, min = NAN, max = NAN;
    int n = 0;
};

Spread spreadOf(std::vector<double> values)
{
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return std::isnan(v); }), values.end());
    if (values.empty())
        return {};
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    return {median, values.front(), values.back(), int(n)};
}

double percentile(std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return NAN;
    return sorted[std::min(sorted.size() - 1, std::size_t(double(sorted.size()) * p))];
}

// figure -> contender -> one value per round
std::map<std::string, std::map<std::string, std::vector<double>>> results;
std::map<std::string, std::map<std::string, long>> losses;  // figure -> contender -> messages lost, all rounds

void record(const std::string& figure, const std::string& contender, double value) { results[figure][contender].push_back(value); }

// --- Trials ------------------------------------------------------------------------------------------

void waitFor(const Contender& contender, const std::function<bool()>& done, double limitSeconds)
{
    const std::int64_t deadline = nowNs() + std::int64_t(limitSeconds * 1e9);
    while (!done() && nowNs() < deadline)
        contender.serve();
}

void resetReception(Mode mode, long target)
{
    reception.mode = mode;
    reception.target = target;
    reception.lastNs.store(0);
    reception.exclusiveNs.store(0);
    reception.serviceNs.store(0);
    reception.exclusiveBytes.store(0);
    reception.exclusiveIntact.store(true);
    reception.stray.store(0);
    shared->received.store(0);
    shared->lastPieceNs.store(0);
}

// Experiment contenders that only send take no part in the receiving trials.
bool skipUnlessReceiving(benchmark::State& state, const Contender& contender)
{
    if (contender.receives)
        return false;
    state.SkipWithError("does not receive");
    return true;
}

void trialReceive(benchmark::State& state, Contender& contender)
{
    if (skipUnlessReceiving(state, contender))
        return;
    for (auto _ : state) {
        resetReception(Mode::Count, kReceiveCount);
        contender.startReceiving();
        const double cpu0 = cpuSeconds();
        tellPeer(Command::Windowed, kReceiveCount);
        // The peer gives up when the window stays shut for 2 s (lost notes).
        waitFor(contender, [] { return shared->received.load() >= kReceiveCount || shared->senderDone.load(); }, 120);
        waitFor(contender, [] { return shared->received.load() >= kReceiveCount; }, 0.5);
        const double cpu = cpuSeconds() - cpu0;
        contender.stopReceiving();
        const long received = shared->received.load();
        const std::int64_t end = reception.lastNs.load() ? reception.lastNs.load() : nowNs();
        const double seconds = double(end - shared->startNs) / 1e9;
        state.SetIterationTime(seconds);
        state.counters["msg_per_s"] = double(received) / seconds;
        state.counters["cpu_us_per_msg"] = cpu * 1e6 / double(std::max(1L, received));
        state.counters["lost"] = double(kReceiveCount - received);
        record("receive", contender.name, received == kReceiveCount ? double(received) / seconds : NAN);
        record("cpu", contender.name, cpu * 1e6 / double(std::max(1L, received)));
        losses["receive"][contender.name] += kReceiveCount - received;
    }
}

void trialLatency(benchmark::State& state, Contender& contender)
{
    if (skipUnlessReceiving(state, contender))
        return;
    for (auto _ : state) {
        resetReception(Mode::Latency, kLatencyCount);
        reception.latencyNs.assign(std::size_t(kLatencyCount), -1);
        contender.startReceiving();
        tellPeer(Command::Paced, kLatencyCount);
        waitFor(contender, [] { return shared->received.load() >= kLatencyCount || shared->senderDone.load(); }, 120);
        waitFor(contender, [] { return shared->received.load() >= kLatencyCount; }, 1.0);
        contender.stopReceiving();
        std::vector<double> us;
        for (auto ns : reception.latencyNs)
            if (ns >= 0)
                us.push_back(double(ns) / 1000.0);
        std::sort(us.begin(), us.end());
        const double median = percentile(us, 0.5), p99 = percentile(us, 0.99), max = us.empty() ? NAN : us.back();
        state.SetIterationTime(double(nowNs() - shared->startNs) / 1e9);
        state.counters["median_us"] = median;
        state.counters["p99_us"] = p99;
        state.counters["max_us"] = max;
        state.counters["lost"] = double(kLatencyCount - long(us.size()));
        record("latency median", contender.name, median);
        record("latency p99", contender.name, p99);
        record("latency max", contender.name, max);
        losses["latency median"][contender.name] += kLatencyCount - long(us.size()) + reception.stray.load();
    }
}

// The consumer's latency cut in two by a probe read procedure that is subscribed first: send -> service
// thread, service thread -> consumer, note by note.
void trialLatencySplit(benchmark::State& state, Contender& contender, MIDIPortRef probePort, MIDIEndpointRef source)
{
    for (auto _ : state) {
        resetReception(Mode::Latency, kLatencyCount);
        reception.latencyNs.assign(std::size_t(kLatencyCount), -1);
        reception.serviceLatencyNs.assign(std::size_t(kLatencyCount), -1);
        // PEER_PROBE_AFTER=1 subscribes the probe after the manager's port, to see whether the order counts.
        static const bool probeAfter = setting("PEER_PROBE_AFTER", 0) != 0;
        if (!probeAfter)
            MIDIPortConnectSource(probePort, source, nullptr);
        contender.startReceiving();
        if (probeAfter)
            MIDIPortConnectSource(probePort, source, nullptr);
        tellPeer(Command::Paced, kLatencyCount);
        waitFor(contender, [] { return shared->received.load() >= kLatencyCount || shared->senderDone.load(); }, 120);
        waitFor(contender, [] { return shared->received.load() >= kLatencyCount; }, 1.0);
        contender.stopReceiving();
        MIDIPortDisconnectSource(probePort, source);
        std::vector<double> toService, toConsumer;
        for (long id = 0; id < kLatencyCount; ++id)
            if (reception.latencyNs[std::size_t(id)] >= 0 && reception.serviceLatencyNs[std::size_t(id)] >= 0) {
                toService.push_back(double(reception.serviceLatencyNs[std::size_t(id)]) / 1000.0);
                toConsumer.push_back(
                    double(reception.latencyNs[std::size_t(id)] - reception.serviceLatencyNs[std::size_t(id)]) / 1000.0);
            }
        std::sort(toService.begin(), toService.end());
        std::sort(toConsumer.begin(), toConsumer.end());
        state.SetIterationTime(double(nowNs() - shared->startNs) / 1e9);
        state.counters["to_service_median_us"] = percentile(toService, 0.5);
        state.counters["to_service_p99_us"] = percentile(toService, 0.99);
        state.counters["service_to_consumer_median_us"] = percentile(toConsumer, 0.5);
        state.counters["service_to_consumer_p99_us"] = percentile(toConsumer, 0.99);
        record("split service median", contender.name, percentile(toService, 0.5));
        record("split service p99", contender.name, percentile(toService, 0.99));
        record("split consumer median", contender.name, percentile(toConsumer, 0.5));
        record("split consumer p99", contender.name, percentile(toConsumer, 0.99));
    }
}

void trialSend(benchmark::State& state, Contender& contender)
{
    if (!contender.sendNotes) {
        state.SkipWithError("does not send");
        return;
    }
    for (auto _ : state) {
        tellPeer(Command::ResetReceived);
        while (!shared->senderDone.load())
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        const std::int64_t start = nowNs();
        rusage before {}; getrusage(RUSAGE_THREAD, &before);
        contender.sendNotes(kSendCount);
        rusage after {}; getrusage(RUSAGE_THREAD, &after);
        const double seconds = double(nowNs() - start) / 1e9;
        // Whatever is still on its way gets a moment.
        const std::int64_t deadline = nowNs() + 3000000000;
        while (shared->peerReceived.load() < kSendCount && nowNs() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const long arrived = shared->peerReceived.load();
        state.SetIterationTime(seconds);
        state.counters["us_per_call"] = seconds * 1e6 / double(kSendCount);
        state.counters["lost"] = double(kSendCount - arrived);
        // On one CPU the receiver preempts the sender: how often tells more than the time alone.
        state.counters["preempted_per_call"] = double(after.ru_nivcsw - before.ru_nivcsw) / double(kSendCount);
        state.counters["refused"] = double(plain.refused.exchange(0));
        record("send", contender.name, seconds * 1e6 / double(kSendCount));
        losses["send"][contender.name] += kSendCount - arrived;
    }
}

void trialExclusive(benchmark::State& state, Contender& contender, bool withServiceProbe, MIDIPortRef probePort,
                    MIDIEndpointRef source)
{
    for (auto _ : state) {
        resetReception(Mode::Exclusive, 0);
        // The probe subscribes first, so the service thread hands it each piece before the framework.
        if (withServiceProbe)
            MIDIPortConnectSource(probePort, source, nullptr);
        contender.startReceiving();
        tellPeer(Command::Exclusive);
        waitFor(contender, [] { return reception.exclusiveNs.load() != 0; }, 30);
        waitFor(contender, [] { return shared->senderDone.load() != 0; }, 5);
        if (withServiceProbe)
            MIDIPortDisconnectSource(probePort, source);
        contender.stopReceiving();
        const bool whole = reception.exclusiveNs.load() && reception.exclusiveIntact.load() &&
                           reception.exclusiveBytes.load() == kExclusiveSize;
        const double ms = whole ? double(reception.exclusiveNs.load() - shared->lastPieceNs.load()) / 1e6 : NAN;
        state.SetIterationTime(double(nowNs() - shared->startNs) / 1e9);
        state.counters["last_byte_to_callback_ms"] = ms;
        state.counters["whole"] = whole;
        record("exclusive", contender.name, ms);
        losses["exclusive"][contender.name] += whole ? 0 : 1;
        if (withServiceProbe && whole && reception.serviceNs.load())
            record("exclusive hand-off", contender.name,
                   double(reception.exclusiveNs.load() - reception.serviceNs.load()) / 1e6);
    }
}

// --- The table ---------------------------------------------------------------------------------------

std::string cell(const Spread& s, const char* format)
{
    if (!s.n)
        return "-";
    char text[128];
    char median[32], min[32], max[32];
    std::snprintf(median, sizeof median, format, s.median);
    std::snprintf(min, sizeof min, format, s.min);
    std::snprintf(max, sizeof max, format, s.max);
    if (s.n == 1)
        std::snprintf(text, sizeof text, "%s", median);
    else
        std::snprintf(text, sizeof text, "%s (%s-%s)", median, min, max);
    return text;
}

void printTable()
{
    struct Row {
        const char* figure;
        const char* title;
        const char* format;
        const char* target;  // Velmor / RtMidi
    };
    const Row rows[] = {
        {"receive", "Receive without loss (window 64), msg/s", "%.0f", ">= 1.0"},
        {"cpu", "CPU per received message, us", "%.1f", "<= 1.0"},
        {"latency median", "Latency at 1,000 msg/s, median, us", "%.0f", "<= 1.5"},
        {"latency p99", "Latency at 1,000 msg/s, p99, us", "%.0f", "<= 1.5"},
        {"latency max", "Latency at 1,000 msg/s, max, us", "%.0f", ""},
        {"send", "Send per call, 100,000 notes to another client, us", "%.1f", "<= 1.0"},
        {"exclusive", "64 KiB exclusive, last byte written -> callback, ms", "%.2f", ""},
        {"exclusive hand-off", "  of which service thread -> consumer, ms", "%.2f", "(<= 2 ms)"},
        {"split service median", "Split at 1,000 msg/s: send -> service thread, median, us", "%.0f", ""},
        {"split service p99", "  p99, us", "%.0f", ""},
        {"split consumer median", "Split: service thread -> consumer, median, us", "%.0f", ""},
        {"split consumer p99", "  p99, us", "%.0f", ""},
    };
    std::printf("\nPEER TABLE: %d round(s), %ld notes windowed, %ld at 1,000/s, %ld sent, %ld CPU(s); "
                "median (min-max) over rounds\n",
                kRounds, kReceiveCount, kLatencyCount, kSendCount, sysconf(_SC_NPROCESSORS_ONLN));
    std::printf("| Figure |");
    for (auto& contender : contenders)
        std::printf(" %s |", contender.name.c_str());
    std::printf(" Velmor / RtMidi | target |\n|---|");
    for (std::size_t i = 0; i < contenders.size(); ++i)
        std::printf("---|");
    std::printf("---|---|\n");
    for (auto& row : rows) {
        std::printf("| %s |", row.title);
        for (auto& contender : contenders) {
            const auto& values = results[row.figure][contender.name];
            const long lost = losses[row.figure][contender.name];
            std::string text = cell(spreadOf(values), row.format);
            if (lost)
                text += " LOST " + std::to_string(lost);
            std::printf(" %s |", text.c_str());
        }
        const Spread velmor = spreadOf(results[row.figure]["Velmor consumer"]);
        const Spread rtmidi = spreadOf(results[row.figure]["RtMidi"]);
        if (velmor.n && rtmidi.n)
            std::printf(" %.2f | %s |\n", velmor.median / rtmidi.median, row.target);
        else
            std::printf(" - | %s |\n", row.target);
    }
    std::printf("Velmor consumer: a consumer on the main thread; Velmor read proc: a read procedure of our own "
                "on the service thread (send row: MIDISend with a ready packet list).\n");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || pipe(commandPipe) != 0) {
        std::perror("peer benchmark: shared memory");
        return 2;
    }
    shared = new (memory) Shared;
    const pid_t peer = fork();
    if (peer == 0) {
        pthread_setname_np(pthread_self(), "peer");
        peerMain();
    }
    for (int i = 0; i < 5000 && !shared->ready.load(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!shared->ready.load()) {
        std::fprintf(stderr, "peer benchmark: the peer process did not start\n");
        return 2;
    }

    // Velmor on the ALSA service.
    if (!useALSAService()) {
        std::fprintf(stderr, "peer benchmark: no ALSA sequencer\n");
        return 2;
    }
    VelmorManager::setClientName(std::string("Peer Velmor"));
    auto manager = VelmorManager::sharedManager();
    std::shared_ptr<VelmorRemoteSource> source;
    for (auto& candidate : manager ? manager->sources() : std::vector<std::shared_ptr<VelmorRemoteSource>> {})
        if (candidate->name().value_or("") == "Peer Sender Out")
            source = candidate;
    std::shared_ptr<VelmorRemoteOutput> output;
    for (auto& candidate : manager ? manager->remoteOutputs() : std::vector<std::shared_ptr<VelmorRemoteOutput>> {})
        if (candidate->name().value_or("") == "Peer Receiver In")
            output = candidate;
    if (!source || !output) {
        std::fprintf(stderr, "peer benchmark: Velmor does not list the peer's ports\n");
        return 2;
    }
    auto consumer = std::make_shared<VelmorConsumerProbe>();
    MIDIPortRef readPort = 0, probePort = 0;
    MIDIInputPortCreate(manager->client()->client(), "Peer read proc", &readProc, nullptr, &readPort);
    MIDIInputPortCreate(manager->client()->client(), "Peer service probe", &serviceProbeReadProc, nullptr, &probePort);
    auto sendEvent = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0);
    const VelmorData sendImage = sendEvent->packet()->getMIDIPacketListDataWithStartTime(0);

    auto serveMainQueue = [] { VelmorMainQueue::mainQueue().runUntil([] { return false; }, std::chrono::milliseconds(10)); };
    auto sleepBriefly = [] { std::this_thread::sleep_for(std::chrono::milliseconds(10)); };
    contenders.push_back({"Velmor consumer",
                          [&] {
                              source->addConsumerForEventTypeInChannel(consumer, VelmorEventTypeNoteOn, 1);
                              source->addConsumerForEventTypeInChannel(consumer, VelmorEventTypeSystem, 1);
                          },
                          [&] {
                              // Whatever is still on its way is served before the source leaves the port.
                              VelmorMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
                              source->removeConsumerForEventTypeInChannel(consumer, VelmorEventTypeNoteOn, 1);
                              source->removeConsumerForEventTypeInChannel(consumer, VelmorEventTypeSystem, 1);
                              VelmorMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
                          },
                          serveMainQueue,
                          [&](long count) {
                              for (long i = 0; i < count; ++i)
                                  output->sendEvent(sendEvent);
                          }});
    MIDIPortRef bareHopPort = 0, listHopPort = 0;
    // PEER_EXPERIMENT=1 adds contenders that take the roads apart: the main-queue hop alone (the bytes
    // posted from the service thread), the hop with a packet list decoded on the main thread, and a
    // ready list sent after one clock read (what stamping an event with the time costs the sender).
    if (std::getenv("PEER_EXPERIMENT")) {
        MIDIInputPortCreate(manager->client()->client(), "Peer bare hop", &bareHopReadProc, nullptr, &bareHopPort);
        MIDIInputPortCreate(manager->client()->client(), "Peer list hop", &listHopReadProc, nullptr, &listHopPort);
        contenders.push_back({"X main-queue hop", [&] { MIDIPortConnectSource(bareHopPort, source->object(), nullptr); },
                              [&] { VelmorMainQueue::mainQueue().runFor(std::chrono::milliseconds(20)); MIDIPortDisconnectSource(bareHopPort, source->object()); }, serveMainQueue, {}});
        contenders.push_back({"X packet-list hop", [&] { MIDIPortConnectSource(listHopPort, source->object(), nullptr); },
                              [&] { VelmorMainQueue::mainQueue().runFor(std::chrono::milliseconds(20)); MIDIPortDisconnectSource(listHopPort, source->object()); }, serveMainQueue, {}});
        contenders.push_back({"X ready list + clock read", [] {}, [] {}, sleepBriefly, [&](long count) {
                                  const auto* list = reinterpret_cast<const MIDIPacketList*>(sendImage.bytes());
                                  for (long i = 0; i < count; ++i) {
                                      benchmark::DoNotOptimize(AudioGetCurrentHostTime());
                                      MIDISend(manager->outputPort(), output->object(), list);
                                  }
                              },
                              false});
    }
    contenders.push_back({"Velmor read proc", [&] { MIDIPortConnectSource(readPort, source->object(), nullptr); },
                          [&] { MIDIPortDisconnectSource(readPort, source->object()); }, sleepBriefly,
                          [&](long count) {
                              const auto* list = reinterpret_cast<const MIDIPacketList*>(sendImage.bytes());
                              for (long i = 0; i < count; ++i)
                                  MIDISend(manager->outputPort(), output->object(), list);
                          }});

    // RtMidi 5, ALSA, with a callback.
    RtMidiIn rtIn(RtMidi::LINUX_ALSA, "Peer RtMidi In");
    RtMidiOut rtOut(RtMidi::LINUX_ALSA, "Peer RtMidi Out");
    rtIn.ignoreTypes(false, true, true);
    rtIn.setCallback(&rtMidiCallback, nullptr);
    unsigned rtInPort = ~0u, rtOutPort = ~0u;
    for (unsigned i = 0; i < rtIn.getPortCount(); ++i)
        if (rtIn.getPortName(i).find("Peer Sender Out") != std::string::npos)
            rtInPort = i;
    for (unsigned i = 0; i < rtOut.getPortCount(); ++i)
        if (rtOut.getPortName(i).find("Peer Receiver In") != std::string::npos)
            rtOutPort = i;
    if (rtInPort == ~0u || rtOutPort == ~0u) {
        std::fprintf(stderr, "peer benchmark: RtMidi does not list the peer's ports\n");
        return 2;
    }
    rtOut.openPort(rtOutPort, "out");
    const std::vector<unsigned char> rtNote {0x90, 60, 100};
    contenders.push_back({"RtMidi", [&] { rtIn.openPort(rtInPort, "in"); }, [&] { rtIn.closePort(); }, sleepBriefly,
                          [&](long count) {
                              for (long i = 0; i < count; ++i)
                                  rtOut.sendMessage(&rtNote);
                          }});

    if (!plain.open()) {
        std::fprintf(stderr, "peer benchmark: the plain client cannot open the sequencer\n");
        return 2;
    }
    contenders.push_back({"plain libasound",
                          [&] { snd_seq_connect_from(plain.seq, plain.port, shared->senderClient, shared->senderPort); },
                          [&] { snd_seq_disconnect_from(plain.seq, plain.port, shared->senderClient, shared->senderPort); },
                          sleepBriefly, [&](long count) { plain.sendNotes(count); }});

    // Test by test; in each round the libraries take turns, starting one further along each time.
    const std::size_t n = contenders.size();
    auto registerTrials = [&](const char* test, auto trial) {
        for (int round = 0; round < kRounds; ++round)
            for (std::size_t k = 0; k < n; ++k) {
                Contender* contender = &contenders[(std::size_t(round) + k) % n];
                const std::string name = std::string(test) + "/" + contender->name + "/round:" + std::to_string(round + 1);
                benchmark::RegisterBenchmark(name.c_str(), [contender, trial](benchmark::State& state) {
                    trial(state, *contender);
                })->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
            }
    };
    registerTrials("receive", trialReceive);
    registerTrials("latency", trialLatency);
    registerTrials("send", trialSend);
    // The split runs on the consumer alone, once a round.
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = "latency-split/Velmor consumer/round:" + std::to_string(round + 1);
        benchmark::RegisterBenchmark(name.c_str(), [&, probePort](benchmark::State& state) {
            trialLatencySplit(state, contenders[0], probePort, source->object());
        })->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
    registerTrials("exclusive", [&](benchmark::State& state, Contender& contender) {
        if (contender.name.rfind("X ", 0) == 0) {
            state.SkipWithError("an experiment: notes only");
            return;
        }
        trialExclusive(state, contender, &contender == &contenders[0], probePort, source->object());
    });

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printTable();

    tellPeer(Command::Quit);
    waitpid(peer, nullptr, 0);
    plain.close();
    rtOut.closePort();
    MIDIPortDispose(readPort);
    MIDIPortDispose(probePort);
    return 0;
}

// Velmor's JACK service against RtMidi's JACK backend, natively on a running JACK server (start one with
// `jackd --no-realtime -d dummy -r 48000 -p 256`, or let run.sh do it).
//
// One process holds the contenders; a forked peer process owns the JACK client that sends to them and
// receives from them ("velmor-bench-peer"), so its CPU stays out of getrusage. They share a table:
// send times by message number, the contender's count, the peer's count. Contenders:
//   velmor-main   Velmor's manager: a consumer on the main thread (the road an application takes)
//   velmor-read   a read procedure of our own on Velmor's service thread (the service alone)
//   rtmidi        RtMidiIn(UNIX_JACK) with a callback (called on JACK's process thread)
// Tests, each a Google Benchmark run of one iteration, round by round, each round starting one
// contender further along:
//   windowed  N messages, at most 64 outstanding: messages/s, lost messages, CPU µs per message
//   paced     1,000 messages/s for 2 s: latency from the peer's write to the contender's hand
//   send      cost of one send call (Velmor sendEvent to a remote output, RtMidiOut::sendMessage)
// At the end a table: median (min-max) over the rounds, and Velmor's ratio to RtMidi.

#include <benchmark/benchmark.h>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <rtmidi/RtMidi.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Velmor.h"
#include "VelmorJACKMIDIService.h"
#include "VelmorMainQueue.h"
#include "VelmorSystemMIDIService.h"

using namespace VelmorPlatform;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t kWindowed = 60000;
constexpr std::uint64_t kPaced = 2000;
constexpr std::uint64_t kWindow = 64;
constexpr std::uint64_t kSendCalls = 20000;
constexpr int kRounds = 5;

std::uint64_t nowNs()
{
    timespec t {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return std::uint64_t(t.tv_sec) * 1000000000u + std::uint64_t(t.tv_nsec);
}

double cpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Shared {
    std::atomic<int> mode;  // 0 idle, 1 windowed, 2 paced, 3 quit
    std::atomic<std::uint64_t> target;
    std::atomic<std::uint64_t> sent;
    std::atomic<std::uint64_t> received;      // by the contender
    std::atomic<std::uint64_t> peerReceived;  // by the peer's input
    std::atomic<std::uint64_t> paceStart;
    std::atomic<bool> ready;
    std::atomic<std::uint64_t> sendNs[kPaced];
    std::atomic<std::uint64_t> arrivalNs[kPaced];
};
Shared* shared = nullptr;

// A message number in a polyphonic pressure message: 18 bits in channel, note and value.
void encode(std::uint64_t index, std::uint8_t* bytes)
{
    bytes[0] = std::uint8_t(0xA0 | ((index >> 14) & 0x0F));
    bytes[1] = std::uint8_t((index >> 7) & 0x7F);
    bytes[2] = std::uint8_t(index & 0x7F);
}

std::uint64_t decode(const std::uint8_t* bytes)
{
    return (std::uint64_t(bytes[0] & 0x0F) << 14) | (std::uint64_t(bytes[1]) << 7) | bytes[2];
}

void arrived(const std::uint8_t* bytes)
{
    if ((bytes[0] & 0xF0) != 0xA0)
        return;
    const std::uint64_t index = decode(bytes);
    if (shared->mode.load(std::memory_order_relaxed) == 2 && index < kPaced)
        shared->arrivalNs[index].store(nowNs(), std::memory_order_relaxed);
    shared->received.fetch_add(1, std::memory_order_release);
}

// --- The peer process -------------------------------------------------------------------------------

jack_client_t* peerClient = nullptr;
jack_port_t* peerOut = nullptr;
jack_port_t* peerIn = nullptr;

int peerProcess(jack_nframes_t frames, void*)
{
    void* out = jack_port_get_buffer(peerOut, frames);
    jack_midi_clear_buffer(out);
    const int mode = shared->mode.load(std::memory_order_acquire);
    const std::uint64_t target = shared->target.load();
    std::uint64_t sent = shared->sent.load();
    std::uint8_t bytes[3];
    if (mode == 1) {
        for (jack_nframes_t n = 0; n < 256 && sent < target; ++n) {
            // Signed: a late arrival of an earlier trial may put the count ahead for a moment.
            if (std::int64_t(sent) - std::int64_t(shared->received.load(std::memory_order_acquire)) >=
                std::int64_t(kWindow))
                break;
            encode(sent, bytes);
            if (jack_midi_event_write(out, std::min(n, frames - 1), bytes, 3) != 0)
                break;
            shared->sent.store(++sent);
        }
    } else if (mode == 2) {
        const std::uint64_t now = nowNs();
        const std::uint64_t due = std::min(target, (now - shared->paceStart.load()) / 1000000u + 1);
        while (sent < due) {
            encode(sent, bytes);
            if (jack_midi_event_write(out, 0, bytes, 3) != 0)
                break;
            shared->sendNs[sent].store(nowNs());
            shared->sent.store(++sent);
        }
    }
    void* in = jack_port_get_buffer(peerIn, frames);
    shared->peerReceived.fetch_add(jack_midi_get_event_count(in));
    return 0;
}

int runPeer()
{
    peerClient = jack_client_open("velmor-bench-peer", JackNoStartServer, nullptr);
    if (!peerClient)
        return 1;
    peerOut = jack_port_register(peerClient, "peer out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    peerIn = jack_port_register(peerClient, "peer in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    jack_set_process_callback(peerClient, &peerProcess, nullptr);
    jack_activate(peerClient);
    shared->ready = true;
    while (shared->mode.load() != 3 && getppid() != 1)
        std::this_thread::sleep_for(10ms);
    jack_client_close(peerClient);
    return 0;
}

// --- Contenders -------------------------------------------------------------------------------------

struct Consumer : VelmorConsumer {
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override
    {
        const auto span = event->data().span();
        if (span.size() == 3)
            arrived(span.data());
    }
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}
};

std::shared_ptr<VelmorManager> manager;
std::shared_ptr<VelmorRemoteSource> peerSource;
std::shared_ptr<VelmorRemoteOutput> peerDestination;
auto consumer = std::make_shared<Consumer>();
MIDIClientRef readClient = 0;
MIDIPortRef readPort = 0;
std::unique_ptr<RtMidiIn> rtIn;
std::unique_ptr<RtMidiOut> rtOut;

void readProc(const MIDIPacketList* list, void*, void*)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(list);
    std::uint32_t count = 0;
    std::memcpy(&count, bytes, 4);
    std::size_t at = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint16_t length = 0;
        std::memcpy(&length, bytes + at + 8, 2);
        for (std::size_t m = 0; m + 3 <= length; m += 3)
            arrived(bytes + at + 10 + m);
        at += 10 + length;
    }
}

void rtCallback(double, std::vector<unsigned char>* message, void*)
{
    if (message && message->size() == 3)
        arrived(message->data());
}

int rtPortIndex(RtMidi& midi, const std::string& name)
{
    for (unsigned i = 0; i < midi.getPortCount(); ++i)
        if (midi.getPortName(i).find(name) != std::string::npos)
            return int(i);
    return -1;
}

void connect(const std::string& contender)
{
    if (contender == "velmor-main")
        peerSource->addConsumer(consumer);
    else if (contender == "velmor-read")
        MIDIPortConnectSource(readPort, peerSource->object(), nullptr);
    else
        rtIn->openPort(unsigned(rtPortIndex(*rtIn, "velmor-bench-peer:peer out")), "bench in");
    // JACK makes a connection effective at a later cycle.
    VelmorMainQueue::mainQueue().runUntil([] { return false; }, 50ms);
}

void disconnect(const std::string& contender)
{
    if (contender == "velmor-main")
        peerSource->removeConsumer(consumer);
    else if (contender == "velmor-read")
        MIDIPortDisconnectSource(readPort, peerSource->object());
    else
        rtIn->closePort();
    // Let what is still on its way arrive before the next trial resets the counters.
    VelmorMainQueue::mainQueue().runUntil([] { return false; }, 200ms);
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    return VelmorMainQueue::mainQueue().runUntil(condition, timeout);
}

// --- Results ----------------------------------------------------------------------------------------

std::map<std::string, std::map<std::string, std::vector<double>>> results;  // metric -> contender -> rounds

void record(const std::string& metric, const std::string& contender, double value)
{
    results[metric][contender].push_back(value);
}

void windowed(benchmark::State& state, const std::string& contender)
{
    for (auto _ : state) {
        shared->mode = 0;
        shared->sent = 0;
        shared->received = 0;
        shared->target = kWindowed;
        connect(contender);
        const double cpu0 = cpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        shared->mode = 1;
        waitFor([] { return shared->received.load() >= kWindowed; }, 60000ms);
        const auto t1 = std::chrono::steady_clock::now();
        const double cpu1 = cpuSeconds();
        waitFor([] { return false; }, 50ms);
        shared->mode = 0;
        const double seconds = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(seconds);
        const double lost = double(shared->sent.load()) - double(shared->received.load());
        state.counters["msg_per_s"] = double(kWindowed) / seconds;
        state.counters["lost"] = lost;
        state.counters["cpu_us_per_msg"] = (cpu1 - cpu0) * 1e6 / double(kWindowed);
        record("windowed msg/s", contender, double(kWindowed) / seconds);
        record("windowed lost", contender, lost);
        record("CPU us/msg", contender, (cpu1 - cpu0) * 1e6 / double(kWindowed));
        disconnect(contender);
    }
}

void paced(benchmark::State& state, const std::string& contender)
{
    for (auto _ : state) {
        shared->mode = 0;
        shared->sent = 0;
        shared->received = 0;
        shared->target = kPaced;
        for (auto& value : shared->arrivalNs)
            value = 0;
        connect(contender);
        shared->paceStart = nowNs();
        shared->mode = 2;
        const auto t0 = std::chrono::steady_clock::now();
        waitFor([] { return shared->received.load() >= kPaced; }, 20000ms);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        waitFor([] { return false; }, 50ms);
        shared->mode = 0;
        std::vector<double> latencies;
        for (std::uint64_t i = 0; i < kPaced; ++i)
            if (shared->arrivalNs[i] && shared->sendNs[i])
                latencies.push_back(double(shared->arrivalNs[i] - shared->sendNs[i]) / 1000.0);
        std::sort(latencies.begin(), latencies.end());
        if (!latencies.empty()) {
            const double median = latencies[latencies.size() / 2];
            const double p99 = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
            state.counters["median_us"] = median;
            state.counters["p99_us"] = p99;
            state.counters["max_us"] = latencies.back();
            record("latency median us", contender, median);
            record("latency p99 us", contender, p99);
            record("latency max us", contender, latencies.back());
        }
        record("paced lost", contender, double(kPaced) - double(latencies.size()));
        disconnect(contender);
    }
}

void sendCost(benchmark::State& state, const std::string& contender)
{
    const auto event = VelmorEvent::noteOnEventWithNoteVelocityChannelTimeOffset(60, 100, 1, 0);
    const std::vector<unsigned char> message {0x90, 60, 100};
    for (auto _ : state) {
        shared->peerReceived = 0;
        if (contender == "rtmidi")
            rtOut->openPort(unsigned(rtPortIndex(*rtOut, "velmor-bench-peer:peer in")), "bench out");
        else
            peerDestination->sendEvent(event);  // makes and connects our port
        waitFor([] { return false; }, 50ms);
        const std::uint64_t base = shared->peerReceived.load();
        double seconds = 0;
        for (std::uint64_t done = 0; done < kSendCalls; done += kWindow) {
            const auto t0 = std::chrono::steady_clock::now();
            for (std::uint64_t i = 0; i < kWindow; ++i) {
                if (contender == "rtmidi")
                    rtOut->sendMessage(&message);
                else
                    peerDestination->sendEvent(event);
            }
            seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            // Both write into a ring that the process callback empties: let it, outside the timing.
            const std::uint64_t want = base + done + kWindow;
            while (shared->peerReceived.load() < want)
                std::this_thread::sleep_for(200us);
        }
        state.SetIterationTime(seconds);
        state.counters["ns_per_call"] = seconds * 1e9 / double(kSendCalls);
        record("send ns/call", contender == "rtmidi" ? "rtmidi" : "velmor-main", seconds * 1e9 / double(kSendCalls));
        if (contender == "rtmidi")
            rtOut->closePort();
    }
}

std::string cell(std::vector<double> values)
{
    if (values.empty())
        return "-";
    std::sort(values.begin(), values.end());
    char text[96];
    std::snprintf(text, sizeof text, "%.3g (%.3g-%.3g)", values[values.size() / 2], values.front(), values.back());
    return text;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    new (shared) Shared {};
    const pid_t peer = fork();
    if (peer == 0)
        return runPeer();
    for (int i = 0; i < 500 && !shared->ready; ++i)
        std::this_thread::sleep_for(10ms);
    if (!shared->ready) {
        std::fprintf(stderr, "no JACK server answers: start one (jackd --no-realtime -d dummy -r 48000 -p 256)\n");
        kill(peer, SIGTERM);
        return 1;
    }

    if (!useJACKService("velmor-bench")) {
        std::fprintf(stderr, "the JACK service cannot start\n");
        return 1;
    }
    manager = VelmorManager::sharedManager();
    manager->sources();
    manager->remoteOutputs();
    waitFor([] {
        for (auto& source : manager->sources())
            if (source->name() == std::optional<std::string>("peer out"))
                peerSource = source;
        for (auto& output : manager->remoteOutputs())
            if (output->name() == std::optional<std::string>("peer in"))
                peerDestination = output;
        return peerSource && peerDestination;
    }, 5000ms);
    if (!peerSource || !peerDestination) {
        std::fprintf(stderr, "the peer's ports are not listed\n");
        return 1;
    }
    MIDIClientCreate("velmor-bench read", nullptr, nullptr, &readClient);
    MIDIInputPortCreate(readClient, "read", &readProc, nullptr, &readPort);
    rtIn = std::make_unique<RtMidiIn>(RtMidi::UNIX_JACK, "rtmidi-bench-in");
    rtIn->setCallback(&rtCallback);
    rtIn->ignoreTypes(false, false, false);
    rtOut = std::make_unique<RtMidiOut>(RtMidi::UNIX_JACK, "rtmidi-bench-out");

    const std::vector<std::string> receivers {"velmor-main", "velmor-read", "rtmidi"};
    const std::vector<std::string> senders {"velmor-main", "rtmidi"};
    for (int round = 0; round < kRounds; ++round) {
        for (std::size_t k = 0; k < receivers.size(); ++k) {
            const std::string& contender = receivers[(k + round) % receivers.size()];
            benchmark::RegisterBenchmark(("windowed/" + contender).c_str(),
                                         [contender](benchmark::State& state) { windowed(state, contender); })
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
        for (std::size_t k = 0; k < receivers.size(); ++k) {
            const std::string& contender = receivers[(k + round) % receivers.size()];
            benchmark::RegisterBenchmark(("paced/" + contender).c_str(),
                                         [contender](benchmark::State& state) { paced(state, contender); })
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
        for (std::size_t k = 0; k < senders.size(); ++k) {
            const std::string& contender = senders[(k + round) % senders.size()];
            benchmark::RegisterBenchmark(("send/" + contender).c_str(),
                                         [contender](benchmark::State& state) { sendCost(state, contender); })
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();

    std::printf("\n%-20s %-28s %-28s %-28s %s\n", "metric", "velmor-main", "velmor-read", "rtmidi",
                "ratio velmor-main/rtmidi, velmor-read/rtmidi (medians)");
    for (auto& [metric, byContender] : results) {
        const double rt = median(byContender["rtmidi"]);
        char ratios[64] = "-";
        if (rt != 0)
            std::snprintf(ratios, sizeof ratios, "%.2f, %.2f", median(byContender["velmor-main"]) / rt,
                          byContender["velmor-read"].empty() ? 0.0 : median(byContender["velmor-read"]) / rt);
        std::printf("%-20s %-28s %-28s %-28s %s\n", metric.c_str(), cell(byContender["velmor-main"]).c_str(),
                    cell(byContender["velmor-read"]).c_str(), cell(byContender["rtmidi"]).c_str(), ratios);
    }

    shared->mode = 3;
    int status = 0;
    waitpid(peer, &status, 0);
    rtIn.reset();
    rtOut.reset();
    return 0;
}

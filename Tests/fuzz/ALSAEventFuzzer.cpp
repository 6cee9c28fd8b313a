// The ALSA service's conversions between sequencer events and packet-list images, run without a
// sequencer. Receiving: events of any type (exclusive pieces with their bytes, real-time events between
// them, notices that aren't MIDI) go through a connection's joiner and the list packer; every list must
// parse, lose or invent no exclusive byte, and read cleanly in the framework. Sending: an image, also one
// whose count or lengths lie, is encoded to events, which are decoded back; well-formed messages must
// come back as they went.

#include "FuzzSupport.h"
#include "VelmorALSAInternal.h"

#include <cstring>

using namespace VelmorFuzz;
using namespace VelmorPlatform::ALSAInternal;
using VelmorPlatform::MIDITimeStamp;

namespace {

// Made as the service makes them.
snd_midi_event_t* decoder;
snd_midi_event_t* encoder;

constexpr std::uint8_t kEventTypes[] = {
    SND_SEQ_EVENT_NOTEON, SND_SEQ_EVENT_NOTEOFF, SND_SEQ_EVENT_KEYPRESS, SND_SEQ_EVENT_CONTROLLER,
    SND_SEQ_EVENT_PGMCHANGE, SND_SEQ_EVENT_CHANPRESS, SND_SEQ_EVENT_PITCHBEND, SND_SEQ_EVENT_CONTROL14,
    SND_SEQ_EVENT_NONREGPARAM, SND_SEQ_EVENT_REGPARAM, SND_SEQ_EVENT_SONGPOS, SND_SEQ_EVENT_SONGSEL,
    SND_SEQ_EVENT_QFRAME, SND_SEQ_EVENT_TUNE_REQUEST, SND_SEQ_EVENT_CLOCK, SND_SEQ_EVENT_TICK,
    SND_SEQ_EVENT_START, SND_SEQ_EVENT_CONTINUE, SND_SEQ_EVENT_STOP, SND_SEQ_EVENT_SENSING,
    SND_SEQ_EVENT_RESET, SND_SEQ_EVENT_NOTE, SND_SEQ_EVENT_SYSEX, SND_SEQ_EVENT_SYSEX, SND_SEQ_EVENT_SYSEX,
    SND_SEQ_EVENT_SYSEX, SND_SEQ_EVENT_PORT_SUBSCRIBED, SND_SEQ_EVENT_PORT_UNSUBSCRIBED,
    SND_SEQ_EVENT_CLIENT_START, SND_SEQ_EVENT_PORT_START, SND_SEQ_EVENT_ECHO, SND_SEQ_EVENT_NONE,
    SND_SEQ_EVENT_TEMPO, SND_SEQ_EVENT_KEYSIGN, SND_SEQ_EVENT_USR_VAR0, SND_SEQ_EVENT_BOUNCE,
};

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "ALSAEventFuzzer: %s\n", what);
    std::abort();
}

std::string hex(const Bytes& bytes)
{
    std::string text;
    char item[4];
    for (std::size_t i = 0; i < bytes.size() && i < 400; ++i) {
        std::snprintf(item, sizeof item, "%02X ", bytes[i]);
        text += item;
    }
    return text;
}

bool containsLaterStart(const std::uint8_t* bytes, std::size_t length)
{
    return length > 1 && std::memchr(bytes + 1, 0xF0, length - 1);
}

// The receive side for one connection: the joiner, and the lists it fills as the service fills them.
struct Receiver {
    ExclusiveJoiner joiner;
    std::vector<ListImage> lists;
    std::vector<std::size_t> messagesIn;  // per list
    Bytes exclusiveIn;
    Bytes exclusiveOut;
    Bytes others;  // every message that wasn't exclusive, back to back
    bool piecesStartOnce = true;  // no exclusive piece holds a 0xF0 after its first byte

    void take(const EventBytes& in, MIDITimeStamp timeStamp)
    {
        if (in.exclusive) {
            exclusiveIn.insert(exclusiveIn.end(), in.bytes, in.bytes + in.length);
            piecesStartOnce = piecesStartOnce && !containsLaterStart(in.bytes, in.length);
        }
        joiner.take(in, timeStamp, [&](const std::uint8_t* message, std::size_t length, MIDITimeStamp stamp) {
            if (length == 0)
                fail("an empty message");
            if (!in.exclusive && message == in.bytes) {
                if (length != in.length)
                    fail("a decoded message changed length");
                others.insert(others.end(), message, message + length);
            } else {
                exclusiveOut.insert(exclusiveOut.end(), message, message + length);
                // Two exclusive messages in one would read as one wrong message.
                if (piecesStartOnce && containsLaterStart(message, length))
                    fail("an exclusive message joined onto an unfinished one");
            }
            if (lists.empty() || !lists.back().takes(length)) {
                lists.emplace_back().start();
                messagesIn.push_back(0);
            }
            lists.back().append(message, length, stamp);
            ++messagesIn.back();
        });
        if (joiner.pending.size() >= joiner.cap)
            fail("an exclusive message held past the cap");
        if (!in.exclusive && in.bytes[0] < 0xF8 && !joiner.pending.empty())
            fail("an unfinished exclusive message outlived another message");
    }

    // Everything the lists hold is well-formed and reads cleanly in the framework.
    void check()
    {
        Bytes held = exclusiveOut;
        held.insert(held.end(), joiner.pending.begin(), joiner.pending.end());
        if (held != exclusiveIn)
            fail("exclusive bytes lost or invented");
        for (std::size_t i = 0; i < lists.size(); ++i) {
            const Bytes& image = lists[i].image;
            if (image.size() < 4)
                fail("a list without its count");
            std::uint32_t count = 0;
            std::memcpy(&count, image.data(), 4);
            if (count != lists[i].count || count < messagesIn[i])
                fail("a list's count");
            std::size_t at = 4;
            for (std::uint32_t p = 0; p < count; ++p) {
                if (image.size() - at < 10)
                    fail("a packet header past the list's end");
                std::uint16_t length = 0;
                std::memcpy(&length, image.data() + at + 8, 2);
                at += 10;
                if (image.size() - at < length)
                    fail("a packet past the list's end");
                if (length == 0 && count > 1)
                    fail("an empty packet");
                at += length;
            }
            if (at != image.size())
                fail("bytes behind a list's last packet");
            if (VelmorPlatform::MIDIPacketListByteSize(asPacketList(image)) != image.size())
                fail("the boundary measures a list differently");
            // A list is closed once full: only a single message may make it bigger.
            if (messagesIn[i] > 1 && image.size() > kListBytes + 10)
                fail("a list past its size");
            // Read whole; the accessors of a few packets are enough (PacketFuzzer reads them all),
            // since a long run of status bytes makes thousands.
            if (auto list = VelmorPacketList::initWithMIDIPacketList(asPacketList(image))) {
                volatile std::size_t sum = list->packets().size();
                std::size_t touched = 0;
                for (const auto& packet : list->packets())
                    sum = sum + (++touched <= 16 ? touchPacket(packet) : packet->length());
            }
        }
    }
};

// A sequencer event as another client might send it; exclusive bytes go to `data`.
snd_seq_event_t makeEvent(FuzzedDataProvider& input, Bytes& data)
{
    snd_seq_event_t event;
    snd_seq_ev_clear(&event);
    // Mostly exclusive pieces, whose joining has the most to get wrong.
    const int pick = input.ConsumeIntegralInRange<int>(0, 9);
    event.type = pick < 4   ? std::uint8_t(SND_SEQ_EVENT_SYSEX)
                 : pick < 9 ? kEventTypes[input.ConsumeIntegralInRange<std::size_t>(0, sizeof kEventTypes - 1)]
                            : input.ConsumeIntegral<std::uint8_t>();
    const Bytes raw = input.ConsumeBytes<std::uint8_t>(sizeof event.data.raw8.d);
    if (!raw.empty())
        std::memcpy(event.data.raw8.d, raw.data(), raw.size());
    data.clear();
    if (event.type == SND_SEQ_EVENT_SYSEX || snd_seq_ev_is_variable_type(&event)) {
        if (input.ConsumeIntegralInRange<int>(0, 15) != 0)
            event.flags |= SND_SEQ_EVENT_LENGTH_VARIABLE;
        // Pieces as a device's driver cuts them: a start, a middle, an end, all three, or anything.
        const int shape = input.ConsumeIntegralInRange<int>(0, 5);
        std::size_t length = input.ConsumeIntegralInRange<std::size_t>(0, 64);
        if (shape == 5 && input.ConsumeIntegralInRange<int>(0, 31) == 0)
            length = input.ConsumeIntegralInRange<std::size_t>(0, 3 * kMaxPacketBytes);  // a long piece
        Bytes body = input.ConsumeBytes<std::uint8_t>(std::min<std::size_t>(length, 64));
        if (shape < 4)
            for (auto& byte : body)
                byte &= 0x7F;
        if (shape == 0 || shape == 3)
            data.push_back(0xF0);
        for (std::size_t i = 0; i < length && !body.empty(); ++i)
            data.push_back(body[i % body.size()]);
        if (shape == 2 || shape == 3)
            data.push_back(0xF7);
        event.data.ext.len = unsigned(data.size());
    }
    // The service's copy of the event keeps no pointer into libasound's buffer that may be read.
    if (snd_seq_ev_is_variable(&event))
        event.data.ext.ptr = nullptr;
    return event;
}

void fuzzReceive(FuzzedDataProvider& input)
{
    Receiver receiver;
    if (input.ConsumeBool())
        receiver.joiner.cap = input.ConsumeIntegralInRange<std::size_t>(2, 300);
    Bytes data;
    std::uint8_t coded[16];
    while (input.remaining_bytes() > 0) {
        const snd_seq_event_t event = makeEvent(input, data);
        const EventBytes in = eventBytes(decoder, event, data.data(), coded);
        if (in.length == 0)
            continue;
        if (!in.exclusive && (in.bytes != coded || in.length > sizeof coded || in.bytes[0] < 0x80))
            fail("a decoded event without its status");
        receiver.take(in, input.ConsumeIntegral<std::uint32_t>());
    }
    receiver.check();
}

// Well-formed messages, the bytes the framework renders: channel, system common, real-time and whole
// exclusive messages, in packets; a long exclusive message is cut over several packets, as the
// framework cuts it.
Bytes wellFormedImage(FuzzedDataProvider& input, Bytes& messages)
{
    Bytes image(4, 0);
    std::uint32_t count = 0;
    auto addPacket = [&](const Bytes& bytes) {
        const std::uint64_t timeStamp = input.ConsumeIntegral<std::uint8_t>();
        for (int i = 0; i < 8; ++i)
            image.push_back(std::uint8_t(timeStamp >> (8 * i)));
        image.push_back(std::uint8_t(bytes.size()));
        image.push_back(std::uint8_t(bytes.size() >> 8));
        image.insert(image.end(), bytes.begin(), bytes.end());
        ++count;
    };
    const unsigned packets = input.ConsumeIntegralInRange<unsigned>(1, 8);
    for (unsigned p = 0; p < packets && input.remaining_bytes() > 0; ++p) {
        Bytes packet;
        const unsigned wanted = input.ConsumeIntegralInRange<unsigned>(1, 6);
        for (unsigned m = 0; m < wanted && input.remaining_bytes() > 0; ++m) {
            const int kind = input.ConsumeIntegralInRange<int>(0, 4);
            Bytes message;
            if (kind <= 1) {
                const std::uint8_t status = input.ConsumeIntegralInRange<std::uint8_t>(0x80, 0xEF);
                message.push_back(status);
                const int size = (status & 0xF0) == 0xC0 || (status & 0xF0) == 0xD0 ? 1 : 2;
                for (int i = 0; i < size; ++i)
                    message.push_back(input.ConsumeIntegral<std::uint8_t>() & 0x7F);
            } else if (kind == 2) {
                constexpr std::uint8_t common[] = {0xF1, 0xF2, 0xF3, 0xF6, 0xF8, 0xFA, 0xFB, 0xFC, 0xFE, 0xFF};
                const std::uint8_t status = common[input.ConsumeIntegralInRange<std::size_t>(0, sizeof common - 1)];
                message.push_back(status);
                const int size = status == 0xF2 ? 2 : status == 0xF1 || status == 0xF3 ? 1 : 0;
                for (int i = 0; i < size; ++i)
                    message.push_back(input.ConsumeIntegral<std::uint8_t>() & 0x7F);
            } else {
                std::size_t length = input.ConsumeIntegralInRange<std::size_t>(0, 600);
                if (kind == 4 && input.ConsumeIntegralInRange<int>(0, 15) == 0)
                    length = input.ConsumeIntegralInRange<std::size_t>(0, 2 * kMaxPacketBytes);
                const Bytes body = input.ConsumeBytes<std::uint8_t>(std::min<std::size_t>(length, 32));
                message.push_back(0xF0);
                for (std::size_t i = 0; i < length && !body.empty(); ++i)
                    message.push_back(body[i % body.size()] & 0x7F);
                message.push_back(0xF7);
            }
            messages.insert(messages.end(), message.begin(), message.end());
            if (packet.size() + message.size() > kMaxPacketBytes) {
                if (!packet.empty())
                    addPacket(packet);
                packet.clear();
                for (std::size_t at = 0; at < message.size(); at += kMaxPacketBytes) {
                    const std::size_t size = std::min(kMaxPacketBytes, message.size() - at);
                    addPacket(Bytes(message.begin() + std::ptrdiff_t(at), message.begin() + std::ptrdiff_t(at + size)));
                }
                continue;
            }
            packet.insert(packet.end(), message.begin(), message.end());
        }
        if (!packet.empty())
            addPacket(packet);
    }
    std::memcpy(image.data(), &count, 4);
    return image;
}

// Whether the image's count and lengths stay inside it.
bool fits(const Bytes& image)
{
    if (image.size() < 4)
        return false;
    std::uint32_t count = 0;
    std::memcpy(&count, image.data(), 4);
    std::size_t at = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (image.size() - at < 10)
            return false;
        std::uint16_t length = 0;
        std::memcpy(&length, image.data() + at + 8, 2);
        if (image.size() - at - 10 < length)
            return false;
        at += 10 + length;
    }
    return true;
}

void fuzzSend(FuzzedDataProvider& input)
{
    const int shape = input.ConsumeIntegralInRange<int>(0, 3);
    Bytes messages;
    Bytes image;
    if (shape == 0) {
        image = wellFormedImage(input, messages);
    } else if (shape == 1) {
        image = packetListImage(input);
    } else {
        // A count or a length that lies, or an image cut short; the buffer is exactly the image, so
        // reading past it is a sanitizer report.
        image = shape == 2 ? packetListImage(input) : input.ConsumeRemainingBytes<std::uint8_t>();
        if (shape == 2 && image.size() >= 4) {
            const std::uint32_t bump = input.ConsumeIntegralInRange<std::uint32_t>(0, 3);
            std::uint32_t count = 0;
            std::memcpy(&count, image.data(), 4);
            count += bump;
            std::memcpy(image.data(), &count, 4);
            image.resize(image.size() - std::min(image.size(), input.ConsumeIntegralInRange<std::size_t>(0, 12)));
        }
    }
    const bool whole = fits(image);

    Receiver receiver;
    Bytes data;
    std::uint8_t coded[16];
    std::size_t events = 0;
    const bool encoded = encodePackets(
        encoder, image.data(), image.size(), [&](MIDITimeStamp) {},
        [&](snd_seq_event_t& event) {
            ++events;
            // What the receiving client gets: a copy of the event, its exclusive bytes copied out.
            const auto* ext = static_cast<const std::uint8_t*>(event.data.ext.ptr);
            const bool variable = snd_seq_ev_is_variable(&event);
            data.assign(variable ? ext : nullptr, variable ? ext + event.data.ext.len : nullptr);
            snd_seq_event_t copy = event;
            if (variable)
                copy.data.ext.ptr = nullptr;
            const EventBytes in = eventBytes(decoder, copy, data.data(), coded);
            if (in.length == 0)
                fail("an encoded event that decodes to nothing");
            receiver.take(in, 0);
            return true;
        });
    if (encoded != whole)
        fail(whole ? "a well-formed image refused" : "an image past its end taken");
    receiver.check();
    if (shape == 0) {
        Bytes out;
        for (const ListImage& list : receiver.lists) {
            std::uint32_t count = 0;
            std::memcpy(&count, list.image.data(), 4);
            std::size_t at = 4;
            for (std::uint32_t p = 0; p < count; ++p) {
                std::uint16_t length = 0;
                std::memcpy(&length, list.image.data() + at + 8, 2);
                out.insert(out.end(), list.image.begin() + std::ptrdiff_t(at + 10),
                           list.image.begin() + std::ptrdiff_t(at + 10 + length));
                at += 10 + length;
            }
        }
        if (out != messages) {
            std::fprintf(stderr, "in (%zu bytes, image %zu): %s\nout (%zu bytes): %s\n", messages.size(), image.size(),
                         hex(messages).c_str(), out.size(), hex(out).c_str());
            fail("well-formed messages changed on their way through the sequencer");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceLines();
    if (snd_midi_event_new(256, &decoder) < 0 || snd_midi_event_new(256, &encoder) < 0)
        std::abort();
    snd_midi_event_no_status(decoder, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        fuzzReceive(input);
    else
        fuzzSend(input);
    return 0;
}

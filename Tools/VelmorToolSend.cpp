// `velmor send`: every word is checked, and the output found, before the first byte goes out.

#include <cctype>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "VelmorToolInternal.h"

namespace VelmorTool {

namespace {

std::string lower(std::string text)
{
    for (char& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::optional<std::uint64_t> parseNumber(const std::string& word)
{
    if (word.empty() || word.size() > 9)
        return std::nullopt;
    std::uint64_t value = 0;
    for (char c : word) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + std::uint64_t(c - '0');
    }
    return value;
}

std::optional<std::uint8_t> parseHexByte(const std::string& word)
{
    std::string digits = word;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits = digits.substr(2);
    if (digits.empty() || digits.size() > 2)
        return std::nullopt;
    unsigned value = 0;
    for (char c : digits) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return std::nullopt;
        value = value * 16 + unsigned(std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10);
    }
    return std::uint8_t(value);
}

const std::vector<std::string>& keywords()
{
    static const std::vector<std::string> words {"on", "off", "cc", "pc", "pressure", "at", "pb", "raw", "syx"};
    return words;
}

bool isKeyword(const std::string& word)
{
    const std::string l = lower(word);
    for (const std::string& k : keywords())
        if (k == l)
            return true;
    return false;
}

// The length of the message that `status` begins; 0 for an exclusive message (up to its F7).
std::size_t messageLength(std::uint8_t status)
{
    switch (status & 0xF0) {
    case 0x80: case 0x90: case 0xA0: case 0xB0: case 0xE0:
        return 3;
    case 0xC0: case 0xD0:
        return 2;
    default:
        break;
    }
    switch (status) {
    case 0xF0: return 0;
    case 0xF1: case 0xF3: return 2;
    case 0xF2: return 3;
    default: return 1;
    }
}

// Cuts bytes into whole messages, or says what is wrong with them.
std::vector<std::vector<std::uint8_t>> cutMessages(const std::vector<std::uint8_t>& bytes, const std::string& what)
{
    std::vector<std::vector<std::uint8_t>> messages;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::uint8_t status = bytes[at];
        if (status < 0x80)
            usage(what + ": " + hexBytes(&bytes[at], 1) + " at byte " + std::to_string(at + 1)
                  + " is not a status byte (80-FF); running status is not sent");
        if (status == 0xF7)
            usage(what + ": F7 at byte " + std::to_string(at + 1) + " ends no exclusive message");
        std::size_t length = messageLength(status);
        if (length == 0) {
            std::size_t end = at + 1;
            while (end < bytes.size() && bytes[end] < 0x80)
                ++end;
            if (end < bytes.size() && bytes[end] != 0xF7)
                usage(what + ": " + hexBytes(&bytes[end], 1) + " at byte " + std::to_string(end + 1)
                      + " is a status byte where a data byte (00-7F) of the exclusive message belongs");
            if (end == bytes.size() || bytes[end] != 0xF7)
                usage(what + ": the exclusive message that starts at byte " + std::to_string(at + 1)
                      + " has no F7 at its end");
            length = end - at + 1;
        } else {
            if (at + length > bytes.size())
                usage(what + ": the message " + hexBytes(&bytes[at], bytes.size() - at) + " needs "
                      + std::to_string(length) + " bytes");
            for (std::size_t i = at + 1; i < at + length; ++i)
                if (bytes[i] >= 0x80)
                    usage(what + ": " + hexBytes(&bytes[i], 1) + " at byte " + std::to_string(i + 1)
                          + " is a status byte where a data byte (00-7F) belongs");
        }
        messages.emplace_back(bytes.begin() + std::ptrdiff_t(at), bytes.begin() + std::ptrdiff_t(at + length));
        at += length;
    }
    return messages;
}

} // namespace

std::optional<std::uint64_t> parseNote(const std::string& word)
{
    if (auto number = parseNumber(word))
        return *number <= 127 ? number : std::nullopt;
    // The framework's own names, so that what `monitor` prints can be typed back.
    std::string name = word;
    if (!name.empty())
        name[0] = char(std::toupper(static_cast<unsigned char>(name[0])));
    if (name.size() > 1 && name[1] == '#')
        name.replace(1, 1, "\u266F");
    for (std::uint64_t note = 0; note <= 127; ++note)
        if (VelmorManager::noteName(note) == name)
            return note;
    return std::nullopt;
}

std::vector<std::vector<std::uint8_t>> parseMessages(const std::vector<std::string>& words, std::uint64_t channel)
{
    if (channel < 1 || channel > 16)
        usage("--channel: " + std::to_string(channel) + " is not a channel (1-16)");
    const std::uint8_t ch = std::uint8_t(channel - 1);
    std::vector<std::vector<std::uint8_t>> messages;
    std::size_t at = 0;

    auto next = [&](const std::string& keyword, const char* what) -> const std::string& {
        if (at >= words.size())
            usage(keyword + ": " + what + " is missing");
        return words[at++];
    };
    auto value = [&](const std::string& keyword, const char* what, std::uint64_t maximum) -> std::uint8_t {
        const std::string& word = next(keyword, what);
        auto number = parseNumber(word);
        if (!number || *number > maximum)
            usage(keyword + ": " + what + " \"" + word + "\" is not a number from 0 to " + std::to_string(maximum));
        return std::uint8_t(*number);
    };
    auto note = [&](const std::string& keyword) -> std::uint8_t {
        const std::string& word = next(keyword, "the note");
        auto number = parseNote(word);
        if (!number)
            usage(keyword + ": the note \"" + word + "\" is neither 0-127 nor a note name like C5 or F#4");
        return std::uint8_t(*number);
    };
    auto hexRun = [&](const std::string& keyword) {
        std::vector<std::uint8_t> bytes;
        while (at < words.size() && !isKeyword(words[at])) {
            auto byte = parseHexByte(words[at]);
            if (!byte)
                usage(keyword + ": \"" + words[at] + "\" is not a hex byte (00-FF)");
            bytes.push_back(*byte);
            ++at;
        }
        if (bytes.empty())
            usage(keyword + ": no bytes follow");
        return bytes;
    };

    while (at < words.size()) {
        const std::string keyword = lower(words[at++]);
        if (keyword == "on") {
            const std::uint8_t n = note(keyword);
            messages.push_back({std::uint8_t(0x90 | ch), n, value(keyword, "the velocity", 127)});
        } else if (keyword == "off") {
            const std::uint8_t n = note(keyword);
            std::uint8_t velocity = 0;
            if (at < words.size() && parseNumber(words[at]))
                velocity = value(keyword, "the velocity", 127);
            messages.push_back({std::uint8_t(0x80 | ch), n, velocity});
        } else if (keyword == "cc") {
            const std::uint8_t controller = value(keyword, "the controller", 127);
            messages.push_back({std::uint8_t(0xB0 | ch), controller, value(keyword, "the value", 127)});
        } else if (keyword == "pc") {
            messages.push_back({std::uint8_t(0xC0 | ch), value(keyword, "the program", 127)});
        } else if (keyword == "pressure") {
            messages.push_back({std::uint8_t(0xD0 | ch), value(keyword, "the pressure", 127)});
        } else if (keyword == "at") {
            const std::uint8_t n = note(keyword);
            messages.push_back({std::uint8_t(0xA0 | ch), n, value(keyword, "the pressure", 127)});
        } else if (keyword == "pb") {
            const std::string& word = next(keyword, "the value");
            auto number = parseNumber(word);
            if (!number || *number > 16383)
                usage("pb: the value \"" + word + "\" is not a number from 0 to 16383 (8192 is the middle)");
            messages.push_back({std::uint8_t(0xE0 | ch), std::uint8_t(*number & 0x7F), std::uint8_t(*number >> 7)});
        } else if (keyword == "raw") {
            for (auto& message : cutMessages(hexRun(keyword), "raw"))
                messages.push_back(std::move(message));
        } else if (keyword == "syx") {
            std::vector<std::uint8_t> bytes = hexRun(keyword);
            if (bytes.front() != 0xF0)
                bytes.insert(bytes.begin(), 0xF0);
            if (bytes.back() != 0xF7)
                bytes.push_back(0xF7);
            auto cut = cutMessages(bytes, "syx");
            if (cut.size() != 1)
                usage("syx: the bytes are not one exclusive message");
            messages.push_back(std::move(cut.front()));
        } else {
            usage("\"" + words[at - 1] + "\" is not a message (on, off, cc, pc, pressure, at, pb, raw, syx)");
        }
    }
    return messages;
}

std::vector<std::vector<std::uint8_t>> parseSysExFile(const std::vector<std::uint8_t>& bytes, const std::string& path)
{
    if (bytes.empty())
        usage(path + ": the file is empty");
    auto messages = cutMessages(bytes, path);
    for (const auto& message : messages)
        if (message.front() != 0xF0)
            usage(path + ": holds " + hexBytes(message.data(), message.size(), 8)
                  + ", which is not an exclusive message");
    return messages;
}

int runSend(const SendOptions& options, VelmorToolIO& io)
{
    std::vector<std::string> words = options.words;
    std::optional<Selector> selector;
    if (!options.virtualName) {
        if (words.empty())
            usage("send: OUTPUT is missing (velmor list shows the outputs), or use --virtual NAME");
        selector = parseSelector(words.front());
        words.erase(words.begin());
    } else if (options.virtualName->empty()) {
        usage("--virtual: the name is empty");
    }

    auto messages = parseMessages(words, options.channel);
    for (const std::string& path : options.files) {
        std::ifstream file(path, std::ios::binary);
        if (!file)
            fail(path + ": cannot be read");
        std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        for (auto& message : parseSysExFile(bytes, path))
            messages.push_back(std::move(message));
    }
    if (messages.empty())
        usage("send: no message to send (on 60 100, cc 7 100, raw 90 3C 40, ...)");

    auto manager = VelmorManager::sharedManager();
    if (!manager)
        fail("the MIDI service refused a client");
    std::shared_ptr<VelmorOutput> output;
    if (options.virtualName) {
        output = manager->openVirtualOutputWithAttributes(VelmorAttributes::defaultAttributesWithName(*options.virtualName));
        if (!output)
            fail("the virtual output \"" + *options.virtualName + "\" could not be opened");
    } else {
        output = findEndpoint(manager->remoteOutputs(), *selector, "output");
    }

    auto interrupted = [&io] { return io.interrupted && io.interrupted->load(); };
    if (options.waitMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(options.waitMs));
    for (std::size_t i = 0; i < messages.size() && !interrupted(); ++i) {
        if (i > 0 && options.delayMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(options.delayMs));
        const auto& bytes = messages[i];
        output->sendEvent(VelmorEvent::initWithDataSourceTimeStampTimeOffset(VelmorData(bytes), nullptr, 0, 0));
    }
    manager->flushManager();
    return 0;
}

} // namespace VelmorTool

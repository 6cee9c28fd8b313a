#pragma once

// Shared by the subcommands of the `velmor` command.

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Velmor.h"
#include "VelmorTool.h"

namespace VelmorTool {

// What a subcommand throws for bad input or a failure; velmorToolRun() turns it into the one line and
// the exit status.
struct Failure : std::runtime_error {
    Failure(int status, const std::string& message) : std::runtime_error(message), status(status) {}
    int status;
};
inline constexpr int kStatusFailed = 1;
inline constexpr int kStatusUsage = 2;

[[noreturn]] inline void fail(const std::string& message) { throw Failure(kStatusFailed, message); }
[[noreturn]] inline void usage(const std::string& message) { throw Failure(kStatusUsage, message); }

// The service's own address of an endpoint ("client:port" on ALSA), or "" where it has none.
std::string serviceAddress(const VelmorObject& object);

nlohmann::json jsonFromValue(const VelmorValue& value);
nlohmann::json jsonFromDictionary(const VelmorDictionary& dictionary);
// Strings, numbers and nested objects; anything else makes it fail with a line naming the key.
VelmorDictionary dictionaryFromJSON(const nlohmann::json& object);

// How a source or output is named on the command line: by name, by "client:port", or by a saved
// attributes JSON (what `list --json` prints, or the attributes dictionary alone).
struct Selector {
    std::string text;
    std::shared_ptr<VelmorAttributes> attributes;  // when given as JSON
};
Selector parseSelector(const std::string& text);

// The endpoints that a selector names among `endpoints`, by the rules that `help` describes: the
// attributes, else an equal address, else an equal name, else names that contain the text
// (case-insensitively). Fails with one line when none or, by a partial name, several match.
template <class Endpoint>
std::shared_ptr<Endpoint> findEndpoint(const std::vector<std::shared_ptr<Endpoint>>& endpoints,
                                       const Selector& selector, const char* what);

std::string hexBytes(const std::uint8_t* bytes, std::size_t length, std::size_t limit = SIZE_MAX);

struct MonitorOptions {
    std::vector<std::string> sources;
    bool json = false;
    bool raw = false;
    bool colour = false;
    std::uint64_t count = 0;        // stop after this many events; 0: never
    std::uint64_t durationMs = 0;   // stop after this long; 0: never
};
int runMonitor(const MonitorOptions& options, VelmorToolIO& io);

struct SendOptions {
    std::vector<std::string> words;  // OUTPUT (unless virtualName) and then the messages
    std::optional<std::string> virtualName;
    std::uint64_t channel = 1;
    std::uint64_t delayMs = 0;
    std::uint64_t waitMs = 0;
    std::vector<std::string> files;
};
int runSend(const SendOptions& options, VelmorToolIO& io);
// The messages of `send`, each as the bytes of one MIDI message; fails on the first bad word.
std::vector<std::vector<std::uint8_t>> parseMessages(const std::vector<std::string>& words, std::uint64_t channel);
std::vector<std::vector<std::uint8_t>> parseSysExFile(const std::vector<std::uint8_t>& bytes, const std::string& path);
// 0 to 127, or a note name as the framework writes it ("C5", "F♯4"; "#" for "♯").
std::optional<std::uint64_t> parseNote(const std::string& word);

} // namespace VelmorTool

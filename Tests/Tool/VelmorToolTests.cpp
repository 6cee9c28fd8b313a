// The `velmor` command on the in-process service: devices are plugged in through the service's control
// surface, the command runs in this process, and what it printed and sent is checked.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "Velmor.h"
#include "VelmorInProcessMIDIService.h"
#include "VelmorTool.h"

using VelmorPlatform::VelmorInProcessMIDIService;

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

Result run(std::vector<std::string> arguments, std::function<void(const std::string&)> onLine = {})
{
    std::ostringstream out;
    std::ostringstream err;
    VelmorToolIO io {out, err, false, nullptr, {}};
    io.onMonitorLine = std::move(onLine);
    // A monitor that misses what it waits for ends anyway, and the test fails on what it printed.
    if (!arguments.empty() && arguments.front() == "monitor")
        arguments.insert(arguments.end(), {"--duration-ms", "10000"});
    arguments.insert(arguments.begin(), {"--service", "in-process"});
    Result result;
    result.status = velmorToolRun(arguments, io);
    result.out = out.str();
    result.err = err.str();
    return result;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

std::shared_ptr<VelmorInProcessMIDIService> service()
{
    return VelmorInProcessMIDIService::sharedService();
}

std::string tempFile(const std::string& name, const std::vector<std::uint8_t>& bytes)
{
    const std::string path = ::testing::TempDir() + "/" + name;
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return path;
}

} // namespace

TEST(VelmorToolList, GroupsByDeviceAndNumbersTwins)
{
    service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    service()->createSimpleDevice("Pad", "Velmor", "PD-8", true, false);
    service()->createSimpleDevice("Pad", "Velmor", "PD-8", true, false);

    const Result result = run({"list"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const std::string& out = result.out;
    EXPECT_EQ(lines(out).front(), "Service: in-process");
    const auto keys = out.find("\nVelmor KX-61\n");
    const auto pads = out.find("\nVelmor PD-8\n");
    ASSERT_NE(keys, std::string::npos) << out;
    ASSERT_NE(pads, std::string::npos) << out;
    // The keyboard's source and output under its heading, the two pads numbered under theirs.
    EXPECT_NE(out.find("  source  \"Keys\"", keys), std::string::npos) << out;
    EXPECT_NE(out.find("  output  \"Keys\"", keys), std::string::npos) << out;
    EXPECT_NE(out.find("\"Pad\"  #1", pads), std::string::npos) << out;
    EXPECT_NE(out.find("\"Pad\"  #2", pads), std::string::npos) << out;
}

TEST(VelmorToolList, EmptyServiceSaysSo)
{
    const Result result = run({"list"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Service: in-process\nNo MIDI sources or outputs.\n");
    EXPECT_EQ(run({"list", "--json"}).out, "");
}

TEST(VelmorToolList, SavedJSONLineNamesTheDeviceAgain)
{
    const auto first = service()->createSimpleDevice("Pad", "Velmor", "PD-8");
    const auto second = service()->createSimpleDevice("Pad", "Velmor", "PD-8");

    const Result listed = run({"list", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    std::vector<nlohmann::json> objects;
    for (const std::string& line : lines(listed.out))
        objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 4u);  // two sources, two outputs
    std::int32_t secondOutputID = 0;
    std::int32_t secondSourceID = 0;
    VelmorPlatform::MIDIObjectGetIntegerProperty(second.destination, VelmorPlatform::kMIDIPropertyUniqueID,
                                                 &secondOutputID);
    VelmorPlatform::MIDIObjectGetIntegerProperty(second.source, VelmorPlatform::kMIDIPropertyUniqueID, &secondSourceID);
    std::string secondSource;
    std::string secondOutput;
    for (const auto& object : objects) {
        EXPECT_EQ(object["service"], "in-process");
        const auto& attributes = object["attributes"];
        EXPECT_EQ(attributes["VelmorEventSourceName"], "Pad");
        EXPECT_EQ(attributes["VelmorEventSourceManufacturer"], "Velmor");
        EXPECT_TRUE(attributes.contains("VelmorEventSourceIndex"));
        if (object["kind"] == "source" && attributes["VelmorEventSourceUniqueID"] == secondSourceID)
            secondSource = object.dump();
        if (object["kind"] == "output" && attributes["VelmorEventSourceUniqueID"] == secondOutputID)
            secondOutput = object.dump();
    }
    ASSERT_FALSE(secondSource.empty()) << listed.out;
    ASSERT_FALSE(secondOutput.empty()) << listed.out;

    // The saved output line sends to that very destination.
    const Result sent = run({"send", secondOutput, "on", "60", "100"});
    ASSERT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(service()->arrivedBytes(second.destination), (std::vector<std::uint8_t> {0x90, 0x3C, 0x64}));

    // The saved source line (one of two twins, told apart by the index) watches that source only.
    const Result watched = run({"monitor", "--raw", "--count", "1", secondSource}, [&](const std::string& line) {
        if (line.empty()) {
            service()->injectBytes(first.source, std::vector<std::uint8_t> {0x90, 0x41, 0x10});
            service()->injectBytes(second.source, std::vector<std::uint8_t> {0x90, 0x40, 0x10});
        }
    });
    ASSERT_EQ(watched.status, 0) << watched.err;
    EXPECT_EQ(watched.out.find("90 41 10"), std::string::npos) << watched.out;
    EXPECT_NE(watched.out.find("90 40 10"), std::string::npos) << watched.out;
}

// --- send -----------------------------------------------------------------------------------------

TEST(VelmorToolSend, EachMessageWordBecomesItsBytes)
{
    const auto keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    struct Case {
        std::vector<std::string> words;
        std::vector<std::uint8_t> bytes;
    };
    const std::vector<Case> cases {
        {{"on", "60", "100"}, {0x90, 0x3C, 0x64}},
        {{"--channel", "10", "on", "C5", "1"}, {0x99, 0x3C, 0x01}},
        {{"on", "F#4", "2", "on", "F\u266F4", "3", "on", "G10", "4", "on", "c0", "5"},
         {0x90, 54, 2, 0x90, 54, 3, 0x90, 127, 4, 0x90, 0, 5}},
        {{"off", "60"}, {0x80, 0x3C, 0x00}},
        {{"off", "60", "64", "cc", "7", "100"}, {0x80, 0x3C, 0x40, 0xB0, 0x07, 0x64}},
        {{"CC", "64", "127", "pc", "5", "pressure", "40"}, {0xB0, 64, 127, 0xC0, 5, 0xD0, 40}},
        {{"at", "60", "40"}, {0xA0, 0x3C, 0x28}},
        {{"pb", "8192", "pb", "0", "pb", "16383"}, {0xE0, 0x00, 0x40, 0xE0, 0, 0, 0xE0, 0x7F, 0x7F}},
        {{"raw", "90", "3C", "40", "0xF8", "on", "1", "1"}, {0x90, 0x3C, 0x40, 0xF8, 0x90, 1, 1}},
        {{"syx", "F0", "7E", "7F", "06", "01", "F7"}, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
        {{"syx", "7E", "7F", "06", "01"}, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
    };
    for (const Case& c : cases) {
        service()->clearArrivals(keys.destination);
        std::vector<std::string> arguments {"send", "Keys"};
        arguments.insert(arguments.end(), c.words.begin(), c.words.end());
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 0) << c.words.front() << ": " << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(service()->arrivedBytes(keys.destination), c.bytes) << c.words.front() << " " << c.words.back();
    }
}

TEST(VelmorToolSend, SysExFileAndPartOfANameAndVirtualOutput)
{
    const auto synth = service()->createSimpleDevice("Big Synth Module", "Velmor", "S-1", false, true);
    const std::string path = tempFile("two.syx", {0xF0, 0x41, 0x10, 0xF7, 0xF0, 0x7E, 0xF7});
    const Result result = run({"send", "synth", "--file", path, "on", "60", "1"});
    ASSERT_EQ(result.status, 0) << result.err;
    // The words' messages first, then the file's, each its own message.
    EXPECT_EQ(service()->arrivedBytes(synth.destination),
              (std::vector<std::uint8_t> {0x90, 60, 1, 0xF0, 0x41, 0x10, 0xF7, 0xF0, 0x7E, 0xF7}));
    EXPECT_EQ(service()->arrivals(synth.destination).size(), 3u);

    service()->resetCallCounts();
    const Result fromVirtual = run({"send", "--virtual", "Velmor Tool Out", "on", "60", "1", "off", "60"});
    ASSERT_EQ(fromVirtual.status, 0) << fromVirtual.err;
    EXPECT_EQ(service()->callCount("MIDISourceCreate"), 1u);
    EXPECT_EQ(service()->callCount("MIDIReceived"), 2u);
}

// Bad input: one line naming what was wrong, a non-zero status, and nothing sent at all.
TEST(VelmorToolSend, BadInputIsOneLineAndSendsNothing)
{
    const auto keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    service()->createSimpleDevice("Keys Two", "Velmor", "KX-88");
    const std::string malformed = tempFile("bad.syx", {0xF0, 0x41, 0x90, 0xF7});
    const std::string unterminated = tempFile("open.syx", {0xF0, 0x41, 0x10});
    const std::string notExclusive = tempFile("note.syx", {0x90, 0x3C, 0x40});
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string says;
    };
    const std::vector<Case> cases {
        {{"send", "Keys", "on", "60", "100", "hello"}, 2, "\"hello\" is not a message"},
        {{"send", "Keys", "on", "128", "100"}, 2, "the note \"128\""},
        {{"send", "Keys", "on", "H5", "100"}, 2, "the note \"H5\""},
        {{"send", "Keys", "on", "G#10", "100"}, 2, "the note \"G#10\""},
        {{"send", "Keys", "on", "60", "100", "on", "61", "128"}, 2, "the velocity \"128\""},
        {{"send", "Keys", "on", "60"}, 2, "on: the velocity is missing"},
        {{"send", "Keys", "cc", "7"}, 2, "cc: the value is missing"},
        {{"send", "Keys", "cc", "-1", "0"}, 2, "the controller \"-1\""},
        {{"send", "Keys", "pb", "16384"}, 2, "0 to 16383"},
        {{"send", "Keys", "raw", "3C", "40"}, 2, "not a status byte"},
        {{"send", "Keys", "raw", "90", "3C"}, 2, "needs 3 bytes"},
        {{"send", "Keys", "raw", "90", "3C", "GG"}, 2, "\"GG\" is not a hex byte"},
        {{"send", "Keys", "raw"}, 2, "raw: no bytes follow"},
        {{"send", "Keys", "syx", "F0", "80", "F7"}, 2, "80 at byte 2 is a status byte"},
        {{"send", "Keys", "--channel", "17", "on", "60", "1"}, 2, "--channel: 17"},
        {{"send", "Keys", "--channel", "0", "on", "60", "1"}, 2, "--channel: 0"},
        {{"send", "Keys"}, 2, "no message to send"},
        {{"send"}, 2, "OUTPUT is missing"},
        {{"send", "Nowhere", "on", "60", "1"}, 1, "no output named \"Nowhere\""},
        {{"send", "keys x", "on", "60", "1"}, 1, "no output named"},
        {{"send", "eys", "on", "60", "1"}, 1, "names several outputs: "},
        {{"send", "{\"name\": \"Keys\"}", "on", "60", "1"}, 2, "name, manufacturer and model are needed"},
        {{"send", "{not json", "on", "60", "1"}, 2, "not a JSON object"},
        {{"send", "Keys", "--file", malformed}, 2, "is a status byte where a data byte"},
        {{"send", "Keys", "--file", unterminated}, 2, "has no F7 at its end"},
        {{"send", "Keys", "--file", notExclusive}, 2, "which is not an exclusive message"},
        {{"send", "Keys", "--file", "/nonexistent/x.syx"}, 1, "cannot be read"},
        {{"send", "Keys", "--delay-ms", "soon", "on", "60", "1"}, 2, "--delay-ms"},
        {{"send", "--virtual", "", "on", "60", "1"}, 2, "--virtual: the name is empty"},
        {{"monitor", "Nowhere"}, 1, "no source named \"Nowhere\""},
        {{"monitor", "--json", "--raw"}, 2, "exclude each other"},
        {{"bogus"}, 2, "subcommand"},
        {{}, 2, "a subcommand is needed"},
        {{"list", "--colour"}, 2, "--colour"},
    };
    for (const Case& c : cases) {
        const Result result = run(c.arguments);
        const std::string what = c.arguments.empty() ? "(nothing)" : c.arguments.back();
        EXPECT_EQ(result.status, c.status) << what << ": " << result.err;
        EXPECT_EQ(lines(result.err).size(), 1u) << what << ": " << result.err;
        EXPECT_EQ(result.err.rfind("velmor: ", 0), 0u) << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << what << ": " << result.err;
        EXPECT_EQ(result.out, "") << what;
    }
    EXPECT_TRUE(service()->arrivedBytes(keys.destination).empty());
    EXPECT_EQ(service()->callCount("MIDISend"), 0u);
    EXPECT_EQ(service()->callCount("MIDISourceCreate"), 0u);

    std::ostringstream out;
    std::ostringstream err;
    VelmorToolIO io {out, err, false, nullptr, {}};
    EXPECT_EQ(velmorToolRun({"--service", "carrier-pigeon", "list"}, io), 2);
    Result unknownService {2, out.str(), err.str()};
    EXPECT_EQ(unknownService.status, 2);
    EXPECT_NE(unknownService.err.find("unknown service \"carrier-pigeon\""), std::string::npos) << unknownService.err;
}

// --- monitor --------------------------------------------------------------------------------------

TEST(VelmorToolMonitor, OneReadableLinePerEvent)
{
    const auto keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    std::vector<std::uint8_t> sysex(300, 0x11);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    const Result result = run({"monitor", "--count", "7"}, [&](const std::string& line) {
        if (!line.empty())
            return;
        for (const std::vector<std::uint8_t>& bytes : std::vector<std::vector<std::uint8_t>> {
                 {0x90, 0x3D, 0x64}, {0xB1, 0x07, 0x64}, {0xB0, 0x03, 0x40}, {0xE0, 0x00, 0x40}, sysex, {0xC9, 0x05},
                 {0xF8}})
            service()->injectBytes(keys.source, bytes);
    });
    ASSERT_EQ(result.status, 0) << result.err;
    const auto out = lines(result.out);
    ASSERT_EQ(out.size(), 7u) << result.out;
    auto has = [&](std::size_t i, const std::string& text) {
        EXPECT_NE(out[i].find(text), std::string::npos) << "line " << i << ": " << out[i] << " lacks " << text;
    };
    for (std::size_t i = 0; i < out.size(); ++i)
        has(i, "Keys");
    has(0, "note on");
    has(0, "ch 1");
    has(0, "C\u266F5 (61)  velocity 100");
    has(1, "control change");
    has(1, "ch 2");
    has(1, "Volume (Coarse) (7)  100");
    has(2, "Custom Controller #3 (3)  64");
    has(3, "pitch wheel");
    has(3, "8192");
    has(4, "exclusive");
    has(4, "300 bytes  F0 11 11");
    has(4, ".. 11 F7");
    has(5, "program change");
    has(5, "ch 10");
    has(6, "clock");
    // No colour when not on a terminal.
    EXPECT_EQ(result.out.find('\033'), std::string::npos);
}

TEST(VelmorToolMonitor, JSONIsTheEventsPropertiesAndRawIsHex)
{
    const auto keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    const Result json = run({"monitor", "--json", "--count", "2"}, [&](const std::string& line) {
        if (line.empty()) {
            service()->injectBytes(keys.source, std::vector<std::uint8_t> {0x90, 0x3C, 0x64});
            service()->injectBytes(keys.source, std::vector<std::uint8_t> {0xB0, 0x07, 0x64});
        }
    });
    ASSERT_EQ(json.status, 0) << json.err;
    const auto out = lines(json.out);
    ASSERT_EQ(out.size(), 2u);
    const auto note = nlohmann::json::parse(out[0]);
    EXPECT_EQ(note["VelmorEventType"], 0x90);
    EXPECT_EQ(note["VelmorEventNoteNumber"], 60);
    EXPECT_EQ(note["VelmorEventVelocity"], 100);
    EXPECT_EQ(note["VelmorEventChannelNumber"], 1);
    EXPECT_EQ(note["VelmorEventSourceName"], "Keys");
    EXPECT_EQ(note["VelmorEventSourceAttributes"]["VelmorEventSourceModel"], "KX-61");
    EXPECT_EQ(nlohmann::json::parse(out[1])["VelmorEventControllerName"], "Volume (Coarse)");

    const Result raw = run({"monitor", "--raw", "--count", "1"}, [&](const std::string& line) {
        if (line.empty())
            service()->injectBytes(keys.source, std::vector<std::uint8_t> {0x90, 0x3C, 0x64});
    });
    ASSERT_EQ(raw.status, 0) << raw.err;
    EXPECT_NE(raw.out.find("Keys                  90 3C 64\n"), std::string::npos) << raw.out;
}

// A watched device unplugged and plugged in again is watched again; another device that comes is shown
// but not watched; a rename shows as its own line.
TEST(VelmorToolMonitor, DevicesComingGoingAndRenamed)
{
    auto keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
    VelmorPlatform::MIDIEndpointRef other = 0;
    int step = 0;
    const Result result = run({"monitor", "--count", "2", "Keys"}, [&](const std::string& line) {
        if (line.empty() && step == 0) {
            ++step;
            service()->removeObject(keys.device);
        } else if (line.find("source removed: \"Keys\"") != std::string::npos && step == 1) {
            ++step;
            other = service()->createSimpleDevice("Drums", "Velmor", "DR-1").source;
        } else if (line.find("source added: \"Drums\"") != std::string::npos && step == 2) {
            ++step;
            keys = service()->createSimpleDevice("Keys", "Velmor", "KX-61");
        } else if (line.find("source added: \"Keys\"") != std::string::npos && step == 3) {
            ++step;
            service()->injectBytes(other, std::vector<std::uint8_t> {0x99, 0x24, 0x7F});
            service()->injectBytes(keys.source, std::vector<std::uint8_t> {0x90, 0x3C, 0x64});
        } else if (line.find("note on") != std::string::npos && step == 4) {
            ++step;
            VelmorPlatform::MIDIObjectSetStringProperty(keys.source, VelmorPlatform::kMIDIPropertyName, "Keys Left");
            service()->injectBytes(keys.source, std::vector<std::uint8_t> {0x80, 0x3C, 0x00});
        }
    });
    ASSERT_EQ(result.status, 0) << result.err;
    std::vector<std::string> out;
    std::vector<std::string> outputLines;
    for (const std::string& line : lines(result.out))
        (line.find("  output ") != std::string::npos ? outputLines : out).push_back(line);
    std::vector<std::string> expected {"source removed: \"Keys\" (Keys ( Velmor KX-61 ))",
                                       "source added: \"Drums\" (Drums ( Velmor DR-1 )) (not watched)",
                                       "source added: \"Keys\"", "note on", "source renamed: \"Keys Left\"",
                                       "note off"};
    ASSERT_EQ(out.size(), expected.size()) << result.out;
    for (std::size_t i = 0; i < out.size(); ++i)
        EXPECT_NE(out[i].find(expected[i]), std::string::npos) << out[i] << " lacks " << expected[i];
    // The devices' outputs come and go as lines of their own.
    for (const char* line : {"output removed: \"Keys\"", "output added: \"Drums\"", "output added: \"Keys\""})
        EXPECT_TRUE(std::any_of(outputLines.begin(), outputLines.end(),
                                [&](const std::string& l) { return l.find(line) != std::string::npos; }))
            << line << " missing from\n" << result.out;
    EXPECT_NE(out[5].find("Keys Left"), std::string::npos);
}

// --- the program itself -----------------------------------------------------------------------------

namespace {

Result runProgram(const std::string& arguments)
{
    const std::string errPath = ::testing::TempDir() + "/velmor-err.txt";
    const std::string command = std::string(VELMOR_COMMAND) + " " + arguments + " 2>" + errPath;
    Result result;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream err(errPath);
    result.err.assign(std::istreambuf_iterator<char>(err), std::istreambuf_iterator<char>());
    return result;
}

} // namespace

TEST(VelmorToolProgram, ExitStatusHelpAndOneLineErrors)
{
    const Result help = runProgram("--help");
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"list", "monitor", "send", "--service"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    for (const char* sub : {"list", "monitor", "send"}) {
        const Result subHelp = runProgram(std::string(sub) + " --help");
        EXPECT_EQ(subHelp.status, 0) << sub;
        EXPECT_NE(subHelp.out.find(sub), std::string::npos) << sub;
        EXPECT_NE(subHelp.out.find("--help"), std::string::npos) << sub;
    }
    const Result list = runProgram("--service in-process list");
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out, "Service: in-process\nNo MIDI sources or outputs.\n");

    const Result bad = runProgram("--service in-process send Nowhere on 60 100");
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "velmor: no output named \"Nowhere\" (velmor list shows them)\n");

    const Result usage = runProgram("--service in-process send Nowhere on 60");
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, "velmor: on: the velocity is missing\n");

    const Result monitor = runProgram("--service in-process monitor --duration-ms 50");
    EXPECT_EQ(monitor.status, 0) << monitor.err;
}

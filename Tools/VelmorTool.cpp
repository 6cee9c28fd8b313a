// The `velmor` command: the command line, the choice of service, the shared lookups and `list`.

#include "VelmorTool.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "VelmorInProcessMIDIService.h"
#include "VelmorSystemMIDIService.h"
#include "VelmorToolInternal.h"
#ifdef VELMOR_HAVE_ALSA
#include "VelmorALSAMIDIService.h"
#endif

namespace VelmorTool {

std::string serviceAddress(const VelmorObject& object)
{
#ifdef VELMOR_HAVE_ALSA
    if (auto* alsa = dynamic_cast<VelmorPlatform::VelmorALSAMIDIService*>(&VelmorPlatform::currentService()))
        return alsa->sequencerAddress(object.object());
#endif
    (void)object;
    return "";
}

nlohmann::json jsonFromValue(const VelmorValue& value)
{
    if (value.isString())
        return *value.stringValue();
    if (value.isUnsignedNumber())
        return *value.unsignedValue();
    if (value.isSignedNumber())
        return *value.int64Value();
    if (value.isDictionary())
        return jsonFromDictionary(*value.dictionaryValue());
    if (value.isArray()) {
        nlohmann::json array = nlohmann::json::array();
        for (const VelmorValue& item : *value.arrayValue())
            array.push_back(jsonFromValue(item));
        return array;
    }
    return value.description();
}

nlohmann::json jsonFromDictionary(const VelmorDictionary& dictionary)
{
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, value] : dictionary)
        object[key] = jsonFromValue(value);
    return object;
}

VelmorDictionary dictionaryFromJSON(const nlohmann::json& object)
{
    VelmorDictionary dictionary;
    for (const auto& [key, value] : object.items()) {
        if (value.is_string())
            dictionary.setObjectForKey(VelmorValue(value.get<std::string>()), key);
        else if (value.is_number_unsigned())
            dictionary.setObjectForKey(VelmorValue::unsignedNumber(value.get<std::uint64_t>()), key);
        else if (value.is_number_integer())
            dictionary.setObjectForKey(VelmorValue::signedNumber(value.get<std::int64_t>()), key);
        else if (value.is_object())
            dictionary.setObjectForKey(VelmorValue(dictionaryFromJSON(value)), key);
        else
            usage("attributes: the value of \"" + key + "\" is neither a string, a whole number nor an object");
    }
    return dictionary;
}

Selector parseSelector(const std::string& text)
{
    Selector selector {text, nullptr};
    if (text.empty())
        usage("an empty name names no source or output");
    if (text.front() != '{')
        return selector;
    nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object())
        usage("attributes: not a JSON object: " + text);
    // A whole line of `list --json`, or the attributes alone.
    if (json.contains("attributes") && json["attributes"].is_object())
        json = json["attributes"];
    const VelmorDictionary dictionary = dictionaryFromJSON(json);
    selector.attributes = VelmorAttributes::attributesWithDictionary(&dictionary);
    if (!selector.attributes)
        usage("attributes: name, manufacturer and model are needed as strings: " + text);
    return selector;
}

namespace {

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

} // namespace

template <class Endpoint>
std::shared_ptr<Endpoint> findEndpoint(const std::vector<std::shared_ptr<Endpoint>>& endpoints,
                                       const Selector& selector, const char* what)
{
    if (selector.attributes) {
        for (const auto& endpoint : endpoints)
            if (endpoint->matchesAttributesOptions(selector.attributes,
                                                   VelmorAttributesOptionName | VelmorAttributesOptionManufacturer
                                                       | VelmorAttributesOptionModel | VelmorAttributesOptionUniqueID
                                                       | VelmorAttributesOptionIndex | VelmorAttributesOptionIdentifier))
                return endpoint;
        fail(std::string("no ") + what + " matches the attributes " + selector.attributes->descriptiveString());
    }
    for (const auto& endpoint : endpoints)
        if (!serviceAddress(*endpoint).empty() && serviceAddress(*endpoint) == selector.text)
            return endpoint;
    for (const auto& endpoint : endpoints)
        if (endpoint->name() == selector.text)
            return endpoint;
    std::vector<std::shared_ptr<Endpoint>> partial;
    const std::string wanted = lower(selector.text);
    for (const auto& endpoint : endpoints)
        if (lower(endpoint->name().value_or("")).find(wanted) != std::string::npos)
            partial.push_back(endpoint);
    if (partial.size() == 1)
        return partial.front();
    if (partial.empty())
        fail(std::string("no ") + what + " named \"" + selector.text + "\" (velmor list shows them)");
    std::string names;
    for (const auto& endpoint : partial)
        names += (names.empty() ? "\"" : ", \"") + endpoint->name().value_or("") + "\"";
    fail(std::string("\"") + selector.text + "\" names several " + what + "s: " + names);
}

template std::shared_ptr<VelmorRemoteSource> findEndpoint(const std::vector<std::shared_ptr<VelmorRemoteSource>>&,
                                                          const Selector&, const char*);
template std::shared_ptr<VelmorRemoteOutput> findEndpoint(const std::vector<std::shared_ptr<VelmorRemoteOutput>>&,
                                                          const Selector&, const char*);

std::string hexBytes(const std::uint8_t* bytes, std::size_t length, std::size_t limit)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    auto put = [&](std::uint8_t byte) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    };
    if (length <= limit) {
        for (std::size_t i = 0; i < length; ++i)
            put(bytes[i]);
        return text;
    }
    // The head and the last two bytes, where the end marker lives.
    for (std::size_t i = 0; i + 2 < limit; ++i)
        put(bytes[i]);
    text += " ..";
    put(bytes[length - 2]);
    put(bytes[length - 1]);
    return text;
}

namespace {

// --- list ---------------------------------------------------------------------------------------------

struct ListedEndpoint {
    const char* kind;
    std::shared_ptr<VelmorEndpoint> endpoint;
    std::shared_ptr<VelmorAttributes> attributes;
    std::string address;
};

int runList(bool json, VelmorToolIO& io)
{
    auto manager = VelmorManager::sharedManager();
    if (!manager)
        fail("the MIDI service refused a client");
    std::vector<ListedEndpoint> listed;
    for (const auto& source : manager->sources())
        listed.push_back({"source", source, source->attributes(), serviceAddress(*source)});
    for (const auto& output : manager->remoteOutputs())
        listed.push_back({"output", output, output->attributes(), serviceAddress(*output)});
    const std::string service = VelmorPlatform::currentService().serviceName();

    if (json) {
        for (const ListedEndpoint& item : listed) {
            nlohmann::json line = {{"kind", item.kind}, {"service", service}};
            if (!item.address.empty())
                line["address"] = item.address;
            line["attributes"] = item.attributes ? jsonFromDictionary(item.attributes->dictionaryRepresentation())
                                                 : nlohmann::json::object();
            io.out << line.dump() << '\n';
        }
        return 0;
    }

    // A device is what the service's address names (an ALSA client), else a manufacturer and model.
    struct Group {
        std::string title;
        std::vector<const ListedEndpoint*> members;
    };
    std::vector<Group> groups;
    std::map<std::string, std::size_t> groupOfKey;
    for (const ListedEndpoint& item : listed) {
        const auto& a = *item.attributes;
        const std::string manufacturerModel = a.manufacturer().value_or("")
            + (a.manufacturer().value_or("").empty() || a.model().value_or("").empty() ? "" : " ")
            + a.model().value_or("");
        const std::string client = item.address.substr(0, item.address.find(':'));
        const std::string key = client.empty() ? "m:" + manufacturerModel : "c:" + client;
        auto [found, added] = groupOfKey.try_emplace(key, groups.size());
        if (added) {
            std::string title = manufacturerModel.empty() ? a.name().value_or("(no name)") : manufacturerModel;
            if (!client.empty())
                title += "  (client " + client + ")";
            groups.push_back({title, {}});
        }
        groups[found->second].members.push_back(&item);
    }
    io.out << "Service: " << service << '\n';
    if (listed.empty())
        io.out << "No MIDI sources or outputs.\n";
    for (const Group& group : groups) {
        io.out << '\n' << group.title << '\n';
        for (const ListedEndpoint* item : group.members) {
            const auto& a = *item->attributes;
            std::ostringstream line;
            line << "  " << item->kind << "  " << (item->address.empty() ? "" : item->address + "  ") << '"'
                 << a.name().value_or("") << '"';
            if (std::string(item->kind) == "source" && a.index() > 0)
                line << "  #" << a.index();
            if (a.uniqueID())
                line << "  uid " << *a.uniqueID();
            if (a.identifier())
                line << "  identifier \"" << *a.identifier() << '"';
            io.out << line.str() << '\n';
        }
    }
    return 0;
}

// --- service ------------------------------------------------------------------------------------------

void chooseService(const std::string& service, VelmorToolIO& io, bool quiet)
{
    if (service == "in-process") {
        if (std::string(VelmorPlatform::currentService().serviceName()) != "in-process")
            VelmorPlatform::setCurrentService(VelmorPlatform::VelmorInProcessMIDIService::sharedService());
    } else if (service == "alsa") {
        if (!VelmorPlatform::useALSAService())
            fail("the ALSA sequencer cannot be opened (no /dev/snd/seq, no permission, or built without libasound)");
    } else if (service == "system") {
        // Without a sequencer device there is nothing to probe (and libasound would complain of it).
        const bool sequencer = access("/dev/snd/seq", F_OK) == 0;
        if ((!sequencer || !VelmorPlatform::useSystemServiceIfAvailable()) && !quiet)
            io.err << "velmor: no system MIDI service here; using the in-process service, which starts empty\n";
    } else {
        usage("--service: unknown service \"" + service + "\" (in-process, alsa)");
    }
}

} // namespace
} // namespace VelmorTool

using namespace VelmorTool;

int velmorToolRun(const std::vector<std::string>& arguments, VelmorToolIO& io)
{
    CLI::App app {"velmor: list MIDI sources and outputs, watch what they send, send to them."};
    app.name("velmor");
    app.require_subcommand(1);
    std::string service = "system";
    bool verbose = false;
    app.add_option("--service", service,
                   "MIDI service: system (the ALSA sequencer where there is one, else in-process), in-process, alsa");
    app.add_flag("--verbose", verbose, "also write the framework's own lines (endpoints made and removed)");

    bool listJSON = false;
    CLI::App* list = app.add_subcommand("list", "List sources and outputs, grouped by device");
    list->add_flag("--json", listJSON,
                   "one JSON object per endpoint, with the attributes' dictionary form; a saved line names the "
                   "endpoint again for monitor and send");

    MonitorOptions monitorOptions;
    CLI::App* monitor = app.add_subcommand("monitor", "Print the events that sources send, one line each");
    monitor->add_option("SOURCE", monitorOptions.sources,
                        "source by name (or part of it), client:port, or saved attributes JSON; all sources if none");
    monitor->add_flag("--json", monitorOptions.json, "one JSON object per event (the event's properties)");
    monitor->add_flag("--raw", monitorOptions.raw, "the event's bytes in hex");
    monitor->add_option("--count", monitorOptions.count, "stop after this many events");
    monitor->add_option("--duration-ms", monitorOptions.durationMs, "stop after this many milliseconds");
    bool noColour = false;
    monitor->add_flag("--no-color", noColour, "no colour even on a terminal");

    SendOptions sendOptions;
    CLI::App* send = app.add_subcommand("send", "Send MIDI messages to an output");
    send->add_option("OUTPUT MESSAGE", sendOptions.words,
                     "OUTPUT (by name or part of it, client:port, or saved attributes JSON), then messages:\n"
                     "on NOTE VELOCITY | off NOTE [VELOCITY] | cc CONTROLLER VALUE | pc PROGRAM | pressure VALUE |\n"
                     "at NOTE PRESSURE | pb VALUE (0-16383) | raw HEX... | syx HEX...\n"
                     "NOTE is 0-127 or a name: C5 is 60, F#4 or F\u266F4 is 54. HEX bytes are 00-FF or 0x..")
        ->expected(0, -1);
    send->add_option("--virtual", sendOptions.virtualName,
                     "send from a virtual output of this name instead (no OUTPUT word)");
    send->add_option("--channel", sendOptions.channel, "channel 1-16 of the channel messages")->default_val(1);
    send->add_option("--delay-ms", sendOptions.delayMs, "pause between messages");
    send->add_option("--wait-ms", sendOptions.waitMs,
                     "pause after opening, before the first message (time for a listener to connect)");
    send->add_option("--file", sendOptions.files, "send the exclusive messages of a .syx file (after the others)")
        ->allow_extra_args(false);

    std::vector<std::string> argvStrings {"velmor"};
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<const char*> argv;
    for (const std::string& s : argvStrings)
        argv.push_back(s.c_str());
    try {
        app.parse(int(argv.size()), argv.data());
    } catch (const CLI::CallForHelp&) {
        // Help of the subcommand that was asked for.
        const CLI::App* asked = &app;
        for (const CLI::App* sub : {list, monitor, send})
            if (sub->parsed())
                asked = sub;
        io.out << asked->help();
        return 0;
    } catch (const CLI::ParseError& error) {
        std::string message = error.what();
        if (message.empty() || dynamic_cast<const CLI::RequiredError*>(&error))
            message = "a subcommand is needed: list, monitor or send";
        io.err << "velmor: " << message << " (velmor --help)\n";
        return kStatusUsage;
    }

    // The framework's lines: failures always (a send reports only there), the lines about endpoints made
    // and removed only with --verbose.
    int status = 0;
    try {
        // Probing for a system service that isn't there writes lines of its own: not news here.
        VelmorSetLineSink([&io, verbose](const std::string& line) {
            if (verbose)
                io.err << line << std::flush;
        });
        chooseService(service, io, listJSON || monitorOptions.json);
        VelmorSetLineSink([&io, verbose](const std::string& line) {
            if (verbose || line.find(" failed") != std::string::npos)
                io.err << line << std::flush;
        });
        if (list->parsed()) {
            status = runList(listJSON, io);
        } else if (monitor->parsed()) {
            if (monitorOptions.json && monitorOptions.raw)
                usage("monitor: --json and --raw exclude each other");
            monitorOptions.colour = io.colour && !noColour && !monitorOptions.json;
            status = runMonitor(monitorOptions, io);
        } else {
            status = runSend(sendOptions, io);
        }
    } catch (const Failure& failure) {
        io.err << "velmor: " << failure.what() << '\n';
        status = failure.status;
    }
    VelmorSetLineSink(nullptr);
    return status;
}

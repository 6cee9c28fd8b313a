// `velmor monitor`: one consumer per watched source, lines written on the main thread; sources that
// come, go and are renamed show as lines of their own, and a watched source that comes back is watched
// again.

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <map>

#include "VelmorToolInternal.h"

namespace VelmorTool {

namespace {

const char* systemName(std::uint8_t status)
{
    switch (status) {
    case 0xF0: return "exclusive";
    case 0xF1: return "time code";
    case 0xF2: return "song position";
    case 0xF3: return "song select";
    case 0xF6: return "tune request";
    case 0xF8: return "clock";
    case 0xFA: return "start";
    case 0xFB: return "continue";
    case 0xFC: return "stop";
    case 0xFE: return "active sensing";
    case 0xFF: return "reset";
    default: return "system";
    }
}

const char* typeName(const VelmorEvent& event)
{
    switch (event.type()) {
    case VelmorEventTypeNoteOn: return "note on";
    case VelmorEventTypeNoteOff: return "note off";
    case VelmorEventTypeAfterTouch: return "after touch";
    case VelmorEventTypeControlChange: return "control change";
    case VelmorEventTypePatchChange: return "program change";
    case VelmorEventTypeChannelPressure: return "channel pressure";
    case VelmorEventTypePitchWheel: return "pitch wheel";
    default: return systemName(event.data().length() ? event.data()[0] : 0xF0);
    }
}

const char* colourOf(std::uint64_t type)
{
    switch (type) {
    case VelmorEventTypeNoteOn: return "\033[32m";
    case VelmorEventTypeNoteOff: return "\033[2;32m";
    case VelmorEventTypeControlChange: return "\033[36m";
    case VelmorEventTypePitchWheel: return "\033[35m";
    case VelmorEventTypeSystem: return "\033[33m";
    default: return "\033[34m";
    }
}

std::string noteText(std::uint64_t note)
{
    return VelmorManager::noteName(note) + " (" + std::to_string(note) + ")";
}

// What the event says, past its type and channel.
std::string detailText(const VelmorEvent& event)
{
    switch (event.type()) {
    case VelmorEventTypeNoteOn:
    case VelmorEventTypeNoteOff:
        return noteText(event.note()) + "  velocity " + std::to_string(event.velocity());
    case VelmorEventTypeAfterTouch:
        return noteText(event.note()) + "  pressure " + std::to_string(event.pressure());
    case VelmorEventTypeControlChange:
        return VelmorManager::controllerNameAllowCustom(event.controller(), true).value_or("") + " ("
            + std::to_string(event.controller()) + ")  " + std::to_string(event.eventValue());
    case VelmorEventTypePatchChange:
        return std::to_string(event.eventValue());
    case VelmorEventTypeChannelPressure:
        return std::to_string(event.pressure());
    case VelmorEventTypePitchWheel:
        return std::to_string(event.pitch());
    default: {
        const VelmorData& data = event.data();
        if (data.length() && data[0] == 0xF0)
            return std::to_string(data.length()) + " bytes  " + hexBytes(data.bytes(), data.length(), 16);
        return hexBytes(data.bytes(), data.length());
    }
    }
}

class Monitor;

class Printer : public VelmorConsumer {
public:
    explicit Printer(Monitor* monitor) : monitor_(monitor) {}
    void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) override;
    void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>&) override {}

private:
    Monitor* monitor_;  // the monitor outlives every source it registers with: it flushes them first
};

class Monitor {
public:
    Monitor(const MonitorOptions& options, VelmorToolIO& io)
        : options_(options), io_(io), startHostTime_(AudioGetCurrentHostTime())
    {
    }

    int run()
    {
        manager_ = VelmorManager::sharedManager();
        if (!manager_)
            fail("the MIDI service refused a client");
        const auto sources = manager_->sources();
        // Every source named must be there now; a source that comes back later is found by what it was.
        for (const std::string& text : options_.sources) {
            auto source = findEndpoint(sources, parseSelector(text), "source");
            wanted_.push_back(source->attributes());
        }
        for (const auto& source : sources)
            if (isWanted(*source))
                watch(source);
        if (!options_.json && watched_.empty() && !options_.sources.size())
            io_.err << "velmor: no sources yet; waiting for one\n";

        auto& center = VelmorNotificationCenter::defaultCenter();
        center.addObserver(this, std::string(VelmorManager_DidAddSourceNotification), [this](const VelmorNotification& n) {
            if (auto source = std::dynamic_pointer_cast<VelmorRemoteSource>(n.object))
                added(source);
        });
        center.addObserver(this, std::string(VelmorManager_WillRemoveSourceNotification),
                           [this](const VelmorNotification& n) {
                               if (auto source = std::dynamic_pointer_cast<VelmorRemoteSource>(n.object))
                                   removed(source);
                           });
        center.addObserver(this, std::string(VelmorManager_SourcePropertyChangedNotification),
                           [this](const VelmorNotification& n) {
                               const VelmorValue* value =
                                   n.userInfo ? n.userInfo->objectForKey(VelmorManager_SourceKey) : nullptr;
                               if (auto source = value ? value->objectAs<VelmorRemoteSource>() : nullptr)
                                   changed(source);
                           });
        // Outputs come and go as lines too (a synthesizer has no source); the list starts being kept now.
        for (const auto& output : manager_->remoteOutputs())
            outputNames_[output.get()] = output->name().value_or("");
        center.addObserver(this, std::string(VelmorManager_DidAddOutputNotification), [this](const VelmorNotification& n) {
            if (auto output = std::dynamic_pointer_cast<VelmorRemoteOutput>(n.object)) {
                outputNames_[output.get()] = output->name().value_or("");
                deviceLine("output", "added", *output, "");
            }
        });
        center.addObserver(this, std::string(VelmorManager_WillRemoveOutputNotification),
                           [this](const VelmorNotification& n) {
                               if (auto output = std::dynamic_pointer_cast<VelmorRemoteOutput>(n.object)) {
                                   outputNames_.erase(output.get());
                                   deviceLine("output", "removed", *output, "");
                               }
                           });
        center.addObserver(this, std::string(VelmorManager_OutputPropertyChangedNotification),
                           [this](const VelmorNotification& n) {
                               const VelmorValue* value =
                                   n.userInfo ? n.userInfo->objectForKey(VelmorManager_OutputKey) : nullptr;
                               auto output = value ? value->objectAs<VelmorRemoteOutput>() : nullptr;
                               auto found = output ? outputNames_.find(output.get()) : outputNames_.end();
                               if (found == outputNames_.end() || found->second == output->name().value_or(""))
                                   return;
                               const std::string old = found->second;
                               found->second = output->name().value_or("");
                               deviceLine("output", "renamed", *output, " (was \"" + old + "\")");
                           });
        if (io_.onMonitorLine)
            io_.onMonitorLine("");

        const auto start = std::chrono::steady_clock::now();
        auto done = [&] {
            if (io_.interrupted && io_.interrupted->load())
                return true;
            if (options_.count && events_ >= options_.count)
                return true;
            return options_.durationMs
                && std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(options_.durationMs);
        };
        while (!done())
            VelmorMainQueue::mainQueue().runUntil(done, std::chrono::milliseconds(100));

        center.removeObserver(this);
        manager_->flushManager();
        return 0;
    }

    void event(const std::shared_ptr<VelmorEvent>& event)
    {
        if (options_.count && events_ >= options_.count)
            return;
        ++events_;
        if (options_.json) {
            write(jsonFromDictionary(event->propertiesDictionary()).dump());
            return;
        }
        const auto& attributes = event->sourceAttributes();
        const std::string source = attributes ? attributes->name().value_or("") : "";
        std::string line = timeText(event->timeStamp()) + "  " + pad(source, 20) + "  ";
        if (options_.raw) {
            write(line + hexBytes(event->data().bytes(), event->data().length()));
            return;
        }
        std::string type = pad(typeName(*event), 16);
        if (options_.colour)
            type = std::string(colourOf(event->type())) + type + "\033[0m";
        line += type;
        line += event->type() == VelmorEventTypeSystem ? "      " : "ch " + pad(std::to_string(event->channel()), 3);
        write(line + detailText(*event));
    }

private:
    bool isWanted(const VelmorRemoteSource& source) const
    {
        if (options_.sources.empty())
            return true;
        for (const auto& attributes : wanted_)
            if (source.matchesAttributesOptions(attributes, VelmorAttributesOptionName | VelmorAttributesOptionManufacturer
                                                                | VelmorAttributesOptionModel | VelmorAttributesOptionIndex))
                return true;
        return false;
    }

    void watch(const std::shared_ptr<VelmorRemoteSource>& source)
    {
        if (watched_.count(source.get()))
            return;
        auto printer = std::make_shared<Printer>(this);
        source->addConsumer(printer);
        watched_[source.get()] = {printer, source->name().value_or("")};
    }

    void added(const std::shared_ptr<VelmorRemoteSource>& source)
    {
        // Watched before the line goes out, so that nothing sent after the line is missed.
        const bool wanted = isWanted(*source);
        if (wanted)
            watch(source);
        deviceLine("source", "added", *source, wanted ? "" : " (not watched)");
    }

    void removed(const std::shared_ptr<VelmorRemoteSource>& source)
    {
        deviceLine("source", "removed", *source, "");
        watched_.erase(source.get());
    }

    void changed(const std::shared_ptr<VelmorRemoteSource>& source)
    {
        auto found = watched_.find(source.get());
        const std::string name = source->name().value_or("");
        if (found == watched_.end() || found->second.name == name)
            return;
        const std::string old = found->second.name;
        found->second.name = name;
        deviceLine("source", "renamed", *source, " (was \"" + old + "\")");
    }

    void deviceLine(const char* kind, const char* what, const VelmorEndpoint& endpoint, const std::string& note)
    {
        auto attributes = endpoint.attributes();
        if (options_.json) {
            nlohmann::json line = {{"device", what}, {"kind", kind}};
            if (attributes)
                line["attributes"] = jsonFromDictionary(attributes->dictionaryRepresentation());
            write(line.dump());
            return;
        }
        const std::string address = serviceAddress(endpoint);
        std::string text = timeText(AudioGetCurrentHostTime()) + "  " + kind + " " + what + ": \""
            + endpoint.name().value_or("") + "\"";
        if (attributes && (attributes->manufacturer().value_or("") + attributes->model().value_or("")).size())
            text += " (" + attributes->descriptiveString() + ")";
        if (!address.empty())
            text += " " + address;
        text += note;
        write(options_.colour ? "\033[1m" + text + "\033[0m" : text);
    }

    std::string timeText(std::uint64_t timeStamp) const
    {
        if (timeStamp == 0)
            timeStamp = AudioGetCurrentHostTime();
        const std::int64_t nanos = timeStamp >= startHostTime_
            ? std::int64_t(AudioConvertHostTimeToNanos(timeStamp - startHostTime_))
            : -std::int64_t(AudioConvertHostTimeToNanos(startHostTime_ - timeStamp));
        char text[32];
        std::snprintf(text, sizeof text, "%10.3f", double(nanos) / 1e6);
        return text;
    }

    static std::string pad(std::string text, std::size_t width)
    {
        // Width in characters, not bytes: names may hold UTF-8.
        std::size_t characters = 0;
        for (unsigned char c : text)
            characters += (c & 0xC0) != 0x80;
        if (characters < width)
            text.append(width - characters, ' ');
        return text;
    }

    void write(const std::string& line)
    {
        io_.out << line << '\n' << std::flush;
        if (io_.onMonitorLine)
            io_.onMonitorLine(line);
    }

    struct Watched {
        std::shared_ptr<Printer> printer;
        std::string name;
    };
    const MonitorOptions& options_;
    VelmorToolIO& io_;
    const std::uint64_t startHostTime_;
    std::shared_ptr<VelmorManager> manager_;
    std::vector<std::shared_ptr<VelmorAttributes>> wanted_;
    std::map<const VelmorRemoteSource*, Watched> watched_;
    std::map<const VelmorRemoteOutput*, std::string> outputNames_;
    std::uint64_t events_ = 0;
};

void Printer::handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event)
{
    monitor_->event(event);
}

} // namespace

int runMonitor(const MonitorOptions& options, VelmorToolIO& io)
{
    Monitor monitor(options, io);
    return monitor.run();
}

} // namespace VelmorTool

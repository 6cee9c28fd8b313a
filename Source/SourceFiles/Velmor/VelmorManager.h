#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorEndpoint.h"
#include "VelmorLocalOutput.h"
#include "VelmorMIDIServices.h"
#include "VelmorNotificationCenter.h"
#include "VelmorOutput.h"
#include "VelmorRemoteOutput.h"
#include "VelmorRootObject.h"

class VelmorAttributes;
class VelmorClient;
class VelmorEvent;
class VelmorInputPort;
class VelmorRemoteSource;

// The application's delegate. Both operations are optional: a delegate says which it implements with
// the two responds... answers, which the manager asks once, at setDelegate(), and never on the event
// path.
class VelmorManagerDelegate {
public:
    virtual ~VelmorManagerDelegate() = default;
    virtual bool respondsToMidiSourceWillHandleEvent() const { return false; }
    virtual bool respondsToMidiSourceDidHandleEvent() const { return false; }
    virtual void midiSourceWillHandleEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                           const std::shared_ptr<VelmorEvent>& event)
    {
        (void)source;
        (void)event;
    }
    virtual void midiSourceDidHandleEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                          const std::shared_ptr<VelmorEvent>& event)
    {
        (void)source;
        (void)event;
    }
};

inline constexpr std::string_view VelmorManager_SourcesWillChangeNotification = "VelmorManager_SourcesWillChange";
inline constexpr std::string_view VelmorManager_SourcesDidChangeNotification = "VelmorManager_SourcesDidChange";
inline constexpr std::string_view VelmorManager_DidAddSourceNotification = "VelmorManager_DidAddSource";
inline constexpr std::string_view VelmorManager_WillRemoveSourceNotification = "VelmorManager_WillRemoveSource";
inline constexpr std::string_view VelmorManager_DidRemoveSourceNotification = "VelmorManager_DidRemoveSource";
inline constexpr std::string_view VelmorManager_OutputsWillChangeNotification = "VelmorManager_OutputsWillChange";
inline constexpr std::string_view VelmorManager_OutputsDidChangeNotification = "VelmorManager_OutputsDidChange";
inline constexpr std::string_view VelmorManager_DidAddOutputNotification = "VelmorManager_DidAddOutput";
inline constexpr std::string_view VelmorManager_WillRemoveOutputNotification = "VelmorManager_WillRemoveOutput";
inline constexpr std::string_view VelmorManager_DidRemoveOutputNotification = "VelmorManager_DidRemoveOutput";
inline constexpr std::string_view VelmorManager_OutputPropertyChangedNotification =
    "VelmorManager_OutputPropertyChanged";
inline constexpr std::string_view VelmorManager_SourcePropertyChangedNotification =
    "VelmorManager_SourcePropertyChanged";
inline constexpr std::string_view VelmorManager_OutputKey = "VelmorManager_Output";
inline constexpr std::string_view VelmorManager_SourceKey = "VelmorManager_Source";

// An extension of our own: input of a source was lost before it reached its consumers, because more
// waited for the main thread than the bound allows (setMaximumPendingInputEvents / Bytes) or because
// the MIDI service itself lost it (a sequencer overrun, a full buffer). Posted on the main thread ahead
// of the waiting events, at most once per source per pass of the main queue; drops after that are
// added up into the next. The object is the manager; the user information holds VelmorManager_SourceKey
// (the source, when it is known) and VelmorManager_DroppedEventCountKey (an unsigned number of events,
// 0 when the service cannot tell how many).
inline constexpr std::string_view VelmorManager_SourceDidDropEventsNotification = "VelmorManager_SourceDidDropEvents";
inline constexpr std::string_view VelmorManager_DroppedEventCountKey = "VelmorManager_DroppedEventCount";

// The one object through which an application uses the framework. Made once per process by
// sharedManager(); lives until the process ends.
class VelmorManager : public VelmorRootObject {
public:
    struct DelegateFlags {
        std::uint32_t midiSourceWillHandleEvent : 1;
        std::uint32_t midiSourceDidHandleEvent : 1;
        std::uint32_t unused : 30;
    };

    // The one manager, or null if its construction failed (then for the life of the process).
    static std::shared_ptr<VelmorManager> sharedManager();
    // A new manager: client, input port, output port, observers. sharedManager() is the way in; a second
    // manager would compete with the first for the platform's messages.
    static std::shared_ptr<VelmorManager> init();

    // Class-level strings. A null or empty argument is ignored. The three names reach the platform only
    // if set before the first sharedManager().
    static void setClientName(const std::optional<std::string>& name);
    static void setInputPortName(const std::optional<std::string>& name);
    static void setOutputPortName(const std::optional<std::string>& name);
    static void setLocalOutputManufacturer(const std::optional<std::string>& manufacturer);
    static void setLocalOutputModel(const std::optional<std::string>& model);
    // An extension: the bound on incoming MIDI that waits for the main thread, over all sources, in
    // events and in bytes of MIDI data (defaults 8192 and 1 MiB, a few MB of memory in all). Input
    // beyond it is dropped and reported by VelmorManager_SourceDidDropEventsNotification. A single list
    // larger than the bound still gets through when nothing else waits. Any thread, at any time.
    static std::uint64_t maximumPendingInputEvents();
    static void setMaximumPendingInputEvents(std::uint64_t events);
    static std::uint64_t maximumPendingInputBytes();
    static void setMaximumPendingInputBytes(std::uint64_t bytes);

    ~VelmorManager() override;
    const char* className() const override { return "VelmorManager"; }
    std::string description() const override;

    // The current class-level strings, read at each call.
    std::string clientName() const;
    std::string localOutputManufacturer() const;
    std::string localOutputModel() const;

    // Names of MIDI numbers; they need no manager. A controller without a name gives null, or
    // "Custom Controller #n" when custom names are allowed.
    static std::optional<std::string> controllerNameAllowCustom(std::uint64_t controller, bool allowCustom);
    // "C5" for 60 at offset 0; the sharp sign is U+266F.
    static std::string noteName(std::uint64_t note);
    static std::int64_t noteNameOctaveOffset();
    // Only -2, -1 and 0 are taken; anything else is ignored.
    static void setNoteNameOctaveOffset(std::int64_t offset);

    // Around each delivery of an event to the consumers of a source.
    void midiSourceWillSendEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                 const std::shared_ptr<VelmorEvent>& event);
    void midiSourceDidSendEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                const std::shared_ptr<VelmorEvent>& event);

    // Not owned: clear it before the delegate goes away.
    std::shared_ptr<VelmorManagerDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(const std::shared_ptr<VelmorManagerDelegate>& delegate);
    DelegateFlags delegateFlags() const { return delegateFlags_; }

    // Plain fields.
    VelmorPlatform::MIDIPortRef outputPort() const { return outputPort_; }
    void setOutputPort(VelmorPlatform::MIDIPortRef port) { outputPort_ = port; }
    std::shared_ptr<VelmorClient> client() const { return client_; }
    void setClient(std::shared_ptr<VelmorClient> client) { client_ = std::move(client); }
    std::shared_ptr<VelmorInputPort> inputPort() const { return inputPort_; }
    void setInputPort(std::shared_ptr<VelmorInputPort> port) { inputPort_ = std::move(port); }

    // --- Source discovery -------------------------------------------------------------------------
    // Main thread only.

    // A snapshot of the sources. The first call builds the list, without notifications; until then the
    // manager knows no source and ignores the platform's messages about sources.
    std::vector<std::shared_ptr<VelmorRemoteSource>> sources();
    // The first source that the attributes name: an equal identifier wins at once; otherwise name,
    // manufacturer and model must agree where the attributes have them, and the index too (0 and 1
    // alike). Null when nothing matches or before the first sources().
    std::shared_ptr<VelmorRemoteSource> sourceWithAttributes(const std::shared_ptr<VelmorAttributes>& attributes) const;
    // One discovery pass over the platform's sources. True when the list changed.
    bool findSourcesWithNotifications(bool postNotifications);
    // The listed sources whose name, manufacturer and model equal the source's, in list order.
    std::vector<std::shared_ptr<VelmorRemoteSource>> sourcesIdenticalToSource(
        const std::shared_ptr<VelmorRemoteSource>& source) const;
    // Numbers a group: 0 for a lone source, else 1, 2, ... in array order.
    void adjustIndiciesOfSources(const std::vector<std::shared_ptr<VelmorRemoteSource>>& sources);
    // Observer of the client's added and removed notifications: runs the pass of the child's type.
    void objectAddedRemoved(const VelmorNotification& notification);
    // Observer of the endpoints' property notifications: passes a change of a listed endpoint on.
    void endpointPropertyChanged(const VelmorNotification& notification);

    // Null until the first sources().
    const std::optional<std::vector<std::shared_ptr<VelmorRemoteSource>>>& mutableSources() const
    {
        return mutableSources_;
    }
    void setMutableSources(std::optional<std::vector<std::shared_ptr<VelmorRemoteSource>>> sources)
    {
        mutableSources_ = std::move(sources);
    }

    // --- Output discovery -------------------------------------------------------------------------
    // Main thread only. Outputs are of two kinds: virtual outputs of this process (local), which other
    // programs see as sources, and the system's destinations (remote).

    // A snapshot of the open virtual outputs, in the order of opening.
    std::vector<std::shared_ptr<VelmorLocalOutput>> localOutputs() const;
    // A snapshot of the destinations. The first call builds the list, without notifications; until
    // then the manager ignores the platform's messages about destinations.
    std::vector<std::shared_ptr<VelmorRemoteOutput>> remoteOutputs();
    // The output that the attributes name: a virtual output first; attributes with an identifier name
    // only virtual outputs. Otherwise a destination, whose list this builds on first use, with
    // notifications.
    std::shared_ptr<VelmorOutput> outputWithAttributes(const std::shared_ptr<VelmorAttributes>& attributes);
    // The search over one list, in list order:
    // - attributes with an identifier take only the output with an equal identifier;
    // - attributes whose manufacturer is localOutputManufacturer() (default attributes) take only an
    //   output that has an identifier and an equal name;
    // - any other attributes pass over an output whose manufacturer or model differs where the
    //   attributes have one; an equal unique ID then decides at once; else the name must agree where
    //   the attributes have one, and the first such output wins.
    // A null on the output's side counts as different. Elements that are not endpoints are passed over.
    template <class Output>
    std::shared_ptr<Output> outputInArrayWithAttributes(const std::vector<std::shared_ptr<Output>>& array,
                                                        const std::shared_ptr<VelmorAttributes>& attributes) const
    {
        const std::size_t position = positionOfOutputWithAttributes(
            array.size(),
            [&array](std::size_t i) { return dynamic_cast<const VelmorEndpoint*>(array[i].get()); },
            attributes);
        return position < array.size() ? array[position] : nullptr;
    }
    // Opens a virtual output with the manager's client and adds it to the list; posts nothing. Opening
    // the same attributes twice opens two outputs. Null, with the output's own line, on failure.
    std::shared_ptr<VelmorLocalOutput> openVirtualOutputWithAttributes(const std::shared_ptr<VelmorAttributes>& attributes);
    // Finds the output by the attributes and writes their name, model and manufacturer to it (a virtual
    // output takes them only if it has an identifier). Null when nothing is found.
    std::shared_ptr<VelmorOutput> updateVirtualOutputWithAttributes(const std::shared_ptr<VelmorAttributes>& attributes);
    // Closes a listed virtual output, takes it out of the list and posts OutputsDidChange. Anything else
    // is left alone, silently.
    void closeVirtualOutput(const std::shared_ptr<VelmorOutput>& output);
    // Closes every virtual output (each posting OutputsDidChange), drops the destinations and the
    // sources (each source tells its consumers) silently. The manager stays usable: the next
    // sources(), remoteOutputs() or outputWithAttributes() starts afresh with new objects.
    void flushManager();
    // One discovery pass over the platform's destinations. True when the list changed.
    bool findRemoteOutputsWithNotifications(bool postNotifications);

    const std::vector<std::shared_ptr<VelmorLocalOutput>>& mutableLocalOutputs() const { return mutableLocalOutputs_; }
    void setMutableLocalOutputs(std::vector<std::shared_ptr<VelmorLocalOutput>> outputs)
    {
        mutableLocalOutputs_ = std::move(outputs);
    }
    // Null until first needed, and again after flushManager().
    const std::optional<std::vector<std::shared_ptr<VelmorRemoteOutput>>>& mutableRemoteOutputs() const
    {
        return mutableRemoteOutputs_;
    }
    void setMutableRemoteOutputs(std::optional<std::vector<std::shared_ptr<VelmorRemoteOutput>>> outputs)
    {
        mutableRemoteOutputs_ = std::move(outputs);
    }

protected:
    VelmorManager() = default;
    bool construct();

private:
    // Where the output search stops in a list of `count` outputs (`count` when it finds none).
    std::size_t positionOfOutputWithAttributes(std::size_t count,
                                               const std::function<const VelmorEndpoint*(std::size_t)>& endpointAt,
                                               const std::shared_ptr<VelmorAttributes>& attributes) const;

private:
    DelegateFlags delegateFlags_ {0, 0, 0};
    VelmorPlatform::MIDIPortRef outputPort_ = 0;
    std::weak_ptr<VelmorManagerDelegate> delegate_;
    std::shared_ptr<VelmorClient> client_;
    std::vector<std::shared_ptr<VelmorLocalOutput>> mutableLocalOutputs_;
    std::optional<std::vector<std::shared_ptr<VelmorRemoteSource>>> mutableSources_;
    std::optional<std::vector<std::shared_ptr<VelmorRemoteOutput>>> mutableRemoteOutputs_;
    std::shared_ptr<VelmorInputPort> inputPort_;
};

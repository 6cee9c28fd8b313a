#include "VelmorManager.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>

#include "VelmorAttributes.h"
#include "VelmorClient.h"
#include "VelmorEndpoint.h"
#include "VelmorFailure.h"
#include "VelmorInputPort.h"
#include "VelmorLocalOutput.h"
#include "VelmorOnce.h"
#include "VelmorRemoteOutput.h"
#include "VelmorRemoteSource.h"

namespace {

// The five class-level strings. They outlive every manager. A writer takes the mutex and moves the
// version on; a reader keeps a copy per thread and takes the mutex only when the version has moved,
// because default attributes read three of them for every decoded event.
struct ClassStrings {
    std::string clientName = "Velmor Client";
    std::string inputPortName = "Velmor Input";
    std::string outputPortName = "Velmor Output";
    std::string localOutputManufacturer = "Brightmarrow";
    std::string localOutputModel = "Velmor";
};

// Never destroyed, like the manager: default attributes read them until the process is gone. Made on
// first use, so that a global constructor of the application may already set them.
std::mutex& classStringsMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}
ClassStrings& classStrings()  // guarded by classStringsMutex()
{
    static auto* strings = new ClassStrings;
    return *strings;
}
std::atomic<std::uint64_t> sClassStringsVersion {1};

void setClassString(std::string ClassStrings::*field, const std::optional<std::string>& value)
{
    if (!value || value->empty())
        return;
    std::lock_guard<std::mutex> lock(classStringsMutex());
    classStrings().*field = *value;
    sClassStringsVersion.fetch_add(1, std::memory_order_release);
}

std::string classString(std::string ClassStrings::*field)
{
    thread_local ClassStrings copy;
    thread_local std::uint64_t copyVersion = 0;
    if (sClassStringsVersion.load(std::memory_order_acquire) != copyVersion) {
        std::lock_guard<std::mutex> lock(classStringsMutex());
        copy = classStrings();
        copyVersion = sClassStringsVersion.load(std::memory_order_relaxed);
    }
    return copy.*field;
}

VelmorOnceToken sSharedVelmorManagerOnce;
// The manager lives until the process ends, and is never destroyed by static destruction: globals of the
// application that hold framework objects may go before or after it, and service threads may still
// call in.
std::shared_ptr<VelmorManager>& sharedManagerSlot()
{
    static auto* slot = new std::shared_ptr<VelmorManager>;
    return *slot;
}

bool sameObject(const std::shared_ptr<VelmorRemoteSource>& a, const std::shared_ptr<VelmorRemoteSource>& b)
{
    return a.get() == b.get();
}

bool equalStrings(const std::optional<std::string>& a, const std::optional<std::string>& b)
{
    return a && b && *a == *b;
}

} // namespace

// --- Lifecycle ------------------------------------------------------------------------------------

std::shared_ptr<VelmorManager> VelmorManager::sharedManager()
{
    // Spent even when init() fails: a failed start is not tried again.
    VelmorOnce(sSharedVelmorManagerOnce, [] { sharedManagerSlot() = VelmorManager::init(); });
    return sharedManagerSlot();
}

std::shared_ptr<VelmorManager> VelmorManager::init()
{
    std::shared_ptr<VelmorManager> manager(new VelmorManager());
    if (!manager->construct())
        return nullptr;
    return manager;
}

bool VelmorManager::construct()
{
    auto client = VelmorClient::initWithName(classString(&ClassStrings::clientName));
    if (!client) {
        VELMOR_FAILED("client != nil");
        return false;
    }
    auto port = VelmorInputPort::initWithClientNameReadProc(client, classString(&ClassStrings::inputPortName), nullptr);
    if (!port) {
        VELMOR_FAILED("inputPort != nil");
        return false;  // the client goes with this scope, which disposes of the platform client
    }
    VelmorPlatform::MIDIPortRef output = 0;
    // The status is not examined: without an output port the manager runs, and each remote output
    // fails on its own.
    VelmorPlatform::MIDIOutputPortCreate(client->client(), classString(&ClassStrings::outputPortName), &output);
    outputPort_ = output;
    client_ = std::move(client);
    inputPort_ = std::move(port);

    auto self = std::static_pointer_cast<VelmorManager>(shared_from_this());
    auto& center = VelmorNotificationCenter::defaultCenter();
    center.addObserver(self, &VelmorManager::objectAddedRemoved, VelmorClient_ObjectAddedNotification);
    center.addObserver(self, &VelmorManager::objectAddedRemoved, VelmorClient_ObjectRemovedNotification);
    center.addObserver(self, &VelmorManager::endpointPropertyChanged, VelmorEndpointPropertyChangedNotification);
    center.addObserver(self, &VelmorManager::endpointPropertyChanged, VelmorRemoteSourcePropertyChangedNotification);
    center.addObserver(self, &VelmorManager::endpointPropertyChanged, VelmorLocalOutputPropertyChangedNotification);
    // setDelegate() refreshes delegateFlags_ from here on; both start cleared.
    delegate_.reset();
    delegateFlags_ = DelegateFlags {0, 0, 0};
    return true;
}

VelmorManager::~VelmorManager()
{
    VelmorNotificationCenter::defaultCenter().removeObserver(this);
    // The input port before the client, whose teardown disposes of the platform client; the output
    // lists go between the port and the sources.
    inputPort_.reset();
    mutableRemoteOutputs_.reset();
    mutableSources_.reset();
    mutableLocalOutputs_.clear();
    client_.reset();
}

std::string VelmorManager::description() const
{
    return "VelmorManager: " + rootDescription();
}

// --- Class-level strings --------------------------------------------------------------------------

void VelmorManager::setClientName(const std::optional<std::string>& name)
{
    setClassString(&ClassStrings::clientName, name);
}

void VelmorManager::setInputPortName(const std::optional<std::string>& name)
{
    setClassString(&ClassStrings::inputPortName, name);
}

void VelmorManager::setOutputPortName(const std::optional<std::string>& name)
{
    setClassString(&ClassStrings::outputPortName, name);
}

void VelmorManager::setLocalOutputManufacturer(const std::optional<std::string>& manufacturer)
{
    setClassString(&ClassStrings::localOutputManufacturer, manufacturer);
}

void VelmorManager::setLocalOutputModel(const std::optional<std::string>& model)
{
    setClassString(&ClassStrings::localOutputModel, model);
}

std::string VelmorManager::clientName() const
{
    return classString(&ClassStrings::clientName);
}

std::string VelmorManager::localOutputManufacturer() const
{
    return classString(&ClassStrings::localOutputManufacturer);
}

std::string VelmorManager::localOutputModel() const
{
    return classString(&ClassStrings::localOutputModel);
}

// --- Delegate -------------------------------------------------------------------------------------

void VelmorManager::setDelegate(const std::shared_ptr<VelmorManagerDelegate>& delegate)
{
    delegate_ = delegate;
    // Asked once here; the event path only tests the bits.
    delegateFlags_.midiSourceWillHandleEvent = delegate && delegate->respondsToMidiSourceWillHandleEvent() ? 1 : 0;
    delegateFlags_.midiSourceDidHandleEvent = delegate && delegate->respondsToMidiSourceDidHandleEvent() ? 1 : 0;
}

void VelmorManager::midiSourceWillSendEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                            const std::shared_ptr<VelmorEvent>& event)
{
    if (!delegateFlags_.midiSourceWillHandleEvent)
        return;
    if (auto delegate = delegate_.lock())
        delegate->midiSourceWillHandleEvent(source, event);
}

void VelmorManager::midiSourceDidSendEvent(const std::shared_ptr<VelmorRemoteSource>& source,
                                           const std::shared_ptr<VelmorEvent>& event)
{
    if (!delegateFlags_.midiSourceDidHandleEvent)
        return;
    if (auto delegate = delegate_.lock())
        delegate->midiSourceDidHandleEvent(source, event);
}

// --- Names of MIDI numbers ---------------------------------------------------------------------

namespace {

constexpr std::array<const char*, 128> kControllerNames = [] {
    std::array<const char*, 128> names {};
    names[0] = "Bank Select (Coarse)";
    names[1] = "Modulation Wheel (Coarse)";
    names[2] = "Breath Controller (Coarse)";
    names[4] = "Foot Pedal (Coarse)";
    names[5] = "Portamento Time (Coarse)";
    names[6] = "Data Entry (Coarse)";
    names[7] = "Volume (Coarse)";
    names[8] = "Balance (Coarse)";
    names[10] = "Pan Position (Coarse)";
    names[11] = "Expression (Coarse)";
    names[12] = "Effect Control 1 (Coarse)";
    names[13] = "Effect Control 2 (Coarse)";
    names[16] = "General Purpose Slider 1";
    names[17] = "General Purpose Slider 2";
    names[18] = "General Purpose Slider 3";
    names[19] = "General Purpose Slider 4";
    names[32] = "Bank Select (Fine)";
    names[33] = "Modulation Wheel (Fine)";
    names[34] = "Breath Controller (Fine)";
    names[36] = "Foot Pedal (Fine)";
    names[37] = "Portamento Time (Fine)";
    names[38] = "Data Entry (Fine)";
    names[39] = "Volume (Fine)";
    names[40] = "Balance (Fine)";
    names[42] = "Pan Position (Fine)";
    names[43] = "Expression (Fine)";
    names[44] = "Effect Control 1 (Fine)";
    names[45] = "Effect Control 2 (Fine)";
    names[64] = "Hold Pedal";
    names[65] = "Portamento";
    names[66] = "Sustenuto Pedal";
    names[67] = "Soft Pedal";
    names[68] = "Legato Pedal";
    names[69] = "Hold 2 Pedal";
    names[70] = "Sound Variation";
    names[71] = "Sound Timbre";
    names[72] = "Sound Release Time";
    names[73] = "Sound Attack Time";
    names[74] = "Sound Brightness";
    names[75] = "Sound Control 6";
    names[76] = "Sound Control 7";
    names[77] = "Sound Control 8";
    names[78] = "Sound Control 9";
    names[79] = "Sound Control 10";
    names[80] = "General Purpose Button 1";
    names[81] = "General Purpose Button 2";
    names[82] = "General Purpose Button 3";
    names[83] = "General Purpose Button 4";
    names[91] = "Effects Level";
    names[92] = "Tremulo Level";
    names[93] = "Chorus Level";
    names[94] = "Celeste Level";
    names[95] = "Phaser Level";
    names[96] = "Data Button Increment";
    names[97] = "Data Button Decrement";
    names[98] = "Non-registered Parameter (Fine)";
    names[99] = "Non-registered Parameter (Coarse)";
    names[100] = "Registered Parameter (Fine)";
    names[101] = "Registered Parameter (Coarse)";
    names[120] = "All Sound Off";
    names[121] = "All Controllers Off";
    names[122] = "Local Keyboard";
    names[123] = "All Notes Off";
    names[124] = "Omni Mode Off";
    names[125] = "Omni Mode On";
    names[126] = "Mono Operation";
    names[127] = "Poly Operation";
    return names;
}();

constexpr std::array<const char*, 12> VelmorManager_NoteName = {
    "C", "C\u266F", "D", "D\u266F", "E", "F", "F\u266F", "G", "G\u266F", "A", "A\u266F", "B"};

// Read and written by the caller's thread; atomic so that a stray write from another thread is no race.
std::atomic<std::int64_t> VelmorManager_NoteNameOctaveOffset {0};

} // namespace

std::optional<std::string> VelmorManager::controllerNameAllowCustom(std::uint64_t controller, bool allowCustom)
{
    if (controller < kControllerNames.size() && kControllerNames[controller])
        return std::string(kControllerNames[controller]);
    if (!allowCustom)
        return std::nullopt;
    return "Custom Controller #" + std::to_string(static_cast<long>(controller));
}

std::string VelmorManager::noteName(std::uint64_t note)
{
    const auto octave = static_cast<std::int64_t>(note / 12) + VelmorManager_NoteNameOctaveOffset.load();
    return std::string(VelmorManager_NoteName[note % 12]) + std::to_string(octave);
}

std::int64_t VelmorManager::noteNameOctaveOffset()
{
    return VelmorManager_NoteNameOctaveOffset.load();
}

void VelmorManager::setNoteNameOctaveOffset(std::int64_t offset)
{
    if (offset >= -2 && offset <= 0)
        VelmorManager_NoteNameOctaveOffset.store(offset);
}

// --- Source discovery -----------------------------------------------------------------------------

std::vector<std::shared_ptr<VelmorRemoteSource>> VelmorManager::sources()
{
    if (!mutableSources_) {
        mutableSources_.emplace();
        findSourcesWithNotifications(false);
    }
    return *mutableSources_;
}

bool VelmorManager::findSourcesWithNotifications(bool postNotifications)
{
    if (!mutableSources_)
        return false;
    std::vector<std::shared_ptr<VelmorRemoteSource>> added;
    std::vector<std::shared_ptr<VelmorRemoteSource>> gone = *mutableSources_;

    const VelmorPlatform::ItemCount count = VelmorPlatform::MIDIGetNumberOfSources();
    for (VelmorPlatform::ItemCount position = count; position-- > 0;) {
        const VelmorPlatform::MIDIEndpointRef endpoint = VelmorPlatform::MIDIGetSource(position);
        const auto& list = *mutableSources_;
        auto found = std::find_if(list.begin(), list.end(), [endpoint](const std::shared_ptr<VelmorRemoteSource>& source) {
            return source->object() == endpoint;
        });
        if (found != list.end()) {
            auto inGone = std::find_if(gone.begin(), gone.end(),
                                       [&](const std::shared_ptr<VelmorRemoteSource>& source) { return sameObject(source, *found); });
            if (inGone != gone.end())
                gone.erase(inGone);
            continue;
        }
        // A list that changes between the count and the item calls can name one endpoint twice; two
        // objects of one endpoint would share, then lose, its one connection.
        if (std::any_of(added.begin(), added.end(),
                        [endpoint](const std::shared_ptr<VelmorRemoteSource>& source) { return source->object() == endpoint; }))
            continue;
        // A source that can't be made now is tried again at the next pass.
        if (auto source = VelmorRemoteSource::initWithEndpointRefRequestedUniqueID(endpoint, std::nullopt))
            added.push_back(std::move(source));
    }
    if (added.empty() && gone.empty())
        return false;

    auto self = shared_from_this();
    auto& center = VelmorNotificationCenter::defaultCenter();
    if (postNotifications)
        center.postNotificationName(VelmorManager_SourcesWillChangeNotification, self);
    for (const auto& source : added) {
        // An observer that serves the main queue can run a pass of its own inside this one.
        if (mutableSources_ && std::any_of(mutableSources_->begin(), mutableSources_->end(),
                                           [&](const std::shared_ptr<VelmorRemoteSource>& member) {
                                               return member->object() == source->object();
                                           }))
            continue;
        if (mutableSources_)
            mutableSources_->push_back(source);
        adjustIndiciesOfSources(sourcesIdenticalToSource(source));
        if (postNotifications)
            center.postNotificationName(VelmorManager_DidAddSourceNotification, source);
    }
    for (const auto& source : gone) {
        if (mutableSources_ && std::none_of(mutableSources_->begin(), mutableSources_->end(),
                                            [&](const std::shared_ptr<VelmorRemoteSource>& member) {
                                                return sameObject(member, source);
                                            }))
            continue;  // a nested pass removed it already
        if (postNotifications)
            center.postNotificationName(VelmorManager_WillRemoveSourceNotification, source);
        source->willBeRemoved();
        if (mutableSources_) {
            std::erase_if(*mutableSources_,
                          [&](const std::shared_ptr<VelmorRemoteSource>& member) { return sameObject(member, source); });
        }
        adjustIndiciesOfSources(sourcesIdenticalToSource(source));
        if (postNotifications)
            center.postNotificationName(VelmorManager_DidRemoveSourceNotification, source);
    }
    if (postNotifications)
        center.postNotificationName(VelmorManager_SourcesDidChangeNotification, self);
    return true;
}

std::vector<std::shared_ptr<VelmorRemoteSource>> VelmorManager::sourcesIdenticalToSource(
    const std::shared_ptr<VelmorRemoteSource>& source) const
{
    std::vector<std::shared_ptr<VelmorRemoteSource>> group;
    if (!source || !mutableSources_)
        return group;
    const auto name = source->name();
    const auto manufacturer = source->manufacturer();
    const auto model = source->model();
    for (const auto& member : *mutableSources_) {
        if (equalStrings(member->name(), name) && equalStrings(member->manufacturer(), manufacturer) &&
            equalStrings(member->model(), model))
            group.push_back(member);
    }
    return group;
}

void VelmorManager::adjustIndiciesOfSources(const std::vector<std::shared_ptr<VelmorRemoteSource>>& sources)
{
    std::uint64_t index = sources.size() == 1 ? 0 : 1;
    for (const auto& source : sources) {
        if (source)
            source->setIndex(index);
        ++index;
    }
}

std::shared_ptr<VelmorRemoteSource> VelmorManager::sourceWithAttributes(
    const std::shared_ptr<VelmorAttributes>& attributes) const
{
    if (!attributes || !mutableSources_)
        return nullptr;
    const auto identifier = attributes->identifier();
    const auto name = attributes->name();
    const auto model = attributes->model();
    const auto manufacturer = attributes->manufacturer();
    const std::uint64_t index = attributes->index();

    // A null attribute is a wildcard; an identifier that matches nothing leaves the others to decide.
    auto differs = [](const std::optional<std::string>& wanted, const std::optional<std::string>& actual) {
        return wanted && (!actual || *wanted != *actual);
    };
    std::shared_ptr<VelmorRemoteSource> firstCandidate;
    for (const auto& source : *mutableSources_) {
        if (identifier) {
            const auto sourceIdentifier = source->identifier();
            if (sourceIdentifier && *sourceIdentifier == *identifier)
                return source;
        }
        if (differs(name, source->name()) || differs(manufacturer, source->manufacturer()) ||
            differs(model, source->model()))
            continue;
        const std::uint64_t sourceIndex = source->index();
        if (sourceIndex != index && (sourceIndex > 1 || index > 1))
            continue;
        if (!firstCandidate)
            firstCandidate = source;
    }
    return firstCandidate;
}

void VelmorManager::objectAddedRemoved(const VelmorNotification& notification)
{
    std::int32_t childType = 0;
    if (notification.userInfo) {
        if (const VelmorValue* value = notification.userInfo->objectForKey(VelmorChildTypeKey))
            childType = static_cast<std::int32_t>(value->int64Value().value_or(0));
    }
    childType &= ~VelmorPlatform::kMIDIObjectType_ExternalMask;
    if (childType == VelmorPlatform::kMIDIObjectType_Source)
        findSourcesWithNotifications(true);
    else if (childType == VelmorPlatform::kMIDIObjectType_Destination)
        findRemoteOutputsWithNotifications(true);
}

void VelmorManager::endpointPropertyChanged(const VelmorNotification& notification)
{
    const VelmorRootObject* object = notification.object.get();
    if (!object)
        return;
    // Three independent tests: an object in more than one list is reported for each.
    const auto postOutputChanged = [&] {
        VelmorDictionary userInfo;
        userInfo.setObjectForKey(VelmorValue(notification.object), VelmorManager_OutputKey);
        VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorManager_OutputPropertyChangedNotification,
                                                                       shared_from_this(), std::move(userInfo));
    };
    if (std::any_of(mutableLocalOutputs_.begin(), mutableLocalOutputs_.end(),
                    [object](const std::shared_ptr<VelmorLocalOutput>& output) {
                        return static_cast<const VelmorRootObject*>(output.get()) == object;
                    }))
        postOutputChanged();
    if (mutableRemoteOutputs_ && std::any_of(mutableRemoteOutputs_->begin(), mutableRemoteOutputs_->end(),
                                             [object](const std::shared_ptr<VelmorRemoteOutput>& output) {
                                                 return static_cast<const VelmorRootObject*>(output.get()) == object;
                                             }))
        postOutputChanged();
    if (mutableSources_) {
        const bool listed = std::any_of(mutableSources_->begin(), mutableSources_->end(),
                                        [object](const std::shared_ptr<VelmorRemoteSource>& source) {
                                            return static_cast<const VelmorRootObject*>(source.get()) == object;
                                        });
        if (listed) {
            VelmorDictionary userInfo;
            userInfo.setObjectForKey(VelmorValue(notification.object), VelmorManager_SourceKey);
            VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorManager_SourcePropertyChangedNotification,
                                                                           shared_from_this(), std::move(userInfo));
        }
    }
}

// --- Output discovery -----------------------------------------------------------------------------

std::vector<std::shared_ptr<VelmorLocalOutput>> VelmorManager::localOutputs() const
{
    return mutableLocalOutputs_;
}

std::vector<std::shared_ptr<VelmorRemoteOutput>> VelmorManager::remoteOutputs()
{
    if (!mutableRemoteOutputs_) {
        mutableRemoteOutputs_.emplace();
        findRemoteOutputsWithNotifications(false);
    }
    return *mutableRemoteOutputs_;
}

std::shared_ptr<VelmorOutput> VelmorManager::outputWithAttributes(const std::shared_ptr<VelmorAttributes>& attributes)
{
    if (auto local = outputInArrayWithAttributes(mutableLocalOutputs_, attributes))
        return local;
    // An identifier names a virtual output of this process; destinations are not searched for it.
    if (attributes && attributes->identifier())
        return nullptr;
    if (!mutableRemoteOutputs_) {
        // Unlike the first remoteOutputs(), this first build tells its observers.
        mutableRemoteOutputs_.emplace();
        findRemoteOutputsWithNotifications(true);
    }
    if (!mutableRemoteOutputs_)
        return nullptr;  // an observer of that pass flushed the manager
    return outputInArrayWithAttributes(*mutableRemoteOutputs_, attributes);
}

std::size_t VelmorManager::positionOfOutputWithAttributes(
    std::size_t count, const std::function<const VelmorEndpoint*(std::size_t)>& endpointAt,
    const std::shared_ptr<VelmorAttributes>& attributes) const
{
    if (!attributes)
        return count;
    const std::string localManufacturer = localOutputManufacturer();
    const auto identifier = attributes->identifier();
    const auto name = attributes->name();
    const auto model = attributes->model();
    const auto manufacturer = attributes->manufacturer();
    const auto uniqueID = attributes->uniqueID();
    const bool defaultAttributes = manufacturer && *manufacturer == localManufacturer;

    // A null attribute is a wildcard; a null on the output's side never equals anything.
    auto differs = [](const std::optional<std::string>& wanted, const std::optional<std::string>& actual) {
        return wanted && (!actual || *wanted != *actual);
    };
    std::size_t firstCandidate = count;
    for (std::size_t position = 0; position < count; ++position) {
        const VelmorEndpoint* output = endpointAt(position);
        if (!output)
            continue;
        if (identifier) {
            if (equalStrings(output->identifier(), identifier))
                return position;
            continue;
        }
        if (defaultAttributes) {
            const auto outputIdentifier = output->identifier();
            if (outputIdentifier && !outputIdentifier->empty() && equalStrings(output->name(), name))
                return position;
            continue;
        }
        if (differs(manufacturer, output->manufacturer()) || differs(model, output->model()))
            continue;
        // An equal unique ID ends the walk; a different one excludes nothing.
        if (uniqueID && output->uniqueID() == *uniqueID)
            return position;
        if (differs(name, output->name()))
            continue;
        if (firstCandidate == count)
            firstCandidate = position;
    }
    return firstCandidate;
}

std::shared_ptr<VelmorLocalOutput> VelmorManager::openVirtualOutputWithAttributes(
    const std::shared_ptr<VelmorAttributes>& attributes)
{
    if (!attributes)
        return nullptr;
    auto output = VelmorLocalOutput::initWithClientAttributes(client_, attributes);
    if (!output)
        return nullptr;
    mutableLocalOutputs_.push_back(output);
    return output;
}

std::shared_ptr<VelmorOutput> VelmorManager::updateVirtualOutputWithAttributes(
    const std::shared_ptr<VelmorAttributes>& attributes)
{
    if (!attributes)
        return nullptr;
    auto output = outputWithAttributes(attributes);
    if (!output)
        return nullptr;
    // Identifier and unique ID are what find an output again: they are not rewritten.
    if (auto* endpoint = dynamic_cast<VelmorEndpoint*>(output.get())) {
        endpoint->setName(attributes->name());
        endpoint->setModel(attributes->model());
        endpoint->setManufacturer(attributes->manufacturer());
    }
    return output;
}

void VelmorManager::closeVirtualOutput(const std::shared_ptr<VelmorOutput>& output)
{
    auto local = std::dynamic_pointer_cast<VelmorLocalOutput>(output);
    if (!local)
        return;
    const auto listed = std::find(mutableLocalOutputs_.begin(), mutableLocalOutputs_.end(), local);
    if (listed == mutableLocalOutputs_.end())
        return;
    local->closeObject();
    std::erase(mutableLocalOutputs_, local);
    VelmorNotificationCenter::defaultCenter().postNotificationName(VelmorManager_OutputsDidChangeNotification,
                                                                   shared_from_this());
}

bool VelmorManager::findRemoteOutputsWithNotifications(bool postNotifications)
{
    if (!mutableRemoteOutputs_)
        return false;
    std::vector<std::shared_ptr<VelmorRemoteOutput>> added;
    std::vector<std::shared_ptr<VelmorRemoteOutput>> gone = *mutableRemoteOutputs_;

    const VelmorPlatform::ItemCount count = VelmorPlatform::MIDIGetNumberOfDestinations();
    for (VelmorPlatform::ItemCount position = count; position-- > 0;) {
        const VelmorPlatform::MIDIEndpointRef endpoint = VelmorPlatform::MIDIGetDestination(position);
        const auto& list = *mutableRemoteOutputs_;
        const auto found = std::find_if(list.begin(), list.end(), [endpoint](const std::shared_ptr<VelmorRemoteOutput>& output) {
            return output->object() == endpoint;
        });
        if (found != list.end()) {
            if (const auto inGone = std::find(gone.begin(), gone.end(), *found); inGone != gone.end())
                gone.erase(inGone);
            continue;
        }
        if (std::any_of(added.begin(), added.end(),
                        [endpoint](const std::shared_ptr<VelmorRemoteOutput>& output) { return output->object() == endpoint; }))
            continue;  // named twice by a list that changed during the pass
        // A destination that can't be wrapped now is tried again at the next pass.
        if (auto output = VelmorRemoteOutput::initWithEndpointRefOutputPort(endpoint, outputPort_))
            added.push_back(std::move(output));
    }
    if (added.empty() && gone.empty())
        return false;

    // Observers run inside the pass and may flush the manager: every step checks that the list is there.
    auto self = shared_from_this();
    auto& center = VelmorNotificationCenter::defaultCenter();
    if (postNotifications)
        center.postNotificationName(VelmorManager_OutputsWillChangeNotification, self);
    for (const auto& output : added) {
        if (mutableRemoteOutputs_ && std::any_of(mutableRemoteOutputs_->begin(), mutableRemoteOutputs_->end(),
                                                 [&](const std::shared_ptr<VelmorRemoteOutput>& member) {
                                                     return member->object() == output->object();
                                                 }))
            continue;  // a nested pass added it already
        if (mutableRemoteOutputs_)
            mutableRemoteOutputs_->push_back(output);
        if (postNotifications)
            center.postNotificationName(VelmorManager_DidAddOutputNotification, output);
    }
    for (const auto& output : gone) {
        if (mutableRemoteOutputs_ && std::find(mutableRemoteOutputs_->begin(), mutableRemoteOutputs_->end(), output) ==
                                         mutableRemoteOutputs_->end())
            continue;  // a nested pass removed it already
        if (postNotifications)
            center.postNotificationName(VelmorManager_WillRemoveOutputNotification, output);
        if (mutableRemoteOutputs_)
            std::erase(*mutableRemoteOutputs_, output);
        if (postNotifications)
            center.postNotificationName(VelmorManager_DidRemoveOutputNotification, output);
    }
    if (postNotifications)
        center.postNotificationName(VelmorManager_OutputsDidChangeNotification, self);
    return true;
}

void VelmorManager::flushManager()
{
    // A copy: each close changes the list.
    const auto localOutputs = mutableLocalOutputs_;
    for (const auto& output : localOutputs)
        closeVirtualOutput(output);

    if (mutableRemoteOutputs_)
        mutableRemoteOutputs_->clear();
    mutableRemoteOutputs_.reset();

    if (mutableSources_) {
        // willBeRemoved tells consumers, who may call back into the manager: walk a copy.
        const auto sources = *mutableSources_;
        for (const auto& source : sources)
            source->willBeRemoved();
    }
    mutableSources_.reset();
}

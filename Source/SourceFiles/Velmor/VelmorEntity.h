#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorEndpoint.h"
#include "VelmorObject.h"

// Posted by an entity, without user information, after its list of destinations or sources has
// changed. The misspelling is the name applications already search for.
inline constexpr std::string_view VelmorEntitiy_EndpointsChangedNotification = "VelmorEntitiy_EndpointsChanged";

// One entity of a device: its destinations and sources as plain endpoints (not the manager's sources;
// they hold no consumers). Each list is filled on first use and kept current from the MIDI system's
// added and removed messages.
class VelmorEntity : public VelmorObject {
public:
    using EndpointList = std::vector<std::shared_ptr<VelmorEndpoint>>;

    // Null for reference 0 (silently) and when the object can't be wrapped. Enumerates nothing.
    static std::shared_ptr<VelmorEntity> initWithEntityRef(VelmorPlatform::MIDIEntityRef entity);
    // Always null: an entity needs a platform object.
    static std::shared_ptr<VelmorEntity> init();
    // Leaves the notification center; the lists go with the entity.
    ~VelmorEntity() override;

    const char* className() const override { return "VelmorEntity"; }
    // "VelmorEntity: <object text form>"
    std::string description() const override;

    // The handler of the added and removed notifications: a message that names this entity as parent
    // updates both lists and posts VelmorEntitiy_EndpointsChangedNotification once if either changed.
    virtual void objectAddedRemoved(const VelmorNotification& notification);
    // Bring a list up to date with the platform; true when it changed. A child that stays keeps its
    // wrapper and place; new children go to the end, the platform's last first.
    bool findDestinations();
    bool findSources();

    VelmorPlatform::MIDIEntityRef entity() const { return object(); }
    // Snapshots. The first read fills the list silently.
    EndpointList destinations();
    EndpointList sources();

    // The lists as kept, null until first filled. The setters store without copying.
    const std::shared_ptr<EndpointList>& mutableDestinations() const { return mutableDestinations_; }
    void setMutableDestinations(std::shared_ptr<EndpointList> list) { mutableDestinations_ = std::move(list); }
    const std::shared_ptr<EndpointList>& mutableSources() const { return mutableSources_; }
    void setMutableSources(std::shared_ptr<EndpointList> list) { mutableSources_ = std::move(list); }

protected:
    VelmorEntity() = default;
    // The object's construction, then the two registrations. Subclasses call it first.
    bool constructWithEntityRef(VelmorPlatform::MIDIEntityRef entity);

private:
    std::shared_ptr<EndpointList> mutableDestinations_;
    std::shared_ptr<EndpointList> mutableSources_;
};

namespace VelmorTreeDetail {

// The one update walk that devices and entities share. `count` and `item` are the platform's count
// and item calls for this kind of child, `make` wraps a new reference (null to skip it this time).
template <class Child, class Item, class Make>
bool updateChildList(std::shared_ptr<std::vector<std::shared_ptr<Child>>>& list, VelmorPlatform::ItemCount count,
                     Item&& item, Make&& make)
{
    if (!list)
        list = std::make_shared<std::vector<std::shared_ptr<Child>>>();

    std::vector<std::shared_ptr<Child>> newChildren;
    std::vector<std::shared_ptr<Child>> leftovers = *list;

    // The last position first, so several new children land in reverse platform order.
    for (VelmorPlatform::ItemCount position = count; position-- > 0;) {
        const VelmorPlatform::MIDIObjectRef reference = item(position);
        std::shared_ptr<Child> found;
        for (const auto& child : *list) {
            if (child->object() == reference) {
                found = child;
                break;
            }
        }
        if (found) {
            std::erase(leftovers, found);
        } else if (auto child = make(reference)) {
            newChildren.push_back(std::move(child));
        }
        // A child that can't be wrapped is left out; the next update tries it again.
    }

    if (newChildren.empty() && leftovers.empty())
        return false;

    for (const auto& gone : leftovers)
        std::erase(*list, gone);
    list->insert(list->end(), newChildren.begin(), newChildren.end());
    return true;
}

// VelmorParentKey of an added or removed notification; 0 when it is missing.
VelmorPlatform::MIDIObjectRef parentOf(const VelmorNotification& notification);

} // namespace VelmorTreeDetail

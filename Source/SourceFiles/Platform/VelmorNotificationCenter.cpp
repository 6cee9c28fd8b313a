#include "VelmorNotificationCenter.h"

#include <algorithm>

VelmorNotificationCenter& VelmorNotificationCenter::defaultCenter()
{
    static VelmorNotificationCenter* center = new VelmorNotificationCenter;  // never destroyed: outlives every observer
    return *center;
}

void VelmorNotificationCenter::addObserver(const void* observer, std::string name, Handler handler)
{
    auto registration = std::make_shared<Registration>(Registration{observer, std::move(name), std::move(handler)});
    std::lock_guard<std::mutex> lock(mutex_);
    registrations_.push_back(std::move(registration));
}

void VelmorNotificationCenter::removeObserver(const void* observer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& registration : registrations_) {
        if (registration->observer == observer)
            registration->active = false;
    }
    std::erase_if(registrations_, [observer](const auto& registration) { return registration->observer == observer; });
}

bool VelmorNotificationCenter::isActive(const std::shared_ptr<Registration>& registration) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return registration->active;
}

void VelmorNotificationCenter::postNotification(const VelmorNotification& notification)
{
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& registration : registrations_) {
            if (registration->name == notification.name)
                matching.push_back(registration);
        }
    }
    // Handlers run without the lock, so that they may register, remove and post themselves.
    for (const auto& registration : matching) {
        if (isActive(registration))
            registration->handler(notification);
    }
}

void VelmorNotificationCenter::postNotificationName(std::string_view name, std::shared_ptr<VelmorRootObject> object,
                                                    std::optional<VelmorDictionary> userInfo)
{
    postNotification(VelmorNotification{std::string(name), std::move(object), std::move(userInfo)});
}

std::size_t VelmorNotificationCenter::registrationCount(const void* observer) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(std::count_if(registrations_.begin(), registrations_.end(),
                                                  [observer](const auto& r) { return r->observer == observer; }));
}

#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmorRootObject.h"
#include "VelmorValue.h"

// A notification: a name, an object and user information (or none).
struct VelmorNotification {
    std::string name;
    std::shared_ptr<VelmorRootObject> object;
    std::optional<VelmorDictionary> userInfo;
};

// One notification center for the process. Observers are not kept alive by it: a registration holds a
// weak reference and is skipped once its observer has gone. Posting runs every matching handler on the
// posting thread before it returns. An observer removed during a post is not called afterwards.
class VelmorNotificationCenter {
public:
    using Handler = std::function<void(const VelmorNotification&)>;

    static VelmorNotificationCenter& defaultCenter();

    // `handler` is a member function, so that a subclass's replacement of a virtual handler runs.
    template <class T, class Base>
    void addObserver(const std::shared_ptr<T>& observer, void (Base::*handler)(const VelmorNotification&),
                     std::string_view name)
    {
        std::weak_ptr<T> weak = observer;
        addObserver(observer.get(), std::string(name), [weak, handler](const VelmorNotification& notification) {
            if (auto strong = weak.lock())
                (strong.get()->*handler)(notification);
        });
    }
    // The general form: `observer` is the key that removeObserver takes.
    void addObserver(const void* observer, std::string name, Handler handler);
    // Ends every registration of `observer`. Safe from inside a handler and from a destructor.
    void removeObserver(const void* observer);

    void postNotification(const VelmorNotification& notification);
    void postNotificationName(std::string_view name, std::shared_ptr<VelmorRootObject> object,
                              std::optional<VelmorDictionary> userInfo = std::nullopt);

    // How many registrations `observer` has; for tests.
    std::size_t registrationCount(const void* observer) const;

private:
    struct Registration {
        const void* observer;
        std::string name;
        Handler handler;
        bool active = true;  // guarded by mutex_
    };
    bool isActive(const std::shared_ptr<Registration>& registration) const;

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Registration>> registrations_;
};

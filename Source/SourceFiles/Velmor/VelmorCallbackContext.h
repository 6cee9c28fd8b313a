#pragma once

#include <memory>

#include "VelmorRootObject.h"

// What the framework hands the MIDI service as a callback's context value, in place of the object
// itself: the client's notification context, the input port's read-procedure context and each source
// connection's context. It holds its object weakly, so a callback that comes after the object has gone
// finds nothing instead of freed memory.
//
// The service may call with a context until the matching MIDIClientDispose / MIDIPortDispose /
// MIDIPortDisconnectSource has returned noErr. So when its owner ends it, a context is freed only if
// that call said noErr; otherwise it is retired: kept for the rest of the process (a few bytes), for
// the late callback to find.
//
// It is a root object, passed as one, so that a callback can tell a context from any other object.
class VelmorCallbackContext : public VelmorRootObject {
public:
    explicit VelmorCallbackContext(std::weak_ptr<VelmorRootObject> object) : object_(std::move(object)) {}

    const char* className() const override { return "VelmorCallbackContext"; }

    // The value given to the service.
    void* reference() { return static_cast<VelmorRootObject*>(this); }
    // The context of a value the service handed back, or null when it is not a T.
    template <class T>
    static T* fromReference(void* reference)
    {
        return reference ? dynamic_cast<T*>(static_cast<VelmorRootObject*>(reference)) : nullptr;
    }

    // Any thread: the object, or null once it is going. No lock, no allocation.
    template <class T>
    std::shared_ptr<T> object() const
    {
        return std::static_pointer_cast<T>(object_.lock());
    }

    // The owner's last word on a context: `ended` when the service said noErr to the call that ends
    // its use of it.
    static void end(std::shared_ptr<VelmorCallbackContext> context, bool ended);
    // How many contexts have been retired in this process.
    static std::size_t retiredCount();

private:
    const std::weak_ptr<VelmorRootObject> object_;
};

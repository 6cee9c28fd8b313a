#pragma once

#include <memory>
#include <string>

// The small root every framework object with identity derives from. It gives the text form that the
// classes' own formats embed ("VelmorClient: %@") and a class name for "%s".
class VelmorRootObject : public std::enable_shared_from_this<VelmorRootObject> {
public:
    virtual ~VelmorRootObject() = default;

    VelmorRootObject(const VelmorRootObject&) = delete;
    VelmorRootObject& operator=(const VelmorRootObject&) = delete;

    // The class's name, as "%s" prints it.
    virtual const char* className() const { return "VelmorRootObject"; }
    // "<ClassName: 0x...>"
    std::string rootDescription() const;
    virtual std::string description() const { return rootDescription(); }

protected:
    VelmorRootObject() = default;
};

// "%p" of an object.
std::string VelmorPointerString(const void* pointer);
// What "%@" prints for a null value, everywhere.
inline constexpr const char* VelmorNullText = "(null)";

#include "VelmorRootObject.h"

#include <cstdio>

std::string VelmorPointerString(const void* pointer)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%p", pointer);
    return buffer;
}

std::string VelmorRootObject::rootDescription() const
{
    return std::string("<") + className() + ": " + VelmorPointerString(this) + ">";
}

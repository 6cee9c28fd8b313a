#pragma once

#include <memory>

#include "VelmorRootObject.h"

// The value that names a source or an output. Filled in by the receiving work; events and packets
// only hold a reference to one.
class VelmorAttributes : public VelmorRootObject {
public:
    const char* className() const override { return "VelmorAttributes"; }

protected:
    VelmorAttributes() = default;
};

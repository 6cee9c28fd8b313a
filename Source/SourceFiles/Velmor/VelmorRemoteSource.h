#pragma once

#include <memory>

#include "VelmorAttributes.h"
#include "VelmorRootObject.h"

// A source of the MIDI system. Filled in by the receiving work; packets hold one as their `source`
// and decoding asks it for its `attributes`.
class VelmorRemoteSource : public VelmorRootObject {
public:
    const char* className() const override { return "VelmorRemoteSource"; }
    // A fresh snapshot of what names this source.
    virtual std::shared_ptr<VelmorAttributes> attributes() const { return nullptr; }

protected:
    VelmorRemoteSource() = default;
};

#pragma once

// The umbrella header: everything an application needs.
#include "VelmorData.h"
#include "VelmorFailure.h"
#include "VelmorRootObject.h"
#include "VelmorValue.h"

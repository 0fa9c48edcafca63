// Transitional name for suites not yet ported: the scripted mode of the simulator's server
// core (tools/SimServer.h) under its old name. Delete once nothing includes it.
#pragma once

#include "TestSupport.h"

namespace oxtest {
using FakeCimServer = oxsim::ScriptedServer;
}  // namespace oxtest

#pragma once
// What the desktop manager stand-in says about the machine's sessions: the
// session report it hands to the module for publishing, and its answer to
// "StartSession".

#include "host/HostFacts.h"

#include <mfw/PropertyBag.h>

#include <vector>

namespace ndpx::host {

// Top-level facts and one "SESSION" bag per session. It also carries the
// fields an agent's desktop worker reports and the module strips before
// publishing (top level "DOMAIN", "AGENTUPDATE"; per session "APPIDHISTORY",
// "BROKERINGENDPOINTID", "GROUPSIDS", "HOSTPODID").
CORE::PropertyBag buildSessionReport(const std::vector<DesktopSession>& sessions,
                                     const HostFacts& facts);

// A "PROTOCOL" bag naming the requested protocol; the module adds the
// address and listener ports a client connects to.
CORE::PropertyBag startSessionAnswer(const CORE::PropertyBag& request);

}  // namespace ndpx::host

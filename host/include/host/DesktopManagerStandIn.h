#pragma once
// A stand-in for the agent's desktop manager worker, so that a plug-in can be
// run and tested on a machine without the full agent. It acknowledges the
// queue and settings messages plug-ins send, hands events ("SendEvent") on
// to the worker "MQTT" for publishing, executes a few real commands
// (GetHostFacts, ListSessions, Echo) and answers unknown commands with an
// error.

namespace ndpx::host {

void addDesktopManagerStandIn();

}  // namespace ndpx::host

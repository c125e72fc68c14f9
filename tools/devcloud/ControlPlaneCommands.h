#pragma once
// devcloud's subcommands that speak to desktops as the control plane does
// (send, watch, renewer, renew, set-id), and the helpers every subcommand
// shares.

#include "Renewal.h"
#include "devcloud/Home.h"
#include "devcloud/MqttClient.h"

#include <signal.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace ndpx::devcloud::commands {

// A random version-4 UUID, for command IDs and client IDs.
std::string freshId();
// Signals are taken with sigwait; block them before any thread starts so
// that the MQTT library's threads inherit the mask.
sigset_t blockStopSignals(std::initializer_list<int> more = {});
// One line to stdout, whole, whichever thread writes it.
void say(const std::string& line);
// A client of the control plane's certificate `cn`, with a fresh client ID.
ClientOptions controlPlaneOptions(const Home& home, const std::string& host, int port,
                                  const std::string& cn, const std::string& clientIdPrefix);

int send(const Home& home, const std::string& host, int port, const std::string& cn,
         const std::string& desktop, const std::string& command,
         const std::vector<std::string>& args, const std::string& metadata, double timeout);
int watch(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, bool keepSession);
int renewer(const Home& home, const std::string& host, int port, const std::string& cn,
            const TokenOptions& token);
// The identity and vm id are those of the desktop's last pairing or renewal.
int renew(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, const TokenOptions& token);
// Orders the desktop's move to new IDs: on record first, so that the renewer
// grants the certificate the desktop will ask for, then SET_ID.
int setId(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, const std::string& edgeId,
          const std::string& shortTemplateId);

}  // namespace ndpx::devcloud::commands

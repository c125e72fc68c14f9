// A raw MQTT desktop stand-in in a process of its own, the floor the agent
// process is measured against: it connects with a client certificate,
// subscribes to one desktop's commands topic and answers each command by
// publishing it back unchanged on the response topic at QoS 1, from the
// client library's receive callback. With --idle it only stays subscribed.
// It prints "ready" once subscribed and runs until SIGTERM or SIGINT.

#include "devcloud/EchoResponder.h"

#include <CLI/CLI.hpp>

#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    CLI::App app{"mqtt_floor: raw MQTT echo responder (or idle subscriber) for the benchmarks"};
    ndpx::devcloud::ClientOptions options;
    std::string ca;
    std::string cert;
    std::string desktop;
    bool idle = false;
    int sessionExpiry = 0;
    app.add_option("--port", options.port, "Broker port")->required();
    app.add_option("--ca", ca, "The broker's CA (PEM)")->required();
    app.add_option("--cert", cert, "Client certificate prefix (PREFIX.pem, PREFIX.key)")
        ->required();
    app.add_option("--client-id", options.clientId)->required();
    app.add_option("--desktop", desktop, "Desktop identifier in the topics")->required();
    app.add_option("--persistence", options.persistenceDir,
                   "The client library's file persistence in this folder (default: none)");
    app.add_option("--session-expiry", sessionExpiry,
                   "Seconds the broker keeps the session (> 0: clean start off, as the agent)")
        ->capture_default_str();
    app.add_option("--keep-alive", options.keepAliveSeconds)->capture_default_str();
    app.add_flag("--idle", idle, "Subscribe only; answer nothing");
    CLI11_PARSE(app, argc, argv);
    options.tls = ndpx::devcloud::TlsFiles{ca, cert + ".pem", cert + ".key"};
    options.cleanStart = sessionExpiry <= 0;
    options.sessionExpirySeconds = static_cast<std::uint32_t>(std::max(0, sessionExpiry));

    // Taken by sigwait below; the client library's threads inherit the mask.
    // A bench that dies leaves no floor behind.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);

    ndpx::devcloud::EchoResponder echo(options, desktop);
    if (idle) {
        echo.client().setHandler([](const ndpx::devcloud::Message&) {});
    }
    if (!echo.start()) {
        std::fprintf(stderr, "mqtt_floor: %s\n", echo.client().lastError().c_str());
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stop, &sig);
    std::printf("answered %llu\n", static_cast<unsigned long long>(echo.answered()));
    return 0;
}

// ipcctl: publish, subscribe and read the agent's identity through the IPC
// bridge, as an include-listed desktop process does. For scripts and for
// trying the bridge out; see docs/ipc-client.md.

#include "Commands.h"
#include "TerminationSignals.h"

#include <ipcclient/IpcClient.h>
#include <platform/Paths.h>

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv) {
    namespace ipcctl = ndpx::ipcctl;
    // Before any thread: the signals end the waits, not the process.
    const ipcctl::TerminationSignals signals;

    CLI::App app{"Publishes and subscribes through the agent's IPC bridge."};
    app.require_subcommand(1);
    app.fallthrough();  // --root and --timeout also after the command
    std::string root;
    double timeout = 5;
    app.add_option("--root", root, "Root prefix of the machine paths (default: $NDPX_ROOT or /)");
    app.add_option("--timeout", timeout, "Seconds to wait for the bridge's bootstrap (default 5)")
        ->check(CLI::Range(0.0, 3600.0));

    std::string topics;
    auto* subscribe = app.add_subcommand(
        "subscribe", "Print each message of the topics as 'TOPIC PAYLOAD' until SIGINT/SIGTERM");
    subscribe->add_option("TOPICS", topics, "One topic filter, or several joined by commas")
        ->required();

    std::string topic;
    std::string message;
    int qos = 0;
    bool retain = false;
    auto* publish = app.add_subcommand("publish", "Publish MESSAGE on TOPIC");
    publish->add_option("TOPIC", topic, "The topic")->required();
    publish->add_option("MESSAGE", message, "The payload, as it is")->required();
    publish->add_option("--qos", qos, "Quality of service, 0 to 2 (default 0)")
        ->check(CLI::Range(0, 2));
    publish->add_flag("--retain", retain, "Ask the broker to retain the message");

    auto* identity = app.add_subcommand("identity", "Print the identity the bridge announces");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? ipcctl::kExitOk : ipcctl::kExitUsage;
    }
    if (app.count("--root") > 0) {
        if (root.empty()) {
            std::cerr << "ipcctl: --root must not be empty\n";
            return ipcctl::kExitUsage;
        }
        ndpx::platform::paths::setRoot(root);
    }
    const ipcctl::Session session{ndpx::ipcclient::bridgeSocketPath(ndpx::platform::paths::root()),
                                  std::chrono::milliseconds(static_cast<long long>(timeout * 1000)),
                                  signals.handle()};
    if (subscribe->parsed()) {
        return ipcctl::runSubscribe(session, topics);
    }
    if (publish->parsed()) {
        return ipcctl::runPublish(session, topic, message, qos, retain);
    }
    if (identity->parsed()) {
        return ipcctl::runIdentity(session);
    }
    return ipcctl::kExitUsage;
}

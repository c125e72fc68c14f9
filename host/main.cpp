// agenthost: the host service. Loads plug-in modules, runs the host framework
// (workers, messages, settings watch, log, metrics) and stops cleanly on
// SIGINT or SIGTERM.

#include "host/ControlServer.h"
#include "host/DesktopManagerStandIn.h"
#include "host/EventWriter.h"
#include "host/HostSettings.h"
#include "host/JournalLogSink.h"
#include "host/MetricsEndpoint.h"
#include "host/MetricsFile.h"
#include "host/ServiceLoop.h"
#include "host/SystemWorker.h"
#include "host/TransportStandIns.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/PluginLoader.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <mfw/metrics.h>
#include <mfw/moduleLog.h>
#include <platform/Memory.h>
#include <platform/Paths.h>
#include <platform/ServiceManager.h>
#include <platform/SettingsStore.h>
#include <platform/SystemReboot.h>

#include <CLI/CLI.hpp>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

namespace {
constexpr const char* kSource = "agenthost";
}

int main(int argc, char** argv) {
    // Before any thread or file exists: whatever this process creates (the
    // client library's persistence files among them) is its own unless a
    // file is meant for others and says so with a mode of its own.
    ::umask(077);

    CLI::App app{"agenthost: runs agent plug-in modules"};
    std::string root = std::getenv("NDPX_ROOT") != nullptr ? std::getenv("NDPX_ROOT") : "/";
    std::vector<std::string> plugins;
    int logLevel = CORE::kLogInfo;
    std::string logFile;
    int metricsSeconds = 15;
    int metricsPort = -1;
    std::optional<std::string> metricsTextfile;
    std::string journalSocket;
    std::string rebootMode;
    std::string logTarget = "auto";
    app.add_option("--root", root, "Root prefix for every machine path")->capture_default_str();
    app.add_option("--plugin", plugins, "Plug-in module to load (repeatable)");
    app.add_option("--log-level", logLevel, "0 most verbose ... 4 errors only")
        ->check(CLI::Range(0, 4))
        ->capture_default_str();
    app.add_option("--log-file", logFile, "Also log to this file (rotated at 10 MB, 5 kept)");
    app.add_option("--log-target", logTarget,
                   "Where the log goes: journal, stderr, or auto (the journal when stderr "
                   "is connected to it, as under the service manager)")
        ->check(CLI::IsMember({"auto", "journal", "stderr"}))
        ->capture_default_str();
    app.add_option("--metrics-interval", metricsSeconds, "Seconds between metric collections")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("--metrics-port", metricsPort,
                   "Serve the metrics for Prometheus at http://127.0.0.1:PORT/metrics (0: a "
                   "free port, logged). Off unless given")
        ->check(CLI::Range(0, 65535));
    app.add_option("--metrics-textfile", metricsTextfile,
                   "Where the metrics are written for node_exporter's textfile collector, "
                   "empty for nowhere (default: under the root, run/Brasswick/metrics.prom)");
    app.add_option("--journal-socket", journalSocket,
                   "The journal's socket, where agent events are written "
                   "(default: under the root, run/systemd/journal/socket)");
    app.add_option("--reboot", rebootMode,
                   "What a module's request for a system reboot does: log, or system (ask "
                   "the system to reboot). Default: system when --root is /, else log")
        ->check(CLI::IsMember({"log", "system"}));
    CLI11_PARSE(app, argc, argv);

    // Signals are taken by sigwait below; every thread started later
    // inherits this mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // An idle agent's heap in one arena: about 0.7 MiB less resident.
    ndpx::platform::useOneHeapArena();

    ndpx::platform::paths::setRoot(root);
    ::setenv("NDPX_ROOT", root.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): no thread yet

    // The store code the host shares with the module (agentctl status)
    // logs under this name here.
    CORE::setModuleSourceName(kSource);
    CORE::setLogLevel(logLevel);
    if (journalSocket.empty()) {
        // Under the root like every machine path: a test's root has no journal.
        journalSocket =
            (ndpx::platform::paths::root() /
             std::filesystem::path(ndpx::platform::kDefaultJournalSocket).relative_path())
                .string();
    }
    std::string storeError;
    // Shared with the journal sink, which outlives main's scope.
    const auto settings = std::make_shared<ndpx::host::HostSettings>(
        ndpx::platform::openSqliteSettingsStore(ndpx::platform::paths::settingsStoreFile().string(),
                                                storeError),
        logLevel);
    if (logTarget == "journal" || (logTarget == "auto" && ndpx::host::stderrIsTheJournal())) {
        CORE::addLogSink(std::make_shared<ndpx::host::JournalLogSink>(
            ndpx::platform::makeJournal(journalSocket), kSource,
            [settings] { return settings->desktop(); }));
    } else {
        CORE::addLogSink(CORE::makeStderrSink());
    }
    if (!logFile.empty()) {
        CORE::addLogSink(CORE::makeRotatingFileSink(logFile, 10u << 20, 5));
    }
    if (!storeError.empty()) {
        CORE::__SysMessage(kSource, CORE::kLogWarning,
                           "agenthost: the log level and desktop identity are not followed: %s",
                           storeError.c_str());
    }
    settings->start();

    const auto metrics = std::make_shared<ndpx::host::MetricsFile>(
        ndpx::platform::paths::runDir() / "metrics.json",
        metricsTextfile ? std::filesystem::path(*metricsTextfile)
                        : ndpx::platform::paths::runDir() / "metrics.prom");
    CORE::setMetricsSink(metrics);
    ndpx::host::MetricsCollector collector;
    collector.start(static_cast<std::uint32_t>(metricsSeconds) * 1000u);
    // Without it the metrics are still in the files: the agent's work does
    // not depend on a scraper.
    ndpx::host::MetricsEndpoint endpoint(metrics);
    if (metricsPort >= 0) {
        std::string error;
        if (endpoint.start(static_cast<std::uint16_t>(metricsPort), error)) {
            CORE::__SysMessage(kSource, CORE::kLogInfo,
                               "agenthost: metrics at http://127.0.0.1:%u/metrics",
                               static_cast<unsigned>(endpoint.port()));
        } else {
            CORE::__SysMessage(kSource, CORE::kLogError, "agenthost: no metrics endpoint: %s",
                               error.c_str());
        }
    }

    CORE::PluginLoader loader;
    ndpx::host::EventWriter events(ndpx::platform::makeJournal(journalSocket));
    ndpx::host::RebootPolicy reboot;
    reboot.mode = rebootMode.empty()       ? ndpx::host::RebootPolicy::defaultMode(root)
                  : rebootMode == "system" ? ndpx::host::RebootPolicy::Mode::System
                                           : ndpx::host::RebootPolicy::Mode::Log;
    reboot.request = ndpx::platform::requestSystemReboot;
    const ndpx::host::SystemWorker system(loader, events, std::move(reboot));
    ndpx::host::addDesktopManagerStandIn();
    ndpx::host::addTransportStandIns();

    // The operator's channel (agentctl). The host runs without it when the
    // socket cannot be made: the agent's work does not depend on it.
    ndpx::host::ControlServer control(ndpx::platform::paths::controlSocketFile(), metrics);
    std::string controlError;
    if (!ndpx::host::createRunFolder(ndpx::platform::paths::runDir(), controlError) ||
        !control.start(controlError)) {
        CORE::__SysMessage(kSource, CORE::kLogError, "agenthost: no agentctl channel: %s",
                           controlError.c_str());
    }

    CORE::PropertyBag params;
    params.set(L"Root", CORE::toWide(root));
    int failures = 0;
    for (const auto& path : plugins) {
        std::string error;
        if (!loader.load(path, params, error)) {
            CORE::__SysMessage(kSource, CORE::kLogError, "agenthost: cannot load %s: %s",
                               path.c_str(), error.c_str());
            ++failures;
        }
    }
    CORE::__SysMessage(kSource, CORE::kLogInfo,
                       "agenthost: running (pid %d, root %s, %zu plug-ins)",
                       static_cast<int>(::getpid()), root.c_str(), plugins.size() - failures);

    // Started by a service manager that waits for it: the modules are running.
    ndpx::platform::notifyReady("Running " + std::to_string(plugins.size() - failures) +
                                " plug-ins");
    const int signal = ndpx::host::runUntilStopSignal(signals);
    CORE::__SysMessage(kSource, CORE::kLogInfo, "agenthost: signal %d, stopping", signal);
    ndpx::platform::notifyStopping();

    control.stop();
    endpoint.stop();
    loader.unloadAll();
    collector.stop();
    settings->stop();
    CORE::MessageFrameWork::System().Shutdown();
    CORE::__SysMessage(kSource, CORE::kLogInfo, "agenthost: stopped");
    return 0;
}

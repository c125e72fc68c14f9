// agenthost: the host service. Loads plug-in modules, runs the host framework
// (workers, messages, settings watch, log, metrics) and stops cleanly on
// SIGINT or SIGTERM.

#include "SystemWorker.h"
#include "host/DesktopManagerStandIn.h"
#include "host/MetricsFile.h"
#include "host/TransportStandIns.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/PluginLoader.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <mfw/metrics.h>
#include <platform/Paths.h>

#include <CLI/CLI.hpp>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

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
    app.add_option("--root", root, "Root prefix for every machine path")->capture_default_str();
    app.add_option("--plugin", plugins, "Plug-in module to load (repeatable)");
    app.add_option("--log-level", logLevel, "0 most verbose ... 4 errors only")
        ->check(CLI::Range(0, 4))
        ->capture_default_str();
    app.add_option("--log-file", logFile, "Also log to this file (rotated at 10 MB, 5 kept)");
    app.add_option("--metrics-interval", metricsSeconds, "Seconds between metric collections")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    // Signals are taken by sigwait below; every thread started later
    // inherits this mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    ndpx::platform::paths::setRoot(root);
    ::setenv("NDPX_ROOT", root.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): no thread yet

    CORE::setLogLevel(logLevel);
    CORE::addLogSink(CORE::makeStderrSink());
    if (!logFile.empty()) {
        CORE::addLogSink(CORE::makeRotatingFileSink(logFile, 10u << 20, 5));
    }

    CORE::setMetricsSink(std::make_shared<ndpx::host::MetricsFile>(ndpx::platform::paths::runDir() /
                                                                   "metrics.json"));
    ndpx::host::MetricsCollector collector;
    collector.start(static_cast<std::uint32_t>(metricsSeconds) * 1000u);

    CORE::PluginLoader loader;
    ndpx::host::addSystemWorker(loader);
    ndpx::host::addDesktopManagerStandIn();
    ndpx::host::addTransportStandIns();

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

    int signal = 0;
    sigwait(&signals, &signal);
    CORE::__SysMessage(kSource, CORE::kLogInfo, "agenthost: signal %d, stopping", signal);

    loader.unloadAll();
    collector.stop();
    CORE::MessageFrameWork::System().Shutdown();
    CORE::__SysMessage(kSource, CORE::kLogInfo, "agenthost: stopped");
    return 0;
}

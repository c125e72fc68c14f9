// devcloud: the development control plane. Keeps a certificate authority in
// a folder, sets up and runs a mosquitto broker that admits clients by
// certificate only, provisions desktops and pairs them over HTTPS, and talks
// to desktop agents as the control plane does.

#include "BrokerEndpoint.h"
#include "ControlPlaneCommands.h"
#include "CredentialService.h"
#include "Provision.h"
#include "Renewal.h"
#include "devca/DevCa.h"
#include "devcloud/BrokerConfig.h"
#include "devcloud/BrokerProcess.h"
#include "devcloud/EchoResponder.h"
#include "devcloud/Home.h"
#include "devcloud/Lifetime.h"
#include "devcloud/Topics.h"

#include <mfw/log.h>
#include <mfw/moduleLog.h>
#include <platform/UniqueFd.h>

#include <CLI/CLI.hpp>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

namespace fs = std::filesystem;
using ndpx::devcloud::ClientOptions;
using ndpx::devcloud::Home;

constexpr const char* kControlPlaneCn = "control-plane";

using namespace ndpx::devcloud::commands;

int caInit(const Home& home) {
    Home h = home;
    if (h.initCa()) {
        std::cout << "devcloud: created the CA in " << h.dir().string() << "\n";
    } else {
        std::cout << "devcloud: the CA in " << h.dir().string() << " exists\n";
    }
    return 0;
}

// The CA's CRL listing the serials of the given certificates.
int caCrl(const Home& home, const std::vector<std::string>& revokeFiles, const std::string& out) {
    ndpx::devca::CertificateAuthority ca = home.loadCa();
    for (const auto& file : revokeFiles) {
        std::ifstream in(file, std::ios::binary);
        const std::string pem((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
        const std::string serial = ndpx::devca::serialHexOfPem(pem);
        if (serial.empty()) {
            std::cerr << "devcloud: no certificate in " << file << "\n";
            return 2;
        }
        ca.revoke(serial);
        std::cout << "devcloud: revoked serial " << serial << " (" << file << ")\n";
    }
    if (!ndpx::devca::writePrivateFile(out, ca.crlPem())) {
        std::cerr << "devcloud: cannot write " << out << "\n";
        return 1;
    }
    std::cout << "devcloud: wrote the CRL to " << out << "\n";
    return 0;
}

// mosquitto reads its configuration and CRL again on SIGHUP. It logs
// "Reloading config." first, but serves nobody before it is done: the next
// connection is judged by what it read.
void reloadBroker(const ndpx::devcloud::BrokerProcess& process, const std::string& logFile) {
    const std::size_t offset = ndpx::devcloud::readTextFile(logFile).size();
    ::kill(process.pid(), SIGHUP);
    if (ndpx::devcloud::waitForFileText(logFile, "Reloading config.", offset,
                                        std::chrono::seconds(10), process.exitFd())) {
        std::cout << "devcloud: broker reloaded its configuration" << std::endl;
    } else {
        std::cerr << "devcloud: the broker did not confirm the reload; see " << logFile << "\n";
    }
}

int broker(Home home, int port, bool noDelay, const std::string& bind, const std::string& crl,
           bool saveEveryChange) {
    home.initCa();
    const fs::path dir = home.dir() / "broker";
    fs::create_directories(dir / "store");
    const fs::path cert = dir / "server.pem";
    const fs::path key = dir / "server.key";
    if (!fs::exists(cert) || !fs::exists(key)) {
        const auto issued = home.issueServer("localhost", {"localhost"}, {"127.0.0.1", "::1"});
        if (!ndpx::devca::writePrivateFile(key.string(), issued.keyPem) ||
            !ndpx::devca::writePrivateFile(cert.string(), issued.certPem)) {
            std::cerr << "devcloud: cannot write the server certificate\n";
            return 1;
        }
    }
    ndpx::devcloud::BrokerConfig config;
    config.bindAddress = bind;
    config.caFile = home.caFile().string();
    config.certFile = cert.string();
    config.keyFile = key.string();
    config.noDelay = noDelay;
    if (!crl.empty()) {
        config.crlFile = fs::absolute(crl).string();
        if (!fs::is_regular_file(config.crlFile)) {
            std::cerr << "devcloud: no CRL file " << config.crlFile << "\n";
            return 2;
        }
    }
    config.persistenceDir = (dir / "store").string();
    config.saveEveryChange = saveEveryChange;
    config.logFile = (dir / "mosquitto.log").string();
    config.logToStdout = true;  // on the terminal, next to our own lines
    const fs::path conf = dir / "mosquitto.conf";

    // SIGHUP reloads the broker, a stop signal is forwarded to it; the
    // broker's exit ends us.
    const sigset_t signals = blockStopSignals({SIGHUP});
    ndpx::devcloud::BrokerProcess process;
    // A port we chose may be taken before mosquitto binds it: choose again.
    for (int attempt = 0; !process.running() && attempt < (port != 0 ? 1 : 5); ++attempt) {
        config.port = port != 0 ? port : ndpx::devcloud::pickFreePort(bind);
        std::ofstream(conf) << ndpx::devcloud::mosquittoConf(config);
        process.start(conf, config.logFile, {}, bind, config.port, std::chrono::seconds(20));
    }
    if (!process.running()) {
        std::cerr << "devcloud: mosquitto exited; see " << config.logFile << "\n";
        return 1;
    }
    // For the credential service, which hands the address to agents.
    const auto endpoint = ndpx::devcloud::endpointForListener(bind, config.port);
    if (!ndpx::devcloud::writeBrokerEndpoint(home.dir(), endpoint)) {
        std::cerr << "devcloud: cannot write "
                  << ndpx::devcloud::brokerEndpointFile(home.dir()).string() << "\n";
    }
    std::cout << "devcloud: broker ready on " << bind << " port " << config.port << "\n"
              << "port " << config.port << "\n"
              << "pid " << process.pid() << std::endl;
    const ndpx::platform::UniqueFd sigFd(::signalfd(-1, &signals, SFD_CLOEXEC));
    pollfd fds[2] = {{sigFd.get(), POLLIN, 0}, {process.exitFd(), POLLIN, 0}};
    for (;;) {
        while (::poll(fds, 2, -1) < 0 && errno == EINTR) {
        }
        signalfd_siginfo info{};
        if ((fds[1].revents & POLLIN) != 0 ||
            ::read(sigFd.get(), &info, sizeof info) != sizeof info || info.ssi_signo != SIGHUP) {
            break;
        }
        reloadBroker(process, config.logFile);
    }
    ndpx::devcloud::removeBrokerEndpoint(home.dir(), endpoint);
    const auto status = process.stop(SIGTERM);
    return status.value_or(0) == 128 + SIGTERM ? 0 : status.value_or(0);
}

int credsvc(const Home& home, const ndpx::devcloud::CredentialServiceOptions& options) {
    // Blocked before the service starts its threads, which inherit the mask.
    const sigset_t signals = blockStopSignals();
    ndpx::devcloud::CredentialService service(home, options, say);
    if (!service.start()) {
        std::cerr << "devcloud: cannot listen on " << options.bindAddress << " port "
                  << options.port << "\n";
        return 1;
    }
    std::string broker = "from " + ndpx::devcloud::brokerEndpointFile(home.dir()).string();
    if (options.broker) {
        broker = options.broker->host + ":" + std::to_string(options.broker->port);
    }
    say("devcloud: credential service ready on " + options.bindAddress + " port " +
        std::to_string(service.port()) + "\nport " + std::to_string(service.port()) + "\nurl " +
        service.url() + "\nthumbprint " + service.thumbprint() +
        "\n(the thumbprint is the SHA-256 of the certificate's PEM text, for "
        "mqtt_SslCertThumbprint; its DER SHA-256 is " +
        service.derFingerprint() + ")\nbroker " + broker + "\nvalidity " +
        std::to_string(options.validity.count()) + " s\nfault " +
        ndpx::devcloud::faultName(options.fault));
    int sig = 0;
    sigwait(&signals, &sig);
    service.stop();
    say("devcloud: credential service stopped, peak requests in flight " +
        std::to_string(service.peakInFlight()));
    return 0;
}

int provisionDesktop(const ndpx::devcloud::ProvisionRequest& request) {
    const auto result = ndpx::devcloud::provision(request);
    std::cout << "identity " << result.agentIdentity << "\nbootstrap topic "
              << result.bootstrapTopic << "\nspec " << result.specFile.string()
              << "\nwritten at us "
              << std::chrono::duration_cast<std::chrono::microseconds>(
                     result.writtenAt.time_since_epoch())
                     .count()
              << "\n";
    if (!result.trustStore.empty()) {
        std::cout << "trusted CA in " << result.trustStore << "\n";
    }
    if (::geteuid() != 0 && request.specFile.empty()) {
        std::cerr << "devcloud: note: the agent trusts " << result.specFile.string()
                  << " only when root owns it\n";
    }
    return 0;
}

int clientCert(const Home& home, const std::string& cn, const std::string& prefix,
               std::optional<std::chrono::seconds> lifetime) {
    const auto files = home.writeClient(cn, prefix, lifetime);
    std::cout << "certificate " << files.certFile << "\nkey " << files.keyFile << "\nca "
              << files.caFile << "\n";
    return 0;
}

int run(int argc, char** argv) {
    CLI::App app{"devcloud: the development control plane"};
    app.require_subcommand(1);
    std::string dir = "devcloud";
    std::string host = "127.0.0.1";
    int port = 0;
    std::string cn = kControlPlaneCn;

    auto* ca = app.add_subcommand("ca", "The development certificate authority");
    ca->require_subcommand(1);
    auto* caInitCmd = ca->add_subcommand("init", "Create the CA (ca.pem, ca.key) unless it exists");
    caInitCmd->add_option("--dir", dir, "The devcloud folder")->required();
    std::vector<std::string> revokeFiles;
    std::string crlOut;
    auto* caCrlCmd =
        ca->add_subcommand("crl", "Write a CRL of the CA revoking the given certificates");
    caCrlCmd->add_option("--dir", dir, "The devcloud folder")->required();
    caCrlCmd->add_option("--revoke", revokeFiles,
                         "PEM file of a certificate to list as revoked (repeatable), e.g. "
                         "DIR/credsvc/server.pem");
    caCrlCmd->add_option("--out", crlOut, "Where to write the CRL (PEM)")->required();

    bool noNoDelay = false;
    std::string bind = "127.0.0.1";
    auto* brokerCmd = app.add_subcommand("broker", "Configure and run mosquitto (foreground)");
    brokerCmd->add_option("--dir", dir, "The devcloud folder")->required();
    brokerCmd->add_option("--port", port, "Listener port (default: a free one)");
    brokerCmd->add_option("--bind", bind, "Listener address")->capture_default_str();
    brokerCmd->add_flag("--no-nodelay", noNoDelay, "Leave Nagle's algorithm on");
    std::string brokerCrl;
    brokerCmd->add_option("--crl", brokerCrl,
                          "CRL of the CA (PEM, e.g. from ca crl): listed client certificates are "
                          "refused; SIGHUP reads it again");
    bool persist = false;
    brokerCmd->add_flag("--persist", persist,
                        "Save the store after every change, so that a killed broker loses no "
                        "session, subscription or message it acknowledged (default: saved when "
                        "it stops)");

    std::string prefix;
    auto* certCmd = app.add_subcommand("client-cert", "Issue a client certificate");
    certCmd->add_option("--dir", dir, "The devcloud folder")->required();
    certCmd->add_option("--cn", cn, "Subject common name")->required();
    certCmd->add_option("--out", prefix, "Writes PREFIX.pem and PREFIX.key")->required();
    const CLI::Validator lifetime(
        [](std::string& text) {
            return ndpx::devcloud::parseLifetime(text) ? std::string()
                                                       : "a lifetime such as 300s, 5m, 2h or 30d";
        },
        "LIFETIME");
    std::string certValidity;
    certCmd->add_option("--validity", certValidity, "Lifetime (default: a year)")->check(lifetime);

    std::string desktop;
    std::string command;
    std::vector<std::string> args;
    std::string metadata;
    double timeout = 10;
    auto* sendCmd = app.add_subcommand("send", "Send a command to a desktop, print its answer");
    sendCmd->add_option("--dir", dir, "The devcloud folder")->required();
    sendCmd->add_option("--host", host, "Broker address")->capture_default_str();
    sendCmd->add_option("--port", port, "Broker port")->required();
    sendCmd->add_option("--cn", cn, "The control plane's certificate name")->capture_default_str();
    sendCmd->add_option("--desktop", desktop, "Desktop identifier (as in its topics)")->required();
    sendCmd->add_option("--command", command, "Command name")->required();
    sendCmd->add_option("--arg", args, "KEY=VALUE member of the command (repeatable)");
    sendCmd->add_option("--metadata", metadata, "JSON object returned with the answer");
    sendCmd->add_option("--timeout", timeout, "Seconds to wait for the answer")
        ->capture_default_str();

    auto* watchCmd = app.add_subcommand("watch", "Print every desktop message until Ctrl-C");
    watchCmd->add_option("--dir", dir, "The devcloud folder")->required();
    watchCmd->add_option("--host", host, "Broker address")->capture_default_str();
    watchCmd->add_option("--port", port, "Broker port")->required();
    watchCmd->add_option("--cn", cn, "The control plane's certificate name")->capture_default_str();
    watchCmd->add_option("--desktop", desktop, "Only this desktop");
    bool keepSession = false;
    watchCmd->add_flag("--keep-session", keepSession,
                       "Keep the subscription and what arrives for it at the broker across "
                       "reconnects and broker restarts (clean start off, 300 s)");

    auto* echoCmd =
        app.add_subcommand("echo", "Answer a desktop's commands with the request (raw stand-in)");
    echoCmd->add_option("--dir", dir, "The devcloud folder")->required();
    echoCmd->add_option("--host", host, "Broker address")->capture_default_str();
    echoCmd->add_option("--port", port, "Broker port")->required();
    echoCmd->add_option("--desktop", desktop, "Desktop identifier")->required();

    ndpx::devcloud::CredentialServiceOptions svc;
    std::string brokerHost;
    int brokerPort = 0;
    long long validitySeconds = svc.validity.count();
    std::string fault = "none";
    auto* credsvcCmd = app.add_subcommand(
        "credsvc", "Run the HTTPS credential service agents pair with (foreground)");
    credsvcCmd->add_option("--dir", dir, "The devcloud folder")->required();
    credsvcCmd->add_option("--port", svc.port, "Listener port on 127.0.0.1 (default: a free one)");
    credsvcCmd->add_option("--broker-host", brokerHost,
                           "Broker host for agents (default: from the folder's broker.json)");
    credsvcCmd->add_option("--broker-port", brokerPort, "Broker port for agents")
        ->check(CLI::Range(1, 65535));
    std::string clientValidity;
    credsvcCmd
        ->add_option("--client-validity", clientValidity,
                     "Lifetime of issued client certificates, e.g. 300s, 5m, 2h (default 30d)")
        ->check(lifetime);
    // The older spelling, in seconds; --client-validity wins.
    credsvcCmd->add_option("--validity-seconds", validitySeconds)
        ->check(CLI::Range(1LL, 10LL * 365 * 24 * 3600))
        ->group("");
    credsvcCmd->add_flag("--ws", svc.webSocket, "Tell agents to use MQTT over WebSocket");
    credsvcCmd->add_option("--fault", fault, "Misbehave on purpose: none, 500, garbage, silent")
        ->check(CLI::IsMember({"none", "500", "garbage", "silent"}))
        ->capture_default_str();

    ndpx::devcloud::TokenOptions token;
    const auto tokenCommand = [&](const std::string& name, const std::string& description) {
        auto* cmd = app.add_subcommand(name, description);
        cmd->add_option("--dir", dir, "The devcloud folder")->required();
        cmd->add_option("--host", host, "Broker address")->capture_default_str();
        cmd->add_option("--port", port, "Broker port")->required();
        cmd->add_option("--cn", cn, "The control plane's certificate name")->capture_default_str();
        cmd->add_option("--url", token.url, "The credential service URL agents post to")
            ->required()
            ->check([](const std::string& url) {
                return url.rfind("https://", 0) == 0 ? std::string()
                                                     : "the agent speaks HTTPS only: https://...";
            });
        cmd->add_flag("--force-swap", token.forceSwap,
                      "Tell agents to swap in the new certificate at once");
        return cmd;
    };
    auto* renewerCmd =
        tokenCommand("renewer", "Answer every desktop's certificate renewal requests (foreground)");
    auto* renewCmd = tokenCommand("renew", "Send one desktop a renewal token unasked");
    renewCmd->add_option("--desktop", desktop, "Desktop identifier (as in its topics)")->required();

    std::string newEdgeId;
    std::string newTemplateId;
    auto* setIdCmd = app.add_subcommand(
        "set-id", "Move a paired desktop to new IDs (needs the renewer running to take effect)");
    setIdCmd->add_option("--dir", dir, "The devcloud folder")->required();
    setIdCmd->add_option("--host", host, "Broker address")->capture_default_str();
    setIdCmd->add_option("--port", port, "Broker port")->required();
    setIdCmd->add_option("--cn", cn, "The control plane's certificate name")->capture_default_str();
    setIdCmd->add_option("--desktop", desktop, "Desktop identifier (as in its topics)")->required();
    setIdCmd->add_option("--edge-id", newEdgeId, "The new edge identifier")->required();
    setIdCmd->add_option("--short-template-id", newTemplateId, "The new short template id")
        ->required();

    ndpx::devcloud::ProvisionRequest prov;
    std::string agentRoot;
    std::string specFile;
    auto* provisionCmd = app.add_subcommand(
        "provision", "Issue a one-time password and write the agent's provisioning document");
    provisionCmd->add_option("--dir", dir, "The devcloud folder")->required();
    auto* rootOpt = provisionCmd->add_option("--root", agentRoot, "The agent's root prefix");
    provisionCmd->add_option("--url", prov.url, "The credential service URL")->required();
    provisionCmd->add_option("--vm-id", prov.vmId, "Machine identifier")->required();
    provisionCmd->add_option("--edge-id", prov.edgeId, "Edge identifier")->required();
    provisionCmd->add_option("--short-template-id", prov.shortTemplateId, "Short template id")
        ->required();
    provisionCmd->add_option("--name", prov.name, "Machine name (default: the vm id)");
    provisionCmd->add_option("--bootstrap-topic", prov.bootstrapTopic,
                             "Bootstrap topic (default: desktop/bootstrap/<identity>)");
    auto* specOpt = provisionCmd->add_option(
        "--spec-file", specFile, "Write the document here instead of under the agent's root");
    rootOpt->excludes(specOpt);
    provisionCmd->add_option("--proxy", prov.proxyServer, "Proxy for the credential request");
    provisionCmd->add_option("--proxy-bypass", prov.proxyBypass, "Its bypass list");
    provisionCmd->add_option("--pac-url", prov.proxyAutoConfig,
                             "Proxy auto-configuration script for the credential request");

    CLI11_PARSE(app, argc, argv);

    try {
        const Home home(dir);
        if (caInitCmd->parsed()) {
            return caInit(home);
        }
        if (caCrlCmd->parsed()) {
            return caCrl(home, revokeFiles, crlOut);
        }
        if (brokerCmd->parsed()) {
            return broker(home, port, !noNoDelay, bind, brokerCrl, persist);
        }
        if (credsvcCmd->parsed()) {
            if (!brokerHost.empty() || brokerPort != 0) {
                if (brokerPort == 0) {
                    std::cerr << "devcloud: --broker-host needs --broker-port\n";
                    return 2;
                }
                svc.broker = ndpx::devcloud::BrokerEndpoint{
                    brokerHost.empty() ? "127.0.0.1" : brokerHost, brokerPort};
            }
            svc.validity = clientValidity.empty() ? std::chrono::seconds(validitySeconds)
                                                  : *ndpx::devcloud::parseLifetime(clientValidity);
            svc.fault = *ndpx::devcloud::parseFault(fault);
            Home h = home;
            h.initCa();
            return credsvc(h, svc);
        }
        if (!home.hasCa()) {
            std::cerr << "devcloud: no CA in " << home.dir().string()
                      << " (run devcloud ca init --dir " << dir << ")\n";
            return 1;
        }
        if (provisionCmd->parsed()) {
            if (agentRoot.empty() && specFile.empty()) {
                std::cerr << "devcloud: provision needs --root or --spec-file\n";
                return 2;
            }
            // The certificate store explains its refusals.
            CORE::setModuleSourceName("devcloud");
            CORE::setLogLevel(CORE::kLogError);
            CORE::addLogSink(CORE::makeStderrSink());
            prov.devcloudDir = home.dir();
            prov.agentRoot = agentRoot;
            prov.specFile = specFile;
            return provisionDesktop(prov);
        }
        if (certCmd->parsed()) {
            return clientCert(
                home, cn, prefix,
                certValidity.empty() ? std::nullopt : ndpx::devcloud::parseLifetime(certValidity));
        }
        if (renewerCmd->parsed()) {
            return renewer(home, host, port, cn, token);
        }
        if (renewCmd->parsed()) {
            return renew(home, host, port, cn, desktop, token);
        }
        if (setIdCmd->parsed()) {
            return setId(home, host, port, cn, desktop, newEdgeId, newTemplateId);
        }
        if (sendCmd->parsed()) {
            return send(home, host, port, cn, desktop, command, args, metadata, timeout);
        }
        if (watchCmd->parsed()) {
            return watch(home, host, port, cn, desktop, keepSession);
        }
        if (echoCmd->parsed()) {
            const sigset_t signals = blockStopSignals();
            ClientOptions options =
                controlPlaneOptions(home, host, port, "desktop-" + desktop, "devcloud-echo");
            options.automaticReconnect = true;
            ndpx::devcloud::EchoResponder responder(options, desktop);
            if (!responder.start()) {
                std::cerr << "devcloud: cannot start: " << responder.client().lastError() << "\n";
                return 1;
            }
            std::cerr << "devcloud: answering " << ndpx::devcloud::commandsTopic(desktop)
                      << " (Ctrl-C ends)\n";
            int sig = 0;
            sigwait(&signals, &sig);
            std::cerr << "devcloud: answered " << responder.answered() << " commands\n";
            return 0;
        }
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int status = run(argc, argv);
    // The MQTT library's threads end after the last client is destroyed, on
    // their own time, and may still be ending now. Exit handlers (OpenSSL's
    // clean-up, which frees the locks such a thread takes) would race them;
    // the process ends without them once its output is out.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    std::_Exit(status);
}

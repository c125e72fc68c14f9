#include "support/MosquittoBroker.h"

#include <devcloud/BrokerConfig.h>

#include <signal.h>

#include <fstream>
#include <stdexcept>

namespace ndpx::test {
namespace {

namespace fs = std::filesystem;

constexpr auto kStartLimit = std::chrono::seconds(20);
constexpr int kStartAttempts = 5;

}  // namespace

MosquittoBroker::MosquittoBroker(BrokerOptions options) : options_(options) {
    ca_ = std::make_unique<devca::CertificateAuthority>(
        devca::CertificateAuthority::createRoot("ndpx test broker CA"));
    const auto server = ca_->issueServer("localhost", {"localhost"}, {"127.0.0.1", "::1"});
    if (!devca::writePrivateFile(caFile(), ca_->certPem()) ||
        !devca::writePrivateFile((dir() / "server.pem").string(), server.certPem) ||
        !devca::writePrivateFile((dir() / "server.key").string(), server.keyPem)) {
        throw std::runtime_error("cannot write the broker's certificates");
    }
    fs::create_directories(dir() / "store");
    fs::create_directories(dir() / "clients");
    // A free port may be taken by someone else before mosquitto binds it.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        port_ = devcloud::pickFreePort(host_);
        writeConfig();
        if (start()) {
            return;
        }
    }
    throw std::runtime_error("mosquitto did not start:\n" + log());
}

MosquittoBroker::~MosquittoBroker() = default;  // the process stops and is reaped

std::string MosquittoBroker::caFile() const {
    return (dir() / "ca.pem").string();
}

ClientPem MosquittoBroker::issueClient(const std::string& cn) {
    auto issued = ca_->issueClient(cn);
    return {issued.certPem, issued.keyPem};
}

devcloud::TlsFiles MosquittoBroker::writeClientFiles(const std::string& cn, const fs::path& dir) {
    const ClientPem pem = issueClient(cn);
    std::string name = cn;
    for (char& c : name) {
        c = c == '/' ? '_' : c;
    }
    devcloud::TlsFiles files{(dir / "ca.pem").string(), (dir / (name + ".pem")).string(),
                             (dir / (name + ".key")).string()};
    if (!devca::writePrivateFile(files.caFile, caPem()) ||
        !devca::writePrivateFile(files.certFile, pem.certPem) ||
        !devca::writePrivateFile(files.keyFile, pem.keyPem)) {
        throw std::runtime_error("cannot write client files for " + cn);
    }
    return files;
}

devcloud::ClientOptions MosquittoBroker::clientOptions(const std::string& cn) {
    devcloud::ClientOptions o;
    o.host = host_;
    o.port = port_;
    o.clientId = cn;
    if (options_.tls) {
        o.tls = writeClientFiles(cn, dir() / "clients");
    }
    return o;
}

void MosquittoBroker::writeConfig() {
    devcloud::BrokerConfig c;
    c.bindAddress = host_;
    c.port = port_;
    c.tls = options_.tls;
    c.caFile = caFile();
    c.certFile = (dir() / "server.pem").string();
    c.keyFile = (dir() / "server.key").string();
    c.noDelay = options_.noDelay;
    c.persistenceDir = (dir() / "store").string();
    c.saveEveryChange = options_.saveEveryChange;
    c.logFile = (dir() / "mosquitto.log").string();
    std::ofstream(dir() / "mosquitto.conf") << devcloud::mosquittoConf(c);
}

bool MosquittoBroker::start() {
    return process_.start(dir() / "mosquitto.conf", dir() / "mosquitto.log",
                          dir() / "mosquitto.out", host_, port_, kStartLimit);
}

void MosquittoBroker::kill() {
    process_.stop(SIGKILL);
}

void MosquittoBroker::stop() {
    process_.stop(SIGTERM);
}

void MosquittoBroker::restart() {
    stop();
    // The port stays ours: try it again if it is busy for a moment.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        if (start()) {
            return;
        }
    }
    throw std::runtime_error("mosquitto did not restart on port " + std::to_string(port_) + ":\n" +
                             log());
}

void MosquittoBroker::markLog() {
    logMark_ = devcloud::readTextFile(dir() / "mosquitto.log").size();
}

bool MosquittoBroker::waitForLog(const std::string& text, std::chrono::milliseconds limit) {
    return devcloud::waitForFileText(dir() / "mosquitto.log", text, logMark_, limit,
                                     process_.exitFd());
}

bool MosquittoBroker::waitForStore(const std::string& text, std::chrono::milliseconds limit) {
    return devcloud::waitForFileText(dir() / "store" / "mosquitto.db", text, 0, limit,
                                     process_.exitFd());
}

std::string MosquittoBroker::log() const {
    return devcloud::readTextFile(dir() / "mosquitto.log") +
           devcloud::readTextFile(dir() / "mosquitto.out");
}

}  // namespace ndpx::test

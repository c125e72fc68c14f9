#pragma once
// A real mosquitto broker for one test: its own certificate authority, a
// server certificate for 127.0.0.1/localhost, a listener on an ephemeral
// port that admits clients by certificate only, and a persistent store, all
// in a temporary directory. The broker can be killed, stopped and restarted
// on the same port with the same store.

#include "support/TempDir.h"

#include <devca/DevCa.h>
#include <devcloud/BrokerProcess.h>
#include <devcloud/MqttClient.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

namespace ndpx::test {

struct BrokerOptions {
    bool tls = true;      // false: plain TCP, anonymous clients (benchmark floors)
    bool noDelay = true;  // the broker's set_tcp_nodelay
    // Write the store on every change, so that a killed broker keeps what
    // it had queued; costs a disk write per message.
    bool saveEveryChange = true;
};

struct ClientPem {
    std::string certPem;
    std::string keyPem;
};

class MosquittoBroker {
public:
    explicit MosquittoBroker(BrokerOptions options = {});
    ~MosquittoBroker();  // stops the broker and reaps it
    MosquittoBroker(const MosquittoBroker&) = delete;
    MosquittoBroker& operator=(const MosquittoBroker&) = delete;

    const std::string& host() const { return host_; }
    int port() const { return port_; }
    bool tls() const { return options_.tls; }
    const std::filesystem::path& dir() const { return dir_.path(); }

    devca::CertificateAuthority& ca() { return *ca_; }
    const std::string& caPem() const { return ca_->certPem(); }
    std::string caFile() const;

    // A client certificate with subject CN `cn` from the broker's CA.
    ClientPem issueClient(const std::string& cn);
    // Writes DIR/CN.pem, DIR/CN.key (0600) and DIR/ca.pem.
    devcloud::TlsFiles writeClientFiles(const std::string& cn, const std::filesystem::path& dir);
    // Options for a client of this broker with a certificate for `cn`
    // (files kept in the broker's directory); the client id is `cn`.
    devcloud::ClientOptions clientOptions(const std::string& cn);

    bool running() const { return process_.running(); }
    void kill();     // SIGKILL and reap: nothing is saved
    void stop();     // SIGTERM and reap: the store is written
    void restart();  // starts again on the same port with the same store
    // The broker's log file and its standard output and error.
    std::string log() const;
    // Remembers the end of the log file; waitForLog looks only at what is
    // written after the last mark.
    void markLog();
    bool waitForLog(const std::string& text,
                    std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Waits until the saved store holds `text` (e.g. a queued payload): the
    // broker saves shortly after a change, and a kill before then loses it.
    bool waitForStore(const std::string& text,
                      std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    void writeConfig();
    bool start();

    BrokerOptions options_;
    TempDir dir_;
    std::string host_ = "127.0.0.1";
    int port_ = 0;
    std::unique_ptr<devca::CertificateAuthority> ca_;
    std::size_t logMark_ = 0;
    devcloud::BrokerProcess process_;
};

}  // namespace ndpx::test

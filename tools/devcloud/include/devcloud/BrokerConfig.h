#pragma once
// The mosquitto configuration of the development broker: one listener,
// clients authenticate by certificate only (the certificate's common name
// becomes the user name), no-delay sockets and a persistent store.

#include <string>

namespace ndpx::devcloud {

struct BrokerConfig {
    std::string bindAddress = "127.0.0.1";
    int port = 0;
    // TLS with required client certificates; false gives a plain TCP
    // listener that admits anonymous clients (benchmark comparisons only).
    bool tls = true;
    std::string caFile;
    std::string certFile;
    std::string keyFile;
    // A CRL of the CA (PEM): clients whose certificate it lists are refused.
    // mosquitto reads it again on SIGHUP; clients already connected stay.
    std::string crlFile;  // empty: none
    bool noDelay = true;
    std::string persistenceDir;  // empty: no persistence
    // Writes the store after every change, so that even a killed broker
    // keeps queued messages; costs a disk write per message.
    bool saveEveryChange = false;
    std::string logFile;       // empty: no log file
    bool logToStdout = false;  // also to stdout (a parent can wait for lines)
    std::string runAsUser;     // used when started as root; empty: current user
};

// The text of a mosquitto.conf for `config`.
std::string mosquittoConf(const BrokerConfig& config);

// The path of the broker binary (Debian's package).
inline constexpr const char* kMosquittoPath = "/usr/sbin/mosquitto";

// A port that was free a moment ago (bound to port 0 and closed again); the
// caller must cope with losing a race for it.
int pickFreePort(const std::string& bindAddress = "127.0.0.1");

}  // namespace ndpx::devcloud

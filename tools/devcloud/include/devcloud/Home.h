#pragma once
// The development control plane's folder: its certificate authority
// (ca.pem, ca.key), the broker's configuration, certificates, store and log,
// and the certificates it issued.

#include "devca/DevCa.h"
#include "devcloud/MqttClient.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::devcloud {

struct IssuedPem {
    std::string certPem;
    std::string keyPem;
};

class Home {
public:
    explicit Home(const std::filesystem::path& dir);

    const std::filesystem::path& dir() const { return dir_; }
    std::filesystem::path caFile() const { return dir_ / "ca.pem"; }
    std::filesystem::path caKeyFile() const { return dir_ / "ca.key"; }
    bool hasCa() const;

    // Creates the folder (0700) and the CA unless they exist; true when a CA
    // was created now.
    bool initCa();

    // The stored CA, read afresh (throws std::runtime_error when it is
    // missing or damaged).
    devca::CertificateAuthority loadCa() const;

    // Certificates signed by the stored CA (throws when there is none). A
    // client certificate lives `lifetime` from now when given (see
    // devca::validForNext), else the CA's default.
    IssuedPem issueClient(const std::string& commonName,
                          std::optional<std::chrono::seconds> lifetime = std::nullopt) const;
    IssuedPem issueServer(const std::string& commonName, const std::vector<std::string>& dnsNames,
                          const std::vector<std::string>& ipAddresses) const;

    // Issues a client certificate to PREFIX.pem and its key to PREFIX.key
    // (both 0600); the CA file is the folder's.
    TlsFiles writeClient(const std::string& commonName, const std::string& prefix,
                         std::optional<std::chrono::seconds> lifetime = std::nullopt) const;
    // The files of a client certificate kept in the folder, issued on first
    // use (e.g. the control plane's own).
    TlsFiles clientFiles(const std::string& commonName) const;

private:
    std::filesystem::path dir_;
};

}  // namespace ndpx::devcloud

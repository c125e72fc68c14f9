#include "devcloud/Home.h"

#include "devca/DevCa.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndpx::devcloud {
namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("devcloud: cannot read " + path.string());
    }
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

IssuedPem pemOf(const devca::Issued& issued) {
    return {issued.certPem, issued.keyPem};
}

void writeOrThrow(const fs::path& path, const std::string& text) {
    if (!devca::writePrivateFile(path.string(), text)) {
        throw std::runtime_error("devcloud: cannot write " + path.string());
    }
}

}  // namespace

Home::Home(const fs::path& dir) : dir_(fs::absolute(dir)) {}

bool Home::hasCa() const {
    return fs::exists(caFile()) && fs::exists(caKeyFile());
}

bool Home::initCa() {
    fs::create_directories(dir_);
    ::chmod(dir_.c_str(), 0700);
    if (hasCa()) {
        return false;
    }
    const auto ca = devca::CertificateAuthority::createRoot("ndpx development CA");
    // The key last: hasCa() then never sees a key without its certificate.
    writeOrThrow(caFile(), ca.certPem());
    writeOrThrow(caKeyFile(), ca.keyPem());
    return true;
}

devca::CertificateAuthority Home::loadCa() const {
    const std::string certPem = readFile(caFile());
    const std::string keyPem = readFile(caKeyFile());
    try {
        return devca::CertificateAuthority::load(certPem, keyPem);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error("devcloud: cannot load the CA from " + dir_.string() + ": " +
                                 e.what());
    }
}

IssuedPem Home::issueClient(const std::string& commonName,
                            std::optional<std::chrono::seconds> lifetime) const {
    return pemOf(lifetime ? loadCa().issueClient(commonName, devca::validForNext(*lifetime))
                          : loadCa().issueClient(commonName));
}

IssuedPem Home::issueServer(const std::string& commonName, const std::vector<std::string>& dnsNames,
                            const std::vector<std::string>& ipAddresses) const {
    return pemOf(loadCa().issueServer(commonName, dnsNames, ipAddresses));
}

TlsFiles Home::writeClient(const std::string& commonName, const std::string& prefix,
                           std::optional<std::chrono::seconds> lifetime) const {
    const IssuedPem issued = issueClient(commonName, lifetime);
    TlsFiles files{caFile().string(), prefix + ".pem", prefix + ".key"};
    writeOrThrow(files.keyFile, issued.keyPem);
    writeOrThrow(files.certFile, issued.certPem);
    return files;
}

TlsFiles Home::clientFiles(const std::string& commonName) const {
    const fs::path dir = dir_ / "clients";
    fs::create_directories(dir);
    std::string name = commonName;
    for (char& c : name) {
        c = c == '/' ? '_' : c;  // desktop identifiers may hold slashes
    }
    const std::string prefix = (dir / name).string();
    if (fs::exists(prefix + ".pem") && fs::exists(prefix + ".key")) {
        return {caFile().string(), prefix + ".pem", prefix + ".key"};
    }
    return writeClient(commonName, prefix);
}

}  // namespace ndpx::devcloud

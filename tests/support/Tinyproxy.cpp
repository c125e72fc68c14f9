#include "support/Tinyproxy.h"

#include "devcloud/BrokerConfig.h"

#include <unistd.h>

#include <fstream>
#include <vector>

namespace ndpx::test {

std::optional<std::string> Tinyproxy::binary() {
    for (const char* path : {"/usr/sbin/tinyproxy", "/usr/bin/tinyproxy"}) {
        if (::access(path, X_OK) == 0) {
            return std::string(path);
        }
    }
    return std::nullopt;
}

Tinyproxy::Tinyproxy(const std::string& extraConfig) {
    // The free port may be taken before tinyproxy binds it: try another.
    for (int attempt = 0; attempt < 5 && !process_; ++attempt) {
        port_ = devcloud::pickFreePort("127.0.0.1");
        const auto conf = (dir_.path() / "tinyproxy.conf").string();
        std::ofstream(conf) << "Port " << port_
                            << "\nListen 127.0.0.1\nTimeout 30\nLogLevel Info\n"
                               "MaxClients 20\nAllow 127.0.0.1\n"
                            << extraConfig;
        auto process = std::make_unique<Process>(
            std::vector<std::string>{binary().value_or("/usr/bin/tinyproxy"), "-d", "-c", conf});
        if (process->waitForLine("Accepting connections")) {
            process_ = std::move(process);
        }
    }
}

bool Tinyproxy::tunnelledTo(int port) const {
    return output().find("CONNECT 127.0.0.1:" + std::to_string(port)) != std::string::npos;
}

}  // namespace ndpx::test

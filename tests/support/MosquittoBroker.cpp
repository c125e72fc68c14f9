#include "support/MosquittoBroker.h"

#include <devcloud/BrokerConfig.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndpx::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool acceptsTcp(const std::string& host, int port) {
    const Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, host.c_str(), &addr.sin_addr);
    return fd.get() >= 0 &&
           ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

constexpr auto kStartLimit = std::chrono::seconds(20);
constexpr int kStartAttempts = 5;

}  // namespace

MosquittoBroker::MosquittoBroker(BrokerOptions options) : options_(options) {
    ca_ = std::make_unique<devca::CertificateAuthority>(
        devca::CertificateAuthority::createRoot("ndpx test broker CA"));
    if (!devca::writePrivateFile(caFile(), ca_->certPem())) {
        throw std::runtime_error("cannot write the broker's CA file");
    }
    const auto server = ca_->issueServer("localhost", {"localhost"}, {"127.0.0.1", "::1"});
    if (!devca::writePrivateFile((dir() / "server.pem").string(), server.certPem) ||
        !devca::writePrivateFile((dir() / "server.key").string(), server.keyPem)) {
        throw std::runtime_error("cannot write the broker's certificate");
    }
    fs::create_directories(dir() / "store");
    fs::create_directories(dir() / "clients");
    // A free port may be taken by someone else before mosquitto binds it.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        port_ = devcloud::pickFreePort(host_);
        writeConfig();
        if (start(kStartLimit)) {
            return;
        }
    }
    throw std::runtime_error("mosquitto did not start:\n" + log());
}

MosquittoBroker::~MosquittoBroker() {
    stop();
}

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

bool MosquittoBroker::start(std::chrono::milliseconds limit) {
    // Each start is judged by the log lines it adds.
    const std::size_t logOffset = readText(dir() / "mosquitto.log").size();
    const std::string conf = (dir() / "mosquitto.conf").string();
    const std::string out = (dir() / "mosquitto.out").string();
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::dup2(fd, 1);
            ::dup2(fd, 2);
        }
        // The test runner may block signals; the broker must see SIGTERM.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execl(devcloud::kMosquittoPath, devcloud::kMosquittoPath, "-c", conf.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    pid_ = pid;
    pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidFd_ < 0) {
        signalAndReap(SIGKILL);
        throw std::runtime_error("pidfd_open failed");
    }

    // Readiness is read from the log file: mosquitto buffers its standard
    // output when that is not a terminal. It logs "running" once it listens.
    if (waitForLogText(" running", logOffset, limit) && acceptsTcp(host_, port_)) {
        return true;
    }
    pollfd exited{pidFd_, POLLIN, 0};
    const bool gone = ::poll(&exited, 1, 0) == 1;
    signalAndReap(SIGKILL);
    if (gone) {
        return false;  // e.g. the port was taken: the caller may try again
    }
    throw std::runtime_error("mosquitto did not become ready:\n" + log());
}

bool MosquittoBroker::waitForLogText(const std::string& text, std::size_t offset,
                                     std::chrono::milliseconds limit) const {
    return waitForFileText(dir(), dir() / "mosquitto.log", text, offset, limit);
}

bool MosquittoBroker::waitForFileText(const fs::path& watchDir, const fs::path& file,
                                      const std::string& text, std::size_t offset,
                                      std::chrono::milliseconds limit) const {
    const auto deadline = Clock::now() + limit;
    const Fd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (watch.get() < 0 || ::inotify_add_watch(watch.get(), watchDir.c_str(),
                                               IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
        throw std::runtime_error("inotify failed");
    }
    for (;;) {
        // Checked after the watch is in place, so no write is missed.
        if (readText(file).find(text, offset) != std::string::npos) {
            return true;
        }
        pollfd fds[2] = {{watch.get(), POLLIN, 0}, {pidFd_, POLLIN, 0}};
        const int n = ::poll(fds, pidFd_ >= 0 ? 2 : 1, remainingMs(deadline));
        if (n == 0 || (n > 0 && (fds[1].revents & POLLIN) != 0)) {
            return false;
        }
        char events[4096];
        while (::read(watch.get(), events, sizeof events) > 0) {
        }
    }
}

bool MosquittoBroker::waitForStore(const std::string& text, std::chrono::milliseconds limit) {
    return waitForFileText(dir() / "store", dir() / "store" / "mosquitto.db", text, 0, limit);
}

void MosquittoBroker::signalAndReap(int sig) {
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, sig);
    // Bounded wait for the exit, then a kill that cannot be ignored.
    pollfd fd{pidFd_, POLLIN, 0};
    if (pidFd_ >= 0 && ::poll(&fd, 1, 10000) == 0 && sig != SIGKILL) {
        ::kill(pid_, SIGKILL);
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    if (pidFd_ >= 0) {
        ::close(pidFd_);
    }
    pid_ = -1;
    pidFd_ = -1;
}

void MosquittoBroker::kill() {
    signalAndReap(SIGKILL);
}

void MosquittoBroker::stop() {
    signalAndReap(SIGTERM);
}

void MosquittoBroker::restart() {
    stop();
    // The port may stay busy for a moment after a kill; the store keeps the
    // port fixed, so try again on the same one.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        if (start(kStartLimit)) {
            return;
        }
    }
    throw std::runtime_error("mosquitto did not restart on port " + std::to_string(port_) + ":\n" +
                             log());
}

void MosquittoBroker::markLog() {
    logMark_ = readText(dir() / "mosquitto.log").size();
}

bool MosquittoBroker::waitForLog(const std::string& text, std::chrono::milliseconds limit) {
    return waitForLogText(text, logMark_, limit);
}

std::string MosquittoBroker::log() const {
    return readText(dir() / "mosquitto.log") + readText(dir() / "mosquitto.out");
}

}  // namespace ndpx::test

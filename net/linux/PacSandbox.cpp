// runPacScript on Linux: the script runs in a forked child process. The
// engine has no way to interrupt a running script, so the wall-clock limit
// is enforced by killing the child; a crash or an exhausted memory budget
// likewise ends only the child. The child touches nothing but the engine and
// the pipe back to its parent; the clock and this machine's addresses are
// read before the fork.

#include "../PacScript.h"
#include "net/CurlUtil.h"
#include "net/ProxyConfig.h"

#include <mfw/moduleLog.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace ndpx::net {

namespace {

// Messages from the child: type, status, 32-bit length, bytes.
constexpr char kResult = 'R';
constexpr char kError = 'E';
constexpr char kAlert = 'A';
constexpr std::size_t kMaxMessage = std::size_t{64} * 1024;
constexpr int kMaxAlerts = 32;

void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void sendMessage(int fd, char type, PacStatus status, const std::string& text) {
    const std::uint32_t len = static_cast<std::uint32_t>(std::min(text.size(), kMaxMessage));
    char header[6];
    header[0] = type;
    header[1] = static_cast<char>(status);
    std::memcpy(header + 2, &len, sizeof len);
    writeAll(fd, header, sizeof header);
    writeAll(fd, text.data(), len);
}

[[noreturn]] void childMain(int fd, const std::string& script, const std::string& url,
                            const std::string& host, PacEnvironment env,
                            std::chrono::milliseconds runTimeout) {
    // Ends with the thread that waits for it, and cannot outspend its limit
    // even if nobody kills it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlim_t cpuSeconds = static_cast<rlim_t>(runTimeout.count() / 1000 + 2);
    const rlimit cpu{cpuSeconds, cpuSeconds + 1};
    ::setrlimit(RLIMIT_CPU, &cpu);
    int alerts = 0;
    env.alert = [fd, &alerts](const std::string& text) {
        if (alerts++ < kMaxAlerts) {
            sendMessage(fd, kAlert, PacStatus::Ok, text.substr(0, 1024));
        }
    };
    std::string result;
    std::string error;
    const PacStatus status = evaluatePac(script, url, host, env, result, error);
    if (status == PacStatus::Ok) {
        sendMessage(fd, kResult, status, result);
    } else {
        sendMessage(fd, kError, status, error);
    }
    ::_exit(0);
}

// The child is reaped here on every path, so its process ID cannot be reused
// while a cancel may still signal it.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child() { reap(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void kill() const { ::kill(pid_, SIGKILL); }
    // Exit status as waitpid reports it; -1 when unknown.
    int reap() {
        if (pid_ > 0) {
            int status = 0;
            pid_t rc;
            do {
                rc = ::waitpid(pid_, &status, 0);
            } while (rc < 0 && errno == EINTR);
            status_ = rc == pid_ ? status : -1;
            pid_ = -1;
        }
        return status_;
    }

private:
    pid_t pid_;
    int status_ = -1;
};

// What the parent read from the child.
struct Reply {
    bool done = false;
    char type = 0;
    PacStatus status = PacStatus::Ok;
    std::string text;
    std::string buffer;
};

void parseMessages(Reply& reply) {
    for (;;) {
        if (reply.buffer.size() < 6) {
            return;
        }
        std::uint32_t len = 0;
        std::memcpy(&len, reply.buffer.data() + 2, sizeof len);
        if (reply.buffer.size() < 6 + len) {
            return;
        }
        const char type = reply.buffer[0];
        const auto status = static_cast<PacStatus>(static_cast<unsigned char>(reply.buffer[1]));
        std::string text = reply.buffer.substr(6, len);
        reply.buffer.erase(0, 6 + len);
        if (type == kAlert) {
            MFW_LOG(1, "PacScript::run(): alert: %s", text.c_str());
        } else if (!reply.done) {
            reply.done = true;
            reply.type = type;
            reply.status = status;
            reply.text = std::move(text);
        }
    }
}

}  // namespace

PacStatus runPacScript(const std::string& script, const std::string& url, const PacLimits& limits,
                       CancelToken* cancel, std::string& result) {
    result.clear();
    const auto parsed = parseUrl(url);
    if (!parsed) {
        MFW_LOG(3, "PacScript::run(): Unable to parse url");
        return PacStatus::BadResult;
    }
    // A script sees where a request goes, not what it asks for.
    std::string scriptUrl = url;
    if (parsed->scheme == "https") {
        const bool v6 = parsed->host.find(':') != std::string::npos;
        scriptUrl = "https://" + (v6 ? "[" + parsed->host + "]" : parsed->host) + ":" +
                    std::to_string(parsed->port) + "/";
    }
    PacEnvironment env = PacEnvironment::current();
    env.maxMemoryBytes = limits.maxMemoryBytes;

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        MFW_LOG(4, "PacScript::run(): pipe failed: %s",
                std::generic_category().message(errno).c_str());
        return PacStatus::SandboxFailed;
    }
    platform::UniqueFd readEnd(fds[0]);
    platform::UniqueFd writeEnd(fds[1]);
    const pid_t pid = ::fork();
    if (pid < 0) {
        MFW_LOG(4, "PacScript::run(): fork failed: %s",
                std::generic_category().message(errno).c_str());
        return PacStatus::SandboxFailed;
    }
    if (pid == 0) {
        childMain(writeEnd.get(), script, scriptUrl, parsed->host, std::move(env),
                  limits.runTimeout);
    }
    writeEnd.reset();
    Child child(pid);

    const auto deadline = std::chrono::steady_clock::now() + limits.runTimeout;
    Reply reply;
    bool timedOut = false;
    {
        CancelToken::Waker waker(cancel, [&child] { child.kill(); });
        char buf[4096];
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                timedOut = true;
                break;
            }
            pollfd pfd{readEnd.get(), POLLIN, 0};
            const int rc = ::poll(&pfd, 1, static_cast<int>(left.count()));
            if (rc < 0 && errno == EINTR) {
                continue;
            }
            if (rc <= 0) {
                continue;  // the deadline check above ends the loop
            }
            const ssize_t n = ::read(readEnd.get(), buf, sizeof buf);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;  // the child is gone
            }
            reply.buffer.append(buf, static_cast<std::size_t>(n));
            if (reply.buffer.size() > 4 * kMaxMessage) {
                break;
            }
            parseMessages(reply);
        }
        if (timedOut || !reply.done) {
            child.kill();
        }
    }
    const int status = child.reap();

    if (cancel != nullptr && cancel->cancelled()) {
        return PacStatus::Cancelled;
    }
    if (timedOut) {
        MFW_LOG(3, "PacScript::run(): The script did not finish within %lld ms",
                static_cast<long long>(limits.runTimeout.count()));
        return PacStatus::TimedOut;
    }
    if (!reply.done) {
        if (status != -1 && WIFSIGNALED(status)) {
            MFW_LOG(3, "PacScript::run(): The script engine ended by signal %d", WTERMSIG(status));
        } else {
            MFW_LOG(3, "PacScript::run(): The script engine ended without an answer (status %d)",
                    status == -1 ? -1 : WEXITSTATUS(status));
        }
        return PacStatus::SandboxFailed;
    }
    if (reply.type != kResult) {
        MFW_LOG(3, "PacScript::run(): %s: %s", pacStatusName(reply.status), reply.text.c_str());
        return reply.status == PacStatus::Ok ? PacStatus::ScriptFailed : reply.status;
    }
    result = std::move(reply.text);
    return PacStatus::Ok;
}

}  // namespace ndpx::net

#include <mfw/corestring.h>
#include <mfw/corethread.h>
#include <mfw/moduleLog.h>
#include <platform/Threads.h>

#include <atomic>
#include <cstring>

namespace CORE {

struct corethreadgroup::Member {
    std::string name;
    std::atomic<long> tid{0};  // written by the thread itself, read for the wait's log
    bool finished = false;
    std::thread owned;  // set for start-and-forget threads
};

corethreadgroup& corethreadgroup::module() {
    // Destroyed when the module is unloaded, after PluginExit has emptied it.
    static corethreadgroup group;
    return group;
}

std::shared_ptr<corethreadgroup::Member> corethreadgroup::enter(const std::string& name) {
    auto member = std::make_shared<Member>();
    member->name = name;
    std::lock_guard lock(mutex_);
    members_.push_back(member);
    return member;
}

void corethreadgroup::adopt(const std::shared_ptr<Member>& member,
                            const std::function<std::thread()>& make) {
    // Made under the lock: the new thread cannot leave() before it is owned.
    std::lock_guard lock(mutex_);
    member->owned = make();
}

void corethreadgroup::leave(const std::shared_ptr<Member>& member) {
    {
        std::lock_guard lock(mutex_);
        member->finished = true;
    }
    changed_.notify_all();
}

std::size_t corethreadgroup::running() const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& m : members_) {
        n += m->finished ? 0 : 1;
    }
    return n;
}

void corethreadgroup::wait(std::chrono::milliseconds slice, std::chrono::milliseconds logEvery) {
    auto waited = std::chrono::milliseconds(0);
    auto nextLog = logEvery;
    std::unique_lock lock(mutex_);
    for (;;) {
        // Drop finished members; join the threads the group owns (outside the lock).
        std::vector<std::thread> toJoin;
        for (auto it = members_.begin(); it != members_.end();) {
            if ((*it)->finished) {
                if ((*it)->owned.joinable()) {
                    toJoin.push_back(std::move((*it)->owned));
                }
                it = members_.erase(it);
            } else {
                ++it;
            }
        }
        if (!toJoin.empty()) {
            lock.unlock();
            for (auto& t : toJoin) {
                t.join();
            }
            lock.lock();
            continue;
        }
        if (members_.empty()) {
            break;
        }
        changed_.wait_for(lock, slice);
        waited += slice;
        if (waited >= nextLog) {
            nextLog += logEvery;
            std::string ids;
            for (const auto& m : members_) {
                if (!m->finished) {
                    ids += " " + std::to_string(m->tid.load()) + "(" + m->name + ")";
                }
            }
            lock.unlock();
            MFW_LOG(kLogVerbose, "corethreadgroup::wait threadIds:%s", ids.c_str());
            lock.lock();
        }
    }
    lock.unlock();
    MFW_LOG(kLogVerbose, "corethreadgroup::wait done");
}

namespace {

// The member entry is made before the thread starts, so a wait that begins
// right after start() already sees it.
void runBody(const std::shared_ptr<corethreadgroup::Member>& member, const std::string& name,
             const std::function<void()>& body) {
    member->tid = static_cast<long>(ndpx::platform::currentThreadId());
    corethread::setCurrentThreadName(name);
    try {
        body();
    } catch (const std::exception& e) {
        MFW_LOG(kLogError, "corethread %s: unhandled exception: %s", name.c_str(), e.what());
    } catch (...) {
        MFW_LOG(kLogError, "corethread %s: unhandled exception", name.c_str());
    }
    corethreadgroup::module().leave(member);
}

// Thread names: whether to keep them is read once per process.
std::atomic<int> g_useNamesState{0};  // 0 unknown, 1 reading, 2 known
std::atomic<bool> g_useNames{true};

bool useThreadNames() {
    int expected = 0;
    if (g_useNamesState.compare_exchange_strong(expected, 1)) {
        const auto text =
            readRegistry("HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\mfwUseThreadNames");
        bool use = true;
        if (text) {
            use = iequals(*text, "true") || *text == "1" ||
                  (!text->empty() && std::strtol(text->c_str(), nullptr, 10) != 0);
        }
        g_useNames.store(use);
        g_useNamesState.store(2);
    } else {
        while (g_useNamesState.load() != 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    return g_useNames.load();
}

// "name=" + one byte (kept length + 1) + up to 254 characters + a zero byte.
// Trivially destructible, so it is safe in a module that is unloaded.
thread_local char t_nameRecord[5 + 1 + 254 + 1] = {};

}  // namespace

corethread::~corethread() {
    join();
}

bool corethread::start(const std::string& name, std::function<void()> body) {
    if (thread_.joinable()) {
        return false;
    }
    auto member = corethreadgroup::module().enter(name);
    try {
        thread_ =
            std::thread([member, name, body = std::move(body)] { runBody(member, name, body); });
    } catch (const std::system_error&) {
        corethreadgroup::module().leave(member);
        return false;
    }
    return true;
}

ownedthreadFactory corethread::factory() {
    return [] { return std::make_unique<corethread>(); };
}

void corethread::join() {
    if (thread_.joinable() && !isCurrentThread()) {
        thread_.join();
    }
}

bool corethread::startDetached(const std::string& name, std::function<void()> body) {
    auto& group = corethreadgroup::module();
    auto member = group.enter(name);
    try {
        group.adopt(member, [&] {
            return std::thread(
                [member, name, body = std::move(body)] { runBody(member, name, body); });
        });
    } catch (const std::system_error&) {
        group.leave(member);
        return false;
    }
    return true;
}

void corethread::setCurrentThreadName(const std::string& name) {
    ndpx::platform::setCurrentThreadOsName(name);
    if (!useThreadNames()) {
        return;
    }
    const std::size_t kept = std::min<std::size_t>(name.size(), 254);
    std::memcpy(t_nameRecord, "name=", 5);
    t_nameRecord[5] = static_cast<char>(kept + 1);
    std::memcpy(t_nameRecord + 6, name.data(), kept);
    t_nameRecord[6 + kept] = '\0';
}

std::string corethread::currentThreadName() {
    if (std::memcmp(t_nameRecord, "name=", 5) != 0) {
        return {};
    }
    const auto kept = static_cast<std::size_t>(static_cast<unsigned char>(t_nameRecord[5])) - 1;
    return std::string(t_nameRecord + 6, kept);
}

}  // namespace CORE

#pragma once
// The module's threads. Every thread started here belongs to the module's
// thread group, which PluginExit waits on before the host unloads the module.
// A corethread object owns its thread and joins it; start-and-forget threads
// are owned (and joined) by the group.

#include <mfw/ownedthread.h>
#include <chrono>

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace CORE {

class corethreadgroup {
public:
    // The group of the module this code is linked into.
    static corethreadgroup& module();

    // Waits, without limit, until every thread of the group has ended.
    // Logs the ids still running every `logEvery`.
    void wait(std::chrono::milliseconds slice = std::chrono::milliseconds(1000),
              std::chrono::milliseconds logEvery = std::chrono::milliseconds(2000));
    std::size_t running() const;

    struct Member;
    std::shared_ptr<Member> enter(const std::string& name);
    void leave(const std::shared_ptr<Member>& member);
    void adopt(const std::shared_ptr<Member>& member, const std::function<std::thread()>& make);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::list<std::shared_ptr<Member>> members_;
};

class corethread : public ownedthread {
public:
    corethread() = default;
    ~corethread() override;  // joins
    corethread(const corethread&) = delete;
    corethread& operator=(const corethread&) = delete;

    // Starts `body` on a new named thread. False if one is already running
    // here or the thread cannot be created. Exceptions from `body` are logged.
    bool start(const std::string& name, std::function<void()> body) override;
    void join() override;
    bool joinable() const override { return thread_.joinable(); }
    bool isCurrentThread() const override { return thread_.get_id() == std::this_thread::get_id(); }

    // Makes threads of this module's group, for host framework objects that
    // run a thread of their own (coretimer).
    static ownedthreadFactory factory();

    // A thread that nobody joins but the group.
    static bool startDetached(const std::string& name, std::function<void()> body);

    // Names the calling thread (kept in thread-local data when the setting
    // "mfwUseThreadNames" allows, and shown to the OS).
    static void setCurrentThreadName(const std::string& name);
    // The name kept for the calling thread, or empty.
    static std::string currentThreadName();

private:
    std::thread thread_;
};

}  // namespace CORE

#pragma once
// A thread with one owner, who starts it and joins it. The host framework's
// objects that run a thread of their own (the periodic timer) take a factory
// of these, so that a module can hand them threads of its own thread group,
// which PluginExit waits for.

#include <functional>
#include <memory>
#include <string>

namespace CORE {

class ownedthread {
public:
    virtual ~ownedthread() = default;
    // False if one is already running here or none can be made.
    virtual bool start(const std::string& name, std::function<void()> body) = 0;
    // Joins unless called on the thread itself.
    virtual void join() = 0;
    virtual bool joinable() const = 0;
    virtual bool isCurrentThread() const = 0;
};

using ownedthreadFactory = std::function<std::unique_ptr<ownedthread>()>;

// Plain threads, for the host's own objects.
std::unique_ptr<ownedthread> makePlainThread();

}  // namespace CORE

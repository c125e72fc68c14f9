#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>

#include <platform/Threads.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace CORE {
namespace {

constexpr const char* kSource = "mfw";

struct SyncState {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    bool aborted = false;
    int result = kErrorSuccess;
    PropertyBag response;
};

struct Request {
    std::wstring operation;
    PropertyBag request;
    std::shared_ptr<SyncState> sync;                       // SendMsg
    MessageHandler::AsyncCompletion completion = nullptr;  // SendAsyncMsg
    void* context = nullptr;
    std::wstring requestId;
    std::uint64_t sequence = 0;
};

int resultOf(bool handled, const PropertyBag& response) {
    if (auto code = response.getInt64(kReplyErrorCode); code && *code != 0) {
        return static_cast<int>(*code);
    }
    return handled ? kErrorSuccess : kErrorHandlerFailed;
}

std::wstring keyOf(const std::wstring& name) {
    std::wstring key = name;
    for (auto& c : key) {
        if (c >= L'A' && c <= L'Z') {
            c = static_cast<wchar_t>(c - L'A' + L'a');
        }
    }
    return key;
}

struct Worker {
    std::wstring name;
    WorkItemFactory factory = nullptr;
    void* context = nullptr;
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<Request> queue;
    bool stopping = false;
    std::vector<std::thread> threads;
};

}  // namespace

struct MessageFrameWork::Impl {
    std::mutex mutex;
    std::condition_variable workersChanged;
    std::map<std::wstring, std::shared_ptr<Worker>> workers;  // by lower-case name
    bool shuttingDown = false;

    // Async completions: running count and the cancel mark per context.
    std::mutex asyncMutex;
    std::condition_variable asyncIdle;
    std::uint64_t nextSequence = 1;
    std::map<void*, int> runningCompletions;
    std::map<void*, std::uint64_t> cancelledUpTo;

    std::shared_ptr<Worker> find(const std::wstring& name) {
        std::lock_guard lock(mutex);
        auto it = workers.find(keyOf(name));
        return it == workers.end() ? nullptr : it->second;
    }

    bool enqueue(const std::wstring& queueName, Request&& request) {
        auto worker = find(queueName);
        if (!worker) {
            return false;
        }
        {
            std::lock_guard lock(worker->mutex);
            if (worker->stopping) {
                return false;
            }
            worker->queue.push_back(std::move(request));
        }
        worker->cv.notify_one();
        return true;
    }

    void complete(Request& request, int result, PropertyBag& response) {
        if (request.sync) {
            {
                std::lock_guard lock(request.sync->mutex);
                request.sync->result = result;
                request.sync->response = std::move(response);
                request.sync->done = true;
            }
            request.sync->cv.notify_all();
            return;
        }
        if (request.completion == nullptr) {
            return;
        }
        {
            std::lock_guard lock(asyncMutex);
            auto it = cancelledUpTo.find(request.context);
            if (it != cancelledUpTo.end() && request.sequence <= it->second) {
                return;  // the sender is gone
            }
            ++runningCompletions[request.context];
        }
        try {
            request.completion(request.context, request.requestId, result, response);
        } catch (...) {
            __SysMessage(kSource, kLogError, "MessageFrameWork: completion for request %s threw",
                         toUtf8(request.requestId).c_str());
        }
        {
            std::lock_guard lock(asyncMutex);
            if (--runningCompletions[request.context] == 0) {
                runningCompletions.erase(request.context);
            }
        }
        asyncIdle.notify_all();
    }

    void handle(Worker& worker, Request& request) {
        PropertyBag response;
        bool handled = false;
        try {
            std::unique_ptr<WorkItem> item = worker.factory(worker.context);
            if (item) {
                handled = item->handleMessage(request.operation, request.request, response);
            }
        } catch (const std::exception& e) {
            __SysMessage(kSource, kLogError, "MessageFrameWork: %s/%s threw: %s",
                         toUtf8(worker.name).c_str(), toUtf8(request.operation).c_str(), e.what());
        } catch (...) {
            __SysMessage(kSource, kLogError, "MessageFrameWork: %s/%s threw",
                         toUtf8(worker.name).c_str(), toUtf8(request.operation).c_str());
        }
        complete(request, resultOf(handled, response), response);
    }

    void run(const std::shared_ptr<Worker>& worker) {
        for (;;) {
            Request request;
            bool fail = false;
            {
                std::unique_lock lock(worker->mutex);
                worker->cv.wait(lock, [&] { return worker->stopping || !worker->queue.empty(); });
                if (worker->queue.empty()) {
                    return;
                }
                request = std::move(worker->queue.front());
                worker->queue.pop_front();
                fail = worker->stopping;
            }
            if (fail) {
                PropertyBag empty;
                complete(request, kErrorShutdown, empty);
            } else {
                handle(*worker, request);
            }
        }
    }

    void stopWorker(const std::shared_ptr<Worker>& worker) {
        {
            std::lock_guard lock(worker->mutex);
            worker->stopping = true;
        }
        worker->cv.notify_all();
        for (auto& t : worker->threads) {
            if (t.joinable()) {
                t.join();
            }
        }
    }
};

MessageFrameWork::MessageFrameWork() : impl_(std::make_unique<Impl>()) {}

MessageFrameWork::~MessageFrameWork() {
    Shutdown();
}

MessageFrameWork& MessageFrameWork::System() {
    static MessageFrameWork instance;
    return instance;
}

void MessageFrameWork::AddWorkerEx(WorkItemFactory factory, void* context, const std::wstring& name,
                                   const std::wstring& description, std::uint32_t /*flags*/,
                                   void* /*reserved*/, unsigned threads) {
    if (factory == nullptr || name.empty()) {
        throw coreException("AddWorkerEx: a worker needs a name and a factory");
    }
    auto worker = std::make_shared<Worker>();
    worker->name = name;
    worker->factory = factory;
    worker->context = context;
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->shuttingDown) {
            throw coreException("AddWorkerEx: the framework is shutting down");
        }
        if (impl_->workers.count(keyOf(name)) != 0) {
            throw coreException("AddWorkerEx: worker " + toUtf8(name) + " already exists");
        }
        for (unsigned i = 0; i < std::max(threads, 1u); ++i) {
            worker->threads.emplace_back([impl = impl_.get(), worker] {
                // Named for its worker, not after the thread that added it.
                ndpx::platform::setCurrentThreadOsName(toUtf8(worker->name));
                impl->run(worker);
            });
        }
        impl_->workers.emplace(keyOf(name), worker);
    }
    impl_->workersChanged.notify_all();
    __SysMessage(kSource, kLogVerbose, "MessageFrameWork: worker %s added (%s)",
                 toUtf8(name).c_str(), toUtf8(description).c_str());
}

bool MessageFrameWork::RemoveWorker(const std::wstring& name, std::uint32_t /*flags*/) {
    std::shared_ptr<Worker> worker;
    {
        std::lock_guard lock(impl_->mutex);
        auto it = impl_->workers.find(keyOf(name));
        if (it == impl_->workers.end()) {
            return false;
        }
        for (const auto& t : it->second->threads) {
            if (t.get_id() == std::this_thread::get_id()) {
                __SysMessage(kSource, kLogError, "MessageFrameWork: worker %s cannot remove itself",
                             toUtf8(name).c_str());
                return false;
            }
        }
        worker = it->second;
        impl_->workers.erase(it);
    }
    impl_->workersChanged.notify_all();
    impl_->stopWorker(worker);
    __SysMessage(kSource, kLogVerbose, "MessageFrameWork: worker %s removed", toUtf8(name).c_str());
    return true;
}

bool MessageFrameWork::IsWorkerInstalled(const std::wstring& name, std::uint32_t timeoutMs,
                                         coreevent* abort) {
    bool aborted = false;
    std::optional<coreevent::Waker> waker;
    if (abort != nullptr) {
        waker.emplace(*abort, [&] {
            {
                std::lock_guard lock(impl_->mutex);
                aborted = true;
            }
            impl_->workersChanged.notify_all();
        });
    }
    std::unique_lock lock(impl_->mutex);
    auto present = [&] { return impl_->workers.count(keyOf(name)) != 0; };
    auto over = [&] { return present() || impl_->shuttingDown || aborted; };
    if (timeoutMs == kInfinite) {
        impl_->workersChanged.wait(lock, over);
    } else {
        impl_->workersChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), over);
    }
    return present();
}

std::vector<std::wstring> MessageFrameWork::workerNames() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<std::wstring> names;
    for (const auto& [key, worker] : impl_->workers) {
        names.push_back(worker->name);
    }
    return names;
}

int MessageFrameWork::SendMsg(const std::wstring& queue, const std::wstring& operation,
                              const PropertyBag& request, PropertyBag& response,
                              std::uint32_t timeoutMs, coreevent* abort) {
    auto state = std::make_shared<SyncState>();
    Request r;
    r.operation = operation;
    r.request = request;
    r.sync = state;
    if (!impl_->enqueue(queue, std::move(r))) {
        return kErrorNotFound;
    }
    std::optional<coreevent::Waker> waker;
    if (abort != nullptr) {
        waker.emplace(*abort, [state] {
            {
                std::lock_guard lock(state->mutex);
                state->aborted = true;
            }
            state->cv.notify_all();
        });
    }
    std::unique_lock lock(state->mutex);
    auto over = [&] { return state->done || state->aborted; };
    if (timeoutMs == kInfinite) {
        state->cv.wait(lock, over);
    } else if (!state->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), over)) {
        return kErrorTimeout;
    }
    if (!state->done) {
        return kErrorShutdown;
    }
    response = std::move(state->response);
    return state->result;
}

bool MessageFrameWork::PostMsg(const std::wstring& queue, const std::wstring& operation,
                               const PropertyBag& request) {
    Request r;
    r.operation = operation;
    r.request = request;
    return impl_->enqueue(queue, std::move(r));
}

bool MessageFrameWork::SendAsyncMsg(const std::wstring& queue, const std::wstring& operation,
                                    const PropertyBag& request,
                                    MessageHandler::AsyncCompletion completion, void* context,
                                    const std::wstring& requestId) {
    Request r;
    r.operation = operation;
    r.request = request;
    r.completion = completion;
    r.context = context;
    r.requestId = requestId;
    {
        std::lock_guard lock(impl_->asyncMutex);
        r.sequence = impl_->nextSequence++;
    }
    return impl_->enqueue(queue, std::move(r));
}

void MessageFrameWork::CancelAsyncCompletions(void* context) {
    std::unique_lock lock(impl_->asyncMutex);
    impl_->cancelledUpTo[context] = impl_->nextSequence - 1;
    impl_->asyncIdle.wait(lock, [&] { return impl_->runningCompletions.count(context) == 0; });
}

void MessageFrameWork::Shutdown() {
    std::map<std::wstring, std::shared_ptr<Worker>> workers;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->shuttingDown = true;
        workers.swap(impl_->workers);
    }
    impl_->workersChanged.notify_all();
    for (auto& [key, worker] : workers) {
        impl_->stopWorker(worker);
    }
}

int MessageHandler::SendMsg(const std::wstring& queue, const std::wstring& operation,
                            const PropertyBag& request, PropertyBag& response,
                            std::uint32_t timeoutMs) {
    return MessageFrameWork::System().SendMsg(queue, operation, request, response, timeoutMs);
}

int MessageHandler::SendMsg(const std::wstring& queue, const std::wstring& operation,
                            const PropertyBag& request, PropertyBag& response,
                            std::uint32_t timeoutMs, coreevent& abort) {
    return MessageFrameWork::System().SendMsg(queue, operation, request, response, timeoutMs,
                                              &abort);
}

bool MessageHandler::PostMsg(const std::wstring& queue, const std::wstring& operation,
                             const PropertyBag& request) {
    return MessageFrameWork::System().PostMsg(queue, operation, request);
}

bool MessageHandler::SendAsyncMsg(const std::wstring& queue, const std::wstring& operation,
                                  const PropertyBag& request, AsyncCompletion completion,
                                  void* context, const std::wstring& requestId) {
    return MessageFrameWork::System().SendAsyncMsg(queue, operation, request, completion, context,
                                                   requestId);
}

bool serviceOperation::startHook(const std::wstring&, PropertyBag&, PropertyBag&) {
    return true;
}

void serviceOperation::endHook(const std::wstring&, PropertyBag&, PropertyBag&) {}

void serviceOperation::setReplyError(PropertyBag& response, int code, std::wstring_view text) {
    response.setInt(kReplyErrorCode, code);
    if (!text.empty()) {
        response.set(kReplyErrorText, text);
    }
}

}  // namespace CORE

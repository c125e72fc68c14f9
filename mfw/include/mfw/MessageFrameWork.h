#pragma once
// Workers and messages. A worker is a named queue; every request to it is
// handled by a fresh WorkItem (made by the worker's factory) on one of the
// worker's threads. Requests and answers carry PropertyBags.

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>
#include <mfw/coreref.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace CORE {

// Result codes (Windows error numbers, as the agent's workers use them).
inline constexpr int kErrorSuccess = 0;
inline constexpr int kErrorNotImplemented = 120;  // ERROR_CALL_NOT_IMPLEMENTED
inline constexpr int kErrorShutdown = 1115;       // ERROR_SHUTDOWN_IN_PROGRESS
inline constexpr int kErrorNotFound = 1168;       // ERROR_NOT_FOUND: no such worker
inline constexpr int kErrorTimeout = 1460;        // ERROR_TIMEOUT
inline constexpr int kErrorHandlerFailed = 1627;  // ERROR_FUNCTION_FAILED: handler returned false

// Names under which a handler's reply error travels in the response bag.
inline constexpr std::wstring_view kReplyErrorCode = L"ErrorCode";
inline constexpr std::wstring_view kReplyErrorText = L"ErrorText";

class MessageHandler {
public:
    virtual ~MessageHandler() = default;

    // Handles one request on a worker thread; true when handled.
    virtual bool handleMessage(const std::wstring& operation, PropertyBag& request,
                               PropertyBag& response) = 0;

    // Completion of SendAsyncMsg: runs on a worker thread once the request was
    // handled (or failed to be delivered). responseType 0 means success, else
    // an error code.
    using AsyncCompletion = void (*)(void* context, const std::wstring& requestId, int responseType,
                                     PropertyBag& response);

    // Sends and waits up to `timeoutMs` (kInfinite: no limit). Returns 0 or an
    // error code; `response` holds the worker's answer.
    static int SendMsg(const std::wstring& queue, const std::wstring& operation,
                       const PropertyBag& request, PropertyBag& response,
                       std::uint32_t timeoutMs = kInfinite);
    // As above, but the wait also ends, with kErrorShutdown, when `abort` is
    // set (a stopping sender does not sit out the worker's time-out).
    static int SendMsg(const std::wstring& queue, const std::wstring& operation,
                       const PropertyBag& request, PropertyBag& response, std::uint32_t timeoutMs,
                       coreevent& abort);
    // Fire and forget. False when the worker does not exist.
    static bool PostMsg(const std::wstring& queue, const std::wstring& operation,
                        const PropertyBag& request);
    static bool SendAsyncMsg(const std::wstring& queue, const std::wstring& operation,
                             const PropertyBag& request, AsyncCompletion completion, void* context,
                             const std::wstring& requestId);
};

class WorkItem : public MessageHandler {};

// A request handled for a service. Subclasses call the hooks around their work.
class serviceOperation : public WorkItem {
protected:
    // May refuse the request.
    virtual bool startHook(const std::wstring& operation, PropertyBag& request,
                           PropertyBag& response);
    virtual void endHook(const std::wstring& operation, PropertyBag& request,
                         PropertyBag& response);

public:
    // The reply error setter: the caller of SendMsg gets `code` as its result.
    static void setReplyError(PropertyBag& response, int code, std::wstring_view text = {});
};

class service : public coreref {};

using WorkItemFactory = std::unique_ptr<WorkItem> (*)(void* context);

class MessageFrameWork {
public:
    static MessageFrameWork& System();

    // Registers a worker served by `threads` threads. Throws coreException
    // when the name is taken or the framework is shutting down.
    void AddWorkerEx(WorkItemFactory factory, void* context, const std::wstring& name,
                     const std::wstring& description, std::uint32_t flags, void* reserved,
                     unsigned threads = 2);
    // Stops taking requests, fails queued ones with kErrorShutdown and waits
    // for running ones. False when no such worker exists. Must not be called
    // from one of that worker's own threads.
    bool RemoveWorker(const std::wstring& name, std::uint32_t flags);
    // Waits up to `timeoutMs` for a worker of that name to be registered;
    // the wait ends early, with false, when `abort` is set.
    bool IsWorkerInstalled(const std::wstring& name, std::uint32_t timeoutMs,
                           coreevent* abort = nullptr);
    std::vector<std::wstring> workerNames() const;

    int SendMsg(const std::wstring& queue, const std::wstring& operation,
                const PropertyBag& request, PropertyBag& response,
                std::uint32_t timeoutMs = kInfinite, coreevent* abort = nullptr);
    bool PostMsg(const std::wstring& queue, const std::wstring& operation,
                 const PropertyBag& request);
    bool SendAsyncMsg(const std::wstring& queue, const std::wstring& operation,
                      const PropertyBag& request, MessageHandler::AsyncCompletion completion,
                      void* context, const std::wstring& requestId);

    // Waits until no completion for `context` is running and drops the ones
    // not yet run, so a module can be unloaded safely.
    void CancelAsyncCompletions(void* context);

    // Removes every worker (host shutdown).
    void Shutdown();

    ~MessageFrameWork();

private:
    MessageFrameWork();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace CORE

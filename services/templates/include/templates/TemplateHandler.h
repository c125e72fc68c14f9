#pragma once
// Desktop template messages: the domain join (or the wait for an Azure AD
// join), the time zone and the desktop's IDs, and the start-up report that
// tells the control plane whether the desktop still needs its domain
// information. Messages arrive on the dispatch thread and are queued for the
// handler's own worker, so a join that takes minutes never holds up
// commands.

#include "domain/AbsDomainUtil.h"
#include "monitors/AzureADMonitor.h"
#include "monitors/RestartMonitor.h"
#include "services/SerialExecutor.h"
#include "templates/TemplateHost.h"
#include "timezone/SystemTimeZone.h"

#include <mfw/coreevent.h>
#include <platform/TimeSource.h>

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ndpx {

class mqttConfig;

// The machine-facing parts the handler drives; each one left empty is this
// platform's own.
struct TemplateBackends {
    std::shared_ptr<AbsDomainUtil> domain;
    std::shared_ptr<SystemTimeZone> timeZone;
    // Makes the Azure AD join query the handler's monitor owns.
    std::function<std::unique_ptr<AadJoinQuery>()> azureAd;
};

class TemplateHandler {
public:
    using ConfigSource = std::function<std::shared_ptr<mqttConfig>()>;

    TemplateHandler(TemplateHost& host, ConfigSource config, TemplateBackends backends,
                    platform::TimeSource& time = platform::TimeSource::real());
    ~TemplateHandler();
    TemplateHandler(const TemplateHandler&) = delete;
    TemplateHandler& operator=(const TemplateHandler&) = delete;

    // Queue a message, or the start-up report, for the worker; dropped with
    // a line once the handler has stopped.
    void HandleMsg(const Json::Value& message);
    void HandleDomainJoin();

    void Start();
    // Stops the monitors, ends a running join and joins the worker.
    void Stop();

    // The decision tree and the start-up report, run on the worker (tests
    // call them directly).
    void ProcessMsg(const Json::Value& message);
    void ReportDomainJoin();

    // The longest "defaultOU" taken: a distinguished name is far shorter.
    static constexpr std::size_t kMaxOuLength = 1024;

private:
    void HandleDomainJoinForFF();
    void UpdateIDs(const Json::Value& message);
    void UpdateTimeZone(const Json::Value& message);
    void Customize(const Json::Value& message);
    void JoinAzureAd();
    void JoinDomain(const Json::Value& message);
    bool doDomainJoin(const std::string& domain, const std::string& ou, const std::string& user,
                      const std::string& password, std::uint32_t& error);
    void publish(const std::string& status, int detailKind = 0, const std::string& detail = {});

    TemplateHost& host_;
    const ConfigSource config_;
    // Set by Stop: a join or query under way ends at once.
    CORE::coreevent stop_;
    TemplateBackends backends_;
    RestartMonitor restart_;
    AzureADMonitor azureAd_;
    SerialExecutor worker_{"TemplateWorker"};
    std::atomic<bool> running_{false};
};

}  // namespace ndpx

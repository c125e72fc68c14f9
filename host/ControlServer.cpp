#include "host/ControlServer.h"

#include "host/AcceptLoop.h"
#include "host/MetricsFile.h"

#include <config/MqttManagerUtil.h>
#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <platform/Threads.h>

#include <json/reader.h>

#include <unistd.h>

#include <memory>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

Json::Value failure(const std::string& text, int result = 0) {
    Json::Value answer(Json::objectValue);
    answer["ok"] = false;
    answer["error"] = text;
    if (result != 0) {
        answer["result"] = result;
    }
    return answer;
}

std::string textOf(const Json::Value& value) {
    return value.isString() ? value.asString() : std::string();
}

std::string resultText(int result) {
    switch (result) {
        case CORE::kErrorNotFound:
            return "no such worker";
        case CORE::kErrorTimeout:
            return "the worker did not answer in time";
        case CORE::kErrorShutdown:
            return "the host is stopping";
        case CORE::kErrorNotImplemented:
            return "operation not implemented";
        default:
            return "the worker answered error " + std::to_string(result);
    }
}

Json::Value answerSend(const Json::Value& request, CORE::coreevent& abort,
                       std::uint32_t timeoutMs) {
    const Json::Value& worker = request["worker"];
    const Json::Value& operation = request["operation"];
    if (!worker.isString() || worker.asString().empty() || !operation.isString() ||
        operation.asString().empty()) {
        return failure("send needs a worker and an operation");
    }
    CORE::PropertyBag bag;
    if (request.isMember("bag") && !MqttManagerUtil::JSONToBag(request["bag"], bag)) {
        return failure("the request's bag is not a JSON object");
    }
    const std::wstring queue = CORE::toWide(worker.asString());
    if (!CORE::MessageFrameWork::System().IsWorkerInstalled(queue, 0)) {
        return failure("no worker named \"" + worker.asString() + "\" in this host",
                       CORE::kErrorNotFound);
    }
    CORE::PropertyBag reply;
    const int result = CORE::MessageHandler::SendMsg(queue, CORE::toWide(operation.asString()), bag,
                                                     reply, timeoutMs, abort);
    Json::Value answer(Json::objectValue);
    answer["ok"] = result == CORE::kErrorSuccess;
    answer["result"] = result;
    answer["reply"] =
        reply.empty() ? Json::Value(Json::objectValue) : MqttManagerUtil::BagToJSON(reply);
    if (result != CORE::kErrorSuccess) {
        const auto text = reply.get(CORE::kReplyErrorText);
        answer["error"] = text && !text->empty() ? CORE::toUtf8(*text) : resultText(result);
    }
    return answer;
}

bool parseRequest(const std::string& line, Json::Value& out) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 64;  // no request nests deeper; a hostile one may
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        return reader->parse(line.data(), line.data() + line.size(), &out, &errors) &&
               out.isObject();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

Json::Value answerControlRequest(const Json::Value& request, const MetricsFile* metrics,
                                 CORE::coreevent& abort, std::uint32_t sendTimeoutMs) {
    const std::string kind = textOf(request["request"]);
    if (kind == "send") {
        return answerSend(request, abort, sendTimeoutMs);
    }
    if (kind == "status") {
        Json::Value answer(Json::objectValue);
        answer["ok"] = true;
        answer["status"] =
            composeStatus(metrics != nullptr ? metrics->latest("MQTTMetrics") : Json::Value());
        return answer;
    }
    return failure("unknown request \"" + kind + "\" (known: send, status)");
}

ControlServer::ControlServer(std::filesystem::path socket,
                             std::shared_ptr<const MetricsFile> metrics, ControlLimits limits)
    : socket_(std::move(socket)), metrics_(std::move(metrics)), limits_(limits) {}

ControlServer::~ControlServer() {
    stop();
    listener_.reset();
}

bool ControlServer::start(std::string& error) {
    if (!listener_ || thread_.joinable()) {
        error = "the control server runs once";
        return false;
    }
    if (!listener_->listen(socket_, error)) {
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

void ControlServer::stop() {
    stop_.set();
    abort_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
    // The name goes now, so no client finds a host that no longer answers;
    // the listening socket itself stays open until the server goes: the
    // module, still running while the host stops, looks at the process's
    // sockets when it reconnects and must not race a close of this one.
    std::error_code ignored;
    std::filesystem::remove(socket_, ignored);
}

void ControlServer::run() {
    platform::setCurrentThreadOsName("AgentCtl");
    acceptUntilStopped(*listener_, stop_, "agentctl",
                       [this](platform::LocalStream& client) { serve(client); });
}

void ControlServer::serve(platform::LocalStream& client) {
    const auto peer = client.peerCredentials();
    const auto reply = [&](const Json::Value& answer) {
        const platform::IoResult written = client.writeAll(
            MqttManagerUtil::writeCompact(answer) + "\n", limits_.writeTimeout, &stop_);
        if (written != platform::IoResult::Ok) {
            CORE::__SysMessage(kSource, CORE::kLogWarning, "agentctl: answer not delivered: %s",
                               platform::ioResultText(written));
        }
    };
    if (!peer || (peer->uid != 0 && peer->uid != ::geteuid())) {
        const std::string who = peer ? "uid " + std::to_string(peer->uid) : "an unknown user";
        CORE::__SysMessage(kSource, CORE::kLogWarning, "agentctl: refused %s (pid %d)", who.c_str(),
                           peer ? peer->pid : 0);
        Json::Value answer = failure("refused: " + who +
                                     " is not root; only root may control "
                                     "agenthost");
        answer["refused"] = true;
        reply(answer);
        return;
    }
    std::string line;
    const platform::IoResult read =
        client.readLine(line, limits_.maxRequestBytes, limits_.readTimeout, &stop_);
    if (read != platform::IoResult::Ok) {
        CORE::__SysMessage(kSource, CORE::kLogWarning, "agentctl: request from pid %d dropped: %s",
                           peer->pid, platform::ioResultText(read));
        if (read == platform::IoResult::TooLong) {
            reply(failure("request longer than " + std::to_string(limits_.maxRequestBytes) +
                          " bytes"));
        }
        return;
    }
    Json::Value request;
    if (!parseRequest(line, request)) {
        CORE::__SysMessage(kSource, CORE::kLogWarning,
                           "agentctl: request from pid %d is not a JSON object", peer->pid);
        reply(failure("the request is not a JSON object"));
        return;
    }
    // Names only: a request's values may be secrets (a bootstrap document).
    std::string what = textOf(request["request"]);
    for (const char* name : {"worker", "operation"}) {
        if (const std::string text = textOf(request[name]); !text.empty()) {
            what += " " + text;
        }
    }
    CORE::__SysMessage(kSource, CORE::kLogInfo, "agentctl: uid %u pid %d: %s", peer->uid, peer->pid,
                       what.c_str());
    const Json::Value answer =
        answerControlRequest(request, metrics_.get(), abort_, limits_.sendTimeoutMs);
    if (answer.isMember("error")) {
        CORE::__SysMessage(kSource, CORE::kLogInfo, "agentctl: %s: %s", what.c_str(),
                           answer["error"].asCString());
    }
    reply(answer);
}

}  // namespace ndpx::host

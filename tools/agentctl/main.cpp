// agentctl: the operator's handle on a running agenthost: its status, and
// requests to its workers (the module's "MQTT" worker among them) over the
// host's local control socket. Only root may use it.

#include "agentctl/Requests.h"

#include <config/MqttManagerUtil.h>
#include <platform/LocalSocket.h>
#include <platform/Paths.h>

#include <json/writer.h>
#include <CLI/CLI.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

namespace agentctl = ndpx::agentctl;
using ndpx::platform::IoResult;

// A worker may take up to 30 s to answer; the host's answer follows.
constexpr std::chrono::seconds kAnswerTimeout{40};
constexpr std::chrono::seconds kWriteTimeout{5};
constexpr std::size_t kMaxAnswerBytes = 16u << 20;

int fail(int code, const std::string& message) {
    std::cerr << "agentctl: " << message << '\n';
    return code;
}

// One request, one answer; the exit code when there is no answer.
int exchange(const Json::Value& request, Json::Value& answer) {
    const auto socket = ndpx::platform::paths::controlSocketFile();
    ndpx::platform::ConnectError why = ndpx::platform::ConnectError::None;
    std::string error;
    auto stream = ndpx::platform::connectLocal(socket, why, error);
    if (why == ndpx::platform::ConnectError::NoListener) {
        return fail(agentctl::kExitUnreachable,
                    "agenthost is not running (nothing listens at " + socket.string() + ")");
    }
    if (why == ndpx::platform::ConnectError::Denied) {
        return fail(agentctl::kExitUnreachable, "refused: no access to " + socket.string() +
                                                    "; only root may control agenthost");
    }
    if (!stream.valid()) {
        return fail(agentctl::kExitUnreachable,
                    "cannot reach agenthost at " + socket.string() + ": " + error);
    }
    const IoResult sent =
        stream.writeAll(ndpx::MqttManagerUtil::writeCompact(request) + "\n",
                        std::chrono::duration_cast<std::chrono::milliseconds>(kWriteTimeout));
    std::string line;
    // A refusal is answered without reading the request: read it even when
    // the request could not be written.
    const IoResult read =
        stream.readLine(line, kMaxAnswerBytes,
                        std::chrono::duration_cast<std::chrono::milliseconds>(kAnswerTimeout));
    if (read != IoResult::Ok) {
        return fail(agentctl::kExitUnreachable,
                    std::string("no answer from agenthost: ") +
                        ndpx::platform::ioResultText(sent != IoResult::Ok ? sent : read));
    }
    if (!ndpx::MqttManagerUtil::parseJson(line, answer) || !answer.isObject()) {
        return fail(agentctl::kExitUnreachable, "agenthost's answer is not JSON");
    }
    return -1;
}

void printJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    writer["emitUTF8"] = true;
    std::cout << Json::writeString(writer, value) << '\n';
}

int report(const Json::Value& answer, bool json, bool status) {
    const int code = agentctl::exitCodeOf(answer);
    if (json) {
        printJson(answer);
        return code;
    }
    if (code == agentctl::kExitOk) {
        std::cout << (status ? agentctl::statusText(answer["status"])
                             : agentctl::replyText(answer));
        return code;
    }
    std::cerr << "agentctl: " << answer.get("error", "the host answered an error").asString();
    if (answer.isMember("result")) {
        std::cerr << " (result " << answer["result"].asInt() << ')';
    }
    std::cerr << '\n';
    if (answer["reply"].isObject() && !answer["reply"].empty()) {
        std::cerr << agentctl::replyText(answer);
    }
    return code;
}

bool readText(const std::string& path, std::string& text) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        return false;  // a folder opens, then fails at the first read
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    try {
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } catch (const std::exception&) {
        return false;
    }
    return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Shows the status of a running agenthost and sends requests to its workers."};
    app.require_subcommand(1);
    std::string root;
    bool json = false;
    app.add_option("--root", root, "Root prefix of the machine paths (default: $NDPX_ROOT or /)");
    app.add_flag("--json", json, "Print the host's answer as JSON, for scripts");

    auto* status = app.add_subcommand("status", "State, endpoint, identity, certificate, queue");

    std::string worker;
    std::string operation;
    std::vector<std::string> assignments;
    auto* send = app.add_subcommand("send", "Send an operation to a worker and print its reply");
    send->add_option("WORKER", worker, "Worker name, e.g. MQTT or DesktopManager")->required();
    send->add_option("OPERATION", operation, "Operation name")->required();
    send->add_option("NAME=VALUE", assignments, "Request values");

    std::string action;
    std::string file;
    auto* migrate = app.add_subcommand("migrate", "Drive the move to MQTT (MigrateToCorvid)");
    migrate->add_option("ACTION", action, "bootstrap FILE, getstatus, commit or rollback")
        ->required()
        ->check(CLI::IsMember({"bootstrap", "getstatus", "commit", "rollback"}));
    migrate->add_option("FILE", file, "The bootstrap document (bootstrap only)");

    long long type = 0;
    auto* event = app.add_subcommand("event", "Publish an agent event (SendEvent)");
    event->add_option("TYPE", type, "Event type number")->required();
    event->add_option("NAME=VALUE", assignments, "Event attributes");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? agentctl::kExitOk : agentctl::kExitUsage;
    }
    if (app.count("--root") > 0) {
        if (root.empty()) {
            return fail(agentctl::kExitUsage, "--root must not be empty");
        }
        ndpx::platform::paths::setRoot(root);
    }

    Json::Value request;
    if (status->parsed()) {
        request = agentctl::statusRequest();
    } else {
        Json::Value bag;
        std::string error;
        if (!agentctl::parseAssignments(assignments, bag, error)) {
            return fail(agentctl::kExitUsage, error);
        }
        if (send->parsed()) {
            request = agentctl::sendRequest(worker, operation, std::move(bag));
        } else if (migrate->parsed()) {
            Json::Value body(Json::objectValue);
            body["type"] = action;
            if ((action == "bootstrap") == file.empty()) {
                return fail(agentctl::kExitUsage, action == "bootstrap"
                                                      ? "migrate bootstrap needs a FILE"
                                                      : "only migrate bootstrap takes a FILE");
            }
            if (!file.empty()) {
                std::string text;
                if (!readText(file, text)) {
                    return fail(agentctl::kExitUsage, "cannot read " + file);
                }
                body["bootstrap"] = text;
            }
            request = agentctl::sendRequest("MQTT", "MigrateToCorvid", std::move(body));
        } else {
            Json::Value body(Json::objectValue);
            body["Type"] = Json::Int64(type);
            if (!bag.empty()) {
                body["attributes"] = std::move(bag);
            }
            request = agentctl::sendRequest("MQTT", "SendEvent", std::move(body));
        }
    }
    Json::Value answer;
    if (const int code = exchange(request, answer); code >= 0) {
        return code;
    }
    return report(answer, json, status->parsed());
}

#include "agentctl/Requests.h"

#include <sstream>

namespace ndpx::agentctl {
namespace {

std::string orUnknown(const Json::Value& value) {
    if (value.isNull()) {
        return "unknown";
    }
    return value.isObject() || value.isArray() ? "?" : value.asString();
}

std::string timeLeft(long long seconds) {
    const bool past = seconds < 0;
    const long long s = past ? -seconds : seconds;
    std::ostringstream out;
    if (s >= 86400) {
        out << s / 86400 << "d " << s % 86400 / 3600 << 'h';
    } else if (s >= 3600) {
        out << s / 3600 << "h " << s % 3600 / 60 << 'm';
    } else {
        out << s / 60 << "m " << s % 60 << 's';
    }
    return past ? "expired " + out.str() + " ago" : out.str() + " left";
}

void printMembers(std::ostream& out, const Json::Value& bag, const std::string& indent) {
    for (const auto& name : bag.getMemberNames()) {
        const Json::Value& value = bag[name];
        // A name that repeats in the bag arrives as an array.
        Json::Value all = value;
        if (!value.isArray()) {
            all = Json::Value(Json::arrayValue);
            all.append(value);
        }
        for (const Json::Value& one : all) {
            if (one.isObject() || one.isNull()) {
                out << indent << name << ":\n";
                printMembers(out, one.isObject() ? one : Json::Value(Json::objectValue),
                             indent + "    ");
            } else {
                out << indent << name << " = " << one.asString() << '\n';
            }
        }
    }
}

}  // namespace

bool parseAssignments(const std::vector<std::string>& args, Json::Value& bag, std::string& error) {
    bag = Json::Value(Json::objectValue);
    for (const auto& arg : args) {
        const auto eq = arg.find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "'" + arg + "' is not name=value";
            return false;
        }
        const std::string name = arg.substr(0, eq);
        if (bag.isMember(name)) {
            error = "'" + name + "' is given twice";
            return false;
        }
        bag[name] = arg.substr(eq + 1);
    }
    return true;
}

Json::Value statusRequest() {
    Json::Value request(Json::objectValue);
    request["request"] = "status";
    return request;
}

Json::Value sendRequest(const std::string& worker, const std::string& operation, Json::Value bag) {
    Json::Value request(Json::objectValue);
    request["request"] = "send";
    request["worker"] = worker;
    request["operation"] = operation;
    request["bag"] = std::move(bag);
    return request;
}

int exitCodeOf(const Json::Value& answer) {
    if (answer.get("ok", false).asBool()) {
        return kExitOk;
    }
    return answer.get("refused", false).asBool() ? kExitUnreachable : kExitHostError;
}

std::string statusText(const Json::Value& status) {
    std::ostringstream out;
    out << "state          " << orUnknown(status["state"]) << '\n';
    out << "endpoint       " << orUnknown(status["endpoint"]) << '\n';
    out << "identity       " << orUnknown(status["identity"]) << '\n';
    const Json::Value& cert = status["clientCertificate"];
    out << "certificate    ";
    if (cert.isObject()) {
        out << "valid to " << cert["notAfter"].asString() << " ("
            << timeLeft(cert["secondsToExpiry"].asInt64()) << ")\n";
    } else {
        out << "none\n";
    }
    const Json::Value& pub = status["publications"];
    out << "publications   " << orUnknown(pub["buffered"]) << " buffered while disconnected, "
        << orUnknown(pub["dropped"]) << " dropped, " << orUnknown(pub["lostInFlight"])
        << " lost in flight\n";
    // A lost session took the commands sent while the desktop was away.
    const Json::Value& session = status["session"];
    out << "session        " << orUnknown(session["reconnects"]) << " reconnects, "
        << orUnknown(session["lostSessions"]) << " not kept by the broker\n";
    return out.str();
}

std::string replyText(const Json::Value& answer) {
    std::ostringstream out;
    if (answer["reply"].isObject()) {
        printMembers(out, answer["reply"], "");
    }
    return out.str();
}

}  // namespace ndpx::agentctl

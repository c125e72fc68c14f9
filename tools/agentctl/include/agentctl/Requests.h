#pragma once
// What agentctl says to agenthost and how it shows the answers: requests as
// one line of JSON, name=value arguments, the answers as text for people.

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ndpx::agentctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitHostError = 1;  // the host answered an error
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnreachable = 3;  // no host, or refused

// "name=value" arguments into a JSON object of strings. A name must not be
// empty or given twice; a value may be empty and may hold '='.
bool parseAssignments(const std::vector<std::string>& args, Json::Value& bag, std::string& error);

Json::Value statusRequest();
Json::Value sendRequest(const std::string& worker, const std::string& operation, Json::Value bag);

// The exit code an answer stands for.
int exitCodeOf(const Json::Value& answer);

// The host's status for people.
std::string statusText(const Json::Value& status);
// A worker's reply for people: "NAME = value" lines, nested bags indented
// under "NAME:"; a name that repeats, once per value.
std::string replyText(const Json::Value& answer);

}  // namespace ndpx::agentctl

#include "Commands.h"

#include "PayloadText.h"

#include <ipcclient/IpcClient.h>
#include <ipcclient/TopicRules.h>

#include <iostream>
#include <vector>

namespace ndpx::ipcctl {
namespace {

using ipcclient::IpcClient;
using ipcclient::IpcErrc;
using ipcclient::IpcError;

int fail(int code, const std::string& message) {
    std::cerr << "ipcctl: " << message << '\n';
    return code;
}

int fail(const IpcError& error) {
    return fail(error.code == IpcErrc::InvalidArgument ? kExitUsage : kExitFailure, error.message);
}

// Connects and waits for the bootstrap. -1 to go on, else the exit code;
// `whenStopped` when a signal ended the wait.
int open(IpcClient& client, const Session& session, bool needIdentity, int whenStopped) {
    client.setStopHandle(session.stopHandle);
    if (const IpcError error = client.connect(session.socket); !error.ok()) {
        return fail(error);
    }
    IpcError error;
    if (client.waitForIdentity(session.bootstrapWait, error)) {
        return -1;
    }
    if (error.code == IpcErrc::Stopped) {
        return whenStopped == kExitOk ? kExitOk : fail(whenStopped, "interrupted");
    }
    // The bridge admitted us, or is slow: a publish may still go through.
    if (!needIdentity && (error.code == IpcErrc::TimedOut || error.code == IpcErrc::Malformed)) {
        std::cerr << "ipcctl: " << error.message << "; going on\n";
        return -1;
    }
    return fail(error);
}

std::vector<std::string> splitTopics(const std::string& list) {
    std::vector<std::string> topics;
    for (std::size_t start = 0;;) {
        const std::size_t comma = list.find(',', start);
        topics.push_back(list.substr(start, comma - start));
        if (comma == std::string::npos) {
            return topics;
        }
        start = comma + 1;
    }
}

}  // namespace

int runSubscribe(const Session& session, const std::string& topics) {
    const std::vector<std::string> filters = splitTopics(topics);
    if (const IpcError error = ipcclient::checkSubscribe(filters); !error.ok()) {
        return fail(error);
    }
    IpcClient client;
    if (const int code = open(client, session, false, kExitOk); code >= 0) {
        return code;
    }
    if (const IpcError error = client.subscribe(filters); !error.ok()) {
        return error.code == IpcErrc::Stopped ? kExitOk : fail(error);
    }
    for (;;) {
        IpcError error;
        const auto message = client.receive(ipcclient::kWaitForever, error);
        if (message) {
            if (!message->isIdentity) {
                std::cout << message->topic << ' ' << payloadText(message->payload) << std::endl;
            }
            continue;
        }
        switch (error.code) {
            case IpcErrc::Stopped:
                return kExitOk;
            case IpcErrc::Malformed:
            case IpcErrc::TooLarge:
                std::cerr << "ipcctl: " << error.message << '\n';  // skipped; go on
                continue;
            default:
                return fail(error);
        }
    }
}

int runPublish(const Session& session, const std::string& topic, const std::string& message,
               int qos, bool retain) {
    if (const IpcError error = ipcclient::checkPublish(topic, qos); !error.ok()) {
        return fail(error);
    }
    IpcClient client;
    if (const int code = open(client, session, false, kExitFailure); code >= 0) {
        return code;
    }
    if (const IpcError error = client.publish(topic, message, qos, retain); !error.ok()) {
        return fail(error);
    }
    return kExitOk;
}

int runIdentity(const Session& session) {
    IpcClient client;
    if (const int code = open(client, session, true, kExitFailure); code >= 0) {
        return code;
    }
    const auto identity = client.identity();
    if (!identity) {
        return fail(kExitFailure, "the bridge sent no identity");  // open waited for it
    }
    std::cout << "edgeid: " << identity->edgeId << '\n'
              << "shorttemplateid: " << identity->shortTemplateId << '\n'
              << "vmid: " << identity->vmId << '\n'
              << "identity: " << identity->identity << std::endl;
    return kExitOk;
}

}  // namespace ndpx::ipcctl

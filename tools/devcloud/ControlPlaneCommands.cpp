#include "ControlPlaneCommands.h"

#include "IdentityMove.h"
#include "OtpStore.h"
#include "RenewalResponder.h"
#include "devcloud/Topics.h"

#include <json/json.h>

#include <pthread.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

namespace ndpx::devcloud::commands {

std::string freshId() {
    std::random_device rd;
    std::uniform_int_distribution<int> hex(0, 15);
    std::string id = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
    for (char& c : id) {
        if (c == 'x' || c == 'y') {
            const int v = c == 'x' ? hex(rd) : 8 + hex(rd) % 4;
            c = "0123456789abcdef"[v];
        }
    }
    return id;
}

sigset_t blockStopSignals(std::initializer_list<int> more) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    for (const int sig : more) {
        sigaddset(&set, sig);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

ClientOptions controlPlaneOptions(const Home& home, const std::string& host, int port,
                                  const std::string& cn, const std::string& clientIdPrefix) {
    ClientOptions o;
    o.host = host;
    o.port = port;
    o.clientId = clientIdPrefix + "-" + freshId().substr(0, 8);
    o.tls = home.clientFiles(cn);
    return o;
}

void say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::cout << line << std::endl;
}

int send(const Home& home, const std::string& host, int port, const std::string& cn,
         const std::string& desktop, const std::string& command,
         const std::vector<std::string>& args, const std::string& metadata, double timeout) {
    Json::Value request(Json::objectValue);
    const std::string id = freshId();
    request["ID"] = id;
    request["COMMAND"] = command;
    for (const auto& arg : args) {
        const auto eq = arg.find('=');
        if (eq == std::string::npos || eq == 0) {
            std::cerr << "devcloud: --arg wants KEY=VALUE, got " << arg << "\n";
            return 2;
        }
        request[arg.substr(0, eq)] = arg.substr(eq + 1);
    }
    if (!metadata.empty()) {
        Json::Value meta;
        std::string errors;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (!reader->parse(metadata.data(), metadata.data() + metadata.size(), &meta, &errors)) {
            std::cerr << "devcloud: --metadata is not JSON: " << errors << "\n";
            return 2;
        }
        request["METADATA"] = meta;
    }

    const auto limit = std::chrono::milliseconds(static_cast<long long>(timeout * 1000));
    MqttClient client(controlPlaneOptions(home, host, port, cn, "devcloud-send"));
    if (!client.connect(limit) || !client.subscribe(responseTopic(desktop), 1, limit)) {
        std::cerr << "devcloud: cannot reach the broker: " << client.lastError() << "\n";
        return 1;
    }
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    const std::string payload = Json::writeString(compact, request);
    if (!client.publish(commandsTopic(desktop), payload, 1, false, limit)) {
        std::cerr << "devcloud: cannot publish the command: " << client.lastError() << "\n";
        return 1;
    }
    Json::Value answer;
    const auto matches = [&](const Message& m) {
        Json::Value v;
        std::string errors;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (!reader->parse(m.payload.data(), m.payload.data() + m.payload.size(), &v, &errors) ||
            !v.isObject() || v.get("ID", "").asString() != id) {
            return false;
        }
        answer = v;
        return true;
    };
    if (!client.waitForMessage(responseTopic(desktop), matches, limit)) {
        std::cerr << "devcloud: no answer to " << command << " (ID " << id << ") within " << timeout
                  << " s\n";
        return 1;
    }
    std::cout << Json::writeString(Json::StreamWriterBuilder(), answer) << std::endl;
    return 0;
}

int watch(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, bool keepSession) {
    const sigset_t signals = blockStopSignals();
    ClientOptions options = controlPlaneOptions(home, host, port, cn, "devcloud-watch");
    options.automaticReconnect = true;
    if (keepSession) {
        options.cleanStart = false;
        options.sessionExpirySeconds = 300;
    }
    MqttClient client(options);
    const std::string filter = desktopFilter(desktop.empty() ? "+" : desktop);
    // "desktop/+/#" would miss identifiers with a slash (edge/vm).
    const std::string subscription = desktop.empty() ? "desktop/#" : filter;
    if (!client.connect() || !client.subscribe(subscription, 1)) {
        std::cerr << "devcloud: cannot subscribe: " << client.lastError() << "\n";
        return 1;
    }
    std::cerr << "devcloud: watching " << subscription << " (Ctrl-C ends)\n";
    std::thread printer([&client, subscription] {
        for (;;) {
            const auto m = client.waitForMessage(subscription, std::chrono::hours(24));
            if (!m) {
                if (client.cancelled()) {
                    return;
                }
                continue;
            }
            std::cout << m->topic << "\t" << m->payload << std::endl;
        }
    });
    int sig = 0;
    sigwait(&signals, &sig);
    client.cancelWaits();
    printer.join();
    return 0;
}

int renewer(const Home& home, const std::string& host, int port, const std::string& cn,
            const TokenOptions& token) {
    const sigset_t signals = blockStopSignals();
    ClientOptions options = controlPlaneOptions(home, host, port, cn, "devcloud-renewer");
    // Subscriptions and requests queued meanwhile outlive a lost connection,
    // and a broker restarted with its store.
    options.automaticReconnect = true;
    options.cleanStart = false;
    options.sessionExpirySeconds = 300;
    RenewalResponder responder(options, home.dir(), token, say);
    if (!responder.start()) {
        std::cerr << "devcloud: cannot start: " << responder.client().lastError() << "\n";
        return 1;
    }
    say("devcloud: renewer ready; tokens name " + token.url +
        (token.forceSwap ? " and force the swap" : ""));
    int sig = 0;
    sigwait(&signals, &sig);
    responder.stop();
    say("devcloud: renewer stopped after " + std::to_string(responder.answered()) + " tokens");
    return 0;
}

int renew(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, const TokenOptions& token) {
    OtpStore store(home.dir());
    const auto pairing =
        store.lastRedeemed([&](const OtpGrant& g) { return desktopNames(desktop, g); });
    if (!pairing) {
        std::cerr << "devcloud: no pairing of desktop " << desktop << " on record in "
                  << store.file().string() << "\n";
        return 1;
    }
    MqttClient client(controlPlaneOptions(home, host, port, cn, "devcloud-renew"));
    std::string error;
    if (!client.connect()) {
        error = "cannot reach the broker: " + client.lastError();
    } else if (sendToken(client, home.dir(), desktop, *pairing, token, error)) {
        std::cout << "devcloud: token sent to " << desktop << " for " << pairing->agentIdentity
                  << " (vmId " << pairing->vmId << ")" << std::endl;
        return 0;
    }
    std::cerr << "devcloud: " << error << "\n";
    return 1;
}

int setId(const Home& home, const std::string& host, int port, const std::string& cn,
          const std::string& desktop, const std::string& edgeId,
          const std::string& shortTemplateId) {
    const auto to = orderMove(home.dir(), desktop, edgeId, shortTemplateId);
    MqttClient client(controlPlaneOptions(home, host, port, cn, "devcloud-set-id"));
    if (!client.connect() ||
        !client.publish(templateTopic(desktop), setIdMessage(edgeId, shortTemplateId), 1)) {
        std::cerr << "devcloud: cannot send SET_ID: " << client.lastError() << "\n";
        return 1;
    }
    std::cout << "devcloud: SET_ID sent to " << desktop << "; it moves to " << to.agentIdentity
              << " (topics desktop/" << edgeId << "/" << to.vmId
              << "/...) once its certificate is renewed" << std::endl;
    return 0;
}

}  // namespace ndpx::devcloud::commands

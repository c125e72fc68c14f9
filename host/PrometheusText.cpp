#include "host/PrometheusText.h"

#include <charconv>
#include <cmath>
#include <initializer_list>
#include <utility>

namespace ndpx::host {
namespace {

using Labels = std::initializer_list<std::pair<const char*, std::string>>;

// The shortest text that reads back as `value`; integers without a point.
std::string number(double value) {
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    if (std::isnan(value)) {
        return "NaN";
    }
    char buffer[32];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return ec == std::errc() ? std::string(buffer, end) : std::string("NaN");
}

std::string escaped(const std::string& text, bool quotes) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '"' && quotes) {
            out += "\\\"";
        } else {
            out += c;
        }
    }
    return out;
}

class Exposition {
public:
    void family(const char* name, const char* type, const char* help) {
        text_ += "# HELP ";
        text_ += name;
        text_ += ' ';
        text_ += escaped(help, false);
        text_ += "\n# TYPE ";
        text_ += name;
        text_ += ' ';
        text_ += type;
        text_ += '\n';
    }
    void sample(const std::string& name, Labels labels, double value) {
        text_ += name;
        const char* separator = "{";
        for (const auto& [label, labelValue] : labels) {
            text_ += separator;
            text_ += label;
            text_ += "=\"";
            text_ += escaped(labelValue, true);
            text_ += '"';
            separator = ",";
        }
        if (labels.size() != 0) {
            text_ += '}';
        }
        text_ += ' ';
        text_ += number(value);
        text_ += '\n';
    }
    // A family of one sample, when `value` is a number.
    void single(const char* name, const char* type, const char* help, const Json::Value& value) {
        if (value.isNumeric()) {
            family(name, type, help);
            sample(name, {}, value.asDouble());
        }
    }
    // A family of one sample per member of `counts`, labelled by its name.
    void labelled(const char* name, const char* label, const char* help,
                  const Json::Value& counts) {
        if (!counts.isObject()) {
            return;
        }
        family(name, "counter", help);
        for (const auto& key : counts.getMemberNames()) {
            if (counts[key].isNumeric()) {
                sample(name, {{label, key}}, counts[key].asDouble());
            }
        }
    }
    // A histogram from {"bounds", "counts" (cumulative), "count", "sum"}.
    void histogram(const char* name, const char* help, const Json::Value& h) {
        const Json::Value& bounds = h["bounds"];
        const Json::Value& counts = h["counts"];
        if (!bounds.isArray() || !counts.isArray() || bounds.size() != counts.size() ||
            !h["count"].isNumeric() || !h["sum"].isNumeric()) {
            return;
        }
        family(name, "histogram", help);
        const std::string base = name;
        for (Json::ArrayIndex i = 0; i < bounds.size(); ++i) {
            sample(base + "_bucket", {{"le", number(bounds[i].asDouble())}}, counts[i].asDouble());
        }
        sample(base + "_bucket", {{"le", "+Inf"}}, h["count"].asDouble());
        sample(base + "_sum", {}, h["sum"].asDouble());
        sample(base + "_count", {}, h["count"].asDouble());
    }

    std::string take() { return std::move(text_); }

private:
    std::string text_;
};

const Json::Value& member(const Json::Value& object, const char* name) {
    return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

// A series of one sample: the figure at `section`.`key` of the module's metric.
struct Single {
    const char* name;
    const char* type;
    const char* help;
    const char* section;
    const char* key;
};

constexpr Single kSingleSeries[] = {
    {"ndpx_mqtt_connected_seconds_total", "counter",
     "Seconds connected to the broker since the module started.", "session", "connectedSeconds"},
    {"ndpx_mqtt_reconnects_total", "counter", "Connections made again after the first.", "session",
     "reconnects"},
    {"ndpx_mqtt_lost_sessions_total", "counter",
     "Reconnections where the broker had not kept the desktop's session.", "session",
     "lostSessions"},
    {"ndpx_mqtt_publications_buffered_total", "counter",
     "Publications handed to the client while it was not connected.", "publications", "buffered"},
    {"ndpx_mqtt_publications_dropped_total", "counter",
     "Publications refused before they reached the client.", "publications", "dropped"},
    {"ndpx_mqtt_publications_lost_in_flight_total", "counter",
     "Publications the client took and then failed.", "publications", "lostInFlight"},
    {"ndpx_mqtt_commands_received_total", "counter",
     "Command messages received from the control plane.", "commands", "received"},
    {"ndpx_mqtt_commands_answered_total", "counter",
     "Commands whose answer was handed to the client.", "commands", "answered"},
    {"ndpx_mqtt_commands_duplicate_total", "counter",
     "Commands dropped because they had been answered already.", "commands", "duplicates"},
    {"ndpx_client_certificate_expiry_seconds", "gauge",
     "Seconds until the client certificate expires.", "clientCertificate", "secondsToExpiry"},
    {"ndpx_pairing_attempts_total", "counter", "Pairings begun with a new key.", "pairing",
     "attempts"},
    {"ndpx_ipc_clients", "gauge", "Local processes connected to the IPC bridge.", "ipc", "clients"},
};

}  // namespace

std::string prometheusText(const Json::Value& moduleMetric) {
    Exposition out;
    out.family("ndpx_module_reporting", "gauge",
               "1 when the MQTT module's metric has been collected, else 0.");
    out.sample("ndpx_module_reporting", {}, moduleMetric.isObject() ? 1 : 0);
    if (!moduleMetric.isObject()) {
        return out.take();
    }
    const Json::Value& state = member(member(moduleMetric, "mqttState"), "state");
    if (state.isString()) {
        out.family("ndpx_mqtt_state", "gauge",
                   "The MQTT session's state, by name: 1 for the current one.");
        out.sample("ndpx_mqtt_state", {{"state", state.asString()}}, 1);
    }
    for (const Single& series : kSingleSeries) {
        out.single(series.name, series.type, series.help,
                   member(member(moduleMetric, series.section), series.key));
    }
    out.histogram("ndpx_mqtt_command_answer_seconds",
                  "Time from a command's arrival to its answer's hand-over.",
                  member(member(moduleMetric, "commands"), "answerLatency"));
    out.labelled("ndpx_certificate_renewals_total", "result",
                 "Certificate renewal steps, by result.",
                 member(member(moduleMetric, "clientCertificate"), "renewals"));
    out.labelled("ndpx_pairing_failures_total", "reason", "Pairings that failed, by reason.",
                 member(member(moduleMetric, "pairing"), "failures"));
    return out.take();
}

}  // namespace ndpx::host

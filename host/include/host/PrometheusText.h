#pragma once
// The module's metric in the Prometheus text exposition format (0.0.4), for
// a scraper on the loopback port and for node_exporter's textfile collector.
// Series whose figure the metric lacks (no certificate yet, a module that
// has not reported) are left out rather than written as zero.

#include <json/value.h>

#include <string>

namespace ndpx::host {

// The content type a scraper expects for this text.
inline constexpr const char* kPrometheusContentType = "text/plain; version=0.0.4; charset=utf-8";

// `moduleMetric` is the module's "MQTTMetrics" value; null gives only the
// host's own series.
std::string prometheusText(const Json::Value& moduleMetric);

}  // namespace ndpx::host

#include "PacScript.h"

#include "net/HostAddresses.h"

#include <platform/CalendarTime.h>

#include <duktape.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace ndpx::net {

namespace {

// The helper functions every PAC script may call, in ECMAScript 5 (the
// engine's language). Time helpers read the clock through __pacNow so that
// the time is taken once, outside the engine.
constexpr const char* kPrelude = R"JS(
function isPlainHostName(host) { return String(host).indexOf('.') < 0; }
function dnsDomainIs(host, domain) {
    host = String(host).toLowerCase(); domain = String(domain).toLowerCase();
    return host.length >= domain.length &&
        host.substring(host.length - domain.length) === domain;
}
function localHostOrDomainIs(host, hostdom) {
    host = String(host).toLowerCase(); hostdom = String(hostdom).toLowerCase();
    if (host === hostdom) return true;
    return host.indexOf('.') < 0 && hostdom.indexOf(host + '.') === 0;
}
function isResolvable(host) { return dnsResolve(host) !== null; }
function isResolvableEx(host) { return dnsResolveEx(host) !== ''; }
function dnsDomainLevels(host) {
    var s = String(host), n = 0;
    for (var i = 0; i < s.length; i++) { if (s.charAt(i) === '.') n++; }
    return n;
}
function __ipv4(ip) {
    var m = /^(\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3})$/.exec(String(ip));
    if (!m) return null;
    var n = 0;
    for (var i = 1; i <= 4; i++) {
        var b = parseInt(m[i], 10);
        if (b > 255) return null;
        n = n * 256 + b;
    }
    return n;
}
function convert_addr(ip) { var n = __ipv4(ip); return n === null ? 0 : n; }
function isInNet(host, pattern, mask) {
    var ip = __ipv4(host) !== null ? String(host) : dnsResolve(host);
    if (ip === null) return false;
    var a = __ipv4(ip), p = __ipv4(pattern), m = __ipv4(mask);
    if (a === null || p === null || m === null) return false;
    return ((a & m) >>> 0) === ((p & m) >>> 0);
}
function shExpMatch(str, shexp) {
    var s = String(shexp), re = '';
    for (var i = 0; i < s.length; i++) {
        var c = s.charAt(i);
        if (c === '*') re += '.*';
        else if (c === '?') re += '.';
        else re += c.replace(/[\\^$.|+()\[\]{}\/]/g, '\\$&');
    }
    return new RegExp('^' + re + '$').test(String(str));
}
var __days = ['SUN', 'MON', 'TUE', 'WED', 'THU', 'FRI', 'SAT'];
var __months = ['JAN', 'FEB', 'MAR', 'APR', 'MAY', 'JUN', 'JUL', 'AUG', 'SEP', 'OCT', 'NOV', 'DEC'];
function __timeArgs(args) {
    var list = Array.prototype.slice.call(args), gmt = false;
    if (list.length > 0 && String(list[list.length - 1]).toUpperCase() === 'GMT') {
        gmt = true;
        list.pop();
    }
    return { list: list, now: __pacNow(gmt) };
}
function __within(v, lo, hi) { return lo <= hi ? (v >= lo && v <= hi) : (v >= lo || v <= hi); }
function weekdayRange() {
    var a = __timeArgs(arguments), l = a.list;
    if (l.length < 1 || l.length > 2) return false;
    var d1 = __days.indexOf(String(l[0]).toUpperCase());
    var d2 = l.length === 2 ? __days.indexOf(String(l[1]).toUpperCase()) : d1;
    if (d1 < 0 || d2 < 0) return false;
    return __within(a.now.wd, d1, d2);
}
function timeRange() {
    var a = __timeArgs(arguments), l = a.list, n = a.now, i;
    for (i = 0; i < l.length; i++) { l[i] = Number(l[i]); if (isNaN(l[i])) return false; }
    var now = n.h * 3600 + n.mi * 60 + n.s, lo, hi;
    if (l.length === 1) return n.h === l[0];
    if (l.length === 2) {
        if (l[0] === l[1]) return n.h === l[0];
        lo = l[0] * 3600; hi = l[1] * 3600;
    } else if (l.length === 4) {
        lo = l[0] * 3600 + l[1] * 60; hi = l[2] * 3600 + l[3] * 60;
    } else if (l.length === 6) {
        lo = l[0] * 3600 + l[1] * 60 + l[2]; hi = l[3] * 3600 + l[4] * 60 + l[5];
    } else {
        return false;
    }
    return lo <= hi ? (now >= lo && now < hi) : (now >= lo || now < hi);
}
function dateRange() {
    var a = __timeArgs(arguments), l = a.list, n = a.now, vals = [], i;
    for (i = 0; i < l.length; i++) {
        var month = __months.indexOf(String(l[i]).toUpperCase());
        if (month >= 0) { vals.push({ k: 'm', v: month }); continue; }
        var x = Number(l[i]);
        if (isNaN(x)) return false;
        vals.push({ k: x > 31 ? 'y' : 'd', v: x });
    }
    var cur = { y: n.y, m: n.mo, d: n.d };
    if (vals.length === 1) return cur[vals[0].k] === vals[0].v;
    if (vals.length !== 2 && vals.length !== 4 && vals.length !== 6) return false;
    var half = vals.length / 2, kinds = {}, nowParts = [];
    for (i = 0; i < half; i++) {
        if (vals[i].k !== vals[i + half].k || kinds[vals[i].k]) return false;
        kinds[vals[i].k] = true;
        nowParts.push({ k: vals[i].k, v: cur[vals[i].k] });
    }
    function enc(parts) {
        var y = 0, m = 0, d = 0;
        for (var j = 0; j < parts.length; j++) {
            if (parts[j].k === 'y') y = parts[j].v;
            else if (parts[j].k === 'm') m = parts[j].v;
            else d = parts[j].v;
        }
        return y * 10000 + m * 100 + d;
    }
    var lo = enc(vals.slice(0, half)), hi = enc(vals.slice(half)), v = enc(nowParts);
    if (lo <= hi) return v >= lo && v <= hi;
    return kinds.y ? false : (v >= lo || v <= hi);
}
function getClientVersion() { return '1.0'; }
)JS";

// Memory handed to the engine, limited to a budget. Each block carries its
// size in front so that frees and reallocations can be accounted.
struct MemoryBudget {
    std::size_t used = 0;
    std::size_t limit = 0;
};
constexpr std::size_t kHeader = alignof(std::max_align_t);

void* budgetAlloc(void* udata, duk_size_t size) {
    auto* budget = static_cast<MemoryBudget*>(udata);
    if (size == 0 || size > budget->limit - budget->used) {
        return nullptr;
    }
    auto* block = static_cast<unsigned char*>(std::malloc(size + kHeader));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block, &size, sizeof size);
    budget->used += size;
    return block + kHeader;
}

void budgetFree(void* udata, void* ptr) {
    if (ptr == nullptr) {
        return;
    }
    auto* budget = static_cast<MemoryBudget*>(udata);
    auto* block = static_cast<unsigned char*>(ptr) - kHeader;
    std::size_t size = 0;
    std::memcpy(&size, block, sizeof size);
    budget->used -= size;
    std::free(block);
}

void* budgetRealloc(void* udata, void* ptr, duk_size_t size) {
    if (ptr == nullptr) {
        return budgetAlloc(udata, size);
    }
    if (size == 0) {
        budgetFree(udata, ptr);
        return nullptr;
    }
    auto* budget = static_cast<MemoryBudget*>(udata);
    auto* block = static_cast<unsigned char*>(ptr) - kHeader;
    std::size_t old = 0;
    std::memcpy(&old, block, sizeof old);
    if (size > old && size - old > budget->limit - budget->used) {
        return nullptr;
    }
    auto* grown = static_cast<unsigned char*>(std::realloc(block, size + kHeader));
    if (grown == nullptr) {
        return nullptr;
    }
    std::memcpy(grown, &size, sizeof size);
    budget->used = budget->used - old + size;
    return grown + kHeader;
}

// The engine cannot go on after a fatal error; this process exists only to
// run the script, so it ends.
[[noreturn]] void engineFatal(void*, const char*) {
    ::_exit(3);
}

struct HeapFree {
    void operator()(duk_context* ctx) const { duk_destroy_heap(ctx); }
};
using HeapPtr = std::unique_ptr<duk_context, HeapFree>;

const PacEnvironment& environmentOf(duk_context* ctx) {
    duk_push_global_stash(ctx);
    duk_get_prop_string(ctx, -1, "env");
    const auto* env = static_cast<const PacEnvironment*>(duk_get_pointer(ctx, -1));
    duk_pop_2(ctx);
    return *env;
}

std::vector<std::string> resolveHost(duk_context* ctx, bool ipv4Only) {
    const std::string host = duk_safe_to_string(ctx, 0);
    const PacEnvironment& env = environmentOf(ctx);
    return env.resolve ? env.resolve(host, ipv4Only) : std::vector<std::string>{};
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) {
        if (!out.empty()) {
            out += ';';
        }
        out += item;
    }
    return out;
}

duk_ret_t jsDnsResolve(duk_context* ctx) {
    const auto addresses = resolveHost(ctx, true);
    if (addresses.empty()) {
        duk_push_null(ctx);
    } else {
        duk_push_string(ctx, addresses.front().c_str());
    }
    return 1;
}

duk_ret_t jsDnsResolveEx(duk_context* ctx) {
    duk_push_string(ctx, joined(resolveHost(ctx, false)).c_str());
    return 1;
}

duk_ret_t jsMyIpAddress(duk_context* ctx) {
    duk_push_string(ctx, environmentOf(ctx).myIpAddress.c_str());
    return 1;
}

duk_ret_t jsMyIpAddressEx(duk_context* ctx) {
    const PacEnvironment& env = environmentOf(ctx);
    duk_push_string(
        ctx, joined(env.myIpAddresses.empty() ? std::vector{env.myIpAddress} : env.myIpAddresses)
                 .c_str());
    return 1;
}

duk_ret_t jsAlert(duk_context* ctx) {
    const PacEnvironment& env = environmentOf(ctx);
    if (env.alert) {
        env.alert(duk_safe_to_string(ctx, 0));
    }
    return 0;
}

duk_ret_t jsIsInNetEx(duk_context* ctx) {
    duk_push_boolean(ctx, addressInPrefix(duk_safe_to_string(ctx, 0), duk_safe_to_string(ctx, 1)));
    return 1;
}

// IPv6 addresses first, then IPv4, each in ascending order.
duk_ret_t jsSortIpAddressList(duk_context* ctx) {
    const std::string list = duk_safe_to_string(ctx, 0);
    std::vector<std::pair<std::array<unsigned char, 16>, std::string>> v6;
    std::vector<std::pair<std::array<unsigned char, 16>, std::string>> v4;
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t end = std::min(list.find(';', start), list.size());
        const std::string item = list.substr(start, end - start);
        std::array<unsigned char, 16> bytes{};
        bool isV4 = false;
        if (item.empty() || !parseAddress(item, bytes, isV4)) {
            duk_push_false(ctx);
            return 1;
        }
        (isV4 ? v4 : v6).emplace_back(bytes, item);
        start = end + 1;
    }
    std::sort(v6.begin(), v6.end());
    std::sort(v4.begin(), v4.end());
    std::vector<std::string> sorted;
    sorted.reserve(v6.size() + v4.size());
    for (const auto& [bytes, text] : v6) {
        sorted.push_back(text);
    }
    for (const auto& [bytes, text] : v4) {
        sorted.push_back(text);
    }
    duk_push_string(ctx, joined(sorted).c_str());
    return 1;
}

duk_ret_t jsPacNow(duk_context* ctx) {
    const PacEnvironment& env = environmentOf(ctx);
    const std::tm& t = duk_to_boolean(ctx, 0) ? env.utcNow : env.localNow;
    duk_push_object(ctx);
    const std::pair<const char*, int> fields[] = {
        {"y", t.tm_year + 1900}, {"mo", t.tm_mon}, {"d", t.tm_mday}, {"wd", t.tm_wday},
        {"h", t.tm_hour},        {"mi", t.tm_min}, {"s", t.tm_sec},
    };
    for (const auto& [name, value] : fields) {
        duk_push_int(ctx, value);
        duk_put_prop_string(ctx, -2, name);
    }
    return 1;
}

void defineNative(duk_context* ctx, const char* name, duk_c_function fn, duk_idx_t nargs) {
    duk_push_c_function(ctx, fn, nargs);
    duk_put_global_string(ctx, name);
}

std::string errorText(duk_context* ctx) {
    if (duk_is_error(ctx, -1)) {
        duk_get_prop_string(ctx, -1, "stack");
        std::string text = duk_safe_to_string(ctx, -1);
        duk_pop(ctx);
        return text;
    }
    return duk_safe_to_string(ctx, -1);
}

// The address this machine would use for outgoing traffic, else the first
// IPv4 interface address.
std::string primaryIpv4(const std::vector<std::string>& interfaceAddresses) {
    if (std::string outbound = outboundIpv4Address(); !outbound.empty()) {
        return outbound;
    }
    for (const auto& address : interfaceAddresses) {
        if (address.find(':') == std::string::npos) {
            return address;
        }
    }
    return "127.0.0.1";
}

}  // namespace

PacEnvironment PacEnvironment::current() {
    PacEnvironment env;
    const std::time_t now = std::time(nullptr);
    env.localNow = platform::localCalendarTime(now);
    env.utcNow = platform::utcCalendarTime(now);
    for (auto& address : interfaceAddresses()) {
        if (address != "127.0.0.1" && address != "::1" && address.rfind("fe80:", 0) != 0) {
            env.myIpAddresses.push_back(std::move(address));
        }
    }
    env.myIpAddress = primaryIpv4(env.myIpAddresses);
    env.resolve = resolveHostAddresses;
    return env;
}

PacStatus evaluatePac(const std::string& script, const std::string& url, const std::string& host,
                      const PacEnvironment& env, std::string& result, std::string& error) {
    result.clear();
    error.clear();
    MemoryBudget budget{0, env.maxMemoryBytes};
    HeapPtr heap(duk_create_heap(budgetAlloc, budgetRealloc, budgetFree, &budget, engineFatal));
    if (!heap) {
        error = "unable to create the script engine";
        return PacStatus::ScriptFailed;
    }
    duk_context* ctx = heap.get();
    duk_push_global_stash(ctx);
    duk_push_pointer(ctx, const_cast<PacEnvironment*>(&env));
    duk_put_prop_string(ctx, -2, "env");
    duk_pop(ctx);
    defineNative(ctx, "dnsResolve", jsDnsResolve, 1);
    defineNative(ctx, "dnsResolveEx", jsDnsResolveEx, 1);
    defineNative(ctx, "myIpAddress", jsMyIpAddress, 0);
    defineNative(ctx, "myIpAddressEx", jsMyIpAddressEx, 0);
    defineNative(ctx, "alert", jsAlert, 1);
    defineNative(ctx, "isInNetEx", jsIsInNetEx, 2);
    defineNative(ctx, "sortIpAddressList", jsSortIpAddressList, 1);
    defineNative(ctx, "__pacNow", jsPacNow, 1);

    if (duk_peval_string(ctx, kPrelude) != 0) {
        error = "helper functions: " + errorText(ctx);
        return PacStatus::ScriptFailed;
    }
    duk_pop(ctx);
    if (duk_peval_lstring(ctx, script.data(), script.size()) != 0) {
        error = errorText(ctx);
        return PacStatus::ScriptFailed;
    }
    duk_pop(ctx);

    duk_get_global_string(ctx, "FindProxyForURLEx");
    if (!duk_is_function(ctx, -1)) {
        duk_pop(ctx);
        duk_get_global_string(ctx, "FindProxyForURL");
    }
    if (!duk_is_function(ctx, -1)) {
        error = "FindProxyForURL is not defined";
        return PacStatus::ScriptFailed;
    }
    duk_push_lstring(ctx, url.data(), url.size());
    duk_push_lstring(ctx, host.data(), host.size());
    if (duk_pcall(ctx, 2) != 0) {
        error = errorText(ctx);
        return PacStatus::ScriptFailed;
    }
    if (!duk_is_string(ctx, -1)) {
        error = std::string("FindProxyForURL returned ") + duk_safe_to_string(ctx, -1);
        return PacStatus::BadResult;
    }
    duk_size_t len = 0;
    const char* text = duk_get_lstring(ctx, -1, &len);
    result.assign(text, len);
    return PacStatus::Ok;
}

}  // namespace ndpx::net

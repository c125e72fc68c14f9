// The restart goes through logind, which runs the shutdown in order and
// applies its own policy (inhibitors, polkit) to the request.

#include "platform/SystemReboot.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <system_error>

namespace ndpx::platform {
namespace {

struct BusUnref {
    void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
};

struct BusError {
    sd_bus_error error{};  // what SD_BUS_ERROR_NULL spells in C
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { ::sd_bus_error_free(&error); }
};

std::string describe(const char* what, int result, const BusError& e) {
    std::string text = what;
    text += ": ";
    text += e.error.message != nullptr ? std::string(e.error.message)
                                       : std::generic_category().message(-result);
    return text;
}

}  // namespace

bool requestSystemReboot(std::string& error) {
    sd_bus* rawBus = nullptr;
    const int opened = ::sd_bus_open_system(&rawBus);
    if (opened < 0) {
        error = describe("cannot reach the system bus", opened, BusError());
        return false;
    }
    const std::unique_ptr<sd_bus, BusUnref> bus(rawBus);
    BusError e;
    // Not interactive: nobody is there to answer an authentication prompt.
    const int called =
        ::sd_bus_call_method(bus.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
                             "org.freedesktop.login1.Manager", "Reboot", &e.error, nullptr, "b", 0);
    if (called < 0) {
        error = describe("logind refused the reboot", called, e);
        return false;
    }
    return true;
}

}  // namespace ndpx::platform

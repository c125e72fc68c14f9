// Settings with defaults over the real store, and the change watch that tells
// the owner about values written by another process.

#include "support/TestRegistry.h"

#include <mfw/corestring.h>
#include <mfw/sysconfig.h>

#include <gtest/gtest.h>

#include <condition_variable>

namespace CORE {
namespace {

using ndpx::test::kNodeManagerKey;
using ndpx::test::TestRegistry;

class WatchedConfig : public sysconfig {
public:
    using sysconfig::sysconfig;
    ~WatchedConfig() override { cleanup(); }

    bool waitFor(const std::wstring& name, const std::wstring& value) {
        std::unique_lock lock(m_);
        return cv_.wait_for(lock, std::chrono::seconds(10), [&] {
            for (const auto& [n, v] : seen_) {
                if (n == name && v == value) {
                    return true;
                }
            }
            return false;
        });
    }

protected:
    void changed(const std::wstring& name, const std::wstring& value) override {
        std::lock_guard lock(m_);
        seen_.emplace_back(name, value);
        cv_.notify_all();
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<std::pair<std::wstring, std::wstring>> seen_;
};

TEST(SysConfig, DefaultsAreOverriddenByStoredValuesWithCaseBlindNames) {
    TestRegistry reg;
    reg.setDword(kNodeManagerKey, "mqtt_keepaliveinterval", 45);
    reg.setString(kNodeManagerKey, "Unlisted", "yes");
    sysconfig cfg(reg.shared());
    cfg.init(toWide(kNodeManagerKey), {L"mqtt_KeepAliveInterval=30", L"Flag=false", L"Name=abc"},
             false, true);
    EXPECT_EQ(cfg.getInt(L"MQTT_KEEPALIVEINTERVAL"), 45);
    EXPECT_EQ(cfg.get(L"name"), L"abc");
    EXPECT_FALSE(cfg.getBool(L"Flag"));
    EXPECT_TRUE(cfg.getBool(L"Unlisted"));  // stored values outside the defaults are kept too
    EXPECT_EQ(cfg.get(L"Missing"), L"");

    // A write straight to the store is seen by the next read.
    reg.setString(kNodeManagerKey, "Name", "xyz");
    EXPECT_EQ(cfg.get(L"Name"), L"xyz");
}

TEST(SysConfig, WatchReportsAValueWrittenThroughAnotherConnection) {
    TestRegistry reg;
    WatchedConfig cfg(reg.shared());
    cfg.init(toWide(kNodeManagerKey), {L"AsyncSessionSeconds=150"}, true, true);

    std::string error;
    auto other = ndpx::platform::openSqliteSettingsStore(
        (reg.root() / "var/lib/Brasswick/registry.sqlite").string(), error);
    ASSERT_TRUE(other) << error;
    other->set(kNodeManagerKey, "AsyncSessionSeconds", ndpx::platform::SettingValue::ofDword(120));
    EXPECT_TRUE(cfg.waitFor(L"AsyncSessionSeconds", L"120"));
    other->remove(kNodeManagerKey, "AsyncSessionSeconds");
    EXPECT_TRUE(cfg.waitFor(L"AsyncSessionSeconds", L"150"));  // back to its default
}

}  // namespace
}  // namespace CORE

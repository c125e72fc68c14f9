#include <platform/Paths.h>
#include <platform/SettingsStore.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <optional>

namespace ndpx::platform {
namespace {

TEST(KeyPath, ShortHiveSingleSeparatorsNoEdgesAndValueNamesSplitOff) {
    EXPECT_EQ(normalizeKeyPath("HKEY_LOCAL_MACHINE\\Software\\Brasswick, Inc."),
              "HKLM\\Software\\Brasswick, Inc.");
    EXPECT_EQ(normalizeKeyPath("hkey_local_machine\\A"), "HKLM\\A");
    EXPECT_EQ(normalizeKeyPath("hklm\\A"), "HKLM\\A");
    EXPECT_EQ(normalizeKeyPath("HKEY_CURRENT_USER\\A"), "HKCU\\A");
    EXPECT_EQ(normalizeKeyPath("\\\\HKLM\\\\A\\\\\\B\\"), "HKLM\\A\\B");
    // Only the first component is a hive; a slash is part of a name.
    EXPECT_EQ(normalizeKeyPath("HKLM\\HKEY_LOCAL_MACHINE"), "HKLM\\HKEY_LOCAL_MACHINE");
    EXPECT_EQ(normalizeKeyPath("HKLM\\a/b"), "HKLM\\a/b");
    EXPECT_EQ(normalizeKeyPath("SOFTWARE\\Vendor"), "SOFTWARE\\Vendor");
    EXPECT_EQ(normalizeKeyPath(""), "");
    EXPECT_EQ(normalizeKeyPath("\\\\"), "");

    // A value path splits at its last backslash.
    using Pair = std::pair<std::string, std::string>;
    EXPECT_EQ(splitValuePath("HKLM\\Software\\LmMon\\Config\\endpoint"),
              Pair("HKLM\\Software\\LmMon\\Config", "endpoint"));
    EXPECT_EQ(splitValuePath("HKEY_LOCAL_MACHINE\\A\\\\name"), Pair("HKLM\\A", "name"));
    EXPECT_EQ(splitValuePath("HKLM\\A\\"), Pair("HKLM\\A", ""));
    EXPECT_EQ(splitValuePath("name"), Pair("", "name"));
}

TEST(SettingValue, FactoriesAndText) {
    EXPECT_EQ(SettingValue::ofString("x, y").asText(), "x, y");
    EXPECT_EQ(SettingValue::ofDword(4294967295u).asText(), "4294967295");
    EXPECT_EQ(SettingValue::ofMulti({"DOMAIN", "AGENTUPDATE"}).asText(), "DOMAIN,AGENTUPDATE");
    EXPECT_EQ(SettingValue::ofMulti({}).asText(), "");
    EXPECT_NE(SettingValue::ofString("7"), SettingValue::ofDword(7));
}

// Restores $NDPX_ROOT and clears the explicit root after each test.
class PathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* v = std::getenv("NDPX_ROOT")) {
            savedEnv_ = v;
        }
        ::unsetenv("NDPX_ROOT");
        paths::setRoot({});
    }
    void TearDown() override {
        paths::setRoot({});
        if (savedEnv_) {
            ::setenv("NDPX_ROOT", savedEnv_->c_str(), 1);
        } else {
            ::unsetenv("NDPX_ROOT");
        }
    }
    static mode_t modeOf(const std::filesystem::path& p) {
        struct stat st {};
        EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
        return st.st_mode & 07777;
    }

    test::TempDir dir_;

private:
    std::optional<std::string> savedEnv_;
};

TEST_F(PathsTest, RootFromFlagThenEnvironmentThenSlash) {
    EXPECT_EQ(paths::root(), "/");
    EXPECT_EQ(paths::settingsStoreFile(), "/var/lib/Brasswick/registry.sqlite");

    ::setenv("NDPX_ROOT", "/env/root", 1);
    EXPECT_EQ(paths::root(), "/env/root");
    paths::setRoot("/flag/root");
    EXPECT_EQ(paths::root(), "/flag/root");
    EXPECT_EQ(paths::programData(), "/flag/root/var/lib");
    EXPECT_EQ(paths::systemDrive(), "/flag/root");
    EXPECT_EQ(paths::vendorDataDir(), "/flag/root/var/lib/Brasswick");
    EXPECT_EQ(paths::certStoreFile(), "/flag/root/var/lib/Brasswick/certstore.sqlite");
    EXPECT_EQ(paths::runDir(), "/flag/root/run/Brasswick");
    paths::setRoot({});
    EXPECT_EQ(paths::root(), "/env/root");
}

TEST_F(PathsTest, SecureDirectoriesAre0700AndExistingOnesAreKept) {
    const auto existing = dir_.path() / "existing";
    std::filesystem::create_directory(existing);
    ::chmod(existing.c_str(), 0755);

    const mode_t oldMask = ::umask(0);  // a lax umask must not loosen the mode
    std::string error;
    const bool ok = paths::createSecureDirectories(existing / "a" / "b", error);
    ::umask(oldMask);
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(modeOf(existing), 0755u);
    EXPECT_EQ(modeOf(existing / "a"), 0700u);
    EXPECT_EQ(modeOf(existing / "a" / "b"), 0700u);
    EXPECT_TRUE(paths::createSecureDirectories(existing / "a" / "b", error)) << error;

    std::ofstream(dir_.path() / "file") << "x";
    error.clear();
    EXPECT_FALSE(paths::createSecureDirectories(dir_.path() / "file" / "sub", error));
    EXPECT_NE(error.find("file"), std::string::npos) << error;
    EXPECT_FALSE(paths::createSecureDirectories({}, error));
}

}  // namespace
}  // namespace ndpx::platform

#include <platform/Paths.h>
#include <platform/SecureFile.h>
#include <platform/SettingsStore.h>
#include <platform/UniqueFd.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST_F(PathsTest, SecureFileIsReadOnlyWhenOnlyItsOwnerMayWriteItAndWithinItsBound) {
    const auto makeFile = [&](const char* name, mode_t mode, const std::string& text = "{}") {
        const auto path = dir_.path() / name;
        std::ofstream(path) << text;
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    };
    const SecureFile read = readSecureFile(makeFile("ok", 0644), FileOwner::CurrentUser, 2);
    EXPECT_TRUE(read.ok());
    EXPECT_EQ(read.text, "{}");
    EXPECT_TRUE(checkSecureFile(makeFile("ro", 0400), FileOwner::CurrentUser).ok());
    EXPECT_TRUE(readSecureFile(makeFile("shared", 0666), FileOwner::Anyone, 2).ok());

    // Owned by someone else: as root, give it away; otherwise it is ours, not the system's.
    const auto foreign = makeFile("foreign", 0600);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(foreign.c_str(), 1, 1), 0);
    }
    const auto link = dir_.path() / "link";
    std::filesystem::create_symlink(makeFile("target", 0600), link);
    const auto fifo = dir_.path() / "fifo";  // would block a reader without O_NONBLOCK
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        std::filesystem::path path;
        FileOwner owner;
        SecureFileError error;
    } refused[] = {
        {makeFile("group", 0664), FileOwner::CurrentUser, SecureFileError::UntrustedOwner},
        {makeFile("other", 0602), FileOwner::CurrentUser, SecureFileError::UntrustedOwner},
        {foreign, FileOwner::LocalSystem, SecureFileError::UntrustedOwner},
        {link, FileOwner::Anyone, SecureFileError::CannotOpen},
        {dir_.path() / "absent", FileOwner::Anyone, SecureFileError::CannotOpen},
        {dir_.path(), FileOwner::Anyone, SecureFileError::NotARegularFile},
        {fifo, FileOwner::Anyone, SecureFileError::NotARegularFile},
        {makeFile("big", 0600, "{ }"), FileOwner::CurrentUser, SecureFileError::TooLarge},
    };
    for (const auto& c : refused) {
        const SecureFile result = readSecureFile(c.path, c.owner, 2);
        EXPECT_EQ(result.error, c.error) << c.path;
        EXPECT_TRUE(result.cause) << c.path;
        EXPECT_TRUE(result.text.empty()) << c.path;
    }
    EXPECT_EQ(checkSecureFile(dir_.path(), FileOwner::Anyone).cause,
              std::make_error_code(std::errc::is_a_directory));
    EXPECT_TRUE(checkSecureFile(dir_.path() / "big", FileOwner::CurrentUser).ok());
}

TEST(UniqueFd, ClosesWhatItOwnsOnceAndHandsItOn) {
    const auto isOpen = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
    UniqueFd first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(first);
    const int raw = first.get();
    UniqueFd second(std::move(first));
    UniqueFd third;
    third = std::move(second);
    EXPECT_FALSE(first.valid() || second.valid());
    EXPECT_EQ(third.get(), raw);
    EXPECT_TRUE(isOpen(raw));

    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    third.reset(other);
    EXPECT_FALSE(isOpen(raw));
    const int given = third.release();
    EXPECT_EQ(given, other);
    EXPECT_TRUE(isOpen(given));
    { const UniqueFd scoped(given); }
    EXPECT_FALSE(isOpen(given));
}

}  // namespace
}  // namespace ndpx::platform

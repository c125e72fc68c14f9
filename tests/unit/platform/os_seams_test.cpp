// The operating-system seams of the platform library: the descriptor
// owner, the secure-file check and run-time loading of code.

#include <platform/SecureFile.h>
#include <platform/ServiceManager.h>
#include <platform/SharedLibrary.h>
#include <platform/Threads.h>
#include <platform/UniqueFd.h>

#include "support/JournalSocket.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace ndpx::platform {
namespace {

TEST(SecureFile, IsReadOnlyWhenOnlyItsOwnerMayWriteItAndWithinItsBound) {
    test::TempDir dir;
    const auto makeFile = [&](const char* name, mode_t mode, const std::string& text = "{}") {
        const auto path = dir.path() / name;
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
    const auto link = dir.path() / "link";
    std::filesystem::create_symlink(makeFile("target", 0600), link);
    const auto fifo = dir.path() / "fifo";  // would block a reader without O_NONBLOCK
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
        {dir.path() / "absent", FileOwner::Anyone, SecureFileError::CannotOpen},
        {dir.path(), FileOwner::Anyone, SecureFileError::NotARegularFile},
        {fifo, FileOwner::Anyone, SecureFileError::NotARegularFile},
        {makeFile("big", 0600, "{ }"), FileOwner::CurrentUser, SecureFileError::TooLarge},
    };
    for (const auto& c : refused) {
        const SecureFile result = readSecureFile(c.path, c.owner, 2);
        EXPECT_EQ(result.error, c.error) << c.path;
        EXPECT_TRUE(result.cause) << c.path;
        EXPECT_TRUE(result.text.empty()) << c.path;
    }
    EXPECT_EQ(checkSecureFile(dir.path(), FileOwner::Anyone).cause,
              std::make_error_code(std::errc::is_a_directory));
    EXPECT_TRUE(checkSecureFile(dir.path() / "big", FileOwner::CurrentUser).ok());
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

TEST(SharedLibrary, LoadsByPathFindsSymbolsAndTellsWhereCodeLives) {
    LoadedModule self;
    ASSERT_TRUE(moduleContaining(reinterpret_cast<const void*>(&currentThreadId), self));
    EXPECT_NE(self.base, nullptr);
    EXPECT_EQ(std::filesystem::path(self.path).filename(), "libndpx_platform.so");

    SharedLibrary library;
    std::string error;
    ASSERT_TRUE(library.load("libc.so.6", error)) << error;
    void* found = library.symbol("getpid");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(library.symbol("PluginInit"), nullptr);
    LoadedModule owner;
    ASSERT_TRUE(moduleContaining(found, owner));
    EXPECT_NE(owner.path.find("libc.so"), std::string::npos) << owner.path;

    SharedLibrary moved = std::move(library);
    EXPECT_TRUE(moved.loaded());
    EXPECT_FALSE(library.loaded());
    moved.unload();
    EXPECT_FALSE(moved.loaded());

    EXPECT_FALSE(moved.load("/nonexistent/module.so", error));
    EXPECT_NE(error.find("/nonexistent/module.so"), std::string::npos) << error;
    int local = 0;  // the stack lies in no module
    EXPECT_FALSE(moduleContaining(&local, owner));
}

// What the service manager hears: the test plays it, with a socket of its own.
TEST(ServiceManager, ReadinessStoppingAndLivenessReachTheNamedSocketOnly) {
    test::TempDir dir;
    test::JournalSocket manager(dir.path() / "notify");
    ASSERT_TRUE(manager.bound());
    const auto heard = [&] {
        const auto told = manager.next(std::chrono::milliseconds(0));
        return told ? *told : test::JournalSocket::Entry{{"<nothing>", ""}};
    };

    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(notifyReady("Connected"));

    ::setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
    using Told = test::JournalSocket::Entry;
    EXPECT_TRUE(notifyReady("Connected"));
    EXPECT_EQ(heard(), (Told{{"READY", "1"}, {"STATUS", "Connected"}}));
    EXPECT_TRUE(notifyAlive());
    EXPECT_EQ(heard(), (Told{{"WATCHDOG", "1"}}));
    EXPECT_TRUE(notifyStopping());
    EXPECT_EQ(heard(), (Told{{"STOPPING", "1"}}));
    ::unsetenv("NOTIFY_SOCKET");

    ::unsetenv("WATCHDOG_PID");
    ::setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(serviceWatchdogInterval(), std::chrono::seconds(30));
    // A watchdog meant for the process that passed its environment on.
    ::setenv("WATCHDOG_PID", std::to_string(::getpid() + 1).c_str(), 1);
    EXPECT_EQ(serviceWatchdogInterval(), std::nullopt);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    EXPECT_EQ(serviceWatchdogInterval(), std::chrono::seconds(30));
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
    EXPECT_EQ(serviceWatchdogInterval(), std::nullopt);
}

}  // namespace
}  // namespace ndpx::platform

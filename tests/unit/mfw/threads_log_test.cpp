// The module's thread group, thread names (ours and the system's) and the
// log's level filter, thread ids and file rotation.

#include "support/TempDir.h"

#include <mfw/coreevent.h>
#include <mfw/corethread.h>
#include <mfw/log.h>
#include <mfw/moduleLog.h>
#include <platform/Threads.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

namespace CORE {
namespace {

TEST(ThreadGroup, WaitReturnsOnlyAfterEveryThreadOfTheModuleEnded) {
    coreevent release;
    ASSERT_TRUE(corethread::startDetached("Detached", [&] { release.waitMs(kInfinite); }));
    corethread owned;
    std::string name;
    std::string osName;
    unsigned long tid = 0;
    ASSERT_TRUE(owned.start("OwnedThreadWithALongName", [&] {
        name = corethread::currentThreadName();
        tid = ndpx::platform::currentThreadId();
        std::ifstream("/proc/self/task/" + std::to_string(tid) + "/comm") >> osName;
        release.waitMs(kInfinite);
    }));
    EXPECT_FALSE(owned.start("Again", [] {}));
    EXPECT_EQ(corethreadgroup::module().running(), 2u);

    auto waiter = std::async(std::launch::async, [] {
        corethreadgroup::module().wait(std::chrono::milliseconds(10),
                                       std::chrono::milliseconds(20));
    });
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    release.set();
    owned.join();
    EXPECT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(name, "OwnedThreadWithALongName");
    EXPECT_EQ(osName, "OwnedThreadWith");  // cut to what the system takes, not refused
    EXPECT_NE(tid, ndpx::platform::currentThreadId());
    EXPECT_EQ(corethreadgroup::module().running(), 0u);
}

TEST(ThreadGroup, AnExceptionInAThreadIsLoggedNotFatal) {
    auto capture = std::make_shared<CaptureSink>();
    addLogSink(capture);
    setLogLevel(kLogVerbose);
    ASSERT_TRUE(corethread::startDetached("Thrower", [] { throw std::runtime_error("bad"); }));
    corethreadgroup::module().wait();
    removeLogSink(capture);
    EXPECT_TRUE(capture->contains("corethread Thrower: unhandled exception: bad"));
}

TEST(Log, LevelFiltersAndFileSinkRotates) {
    ndpx::test::TempDir dir;
    const auto file = (dir.path() / "agent.log").string();
    auto capture = std::make_shared<CaptureSink>();
    addLogSink(capture);
    addLogSink(makeRotatingFileSink(file, 200, 2));
    setLogLevel(kLogWarning);
    MFW_LOG(kLogInfo, "hidden %d", 1);
    EXPECT_FALSE(isLoggingAtLevel(kLogInfo));
    for (int i = 0; i < 20; ++i) {
        MFW_LOG(kLogError, "line %02d of the rotation test", i);
    }
    clearLogSinks();
    EXPECT_FALSE(capture->contains("hidden"));
    EXPECT_EQ(capture->count("of the rotation test"), 20u);
    EXPECT_EQ(capture->records().front().source, moduleSourceName());
    EXPECT_EQ(capture->records().front().threadId, ndpx::platform::currentThreadId());
    EXPECT_TRUE(std::filesystem::exists(file + ".1"));
    EXPECT_TRUE(std::filesystem::exists(file + ".2"));
    EXPECT_FALSE(std::filesystem::exists(file + ".3"));
    EXPECT_LE(std::filesystem::file_size(file), 200u);
    std::ifstream in(file);
    std::string last;
    for (std::string l; std::getline(in, l);) {
        last = l;
    }
    EXPECT_NE(last.find("line 19 of the rotation test"), std::string::npos);
}

}  // namespace
}  // namespace CORE

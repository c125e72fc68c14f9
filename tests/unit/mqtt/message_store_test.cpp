// The session's message store: what it holds across reopening, what it makes
// of a file cut short or not its own, that it stays small under the usual
// put-then-remove traffic, and the move from the one-file-per-message folder.

#include "mqtt/LegacyStore.h"
#include "mqtt/MessageStore.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>

namespace ndpx {
namespace {

class MessageStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<MessageStore> open() {
        std::string error;
        auto store = MessageStore::open(
            file_, [this](const std::string& l) { lines_.push_back(l); }, error);
        EXPECT_TRUE(store) << error;
        return store;
    }
    static bool put(MessageStore& store, const std::string& key, const std::string& value) {
        // Split in two, as the library hands a message over in pieces.
        const std::array<std::string_view, 2> parts{std::string_view(value).substr(0, 3),
                                                    std::string_view(value).substr(3)};
        return store.put(key, parts);
    }
    static std::vector<std::string> sortedKeys(MessageStore& store) {
        auto keys = store.keys();
        std::sort(keys.begin(), keys.end());
        return keys;
    }

    test::TempDir dir_;
    std::filesystem::path file_ = dir_.path() / "session.store";
    std::vector<std::string> lines_;
};

TEST_F(MessageStoreTest, WhatWasPutAndNotRemovedIsThereAfterReopening) {
    {
        auto store = open();
        ASSERT_TRUE(put(*store, "s5-1", "first message"));
        ASSERT_TRUE(put(*store, "s5-2", "second"));
        ASSERT_TRUE(put(*store, "s5-1", "first, sent again"));  // replaces
        ASSERT_TRUE(put(*store, "q5-7", std::string("\0binary\n", 8)));
        ASSERT_TRUE(store->remove("s5-2"));
        EXPECT_TRUE(store->remove("never-there"));
    }
    auto store = open();
    EXPECT_EQ(sortedKeys(*store), (std::vector<std::string>{"q5-7", "s5-1"}));
    EXPECT_EQ(store->get("s5-1"), "first, sent again");
    EXPECT_EQ(store->get("q5-7"), std::string("\0binary\n", 8));
    EXPECT_FALSE(store->get("s5-2"));
    EXPECT_TRUE(store->contains("q5-7"));
    EXPECT_FALSE(store->contains("s5-2"));
    EXPECT_TRUE(lines_.empty());

    ASSERT_TRUE(store->clear());
    EXPECT_TRUE(open()->keys().empty());
}

TEST_F(MessageStoreTest, ARecordCutShortIsDroppedAndTheRestKept) {
    std::uintmax_t whole = 0;
    {
        auto store = open();
        ASSERT_TRUE(put(*store, "s5-1", "kept"));
        whole = store->fileBytes();
        ASSERT_TRUE(put(*store, "s5-2", "cut short by a power loss"));
    }
    std::filesystem::resize_file(file_, std::filesystem::file_size(file_) - 5);
    {
        auto store = open();
        EXPECT_EQ(store->keys(), std::vector<std::string>{"s5-1"});
        EXPECT_EQ(store->fileBytes(), whole);
        ASSERT_EQ(lines_.size(), 1u);
        EXPECT_NE(lines_[0].find("not a whole record"), std::string::npos) << lines_[0];
        ASSERT_TRUE(put(*store, "s5-3", "after the cut"));
    }
    // A flipped byte inside a record is caught the same way.
    {
        std::fstream f(file_, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(static_cast<std::streamoff>(whole) + 12);
        f.put('X');
    }
    EXPECT_EQ(open()->keys(), std::vector<std::string>{"s5-1"});
}

TEST_F(MessageStoreTest, AFileThatIsNotAStoreIsMovedAsideNotOverwritten) {
    std::ofstream(file_) << "something else entirely";
    auto store = open();
    EXPECT_TRUE(store->keys().empty());
    ASSERT_TRUE(put(*store, "s5-1", "new"));
    std::ifstream aside(file_.string() + ".unreadable");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), "something else entirely");
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_NE(lines_[0].find("moved aside"), std::string::npos);
}

TEST_F(MessageStoreTest, TheFileStaysSmallUnderPutAndRemoveAndKeepsWhatIsLive) {
    auto store = open();
    const std::string payload(500, 'p');
    ASSERT_TRUE(put(*store, "s5-held", "held across every rewrite"));
    std::uintmax_t largest = 0;
    for (int i = 0; i < 5000; ++i) {
        // A window of 20 in flight, as with 20 commands answered at once.
        ASSERT_TRUE(put(*store, "s5-" + std::to_string(i), payload));
        if (i >= 20) {
            ASSERT_TRUE(store->remove("s5-" + std::to_string(i - 20)));
        }
        largest = std::max<std::uintmax_t>(largest, store->fileBytes());
    }
    EXPECT_LT(largest, 2 * MessageStore::kCompactAfterDeadBytes);
    store.reset();
    store = open();
    EXPECT_EQ(store->keys().size(), 21u);
    EXPECT_EQ(store->get("s5-held"), "held across every rewrite");
    EXPECT_EQ(store->get("s5-4999"), payload);
    EXPECT_TRUE(lines_.empty());
}

TEST_F(MessageStoreTest, MessagesOfTheOneFilePerMessageFolderMoveInOnce) {
    const auto legacy = legacyStoreFolder(dir_.path(), "e1t3_vm7", "ssl://broker:8883");
    std::filesystem::create_directories(legacy);
    std::ofstream(legacy / "s5-4.msg", std::ios::binary) << "unacknowledged";
    std::ofstream(legacy / "q5-1.msg", std::ios::binary) << "queued";
    std::ofstream(legacy / "notes.txt") << "not a message";
    auto store = open();
    EXPECT_EQ(importLegacyStore(dir_.path(), "e1t3_vm7", "ssl://broker:8883", *store,
                                [this](const std::string& l) { lines_.push_back(l); }),
              2u);
    EXPECT_EQ(sortedKeys(*store), (std::vector<std::string>{"q5-1", "s5-4"}));
    EXPECT_EQ(store->get("s5-4"), "unacknowledged");
    // The folder stays for the file that was not a message; the messages went.
    EXPECT_FALSE(std::filesystem::exists(legacy / "s5-4.msg"));
    EXPECT_TRUE(std::filesystem::exists(legacy / "notes.txt"));
    std::filesystem::remove(legacy / "notes.txt");
    EXPECT_EQ(importLegacyStore(dir_.path(), "e1t3_vm7", "ssl://broker:8883", *store,
                                [](const std::string&) {}),
              0u);
    EXPECT_FALSE(std::filesystem::exists(dir_.path() / "e1t3_vm7-ssl-"));
    EXPECT_EQ(
        std::vector<std::filesystem::path>(std::filesystem::directory_iterator(dir_.path()), {})
            .size(),
        1u);  // only the store
}

}  // namespace
}  // namespace ndpx

// A settings import file (.reg) as an operator or another tool wrote it: any
// bytes, UTF-8 or UTF-16. What the parser accepts the store must take, each
// operation in file order.

#include "FuzzCheck.h"
#include "regctl/RegFile.h"

#include <platform/SettingsStore.h>

#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ndpx;
    using fuzz::fail;
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    std::vector<regctl::RegOperation> operations;
    std::string error;
    if (!regctl::parseRegFile(content, operations, error)) {
        if (error.rfind("line ", 0) != 0) {
            fail("an error names no line", error);
        }
        return 0;
    }
    int line = 0;
    for (const auto& op : operations) {
        if (op.line <= line || op.key.empty()) {
            fail("operations out of order or without a key", op.key);
        }
        line = op.line;
    }
    auto store = platform::openSqliteSettingsStore(":memory:", error);
    fuzz::check(store != nullptr, "no store", error);
    if (!regctl::applyRegOperations(*store, operations, error)) {
        fail("the store refused what the parser accepted", error);
    }
    return 0;
}

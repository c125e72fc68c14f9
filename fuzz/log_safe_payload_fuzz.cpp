// An inbound payload that did not parse, on its way to a log line: any bytes.
// The line is printable ASCII within its bound, and a secret member planted
// anywhere in the bytes (also in JSON quoted inside a string) never shows.

#include "FuzzCheck.h"
#include "config/Redaction.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kSecret = "s3cr3t-Vb7Qx2Lm9Tz";
constexpr std::string_view kMembers[] = {
    R"("password":"s3cr3t-Vb7Qx2Lm9Tz")",
    R"("otp" : "s3cr3t-Vb7Qx2Lm9Tz")",
    R"(\"TOKEN\":\"s3cr3t-Vb7Qx2Lm9Tz\")",
    R"("certificate":{"pem":"s3cr3t-Vb7Qx2Lm9Tz"})",
};

void checkLine(std::string_view input, std::size_t bound) {
    const std::string line = ndpx::logSafePayload(input, bound);
    const std::string note = " bytes)";
    const bool cut = line.size() >= note.size() &&
                     line.compare(line.size() - note.size(), note.size(), note) == 0 &&
                     line.rfind("... (") != std::string::npos;
    for (const char c : line) {
        if (c < 0x20 || c > 0x7e) {
            ndpx::fuzz::fail("a byte outside printable ASCII", line);
        }
    }
    if (line.size() > bound + (cut ? line.size() - line.rfind("... (") : 0)) {
        ndpx::fuzz::fail("longer than its bound", line);
    }
    if (line.find(kSecret) != std::string::npos) {
        ndpx::fuzz::fail("the secret shows", line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) {
        return 0;
    }
    const std::string_view rest(reinterpret_cast<const char*>(data) + 3, size - 3);
    if (rest.find(kSecret) != std::string_view::npos) {
        return 0;  // the fuzzer's own copy of the secret is not ours to hide
    }
    const std::size_t at = (static_cast<std::size_t>(data[0]) << 8 | data[1]) % (rest.size() + 1);
    const std::string_view member = kMembers[data[2] % std::size(kMembers)];
    std::string input(rest.substr(0, at));
    input += member;
    input += rest.substr(at);
    checkLine(input, input.size() * 4 + 64);  // room for every byte as \xNN
    checkLine(input, data[2]);
    return 0;
}

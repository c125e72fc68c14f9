// Inbound payloads that do not parse, rendered for one log line: secrets masked
// by member name without a parse, every byte printable, the length bounded.

#include "config/Redaction.h"

#include <gtest/gtest.h>

#include <string>

namespace ndpx {
namespace {

TEST(LogSafePayload, MasksSecretsOfAMessageCutOffInTransit) {
    // A domain-join template with its secrets in every form a value takes,
    // one of them inside JSON text carried in a string, cut off in a secret.
    const std::string cut =
        R"({"msgType":"JOIN","username":"joiner","password":"Pa55\"w0rd", )"
        R"("auxiliaryPassword" : hunter2,"TOKEN":{"k":["x}","y"]},"PASSWORD":[1,{"v":2}],)"
        R"("note":"password","METADATA":"{\"otp\":\"inner-s3cret\",\"n\":1}","otp":"12-of-)";
    EXPECT_EQ(logSafePayload(cut),
              R"({"msgType":"JOIN","username":"joiner","password":"*****", )"
              R"("auxiliaryPassword" : *****,"TOKEN":*****,"PASSWORD":*****,)"
              R"("note":"password","METADATA":"{\"otp\":\"*****\",\"n\":1}","otp":"*****")");
    // Text that is not well-formed reads more than one way: the quote that
    // closes a secret may open the next name, and \\" may end a string or
    // escape a quote. Every reading's secrets are hidden.
    EXPECT_EQ(
        logSafePayload(
            R"({"otp":"1"password":"2","x":"\"TICKET\":\"3\"TOKEN\":\"4\"","y":"\"otp\":\"5\\"TOKEN\":\"6\""})"),
        R"({"otp":"*****","x":"\"TICKET\":\"*****\"","y":"\"otp\":\"*****\""})");
    // Names match exactly, as in the redaction set.
    EXPECT_EQ(logSafePayload(R"({"Password":"shown")"), R"({"Password":"shown")");
}

TEST(LogSafePayload, IsCutAtItsBoundWithTheFullSizeNoted) {
    std::string garbage(5u << 20, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = static_cast<char>((i * 7919u) >> 3);
    }
    const std::string line = logSafePayload(garbage);
    const std::string note = "... (5242880 bytes)";
    ASSERT_GE(line.size(), note.size());
    EXPECT_LE(line.size(), kLogSafePayloadChars + note.size());
    EXPECT_EQ(line.substr(line.size() - note.size()), note);
    // A secret is masked whole or not shown at all, never shown in part.
    const std::string secret = R"({"password":")" + std::string(600, 's') + "\"}";
    EXPECT_EQ(logSafePayload(secret, 20), R"({"password":"*****"})");
    EXPECT_EQ(logSafePayload(secret, 16), R"({"password":... (615 bytes))");
}

TEST(LogSafePayload, WritesBytesOutsidePrintableAsciiAsHex) {
    constexpr char kBytes[] = "{\"a\":\"\xff\xfe\x80\xc3\xa9\",\n\"b\":\"\x1b[2J\0\"}";
    EXPECT_EQ(logSafePayload(std::string_view(kBytes, sizeof kBytes - 1)),
              R"({"a":"\xff\xfe\x80\xc3\xa9",\x0a"b":"\x1b[2J\x00"})");
}

}  // namespace
}  // namespace ndpx

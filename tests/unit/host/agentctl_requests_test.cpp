// agentctl's name=value arguments and what its exit code says of an answer.

#include "agentctl/Requests.h"

#include <gtest/gtest.h>

namespace ndpx::agentctl {
namespace {

TEST(AgentctlArguments, NameValuePairsAreCheckedAndAValueMayHoldEqualsOrBeEmpty) {
    Json::Value bag;
    std::string error;
    ASSERT_TRUE(parseAssignments({"a=b=c", "empty="}, bag, error)) << error;
    EXPECT_EQ(bag["a"].asString(), "b=c");
    EXPECT_EQ(bag["empty"].asString(), "");
    EXPECT_FALSE(parseAssignments({"novalue"}, bag, error));
    EXPECT_EQ(error, "'novalue' is not name=value");
    EXPECT_FALSE(parseAssignments({"=x"}, bag, error));
    EXPECT_FALSE(parseAssignments({"a=1", "a=2"}, bag, error));
    EXPECT_EQ(error, "'a' is given twice");
}

TEST(AgentctlArguments, ExitCodesTellSuccessHostErrorsAndRefusalsApart) {
    Json::Value answer;
    answer["ok"] = true;
    EXPECT_EQ(exitCodeOf(answer), kExitOk);
    answer["ok"] = false;
    EXPECT_EQ(exitCodeOf(answer), kExitHostError);
    answer["refused"] = true;
    EXPECT_EQ(exitCodeOf(answer), kExitUnreachable);
    EXPECT_EQ(exitCodeOf(Json::Value()), kExitHostError);
}

}  // namespace
}  // namespace ndpx::agentctl

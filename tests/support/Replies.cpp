#include "support/Replies.h"

#include <gtest/gtest.h>

#include <cstddef>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Json.h"
#include "support/Requests.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

/// Titles the self-test event that shows that every line before it was dealt with.
constexpr const char* marker_title = "marker";

}  // namespace

std::vector<std::string> repliesTo(const std::vector<std::string>& lines) {
    BackendProcess process;
    process.greet();
    for (const auto& line : lines) process.send(line);
    process.send(startListeningRequest(testOnlyScope(marker_title)));
    auto replies = process.finishAndTakeRest();
    if (process.waitForExit() != exitedWith(0)) throw TestFailure("the backend did not end normally");
    if (replies.empty() || selfTestTitleOf(replies.back()) != marker_title) {
        throw TestFailure("the request after the lines was not served");
    }
    replies.pop_back();
    return replies;
}

std::vector<std::string> repliesToLine(std::string_view line) {
    return repliesTo({std::string(line)});
}

std::vector<std::string> repliesToEnvelope(const Json& envelope) {
    return repliesToLine(envelope.dump());
}

void expectOneErrorEach(const std::vector<std::string>& lines) {
    ASSERT_FALSE(lines.empty());
    const auto replies = repliesTo(lines);
    ASSERT_EQ(replies.size(), lines.size());
    for (std::size_t index = 0; index < lines.size(); ++index) {
        EXPECT_NO_THROW(errorMessageOf(replies[index])) << lines[index];
    }
}

void expectOneError(std::string_view line) {
    expectOneErrorEach({std::string(line)});
}

}  // namespace brindle::test

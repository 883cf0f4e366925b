#include "worker/FreshLinkReset.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "support/Files.h"
#include "support/WorkerParts.h"

namespace brindle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Fault = test::FaultInjectingFileManager::Fault;

constexpr auto reset_begun = "starting: Resetting the managed WhatsApp Web session for a fresh link request.";
constexpr auto reset_done =
    "starting: Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.";

/// Awaits a task that fails, and keeps what it says.
Task<> failureOf(Task<>& task, std::string& failure) {
    try {
        co_await std::move(task);
    } catch (const Failure& error) {
        failure = error.what();
    }
}

class FreshLinkResetTests : public testing::Test {
  protected:
    void request() { test::writeFileAtomically(parts_.directory.freshLinkRequestFile, ""); }
    bool isRequested() const { return parts_.exists(parts_.directory.freshLinkRequestFile); }

    test::WorkerParts parts_;
    FreshLinkReset reset_{parts_.page, parts_.files, parts_.directory.freshLinkRequestFile, parts_.qrCode,
                          parts_.publisher};
};

TEST_F(FreshLinkResetTests, WithoutARequestNothingHappens) {
    test::writeFileAtomically(parts_.directory.workerQRCodeFile, "png");
    auto task = reset_.resetForFreshLinkIfRequested();
    task.start();
    EXPECT_TRUE(task.isDone());
    EXPECT_THAT(parts_.host.calls, IsEmpty());
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_TRUE(parts_.exists(parts_.directory.workerQRCodeFile));
}

TEST_F(FreshLinkResetTests, AnnouncesTheResetAndWaitsForTheRemoval) {
    request();
    parts_.state.displayName = "Ann";
    parts_.state.workerState = "linked";
    auto task = reset_.resetForFreshLinkIfRequested();
    task.start();
    EXPECT_FALSE(task.isDone());
    EXPECT_THAT(parts_.host.calls, ElementsAre("removeAllWebsiteData"));
    EXPECT_THAT(parts_.published(), ElementsAre(reset_begun));
    EXPECT_EQ(parts_.state.displayName, std::nullopt);
    EXPECT_TRUE(isRequested());
}

TEST_F(FreshLinkResetTests, RemovesTheStaleQRCodeBeforeTheWebsiteData) {
    request();
    test::writeFileAtomically(parts_.directory.workerQRCodeFile, "png");
    auto task = reset_.resetForFreshLinkIfRequested();
    task.start();
    EXPECT_FALSE(parts_.exists(parts_.directory.workerQRCodeFile));
    EXPECT_FALSE(task.isDone());
}

TEST_F(FreshLinkResetTests, RemovesTheRequestOnceTheDataIsGone) {
    request();
    auto task = reset_.resetForFreshLinkIfRequested();
    task.start();
    parts_.host.removals.at(0)(true);
    EXPECT_TRUE(task.isDone());
    EXPECT_FALSE(isRequested());
    EXPECT_THAT(parts_.published(), ElementsAre(reset_begun, reset_done));
}

TEST_F(FreshLinkResetTests, LoadsNothingItself) {
    request();
    auto task = reset_.resetForFreshLinkIfRequested();
    task.start();
    parts_.host.removals.at(0)(true);
    EXPECT_THAT(parts_.host.calls, ElementsAre("removeAllWebsiteData"));
}

TEST_F(FreshLinkResetTests, FailedRemovalsAreIgnored) {
    request();
    test::writeFileAtomically(parts_.directory.workerQRCodeFile, "png");
    auto task = reset_.resetForFreshLinkIfRequested();
    // Looking for the request, writing the status and looking for the picture go well.
    parts_.faults.set(Fault{.operation = 4, .code = EACCES});
    task.start();
    // Looking for the request goes well.
    parts_.faults.set(Fault{.operation = 2, .code = EACCES});
    parts_.host.removals.at(0)(true);
    EXPECT_TRUE(task.isDone());
    EXPECT_THAT(parts_.faults.failures(), ElementsAre("remove " + parts_.directory.freshLinkRequestFile));
    EXPECT_TRUE(parts_.exists(parts_.directory.workerQRCodeFile));
    EXPECT_TRUE(isRequested());
    EXPECT_THAT(parts_.published(), ElementsAre(reset_begun, reset_done));
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

TEST_F(FreshLinkResetTests, RequestStaysWhenDataAreLeft) {
    request();
    auto reset = reset_.resetForFreshLinkIfRequested();
    std::string failure;
    auto task = failureOf(reset, failure);
    task.start();
    parts_.host.removals.at(0)(false);
    EXPECT_TRUE(task.isDone());
    EXPECT_THAT(failure, testing::StartsWith("The linked account cannot be forgotten: "));
    EXPECT_TRUE(isRequested());
    EXPECT_THAT(parts_.published(), ElementsAre(reset_begun));
}

TEST_F(FreshLinkResetTests, RemovalThatEndsAfterTheWorkerDoesNothing) {
    request();
    {
        auto task = reset_.resetForFreshLinkIfRequested();
        task.start();
    }
    parts_.host.removals.at(0)(true);
    EXPECT_TRUE(isRequested());
    EXPECT_THAT(parts_.published(), ElementsAre(reset_begun));
}

}  // namespace
}  // namespace brindle

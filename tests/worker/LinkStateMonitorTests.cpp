#include "worker/LinkStateMonitor.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/Files.h"
#include "support/WorkerParts.h"
#include "text/Base64.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Fault = test::FaultInjectingFileManager::Fault;

constexpr auto scan_status = "waiting_for_qr: Scan the QR code with WhatsApp on your phone.";
constexpr auto waiting_status = "starting: Waiting for WhatsApp Web to render login state.";

std::string reloadStatus(int attempt) {
    return "starting: WhatsApp Web is still rendering login state. Reloading the managed runtime worker (attempt " +
           std::to_string(attempt) + ").";
}

/// A worker that is told what its scripts result in.
class LinkStateMonitorTests : public testing::Test {
  protected:
    void refreshQRCode(EvaluationOutcome outcome) {
        auto task = monitor_.refreshQRCode();
        task.start();
        EXPECT_EQ(parts_.host.pending.at(0).script, page_script::qr_code);
        parts_.host.answerOnly(std::move(outcome));
        EXPECT_TRUE(task.isDone());
    }
    Task<> refresh(std::optional<bool>& isLinked) { isLinked = co_await monitor_.refreshLinkState(); }
    bool refreshLinkState(EvaluationOutcome outcome) {
        std::optional<bool> isLinked;
        auto task = refresh(isLinked);
        task.start();
        EXPECT_EQ(parts_.host.pending.at(0).script, page_script::link_state);
        parts_.host.answerOnly(std::move(outcome));
        return isLinked.value();
    }
    void putQRFile() const { test::writeFileAtomically(parts_.directory.workerQRCodeFile, "old"); }
    bool hasQRFile() const { return parts_.exists(parts_.directory.workerQRCodeFile); }
    std::string qrFile() const { return test::readFile(parts_.directory.workerQRCodeFile); }

    test::WorkerParts parts_;
    WorkerState& state_ = parts_.state;
    LinkStateMonitor monitor_{parts_.page, parts_.scripts,   parts_.recovery, parts_.qrCode,
                              state_,      parts_.publisher, parts_.log};
};

class QRCodeTests : public LinkStateMonitorTests {};

TEST_F(QRCodeTests, PictureIsWrittenByteForByteAndAnnounced) {
    const std::string picture("\x89PNG\r\n\x1A\n\0\xFF", 10);
    refreshQRCode(test::result("data:image/png;base64," + base64Encoded(picture)));
    EXPECT_EQ(qrFile(), picture);
    EXPECT_THAT(parts_.published(), ElementsAre(scan_status));
    EXPECT_EQ(parts_.files.writes().at(0).durability, Durability::process);
}

TEST_F(QRCodeTests, AnnouncementKeepsTheAccount) {
    state_.displayName = "Ann";
    refreshQRCode(test::result(test::code_answer));
    EXPECT_THAT(parts_.published(), ElementsAre(std::string(scan_status) + " (Ann)"));
}

TEST_F(QRCodeTests, PictureIsWrittenAgainOnEveryTick) {
    refreshQRCode(test::result(test::code_answer));
    refreshQRCode(test::result(test::code_answer));
    EXPECT_THAT(parts_.files.contentsOf(parts_.directory.workerQRCodeFile), SizeIs(2));
    EXPECT_THAT(parts_.published(), ElementsAre(scan_status, scan_status));
}

TEST_F(QRCodeTests, LinkedWorkerDoesNotGoBackToScanning) {
    for (const std::string word : {"linked", "watching_chat"}) {
        state_.workerState = word;
        refreshQRCode(test::result(test::code_answer));
        EXPECT_EQ(state_.workerState, word);
    }
    EXPECT_TRUE(hasQRFile());
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(QRCodeTests, EveryOtherStateGoesToScanning) {
    for (const std::string word :
         {"starting", "error", "activating_chat", "wrong_chat", "no_active_chat", "waiting_for_qr"}) {
        state_.workerState = word;
        refreshQRCode(test::result(test::code_answer));
        EXPECT_EQ(state_.workerState, "waiting_for_qr") << word;
    }
}

TEST_F(QRCodeTests, PageWithoutCanvasRemovesTheFileAndNothingElse) {
    putQRFile();
    refreshQRCode(test::noResult());
    EXPECT_FALSE(hasQRFile());
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_EQ(state_.workerState, "starting");
}

TEST_F(QRCodeTests, CanvasThatIsNoPictureRemovesTheFile) {
    for (const std::string dataURL :
         {"", "data:,", "data:image/jpeg;base64,AAAA", "data:image/png;base64", "DATA:image/png;base64,AAAA",
          "data:image/PNG;base64,AAAA", " data:image/png;base64,AAAA",
          "data:image/png;charset=x;base64,AAAA"}) {
        putQRFile();
        refreshQRCode(test::result(dataURL));
        EXPECT_FALSE(hasQRFile()) << dataURL;
    }
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(QRCodeTests, PictureThatIsNoPNGIsNone) {
    const std::string signature = "\x89PNG\r\n\x1A\n";
    for (const std::string& picture :
         {std::string(), std::string("GIF89a"), signature.substr(0, 7), "x" + signature,
          std::string("\x89PNG\n\x1A\n and more"), std::string("\x89png\r\n\x1A\n")}) {
        putQRFile();
        refreshQRCode(test::result("data:image/png;base64," + base64Encoded(picture)));
        EXPECT_FALSE(hasQRFile()) << testing::PrintToString(picture);
    }
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(QRCodeTests, PictureOfMoreThanAMebibyteIsNone) {
    std::string picture = "\x89PNG\r\n\x1A\n";
    picture.resize(std::size_t{1} << 20U, 'x');
    refreshQRCode(test::result("data:image/png;base64," + base64Encoded(picture)));
    EXPECT_EQ(qrFile(), picture);
    refreshQRCode(test::result("data:image/png;base64," + base64Encoded(picture + "x")));
    EXPECT_FALSE(hasQRFile());
}

TEST_F(QRCodeTests, UndecodablePictureChangesNothing) {
    putQRFile();
    for (const std::string text : {"AAA", "AAAA ", "AA\nAA", "AA-_", "A===", "AAAA,"}) {
        refreshQRCode(test::result("data:image/png;base64," + text));
        EXPECT_EQ(qrFile(), "old") << text;
    }
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

TEST_F(QRCodeTests, FailedScriptIsLoggedAndChangesNothing) {
    putQRFile();
    refreshQRCode(test::failure("SecurityError: The canvas is tainted."));
    EXPECT_THAT(parts_.host.log, ElementsAre("QR fetch failed: SecurityError: The canvas is tainted."));
    EXPECT_EQ(qrFile(), "old");
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(QRCodeTests, FailedWriteIsLoggedAndNotAnnounced) {
    putQRFile();
    parts_.faults.set(Fault{.operation = 1, .code = ENOSPC});
    refreshQRCode(test::result(test::code_answer));
    EXPECT_THAT(parts_.host.log,
                ElementsAre("QR fetch failed: Cannot write \"" + parts_.directory.workerQRCodeFile +
                            "\": No space left on device."));
    EXPECT_EQ(qrFile(), "old");
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(QRCodeTests, FailedRemovalIsIgnored) {
    putQRFile();
    // Looking for the file goes well.
    parts_.faults.set(Fault{.operation = 2, .code = EACCES});
    refreshQRCode(test::noResult());
    EXPECT_TRUE(parts_.faults.wasMet());
    EXPECT_TRUE(hasQRFile());
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

class LinkStateTests : public LinkStateMonitorTests {};

TEST_F(LinkStateTests, LinkedPageIsPublishedWithItsAccount) {
    EXPECT_TRUE(refreshLinkState(test::result(test::linked_answer)));
    EXPECT_TRUE(state_.isLinked);
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "linked: Linked to WhatsApp Web. Select a watched chat title to start live listening. (Ann)"));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(LinkStateTests, AccountWithoutLabelHasADefaultOne) {
    for (const auto text : {R"({"linked":true,"account":null})", R"({"linked":true})"}) {
        state_.displayName = "Ann";
        refreshLinkState(test::result(text));
        EXPECT_EQ(state_.displayName, "WhatsApp Web");
    }
}

TEST_F(LinkStateTests, AccountIsCutToWhatPeopleRead) {
    refreshLinkState(test::result(R"({"linked":true,"account":")" + std::string(1'000'000, 'x') + R"("})"));
    EXPECT_EQ(state_.displayName, std::string(1000, 'x') + "\u2026");
}

TEST_F(LinkStateTests, WatchedChatIsNamedInTheSentence) {
    state_.currentWatchedTitle = "Family";
    refreshLinkState(test::result(test::linked_answer));
    EXPECT_EQ(state_.workerDetail,
              "Linked to WhatsApp Web. Managed live listening is configured for 'Family'.");
}

TEST_F(LinkStateTests, EmptyWatchedTitleCountsAsNone) {
    state_.currentWatchedTitle = "";
    refreshLinkState(test::result(test::linked_answer));
    EXPECT_EQ(state_.workerDetail,
              "Linked to WhatsApp Web. Select a watched chat title to start live listening.");
}

TEST_F(LinkStateTests, WatchedTitleIsReadAfterTheScript) {
    state_.currentWatchedTitle = "Old";
    std::optional<bool> isLinked;
    auto task = refresh(isLinked);
    task.start();
    state_.currentWatchedTitle = "New";
    parts_.host.answerOnly(test::result(test::linked_answer));
    EXPECT_EQ(state_.workerDetail, "Linked to WhatsApp Web. Managed live listening is configured for 'New'.");
}

TEST_F(LinkStateTests, LinkedPageTakesTheStateBackFromTheChat) {
    for (const std::string word : {"activating_chat", "watching_chat", "wrong_chat", "no_active_chat"}) {
        state_.workerState = word;
        refreshLinkState(test::result(test::linked_answer));
        EXPECT_EQ(state_.workerState, "linked");
    }
}

TEST_F(LinkStateTests, PageWithACodeWaitsForTheScan) {
    putQRFile();
    state_.displayName = "Ann";
    state_.isLinked = true;
    EXPECT_FALSE(refreshLinkState(test::result(test::not_linked_answer)));
    EXPECT_FALSE(state_.isLinked);
    EXPECT_EQ(state_.displayName, std::nullopt);
    EXPECT_THAT(parts_.published(), ElementsAre(scan_status));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(LinkStateTests, PageWithNeitherIsStillStarting) {
    state_.displayName = "Ann";
    state_.isLinked = true;
    EXPECT_FALSE(refreshLinkState(test::result(test::not_linked_answer)));
    EXPECT_FALSE(state_.isLinked);
    EXPECT_EQ(state_.displayName, std::nullopt);
    EXPECT_THAT(parts_.published(), ElementsAre(waiting_status));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(LinkStateTests, FailedScriptIsPublished) {
    state_.displayName = "Ann";
    state_.isLinked = true;
    EXPECT_FALSE(refreshLinkState(test::failure("TypeError: null is not an object.")));
    EXPECT_FALSE(state_.isLinked);
    EXPECT_THAT(
        parts_.published(),
        ElementsAre("error: Failed to detect WhatsApp link state: TypeError: null is not an object."));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(LinkStateTests, UndecodableResultIsPublished) {
    for (const std::string text : {"", "linked", "{}", "{\"linked\":\"yes\"}", "[true]"}) {
        state_.isLinked = true;
        state_.displayName = "Ann";
        EXPECT_FALSE(refreshLinkState(test::result(text)));
        EXPECT_FALSE(state_.isLinked);
        EXPECT_EQ(state_.displayName, std::nullopt);
        EXPECT_EQ(state_.workerState, "error");
        EXPECT_THAT(
            state_.workerDetail,
            testing::StartsWith("Failed to detect WhatsApp link state: The data cannot be used because "));
    }
    EXPECT_THAT(parts_.published(), SizeIs(5));
}

TEST_F(LinkStateTests, NextSuccessReplacesTheError) {
    refreshLinkState(test::failure("No."));
    refreshLinkState(test::result(test::linked_answer));
    EXPECT_EQ(state_.workerState, "linked");
}

TEST_F(LinkStateTests, ResultThatIsNoStringChangesNothing) {
    state_.isLinked = true;
    state_.displayName = "Ann";
    state_.workerState = "watching_chat";
    EXPECT_FALSE(refreshLinkState(test::noResult()));
    EXPECT_TRUE(state_.isLinked);
    EXPECT_EQ(state_.displayName, "Ann");
    EXPECT_EQ(state_.workerState, "watching_chat");
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_THAT(parts_.host.calls, IsEmpty());
}

TEST_F(LinkStateTests, FailedStatusWriteStopsNothing) {
    parts_.faults.set(Fault{.operation = 1, .code = EIO});
    EXPECT_TRUE(refreshLinkState(test::result(test::linked_answer)));
    EXPECT_TRUE(state_.isLinked);
    EXPECT_THAT(parts_.host.log, SizeIs(1));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

/// A page that never renders, looked at at given times after its load was issued.
class StalledLoginTests : public LinkStateMonitorTests {
  protected:
    void lookAt(milliseconds time) {
        parts_.clock.passUntil(time);
        parts_.files.forget();
        refreshLinkState(test::result(test::not_linked_answer));
    }
    std::size_t reloads() const { return parts_.host.count("reload"); }
};

TEST_F(StalledLoginTests, PageHasTwelveSecondsToRender) {
    lookAt(milliseconds(11'900));
    EXPECT_EQ(reloads(), 0U);
    lookAt(milliseconds(12'000));
    EXPECT_EQ(reloads(), 1U);
}

TEST_F(StalledLoginTests, ReloadIsPublishedAndThenTheWaitingAsWell) {
    state_.displayName = "Ann";
    lookAt(seconds(12));
    EXPECT_THAT(parts_.published(), ElementsAre(reloadStatus(1), waiting_status));
    EXPECT_THAT(parts_.host.calls, ElementsAre("reload", "orderOut"));
    EXPECT_EQ(state_.displayName, std::nullopt);
}

TEST_F(StalledLoginTests, ReloadIsRemembered) {
    const auto issuedAt = parts_.recovery.pageLoadIssuedAt();
    lookAt(milliseconds(12'345));
    EXPECT_EQ(parts_.recovery.launchRecoveryAttemptCount(), 1);
    EXPECT_EQ(parts_.recovery.lastRecoveryAttemptAt(),
              test::TestClock::boot_time_at_start + milliseconds(12'345));
    EXPECT_EQ(parts_.recovery.pageLoadIssuedAt(), issuedAt);
}

TEST_F(StalledLoginTests, SecondReloadComesTwelveSecondsAfterTheFirst) {
    lookAt(seconds(14));
    lookAt(milliseconds(25'900));
    EXPECT_EQ(reloads(), 1U);
    lookAt(seconds(26));
    EXPECT_EQ(reloads(), 2U);
    EXPECT_THAT(parts_.published(), ElementsAre(reloadStatus(2), waiting_status));
}

TEST_F(StalledLoginTests, ThereIsNoThirdReload) {
    for (int tick = 0; tick < 1000; ++tick) lookAt(milliseconds(1500) * tick);
    EXPECT_EQ(reloads(), 2U);
    EXPECT_EQ(parts_.recovery.launchRecoveryAttemptCount(), 2);
    EXPECT_THAT(parts_.published(), ElementsAre(waiting_status));
}

TEST_F(StalledLoginTests, PageWithACodeIsNotReloaded) {
    putQRFile();
    lookAt(seconds(60));
    monitor_.reloadIfLoginRenderStalled(false);
    EXPECT_EQ(reloads(), 0U);
}

TEST_F(StalledLoginTests, LinkedPageIsNotReloaded) {
    parts_.clock.passUntil(seconds(60));
    refreshLinkState(test::result(test::linked_answer));
    EXPECT_EQ(reloads(), 0U);
}

TEST_F(StalledLoginTests, SkippedCheckDoesNothing) {
    parts_.clock.passUntil(seconds(60));
    monitor_.reloadIfLoginRenderStalled(true);
    EXPECT_EQ(reloads(), 0U);
    EXPECT_THAT(parts_.published(), IsEmpty());
}

}  // namespace
}  // namespace brindle

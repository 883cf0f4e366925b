#include "worker/ManagedWhatsAppWebWorkerService.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "exchange/EnvironmentKeys.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/PageScriptKinds.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"
#include "support/WorkerParts.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using Fault = test::FaultInjectingFileManager::Fault;

using test::kindOf;
using test::load_web_client;
using test::Script;

constexpr auto launching = "starting: Launching managed WhatsApp Web worker.";
constexpr auto loading = "starting: Loading WhatsApp Web in the managed runtime worker.";
constexpr auto page_loaded = "starting: WhatsApp worker page loaded. Detecting QR and link state.";
constexpr auto stopping = "stopped: Managed WhatsApp worker is stopping because the managed backend exited.";

/// A service with a data directory, an engine and a clock that the test plays.
class WebWorkerServiceTests : public testing::Test {
  protected:
    /// Runs a worker; `body` is what happens while it runs.
    void run(const std::function<void()>& body, pid_t parent = ::getppid()) {
        host_.whileRunning = body;
        ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_, parent);
        service_ = &service;
        service.start();
        service_ = nullptr;
    }
    void watch(const std::string& title, const std::string& id) const {
        test::writeFileAtomically(
            directory_.workerControlFile,
            test::Json{{"platform", "whatsapp"},
                       {"activeScope", {{"kind", "conversation"}, {"id", id}, {"title", title}}},
                       {"updatedAtISO8601", ""}}
                .dump());
    }
    std::vector<std::string> published() const {
        auto statuses = files_.contentsOf(directory_.workerStatusFile);
        for (auto& status : statuses) status = test::summaryOf(status);
        return statuses;
    }
    std::vector<Script> pendingScripts() const {
        std::vector<Script> kinds;
        for (const auto& evaluation : host_.pending) kinds.push_back(kindOf(evaluation.script));
        return kinds;
    }
    std::size_t pendingOf(Script kind) const {
        const auto kinds = pendingScripts();
        return static_cast<std::size_t>(std::count(kinds.begin(), kinds.end(), kind));
    }
    /// Nothing to see: no code, no chats.
    void answerAsEmptyPage() {
        host_.answerScript = [](const std::string& script) {
            return kindOf(script) == Script::linkState ? test::result(R"({"linked":false})")
                                                       : test::noResult();
        };
    }
    /// A page that is linked and has the watched chat open.
    void answerAsLinkedPage() {
        host_.answerScript = [](const std::string& script) -> std::optional<EvaluationOutcome> {
            switch (kindOf(script)) {
                case Script::qrCode:
                    return test::noResult();
                case Script::linkState:
                    return test::result(test::linked_answer);
                case Script::activation:
                    return test::result(R"({"state":"active"})");
                case Script::capture:
                    break;
            }
            return test::result(R"({"state":"no-incoming-message"})");
        };
    }

    test::TemporaryDirectory home_;
    test::FaultInjectingFileManager faults_;
    test::RecordingFileManager files_{faults_};
    test::TestClock clock_;
    test::ScriptedHost host_{clock_};
    Environment environment_{
        {std::string(environment_key::data_directory), (home_.path() / "data").string()}};
    DataDirectory directory_{environment_, files_, "whatsapp"};
    ManagedWhatsAppWebWorkerService* service_ = nullptr;
};

TEST_F(WebWorkerServiceTests, ConstructionCreatesTheDirectoriesOfTheWorkerOnly) {
    const ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_,
                                                  ::getppid());
    EXPECT_THAT(test::namesIn(directory_.path), ElementsAre("inbound", "runtime"));
    EXPECT_THAT(test::namesIn(directory_.runtime), IsEmpty());
    EXPECT_THAT(host_.calls, IsEmpty());
}

TEST_F(WebWorkerServiceTests, FirstDirectoryThatCannotBeCreatedEndsTheConstruction) {
    for (int operation = 1; operation <= 3; ++operation) {
        faults_.set(Fault{.operation = operation, .code = ENOSPC});
        EXPECT_THROW(
            ManagedWhatsAppWebWorkerService("whatsapp", environment_, files_, clock_, host_, ::getppid()),
            FileSystemFailure);
        EXPECT_EQ(faults_.operations().size(), static_cast<std::size_t>(operation));
    }
}

TEST_F(WebWorkerServiceTests, DirectoriesAreCreatedInOrder) {
    faults_.set(Fault{.operation = 99, .code = EIO});
    const ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_,
                                                  ::getppid());
    // Whose they are is looked at before and after.
    auto operations = faults_.operations();
    std::erase_if(operations, [](const auto& each) { return !each.starts_with("create "); });
    EXPECT_THAT(operations, ElementsAre("create the directory " + directory_.path,
                                        "create the directory " + directory_.inbound,
                                        "create the directory " + directory_.runtime));
}

TEST_F(WebWorkerServiceTests, FreshServiceKnowsNothing) {
    clock_.passUntil(seconds(7));
    const ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_,
                                                  ::getppid());
    const auto& state = service.state();
    EXPECT_EQ(state.workerState, "starting");
    EXPECT_EQ(state.workerDetail, "Launching managed WhatsApp Web worker.");
    EXPECT_EQ(state.displayName, std::nullopt);
    EXPECT_FALSE(state.isLinked);
    EXPECT_FALSE(state.hasReceivedControlSnapshot);
    EXPECT_EQ(state.currentScopeKind, std::nullopt);
    EXPECT_EQ(state.currentWatchedTitle, std::nullopt);
    EXPECT_EQ(state.currentConversationID, std::nullopt);
    EXPECT_EQ(state.lastSeenMessageFingerprint, std::nullopt);
    EXPECT_EQ(service.recovery().pageLoadIssuedAt(), test::TestClock::boot_time_at_start + seconds(7));
    EXPECT_EQ(service.recovery().launchRecoveryAttemptCount(), 0);
    EXPECT_EQ(service.recovery().lastRecoveryAttemptAt(), std::nullopt);
}

TEST_F(WebWorkerServiceTests, WithoutAPageNothingHappens) {
    fs::create_directories(directory_.runtime);
    watch("Family", "id");
    test::writeFileAtomically(directory_.workerQRCodeFile, "code");
    ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_, ::getppid());
    service.startPolling();
    service.pageFinished();
    service.navigationFailed("The connection was lost.");
    service.provisionalNavigationFailed("The server was not found.");
    service.pageLost("The page's process crashed.");
    host_.advance(seconds(120));
    EXPECT_THAT(host_.calls, IsEmpty());
    EXPECT_THAT(host_.pending, IsEmpty());
    EXPECT_THAT(host_.log, IsEmpty());
    EXPECT_THAT(files_.writes(), IsEmpty());
    EXPECT_EQ(service.state().workerState, "starting");
    EXPECT_EQ(service.state().currentWatchedTitle, std::nullopt);
    EXPECT_EQ(service.recovery().launchRecoveryAttemptCount(), 0);
    EXPECT_TRUE(fs::exists(directory_.workerQRCodeFile));
}

TEST_F(WebWorkerServiceTests, TimersStartWithThePageAllTheSameWhenTheyWereAskedForBefore) {
    ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_, ::getppid());
    service.startPolling();
    service.start();
    EXPECT_THAT(host_.repeatingTimers, SizeIs(4));
}

TEST_F(WebWorkerServiceTests, StartOpensHidesAndLoadsThePage) {
    run([this] { host_.advance(milliseconds(0)); });
    EXPECT_THAT(host_.calls, ElementsAre("openPage", "orderOut", load_web_client, "run"));
    EXPECT_THAT(published(), ElementsAre(launching, loading));
}

TEST_F(WebWorkerServiceTests, ProcessIdentifierIsWrittenAsPlainDigitsBeforeTheFirstStatus) {
    run([this] { EXPECT_EQ(test::readFile(directory_.workerPIDFile), std::to_string(::getpid())); });
    EXPECT_EQ(files_.writes().at(0).path, directory_.workerPIDFile);
    EXPECT_EQ(files_.writes().at(0).durability, Durability::process);
    EXPECT_EQ(files_.writes().at(1).path, directory_.workerStatusFile);
}

TEST_F(WebWorkerServiceTests, StartFailsWhenTheProcessIdentifierCannotBeWritten) {
    ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_, ::getppid());
    faults_.set(Fault{.operation = 1, .code = ENOSPC});
    EXPECT_THROW(service.start(), FileSystemFailure);
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(host_.calls, Not(Contains("run")));
    EXPECT_THAT(host_.repeatingTimers, IsEmpty());
}

TEST_F(WebWorkerServiceTests, WorkGoesOnWhenTheFirstStatusCannotBeWritten) {
    host_.whileRunning = [] {};
    ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_, ::getppid());
    faults_.set(Fault{.operation = 2, .code = EIO});
    service.start();
    EXPECT_THAT(host_.log, ElementsAre(StartsWith("Failed to write worker status: ")));
    EXPECT_THAT(published(), ElementsAre(loading));
}

TEST_F(WebWorkerServiceTests, FourTimersTickWithTheirTolerance) {
    run([] {});
    const milliseconds tolerance(200);
    EXPECT_THAT(host_.repeatingTimers,
                ElementsAre(Pair(milliseconds(1500), tolerance), Pair(milliseconds(1000), tolerance),
                            Pair(milliseconds(1000), tolerance), Pair(milliseconds(1000), tolerance)));
}

TEST_F(WebWorkerServiceTests, FinishedPageDoesNotStartTheTimersAgain) {
    run([this] {
        service_->pageFinished();
        service_->pageFinished();
        service_->startPolling();
    });
    EXPECT_THAT(host_.repeatingTimers, SizeIs(4));
}

TEST_F(WebWorkerServiceTests, EndOfTheLoopRemovesTheWorkersFiles) {
    run([this] {
        EXPECT_TRUE(fs::exists(directory_.workerPIDFile));
        EXPECT_TRUE(fs::exists(directory_.workerStatusFile));
    });
    EXPECT_FALSE(fs::exists(directory_.workerPIDFile));
    EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
    EXPECT_EQ(host_.runningTimers(), 0U);
    EXPECT_THAT(published(), Not(Contains(stopping)));
}

TEST_F(WebWorkerServiceTests, EndOfTheLoopGoesWellWithoutTheFiles) {
    run([this] {
        fs::remove(directory_.workerPIDFile);
        fs::remove(directory_.workerStatusFile);
    });
    EXPECT_THAT(host_.log, IsEmpty());
}

TEST_F(WebWorkerServiceTests, FilesThatCannotBeRemovedDoNotDisturbTheEnd) {
    EXPECT_NO_THROW(run([this] {
        faults_.set(Fault{.operation = 1,
                          .persistence = test::FaultInjectingFileManager::Persistence::fromThenOn,
                          .code = EACCES});
    }));
    EXPECT_TRUE(fs::exists(directory_.workerPIDFile));
    EXPECT_THAT(host_.log, IsEmpty());
}

TEST_F(WebWorkerServiceTests, FinishedPageIsPublished) {
    answerAsLinkedPage();
    run([this] {
        host_.advance(milliseconds(1500));
        EXPECT_EQ(service_->state().displayName, "Ann");
        service_->pageFinished();
    });
    EXPECT_EQ(published().back(), page_loaded);
}

TEST_F(WebWorkerServiceTests, FailedNavigationsArePublished) {
    answerAsLinkedPage();
    run([this] {
        host_.advance(milliseconds(1500));
        service_->navigationFailed("The connection was lost.");
        EXPECT_EQ(service_->state().displayName, std::nullopt);
        service_->provisionalNavigationFailed("The server was not found.");
    });
    const auto statuses = published();
    ASSERT_GE(statuses.size(), 2U);
    EXPECT_EQ(statuses[statuses.size() - 2],
              "error: Managed WhatsApp worker navigation failed: The connection was lost.");
    EXPECT_EQ(statuses.back(),
              "error: Managed WhatsApp worker provisional navigation failed: The server was not found.");
}

TEST_F(WebWorkerServiceTests, PageThatNeverComesIsReloadedTwiceAndThenLoadedAnew) {
    answerAsEmptyPage();
    run([this] {
        const auto fail = [this] { service_->provisionalNavigationFailed("The server was not found."); };
        const auto loads = [this] { return host_.count(load_web_client); };
        const auto reloads = [this] { return host_.count("reload"); };
        for (int round = 1; round <= 3; ++round) {
            const auto before = reloads();
            fail();
            for (std::size_t reload = 1; reload <= 2; ++reload) {
                host_.advance(milliseconds(14'000));
                ASSERT_EQ(reloads(), before + reload);
                fail();
            }
            host_.advance(milliseconds(29'999));
            EXPECT_EQ(reloads(), before + 2);
            EXPECT_EQ(loads(), static_cast<std::size_t>(round));
            host_.advance(milliseconds(1));
            EXPECT_EQ(loads(), static_cast<std::size_t>(round) + 1);
        }
    });
}

TEST_F(WebWorkerServiceTests, PageThatLostItsProcessIsLoadedAgain) {
    answerAsLinkedPage();
    run([this] {
        host_.advance(milliseconds(1500));
        EXPECT_TRUE(service_->state().isLinked);
        service_->pageLost("The page's process crashed.");
        EXPECT_FALSE(service_->state().isLinked);
        EXPECT_EQ(service_->state().displayName, std::nullopt);
        host_.advance(milliseconds(0));
        EXPECT_EQ(host_.count(load_web_client), 2U);
        EXPECT_EQ(service_->state().workerState, "error");
        service_->pageFinished();
        host_.advance(milliseconds(1500));
        EXPECT_TRUE(service_->state().isLinked);
    });
}

TEST_F(WebWorkerServiceTests, ReasonOfALossStaysReadableUntilThePageIsLoadedAgain) {
    answerAsLinkedPage();
    run([this] {
        watch("Family", "id");
        const auto lose = [this] { service_->pageLost("The page's process crashed."); };
        for (const int pause : {0, 1, 2}) {
            lose();
            host_.advance(seconds(pause));
        }
        host_.advance(seconds(10));
        EXPECT_TRUE(service_->state().isLinked);
        lose();
        const auto published = files_.writes().size();
        // Two ticks of each timer, in a pause of four seconds.
        host_.advance(milliseconds(3'999));
        EXPECT_EQ(service_->state().workerDetail,
                  "Managed WhatsApp worker navigation failed: The page's process crashed.");
        EXPECT_EQ(files_.writes().size(), published);
        host_.advance(seconds(3));
        EXPECT_TRUE(service_->state().isLinked);
    });
}

TEST_F(WebWorkerServiceTests, PageThatStaysUpIsLoadedAtOnceWhenItDiesAgain) {
    run([this] {
        for (int death = 1; death <= 3; ++death) {
            service_->pageFinished();
            host_.advance(seconds(60));
            service_->pageLost("The page's process crashed.");
            host_.advance(milliseconds(0));
            EXPECT_EQ(host_.count(load_web_client), 1U + static_cast<std::size_t>(death));
        }
    });
}

TEST_F(WebWorkerServiceTests, FreshLoadAllowsTwoReloadsAgain) {
    host_.answerScript = [](const std::string& script) -> std::optional<EvaluationOutcome> {
        if (kindOf(script) == Script::qrCode) return test::noResult();
        return test::result(R"({"linked":false})");
    };
    run([this] {
        host_.advance(seconds(120));
        EXPECT_EQ(host_.count("reload"), 2U);
        service_->pageLost("The page's process crashed.");
        host_.advance(seconds(120));
        EXPECT_EQ(host_.count("reload"), 4U);
    });
}

TEST_F(WebWorkerServiceTests, LinkStateFollowsTheQRCodeOfTheSameTick) {
    run([this] {
        host_.advance(milliseconds(1499));
        EXPECT_THAT(pendingScripts(), IsEmpty());
        host_.advance(milliseconds(1));
        EXPECT_THAT(pendingScripts(), ElementsAre(Script::qrCode));
        host_.answerOnly(test::noResult());
        EXPECT_THAT(pendingScripts(), ElementsAre(Script::linkState));
        host_.answerOnly(test::result(test::linked_answer));
        EXPECT_THAT(pendingScripts(), IsEmpty());
        EXPECT_TRUE(service_->state().isLinked);
    });
}

TEST_F(WebWorkerServiceTests, LinkStateIsReadEvenWhenTheQRCodeFails) {
    run([this] {
        host_.advance(milliseconds(1500));
        host_.answerOnly(test::failure("No."));
        EXPECT_THAT(pendingScripts(), ElementsAre(Script::linkState));
    });
    EXPECT_THAT(host_.log, ElementsAre("QR fetch failed: No."));
}

TEST_F(WebWorkerServiceTests, ControlIsFollowedWithinASecond) {
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(1));
        EXPECT_EQ(service_->state().currentWatchedTitle, "Family");
        fs::remove(directory_.workerControlFile);
        host_.advance(seconds(1));
        EXPECT_EQ(service_->state().currentWatchedTitle, std::nullopt);
        EXPECT_FALSE(service_->state().hasReceivedControlSnapshot);
    });
}

TEST_F(WebWorkerServiceTests, InboundTickDoesNothingWithoutAWatchedTitle) {
    run([this] {
        watch("  ", "id");
        host_.advance(seconds(20));
        EXPECT_EQ(pendingOf(Script::activation), 0U);
    });
}

TEST_F(WebWorkerServiceTests, InboundTickDoesNotWaitForALinkedPage) {
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(2));
        EXPECT_FALSE(service_->state().isLinked);
        EXPECT_EQ(pendingOf(Script::activation), 1U);
    });
}

TEST_F(WebWorkerServiceTests, PublishedStateAlternatesBetweenLinkAndChat) {
    answerAsLinkedPage();
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(6));
    });
    const auto watching =
        "watching_chat: Watching chat 'Family'. No incoming message yet. Visible inbound nodes: 0. (Ann)";
    const auto configured =
        "linked: Linked to WhatsApp Web. Managed live listening is configured for 'Family'. (Ann)";
    const auto statuses = published();
    EXPECT_THAT(statuses, Contains(watching));
    const auto last = std::find(statuses.begin(), statuses.end(), watching);
    EXPECT_THAT(std::vector<std::string>(last, statuses.end()), Contains(configured));
}

TEST_F(WebWorkerServiceTests, HangingPagePilesNothingUp) {
    run([this] {
        watch("Family", "id");
        host_.advance(milliseconds(29'900));
        EXPECT_EQ(pendingOf(Script::qrCode), 1U);
        EXPECT_EQ(pendingOf(Script::activation), 1U);
        EXPECT_THAT(host_.pending, SizeIs(2));
        // Four ticks and two limits.
        EXPECT_EQ(host_.runningTimers(), 6U);
    });
}

TEST_F(WebWorkerServiceTests, HangingScriptsDoNotStopTheOtherTimers) {
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(10));
        watch("Work", "work-id");
        host_.advance(seconds(1));
        EXPECT_EQ(service_->state().currentWatchedTitle, "Work");
        EXPECT_THAT(host_.pending, SizeIs(2));
    });
}

TEST_F(WebWorkerServiceTests, ScriptsThatHangAreReportedAndTriedAgain) {
    run([this] {
        host_.advance(milliseconds(31'500));
        EXPECT_THAT(host_.log,
                    ElementsAre("QR fetch failed: The page did not answer a script within 30 seconds."));
        host_.advance(seconds(30));
        EXPECT_EQ(
            service_->state().workerDetail,
            "Failed to detect WhatsApp link state: The page did not answer a script within 30 seconds.");
        host_.advance(seconds(2));
        EXPECT_EQ(pendingScripts().back(), Script::qrCode);
    });
}

TEST_F(WebWorkerServiceTests, AnswerAfterTheLimitChangesNothing) {
    run([this] {
        host_.advance(milliseconds(31'500));
        ASSERT_EQ(kindOf(host_.pending.at(0).script), Script::qrCode);
        host_.answer(0, test::result(test::code_answer));
        EXPECT_FALSE(fs::exists(directory_.workerQRCodeFile));
    });
}

TEST_F(WebWorkerServiceTests, AnswersAfterTheServiceIsGoneDoNothing) {
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(2));
        EXPECT_THAT(host_.pending, SizeIs(2));
    });
    const auto before = files_.writes().size();
    while (!host_.pending.empty()) host_.answer(0, test::result(test::linked_answer));
    host_.advance(seconds(60));
    EXPECT_EQ(files_.writes().size(), before);
    EXPECT_EQ(host_.runningTimers(), 0U);
    EXPECT_FALSE(host_.hasPage);
}

TEST_F(WebWorkerServiceTests, FreshLinkResetComesBeforeThePageLoad) {
    fs::create_directories(directory_.runtime);
    test::writeFileAtomically(directory_.freshLinkRequestFile, "");
    run([this] {
        EXPECT_EQ(host_.count(load_web_client), 0U);
        host_.removals.at(0)(true);
        EXPECT_EQ(host_.count(load_web_client), 1U);
        EXPECT_FALSE(fs::exists(directory_.freshLinkRequestFile));
    });
    EXPECT_THAT(
        published(),
        ElementsAre(
            launching, "starting: Resetting the managed WhatsApp Web session for a fresh link request.",
            "starting: Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.",
            loading));
}

TEST_F(WebWorkerServiceTests, ResetThatLeavesDataEndsTheWorkerAndStaysRequested) {
    fs::create_directories(directory_.runtime);
    test::writeFileAtomically(directory_.freshLinkRequestFile, "");
    try {
        run([this] {
            host_.removals.at(0)(false);
            EXPECT_TRUE(host_.hasEnded);
        });
        FAIL() << "no failure";
    } catch (const Failure& failure) {
        EXPECT_THAT(failure.what(), testing::StartsWith("The linked account cannot be forgotten: "));
    }
    EXPECT_EQ(host_.count(load_web_client), 0U);
    EXPECT_TRUE(fs::exists(directory_.freshLinkRequestFile));
    EXPECT_FALSE(fs::exists(directory_.workerPIDFile));
    EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
}

TEST_F(WebWorkerServiceTests, TimersTickWhileTheResetIsUnderWay) {
    fs::create_directories(directory_.runtime);
    test::writeFileAtomically(directory_.freshLinkRequestFile, "");
    run([this] {
        watch("Family", "id");
        host_.advance(seconds(1));
        EXPECT_EQ(service_->state().currentWatchedTitle, "Family");
        EXPECT_EQ(host_.count(load_web_client), 0U);
    });
}

TEST_F(WebWorkerServiceTests, DeadPageIsNotLoadedWhileTheResetIsUnderWay) {
    fs::create_directories(directory_.runtime);
    test::writeFileAtomically(directory_.freshLinkRequestFile, "");
    run([this] {
        service_->pageLost("The page's process crashed.");
        host_.advance(seconds(5));
        EXPECT_EQ(host_.count(load_web_client), 0U);
        host_.removals.at(0)(true);
        EXPECT_EQ(host_.count(load_web_client), 1U);
    });
}

TEST_F(WebWorkerServiceTests, RequestThatComesLaterWaitsForTheNextStart) {
    run([this] {
        test::writeFileAtomically(directory_.freshLinkRequestFile, "");
        host_.advance(seconds(10));
        service_->pageFinished();
    });
    EXPECT_THAT(host_.removals, IsEmpty());
    EXPECT_TRUE(fs::exists(directory_.freshLinkRequestFile));
    run([] {});
    EXPECT_THAT(host_.removals, SizeIs(1));
}

TEST_F(WebWorkerServiceTests, LiveParentKeepsTheWorkerRunning) {
    run([this] {
        host_.advance(seconds(10));
        EXPECT_FALSE(host_.hasEnded);
    });
    EXPECT_THAT(published(), Not(Contains(stopping)));
}

class LostParentTests : public WebWorkerServiceTests, public testing::WithParamInterface<pid_t> {};

TEST_P(LostParentTests, FirstTickStopsTheWorker) {
    run(
        [this] {
            host_.advance(milliseconds(999));
            EXPECT_FALSE(host_.hasEnded);
            host_.advance(milliseconds(1));
            EXPECT_TRUE(host_.hasEnded);
            EXPECT_FALSE(fs::exists(directory_.workerPIDFile));
            EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
            EXPECT_EQ(host_.runningTimers(), 0U);
        },
        GetParam());
    EXPECT_EQ(published().back(), stopping);
    EXPECT_EQ(host_.calls.back(), "end");
    EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
}

// No live parent: the process that adopts orphans, none at all, a group, and a process that is no parent.
INSTANTIATE_TEST_SUITE_P(Parents, LostParentTests, testing::Values(1, 0, -1, ::getpid()));

/// Two pipe ends by which processes of a test tell one another something.
class Channel {
  public:
    Channel() {
        if (::pipe(ends_.data()) != 0) throw test::TestFailure("There is no pipe.");
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel() {
        closeWriter();
        ::close(ends_[0]);
    }

    void write(const std::string& text) const {
        if (::write(ends_[1], text.data(), text.size()) < 0) ::_exit(1);
    }
    void closeWriter() {
        if (ends_[1] >= 0) ::close(std::exchange(ends_[1], -1));
    }
    /// Everything up to the end of the last writer.
    std::string readAll() {
        closeWriter();
        std::string text;
        std::array<char, 4096> buffer{};
        for (;;) {
            const auto got = ::read(ends_[0], buffer.data(), buffer.size());
            if (got <= 0) return text;
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
    }

  private:
    std::array<int, 2> ends_{-1, -1};
};

TEST_F(WebWorkerServiceTests, DeathOfTheParentStopsTheWorkerWithItsAccount) {
    answerAsLinkedPage();
    Channel report;
    Channel parentsLife;
    std::fflush(nullptr);
    const pid_t parent = ::fork();
    if (parent == 0) {
        if (::fork() != 0) ::_exit(parentsLife.readAll().empty() ? 1 : 0);
        try {
            run([&] {
                host_.advance(milliseconds(1500));
                report.write(published().back() + "\n");
                const pid_t before = ::getppid();
                parentsLife.write("end");
                parentsLife.closeWriter();
                test::waitUntil([&] { return ::getppid() != before; }, "the parent is gone");
                host_.advance(seconds(1));
                report.write(published().back() + "\n");
            });
        } catch (const std::exception& error) {
            report.write(error.what());
        }
        ::_exit(0);
    }
    parentsLife.closeWriter();
    EXPECT_EQ(report.readAll(),
              "linked: Linked to WhatsApp Web. Select a watched chat title to start live listening. (Ann)\n" +
                  std::string(stopping) + " (Ann)\n");
    EXPECT_EQ(::waitpid(parent, nullptr, 0), parent);
    EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
    EXPECT_FALSE(fs::exists(directory_.workerPIDFile));
}

TEST_F(WebWorkerServiceTests, NothingIsPublishedAfterTheStop) {
    fs::create_directories(directory_.runtime);
    watch("Family", "id");
    run(
        [this] {
            host_.advance(seconds(1));
            EXPECT_THAT(pendingScripts(), ElementsAre(Script::activation));
            const auto before = files_.writes().size();
            while (!host_.pending.empty()) host_.answer(0, test::result(test::linked_answer));
            EXPECT_FALSE(host_.hasPage);
            EXPECT_EQ(files_.writes().size(), before);
        },
        1);
    EXPECT_EQ(published().back(), stopping);
}

TEST_F(WebWorkerServiceTests, StopGivesUpTheReloadOfALostPage) {
    run(
        [this] {
            service_->pageLost("The page's process crashed.");
            service_->checkParent();
            EXPECT_EQ(host_.runningTimers(), 0U);
        },
        1);
    EXPECT_EQ(host_.count(load_web_client), 1U);
}

TEST_F(WebWorkerServiceTests, StopGivesUpTheNewLoadOfAPageThatDidNotCome) {
    run(
        [this] {
            service_->provisionalNavigationFailed("The server was not found.");
            service_->checkParent();
            EXPECT_EQ(host_.runningTimers(), 0U);
        },
        1);
    EXPECT_EQ(host_.count(load_web_client), 1U);
}

TEST_F(WebWorkerServiceTests, NothingIsHeardOfAPageThatIsClosed) {
    run(
        [this] {
            service_->checkParent();
            const auto before = files_.writes().size();
            service_->pageFinished();
            service_->navigationFailed("The connection was lost.");
            service_->provisionalNavigationFailed("The server was not found.");
            service_->pageLost("The page's process crashed.");
            service_->startPolling();
            EXPECT_EQ(files_.writes().size(), before);
            EXPECT_EQ(host_.runningTimers(), 0U);
        },
        1);
    EXPECT_EQ(published().back(), stopping);
    EXPECT_THAT(host_.log, IsEmpty());
}

TEST_F(WebWorkerServiceTests, WantOfMemoryDoesNotKeepAWorkerWhoseBackendIsGone) {
    fs::create_directories(directory_.runtime);
    watch("Family", "id");
    run(
        [this] {
            // What the host itself notes down is no want of the worker's.
            host_.calls.reserve(host_.calls.size() + 10);
            test::WantOfMemory want(1, test::WantOfMemory::Persistence::fromThenOn);
            host_.advance(seconds(1));
            EXPECT_TRUE(want.end());
            EXPECT_TRUE(host_.hasEnded);
            EXPECT_FALSE(host_.hasPage);
        },
        1);
    EXPECT_FALSE(fs::exists(directory_.workerPIDFile));
    EXPECT_FALSE(fs::exists(directory_.workerStatusFile));
}

TEST_F(WebWorkerServiceTests, DestroyedServiceThatNeverStartedLeavesNothing) {
    {
        const ManagedWhatsAppWebWorkerService service("whatsapp", environment_, files_, clock_, host_,
                                                      ::getppid());
    }
    EXPECT_THAT(test::namesIn(directory_.runtime), IsEmpty());
}

}  // namespace
}  // namespace brindle

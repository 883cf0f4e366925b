#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/DrivenPage.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TextForms.h"
#include "support/Units.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

/// Everything below the worker's place but what the engine keeps for itself, as relative paths.
std::vector<std::string> filesOf(const WebWorkerProcess& worker) {
    const auto place = worker.options().place->path();
    std::vector<std::string> files;
    for (auto entry = fs::recursive_directory_iterator(place); entry != fs::end(entry); ++entry) {
        const auto path = entry->path().lexically_relative(place).string();
        // The engine makes and removes directories of its own at any time.
        if (path.starts_with("website-") || path == "home") {
            entry.disable_recursion_pending();
        } else if (!entry->is_directory()) {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// A worker on a page that is up to no good, beside the traces that the page may leave.
class WebWorkerHostile : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (IsSkipped()) return;
        page_.emplace("client.chats(['Team Room', 'Family'])");
        worker_.emplace(WebWorkerOptions().withUrl(page_->url()));
        worker_->waitForState("linked");
        filesBefore_ = filesOf(*worker_);
    }

    DrivenPage& page() { return *page_; }
    WebWorkerProcess& worker() { return *worker_; }

    /// The worker lives, has written nowhere but where it should, and nothing of the page's was run as a
    /// script.
    void expectNoHarm() {
        EXPECT_TRUE(worker_->process().isRunning());
        EXPECT_EQ(page_->run("typeof window.injected"), "undefined");
        for (const auto& file : filesOf(worker())) {
            const fs::path path(file);
            const bool isRecord = path.parent_path() == "data/inbound" && path.extension() == ".json" &&
                                  isCanonicalUuid(path.stem().string());
            const bool isHidden = path.filename().string().starts_with(".");
            const bool isRuntime =
                path.parent_path() == "data/runtime" &&
                (file.ends_with("/worker-status.json") || file.ends_with("/worker.pid") ||
                 file.ends_with("/worker-control.json") || file.ends_with("/worker-qr.png"));
            // A file that is being written has a hidden name.
            const bool isOld =
                std::find(filesBefore_.begin(), filesBefore_.end(), file) != filesBefore_.end();
            EXPECT_TRUE(isRecord || isRuntime || isHidden || isOld) << file;
        }
    }

    /// Once the page is sane again the worker does what it should.
    void expectCapture(const std::string& chat = "Family") {
        worker_->watchUntilOpen(chat, "sane");
        page_->run("client.receive(" + scriptString(chat) +
                   ", { id: 'sane', sender: 'Ann', text: 'sane again' })");
        worker_->waitUntil(
            [&] {
                const auto all = records();
                return std::any_of(all.begin(), all.end(),
                                   [](const Json& record) { return record["text"] == "sane again"; });
            },
            "a message after all that");
    }

    /// The records that have come so far.
    std::vector<Json> records() {
        std::vector<Json> records;
        for (const auto& name : namesIn(worker_->path("inbound"))) {
            if (!name.starts_with(".")) records.push_back(readJsonFile(worker_->path("inbound") / name));
        }
        return records;
    }

  private:
    std::optional<DrivenPage> page_;
    std::optional<WebWorkerProcess> worker_;
    std::vector<std::string> filesBefore_;
};

/// A title of a chat that its members have chosen to make trouble.
struct HostileTitle {
    const char* name;
    std::string title;
    /// As the page's text has it: runs of white space are one space.
    std::string normalized;
};

class WebWorkerHostileTitle : public WebWorkerHostile, public testing::WithParamInterface<HostileTitle> {};

TEST_P(WebWorkerHostileTitle, IsTextAndNothingElse) {
    const auto& title = GetParam().title;
    page().run("client.chats(['Family', " + scriptString(title) + "])");
    worker().watchUntilOpen(title, title);
    page().run("client.receive(" + scriptString(title) + ", { id: " + scriptString("../../" + title) +
               ", sender: " + scriptString(title + " sender") + ", text: 'hello' })");
    const auto record = worker().waitForRecords(1).front();
    EXPECT_EQ(record["conversationTitle"], GetParam().normalized);
    EXPECT_EQ(record["conversationId"], title);
    EXPECT_EQ(record["text"], "hello");
    expectNoHarm();
}

INSTANTIATE_TEST_SUITE_P(
    Titles, WebWorkerHostileTitle,
    testing::Values(
        HostileTitle{"Quotes", R"("); window.injected = 1; (")", R"("); window.injected = 1; (")"},
        HostileTitle{"Apostrophes", "'); window.injected = 1; ('", "'); window.injected = 1; ('"},
        HostileTitle{"Backslashes", R"(\"; window.injected = 1; //\)", R"(\"; window.injected = 1; //\)"},
        HostileTitle{"Lines", "a\n; window.injected = 1;\u2028window.injected = 2",
                     "a ; window.injected = 1; window.injected = 2"},
        HostileTitle{"EndOfScript", "</script><script>window.injected = 1</script>",
                     "</script><script>window.injected = 1</script>"},
        HostileTitle{"Template", "${window.injected = 1}`", "${window.injected = 1}`"},
        HostileTitle{"Placeholder", "__WATCHED_TITLE__", "__WATCHED_TITLE__"},
        HostileTitle{"Path", "../../etc/x", "../../etc/x"},
        HostileTitle{"Long", std::string(100'000, 'x'), std::string(100'000, 'x')}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(WebWorkerHostile, MarkupInMessagesAndNamesStaysText) {
    const std::string markup =
        "<img src=x onerror=\"window.injected = 1\"><script>window.injected = 2</script>";
    worker().watchUntilOpen("Team Room");
    page().run("client.receive('Team Room', { id: " + scriptString(markup) +
               ", sender: " + scriptString(markup) + ", text: " + scriptString("text " + markup) + " })");
    const auto record = worker().waitForRecords(1).front();
    EXPECT_EQ(record["text"], "text " + markup);
    EXPECT_EQ(record["senderDisplayName"], markup);
    EXPECT_EQ(record["rawReference"], markup);
    expectNoHarm();
}

TEST_F(WebWorkerHostile, PathsInNamesAndReferencesLeadNowhere) {
    const std::string path = "../../../../" + worker().options().place->path().string() + "/escaped";
    worker().watchUntilOpen("Team Room");
    page().run("client.receive('Team Room', { id: " + scriptString(path) + ", sender: " + scriptString(path) +
               ", text: " + scriptString("at " + path) + " })");
    EXPECT_EQ(worker().waitForRecords(1).front()["senderDisplayName"], path);
    expectNoHarm();
}

TEST_F(WebWorkerHostile, AGiantTextIsDeliveredWhole) {
    worker().watchUntilOpen("Team Room");
    // As much as the largest pipe holds. The engine takes a second or more to lay such a text out.
    page().run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'x'.repeat(1024 * 1024) })");
    EXPECT_EQ(worker().waitForRecords(1).front()["text"].text().size(), mebibyte);
    expectNoHarm();
    expectCapture();
}

TEST_F(WebWorkerHostile, LoneSurrogatesBecomeReplacementCharacters) {
    worker().watchUntilOpen("Team Room");
    page().run(
        "client.receive('Team Room', { id: 'a\\ud800', sender: '\\udc00b', text: 'cut \\ud83d here' })");
    const auto record = worker().waitForRecords(1).front();
    EXPECT_EQ(record["text"], "cut \uFFFD here");
    EXPECT_EQ(record["senderDisplayName"],
              "\uFFFD"
              "b");
    expectNoHarm();
    expectCapture();
}

TEST_F(WebWorkerHostile, TenThousandMessagesAtOnceAreCutToTheNewest) {
    worker().watchUntilOpen("Team Room");
    page().run(R"js(
        const box = document.getElementById("messages");
        const all = document.createElement("div");
        for (let n = 0; n < 10000; ++n) {
            const message = document.createElement("div");
            message.className = "message-in";
            message.dataset.id = "m" + n;
            message.innerHTML = '<span dir="auto" title="Ann"></span><span class="selectable-text">no ' + n + "</span>";
            all.append(message);
        }
        box.append(all);
    )js");
    const auto captured = worker().waitForDetail("inbound message(s).");
    const std::string detail = worker().journal().statuses()[captured]["detail"];
    const std::string_view count = "Captured ";
    EXPECT_LE(std::stoi(detail.substr(detail.find(count) + count.size())), 200) << detail;
    // A later look may bring more: the page remembers no more than two thousand messages.
    const auto texts = records();
    EXPECT_TRUE(
        std::any_of(texts.begin(), texts.end(), [](const Json& r) { return r["text"] == "no 9999"; }));
    expectNoHarm();
}

/// A change of the page's own language that no page makes by accident, and how it is undone.
struct Tampering {
    const char* name;
    const char* script;
    const char* undo;
};

class WebWorkerTampering : public WebWorkerHostile, public testing::WithParamInterface<Tampering> {};

TEST_P(WebWorkerTampering, HarmsNobodyAndPasses) {
    page().run(GetParam().script);
    worker().watch("Team Room");
    worker().waitForMoreStatuses(3);
    page().run(
        "try { client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'while tampered' }) } catch {}");
    worker().waitForMoreStatuses(3);
    expectNoHarm();
    page().run(GetParam().undo);
    page().run("delete window.__brindleWhatsAppWorkerCaptureState");
    expectCapture();
}

INSTANTIATE_TEST_SUITE_P(
    Page, WebWorkerTampering,
    testing::Values(
        Tampering{"ThrowingJSON",
                  "window.kept = JSON.stringify; JSON.stringify = () => { throw new Error('no'); }",
                  "JSON.stringify = window.kept"},
        Tampering{"ArrayPrototype",
                  "window.kept = Array.prototype.filter; Array.prototype.filter = () => { throw 1; };"
                  "Array.prototype.forEach = ((all) => { window.all = all; return () => { throw 2; }; })"
                  "(Array.prototype.forEach)",
                  "Array.prototype.filter = window.kept; Array.prototype.forEach = window.all"},
        Tampering{
            "MutationObserver",
            "window.kept = MutationObserver; window.MutationObserver = class { observe() { throw 1; } }",
            "window.MutationObserver = window.kept"},
        Tampering{"ObjectPrototype",
                  "Object.defineProperty(Object.prototype, 'activeChatTitle', { configurable: true,"
                  "get() { return '../../x'; }, set() { throw 1; } })",
                  "delete Object.prototype.activeChatTitle"},
        Tampering{"CaptureState",
                  "window.__brindleWhatsAppWorkerCaptureState = { queue: 7, primedChats: null }", "0"},
        Tampering{"FrozenCaptureState",
                  "Object.defineProperty(window, '__brindleWhatsAppWorkerCaptureState', { configurable: true,"
                  "get() { throw new Error('mine'); } })",
                  "0"},
        Tampering{"Document", "document.querySelectorAll = () => { throw 1; }",
                  "delete document.querySelectorAll"}),
    [](const auto& instance) { return instance.param.name; });

/// What a page answers in place of our scripts' results: expressions.
struct Forgeries {
    const char* name;
    std::vector<std::string> answers;
};

class WebWorkerForgery : public WebWorkerHostile, public testing::WithParamInterface<Forgeries> {};

TEST_P(WebWorkerForgery, HarmsNobodyAndPasses) {
    worker().watchUntilOpen("Team Room");
    page().run("window.kept = JSON.stringify");
    for (const auto& answer : GetParam().answers) {
        page().run("JSON.stringify = () => (" + answer + ")");
        worker().waitForMoreStatuses(2);
        EXPECT_TRUE(worker().process().isRunning()) << answer;
    }
    EXPECT_TRUE(records().empty());
    page().run("JSON.stringify = window.kept");
    expectNoHarm();
    expectCapture();
}

INSTANTIATE_TEST_SUITE_P(
    Answers, WebWorkerForgery,
    testing::Values(
        Forgeries{"NoObjects", {"17", "({})", "'no JSON'", "''", "'null'", "'[]'"}},
        Forgeries{
            "WrongTypes",
            {R"('{"linked":"yes","state":7}')",
             R"('{"linked":true,"account":7,"state":"ok","activeChatTitle":[],"messages":{}}')",
             R"('{"linked":true,"account":"x","state":"ok","activeChatTitle":"a","messages":"many"}')",
             R"('{"linked":true,"state":"ok","activeChatTitle":"a","messages":[{"fingerprint":"../x"}, {}]}')",
             R"('{"linked":true,"state":"unheard-of","activeChatTitle":"a","messages":[]}')"}},
        Forgeries{
            "Extremes",
            {R"('{"linked":true,"state":"no-incoming-message","visibleInboundCount":1e400}')",
             R"('{"linked":true,"state":"no-incoming-message","visibleInboundCount":123456789012345678901234567890}')",
             R"('{"linked":true,"state":"ok","messages":[{"text":"\\ud800","fingerprint":"x"}]}')",
             "'['.repeat(1000000)", R"('{"linked":true,"state":"' + "x".repeat(8 * 1024 * 1024) + '"}')"}}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(WebWorkerHostile, ForgedMessagesStayInTheirDirectory) {
    worker().watchUntilOpen("Team Room");
    page().run(R"js(
        window.kept = JSON.stringify;
        const message = { activeChatTitle: "../../x", senderDisplayName: "../../../x/y", text: "forged",
                          fingerprint: "../../z", rawReference: "/etc/passwd", messageId: "../../id" };
        const answer = JSON.stringify({ linked: true, account: "../../x", state: "ok", activeChatTitle: "Team Room",
                                        watchedTitle: "../../w", messages: [message] });
        JSON.stringify = () => { JSON.stringify = window.kept; return answer; };
    )js");
    worker().waitUntil([&] { return page().run("JSON.stringify === window.kept") == "true"; },
                       "the forged answer");
    worker().waitForMoreStatuses();
    expectNoHarm();
    expectCapture();
}

/// The most that files of the directory hold which were written within so long of each other, in bytes.
std::uintmax_t mostBytesWrittenWithin(const fs::path& directory, std::chrono::seconds duration) {
    std::vector<std::pair<fs::file_time_type, std::uintmax_t>> files;
    for (const auto& name : namesIn(directory)) {
        if (name.starts_with(".")) continue;
        files.emplace_back(fs::last_write_time(directory / name), fs::file_size(directory / name));
    }
    std::sort(files.begin(), files.end());
    std::uintmax_t most = 0;
    std::uintmax_t sum = 0;
    for (auto first = files.begin(), last = files.begin(); last != files.end(); ++last) {
        sum += last->second;
        for (; last->first - first->first > duration; ++first) sum -= first->second;
        most = std::max(most, sum);
    }
    return most;
}

TEST_F(WebWorkerHostile, AForgedFloodIsHeldToWhatIsTakenInAMinuteAndTheStatusSaysSo) {
    // A second shorter, for the moment between what is counted and what is written.
    constexpr std::chrono::seconds nearly_a_minute{59};
    worker().watchUntilOpen("Team Room");
    page().run(R"js(
        window.kept = JSON.stringify;
        const messages = [];
        for (let n = 0; n < 150; ++n) { messages.push({ text: "x".repeat(100 * 1024), fingerprint: "f" + n }); }
        const answer = JSON.stringify({ linked: true, state: "ok", activeChatTitle: "Team Room", messages });
        JSON.stringify = () => answer;
    )js");
    const auto full = worker().waitForDetail("The page has delivered 32 MiB of messages within a minute");
    EXPECT_EQ(worker().journal().statuses()[full]["state"], "watching_chat");
    worker().waitForMoreStatuses(5);
    const auto written = mostBytesWrittenWithin(worker().path("inbound"), nearly_a_minute);
    EXPECT_LE(written, 32 * mebibyte);
    EXPECT_GT(written, 16 * mebibyte);
    expectNoHarm();
    EXPECT_EQ(worker().terminate(), exitedWith(0));
}

TEST_F(WebWorkerHostile, AForgedFloodLeavesTheWorkerAbleToEnd) {
    worker().watchUntilOpen("Team Room");
    page().run(R"js(
        window.kept = JSON.stringify;
        const messages = [];
        for (let n = 0; n < 100000; ++n) { messages.push({ text: "flood " + n, fingerprint: "f" + n }); }
        const answer = JSON.stringify({ linked: true, state: "ok", activeChatTitle: "Team Room", messages });
        JSON.stringify = () => answer;
    )js");
    worker().waitForMoreStatuses(3);
    expectNoHarm();
    EXPECT_EQ(worker().terminate(), exitedWith(0));
}

/// How often a text is found in another.
std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto found = text.find(part); found != std::string::npos; found = text.find(part, found + 1))
        ++count;
    return count;
}

class WebWorkerRestlessPage : public WebWorkerTest {};

TEST_F(WebWorkerRestlessPage, AnEndlessAttemptToLeaveTheSiteDoesNotFloodTheLog) {
    constexpr std::size_t many = 60;
    // At each load, because a slow machine may load the page once more. An attempt that takes the place of
    // the one before is never denied, so there are pauses, which are long enough at last.
    DrivenPage page(R"js(
        client.chats(["Team Room"]);
        let soon = 20;
        let pause = 50;
        const leave = () => {
            location.href = `http://localhost:${location.port}/away`;
            if (--soon > 0) { return setTimeout(leave, 10); }
            soon = 20;
            setTimeout(leave, pause *= 2);
        };
        addEventListener("load", leave);
    )js");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    const auto attempts = [&] {
        const auto requests = page.server().requests();
        return static_cast<std::size_t>(std::count_if(
            requests.begin(), requests.end(), [](const auto& request) { return request.path == "/away"; }));
    };
    worker.waitUntil(
        [&] {
            const auto told = occurrences(worker.process().standardError(), "tried to leave its site");
            return told > 0 && attempts() >= std::max(many, 2 * told);
        },
        "many attempts to leave of which few are told");
    EXPECT_EQ(worker.terminate(), exitedWith(0));
}

}  // namespace
}  // namespace brindle::test

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Json.h"
#include "support/StatusJournal.h"
#include "support/TemporaryDirectory.h"
#include "support/TestDisplay.h"
#include "support/Waiting.h"

namespace brindle::test {

/// What a web worker is started with: an authenticated launch in the worker role, with a data directory,
/// website data and a home of its own below one place, on the display of all tests.
struct WebWorkerOptions {
    WebWorkerOptions();

    /// The page is a document of the test, in a file.
    WebWorkerOptions& withHtml(const std::string& html);
    WebWorkerOptions& withUrl(const std::string& url);
    WebWorkerOptions& on(const TestDisplay& display);
    /// In namespaces of its own ("unshare" options), after the shell commands `preparation`.
    WebWorkerOptions& unshared(const std::string& namespaces, const std::string& preparation);
    /// Where no journal takes the log, whatever the machine has.
    WebWorkerOptions& withoutJournal();

    std::filesystem::path dataDirectory() const { return place->path() / "data"; }
    std::filesystem::path path(const std::filesystem::path& relative) const {
        return dataDirectory() / relative;
    }

    std::shared_ptr<TemporaryDirectory> place;  ///< Shared, so that a second worker can follow.
    BackendOptions process;
};

/// Drives the executable in its worker role through nothing but files and signals, as the backend does.
class WebWorkerProcess {
  public:
    explicit WebWorkerProcess(WebWorkerOptions options = {}, bool underIntermediateParent = false);
    /// Ends the worker; fails the test when a process of the engine stays behind.
    ~WebWorkerProcess();
    WebWorkerProcess(const WebWorkerProcess&) = delete;
    WebWorkerProcess& operator=(const WebWorkerProcess&) = delete;

    const WebWorkerOptions& options() const { return options_; }
    BackendProcess& process() { return *process_; }
    StatusJournal& journal() { return journal_; }
    pid_t pid() const { return process_->pid(); }
    std::filesystem::path path(const std::filesystem::path& relative) const {
        return options_.path(relative);
    }

    /// Waits for a status with this state, from position `from` of the journal on; its position.
    std::size_t waitForState(const std::string& state, std::size_t from = 0);
    /// Waits for a status whose detail contains `text`; its position.
    std::size_t waitForDetail(const std::string& text, std::size_t from = 0,
                              std::chrono::milliseconds timeout = must_happen_deadline);
    /// Waits until `count` more statuses have come: every timer of a live worker has done its work in
    /// between.
    void waitForMoreStatuses(std::size_t count = 3);

    /// Writes the control record the way the backend does.
    void control(const Json& activeScope, const std::string& platform = "whatsapp");
    /// Lets the worker watch a chat.
    void watch(const std::string& title, const std::string& id = "team-room");
    /// As watch(); returns once the chat is open and its history is known.
    void watchUntilOpen(const std::string& title, const std::string& id = "team-room");

    /// Waits until `condition` holds; a wait in vain shows every status and all of the standard error, so
    /// that slow and lost can be told apart.
    void waitUntil(const std::function<bool()>& condition, std::string_view what);
    /// Waits until `count` records have arrived, and gives them in order of their names.
    std::vector<Json> waitForRecords(std::size_t count);
    /// The texts of waitForRecords().
    std::vector<std::string> waitForTexts(std::size_t count);

    /// The process that runs the page, once there is one other than `previous`.
    pid_t waitForWebProcess(pid_t previous = -1);
    /// The worker, its guard and every process of the engine.
    std::vector<pid_t> tree() const;

    /// Sends SIGTERM and waits for the end.
    ExitStatus terminate();

  private:
    std::size_t waitFor(const StatusJournal::Predicate& predicate, const std::string& what, std::size_t from,
                        std::chrono::milliseconds timeout);

    WebWorkerOptions options_;
    StatusJournal journal_;
    std::unique_ptr<BackendProcess> process_;
};

}  // namespace brindle::test

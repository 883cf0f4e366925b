#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "exchange/DataDirectory.h"
#include "exchange/EnvironmentKeys.h"
#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/RecordingFileManager.h"
#include "support/ScriptedHost.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "support/Waiting.h"
#include "system/Environment.h"
#include "worker/LoadRecovery.h"
#include "worker/PageScriptRunner.h"
#include "worker/PageScripts.h"
#include "worker/QRCodeFile.h"
#include "worker/Task.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle::test {

/// How a page answers that has an account, and one that has none.
inline constexpr auto linked_answer = R"({"linked":true,"account":"Ann"})";
inline constexpr auto not_linked_answer = R"({"linked":false,"account":null})";
/// How a page answers that shows a code: the beginning of every PNG file.
inline constexpr auto code_answer = "data:image/png;base64,iVBORw0KGgo=";
/// What the host is asked for when the web client is loaded.
inline constexpr auto load_web_client = "loadAddress https://web.whatsapp.com/ 60";

/// What a published status says, in short: "linked: Linked to ... (Ann)".
inline std::string summaryOf(const std::string& statusDocument) {
    const auto status = Json::parse(statusDocument);
    auto text = status["state"].get<std::string>() + ": " + status["detail"].get<std::string>();
    if (status.contains("displayName")) text += " (" + status["displayName"].get<std::string>() + ")";
    return text;
}

/// What the parts of the worker work with: a real data directory, a file manager that can be told to fail, an
/// engine and a clock that the test plays, and a page that is open.
struct WorkerParts {
    explicit WorkerParts(brindle::Environment settings = {}) : environment(std::move(settings)) {
        directory.createForWorker(files);
        host.calls.clear();
    }

    /// Every status that was published, in order and in short.
    std::vector<std::string> published() const {
        auto statuses = files.contentsOf(directory.workerStatusFile);
        for (auto& status : statuses) status = summaryOf(status);
        return statuses;
    }
    Json status() const { return readJsonFile(directory.workerStatusFile); }
    bool exists(const std::string& path) const { return std::filesystem::exists(path); }

    TemporaryDirectory home;
    std::string platform = "whatsapp";
    brindle::Environment environment;
    FaultInjectingFileManager faults;
    RecordingFileManager files{faults};
    TestClock clock;
    DataDirectory directory{
        {{std::string(environment_key::data_directory), (home.path() / "data").string()}}, files, platform};
    ScriptedHost host{clock};
    DeafDelegate delegate;
    WorkerState state;
    LoadRecovery recovery{clock};
    WorkerLog log{host};
    WorkerStatusPublisher publisher{state, files, directory.workerStatusFile, clock, log};
    QRCodeFile qrCode{files, directory.workerQRCodeFile};
    std::unique_ptr<WebPage> openPage = host.openPage(delegate);
    WebPage& page = *openPage;
    PageScriptRunner scripts{page, host};
};

/// Runs a task that is expected to end without waiting, or with what the host answers at once.
inline void finish(ScriptedHost& host, Task<>& task) {
    task.start();
    host.settle();
    if (!task.isDone()) throw TestFailure("The task still waits.");
}

}  // namespace brindle::test

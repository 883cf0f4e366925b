#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/Environment.h"
#include "support/ExitStatus.h"
#include "support/Json.h"
#include "support/LaunchToken.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"

namespace brindle::test {

/// What a backend process is started with.
struct BackendOptions {
    /// A launch that is authenticated, has a fresh data directory and starts no worker.
    BackendOptions();

    std::vector<std::string> arguments;
    /// The complete environment of the process.
    Environment environment;
    std::string executable;
    std::string workingDirectory;  ///< Empty: the directory of the test.
    bool closeStdin = false;       ///< Start the process with descriptor 0 closed.
    bool closeStdout = false;      ///< Start the process with descriptor 1 closed.
    bool closeStderr = false;      ///< Start the process with descriptor 2 closed.
    int stdoutPipeBytes = 0;       ///< Capacity of the stdout pipe; 0 keeps the system's.
    int stderrPipeBytes = 0;       ///< Capacity of the stderr pipe; 0 keeps the system's.
    bool readOutputAtOnce = true;  ///< False: as if pauseReadingOutput() had been called before the start.
    /// The process leads a group of its own; its destructor ends every process left in that group.
    bool newProcessGroup = true;
    /// Start through a parent of its own that killIntermediateParent() ends.
    bool underIntermediateParent = false;

    std::shared_ptr<TemporaryDirectory> dataDirectory;  ///< Shared, so that a second backend can follow.
    std::shared_ptr<LaunchToken> launchToken;
};

/// Drives the real executable the way the parent application does: three pipes, signals and files.
///
/// A thread of its own collects standard output and standard error, so the process never waits for the test
/// unless the test asks for that. Operations that wait fail the test when the awaited thing does not happen.
class BackendProcess {
  public:
    using Options = BackendOptions;
    using JsonPredicate = std::function<bool(const Json&)>;

    /// Starts the process.
    explicit BackendProcess(Options options = {});
    /// Kills what is left of the process and of its group, and reaps it.
    ~BackendProcess();
    BackendProcess(const BackendProcess&) = delete;
    BackendProcess& operator=(const BackendProcess&) = delete;

    /// Starts the process as the child of an intermediate process, for tests of the parent's death.
    static std::unique_ptr<BackendProcess> startUnderIntermediateParent(Options options = {});
    /// Kills that intermediate process, which leaves the backend without its parent.
    void killIntermediateParent();

    pid_t pid() const { return pid_; }
    const Options& options() const { return options_; }

    // Standard input.

    /// Sends one line; the line feed is added.
    void send(std::string_view line);
    void send(const std::string& line) { send(std::string_view(line)); }
    void send(const char* line) { send(std::string_view(line)); }
    /// Sends one envelope as a compact line.
    void send(const Json& envelope);
    /// Sends bytes as they stand; fails the test when the process does not take them in time.
    void sendRaw(std::string_view bytes);
    /// Sends one line unless the pipe is too full for all of it; lines of at most PIPE_BUF bytes only.
    bool trySend(std::string_view line);
    /// Ends the process's input.
    void closeInput();
    /// Bytes that were sent and that the process has not read yet.
    std::size_t unreadInputBytes() const;

    // Standard output.

    /// The next line without its line feed.
    std::string nextLine(std::chrono::milliseconds timeout = must_happen_deadline);
    /// The next line as JSON.
    Json nextEnvelope(std::chrono::milliseconds timeout = must_happen_deadline);
    /// Every line of standard output so far, whether taken by nextLine() or not.
    std::vector<std::string> receivedLines() const;
    /// Every whole line so far that no other call has taken, and forgets them: for what runs for long.
    std::vector<std::string> takeLines();
    /// Every byte of standard output so far.
    std::string rawOutput() const;
    /// Ends the input, waits for the exit and returns every line that standard output ever carried.
    std::vector<std::string> finish();
    /// Like finish(), without the lines that nextLine() or nextEnvelope() took: what came beyond them.
    std::vector<std::string> finishAndTakeRest();
    /// From now on nothing is read from standard output, so that its pipe fills up.
    void pauseReadingOutput();
    void resumeReadingOutput();
    /// Bytes that wait in the stdout pipe; meant for the time while reading is paused.
    std::size_t unreadOutputBytes() const;
    /// Closes the reading end of standard output.
    void closeOutputReader();

    // Standard error.

    /// Every byte of standard error so far.
    std::string standardError() const;
    /// The lines of standard error so far.
    std::vector<std::string> standardErrorLines() const;
    /// Waits until standard error contains `text`, and returns all of it.
    std::string waitForStandardError(std::string_view text,
                                     std::chrono::milliseconds timeout = must_happen_deadline);
    /// Waits until all of standard error fulfils the predicate, and returns it.
    std::string waitForStandardErrorWhere(const std::function<bool(const std::string&)>& predicate,
                                          std::chrono::milliseconds timeout = must_happen_deadline);
    /// From now on nothing is read from standard error, so that its pipe fills up.
    void pauseReadingError();
    void resumeReadingError();
    /// Bytes that wait in the stderr pipe; meant for the time while reading is paused.
    std::size_t unreadErrorBytes() const;
    /// Closes the reading end of standard error.
    void closeErrorReader();

    // The end.

    /// Waits for the end of the process and for the last of its output; may be called again.
    ExitStatus waitForExit(std::chrono::milliseconds timeout = must_happen_deadline);
    /// Whether the process still runs.
    bool isRunning() const;
    void signal(int number) const;

    // The data directory.

    /// A path below the data directory.
    std::filesystem::path path(const std::filesystem::path& relative = {}) const;
    /// The JSON document in a file below the data directory.
    Json readJson(const std::filesystem::path& relative) const;
    /// Waits until a file below the data directory exists, and returns its path.
    std::filesystem::path waitForFile(const std::filesystem::path& relative) const;
    /// Waits until a directory below the data directory holds exactly `count` visible entries; their names.
    std::vector<std::string> waitForEntries(const std::filesystem::path& relative, std::size_t count) const;
    /// Waits until "runtime-status.json" fulfils the predicate, and returns it.
    Json waitForRuntimeStatus(const JsonPredicate& predicate) const;
    /// Waits until "worker-control.json" fulfils the predicate, and returns it.
    Json waitForControl(const JsonPredicate& predicate) const;
    /// Waits until "runtime-status.json" was replaced `count` times: every poller has run in between when
    /// nothing else makes the process write it.
    void waitForStatusWrites(int count = 3) const;
    /// Writes a record into "inbound" the way a worker does: under a hidden name, then renamed.
    void writeInbound(const std::string& name, const Json& record) const;
    void writeInboundRaw(const std::string& name, std::string_view content) const;

    // Conveniences.

    /// Takes the two envelopes of the greeting and fails the test when they are others.
    void greet();
    /// Greets (once), connects and listens to `scope`; takes the envelopes of all that.
    void connectAndListen(const Json& scope = {
                              {"conversation", {{"id", "team-room"}, {"title", "Team Room"}}}});
    /// Waits for `condition`; fails the test, naming `what` and showing the process's output, if it never
    /// holds.
    void waitUntil(const std::function<bool()>& condition, std::string_view what,
                   std::chrono::milliseconds timeout = must_happen_deadline) const;
    /// Resident memory of the process.
    std::size_t residentBytes() const;

  private:
    struct Stream {
        int descriptor = -1;
        std::string data;
        bool paused = false;
        /// What the reader has last seen of that.
        bool passedOver = false;
        bool closeRequested = false;
    };

    void start();
    std::vector<std::string> commandLine() const;
    void requireEndOfOutput();
    void adoptPidOfGrandchild();
    void readStreams();
    bool readAvailable(Stream& stream, short events);
    void wakeReader() const;
    void requestClose(Stream& stream);
    void setPaused(Stream& stream, bool paused);
    bool reapIfEnded();
    void endEverything();
    void endGroup();
    std::string describe() const;

    Options options_;
    pid_t pid_ = -1;
    pid_t intermediatePid_ = -1;
    pid_t group_ = -1;
    std::unique_ptr<TemporaryDirectory> intermediateDirectory_;
    int input_ = -1;
    int wake_ = -1;
    bool greeted_ = false;
    bool ended_ = false;
    ExitStatus status_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Stream output_;
    Stream error_;
    std::size_t outputCursor_ = 0;
    bool stopReading_ = false;
    std::thread reader_;
};

}  // namespace brindle::test

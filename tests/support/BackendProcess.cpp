#include "support/BackendProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "support/Executables.h"
#include "support/Files.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/Spawning.h"
#include "support/TextForms.h"

namespace brindle::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t stream_chunk_bytes = 64 * 1024;
constexpr std::size_t shown_output_bytes = 4000;

[[noreturn]] void failWithErrno(const std::string& what) {
    throw TestFailure(what + ": " + std::strerror(errno));
}

void require(bool succeeded, const std::string& what) {
    if (!succeeded) failWithErrno(what);
}

PipeEnds makePipeOf(int capacityBytes) {
    PipeEnds pipe = makePipe();
    if (capacityBytes > 0) {
        require(::fcntl(pipe.reading.get(), F_SETPIPE_SZ, capacityBytes) >= 0,
                "setting the capacity of a pipe");
    }
    return pipe;
}

void closeDescriptor(int& descriptor) {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = -1;
}

std::size_t bytesInPipe(int descriptor) {
    int count = 0;
    require(descriptor >= 0 && ::ioctl(descriptor, FIONREAD, &count) == 0, "FIONREAD");
    return static_cast<std::size_t>(count);
}

/// A write to a process that is gone must fail, not kill the tests; and orphans of a killed process come to
/// this one, so that their end can be awaited and nothing is left behind.
void prepareTestProcess() {
    static const bool prepared = [] {
        ::signal(SIGPIPE, SIG_IGN);
        return ::prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
    }();
    if (!prepared) throw TestFailure("prctl(PR_SET_CHILD_SUBREAPER) failed");
}

/// Waits for the end of a child; false when it is none.
bool isReaped(pid_t child) {
    pid_t result = -1;
    do {
        result = ::waitpid(child, nullptr, 0);
    } while (result < 0 && errno == EINTR);
    return result == child;
}

std::string tail(const std::string& text) {
    if (text.size() <= shown_output_bytes) return text;
    return "[...]" + text.substr(text.size() - shown_output_bytes);
}

void passOn(Environment& environment, const char* name) {
    if (const char* value = std::getenv(name)) environment[name] = value;
}

/// Reads a number that a line feed ends; false while it is not there yet.
bool readNumber(const std::filesystem::path& file, int& number) {
    std::ifstream stream(file);
    std::string text;
    if (!std::getline(stream, text) || stream.eof()) return false;
    number = std::stoi(text);
    return true;
}

/// What tells one version of an atomically replaced file from the next.
std::pair<ino_t, std::int64_t> versionOf(const std::filesystem::path& file) {
    struct stat information {};
    if (::stat(file.c_str(), &information) != 0) return {0, 0};
    return {information.st_ino,
            information.st_mtim.tv_sec * std::int64_t{1000000000} + information.st_mtim.tv_nsec};
}

}  // namespace

BackendOptions::BackendOptions()
    : executable(backendExecutable()),
      dataDirectory(std::make_shared<TemporaryDirectory>()),
      launchToken(std::make_shared<LaunchToken>()) {
    launchToken->addTo(environment);
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = dataDirectory->path();
    environment["BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER"] = "1";
    environment["PATH"] = "/usr/bin:/bin";
    for (const char* name : {"PATH", "HOME", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS",
                             "LD_LIBRARY_PATH"}) {
        passOn(environment, name);
    }
}

BackendProcess::BackendProcess(Options options) : options_(std::move(options)) {
    prepareTestProcess();
    output_.paused = error_.paused = !options_.readOutputAtOnce;
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    require(wake_ >= 0, "eventfd");
    start();
    reader_ = std::thread([this] { readStreams(); });
    try {
        if (options_.underIntermediateParent) adoptPidOfGrandchild();
    } catch (...) {
        endEverything();
        throw;
    }
}

BackendProcess::~BackendProcess() {
    endEverything();
}

void BackendProcess::endEverything() {
    endGroup();
    closeDescriptor(input_);
    if (reader_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            stopReading_ = true;
        }
        wakeReader();
        reader_.join();
    }
    closeDescriptor(output_.descriptor);
    closeDescriptor(error_.descriptor);
    closeDescriptor(wake_);
}

std::unique_ptr<BackendProcess> BackendProcess::startUnderIntermediateParent(Options options) {
    options.underIntermediateParent = true;
    return std::make_unique<BackendProcess>(std::move(options));
}

void BackendProcess::killIntermediateParent() {
    if (intermediatePid_ <= 0) throw TestFailure("there is no intermediate parent to kill");
    ::kill(intermediatePid_, SIGKILL);
    require(isReaped(intermediatePid_), "waiting for the intermediate parent");
    intermediatePid_ = -1;
}

std::vector<std::string> BackendProcess::commandLine() const {
    std::vector<std::string> line;
    if (options_.underIntermediateParent) {
        // The shell gives its own copies of the pipes up, so that only the backend holds them.
        line = {
            "/bin/sh", "-c",
            "unset PWD; exec 3<&0; file=$1; shift; \"$@\" <&3 3<&- & echo $! >\"$file\"; exec 0</dev/null 1>/dev/null 2>/dev/null 3<&-; wait $!; echo $? >\"$file.status\"",
            "intermediate-parent", intermediateDirectory_->path() / "pid"};
    }
    line.push_back(options_.executable);
    line.insert(line.end(), options_.arguments.begin(), options_.arguments.end());
    return line;
}

void BackendProcess::start() {
    if (options_.underIntermediateParent) intermediateDirectory_ = std::make_unique<TemporaryDirectory>();
    PipeEnds input = makePipe();
    PipeEnds output = makePipeOf(options_.stdoutPipeBytes);
    PipeEnds error = makePipeOf(options_.stderrPipeBytes);
    const pid_t pid = spawn({.commandLine = commandLine(),
                             .environment = options_.environment,
                             .workingDirectory = options_.workingDirectory,
                             .standardInput = options_.closeStdin ? -1 : input.reading.get(),
                             .standardOutput = options_.closeStdout ? -1 : output.writing.get(),
                             .standardError = options_.closeStderr ? -1 : error.writing.get(),
                             .newProcessGroup = options_.newProcessGroup});
    (options_.underIntermediateParent ? intermediatePid_ : pid_) = pid;
    if (options_.newProcessGroup) group_ = pid;
    input_ = input.writing.release();
    output_.descriptor = output.reading.release();
    error_.descriptor = error.reading.release();
    require(::fcntl(input_, F_SETFL, O_WRONLY | O_NONBLOCK) == 0, "making a pipe non-blocking");
}

void BackendProcess::adoptPidOfGrandchild() {
    const auto file = intermediateDirectory_->path() / "pid";
    waitUntil([&] { return readNumber(file, pid_); }, "the intermediate parent to start the backend");
}

void BackendProcess::wakeReader() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
}

bool BackendProcess::readAvailable(Stream& stream, short events) {
    if (events == 0) return false;
    std::array<char, stream_chunk_bytes> chunk{};
    const auto count = ::read(stream.descriptor, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) return false;
    const std::lock_guard lock(mutex_);
    if (count > 0) {
        stream.data.append(chunk.data(), static_cast<std::size_t>(count));
    } else {
        closeDescriptor(stream.descriptor);
    }
    return true;
}

void BackendProcess::readStreams() {
    for (;;) {
        std::array<pollfd, 3> polled{};
        {
            const std::lock_guard lock(mutex_);
            if (stopReading_) return;
            bool changed = false;
            for (Stream* stream : {&output_, &error_}) {
                changed = changed || stream->passedOver != stream->paused;
                stream->passedOver = stream->paused;
                if (!stream->closeRequested || stream->descriptor < 0) continue;
                closeDescriptor(stream->descriptor);
                changed = true;
            }
            if (changed) changed_.notify_all();
            polled[0] = {output_.paused ? -1 : output_.descriptor, POLLIN, 0};
            polled[1] = {error_.paused ? -1 : error_.descriptor, POLLIN, 0};
            polled[2] = {wake_, POLLIN, 0};
        }
        if (::poll(polled.data(), polled.size(), -1) < 0) continue;
        if (polled[2].revents != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] const auto got = ::read(wake_, &count, sizeof count);
        }
        const bool outputChanged = readAvailable(output_, polled[0].revents);
        const bool errorChanged = readAvailable(error_, polled[1].revents);
        if (outputChanged || errorChanged) changed_.notify_all();
    }
}

void BackendProcess::requestClose(Stream& stream) {
    std::unique_lock lock(mutex_);
    stream.closeRequested = true;
    wakeReader();
    changed_.wait(lock, [&] { return stream.descriptor < 0; });
}

void BackendProcess::setPaused(Stream& stream, bool paused) {
    std::unique_lock lock(mutex_);
    stream.paused = paused;
    wakeReader();
    // Until then it may still read what comes.
    changed_.wait(lock, [&] { return stream.passedOver == paused; });
}

void BackendProcess::send(std::string_view line) {
    sendRaw(std::string(line) + "\n");
}

void BackendProcess::send(const Json& envelope) {
    send(envelope.dump());
}

void BackendProcess::sendRaw(std::string_view bytes) {
    if (input_ < 0) throw TestFailure("the input was closed already");
    const auto deadline = steady_clock::now() + must_happen_deadline;
    while (!bytes.empty()) {
        const auto written = ::write(input_, bytes.data(), bytes.size());
        if (written > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) failWithErrno("sending to the process\n" + describe() + "\n");
        if (steady_clock::now() >= deadline) {
            throw TestFailure("the process does not take its input\n" + describe());
        }
        pollfd polled{input_, POLLOUT, 0};
        ::poll(&polled, 1, 100);
    }
}

bool BackendProcess::trySend(std::string_view line) {
    const auto bytes = std::string(line) + "\n";
    if (bytes.size() > PIPE_BUF) throw TestFailure("trySend() takes short lines only");
    const auto written = ::write(input_, bytes.data(), bytes.size());
    if (written < 0 && errno != EAGAIN && errno != EINTR) failWithErrno("sending to the process");
    return written > 0;
}

void BackendProcess::closeInput() {
    closeDescriptor(input_);
}

std::size_t BackendProcess::unreadInputBytes() const {
    return bytesInPipe(input_);
}

std::string BackendProcess::nextLine(milliseconds timeout) {
    std::unique_lock lock(mutex_);
    std::size_t end = std::string::npos;
    changed_.wait_for(lock, timeout, [&] {
        end = output_.data.find('\n', outputCursor_);
        return end != std::string::npos || output_.descriptor < 0;
    });
    if (end == std::string::npos) {
        const bool atEnd = output_.descriptor < 0;
        lock.unlock();
        throw TestFailure((atEnd ? "standard output ended before the next line\n"
                                 : "no further line on standard output in time\n") +
                          describe());
    }
    auto line = output_.data.substr(outputCursor_, end - outputCursor_);
    outputCursor_ = end + 1;
    return line;
}

Json BackendProcess::nextEnvelope(milliseconds timeout) {
    const auto line = nextLine(timeout);
    auto document = Json::parseIfPossible(line);
    if (!document) throw TestFailure("a line of standard output is not JSON: " + line);
    return std::move(*document);
}

std::vector<std::string> BackendProcess::receivedLines() const {
    return linesOf(rawOutput());
}

std::vector<std::string> BackendProcess::takeLines() {
    const std::lock_guard lock(mutex_);
    const auto end = output_.data.rfind('\n') + 1;  // 0 when there is none.
    auto lines = linesOf(std::string_view(output_.data).substr(0, end).substr(std::min(outputCursor_, end)));
    output_.data.erase(0, end);
    outputCursor_ = 0;
    return lines;
}

std::string BackendProcess::rawOutput() const {
    const std::lock_guard lock(mutex_);
    return output_.data;
}

std::vector<std::string> BackendProcess::finish() {
    closeInput();
    waitForExit();
    resumeReadingOutput();
    resumeReadingError();
    requireEndOfOutput();
    return receivedLines();
}

std::vector<std::string> BackendProcess::finishAndTakeRest() {
    finish();
    const std::lock_guard lock(mutex_);
    auto rest = output_.data.substr(outputCursor_);
    outputCursor_ = output_.data.size();
    return linesOf(rest);
}

void BackendProcess::pauseReadingOutput() {
    setPaused(output_, true);
}

void BackendProcess::resumeReadingOutput() {
    setPaused(output_, false);
}

std::size_t BackendProcess::unreadOutputBytes() const {
    const std::lock_guard lock(mutex_);
    return bytesInPipe(output_.descriptor);
}

void BackendProcess::closeOutputReader() {
    requestClose(output_);
}

std::string BackendProcess::standardError() const {
    const std::lock_guard lock(mutex_);
    return error_.data;
}

std::vector<std::string> BackendProcess::standardErrorLines() const {
    return linesOf(standardError());
}

std::string BackendProcess::waitForStandardError(std::string_view text, milliseconds timeout) {
    const std::string sought(text);
    try {
        return waitForStandardErrorWhere(
            [&](const std::string& all) { return all.find(sought) != std::string::npos; }, timeout);
    } catch (const TestFailure& failure) {
        throw TestFailure("sought on standard error: " + sought + "\n" + failure.what());
    }
}

std::string BackendProcess::waitForStandardErrorWhere(
    const std::function<bool(const std::string&)>& predicate, milliseconds timeout) {
    std::unique_lock lock(mutex_);
    bool found = false;
    changed_.wait_for(lock, timeout, [&] {
        found = predicate(error_.data);
        return found || error_.descriptor < 0;
    });
    if (found) return error_.data;
    lock.unlock();
    throw TestFailure("the expected text did not appear on standard error\n" + describe());
}

void BackendProcess::pauseReadingError() {
    setPaused(error_, true);
}

void BackendProcess::resumeReadingError() {
    setPaused(error_, false);
}

std::size_t BackendProcess::unreadErrorBytes() const {
    const std::lock_guard lock(mutex_);
    return bytesInPipe(error_.descriptor);
}

void BackendProcess::closeErrorReader() {
    requestClose(error_);
}

bool BackendProcess::reapIfEnded() {
    if (ended_) return true;
    if (int code = 0; intermediatePid_ > 0) {
        // The intermediate parent reaps it, and tells a death by signal as shells do.
        constexpr int signal_offset = 128;
        if (!readNumber(intermediateDirectory_->path() / "pid.status", code)) return false;
        status_ = code > signal_offset ? killedBy(code - signal_offset) : exitedWith(code);
    } else {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
        status_ = exitStatusOf(status);
    }
    ended_ = true;
    return true;
}

void BackendProcess::requireEndOfOutput() {
    std::unique_lock lock(mutex_);
    const auto isOver = [](const Stream& stream) { return stream.descriptor < 0 || stream.paused; };
    if (changed_.wait_for(lock, must_happen_deadline, [&] { return isOver(output_) && isOver(error_); })) {
        return;
    }
    lock.unlock();
    throw TestFailure("the process ended but another one keeps its output open\n" + describe());
}

ExitStatus BackendProcess::waitForExit(milliseconds timeout) {
    waitUntil([&] { return reapIfEnded(); }, "the process to end", timeout);
    requireEndOfOutput();
    return status_;
}

bool BackendProcess::isRunning() const {
    return !ended_ && processIsRunning(pid_);
}

void BackendProcess::signal(int number) const {
    if (ended_) throw TestFailure("the process has ended already");
    require(::kill(pid_, number) == 0, "signalling the process");
}

std::filesystem::path BackendProcess::path(const std::filesystem::path& relative) const {
    return relative.empty() ? options_.dataDirectory->path() : options_.dataDirectory->path() / relative;
}

Json BackendProcess::readJson(const std::filesystem::path& relative) const {
    return readJsonFile(path(relative));
}

std::filesystem::path BackendProcess::waitForFile(const std::filesystem::path& relative) const {
    waitUntil([&] { return std::filesystem::exists(path(relative)); }, relative.string());
    return path(relative);
}

std::vector<std::string> BackendProcess::waitForEntries(const std::filesystem::path& relative,
                                                        std::size_t count) const {
    std::vector<std::string> names;
    waitUntil(
        [&] {
            names = visibleNamesIn(path(relative));
            return names.size() == count;
        },
        std::to_string(count) + " entries in " + relative.string());
    return names;
}

Json BackendProcess::waitForRuntimeStatus(const JsonPredicate& predicate) const {
    Json document;
    waitUntil(
        [&] {
            // It may be taken away at any time.
            const auto content = contentOrNothing(path("runtime/runtime-status.json"));
            if (content.empty()) return false;
            document = Json::parse(content);
            return predicate(document);
        },
        "the expected runtime status");
    return document;
}

Json BackendProcess::waitForControl(const JsonPredicate& predicate) const {
    Json document;
    waitUntil(
        [&] {
            // It may be taken away at any time.
            const auto content = contentOrNothing(path("runtime/worker-control.json"));
            if (content.empty()) return false;
            document = Json::parse(content);
            return predicate(document);
        },
        "the expected worker control record");
    return document;
}

void BackendProcess::waitForStatusWrites(int count) const {
    const auto file = path("runtime/runtime-status.json");
    auto version = versionOf(file);
    for (int seen = 0; seen < count; ++seen) {
        waitUntil([&] { return versionOf(file) != version; }, "the next write of the runtime status");
        version = versionOf(file);
    }
}

void BackendProcess::writeInbound(const std::string& name, const Json& record) const {
    writeInboundRaw(name, record.dump(2));
}

void BackendProcess::writeInboundRaw(const std::string& name, std::string_view content) const {
    writeFileAtomically(path("inbound") / name, content);
}

void BackendProcess::greet() {
    if (greeted_) return;
    greeted_ = true;
    const auto hello = nextEnvelope();
    if (!hello.contains("hello")) throw TestFailure("the first envelope is not hello: " + hello.dump());
    const auto state = nextEnvelope();
    const Json expected = {{"stateChanged", {{"_0", {{"state", {{"disconnected", Json::object()}}}}}}}};
    if (state != expected) throw TestFailure("the second envelope is not disconnected: " + state.dump());
}

void BackendProcess::connectAndListen(const Json& scope) {
    greet();
    const std::string platform = Json::parse(receivedLines().front())["hello"]["_0"]["platform"];
    send(connectRequest(platform));
    for (const char* state : {"connecting", "connected"}) {
        const auto envelope = nextEnvelope();
        if (!envelope.contains("stateChanged") || !envelope["stateChanged"]["_0"]["state"].contains(state)) {
            throw TestFailure(std::string("expected ") + state + ", got " + envelope.dump());
        }
    }
    send(startListeningRequest(scope, platform));
    auto expected = scope.at(scope.firstName());
    expected["kind"] = scope.firstName();
    waitForControl([&](const Json& control) {
        return control.contains("activeScope") && control["activeScope"] == expected;
    });
}

void BackendProcess::waitUntil(const std::function<bool()>& condition, std::string_view what,
                               milliseconds timeout) const {
    try {
        test::waitUntil(condition, what, timeout);
    } catch (const TestFailure& failure) {
        throw TestFailure(std::string(failure.what()) + "\n" + describe());
    }
}

std::size_t BackendProcess::residentBytes() const {
    const auto bytes = residentBytesOf(pid_);
    if (bytes == 0) throw TestFailure("the process has no resident memory\n" + describe());
    return bytes;
}

void BackendProcess::endGroup() {
    if (pid_ > 0 && !ended_) {
        ::kill(pid_, SIGKILL);
    }
    if (intermediatePid_ > 0) ::kill(intermediatePid_, SIGKILL);
    if (group_ <= 0) {
        if (!ended_ && pid_ > 0) isReaped(pid_);
        if (intermediatePid_ > 0) isReaped(intermediatePid_);
        return;
    }
    // A process that ends hands its own children to this one; again until no child of the group is left.
    do {
        ::kill(-group_, SIGKILL);
    } while (::waitpid(-group_, nullptr, 0) > 0 || errno == EINTR);
}

std::string BackendProcess::describe() const {
    std::ostringstream text;
    text << "--- the process ";
    if (ended_) {
        text << "ended: " << status_;
    } else {
        text << (processIsRunning(pid_) ? "runs" : "is gone");
    }
    text << "\n--- standard output:\n" << tail(rawOutput());
    text << "\n--- standard error:\n" << tail(standardError());
    return text.str();
}

}  // namespace brindle::test

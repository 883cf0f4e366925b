#include "Helper.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <random>
#include <utility>

using nlohmann::json;
using std::chrono::steady_clock;

namespace {

constexpr const char* platform = "whatsapp";
constexpr std::size_t chunk_bytes = 65536;
constexpr std::chrono::seconds end_patience{10};

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        required(::pipe2(ends.data(), O_CLOEXEC), "making a pipe");
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
    Descriptor reading, writing;
};

void mayNotBlock(const Descriptor& descriptor) {
    required(::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK), "preparing a pipe");
}

/// 256 random bits in hexadecimal digits.
std::string randomToken() {
    std::random_device random;
    std::string token;
    for (int count = 0; count < 8; ++count) {
        std::array<char, 9> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", static_cast<unsigned>(random()));
        token += digits.data();
    }
    return token;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// How the helper is to be set up: signals as in a fresh process, and a session of its own, because Ctrl-C is
/// for us alone; we end the helper in order.
class SpawnAttributes {
  public:
    SpawnAttributes() {
        ::posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setflags(&attributes_,
                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

class SpawnDescriptors {
  public:
    SpawnDescriptors() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnDescriptors() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnDescriptors(const SpawnDescriptors&) = delete;
    SpawnDescriptors& operator=(const SpawnDescriptors&) = delete;

    void give(const Descriptor& descriptor, int number) {
        ::posix_spawn_file_actions_adddup2(&actions_, descriptor.get(), number);
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

bool isReady(const std::vector<pollfd>& set, const Descriptor& descriptor) {
    return std::any_of(set.begin(), set.end(), [&](const pollfd& entry) {
        return descriptor.get() >= 0 && entry.fd == descriptor.get() && entry.revents != 0;
    });
}

}  // namespace

bool Lines::readFrom(int descriptor) {
    std::array<char, chunk_bytes> chunk{};
    const auto count = ::read(descriptor, chunk.data(), chunk.size());
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) {
        if (!rest_.empty()) take_(std::exchange(rest_, {}));
        return false;
    }
    auto searched = rest_.size();
    rest_.append(chunk.data(), static_cast<std::size_t>(count));
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = rest_.find('\n', std::max(begin, searched))) != std::string::npos;) {
        take_(rest_.substr(begin, end - begin));
        begin = end + 1;
    }
    rest_.erase(0, begin);
    return true;
}

Helper::Helper(const std::string& program, const std::string& state, Handlers handlers)
    : state_(state),
      token_(randomToken()),
      tokenFile_(state + "/launch-token"),
      envelopes_([take = std::move(handlers.envelope)](const std::string& line) { take(json::parse(line)); }),
      diagnostics_(std::move(handlers.diagnostic)) {
    makeToken();
    spawn(program);
}

Helper::~Helper() {
    // One that has not ended by now has said what cannot be taken; nothing more of it is read.
    output_.close();
    end();
}

/// A fresh secret for each start, which nobody else can read.
void Helper::makeToken() {
    ::unlink(tokenFile_.c_str());
    const Descriptor file(
        required(::open(tokenFile_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR),
                 "making the launch token"));
    if (::write(file.get(), token_.data(), token_.size()) != static_cast<ssize_t>(token_.size())) {
        throw std::runtime_error("The launch token could not be written.");
    }
}

std::vector<std::string> Helper::environment() const {
    std::vector<std::string> variables{"BRINDLE_HELPER_LAUNCH_TOKEN=" + token_,
                                       "BRINDLE_HELPER_LAUNCH_TOKEN_FILE=" + tokenFile_,
                                       "BRINDLE_MANAGED_BRIDGE_DATA_DIR=" + state_ + "/data"};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string name(*variable, std::string(*variable).find('=') + 1);
        const bool isOurs = std::any_of(variables.begin(), variables.begin() + 3,
                                        [&](const std::string& ours) { return ours.starts_with(name); });
        if (!isOurs) variables.emplace_back(*variable);
    }
    return variables;
}

void Helper::spawn(const std::string& program) {
    Pipe input;
    Pipe output;
    Pipe error;
    SpawnDescriptors descriptors;
    descriptors.give(input.reading, STDIN_FILENO);
    descriptors.give(output.writing, STDOUT_FILENO);
    descriptors.give(error.writing, STDERR_FILENO);
    const SpawnAttributes attributes;
    std::vector<std::string> words{program, "--platform", platform};
    auto variables = environment();
    errno = ::posix_spawnp(&process_, program.c_str(), descriptors.get(), attributes.get(),
                           pointersTo(words).data(), pointersTo(variables).data());
    if (errno != 0) {
        ::unlink(tokenFile_.c_str());
        process_ = -1;
        required(-1, "starting " + program);
    }
    input_ = std::move(input.writing);
    output_ = std::move(output.reading);
    error_ = std::move(error.reading);
    for (const auto* end : {&input_, &output_, &error_}) mayNotBlock(*end);
}

/// Both streams are read all the time, each without waiting for the other, nor for the helper to read.
void Helper::addTo(std::vector<pollfd>& set) const {
    for (const auto* stream : {&output_, &error_}) {
        if (stream->get() >= 0) set.push_back({.fd = stream->get(), .events = POLLIN, .revents = 0});
    }
    if (!unwritten_.empty() && input_.get() >= 0)
        set.push_back({.fd = input_.get(), .events = POLLOUT, .revents = 0});
}

bool Helper::work(const std::vector<pollfd>& set) {
    if (isReady(set, output_) && !envelopes_.readFrom(output_.get())) output_.close();
    if (isReady(set, error_) && !diagnostics_.readFrom(error_.get())) error_.close();
    if (isReady(set, input_)) write();
    return output_.get() >= 0;
}

void Helper::write() {
    const auto count = ::write(input_.get(), unwritten_.data(), unwritten_.size());
    if (count >= 0) {
        unwritten_.erase(0, static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        // The helper is gone; what it has not read is not known.
        unwritten_.clear();
        input_.close();
    }
}

void Helper::request(const std::string& name, json fields) {
    fields["platform"] = platform;
    const json envelope{{name, {{"_0", std::move(fields)}}}};
    unwritten_ += envelope.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

bool Helper::workFor(std::chrono::milliseconds time) {
    const auto until = steady_clock::now() + time;
    while (output_.get() >= 0 || error_.get() >= 0) {
        if (unwritten_.empty()) input_.close();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - steady_clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> set;
        addTo(set);
        ::poll(set.data(), set.size(), static_cast<int>(left.count()));
        work(set);
    }
    return true;
}

int Helper::end() {
    if (process_ < 0) return status_;
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (workFor(end_patience)) break;
        ::kill(process_, signal);
    }
    workFor(end_patience);
    while (::waitpid(process_, &status_, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    // Not earlier: the built-in worker reads it too, after the helper has greeted.
    ::unlink(tokenFile_.c_str());
    return status_;
}

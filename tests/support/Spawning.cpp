#include "support/Spawning.h"

#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <system_error>

#include "support/Waiting.h"

namespace brindle::test {
namespace {

class FileActions {
  public:
    explicit FileActions(const Start& start) {
        posix_spawn_file_actions_init(&actions_);
        add(start.standardInput, STDIN_FILENO);
        add(start.standardOutput, STDOUT_FILENO);
        add(start.standardError, STDERR_FILENO);
        if (!start.workingDirectory.empty()) {
            posix_spawn_file_actions_addchdir_np(&actions_, start.workingDirectory.c_str());
        }
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    void add(int descriptor, int target) {
        if (descriptor < 0) {
            posix_spawn_file_actions_addclose(&actions_, target);
        } else {
            posix_spawn_file_actions_adddup2(&actions_, descriptor, target);
        }
    }

    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    explicit SpawnAttributes(bool newProcessGroup) {
        posix_spawnattr_init(&attributes_);
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setpgroup(&attributes_, 0);
        const int flags =
            POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | (newProcessGroup ? POSIX_SPAWN_SETPGROUP : 0);
        posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> flattened(const Environment& environment) {
    std::vector<std::string> entries;
    for (const auto& [key, value] : environment) {
        entries.push_back(key + "=" + value);  // NOLINT(performance-inefficient-string-concatenation)
    }
    return entries;
}

}  // namespace

pid_t spawn(const Start& start) {
    auto arguments = start.commandLine;
    auto environment = flattened(start.environment);
    const FileActions actions(start);
    const SpawnAttributes attributes(start.newProcessGroup);
    pid_t process = -1;
    const int error = ::posix_spawn(&process, arguments.front().c_str(), actions.get(), attributes.get(),
                                    pointersTo(arguments).data(), pointersTo(environment).data());
    if (error != 0) {
        throw TestFailure("cannot start " + arguments.front() + ": " +
                          std::generic_category().message(error));
    }
    return process;
}

}  // namespace brindle::test

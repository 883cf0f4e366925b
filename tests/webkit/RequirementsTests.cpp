#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "support/EnginePage.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

// A suite for each, because the engine's libraries look up directories once in a process.

TEST(UnusableRuntimeDirectory, IsDoneWithout) {
    ::setenv("XDG_RUNTIME_DIR", "/proc/no-such-directory", 1);
    EnginePage page;
    page.load("<body>here</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "here");
}

TEST(MissingMessageBus, IsNotStarted) {
    const TemporaryDirectory directory;
    const auto launcher = directory.path() / "dbus-launch";
    const auto trace = directory.path() / "trace";
    writeFileAtomically(launcher, "#!/bin/sh\necho called >" + trace.string() + "\nexit 1\n");
    fs::permissions(launcher, fs::perms::owner_all);
    ::setenv("PATH", (directory.path().string() + ":" + std::getenv("PATH")).c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", directory.path().c_str(), 1);
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EnginePage page;
    page.load("<body>here</body>");
    EXPECT_FALSE(fs::exists(trace));
}

TEST(UnusableWebsiteDataFolder, EndsTheStartWithASentence) {
    for (const auto& [folder, variable] : {std::pair{"data", "XDG_DATA_HOME"}, {"cache", "XDG_CACHE_HOME"}}) {
        const auto directory = std::make_shared<TemporaryDirectory>();
        writeFileAtomically(directory->path() / folder, "no directory");
        try {
            const EnginePage page(directory);
            FAIL() << "no failure";
        } catch (const std::exception& error) {
            EXPECT_THAT(error.what(),
                        testing::AllOf(testing::HasSubstr((directory->path() / folder).string()),
                                       testing::HasSubstr(std::string("let ") + variable + " name")));
        }
    }
}

/// Standard error is a pipe that nobody reads, and is full.
class FullStandardError {
  public:
    FullStandardError() : kept_(::dup(STDERR_FILENO)) {
        if (::pipe2(ends_.data(), O_NONBLOCK) != 0) throw TestFailure("cannot make a pipe");
        const std::array<char, 4096> filling{};
        while (::write(ends_[1], filling.data(), filling.size()) > 0) {
        }
        ::fcntl(ends_[1], F_SETFL, 0);
        ::dup2(ends_[1], STDERR_FILENO);
    }
    FullStandardError(const FullStandardError&) = delete;
    FullStandardError& operator=(const FullStandardError&) = delete;
    ~FullStandardError() {
        ::dup2(kept_, STDERR_FILENO);
        for (const int descriptor : {kept_, ends_[0], ends_[1]}) ::close(descriptor);
    }

  private:
    int kept_;
    std::array<int, 2> ends_{};
};

TEST(SystemLogWithoutReader, DoesNotHoldUpTheWorker) {
    EnginePage page;
    {
        const FullStandardError full;
        page.host().logError("Something failed.");
        page.host().logError(std::string(1'000'000, 'x'));
    }
    page.load("<body>here</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "here");
}

}  // namespace
}  // namespace brindle::test

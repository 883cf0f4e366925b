#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "support/EnginePage.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

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

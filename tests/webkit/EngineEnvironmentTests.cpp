#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/EnginePage.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

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

TEST(GraphicsDriver, IsNotLoadedWhereNothingIsDrawn) {
    EnginePage page;
    page.load("<body>here</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "here");
    const std::string mapped = readFile("/proc/self/maps");
    EXPECT_THAT(mapped, testing::HasSubstr("libEGL"));
    for (const char* part : {"libEGL_", "libGLX_", "_dri.so", "libLLVM"})
        EXPECT_THAT(mapped, testing::Not(testing::HasSubstr(part))) << part;
}

}  // namespace
}  // namespace brindle::test

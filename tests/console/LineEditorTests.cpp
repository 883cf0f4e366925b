#include "console/LineEditor.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/TemporaryDirectory.h"

namespace brindle::console {
namespace {

TEST(HistoryFile, LiesInTheStateDirectory) {
    const test::TemporaryDirectory state;
    const auto file = LineEditor::historyFile({{"XDG_STATE_HOME", state.path().string()}, {"HOME", "/none"}});
    EXPECT_EQ(file, (state.path() / "brindle/console-history").string());
    EXPECT_TRUE(std::filesystem::is_directory(state.path() / "brindle"));
}

TEST(HistoryFile, LiesBelowTheHomeDirectoryOtherwise) {
    const test::TemporaryDirectory home;
    const auto expected = (home.path() / ".local/state/brindle/console-history").string();
    EXPECT_EQ(LineEditor::historyFile({{"HOME", home.path().string()}}), expected);
    EXPECT_EQ(LineEditor::historyFile({{"XDG_STATE_HOME", "relative"}, {"HOME", home.path().string()}}),
              expected);
}

TEST(HistoryFile, IsNoneWithoutAPlace) {
    EXPECT_EQ(LineEditor::historyFile({}), "");
    EXPECT_EQ(LineEditor::historyFile({{"HOME", "/proc/none"}}), "");
}

}  // namespace
}  // namespace brindle::console

#include "console/Display.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

TEST(DisplayStyle, FollowsAnExplicitChoiceWhateverTheEnvironmentSays) {
    Options options;
    options.color = ColorChoice::always;
    EXPECT_TRUE(DisplayStyle::from(options, {{"NO_COLOR", "1"}, {"TERM", "dumb"}}).colorsOutput);
    options.color = ColorChoice::never;
    EXPECT_FALSE(DisplayStyle::from(options, {{"TERM", "xterm"}}).colorsOutput);
}

}  // namespace
}  // namespace brindle::console

#include "console/Finding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace brindle::console {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(FindingReport, IsWellWithoutAProblem) {
    EXPECT_TRUE(FindingReport(Findings{}).isWell);
    EXPECT_TRUE(FindingReport({Finding::ok("a", "A."), Finding::note("b", "B.", "M.", "R.")}).isWell);
    EXPECT_FALSE(FindingReport({Finding::ok("a", "A."), Finding::problem("b", "B.", "M.", "R.")}).isWell);
}

TEST(FindingReport, SaysWhatItIsWhatItMeansAndWhatToDo) {
    const auto text =
        reportText(FindingReport({Finding::problem("space", "Full.", "Nothing fits.", "Clean.")}), false);
    EXPECT_EQ(text,
              "problem  space           Full.\n"
              "                         Nothing fits.\n"
              "                         To do: Clean.\n"
              "1 problem.\n");
    EXPECT_EQ(reportText(FindingReport({Finding::ok("space", "Room.")}), false),
              "ok       space           Room.\nAll is well.\n");
}

TEST(FindingReport, HasNothingThatATerminalObeys) {
    EXPECT_THAT(reportText(FindingReport({Finding::problem("a", "\033[2J", "\a", "\x9B")}), false),
                Not(HasSubstr("\033")));
}

TEST(FindingReport, IsOneDocument) {
    const FindingReport report({Finding::ok("clock", "Right.")});
    EXPECT_EQ(encodedRecord(report, JsonStyle::compact),
              R"({"findings":[{"point":"clock","state":"ok","what":"Right."}],"isWell":true})");
}

}  // namespace
}  // namespace brindle::console

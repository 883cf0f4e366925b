#include "records/JsonNumber.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace brindle {
namespace {

TEST(JsonNumberTests, HasTheGrammarOfTheStandard) {
    for (const std::string_view number : {"0", "-0", "7", "-12", "0.5", "-0.0", "10.25", "1e5", "1E+5",
                                          "0e-0", "1.5e-300", "123456789012345678901234567890"}) {
        EXPECT_TRUE(isJsonNumber(number)) << number;
    }
    for (const std::string_view text : {"", "-", "+1", "01", "-01", "1.", ".5", "1e", "1e+", "1.e5", "--1",
                                        "1.5.5", "1-2", "1e5e5", "0x10", "1 "}) {
        EXPECT_FALSE(isJsonNumber(text)) << text;
    }
}

TEST(JsonNumberTests, IsWholeHoweverItIsWritten) {
    for (const std::string_view number : {"300", "300.0", "3e2", "3E+2", "0.3e3", "30000e-2", "30000.000e-2",
                                          "0.00000000000000000000000000000003e34"}) {
        EXPECT_EQ(wholeNumber(number), 300) << number;
        EXPECT_EQ(wholeNumber("-" + std::string(number)), -300) << number;
    }
    for (const std::string_view number :
         {"0", "-0", "0.000", "-0.0e5", "0e999999999999", "0E-999999999999"}) {
        EXPECT_EQ(wholeNumber(number), 0) << number;
    }
}

TEST(JsonNumberTests, FractionsAreNotWhole) {
    for (const std::string_view number : {"0.5", "3.14", "-1e-1", "305e-2", "1e-300", "2251799813685249.5"}) {
        EXPECT_EQ(wholeNumber(number), std::nullopt) << number;
    }
}

TEST(JsonNumberTests, FitsOrIsNothing) {
    using Limits = std::numeric_limits<std::int64_t>;
    EXPECT_EQ(wholeNumber("9223372036854775807"), Limits::max());
    for (const std::string_view number : {"-9223372036854775808", "-9.223372036854775808e18"}) {
        EXPECT_EQ(wholeNumber(number), Limits::min()) << number;
    }
    EXPECT_EQ(wholeNumber("1e18"), 1'000'000'000'000'000'000);
    for (const std::string_view number : {"9223372036854775808", "-9223372036854775809", "1e19", "1e400",
                                          "1e99999999999", "123456789012345678901234567890"}) {
        EXPECT_EQ(wholeNumber(number), std::nullopt) << number;
    }
}

}  // namespace
}  // namespace brindle

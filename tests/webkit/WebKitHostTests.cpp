#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "support/EnginePage.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

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

}  // namespace
}  // namespace brindle::test

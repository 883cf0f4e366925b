#include "exchange/RecordIdentifiers.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int restarts = 50;

class RecordIdentifiersTests : public testing::Test {
  protected:
    void leave(const std::string& name) { test::writeFileAtomically(home_.path() / name, "{}"); }
    RecordIdentifiers identifiers() { return {files_, home_.path().string()}; }

    test::TemporaryDirectory home_;
    test::FaultInjectingFileManager files_;
};

TEST_F(RecordIdentifiersTests, FirstIsGreaterThanEveryNameThatWaits) {
    leave("7B29FC40-CA47-4067-B31D-00DD010662DA.json");
    leave("8B29FC40-CA47-4067-B31D-00DD010662DA.json");
    leave("0B29FC40-CA47-4067-B31D-00DD010662DA.json");
    EXPECT_GT(identifiers().next(), "8B29FC40-CA47-4067-B31D-00DD010662DA");
}

TEST_F(RecordIdentifiersTests, OrderSurvivesRestarts) {
    std::string previous;
    for (int i = 0; i < restarts; ++i) {
        const auto identifier = identifiers().next();
        ASSERT_GT(identifier, previous);
        leave(identifier + ".json");
        previous = identifier;
    }
}

TEST_F(RecordIdentifiersTests, WorkersOwnEndingOfANameDoesNotHideTheIdentifier) {
    leave("8B29FC40-CA47-4067-B31D-00DD010662DA-echo-1.json");
    EXPECT_GT(identifiers().next(), "8B29FC40-CA47-4067-B31D-00DD010662DA");
}

TEST_F(RecordIdentifiersTests, OtherNamesThatWaitDoNotMatter) {
    for (const auto* name :
         {"m1.json", "zzz.json", "8b29fc40-ca47-4067-b31d-00dd010662da.json",
          "8B29FC40-CA47-1067-B31D-00DD010662DA.json", "8B29FC40-CA47-4067-B31D-00DD010662DA.txt",
          ".8B29FC40-CA47-4067-B31D-00DD010662DA.json"}) {
        leave(name);
    }
    EXPECT_LT(identifiers().next(), "4");
}

TEST_F(RecordIdentifiersTests, NameAtTheVeryEndDoesNotSpoilTheOrderOfTheOthers) {
    leave("FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF.json");
    leave("8B29FC40-CA47-4067-B31D-00DD010662DA.json");
    const auto identifier = identifiers().next();
    EXPECT_GT(identifier, "8B29FC40-CA47-4067-B31D-00DD010662DA");
    EXPECT_LT(identifier, "9");
}

TEST_F(RecordIdentifiersTests, DirectoryIsListedOnceAndNotBeforeTheFirstIsNeeded) {
    files_.set({.operation = 100, .code = EIO});
    auto identifiers = this->identifiers();
    EXPECT_THAT(files_.operations(), IsEmpty());
    identifiers.next();
    identifiers.next();
    EXPECT_THAT(files_.operations(),
                ElementsAre("list " + home_.path().string(), "list on " + home_.path().string()));
}

TEST_F(RecordIdentifiersTests, DirectoryThatCannotBeListedCostsNoIdentifierAndIsListedAgain) {
    leave("8B29FC40-CA47-4067-B31D-00DD010662DA.json");
    files_.set({.operation = 1, .code = EMFILE});
    auto identifiers = this->identifiers();
    EXPECT_LT(identifiers.next(), "4");
    EXPECT_GT(identifiers.next(), "8B29FC40-CA47-4067-B31D-00DD010662DA");
}

}  // namespace
}  // namespace brindle

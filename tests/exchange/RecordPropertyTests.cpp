#include <gtest/gtest.h>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeRecords.h"
#include "support/GeneratedRecords.h"
#include "support/Json.h"

namespace brindle {
namespace {

constexpr int records_of_a_type = 1000;
constexpr std::uint64_t first_seed = 20261122;

/// What holds for every record, shown on a thousand of each type.
template <class T>
class RecordPropertyTests : public testing::Test {
  protected:
    /// Calls `check` with generated records; a failure shows the record's document.
    template <class Check>
    void forRecords(const Check& check) {
        test::Seed seed(first_seed);
        for (int i = 0; i < records_of_a_type && !HasFailure(); ++i) {
            const auto value = test::generated<T>(seed);
            SCOPED_TRACE("record " + std::to_string(i) + ": " + encodedRecord(value, JsonStyle::compact));
            check(value);
        }
    }
};

using AllRecords =
    testing::Types<BridgeEnvelope, ManagedWhatsAppWorkerStatusRecord, ManagedWhatsAppWorkerControlRecord,
                   ManagedWhatsAppOutboundRecord, ManagedWhatsAppWorkerInboundRecord,
                   ManagedWhatsAppInboundRecord, ManagedWhatsAppRuntimeStatusRecord>;
TYPED_TEST_SUITE(RecordPropertyTests, AllRecords);

TYPED_TEST(RecordPropertyTests, WhatWasWrittenIsReadBackWhole) {
    this->forRecords([](const TypeParam& value) {
        for (const auto style : {JsonStyle::compact, JsonStyle::pretty}) {
            EXPECT_TRUE(test::areSame(decodedRecord<TypeParam>(encodedRecord(value, style)), value));
        }
    });
}

TYPED_TEST(RecordPropertyTests, EqualRecordsHaveOneDocument) {
    this->forRecords([](const TypeParam& value) {
        const auto document = encodedRecord(value, JsonStyle::compact);
        const auto readAnyOrder = decodedRecord<TypeParam>(encodedRecord(value, JsonStyle::pretty));
        EXPECT_EQ(encodedRecord(readAnyOrder, JsonStyle::compact), document);
    });
}

TYPED_TEST(RecordPropertyTests, AnotherWritersDocumentIsReadAlike) {
    this->forRecords([](const TypeParam& value) {
        const auto rewritten = test::Json::parse(encodedRecord(value, JsonStyle::compact)).dump(4);
        EXPECT_TRUE(test::areSame(decodedRecord<TypeParam>(rewritten), value));
    });
}

TYPED_TEST(RecordPropertyTests, NoDocumentThatIsCutShortIsRead) {
    test::Seed seed(first_seed);
    for (int i = 0; i < 20; ++i) {
        const auto document = encodedRecord(test::generated<TypeParam>(seed), JsonStyle::compact);
        for (std::size_t length = 0; length < document.size(); ++length) {
            EXPECT_THROW(decodedRecord<TypeParam>(document.substr(0, length)), DecodingFailure) << document;
        }
    }
}

TEST(GeneratedRecordTests, DifferFromEachOther) {
    test::Seed seed(first_seed);
    const auto one = test::generated<ManagedWhatsAppOutboundRecord>(seed);
    const auto other = test::generated<ManagedWhatsAppOutboundRecord>(seed);
    EXPECT_FALSE(test::areSame(one, other));
    EXPECT_TRUE(test::areSame(one, one));
}

}  // namespace
}  // namespace brindle

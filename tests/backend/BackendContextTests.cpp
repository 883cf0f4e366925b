#include "backend/BackendContext.h"

#include <gtest/gtest.h>

#include "support/BackendParts.h"

namespace brindle {
namespace {

TEST(BackendContextTests, LogsOnePrefixedLine) {
    test::BackendParts parts;
    parts.context.log("something happened");
    EXPECT_EQ(parts.streams.text().error, "[ManagedWhatsAppBackend] something happened\n");
}

TEST(BackendContextTests, LogsTextOfSeveralLinesOnOne) {
    test::BackendParts parts;
    parts.context.log("a\nb");
    EXPECT_EQ(parts.streams.text().error, "[ManagedWhatsAppBackend] a?b\n");
}

}  // namespace
}  // namespace brindle

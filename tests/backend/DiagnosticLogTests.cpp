#include "backend/DiagnosticLog.h"

#include <gtest/gtest.h>

#include "support/BackendParts.h"

namespace brindle {
namespace {

TEST(DiagnosticLogTests, LogsOnePrefixedLine) {
    test::BackendParts parts;
    parts.log.write("something happened");
    EXPECT_EQ(parts.streams.text().error, "[ManagedWhatsAppBackend] something happened\n");
}

TEST(DiagnosticLogTests, LogsTextOfSeveralLinesOnOne) {
    test::BackendParts parts;
    parts.log.write("a\nb");
    EXPECT_EQ(parts.streams.text().error, "[ManagedWhatsAppBackend] a?b\n");
}

}  // namespace
}  // namespace brindle

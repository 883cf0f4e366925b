#pragma once

#include <gtest/gtest.h>

namespace brindle::test {

/// Every test that drives a web worker; skipped where the engine cannot be run.
class WebWorkerTest : public testing::Test {
  protected:
    void SetUp() override;
};

}  // namespace brindle::test

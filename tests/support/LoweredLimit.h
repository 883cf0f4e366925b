#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace brindle::test {

/// Sets a limit of this process for as long as it lives.
class LoweredLimit {
  public:
    LoweredLimit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
        ::getrlimit(resource, &original_);
        rlimit lowered = original_;
        lowered.rlim_cur = value;
        EXPECT_EQ(::setrlimit(resource, &lowered), 0);
    }
    LoweredLimit(const LoweredLimit&) = delete;
    LoweredLimit& operator=(const LoweredLimit&) = delete;
    ~LoweredLimit() { ::setrlimit(resource_, &original_); }

  private:
    __rlimit_resource resource_;
    rlimit original_{};
};

}  // namespace brindle::test

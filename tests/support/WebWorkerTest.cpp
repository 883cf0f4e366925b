#include "support/WebWorkerTest.h"

#include "support/Sanitizers.h"

namespace brindle::test {

void WebWorkerTest::SetUp() {
    if (sanitizerOfExecutables() == Sanitizer::thread) GTEST_SKIP() << engine_is_not_instrumented;
}

}  // namespace brindle::test

#include "support/Sanitizers.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace brindle::test {
namespace {

#if defined(__SANITIZE_THREAD__)
constexpr Sanitizer own_sanitizer = Sanitizer::thread;
#elif defined(__SANITIZE_ADDRESS__)
constexpr Sanitizer own_sanitizer = Sanitizer::address;
#else
constexpr Sanitizer own_sanitizer = Sanitizer::none;
#endif

}  // namespace

Sanitizer sanitizerOfExecutables() {
    const char* given = std::getenv("BRINDLE_TEST_SANITIZER");
    if (given == nullptr || *given == '\0') return own_sanitizer;
    const std::string name = given;
    if (name == "address") return Sanitizer::address;
    if (name == "thread") return Sanitizer::thread;
    throw std::runtime_error("BRINDLE_TEST_SANITIZER is neither \"address\" nor \"thread\".");
}

}  // namespace brindle::test

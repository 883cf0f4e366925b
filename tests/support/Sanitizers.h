#pragma once

namespace brindle::test {

enum class Sanitizer { none, address, thread };

/// What the executables under test were built with: $BRINDLE_TEST_SANITIZER ("address" or "thread"), because
/// the driver need not be built the same way; without it what the driver was built with.
Sanitizer sanitizerOfExecutables();

// Why a test does not run under a sanitizer.

constexpr const char* engine_is_not_instrumented =
    "Skipped under ThreadSanitizer: the engine is not instrumented, so every hand-over between its threads would be reported.";
constexpr const char* memory_is_kept =
    "Skipped under a sanitizer: it keeps freed memory to catch its use, so the resident memory says nothing.";
constexpr const char* descriptors_are_needed = "Skipped under a sanitizer: it needs descriptors of its own.";
constexpr const char* files_are_written = "Skipped under ThreadSanitizer: it writes files of its own.";
constexpr const char* large_messages_take_long =
    "Skipped under ThreadSanitizer: a message of 64 MiB takes it most of a minute.";

}  // namespace brindle::test

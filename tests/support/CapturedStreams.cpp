#include "support/CapturedStreams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace brindle::test {
namespace {

/// A sanitizer's report must not end up among what is kept.
void sendSanitizerReportsTo([[maybe_unused]] int descriptor) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
#endif
}

Descriptor memoryFile(const char* name) {
    Descriptor file(::memfd_create(name, MFD_CLOEXEC));
    // Several writers through duplicates of the descriptor: each write goes to the end.
    if (!file.isOpen() || ::fcntl(file.get(), F_SETFL, O_APPEND) != 0) {
        throw std::runtime_error("Cannot make a file in memory.");
    }
    return file;
}

Descriptor replaced(int number, const Descriptor& by) {
    Descriptor original(::fcntl(number, F_DUPFD_CLOEXEC, 0));
    if (!original.isOpen() || ::dup2(by.get(), number) < 0) {
        throw std::runtime_error("Cannot replace a standard stream.");
    }
    return original;
}

std::string content(const Descriptor& file) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return {};
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const auto got = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return text;
}

}  // namespace

CapturedStreams::CapturedStreams() : output_(memoryFile("output")), error_(memoryFile("error")) {
    std::fflush(nullptr);
    realOutput_ = replaced(STDOUT_FILENO, output_);
    realError_ = replaced(STDERR_FILENO, error_);
    sendSanitizerReportsTo(realError_.get());
}

CapturedStreams::~CapturedStreams() {
    if (!realOutput_.isOpen()) return;
    restore();
    const auto text = peek();
    if (testing::Test::HasFailure()) std::cout << text.output << text.error << std::flush;
}

CapturedStreams::Text CapturedStreams::take() {
    restore();
    return peek();
}

CapturedStreams::Text CapturedStreams::peek() const {
    return {.output = content(output_), .error = content(error_)};
}

void CapturedStreams::restore() {
    std::fflush(nullptr);
    ::dup2(realOutput_.get(), STDOUT_FILENO);
    ::dup2(realError_.get(), STDERR_FILENO);
    sendSanitizerReportsTo(STDERR_FILENO);
    realOutput_.reset();
    realError_.reset();
}

}  // namespace brindle::test

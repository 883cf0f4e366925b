#include "support/MemoryStreams.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace brindle::test {
namespace {

Descriptor memoryFile(const char* name) {
    Descriptor file(::memfd_create(name, MFD_CLOEXEC));
    if (!file.isOpen()) throw std::runtime_error("Cannot make a file in memory.");
    return file;
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

MemoryStreams::MemoryStreams() : output_(memoryFile("output")), error_(memoryFile("error")) {}

MemoryStreams::Text MemoryStreams::text() const {
    return {.output = content(output_), .error = content(error_)};
}

}  // namespace brindle::test

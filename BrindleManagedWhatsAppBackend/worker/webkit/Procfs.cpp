#include "worker/webkit/Procfs.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "system/Descriptor.h"

namespace brindle {
namespace {

/// What the whole machine has swapped out.
std::uint64_t swappedBytes() {
    struct sysinfo machine {};
    if (::sysinfo(&machine) != 0) return std::numeric_limits<std::uint32_t>::max();
    return std::uint64_t{machine.totalswap - machine.freeswap} * machine.mem_unit;
}

/// All that the process has in main memory: the second word of the file, in pages.
std::uint64_t residentBytes(pid_t process) {
    const std::string sizes = procfsText(procfsFolder(process) + "statm");
    const auto space = sizes.find(' ');
    if (space == std::string::npos) return 0;
    return std::strtoull(sizes.c_str() + space, nullptr, 10) *
           static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

std::string procfsFolder(pid_t process) {
    return "/proc/" + std::to_string(process) + "/";
}

std::string procfsText(const std::string& path, int directory) {
    const Descriptor file(::openat(directory, path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t size = 0; (size = ::read(file.get(), piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(size));
    return text;
}

std::uint64_t ownBytes(pid_t process) {
    constexpr std::uint64_t kibibyte = 1024;
    const std::string status = procfsText(procfsFolder(process) + "status");
    std::uint64_t sum = 0;
    for (const std::string_view part : {"\nRssAnon:", "\nRssShmem:", "\nVmSwap:"}) {
        const auto found = status.find(part);
        if (found == std::string::npos) continue;
        sum += std::strtoull(status.c_str() + found + part.size(), nullptr, 10) * kibibyte;
    }
    return sum;
}

bool hasMoreOwnBytesThan(std::uint64_t limit, pid_t process) {
    // Nothing can be its own but what it has in main memory and a part of what was swapped out.
    return residentBytes(process) + swappedBytes() > limit && ownBytes(process) > limit;
}

}  // namespace brindle

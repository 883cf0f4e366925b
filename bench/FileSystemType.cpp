#include "FileSystemType.h"

#include <sstream>

namespace brindle::bench {
namespace {

bool isBelow(const std::string& path, const std::string& mountPoint) {
    return mountPoint == "/" || path == mountPoint || path.starts_with(mountPoint + "/");
}

}  // namespace

std::string fileSystemOf(const std::string& path, std::string_view mountInfo) {
    std::istringstream lines{std::string(mountInfo)};
    std::string best;
    std::string type;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string skipped;
        std::string mountPoint;
        for (int field = 0; field < 4; ++field) fields >> skipped;
        fields >> mountPoint;
        // Optional fields end with a dash; the type stands behind it. A later mount covers an earlier one.
        while (fields >> skipped && skipped != "-") {
        }
        if (!isBelow(path, mountPoint) || mountPoint.size() < best.size()) continue;
        best = mountPoint;
        fields >> type;
    }
    return type.empty() ? "unknown" : type;
}

}  // namespace brindle::bench

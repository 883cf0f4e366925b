#include "system/FileSystemFailure.h"

#include <string>
#include <system_error>

#include "text/Text.h"

namespace brindle {
namespace {

std::string describe(std::string_view action, std::string_view path, std::string_view reason) {
    std::string text = "Cannot ";
    text.append(action).append(" \"").append(singleLine(path)).append("\": ").append(reason).append(".");
    return text;
}

}  // namespace

FileSystemFailure::FileSystemFailure(std::string_view action, std::string_view path, int code)
    : FileSystemFailure(action, path, std::generic_category().message(code), code) {}

FileSystemFailure::FileSystemFailure(std::string_view action, std::string_view path, std::string_view reason,
                                     int code)
    : Failure(describe(action, path, reason)), code_(code) {}

}  // namespace brindle

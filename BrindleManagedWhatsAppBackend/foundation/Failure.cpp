#include "foundation/Failure.h"

#include <new>
#include <system_error>

#include "foundation/Text.h"

namespace brindle {
namespace {

std::string describeDecoding(DecodingFailure::Kind kind, std::string_view path) {
    const bool missing =
        kind == DecodingFailure::Kind::missingKey || kind == DecodingFailure::Kind::missingValue;
    std::string text = missing
                           ? "The data cannot be used because a required value is missing"
                           : "The data cannot be used because it is corrupt or has a value of the wrong type";
    if (!path.empty()) text.append(" (at ").append(path).append(")");
    return text.append(".");
}

std::string describeFileSystem(std::string_view action, std::string_view path, std::string_view reason) {
    std::string text = "Cannot ";
    text.append(action).append(" \"").append(singleLine(path)).append("\": ").append(reason).append(".");
    return text;
}

}  // namespace

DecodingFailure::DecodingFailure(Kind kind, std::string_view path, std::string detail)
    : Failure(describeDecoding(kind, path)), kind_(kind), detail_(std::move(detail)) {}

FileSystemFailure::FileSystemFailure(std::string_view action, std::string_view path, int code)
    : FileSystemFailure(action, path, std::generic_category().message(code), code) {}

FileSystemFailure::FileSystemFailure(std::string_view action, std::string_view path, std::string_view reason,
                                     int code)
    : Failure(describeFileSystem(action, path, reason)), code_(code) {}

std::string descriptionOf(const std::exception& error) {
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return "There is not enough memory.";
    return error.what();
}

}  // namespace brindle

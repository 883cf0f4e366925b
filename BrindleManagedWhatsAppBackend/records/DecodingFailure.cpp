#include "records/DecodingFailure.h"

#include <utility>

namespace brindle {
namespace {

std::string describe(DecodingFailure::Kind kind, std::string_view path) {
    const bool missing =
        kind == DecodingFailure::Kind::missingKey || kind == DecodingFailure::Kind::missingValue;
    std::string text = missing
                           ? "The data cannot be used because a required value is missing"
                           : "The data cannot be used because it is corrupt or has a value of the wrong type";
    if (!path.empty()) text.append(" (at ").append(path).append(")");
    return text.append(".");
}

}  // namespace

DecodingFailure::DecodingFailure(Kind kind, std::string_view path, std::string detail)
    : Failure(describe(kind, path)), kind_(kind), detail_(std::move(detail)) {}

}  // namespace brindle

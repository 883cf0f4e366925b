#include "records/DecodingFailure.h"

#include <utility>

namespace brindle {
namespace {

std::string describe(std::string_view problem, std::string_view path) {
    auto text = std::string("The data cannot be used because ").append(problem);
    if (!path.empty()) text.append(" (at ").append(path).append(")");
    return text.append(".");
}

}  // namespace

DecodingFailure::DecodingFailure(Kind kind, std::string_view problem, std::string_view path,
                                 std::string detail)
    : Failure(describe(problem, path)), kind_(kind), detail_(std::move(detail)) {}

}  // namespace brindle

#include "records/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace brindle {

std::string typeName(const std::type_info& type) {
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr), &std::free);
    const std::string_view whole = name ? name.get() : type.name();
    const auto qualifier = whole.rfind("::");
    return std::string(qualifier == std::string_view::npos ? whole : whole.substr(qualifier + 2));
}

}  // namespace brindle

#pragma once

#include <string>
#include <typeinfo>

namespace brindle {

/// The type's name as its declaration has it, without the namespaces around it.
std::string typeName(const std::type_info& type);

template <class T>
std::string typeName() {
    return typeName(typeid(T));
}

}  // namespace brindle

#include "text/Failure.h"

#include <new>

namespace brindle {

std::string descriptionOf(const std::exception& error) {
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return "There is not enough memory.";
    return error.what();
}

}  // namespace brindle

#include "text/Identifier.h"

#include <uuid/uuid.h>

#include <array>

namespace brindle {

std::string randomIdentifier() {
    uuid_t bytes;
    uuid_generate_random(bytes);
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_upper(bytes, text.data());
    return std::string(text.data());
}

}  // namespace brindle

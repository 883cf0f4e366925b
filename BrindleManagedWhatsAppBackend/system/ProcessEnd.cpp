#include "system/ProcessEnd.h"

#include <string.h>

namespace brindle {
namespace {

std::string signalDescription(int number) {
    const char* name = ::sigdescr_np(number);
    return std::to_string(number) + " (" + (name != nullptr ? name : "unknown") + ")";
}

}  // namespace

std::string ProcessEnd::description() const {
    switch (cause) {
        case Cause::exit:
            return "ended with exit status " + std::to_string(number);
        case Cause::signal:
            return "was ended by signal " + signalDescription(number);
        case Cause::unknown:
            break;
    }
    return "ended with a status that the system has forgotten";
}

}  // namespace brindle

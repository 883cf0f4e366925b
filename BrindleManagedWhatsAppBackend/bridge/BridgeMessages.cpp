#include "bridge/BridgeMessages.h"

namespace brindle {

std::string encodedLine(const BridgeEnvelope& envelope) {
    std::string line = encodedRecord(envelope, JsonStyle::compact);
    line += '\n';
    return line;
}

}  // namespace brindle

#include "bridge/BridgeMessages.h"

namespace brindle {

std::string encodedLine(const BridgeEnvelope& envelope) {
    return encodedRecord(envelope, JsonStyle::compact).append("\n");
}

}  // namespace brindle

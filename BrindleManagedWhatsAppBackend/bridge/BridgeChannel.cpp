#include "bridge/BridgeChannel.h"

#include <unistd.h>

#include "text/Text.h"

namespace brindle {

BridgeChannel::BridgeChannel(const BridgeStreams& streams)
    : lines_(streams.input, streams.endRequest), emitter_(streams.output, streams.error, departureWatch_) {
    departureWatch_.addSign(streams.input, false);
    departureWatch_.addParent(::getppid());
    if (streams.endRequest >= 0) departureWatch_.addSign(streams.endRequest, true);
}

bool BridgeChannel::waitForRequest() {
    while (const auto line = lines_.next()) {
        request_ = lines_.writable(trimmed(*line));
        if (!request_.empty()) return true;
    }
    return false;
}

BridgeEnvelope BridgeChannel::takeRequest() {
    // A parser keeps the memory of the largest text it has seen, so a large one gets a parser of its own; the
    // reader gives back its buffer likewise.
    if (request_.size() > LineReader::kept_buffer_bytes) {
        return decodedRecord<BridgeEnvelope>(JsonParser().parseInPlace(request_));
    }
    return decodedRecord<BridgeEnvelope>(parser_.parseInPlace(request_));
}

}  // namespace brindle

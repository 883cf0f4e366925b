#pragma once

#include <span>

#include "bridge/BridgeMessages.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "records/JsonParser.h"
#include "system/LineReader.h"
#include "system/OutputStream.h"

namespace brindle {

/// The descriptors through which a backend talks with its parent. They stay their owner's.
struct BridgeStreams {
    int input;
    int output;
    int error;
    /// Ends the input once it is readable; -1 for none.
    int endRequest = -1;
};

/// The backend's side of the conversation with its parent: requests in, envelopes and diagnostics out.
class BridgeChannel {
  public:
    /// The streams' descriptors outlive the channel. Output that nobody reads is given up once the parent has
    /// closed its end of the input, has ended, or the end is requested.
    explicit BridgeChannel(const BridgeStreams& streams);
    BridgeChannel(const BridgeChannel&) = delete;
    BridgeChannel& operator=(const BridgeChannel&) = delete;

    /// Waits for the next request; false at the end of input. Lines without text are passed over.
    bool waitForRequest();
    /// The request that was waited for, once; its long texts are good until the next one is waited for.
    /// Throws DecodingFailure when the line holds none.
    BridgeEnvelope takeRequest();

    /// As ManagedWhatsAppBackendEmitter::emit.
    void emit(const BridgeEnvelope& envelope) { emitter_.emit(envelope); }

    /// The single writer, for those who write from other threads.
    ManagedWhatsAppBackendEmitter& emitter() { return emitter_; }
    /// Tells whether anybody will read what is written.
    DepartureWatch& departureWatch() { return departureWatch_; }

  private:
    LineReader lines_;
    std::span<char> request_;
    JsonParser parser_;
    DepartureWatch departureWatch_;
    ManagedWhatsAppBackendEmitter emitter_;
};

}  // namespace brindle

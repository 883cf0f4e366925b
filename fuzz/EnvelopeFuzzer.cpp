/// Whatever a line holds, decoding it either fails with a one-line description or yields an envelope whose
/// own text decodes to the same text again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "bridge/BridgeMessages.h"
#include "records/DecodingFailure.h"
#include "text/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    try {
        const auto text =
            brindle::encodedLine(brindle::decodedRecord<brindle::BridgeEnvelope>(brindle::trimmed(line)));
        if (text.find('\n') != text.size() - 1) std::abort();
        if (brindle::encodedLine(brindle::decodedRecord<brindle::BridgeEnvelope>(text)) != text) std::abort();
    } catch (const brindle::DecodingFailure& failure) {
        if (brindle::singleLine(failure.what()) != failure.what()) std::abort();
    }
    return 0;
}

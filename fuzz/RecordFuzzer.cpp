/// The readers of all records.
///
/// Whatever a line or a record file holds, reading it either fails with one line of description or yields a
/// record that survives being written and read. The first byte of an input chooses the record.
#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeRecords.h"
#include "fuzz/Promises.h"

namespace {

using namespace brindle;

using Reader = void (*)(std::string_view);

template <class Record>
void read(std::string_view text) {
    fuzz::requireLastingOrRefused([&] { return decodedRecord<Record>(text); });
}

/// A reader for each: '0' is the envelope, the others follow as the list of records has them.
constexpr auto readers = []<std::size_t... place>(std::index_sequence<place...>) {
    return std::array<Reader, sizeof...(place) + 1>{
        read<BridgeEnvelope>, read<std::tuple_element_t<place, DataDirectoryRecords>>...};
}
(std::make_index_sequence<std::tuple_size_v<DataDirectoryRecords>>());

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t choice = data[0] - std::size_t{'0'};
    readers[choice % readers.size()](fuzz::inputText(data + 1, size - 1));
    return 0;
}

#pragma once

#include <optional>
#include <string>

#include "records/JsonParser.h"
#include "records/Record.h"
#include "system/Directory.h"

namespace brindle {

/// Reads record files one after the other, each into the memory of the one before.
class RecordReader {
  public:
    /// A record and the attributes that its file had when it was read.
    template <RecordType Record>
    struct Result {
        Record record;
        FileAttributes attributes;
    };

    /// Reads and decodes a record file. Throws FileSystemFailure or DecodingFailure. Not for records with a
    /// LongText, which would stand in memory that is used again.
    template <RecordType Record>
    Result<Record> read(Directory& directory, const DirectoryEntry& entry) {
        const MemoryReturn memoryReturn(*this);
        const auto attributes = directory.readFile(entry, content_);
        return {.record = decodedRecord<Record>(document()), .attributes = attributes};
    }

  private:
    /// Gives back what a large record has needed.
    class MemoryReturn {
      public:
        explicit MemoryReturn(RecordReader& reader) : reader_(reader) {}
        MemoryReturn(const MemoryReturn&) = delete;
        MemoryReturn& operator=(const MemoryReturn&) = delete;
        ~MemoryReturn() { reader_.returnLargeMemory(); }

      private:
        RecordReader& reader_;
    };

    JsonValue document();
    void returnLargeMemory() noexcept;

    std::string content_;
    std::optional<JsonParser> parser_;
};

}  // namespace brindle

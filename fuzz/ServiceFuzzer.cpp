/// Whatever a parent says, the backend greets it, answers in whole envelopes, logs nothing, keeps every
/// message as a record that can be read, and ends when its input ends.
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "backend/ManagedWhatsAppBackendService.h"
#include "bridge/BridgeChannel.h"
#include "exchange/EnvironmentKeys.h"
#include "exchange/ExchangeRecords.h"
#include "system/Descriptor.h"
#include "text/Text.h"

namespace {

using brindle::BridgeEnvelope;
using brindle::Descriptor;

void require(bool promise) {
    if (!promise) std::abort();
}

/// A data directory that disappears with the object.
class PrivateDirectory {
  public:
    PrivateDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "backend-fuzz-XXXXXX").string();
        require(::mkdtemp(name.data()) != nullptr);
        path_ = name;
    }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;
    ~PrivateDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

Descriptor memoryFileWith(std::string_view content) {
    Descriptor file(::memfd_create("stream", MFD_CLOEXEC));
    require(::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    require(::lseek(file.get(), 0, SEEK_SET) == 0);
    return file;
}

std::string contentOf(const Descriptor& file) {
    struct stat status {};
    require(::fstat(file.get(), &status) == 0);
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    require(::pread(file.get(), content.data(), content.size(), 0) == status.st_size);
    return content;
}

std::vector<BridgeEnvelope> envelopesIn(std::string_view output) {
    std::vector<BridgeEnvelope> envelopes;
    while (!output.empty()) {
        const auto length = output.find('\n');
        require(length != std::string_view::npos);
        envelopes.push_back(brindle::decodedRecord<BridgeEnvelope>(output.substr(0, length)));
        output.remove_prefix(length + 1);
    }
    return envelopes;
}

void requireAnswers(const std::vector<BridgeEnvelope>& envelopes) {
    require(envelopes.size() >= 2);
    require(std::holds_alternative<brindle::BridgeHello>(envelopes[0]));
    require(std::holds_alternative<brindle::BridgeStateChangedEvent>(envelopes[1]));
    for (const auto& envelope : envelopes) {
        const auto* error = std::get_if<brindle::BridgeErrorEvent>(&envelope);
        if (error == nullptr) continue;
        require(!error->message.empty() && brindle::singleLine(error->message) == error->message);
    }
}

void requireReadableRecords(brindle::FileManager& files, const std::filesystem::path& outbound) {
    for (const auto& name : files.visibleEntries(outbound.string())) {
        brindle::readRecord<brindle::ManagedWhatsAppOutboundRecord>(files, (outbound / name).string());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const PrivateDirectory home;
    const auto input = memoryFileWith({reinterpret_cast<const char*>(data), size});
    const auto output = memoryFileWith("");
    const auto error = memoryFileWith("");
    brindle::PosixFileManager files;
    const brindle::SystemClock clock;
    {
        brindle::BridgeChannel channel({.input = input.get(), .output = output.get(), .error = error.get()});
        brindle::ManagedWhatsAppBackendService service(
            "whatsapp",
            {{std::string(brindle::environment_key::data_directory), home.path().string()},
             {std::string(brindle::environment_key::disable_worker), "1"}},
            files, clock, channel, ::getppid());
        service.run();
    }
    require(contentOf(error).empty());
    requireAnswers(envelopesIn(contentOf(output)));
    requireReadableRecords(files, home.path() / "outbound");
    return 0;
}

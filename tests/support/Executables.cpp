#include "support/Executables.h"

#include <cstdlib>

namespace brindle::test {

std::filesystem::path binaryDirectory() {
    const char* given = std::getenv("BRINDLE_TEST_BINARY_DIRECTORY");
    return given != nullptr && *given != '\0' ? given : BINARY_DIRECTORY;
}

std::string backendExecutable() {
    return binaryDirectory() / "BrindleManagedWhatsAppBackend";
}

std::string consoleExecutable() {
    return binaryDirectory() / "BrindleBridgeConsole";
}

std::string nativeWorkerExecutable() {
    return binaryDirectory() / "examples/native-worker/BrindleManagedWhatsAppNativeWorker";
}

std::filesystem::path webHostModule() {
    return binaryDirectory() / "BrindleWebHost.so";
}

}  // namespace brindle::test

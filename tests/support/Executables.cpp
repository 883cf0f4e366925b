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
    return binaryDirectory() / "examples/worker-cpp/BrindleManagedWhatsAppNativeWorker";
}

std::string pythonWorkerExecutable() {
    return SOURCE_DIRECTORY "/examples/worker-python/worker.py";
}

std::vector<SampleParent> sampleParents() {
    return {{"Cpp", binaryDirectory() / "examples/parent-cpp/sample-parent"},
            {"Node", SOURCE_DIRECTORY "/examples/parent-node/parent.mjs"},
            {"Python", SOURCE_DIRECTORY "/examples/parent-python/parent.py"}};
}

std::filesystem::path webHostModule() {
    return binaryDirectory() / "BrindleWebHost.so";
}

}  // namespace brindle::test

#pragma once

#include <filesystem>
#include <string>

namespace brindle::test {

// Where the executables under test lie: in $BRINDLE_TEST_BINARY_DIRECTORY, so that one driver can try those
// of several builds; without it in the build directory of the driver.

std::filesystem::path binaryDirectory();
std::string backendExecutable();
std::string consoleExecutable();
std::string nativeWorkerExecutable();
/// The module through which a web worker shows its page.
std::filesystem::path webHostModule();

}  // namespace brindle::test

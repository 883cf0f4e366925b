#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace brindle::test {

// Where the executables under test lie: in $BRINDLE_TEST_BINARY_DIRECTORY, so that one driver can try those
// of several builds; without it in the build directory of the driver.

std::filesystem::path binaryDirectory();
std::string backendExecutable();
std::string consoleExecutable();
/// The sample native worker in C++, and that in Python.
std::string nativeWorkerExecutable();
std::string pythonWorkerExecutable();
/// A sample parent and the language in which it is written.
struct SampleParent {
    std::string language;
    std::string executable;
};
std::vector<SampleParent> sampleParents();
/// The module through which a web worker shows its page.
std::filesystem::path webHostModule();

}  // namespace brindle::test

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/Environment.h"

namespace brindle::test {

/// A program to be started and what it is to find.
struct Start {
    /// The program's path comes first.
    std::vector<std::string> commandLine;
    Environment environment;
    std::string workingDirectory;  ///< Empty: the one of the test.
    int standardInput = -1;        ///< A descriptor of the test; -1: closed.
    int standardOutput = -1;
    int standardError = -1;
    bool newProcessGroup = true;
};

/// Starts a process with default signal dispositions and an empty mask, as a process of a desktop session
/// starts; fails the test when it cannot be started. The descriptors stay open in the test.
pid_t spawn(const Start& start);

}  // namespace brindle::test

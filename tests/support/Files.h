#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "support/Json.h"

namespace brindle::test {

/// The whole content of a file; fails the test when it cannot be read.
std::string readFile(const std::filesystem::path& file);
/// What a file holds that may come or go at any time; empty when it is not there.
std::string contentOrNothing(const std::filesystem::path& file);
/// The JSON document in a file; fails the test when there is none.
Json readJsonFile(const std::filesystem::path& file);
/// Writes through a hidden temporary file and a rename, so that no reader sees a part of it.
void writeFileAtomically(const std::filesystem::path& file, std::string_view content);
/// Writes an executable file in the same way, and returns its path.
std::filesystem::path writeProgram(const std::filesystem::path& file, std::string_view content);
/// Writes an executable shell script ("#!/bin/sh" is added) and returns its path.
std::filesystem::path writeScript(const std::filesystem::path& file, std::string_view body);
/// Names of the entries of a directory in ascending order, hidden ones included.
std::vector<std::string> namesIn(const std::filesystem::path& directory);
/// The same without hidden ones; none while the directory is not there.
std::vector<std::string> visibleNamesIn(const std::filesystem::path& directory);
/// Takes a directory with all its content away at once, whoever writes there meanwhile.
void makeVanish(const std::filesystem::path& directory);

}  // namespace brindle::test

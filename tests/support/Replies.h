#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/Json.h"

namespace brindle::test {

/// What a fresh backend answers to these lines, seen to be all of it by the self-test that follows them;
/// fails the test unless the backend ends normally afterwards.
std::vector<std::string> repliesTo(const std::vector<std::string>& lines);
/// The same for one line.
std::vector<std::string> repliesToLine(std::string_view line);
/// The same for one envelope.
std::vector<std::string> repliesToEnvelope(const Json& envelope);

/// Expects that each line yields one error and nothing else.
void expectOneErrorEach(const std::vector<std::string>& lines);
void expectOneError(std::string_view line);

}  // namespace brindle::test

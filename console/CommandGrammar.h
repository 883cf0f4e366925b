#pragma once

#include <set>
#include <span>
#include <string>
#include <string_view>

namespace brindle::console {

/// What may come after the words of a line, by the usage of its command (CommandDescription::usage): words
/// that stand for themselves ("within") and those that stand for what somebody puts there ("SECONDS"). None
/// when nothing may come, or when the words do not belong to the usage.
std::set<std::string> expectedNext(std::string_view usage, std::span<const std::string> words);

/// Whether a word of a usage stands for what somebody puts there.
bool isPlaceholder(std::string_view usageWord);

}  // namespace brindle::console

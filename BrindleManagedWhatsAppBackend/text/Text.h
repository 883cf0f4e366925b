#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace brindle {

/// `text` without Unicode white space (property White_Space, line breaks included) at both ends. Bytes that
/// are not UTF-8 count as text.
std::string_view trimmed(std::string_view text);

/// Number of user-perceived characters: extended grapheme clusters (Unicode UAX #29). `text` must be UTF-8.
std::size_t graphemeClusterCount(std::string_view text);

/// Unicode canonical equivalence (UAX #15) without case folding. Texts that are not UTF-8 are equal only byte
/// for byte.
bool canonicallyEquivalent(std::string_view left, std::string_view right);

/// As canonicallyEquivalent, in a time that does not depend on where the texts differ. For secrets.
bool canonicallyEquivalentInConstantTime(std::string_view left, std::string_view right);

/// True when the bytes are well-formed UTF-8 (RFC 3629).
bool isValidUtf8(std::string_view bytes);

/// `bytes` with every invalid UTF-8 sequence replaced by U+FFFD.
std::string repairedUtf8(std::string_view bytes);

/// `text` fit for a one-line diagnostic: valid UTF-8, in which "?" stands for every control character, every
/// break of a line and everything that gives the text behind it a reading direction (UAX #9).
std::string singleLine(std::string_view text);

/// The beginning of a UTF-8 text that is longer than `mostCharacters` Unicode code points, with an ellipsis
/// for the rest; a text that is not is answered whole.
std::string shortened(std::string_view text, std::size_t mostCharacters);

/// `text` in lower case by the mapping that Unicode gives each character by itself, whatever stands around it
/// and whatever the language. Bytes that are not UTF-8 stay.
std::string lowercased(std::string_view text);

/// `text` with the letters A to Z in lower case.
std::string asciiLowercased(std::string_view text);

}  // namespace brindle

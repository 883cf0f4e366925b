#pragma once

#include <string>
#include <vector>

#include "Figure.h"

namespace brindle::bench {

/// A number with about three significant digits and no exponent.
std::string shortNumber(double value);

/// One line for people about a figure: what, where, both values and their ratio.
std::string described(const Figure& figure);

/// A table for people: a row for each figure, with quartiles behind each value.
std::string alignedTable(const std::vector<Figure>& figures);

/// The same for programs: a header line, then a line for each figure; a missing value is empty.
std::string tabSeparated(const std::vector<Figure>& figures);

}  // namespace brindle::bench

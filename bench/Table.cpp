#include "Table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "Statistics.h"

namespace brindle::bench {
namespace {

using Row = std::vector<std::string>;

const Row header{"what", "size", "where", "unit", "floor", "quartiles", "helper", "quartiles", "ratio"};
/// From here on columns hold numbers, which stand on the right; so does the size.
constexpr std::size_t first_number_column = 4;
constexpr std::size_t size_column = 1;

double valueOf(const std::vector<double>& samples, Statistic statistic) {
    const auto summary = summarized(samples);
    return statistic == Statistic::median ? summary.median : summary.percentile99;
}

std::string number(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string valueText(const Figure& figure, const std::vector<double>& samples) {
    return samples.empty() ? "-" : shortNumber(valueOf(samples, figure.statistic));
}

std::string spreadText(const std::vector<double>& samples) {
    if (samples.size() < 2) return "";
    const auto summary = summarized(samples);
    return shortNumber(summary.lowerQuartile) + ".." + shortNumber(summary.upperQuartile);
}

std::string ratioText(const Figure& figure) {
    const auto ratio = ratioOf(figure);
    return ratio ? number(*ratio, 2) : "";
}

std::string sizeText(const Figure& figure) {
    return figure.size ? number(*figure.size, 0) : "";
}

std::string nameOf(const Figure& figure) {
    return figure.statistic == Statistic::median ? figure.name : figure.name + " (99th percentile)";
}

Row rowOf(const Figure& figure) {
    return {nameOf(figure),
            sizeText(figure),
            figure.place,
            figure.unit,
            valueText(figure, figure.floor),
            spreadText(figure.floor),
            valueText(figure, figure.helper),
            spreadText(figure.helper),
            ratioText(figure)};
}

std::vector<std::size_t> widthsOf(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(header.size(), 0);
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    return widths;
}

std::string aligned(const Row& row, const std::vector<std::size_t>& widths) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
        const std::string gap(widths[column] - row[column].size(), ' ');
        const bool isNumber = column >= first_number_column || column == size_column;
        line += (column == 0 ? "" : "  ") + (isNumber ? gap + row[column] : row[column] + gap);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

void appendValues(std::string& line, const Figure& figure, const std::vector<double>& samples) {
    constexpr int decimals = 6;
    if (samples.empty()) {
        line += "\t\t\t\t0";
        return;
    }
    const auto summary = summarized(samples);
    for (const double value :
         {valueOf(samples, figure.statistic), summary.lowerQuartile, summary.upperQuartile})
        line += "\t" + number(value, decimals);
    line += "\t" + std::to_string(summary.count);
}

}  // namespace

std::optional<double> ratioOf(const Figure& figure) {
    const double floor = valueOf(figure.floor, figure.statistic);
    if (figure.helper.empty() || floor <= 0) return std::nullopt;
    return valueOf(figure.helper, figure.statistic) / floor;
}

std::string shortNumber(double value) {
    const double size = std::abs(value);
    if (size >= 100) return number(value, 0);
    if (size >= 10) return number(value, 1);
    if (size >= 1) return number(value, 2);
    return number(value, 3);
}

std::string described(const Figure& figure) {
    std::string text = nameOf(figure);
    if (figure.size) text += " " + sizeText(figure);
    if (!figure.place.empty()) text += " on " + figure.place;
    text += ": helper " + valueText(figure, figure.helper) + " " + figure.unit;
    if (!figure.floor.empty()) text += ", floor " + valueText(figure, figure.floor) + " " + figure.unit;
    if (const auto ratio = ratioText(figure); !ratio.empty()) text += ", ratio " + ratio;
    return text;
}

std::string alignedTable(const std::vector<Figure>& figures) {
    std::vector<Row> rows{header};
    for (const auto& figure : figures) rows.push_back(rowOf(figure));
    const auto widths = widthsOf(rows);
    std::string table;
    for (const auto& row : rows) table += aligned(row, widths);
    return table;
}

std::string tabSeparated(const std::vector<Figure>& figures) {
    std::string text =
        "figure\tplace\tsize\tunit\tfloor\tfloor_q1\tfloor_q3\tfloor_samples"
        "\thelper\thelper_q1\thelper_q3\thelper_samples\tratio\n";
    for (const auto& figure : figures) {
        std::string line =
            nameOf(figure) + "\t" + figure.place + "\t" + sizeText(figure) + "\t" + figure.unit;
        appendValues(line, figure, figure.floor);
        appendValues(line, figure, figure.helper);
        text += line + "\t" + ratioText(figure) + "\n";
    }
    return text;
}

}  // namespace brindle::bench

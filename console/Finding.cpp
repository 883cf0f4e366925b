#include "console/Finding.h"

#include <algorithm>
#include <utility>

#include "console/Columns.h"
#include "console/TerminalColors.h"
#include "console/TerminalText.h"

namespace brindle::console {
namespace {

constexpr std::size_t state_columns = 9;
constexpr std::size_t point_columns = 16;

std::string_view colorOf(std::string_view state) {
    if (state == finding_state::ok) return green_color;
    return state == finding_state::note ? yellow_color : red_color;
}

std::string continuation(std::string_view sentence) {
    return std::string(state_columns + point_columns, ' ') + terminalSafe(sentence) + "\n";
}

std::string findingText(const Finding& finding, bool inColor) {
    std::string text = colored(leftAligned(finding.state, state_columns), colorOf(finding.state), inColor) +
                       leftAligned(finding.point, point_columns) + terminalSafe(finding.what) + "\n";
    if (finding.meaning) text += continuation(*finding.meaning);
    if (finding.remedy) text += continuation("To do: " + *finding.remedy);
    return text;
}

}  // namespace

Finding Finding::ok(std::string_view point, std::string what) {
    return {.point = std::string(point),
            .state = std::string(finding_state::ok),
            .what = std::move(what),
            .meaning = std::nullopt,
            .remedy = std::nullopt};
}

Finding Finding::note(std::string_view point, std::string what, std::string meaning, std::string remedy) {
    return {.point = std::string(point),
            .state = std::string(finding_state::note),
            .what = std::move(what),
            .meaning = std::move(meaning),
            .remedy = std::move(remedy)};
}

Finding Finding::problem(std::string_view point, std::string what, std::string meaning, std::string remedy) {
    auto finding = note(point, std::move(what), std::move(meaning), std::move(remedy));
    finding.state = finding_state::problem;
    return finding;
}

FindingReport::FindingReport(Findings all) : findings(std::move(all)) {
    isWell = std::none_of(findings.begin(), findings.end(),
                          [](const Finding& each) { return each.state == finding_state::problem; });
}

std::string reportText(const FindingReport& report, bool inColor) {
    std::string text;
    for (const auto& finding : report.findings) text += findingText(finding, inColor);
    const auto problems =
        std::count_if(report.findings.begin(), report.findings.end(),
                      [](const Finding& each) { return each.state == finding_state::problem; });
    if (problems == 0) return text + "All is well.\n";
    return text + std::to_string(problems) + (problems == 1 ? " problem.\n" : " problems.\n");
}

}  // namespace brindle::console

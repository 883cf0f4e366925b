#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/Record.h"

namespace brindle::console {

/// How a finding stands: all is well, worth knowing, or to be mended.
namespace finding_state {

inline constexpr std::string_view ok = "ok";
inline constexpr std::string_view note = "note";
inline constexpr std::string_view problem = "problem";

}  // namespace finding_state

/// What an examination has found at one point.
struct Finding {
    std::string point;
    std::string state;
    std::string what;
    std::optional<std::string> meaning;
    std::optional<std::string> remedy;

    static constexpr auto fields() {
        return std::tuple{
            field("point", &Finding::point, "What was looked at."),
            field("state", &Finding::state, "\"ok\", \"note\" or \"problem\"."),
            field("what", &Finding::what, "What was found: one sentence."),
            field("meaning", &Finding::meaning, "What that means."),
            field("remedy", &Finding::remedy, "What to do."),
        };
    }

    static Finding ok(std::string_view point, std::string what);
    static Finding note(std::string_view point, std::string what, std::string meaning, std::string remedy);
    static Finding problem(std::string_view point, std::string what, std::string meaning, std::string remedy);
};

using Findings = std::vector<Finding>;

/// What an examination as a whole has found.
struct FindingReport {
    Findings findings;
    bool isWell = true;

    static constexpr auto fields() {
        return std::tuple{
            field("findings", &FindingReport::findings, "One for each point."),
            field("isWell", &FindingReport::isWell, "Whether none of them is a problem."),
        };
    }

    explicit FindingReport(Findings all = {});
};

/// The report for people: a line for each point, what it means and what to do below it, and a last line that
/// sums it up. Nothing in it is obeyed by a terminal.
std::string reportText(const FindingReport& report, bool inColor);

}  // namespace brindle::console

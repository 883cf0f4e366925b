#include "console/Tools.h"

#include "console/Inbox.h"
#include "console/TerminalText.h"

namespace brindle::console {
namespace {

/// A file of any content, line by line, without anything that a terminal would obey.
std::string shownLines(std::string_view content) {
    std::string text;
    while (!content.empty()) {
        const auto line = content.substr(0, content.find('\n'));
        text.append(terminalSafe(line)).append("\n");
        content.remove_prefix(std::min(line.size() + 1, content.size()));
    }
    return text;
}

void showRecord(Display& display, const Inbox& inbox, const InboxRecord& record) {
    if (display.isJson()) return display.jsonLine(encodedRecord(record, JsonStyle::compact));
    display.answer(shownLines(inbox.content(record)));
    if (record.reason) display.answer(terminalSafe(*record.reason) + "\n");
}

}  // namespace

bool showReport(Display& display, const FindingReport& report) {
    if (display.isJson()) {
        display.jsonLine(encodedRecord(report, JsonStyle::compact));
    } else {
        display.answer(reportText(report, display.colorsOutput()));
    }
    return report.isWell;
}

void performInbox(Display& display, FileManager& fileManager, const DataDirectory& directory,
                  const InboxCommand& command) {
    const Inbox inbox(fileManager, directory);
    if (command.action == InboxAction::list) {
        const auto listing = inbox.list();
        if (display.isJson()) return display.jsonLine(encodedRecord(listing, JsonStyle::compact));
        return display.answer(inboxText(listing, display.colorsOutput()));
    }
    if (command.action == InboxAction::show) return showRecord(display, inbox, inbox.find(command.name));
    const auto record = inbox.findRejected(command.name);
    inbox.restore(record);
    if (!display.isJson()) display.answer(shownFileName(record.name) + " waits in inbound again.\n");
}

}  // namespace brindle::console

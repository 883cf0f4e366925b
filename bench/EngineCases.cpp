#include <string>

#include "Bench.h"
#include "SamplePage.h"
#include "support/EnginePage.h"
#include "worker/PageScriptRunner.h"
#include "worker/PageScripts.h"

namespace brindle::bench {
namespace {

/// What the capture script looks through.
const std::string candidates =
    "div.message-in, div[data-testid=\"msg-in\"], div[data-testid=\"msg-container\"], [data-id]";

/// Milliseconds that the page takes for one change and what follows it at once. The observers of a change
/// run before what awaits something settled goes on.
double changeMilliseconds(test::EnginePage& page, ChangedPart part, const std::string& afterwards,
                          int changes) {
    page.evaluate("(() => {" + changeScript(part) +
                  "window.benchTime = null;\n"
                  "(async () => {\n"
                  "    let found = 0;\n"
                  "    const begin = performance.now();\n"
                  "    for (let number = 0; number < " +
                  std::to_string(changes) + "; ++number) { change(number); await null; " + afterwards +
                  " }\n"
                  "    window.benchTime = performance.now() - begin;\n"
                  "})();\n"
                  "})()");
    page.waitUntil("window.benchTime !== null");
    const auto time = page.evaluate("String(window.benchTime)");
    return std::stod(time.value()) / changes;
}

void measureScanOf(Bench& bench, test::EnginePage& page, int messages) {
    const SamplePage sample(conversationScript(messages), messages);
    const std::string query = "found += document.querySelectorAll('" + candidates + "').length;";
    Figure message{
        .name = "capture scan, a message changed", .size = static_cast<double>(messages), .unit = "ms"};
    auto list = message;
    list.name = "capture scan, the chat list changed";
    for (int round = 0; round < bench.inFull(5, 1); ++round) {
        page.loadAddress(sample.url());
        page.waitUntil("window.benchIsReady === true");
        // Nobody observes the page yet. The page's clock counts whole milliseconds, so this takes many.
        const int queries = bench.inFull(3000, 300);
        message.floor.push_back(changeMilliseconds(page, ChangedPart::message, query, queries));
        list.floor.push_back(changeMilliseconds(page, ChangedPart::chatList, query, queries));
        page.evaluate(scriptWithWatchedTitle(page_script::inbound_capture, bench_chat));
        const int scans = bench.inFull(1000, 10);
        message.helper.push_back(changeMilliseconds(page, ChangedPart::message, "", scans));
        list.helper.push_back(changeMilliseconds(page, ChangedPart::chatList, "", scans));
    }
    bench.add(std::move(message));
    bench.add(std::move(list));
}

}  // namespace

void measureCaptureScan(Bench& bench) {
    bench.announce("capture scan");
    test::EnginePage page;
    if (bench.isSmoke()) return measureScanOf(bench, page, 50);
    for (const int messages : {50, 100, 300, 1000, 3000}) measureScanOf(bench, page, messages);
}

}  // namespace brindle::bench

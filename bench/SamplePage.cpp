#include "SamplePage.h"

#include <filesystem>
#include <map>
#include <utility>

#include "support/DrivenPage.h"
#include "support/Files.h"

namespace brindle::bench {
namespace {

namespace fs = std::filesystem;

const fs::path sample_directory = fs::path(SOURCE_DIRECTORY) / "examples" / "web-client";

}  // namespace

SamplePage::SamplePage(std::string script, int renderedMessages)
    : script_(std::move(script)),
      renderedMessages_(renderedMessages),
      server_([this](const auto& request) { return answer(request); }) {}

std::string SamplePage::url() const {
    return server_.url("/index.html?loading=0&scan=0&renew=3600&traffic=none&rendered=" +
                       std::to_string(renderedMessages_));
}

test::LoopbackServer::Response SamplePage::answer(const test::LoopbackServer::Request& request) const {
    const std::map<std::string, std::string> types{
        {".html", "text/html; charset=utf-8"}, {".css", "text/css"}, {".js", "text/javascript"}};
    const fs::path file = sample_directory / request.path.substr(1, request.path.find('?') - 1);
    const auto type = types.find(file.extension());
    if (type == types.end() || !fs::is_regular_file(file)) return {.status = "404 Not Found"};
    auto body = test::readFile(file);
    if (type->first == ".html") {
        body += R"html(<script>
(function begin() {
    if (sampleWebClient.state().phase !== "chats") { return void setTimeout(begin, 10); }
)html" + script_ +
                "\n    window.benchIsReady = true;\n}());\n</script>";
    }
    return {.body = std::move(body), .type = type->second};
}

std::string conversationScript(int messages) {
    const auto title = test::scriptString(bench_chat);
    return "for (let i = 0; i < " + std::to_string(messages) +
           "; ++i) {\n"
           "    const text = 'Entry ' + i + ': the van is loaded, all of the banners are in it 🚐';\n"
           "    if (i % 3 === 2) { sampleWebClient.send(" +
           title + ", text); } else { sampleWebClient.receive({ chat: " + title +
           ", sender: i % 3 ? 'Ann Lee' : 'Bo Nilsson', text }); }\n"
           "}\n"
           "sampleWebClient.openChat(" +
           title + ");\n";
}

std::string changeScript(ChangedPart part) {
    // A tick or the time of a message; a preview that says who is writing.
    const std::string place = part == ChangedPart::message ? "#main .message:last-child .meta"
                                                           : "#pane-side li:last-child .chat-preview";
    return "const changed = document.querySelector('" + place +
           "').firstChild;\n"
           "const change = (number) => { changed.data = 'now ' + number; };\n";
}

std::string changingScript(int messages, int changesASecond) {
    constexpr int second_ms = 1000;
    auto script = conversationScript(messages) + changeScript(ChangedPart::message);
    if (changesASecond > 0) {
        script += "let number = 0;\nsetInterval(() => change(++number), " +
                  std::to_string(second_ms / changesASecond) + ");\n";
    }
    return script;
}

}  // namespace brindle::bench

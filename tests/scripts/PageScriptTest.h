#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "records/JsonWriter.h"
#include "support/EnginePage.h"
#include "support/Json.h"
#include "worker/PageScriptRunner.h"
#include "worker/PageScripts.h"

namespace brindle::test {

/// Where the capture script keeps its state in the page.
inline const std::string state_name = "window.__brindleWhatsAppWorkerCaptureState";
/// How a picture of the page begins that is handed out as an address.
inline constexpr std::string_view png_prefix = "data:image/png;base64,";

/// What every test of a page script has: one page in the real engine, shared by the tests of a suite.
class PageScriptTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { engine() = std::make_unique<EnginePage>(); }
    static void TearDownTestSuite() { engine().reset(); }

    static EnginePage& page() { return *engine(); }

    /// Shows a document with this body.
    static void show(const std::string& body, const std::string& head = "<title>The page</title>") {
        page().load("<!doctype html><html><head><meta charset=\"utf-8\">" + head + "</head><body>" + body +
                    "</body></html>");
    }

    /// Runs statements of the test's own in the page; they may return a string.
    static std::optional<std::string> inPage(const std::string& statements) {
        return page().evaluate("(() => {" + statements + "\n})()");
    }
    /// The value of an expression in the page, as JSON.
    static Json valueOf(const std::string& expression) {
        return Json::parse(inPage("return JSON.stringify(" + expression + ");").value());
    }

    /// The text as it is written into a script.
    static std::string literal(std::string_view text) {
        JsonWriter writer(JsonStyle::compact);
        writer.string(text);
        return writer.finish();
    }
    /// What the chat activation script answers.
    static Json activate(std::string_view watchedTitle) {
        return Json::parse(
            page().evaluate(scriptWithWatchedTitle(page_script::chat_activation, watchedTitle)).value());
    }
    /// What the inbound capture script answers.
    static Json capture(std::string_view watchedTitle) {
        return Json::parse(
            page().evaluate(scriptWithWatchedTitle(page_script::inbound_capture, watchedTitle)).value());
    }

    static std::vector<std::string> keysOf(const Json& object) {
        std::vector<std::string> keys;
        for (const auto& [name, value] : object.members()) keys.push_back(name);
        return keys;
    }

  private:
    static std::unique_ptr<EnginePage>& engine() {
        static std::unique_ptr<EnginePage> instance;
        return instance;
    }
};

}  // namespace brindle::test

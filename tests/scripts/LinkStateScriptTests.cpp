#include "scripts/PageScriptTest.h"

#include "support/Json.h"

namespace brindle::test {
namespace {

constexpr const char* linked = R"({"linked":true,"account":"WhatsApp Web"})";
constexpr const char* not_linked = R"({"linked":false,"account":null})";
constexpr const char* side_pane = "<div id=\"side\">Chats</div>";

class LinkStateScript : public PageScriptTest {
  protected:
    static std::string run() { return page().evaluate(std::string(page_script::link_state)).value(); }
};

TEST_F(LinkStateScript, PageWithSidePaneIsLinked) {
    show(side_pane);
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, PageWithoutSidePaneIsNotLinked) {
    show("<p>Loading your chats</p>");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, PageThatAsksToScanIsNotLinked) {
    show("<p>Use WhatsApp on your phone to scan the QR code</p>");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, RequestToScanOutweighsSidePane) {
    show(std::string(side_pane) + "<p>Use WhatsApp on your phone to scan the QR code</p>");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, RequestToScanIsFoundAcrossMarkup) {
    show(std::string(side_pane) +
         "<p>First: <b>Use WhatsApp</b> on your <i>phone</i> to scan the QR code.</p>");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, RequestToScanThatIsNotShownDoesNotCount) {
    show(std::string(side_pane) +
         "<p style=\"display: none\">Use WhatsApp on your phone to scan the QR code</p>");
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, SimilarTextDoesNotCount) {
    show(std::string(side_pane) + "<p>use whatsapp on your phone to scan the qr code</p>");
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, SidePaneWithoutAnyTextIsLinked) {
    show("<div id=\"side\"></div>");
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, EmptyPageIsNotLinked) {
    page().load("");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, PageWhoseBodyHasNotArrivedIsNotLinked) {
    show(side_pane, "<script>window.hadBody = document.body !== null; window.early = " +
                        std::string(page_script::link_state) + ";</script>");
    ASSERT_EQ(valueOf("window.hadBody"), false);
    EXPECT_EQ(valueOf("window.early"), not_linked);
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, PageThatLosesItsBodyIsNotLinked) {
    show(side_pane);
    inPage("document.body.remove();");
    EXPECT_EQ(run(), not_linked);
}

TEST_F(LinkStateScript, AnswerFollowsThePage) {
    show("<p>Use WhatsApp on your phone to scan the QR code</p>");
    EXPECT_EQ(run(), not_linked);
    inPage("document.body.innerHTML = '<div id=\"side\"></div>';");
    EXPECT_EQ(run(), linked);
}

TEST_F(LinkStateScript, LeavesNothingBehind) {
    show(side_pane);
    inPage("window.before = Object.getOwnPropertyNames(window).concat('before');");
    run();
    EXPECT_EQ(valueOf("Object.getOwnPropertyNames(window).filter((name) => !before.includes(name))"),
              Json::array());
}

}  // namespace
}  // namespace brindle::test

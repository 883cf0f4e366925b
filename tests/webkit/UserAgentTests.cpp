#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/EnginePage.h"
#include "support/LoopbackServer.h"

namespace brindle::test {
namespace {

constexpr const char* user_agent =
    "Mozilla/5.0 (Macintosh; Intel Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/605.1.15";

TEST(UserAgent, IsTheSameForAServiceThatTheEngineKnowsAQuirkFor) {
    // As a proxy the server answers for every host, so nothing leaves the machine.
    const LoopbackServer proxy([](const auto&) { return LoopbackServer::Response{.body = "<body></body>"}; });
    ::setenv("http_proxy", proxy.url().c_str(), 1);
    EnginePage page;
    page.loadAddress("http://web.whatsapp.com/");
    EXPECT_EQ(page.evaluate("location.host"), "web.whatsapp.com");
    EXPECT_EQ(page.evaluate("navigator.userAgent"), user_agent);
    ASSERT_FALSE(proxy.requests().empty());
    EXPECT_THAT(proxy.requests().front().headers, testing::HasSubstr(user_agent));
}

}  // namespace
}  // namespace brindle::test

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/Environment.h"
#include "support/ExitStatus.h"
#include "support/LoopbackServer.h"
#include "support/Processes.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

constexpr const char* page_with_chats = "<body><div id=side></div></body>";

/// What the worker takes from its environment and hands to the engine.
class WebWorkerEnvironment : public WebWorkerTest {};

class WebWorkerProxy : public WebWorkerEnvironment, public testing::WithParamInterface<std::string> {
  protected:
    /// As a proxy it answers for every host, so nothing leaves the machine.
    LoopbackServer proxy_{[](const auto&) { return LoopbackServer::Response{.body = page_with_chats}; }};

    WebWorkerOptions optionsFor(const std::string& address) const {
        auto options = WebWorkerOptions().withUrl(address);
        options.process.environment[GetParam()] = proxy_.url();
        return options;
    }
    bool wasAskedFor(const std::string& path) const {
        const auto requests = proxy_.requests();
        return std::any_of(requests.begin(), requests.end(),
                           [&](const auto& request) { return request.path == path; });
    }
};

class WebWorkerPlainProxy : public WebWorkerProxy {};

TEST_P(WebWorkerPlainProxy, ThatIsNamedIsTheWayToThePage) {
    WebWorkerProcess worker(optionsFor("http://client.invalid/page"));
    worker.waitForState("linked");
    EXPECT_TRUE(wasAskedFor("http://client.invalid/page"));
}

INSTANTIATE_TEST_SUITE_P(EachName, WebWorkerPlainProxy, testing::Values("http_proxy", "HTTP_PROXY"));

class WebWorkerTunnel : public WebWorkerProxy {};

TEST_P(WebWorkerTunnel, ThatIsNamedIsTheWayToASecurePage) {
    WebWorkerProcess worker(optionsFor("https://client.invalid/"));
    worker.waitUntil([&] { return wasAskedFor("client.invalid:443"); }, "the request for a tunnel");
}

INSTANTIATE_TEST_SUITE_P(EachName, WebWorkerTunnel, testing::Values("https_proxy", "HTTPS_PROXY"));

TEST_F(WebWorkerEnvironment, HostsThatNeedNoProxyAreAskedThemselves) {
    const LoopbackServer proxy([](const auto&) { return LoopbackServer::Response{.body = "<body></body>"}; });
    const LoopbackServer server(
        [](const auto&) { return LoopbackServer::Response{.body = page_with_chats}; });
    auto options = WebWorkerOptions().withUrl(server.url());
    options.process.environment["http_proxy"] = proxy.url();
    options.process.environment["no_proxy"] = "127.0.0.1";
    WebWorkerProcess worker(options);
    worker.waitForState("linked");
    EXPECT_THAT(proxy.requests(), testing::IsEmpty());
}

TEST_F(WebWorkerEnvironment, CertificatesThatAreNamedAreKnownWherePagesAreAskedFor) {
    // Whether they are used there is the engine's library for TLS to decide.
    const Environment named{{"SSL_CERT_FILE", "/etc/certificates.pem"},
                            {"SSL_CERT_DIR", "/etc/certificates"}};
    auto options = WebWorkerOptions().withHtml(page_with_chats);
    for (const auto& [name, value] : named) options.process.environment[name] = value;
    WebWorkerProcess worker(options);
    worker.waitForState("linked");
    const auto processes = processesNamed(worker.pid(), network_process_name);
    ASSERT_FALSE(processes.empty());
    const auto environment = environmentOf(processes.front());
    EXPECT_THAT(environment, testing::IsSupersetOf(named));
}

TEST_F(WebWorkerEnvironment, WithoutAHomeDirectoryIsEnough) {
    auto options = WebWorkerOptions().withHtml(page_with_chats);
    options.process.environment.erase("HOME");
    WebWorkerProcess worker(options);
    worker.waitForState("linked");
}

TEST_F(WebWorkerEnvironment, TwoWorkersOfOneUserWorkInTheirDataDirectories) {
    const auto options = WebWorkerOptions().withHtml(page_with_chats);
    auto others = WebWorkerOptions().withHtml(page_with_chats);
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        others.process.environment[name] = options.process.environment.at(name);
    WebWorkerProcess first(options);
    WebWorkerProcess second(others);
    first.waitForState("linked");
    second.waitForState("linked");
    const auto seen = first.journal().size();
    EXPECT_EQ(second.terminate(), exitedWith(0));
    first.waitForMoreStatuses();
    first.waitForState("linked", seen);
}

}  // namespace
}  // namespace brindle::test

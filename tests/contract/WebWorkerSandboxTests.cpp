#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/Environment.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Processes.h"
#include "support/TestDisplay.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"
#include "system/Descriptor.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::SizeIs;

constexpr const char* secret = "do-not-show-me";
constexpr const char* answering_page = "<body><div id=side></div></body>";

/// What a process of the engine may have in its environment: what the worker lets through, what it sets, and
/// what the sandbox adds.
const std::set<std::string>& allowedVariables() {
    static const std::set<std::string> names{
        "HOME", "LOGNAME", "PATH", "USER", "LANG", "LANGUAGE", "LC_ADDRESS", "LC_ALL", "LC_COLLATE",
        "LC_CTYPE", "LC_IDENTIFICATION", "LC_MEASUREMENT", "LC_MESSAGES", "LC_MONETARY", "LC_NAME",
        "LC_NUMERIC", "LC_PAPER", "LC_TELEPHONE", "LC_TIME", "TZ", "DISPLAY", "GDK_BACKEND",
        "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR", "ALL_PROXY", "HTTPS_PROXY", "HTTP_PROXY",
        "NO_PROXY", "all_proxy", "http_proxy", "https_proxy", "no_proxy", "SSL_CERT_DIR", "SSL_CERT_FILE",
        "FONTCONFIG_FILE", "FONTCONFIG_PATH",
        // Set by the worker.
        "NO_AT_BRIDGE", "WEBKIT_A11Y_BUS_ADDRESS", "GSETTINGS_BACKEND", "DBUS_SESSION_BUS_ADDRESS",
        "GST_REGISTRY", "GST_PLUGIN_SYSTEM_PATH_1_0", "MESA_SHADER_CACHE_DISABLE", "GDK_GL", "PULSE_SERVER",
        // The sandbox's working directory.
        "PWD"};
    return names;
}

std::set<std::string> variablesIn(const Environment& environment) {
    std::set<std::string> names;
    for (const auto& [name, value] : environment) names.insert(name);
    return names;
}

/// The page's process, once it answers: only then is everything that it sees in place.
pid_t answeringPage(WebWorkerProcess& worker) {
    worker.waitForState("linked");
    return worker.waitForWebProcess();
}

/// A port at which nobody listens.
std::string freePort() {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw TestFailure("no port is free");
    }
    return std::to_string(ntohs(address.sin_port));
}

/// A parent that passes on all that it has: secrets, and variables by which a developer opens the sandbox.
WebWorkerOptions withCarelessParent() {
    WebWorkerOptions options;
    options.withHtml(answering_page);
    const auto home = options.place->path() / "home";
    auto& environment = options.process.environment;
    environment["MY_API_KEY"] = secret;
    environment["SSH_AUTH_SOCK"] = options.place->path() / "agent";
    environment["GST_DEBUG_FILE"] = home / "media.log";
    environment["GST_PLUGIN_PATH"] = home;
    environment["GST_REGISTRY"] = home / "registry.bin";
    environment["LD_LIBRARY_PATH"] = home;
    environment["PULSE_CLIENTCONFIG"] = home;
    environment["GTK_MODULES"] = "no-such-module";
    environment["SNAP"] = "/";
    environment["WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS"] = "1";
    environment["WEBKIT_ENABLE_DEBUG_PERMISSIONS_IN_SANDBOX"] = "1";
    environment["WEBKIT_INSPECTOR_HTTP_SERVER"] = "127.0.0.1:" + freePort();
    environment["WEBKIT_INSPECTOR_SERVER"] = "127.0.0.1:" + freePort();
    return options;
}

class WebWorkerSandbox : public WebWorkerTest {};

TEST_F(WebWorkerSandbox, ProcessesOfTheEngineSeeNoVariableThatTheyNeedNot) {
    WebWorkerProcess worker(withCarelessParent());
    answeringPage(worker);
    int checked = 0;
    for (const char* name : {web_process_name, network_process_name, "bwrap"}) {
        for (const pid_t process : processesNamed(worker.pid(), name)) {
            const auto environment = environmentOf(process);
            ASSERT_FALSE(environment.empty()) << name;
            EXPECT_THAT(variablesIn(environment), IsSubsetOf(allowedVariables())) << name;
            ++checked;
        }
    }
    EXPECT_GE(checked, 3);
}

TEST_F(WebWorkerSandbox, TheLaunchTokenIsOverwrittenWhereTheWorkerAndItsGuardWereGivenIt) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(answering_page));
    answeringPage(worker);
    const auto token = worker.options().process.launchToken;
    for (const pid_t process : worker.tree()) {
        const auto bytes = readFile("/proc/" + std::to_string(process) + "/environ");
        ASSERT_FALSE(bytes.empty());
        EXPECT_THAT(bytes, Not(HasSubstr(token->value()))) << programOf(process);
        EXPECT_THAT(bytes, Not(HasSubstr(token->file().string()))) << programOf(process);
    }
    EXPECT_EQ(processesNamed(worker.pid(), "brindle-guard").size(), 1U);
}

/// A namespace of a process, as the system names it.
std::string namespaceOf(pid_t process, const std::string& kind) {
    return fs::read_symlink("/proc/" + std::to_string(process) + "/ns/" + kind).string();
}

/// Where the file systems are that a process sees.
std::vector<std::string> mountPointsOf(pid_t process) {
    std::vector<std::string> points;
    std::istringstream lines(readFile("/proc/" + std::to_string(process) + "/mountinfo"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number, parent, device, root, point;
        words >> number >> parent >> device >> root >> point;
        points.push_back(point);
    }
    return points;
}

/// Lines about sockets that wait for anybody to connect and are among `sockets` ("socket:[INODE]").
std::vector<std::string> listeningIn(const std::string& table, const std::set<std::string>& sockets) {
    constexpr const char* tcp_listening = " 0A ";
    constexpr const char* unix_listening = " 00010000 ";
    std::vector<std::string> found;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(tcp_listening) == std::string::npos && line.find(unix_listening) == std::string::npos) {
            continue;
        }
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (sockets.contains("socket:[" + word + "]")) found.push_back(line);
        }
    }
    return found;
}

/// The sockets at which a process waits for others.
std::vector<std::string> listeningSocketsOf(pid_t process) {
    std::set<std::string> sockets;
    for (const auto& [descriptor, target] : descriptorsOf(process)) sockets.insert(target);
    std::vector<std::string> all;
    for (const char* kind : {"tcp", "tcp6", "unix"}) {
        const auto found =
            listeningIn(readFile("/proc/" + std::to_string(process) + "/net/" + kind), sockets);
        all.insert(all.end(), found.begin(), found.end());
    }
    return all;
}

TEST_F(WebWorkerSandbox, NoVariableOpensIt) {
    auto options = withCarelessParent();
    const auto home = (options.place->path() / "home").string();
    fs::create_directory(home);
    WebWorkerProcess worker(std::move(options));
    const pid_t page = answeringPage(worker);
    for (const char* kind : {"mnt", "net", "pid", "uts"}) {
        EXPECT_NE(namespaceOf(page, kind), namespaceOf(worker.pid(), kind)) << kind;
    }
    EXPECT_THAT(mountPointsOf(page), Not(testing::Contains(home)));
    EXPECT_THAT(listeningSocketsOf(worker.pid()), IsEmpty());
}

TEST_F(WebWorkerSandbox, IsTriedWithTheProgramThatTheEngineRunsWhateverThePathSays) {
    auto options = WebWorkerOptions().withHtml(answering_page);
    const auto trace = options.place->path() / "trace";
    writeScript(options.place->path() / "bwrap", "echo called >" + trace.string());
    options.process.environment["PATH"] = options.place->path().string() + ":/usr/bin:/bin";
    WebWorkerProcess worker(std::move(options));
    answeringPage(worker);
    for (const pid_t process : processesNamed(worker.pid(), "bwrap")) {
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(process) + "/exe"), "/usr/bin/bwrap");
    }
    EXPECT_FALSE(fs::exists(trace));
}

/// What of the user's a page's process may see, as patterns of paths below the user's place.
std::vector<std::string> allowedPaths() {
    const std::string own = "BrindleManagedWhatsAppBackend";
    return {
        // The key to the display.
        "home/\\.Xauthority",
        // Of the engine's own home, empty at the start: the cache of fonts, where the system has none.
        "home/\\.cache/" + own + "/engine-[^/]*/\\.cache/fontconfig",
        // Keys of protected media; there are none.
        "home/\\.local/share/" + own + "/mediakeys/v1",
        // The proxy in front of no message bus.
        "run/webkitgtk/bus(-proxy-[^/]*)?",
    };
}

/// Everything below `place` that is mounted for a process, as paths relative to it: where it comes from, and
/// where it is seen.
std::set<std::string> mountedFrom(const fs::path& place, pid_t process) {
    std::set<std::string> found;
    std::istringstream words(readFile("/proc/" + std::to_string(process) + "/mountinfo"));
    const std::string prefix = place.string() + "/";
    for (std::string word; words >> word;) {
        const auto start = word.find(prefix);
        if (start != std::string::npos) found.insert(word.substr(start + prefix.size()));
        if (word == place.string()) found.insert(".");
    }
    return found;
}

/// A user with everything at home that the engine's libraries look for there.
WebWorkerOptions withFurnishedHome() {
    auto options = withCarelessParent();
    const auto place = options.place->path();
    for (const char* folder : {".cache/fontconfig", ".cache/gstreamer-1.0", ".cache/other",
                               ".config/fontconfig", ".config/gtk-3.0", ".config/pulse", ".fonts", ".icons",
                               ".local/share/fonts", ".local/share/gstreamer-1.0", ".local/share/icons",
                               ".local/share/themes", ".pulse", ".ssh", ".themes"}) {
        fs::create_directories(place / "home" / folder);
    }
    for (const char* file : {".Xauthority", ".asoundrc", ".fonts.conf", "letter.txt"}) {
        writeFileAtomically(place / "home" / file, "");
    }
    fs::create_directories(place / "run/pulse");
    fs::permissions(place / "run", fs::perms::owner_all);
    auto& environment = options.process.environment;
    environment["XDG_RUNTIME_DIR"] = place / "run";
    environment["XDG_CONFIG_HOME"] = place / "home/.config";
    environment["XDG_DATA_DIRS"] = (place / "home/.local/share").string() + ":/usr/local/share:/usr/share";
    // Then they are where they are for most people.
    environment.erase("XDG_DATA_HOME");
    environment.erase("XDG_CACHE_HOME");
    return options;
}

TEST_F(WebWorkerSandbox, ThePageSeesNothingOfTheUserButItsOwnFoldersAndTheDisplay) {
    WebWorkerProcess worker(withFurnishedHome());
    const pid_t page = answeringPage(worker);
    for (const auto& path : mountedFrom(worker.options().place->path(), page)) {
        const auto patterns = allowedPaths();
        EXPECT_TRUE(std::any_of(patterns.begin(), patterns.end(), [&](const auto& pattern) {
            return std::regex_match(path, std::regex(pattern));
        })) << path;
    }
    const auto environment = environmentOf(page);
    EXPECT_THAT(variablesIn(environment), IsSubsetOf(allowedVariables()));
    for (const auto& [name, value] : environment) EXPECT_THAT(value, Not(HasSubstr(secret))) << name;
    for (const char* kind : {"mnt", "net", "pid", "uts"}) {
        EXPECT_NE(namespaceOf(page, kind), namespaceOf(worker.pid(), kind)) << kind;
    }
    EXPECT_THAT(readFile("/proc/" + std::to_string(page) + "/status"), HasSubstr("Seccomp:\t2\n"));
    EXPECT_THAT(listeningSocketsOf(worker.pid()), IsEmpty());
}

fs::path cacheOf(const WebWorkerOptions& options) {
    return options.place->path() / "website-cache/BrindleManagedWhatsAppBackend";
}

/// The homes that engines have got in a cache directory.
std::vector<std::string> homesIn(const fs::path& cache) {
    auto names = namesIn(cache);
    std::erase_if(names, [](const auto& name) { return !name.starts_with("engine-"); });
    return names;
}

TEST_F(WebWorkerSandbox, WhatAPageHasWrittenIsGoneWithTheWorkerOrAtTheNextStart) {
    auto options = WebWorkerOptions().withHtml(answering_page);
    const auto cache = cacheOf(options);
    const auto homes = [&] { return homesIn(cache); };
    fs::create_directories(cache / "engine-killed/.cache/fontconfig");
    writeFileAtomically(cache / "engine-killed/.cache/fontconfig/planted", "planted");
    {
        WebWorkerProcess worker(options);
        answeringPage(worker);
        ASSERT_EQ(homes().size(), 1U);
        EXPECT_NE(homes().front(), "engine-killed");
        EXPECT_EQ(worker.terminate(), exitedWith(0));
    }
    EXPECT_THAT(homes(), IsEmpty());
}

TEST_F(WebWorkerSandbox, TwoWorkersWithOneCacheLeaveEachOtherTheirHomes) {
    const auto options = WebWorkerOptions().withHtml(answering_page);
    WebWorkerProcess first(options);
    answeringPage(first);
    const auto homes = homesIn(cacheOf(options));
    ASSERT_EQ(homes.size(), 1U);
    auto others = WebWorkerOptions().withHtml(answering_page);
    others.process.environment["XDG_CACHE_HOME"] = options.process.environment.at("XDG_CACHE_HOME");
    WebWorkerProcess second(others);
    answeringPage(second);
    EXPECT_THAT(homesIn(cacheOf(options)), testing::AllOf(SizeIs(2), testing::Contains(homes.front())));
}

/// A socket that stands for the session's message bus.
class BusSocket {
  public:
    explicit BusSocket(const fs::path& path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        constexpr int backlog = 16;
        if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(socket_, backlog) != 0) {
            throw TestFailure("cannot listen at " + path.string());
        }
    }
    ~BusSocket() { ::close(socket_); }
    BusSocket(const BusSocket&) = delete;
    BusSocket& operator=(const BusSocket&) = delete;

    bool wasAsked() const {
        const int client = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) ::close(client);
        return client >= 0;
    }

  private:
    int socket_;
};

TEST_F(WebWorkerSandbox, NobodyAsksTheMessageBusOfTheSession) {
    auto options = WebWorkerOptions().withHtml(answering_page);
    const auto run = options.place->path() / "run";
    fs::create_directory(run);
    fs::permissions(run, fs::perms::owner_all);
    const BusSocket named(options.place->path() / "bus");
    // Where it is looked for when nothing names it.
    const BusSocket usual(run / "bus");
    options.process.environment["DBUS_SESSION_BUS_ADDRESS"] =
        "unix:path=" + (options.place->path() / "bus").string();
    options.process.environment["XDG_RUNTIME_DIR"] = run;
    WebWorkerProcess worker(std::move(options));
    // Nobody answers at these, so a worker that asks them waits.
    EXPECT_NO_THROW(answeringPage(worker));
    EXPECT_FALSE(named.wasAsked());
    EXPECT_FALSE(usual.wasAsked());
}

// The driver asks the user database where the home is, so only its own variable holds it back.
TEST_F(WebWorkerSandbox, TheGraphicsDriverKeepsNoCacheInTheUsersHome) {
    WebWorkerProcess worker(withCarelessParent());
    const auto environment = environmentOf(answeringPage(worker));
    ASSERT_TRUE(environment.contains("MESA_SHADER_CACHE_DISABLE"));
    EXPECT_EQ(environment.at("MESA_SHADER_CACHE_DISABLE"), "true");
}

TEST_F(WebWorkerSandbox, HasTheWaylandDisplayAndNoXServerWhereThereAreBoth) {
    const TestDisplay wayland(TestDisplay::Kind::wayland);
    auto options = WebWorkerOptions().withHtml(answering_page);
    TestDisplay::shared().addTo(options.process.environment);
    const std::string xServer = options.process.environment.at("DISPLAY");
    options.on(wayland);
    options.process.environment["DISPLAY"] = xServer;
    WebWorkerProcess worker(std::move(options));
    const auto points = mountPointsOf(answeringPage(worker));
    EXPECT_THAT(points, testing::Contains(testing::EndsWith("/wayland-test")));
    EXPECT_THAT(points, Not(testing::Contains(HasSubstr("X11"))));
}

}  // namespace
}  // namespace brindle::test

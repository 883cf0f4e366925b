#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/DrivenPage.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/StoredLogin.h"
#include "support/Users.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

constexpr fs::perms of_others = fs::perms::group_all | fs::perms::others_all;

/// The folders of the website data, which another user may have had a hand in before the worker starts.
class WebWorkerPrivacy : public WebWorkerTest, public testing::WithParamInterface<std::string> {
  protected:
    WebWorkerPrivacy() {
        fs::create_directories(base());
        const bool isData = GetParam() == "website-data";
        options_.process.environment[isData ? "XDG_DATA_HOME" : "XDG_CACHE_HOME"] = base();
    }

    fs::path above() const { return options_.place->path() / "above"; }
    fs::path base() const { return above() / GetParam(); }
    fs::path folder() const { return base() / "BrindleManagedWhatsAppBackend"; }
    void make(fs::perms mode) const {
        fs::create_directories(folder());
        fs::permissions(folder(), mode);
    }
    /// The worker ends with a sentence that names the folder, before the engine has touched anything.
    void expectRefusal(const fs::path& untouched) {
        const auto before = namesIn(untouched);
        WebWorkerProcess worker(options_);
        EXPECT_EQ(worker.process().waitForExit(), exitedWith(software_failure));
        EXPECT_THAT(worker.process().standardError(),
                    AllOf(HasSubstr("fatal: The built-in web worker cannot keep website data in \"" +
                                    folder().string() + "\" ("),
                          HasSubstr("; let XDG_")));
        EXPECT_EQ(namesIn(untouched), before);
    }

    WebWorkerOptions options_;
};

TEST_P(WebWorkerPrivacy, LooseFolderIsPutRightAndNothingInItIsForOthers) {
    make(fs::perms::all);
    DrivenPage page("client.login();" + login_functions, [](const LoopbackServer::Request& request) {
        return answerWithLogin(request, {.status = "404 Not Found"});
    });
    options_.withUrl(page.url());
    WebWorkerProcess worker(options_);
    worker.waitForState("waiting_for_qr");
    page.run("storeALogin()");
    worker.waitUntil([&] { return page.run("window.stored") == std::to_string(login_parts); },
                     "a stored login");
    EXPECT_EQ(fs::status(folder()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(worker.terminate(), exitedWith(0));
    std::vector<std::string> open;
    for (const auto& entry : fs::recursive_directory_iterator(folder())) {
        const bool isOpen = (entry.symlink_status().permissions() & of_others) != fs::perms::none;
        if (isOpen && !entry.is_symlink()) open.push_back(entry.path());
    }
    EXPECT_THAT(open, testing::IsEmpty());
}

TEST_P(WebWorkerPrivacy, LinkInPlaceOfTheFolderIsRefused) {
    const auto elsewhere = options_.place->path() / "elsewhere";
    fs::create_directory(elsewhere);
    fs::create_directory_symlink(elsewhere, folder());
    expectRefusal(elsewhere);
}

TEST_P(WebWorkerPrivacy, BaseInWhichOthersMayReplaceTheFolderIsRefused) {
    make(fs::perms::owner_all);
    fs::permissions(base(), fs::perms::all);
    expectRefusal(folder());
}

TEST_P(WebWorkerPrivacy, FolderFarAboveInWhichOthersMayReplaceWhatFollowsIsRefused) {
    make(fs::perms::owner_all);
    fs::permissions(above(), fs::perms::all);
    expectRefusal(folder());
}

TEST_P(WebWorkerPrivacy, LinkToABaseInWhichOthersMayReplaceTheFolderIsRefused) {
    const auto open = options_.place->path() / "open";
    fs::create_directories(open / "base" / folder().filename());
    fs::permissions(open, fs::perms::all);
    fs::remove(base());
    fs::create_directory_symlink(open / "base", base());
    expectRefusal(open / "base" / folder().filename());
}

TEST_P(WebWorkerPrivacy, BaseInWhichAnotherGroupMayReplaceTheFolderIsRefused) {
    if (!isRoot()) GTEST_SKIP() << "Only root can give folders to a group that it is not in.";
    make(fs::perms::owner_all);
    ASSERT_EQ(::lchown(base().c_str(), static_cast<uid_t>(-1), another_user), 0);
    fs::permissions(base(), fs::perms::owner_all | fs::perms::group_all);
    expectRefusal(folder());
}

TEST_P(WebWorkerPrivacy, FolderOfAnotherUserIsRefused) {
    if (!isRoot()) GTEST_SKIP() << "Only root can make folders that belong to another user.";
    make(fs::perms::all);
    giveTo(another_user, folder());
    expectRefusal(folder());
}

TEST_P(WebWorkerPrivacy, LooseFolderInWhichAnotherUserHasLeftSomethingIsRefused) {
    if (!isRoot()) GTEST_SKIP() << "Only root can make files that belong to another user.";
    make(fs::perms::all);
    fs::create_symlink(options_.place->path() / "secret", folder() / "cookies.sqlite");
    giveTo(another_user, folder() / "cookies.sqlite");
    expectRefusal(folder());
    EXPECT_FALSE(fs::exists(options_.place->path() / "secret"));
}

TEST_P(WebWorkerPrivacy, LooseFolderInWhichAnotherUserHasLeftSomethingDeepInsideIsRefused) {
    if (!isRoot()) GTEST_SKIP() << "Only root can make files that belong to another user.";
    make(fs::perms::all);
    fs::create_directories(folder() / "storage" / "salt");
    giveTo(another_user, folder() / "storage" / "salt");
    expectRefusal(folder());
}

INSTANTIATE_TEST_SUITE_P(Each, WebWorkerPrivacy, testing::Values("website-data", "website-cache"));

}  // namespace
}  // namespace brindle::test

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/BystanderProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Sanitizers.h"
#include "support/TemporaryDirectory.h"
#include "support/Users.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr mode_t shared_mode = 01777;

void allow(const fs::path& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) throw TestFailure("cannot chmod " + path.string());
}

/// Everything that can be seen of what lies below a directory: owners, permissions, times, links and
/// contents.
std::string pictureOf(const fs::path& directory) {
    std::ostringstream picture;
    std::vector<fs::path> paths{directory};
    for (const auto& entry : fs::recursive_directory_iterator(directory)) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& path : paths) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) throw TestFailure("cannot look at " + path.string());
        picture << path << ' ' << status.st_uid << ' ' << std::oct << status.st_mode << std::dec << ' '
                << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec << ' ';
        if (S_ISLNK(status.st_mode)) picture << fs::read_symlink(path);
        if (S_ISREG(status.st_mode)) picture << readFile(path);
        picture << '\n';
    }
    return picture.str();
}

/// A place that all users share, a private folder of this user with files that have the names of the
/// helper's own, and a process of this user. The other user has been there first.
class AnotherUser : public testing::Test {
  protected:
    void SetUp() override {
        if (!isRoot()) GTEST_SKIP() << "Only root can make files that belong to another user.";
        fs::create_directory(shared());
        allow(shared(), shared_mode);
        fs::create_directories(privateFolder() / "runtime");
        writeFileAtomically(privateFolder() / "letter.json", R"({"conversationId":"team-room"})");
        for (const std::string name : {"worker.pid", "worker-status.json", "worker-qr.png"}) {
            writeFileAtomically(privateFolder() / name, std::to_string(canary_.pid()));
            writeFileAtomically(privateFolder() / "runtime" / name, std::to_string(canary_.pid()));
        }
    }

    fs::path shared() const { return place_.path() / "shared"; }
    fs::path privateFolder() const { return place_.path() / "private"; }
    /// Folders that the other user makes, the last of them open to everybody; for what is to be made there.
    static fs::path makeHis(const fs::path& folder) {
        fs::create_directories(folder);
        giveTo(another_user, folder);
        allow(folder, 0777);
        return folder;
    }
    /// A link that the other user makes.
    static void makeHisLink(const fs::path& target, const fs::path& link) {
        fs::create_symlink(target, link);
        giveTo(another_user, link);
    }
    /// Options of a helper that would start a worker in that data directory.
    BackendOptions optionsFor(const fs::path& dataDirectory) const {
        BackendOptions options = optionsWithWorker(worker_.path());
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = dataDirectory;
        return options;
    }
    /// The helper says that it cannot use the directory because of `path`, and does nothing.
    void expectRefusal(const BackendOptions& options, const fs::path& path) {
        const auto before = pictureOf(place_.path());
        BackendProcess backend(options);
        EXPECT_EQ(backend.waitForExit(), exitedWith(software_failure));
        EXPECT_EQ(backend.rawOutput(), "");
        EXPECT_THAT(backend.standardErrorLines(),
                    testing::ElementsAre(
                        AllOf(StartsWith("[ManagedWhatsAppBackend] fatal: Cannot use the directory \""),
                              HasSubstr("\"" + path.string() + "\""), HasSubstr("another user"))));
        EXPECT_EQ(pictureOf(place_.path()), before);
        EXPECT_EQ(worker_.starts(), 0U);
        EXPECT_FALSE(canary_.hasEnded());
    }

    TemporaryDirectory place_;
    BystanderProcess canary_{"exec sleep 3600"};
    WorkerScript worker_{"stay"};
};

// What is run.

class CandidateOfAnotherUser : public AnotherUser, public testing::WithParamInterface<std::string> {};

TEST_P(CandidateOfAnotherUser, IsNotRun) {
    const auto folder = shared() / "Support/ManagedWhatsAppNativeWorker/.build";
    const auto candidate = folder / "BrindleManagedWhatsAppNativeWorker";
    fs::create_directories(folder);
    fs::copy_file(worker_.path(), candidate);
    giveTo(another_user, shared() / GetParam());
    // Nothing lies beside this copy.
    fs::create_directory(place_.path() / "bin");
    BackendOptions options;
    options.executable = place_.path() / "bin/BrindleManagedWhatsAppBackend";
    fs::copy_file(backendExecutable(), options.executable);
    options.workingDirectory = shared();
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    BackendProcess backend(options);
    backend.greet();
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("workerState"), "not_configured");
    backend.finish();
    EXPECT_THAT(backend.standardErrorLines(),
                testing::ElementsAre(AllOf(HasSubstr("\"" + candidate.string() + "\""),
                                           HasSubstr("\"" + (shared() / GetParam()).string() + "\""))));
    EXPECT_EQ(worker_.starts(), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachStep, CandidateOfAnotherUser,
                         testing::Values("Support", "Support/ManagedWhatsAppNativeWorker",
                                         "Support/ManagedWhatsAppNativeWorker/.build",
                                         "Support/ManagedWhatsAppNativeWorker/.build/"
                                         "BrindleManagedWhatsAppNativeWorker"));

// What is read, moved and written.

class PlaceOfAnotherUser : public AnotherUser, public testing::WithParamInterface<std::string> {
  protected:
    fs::path data() const { return shared() / "data"; }
    /// What somebody else has made, "." for the data directory itself.
    fs::path his() const { return GetParam() == "." ? data() : data() / GetParam(); }
    /// The helper's own part of the way to it.
    void makeWay() const {
        fs::create_directories(his().parent_path());
        if (GetParam() == ".") return;
        for (auto folder = his().parent_path(); folder != shared(); folder = folder.parent_path())
            allow(folder, 0700);
    }
};

TEST_P(PlaceOfAnotherUser, IsRefusedAsAFolder) {
    makeWay();
    makeHis(his());
    writeFileAtomically(his() / "worker.pid", std::to_string(canary_.pid()));
    expectRefusal(optionsFor(data()), his());
}

TEST_P(PlaceOfAnotherUser, IsRefusedAsALink) {
    makeWay();
    makeHisLink(privateFolder(), his());
    expectRefusal(optionsFor(data()), his());
}

INSTANTIATE_TEST_SUITE_P(EachLevel, PlaceOfAnotherUser,
                         testing::Values(".", "inbound", "outbound", "processed", "rejected", "runtime",
                                         "runtime/worker-processed-outbound",
                                         "runtime/worker-rejected-outbound"));

TEST_F(AnotherUser, WholeDataDirectoryThatHeHasMadeIsRefused) {
    const auto data = makeHis(shared() / "data");
    for (const std::string name : {"inbound", "runtime"}) makeHisLink(privateFolder(), data / name);
    expectRefusal(optionsFor(data), data);
}

TEST_F(AnotherUser, FolderOfHisOnTheWayToTheDataDirectoryIsRefused) {
    const auto his = makeHis(shared() / "his");
    expectRefusal(optionsFor(his / "deep/data"), his);
    fs::create_directory(his / "data");
    expectRefusal(optionsFor(his / "data"), his);
}

TEST_F(AnotherUser, LinkOfHisOnTheWayToTheDataDirectoryIsRefused) {
    makeHisLink(privateFolder(), shared() / "link");
    expectRefusal(optionsFor(shared() / "link/data"), shared() / "link");
    makeHisLink(shared() / "link", shared() / "second");
    giveTo(::geteuid(), shared() / "second");
    expectRefusal(optionsFor(shared() / "second/data"), shared() / "link");
}

TEST_F(AnotherUser, FolderInWhichHeMayReplaceTheDataDirectoryIsRefused) {
    allow(shared(), 0777);
    fs::create_directory(shared() / "data");
    expectRefusal(optionsFor(shared() / "data"), shared());
}

TEST_F(AnotherUser, TemporaryDirectoryOfHisIsRefused) {
    if (sanitizerOfExecutables() == Sanitizer::thread)
        GTEST_SKIP() << "ThreadSanitizer itself makes a file in the temporary directory for a moment.";
    auto options = optionsFor("");
    options.environment.erase("XDG_RUNTIME_DIR");
    options.environment["TMPDIR"] = makeHis(shared() / "tmp");
    expectRefusal(options, shared() / "tmp");
    giveTo(::geteuid(), shared() / "tmp");
    expectRefusal(options, shared() / "tmp");
}

// Who is ended.

TEST_F(AnotherUser, ProcessThatHisPidFileNamesIsSpared) {
    const auto options = optionsFor(place_.path() / "data");
    const auto file = place_.path() / "data/runtime/worker.pid";
    fs::create_directories(file.parent_path());
    writeFileAtomically(file, std::to_string(canary_.pid()));
    giveTo(another_user, file);
    BackendProcess backend(options);
    backend.greet();
    worker_.waitForPid();
    EXPECT_FALSE(canary_.hasEnded());
}

// What he has no part in.

TEST_F(AnotherUser, HisFilesBesideTheDataDirectoryAreNoReasonToRefuseIt) {
    makeHis(shared() / "his");
    fs::create_directory_symlink(place_.path(), shared() / "own-link");
    BackendProcess backend(optionsFor(shared() / "own-link/shared/data"));
    worker_.waitForPid();
    EXPECT_TRUE(fs::is_directory(shared() / "data/inbound"));
}

}  // namespace
}  // namespace brindle::test

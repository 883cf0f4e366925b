#include "exchange/DataDirectory.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "exchange/EnvironmentKeys.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
namespace key = environment_key;
using test::namesIn;
using test::TemporaryDirectory;
using testing::ElementsAre;
using testing::HasSubstr;

/// The real file system, on which some paths belong to another user or group.
class ForeignOwnership final : public test::ForwardingFileManager {
  public:
    explicit ForeignOwnership(std::string foreignPath)
        : ForwardingFileManager(real_), foreignPath_(std::move(foreignPath)) {}

    std::optional<FileAttributes> attributes(const std::string& path) override {
        auto found = ForwardingFileManager::attributes(path);
        const bool isForeign = path == foreignPath_ || path == foreignPath_ + "/.";
        if (found && isForeign && isGroupForeign) found->group = ::getegid() + 1;
        if (found && isForeign && !isGroupForeign) found->owner = ::geteuid() + 1;
        return found;
    }

    /// The group is the other one then, and not the owner.
    bool isGroupForeign = false;

  private:
    PosixFileManager real_;
    std::string foreignPath_;
};

class DataDirectoryTests : public testing::Test {
  protected:
    std::string at(const std::string& name) const { return (home_.path() / name).string(); }
    std::string pathFor(const Environment& environment, std::string_view platform = "whatsapp") {
        return DataDirectory(environment, files_, platform).path;
    }
    std::string makeDirectory(const std::string& name, mode_t mode) {
        fs::create_directories(at(name));
        EXPECT_EQ(::chmod(at(name).c_str(), mode), 0);
        return at(name);
    }
    static Environment with(std::string_view name, const std::string& value) {
        return {{std::string(name), value}};
    }
    Environment temporary() const { return with(key::temporary_directory, at("tmp")); }

    TemporaryDirectory home_;
    PosixFileManager files_;
};

TEST_F(DataDirectoryTests, ConfiguredDirectoryIsTakenAsItIs) {
    EXPECT_EQ(pathFor(with(key::data_directory, "  /x/y/../z\n")), "/x/z");
    EXPECT_EQ(pathFor(with(key::data_directory, "//x///y/./")), "/x/y");
    EXPECT_EQ(pathFor(with(key::data_directory, "/")), "/");
}

TEST_F(DataDirectoryTests, RelativeConfiguredDirectoryIsTakenAgainstTheWorkingDirectory) {
    EXPECT_EQ(pathFor(with(key::data_directory, "a/b")), fs::current_path().string() + "/a/b");
}

TEST_F(DataDirectoryTests, ConfiguredDirectoryComesBeforeAllOthers) {
    auto environment = with(key::data_directory, "/x");
    environment.emplace(key::runtime_directory, makeDirectory("run", 0700));
    environment.emplace(key::temporary_directory, at("tmp"));
    EXPECT_EQ(pathFor(environment), "/x");
}

TEST_F(DataDirectoryTests, BlankConfiguredDirectoryCountsAsAbsent) {
    for (const std::string blank : {"", "  ", "\n\t", "\u00A0"}) {
        auto environment = temporary();
        environment.emplace(key::data_directory, blank);
        EXPECT_EQ(pathFor(environment), at("tmp") + "/Brindle/ManagedBridge/whatsapp");
    }
}

TEST_F(DataDirectoryTests, PrivateRuntimeDirectoryIsTheBase) {
    const auto run = makeDirectory("run", 0700);
    EXPECT_EQ(pathFor(with(key::runtime_directory, " " + run + "/./ ")),
              run + "/Brindle/ManagedBridge/whatsapp");
}

TEST_F(DataDirectoryTests, RuntimeDirectoryThatIsNotPrivateIsPassedOver) {
    const auto fallback = at("tmp") + "/Brindle/ManagedBridge/whatsapp";
    fs::create_directory_symlink(makeDirectory("run", 0700), at("link"));
    std::ofstream(at("file")) << "";
    for (const std::string& value :
         {makeDirectory("open", 0755), makeDirectory("sticky", 01700), at("missing"), at("link"), at("file"),
          std::string("relative"), std::string("  ")}) {
        auto environment = temporary();
        environment.emplace(key::runtime_directory, value);
        EXPECT_EQ(pathFor(environment), fallback) << value;
    }
}

TEST_F(DataDirectoryTests, RuntimeDirectoryOfAnotherUserIsPassedOver) {
    const auto run = makeDirectory("run", 0700);
    auto environment = temporary();
    environment.emplace(key::runtime_directory, run);
    ForeignOwnership files(run);
    EXPECT_EQ(DataDirectory(environment, files, "whatsapp").path,
              at("tmp") + "/Brindle/ManagedBridge/whatsapp");
}

TEST_F(DataDirectoryTests, GeneralTemporaryDirectoryIsTheLastResort) {
    const auto own = "/tmp/brindle-" + std::to_string(::geteuid());
    EXPECT_EQ(pathFor({}), own + "/Brindle/ManagedBridge/whatsapp");
    EXPECT_EQ(pathFor(with(key::temporary_directory, " ")), own + "/Brindle/ManagedBridge/whatsapp");
    EXPECT_EQ(pathFor(with(key::temporary_directory, "/var//tmp/\n")),
              "/var/tmp/Brindle/ManagedBridge/whatsapp");
}

TEST_F(DataDirectoryTests, LastComponentIsThePlatform) {
    EXPECT_EQ(pathFor(temporary(), "other"), at("tmp") + "/Brindle/ManagedBridge/other");
}

TEST_F(DataDirectoryTests, FindingTouchesNothing) {
    const DataDirectory found(temporary(), files_, "whatsapp");
    EXPECT_TRUE(fs::is_empty(home_.path()));
}

TEST_F(DataDirectoryTests, EveryPathLiesBelow) {
    const DataDirectory directory(with(key::data_directory, "/d"), files_, "whatsapp");
    EXPECT_EQ(directory.inbound, "/d/inbound");
    EXPECT_EQ(directory.outbound, "/d/outbound");
    EXPECT_EQ(directory.processed, "/d/processed");
    EXPECT_EQ(directory.rejected, "/d/rejected");
    EXPECT_EQ(directory.runtime, "/d/runtime");
    EXPECT_EQ(directory.runtimeStatusFile, "/d/runtime/runtime-status.json");
    EXPECT_EQ(directory.workerStatusFile, "/d/runtime/worker-status.json");
    EXPECT_EQ(directory.workerControlFile, "/d/runtime/worker-control.json");
    EXPECT_EQ(directory.workerQRCodeFile, "/d/runtime/worker-qr.png");
    EXPECT_EQ(directory.workerPIDFile, "/d/runtime/worker.pid");
    EXPECT_EQ(directory.freshLinkRequestFile, "/d/runtime/fresh-link-request.flag");
    EXPECT_EQ(directory.workerProcessedOutbound, "/d/runtime/worker-processed-outbound");
    EXPECT_EQ(directory.workerRejectedOutbound, "/d/runtime/worker-rejected-outbound");
}

TEST_F(DataDirectoryTests, RecordFileIsNamedByItsMessage) {
    EXPECT_EQ(DataDirectory::recordFile("/d/outbound", "ABC"), "/d/outbound/ABC.json");
}

TEST_F(DataDirectoryTests, BackendCreatesAllDirectoriesPrivateToTheUser) {
    const DataDirectory directory(with(key::data_directory, at("a/d")), files_, "whatsapp");
    directory.createForBackend(files_);
    EXPECT_THAT(namesIn(directory.path),
                ElementsAre("inbound", "outbound", "processed", "rejected", "runtime"));
    EXPECT_THAT(namesIn(directory.runtime),
                ElementsAre("worker-processed-outbound", "worker-rejected-outbound"));
    for (const auto& entry : fs::recursive_directory_iterator(home_.path())) {
        EXPECT_EQ(entry.status().permissions(), fs::perms::owner_all) << entry.path();
    }
}

TEST_F(DataDirectoryTests, WorkerCreatesOnlyWhatItNeeds) {
    const DataDirectory directory(temporary(), files_, "whatsapp");
    directory.createForWorker(files_);
    EXPECT_THAT(namesIn(directory.path), ElementsAre("inbound", "runtime"));
    EXPECT_TRUE(fs::is_empty(directory.runtime));
}

TEST_F(DataDirectoryTests, CreatingAgainIsNoError) {
    const DataDirectory directory(temporary(), files_, "whatsapp");
    directory.createForBackend(files_);
    std::ofstream(directory.inbound + "/m.json") << "{}";
    directory.createForBackend(files_);
    EXPECT_THAT(namesIn(directory.inbound), ElementsAre("m.json"));
}

TEST_F(DataDirectoryTests, FirstDirectoryThatCannotBeCreatedEndsTheCreation) {
    const DataDirectory directory(with(key::data_directory, at("d")), files_, "whatsapp");
    makeDirectory("d", 0700);
    std::ofstream(directory.processed) << "";
    try {
        directory.createForBackend(files_);
        ADD_FAILURE() << "created";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), EEXIST);
        EXPECT_EQ(failure.what(),
                  "Cannot create the directory \"" + directory.processed + "\": File exists.");
    }
    EXPECT_THAT(namesIn(directory.path), ElementsAre("inbound", "outbound", "processed"));
}

TEST_F(DataDirectoryTests, DirectoryOfAnotherUserInASharedPlaceIsRefused) {
    for (const std::string component :
         {"Brindle", "Brindle/ManagedBridge", "Brindle/ManagedBridge/whatsapp"}) {
        const TemporaryDirectory shared;
        const auto foreign = (shared.path() / component).string();
        fs::create_directories(foreign);
        ForeignOwnership files(foreign);
        const DataDirectory directory(with(key::temporary_directory, shared.path().string()), files,
                                      "whatsapp");
        try {
            directory.createForBackend(files);
            ADD_FAILURE() << "accepted " << component;
        } catch (const FileSystemFailure& failure) {
            EXPECT_EQ(failure.code(), EPERM);
            EXPECT_EQ(
                failure.what(),
                "Cannot use the directory \"" + foreign +
                    "\": It belongs to another user, is a link or can be written by others; let it be this user's alone, remove it or set BRINDLE_MANAGED_BRIDGE_DATA_DIR.");
        }
        EXPECT_TRUE(fs::is_empty(foreign)) << component;
    }
}

/// None of them is there at the first look.
TEST_F(DataDirectoryTests, DirectoryThatAnotherUserMakesInBetweenIsRefused) {
    for (const std::string component : {"Brindle", "Brindle/ManagedBridge", "Brindle/ManagedBridge/whatsapp",
                                        "Brindle/ManagedBridge/whatsapp/inbound"}) {
        const TemporaryDirectory shared;
        const auto foreign = (shared.path() / component).string();
        ForeignOwnership files(foreign);
        const DataDirectory directory(with(key::temporary_directory, shared.path().string()), files,
                                      "whatsapp");
        EXPECT_THROW(directory.createForBackend(files), FileSystemFailure) << component;
        EXPECT_TRUE(fs::is_empty(foreign)) << component;
    }
}

TEST_F(DataDirectoryTests, WayThatAnotherUserMakesInBetweenIsRefused) {
    ForeignOwnership files(at("way"));
    const DataDirectory directory(with(key::data_directory, at("way/d")), files, "whatsapp");
    EXPECT_THROW(directory.createForBackend(files), FileSystemFailure);
    EXPECT_TRUE(fs::is_empty(directory.path));
}

TEST_F(DataDirectoryTests, DirectoryThatOthersCanWriteInASharedPlaceIsRefused) {
    for (const std::string component : {"Brindle", "Brindle/ManagedBridge/whatsapp/inbound"}) {
        const TemporaryDirectory shared;
        const auto open = shared.path() / component;
        fs::create_directories(open);
        fs::permissions(open, fs::perms::others_write, fs::perm_options::add);
        PosixFileManager files;
        const DataDirectory directory(with(key::temporary_directory, shared.path().string()), files,
                                      "whatsapp");
        EXPECT_THROW(directory.createForBackend(files), FileSystemFailure) << component;
    }
}

TEST_F(DataDirectoryTests, OnlyPermissionToWriteMakesADirectoryInASharedPlaceRefused) {
    for (const mode_t mode : {0770U, 0702U, 0777U}) {
        makeDirectory("tmp/Brindle/ManagedBridge", mode);
        const DataDirectory directory(temporary(), files_, "whatsapp");
        EXPECT_THROW(directory.createForBackend(files_), FileSystemFailure) << mode;
        EXPECT_TRUE(fs::is_empty(at("tmp/Brindle/ManagedBridge"))) << mode;
    }
    makeDirectory("tmp/Brindle/ManagedBridge", 0755);
    EXPECT_NO_THROW(DataDirectory(temporary(), files_, "whatsapp").createForBackend(files_));
}

TEST_F(DataDirectoryTests, LinkInASharedPlaceIsRefused) {
    for (const std::string component :
         {"Brindle", "Brindle/ManagedBridge", "Brindle/ManagedBridge/whatsapp"}) {
        const TemporaryDirectory shared;
        const TemporaryDirectory elsewhere;
        fs::create_directories((shared.path() / component).parent_path());
        fs::create_directory_symlink(elsewhere.path(), shared.path() / component);
        const DataDirectory directory(with(key::temporary_directory, shared.path().string()), files_,
                                      "whatsapp");
        EXPECT_THROW(directory.createForBackend(files_), FileSystemFailure) << component;
        EXPECT_TRUE(fs::is_empty(elsewhere.path())) << component;
    }
}

TEST_F(DataDirectoryTests, WayToAConfiguredDirectoryMayLeadThroughLinksOfTheUser) {
    const auto real = makeDirectory("real/d", 0700);
    fs::create_directory_symlink("real", at("way"));
    fs::create_directory_symlink(real, at("link"));
    for (const auto& path : {at("way/d"), at("link")}) {
        DataDirectory(with(key::data_directory, path), files_, "whatsapp").createForBackend(files_);
        EXPECT_TRUE(fs::is_directory(real + "/inbound")) << path;
    }
}

/// A configured data directory that is there already, and one of the directories in it, "." for itself.
class ConfiguredDirectoryTests : public DataDirectoryTests, public testing::WithParamInterface<std::string> {
  protected:
    ConfiguredDirectoryTests() : directory_(with(key::data_directory, at("d")), files_, "whatsapp") {
        files_.createDirectory(target());
    }
    std::string target() const { return GetParam() == "." ? at("d") : at("d/" + GetParam()); }
    /// What a start with those files is refused for.
    std::string refusal(FileManager& files) {
        const auto before = namesIn(directory_.path);
        try {
            directory_.createForBackend(files);
            return "none";
        } catch (const FileSystemFailure& failure) {
            EXPECT_EQ(failure.code(), EPERM);
            EXPECT_EQ(namesIn(directory_.path), before) << "something was made";
            return failure.what();
        }
    }
    void allow(mode_t mode) const { EXPECT_EQ(::chmod(target().c_str(), mode), 0); }

    DataDirectory directory_;
};

TEST_P(ConfiguredDirectoryTests, IsRefusedWhenItBelongsToAnotherUser) {
    ForeignOwnership files(target());
    EXPECT_THAT(refusal(files), HasSubstr("belongs to another user"));
}

TEST_P(ConfiguredDirectoryTests, IsRefusedWhenEverybodyMayWriteToIt) {
    for (const mode_t mode : {0777U, 0702U, 01777U}) {
        allow(mode);
        EXPECT_THAT(refusal(files_), HasSubstr("can be written by others")) << mode;
    }
}

TEST_P(ConfiguredDirectoryTests, MayBeWrittenByThePrimaryGroupOfTheUserAlone) {
    allow(0770);
    ForeignOwnership files(target());
    files.isGroupForeign = true;
    EXPECT_THAT(refusal(files), HasSubstr("can be written by others"));
    EXPECT_EQ(refusal(files_), "none");
}

TEST_P(ConfiguredDirectoryTests, MayBeReadByOthers) {
    allow(0755);
    EXPECT_EQ(refusal(files_), "none");
}

INSTANTIATE_TEST_SUITE_P(Each, ConfiguredDirectoryTests,
                         testing::Values(".", "inbound", "outbound", "processed", "rejected", "runtime",
                                         "runtime/worker-processed-outbound",
                                         "runtime/worker-rejected-outbound"));

TEST_F(DataDirectoryTests, FolderThatIsALinkIsRefused) {
    const auto elsewhere = makeDirectory("elsewhere", 0700);
    const DataDirectory directory(with(key::data_directory, at("d")), files_, "whatsapp");
    for (const std::string name : {"inbound", "runtime", "rejected"}) {
        makeDirectory("d", 0700);
        fs::create_directory_symlink(elsewhere, at("d/" + name));
        EXPECT_THROW(directory.createForBackend(files_), FileSystemFailure) << name;
        EXPECT_THROW(directory.createForWorker(files_), FileSystemFailure) << name;
        EXPECT_THAT(namesIn(directory.path), ElementsAre(name));
        EXPECT_TRUE(fs::is_empty(elsewhere));
        fs::remove_all(at("d"));
    }
}

TEST_F(DataDirectoryTests, WayToAConfiguredDirectoryThatAnotherUserCouldChangeIsRefused) {
    makeDirectory("real", 0700);
    makeDirectory("open", 0777);
    makeDirectory("group", 0770);
    fs::create_directory_symlink("real", at("link"));
    const auto refusal = [&](const std::string& name, FileManager& files) -> std::string {
        const auto path = at(name + "/a/d");
        try {
            DataDirectory(with(key::data_directory, path), files, "whatsapp").createForBackend(files);
            return "none";
        } catch (const FileSystemFailure& failure) {
            EXPECT_EQ(failure.code(), EPERM);
            EXPECT_FALSE(fs::exists(at(name + "/a"))) << name;
            EXPECT_THAT(failure.what(), HasSubstr("Cannot use the directory \"" + path + "\": "));
            return failure.what();
        }
    };
    const auto reason = [&](const std::string& name) {
        return "\"" + at(name) +
               "\" belongs to another user, or others may replace what lies in it; let BRINDLE_MANAGED_BRIDGE_DATA_DIR name another place.";
    };
    for (const std::string name : {"real", "link"}) {
        ForeignOwnership files(at(name));
        EXPECT_THAT(refusal(name, files), HasSubstr(reason(name)));
    }
    ForeignOwnership files(at("group"));
    files.isGroupForeign = true;
    EXPECT_THAT(refusal("group", files), HasSubstr(reason("group")));
    EXPECT_THAT(refusal("open", files_), HasSubstr(reason("open")));
    makeDirectory("open", 01777);
    EXPECT_EQ(refusal("open", files_), "none");
}

TEST_F(DataDirectoryTests, TemporaryDirectoryThatAnotherUserCouldChangeIsRefused) {
    makeDirectory("tmp", 0777);
    EXPECT_THROW(DataDirectory(temporary(), files_, "whatsapp").createForBackend(files_), FileSystemFailure);
    makeDirectory("tmp", 0755);
    ForeignOwnership files(at("tmp"));
    try {
        DataDirectory(temporary(), files, "whatsapp").createForBackend(files);
        ADD_FAILURE() << "accepted";
    } catch (const FileSystemFailure& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("let TMPDIR name another place."));
    }
    EXPECT_TRUE(fs::is_empty(at("tmp")));
    makeDirectory("tmp", 01777);
    EXPECT_NO_THROW(DataDirectory(temporary(), files_, "whatsapp").createForBackend(files_));
}

}  // namespace
}  // namespace brindle

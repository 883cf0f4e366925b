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

/// The real file system, on which some paths belong to another user.
class ForeignOwnership final : public FileManager {
  public:
    explicit ForeignOwnership(std::string foreignPath) : foreignPath_(std::move(foreignPath)) {}

    std::optional<FileAttributes> attributes(const std::string& path) override {
        auto found = real_.attributes(path);
        if (found && path == foreignPath_) found->owner = ::geteuid() + 1;
        return found;
    }
    void createDirectory(const std::string& path) override { real_.createDirectory(path); }
    DirectoryListing listDirectory(const std::string& path) override { return real_.listDirectory(path); }
    std::unique_ptr<DirectoryReader> readDirectory(const std::string& path) override {
        return real_.readDirectory(path);
    }
    std::uintmax_t fileSystemBytes(const std::string& path) override { return real_.fileSystemBytes(path); }
    bool fileExists(const std::string& path) override { return real_.fileExists(path); }
    bool isExecutableFile(const std::string& path) override { return real_.isExecutableFile(path); }
    std::string readFile(const std::string& path) override { return real_.readFile(path); }
    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        real_.writeFileAtomically(path, bytes, durability);
    }
    void moveItem(const std::string& from, const std::string& to) override { real_.moveItem(from, to); }
    Descriptor lockDirectory(const std::string& path) override { return real_.lockDirectory(path); }
    void removeItem(const std::string& path) override { real_.removeItem(path); }

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
    EXPECT_EQ(pathFor({}), "/tmp/Brindle/ManagedBridge/whatsapp");
    EXPECT_EQ(pathFor(with(key::temporary_directory, " ")), "/tmp/Brindle/ManagedBridge/whatsapp");
    EXPECT_EQ(pathFor(with(key::temporary_directory, "/var//tmp/\n")),
              "/var/tmp/Brindle/ManagedBridge/whatsapp");
}

TEST_F(DataDirectoryTests, LastComponentIsThePlatform) {
    EXPECT_EQ(pathFor({}, "other"), "/tmp/Brindle/ManagedBridge/other");
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
                    "\": It belongs to another user, is a link or can be written by others; remove it or set BRINDLE_MANAGED_BRIDGE_DATA_DIR.");
        }
        EXPECT_TRUE(fs::is_empty(foreign)) << component;
    }
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

TEST_F(DataDirectoryTests, ConfiguredDirectoryMayBeALinkOrBelongToAnotherUser) {
    const auto real = makeDirectory("real", 0700);
    fs::create_directory_symlink(real, at("link"));
    ForeignOwnership files(at("link"));
    const DataDirectory directory(with(key::data_directory, at("link")), files, "whatsapp");
    directory.createForBackend(files);
    EXPECT_TRUE(fs::is_directory(real + "/inbound"));
}

}  // namespace
}  // namespace brindle

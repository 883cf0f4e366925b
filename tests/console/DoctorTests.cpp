#include "console/Doctor.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>

#include "console/CommandWords.h"
#include "exchange/DataDirectory.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle::console {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr std::string_view complete_record =
    R"({"conversationId":"c","conversationTitle":"C","senderId":"s","senderDisplayName":"S","text":"t","isDirectMessage":true})";

/// A helper delivers: each record has just gone when somebody reads it.
class FilesInDelivery final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    std::string readFile(const std::string& path) override {
        if (path.ends_with(".json")) removeItem(path);
        return ForwardingFileManager::readFile(path);
    }
};

class ReadOnlyFiles final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    void requireAccess(const std::string& directory) override {
        throw FileSystemFailure("use the directory", directory, EROFS);
    }
};

class DoctorTest : public testing::Test {
  protected:
    DoctorTest() {
        fs::permissions(directory_.path(), fs::perms::owner_all);
        test::writeScript(helper(), "exit 0");
    }

    std::string helper() const { return (programs_.path() / "BrindleManagedWhatsAppBackend").string(); }

    void makeDirectories() {
        const DataDirectory directory(environment_, files_, "whatsapp");
        directory.createForBackend(files_);
    }

    void write(const fs::path& relative, std::string_view content) const {
        test::writeFileAtomically(directory_.path() / relative, content);
    }

    Findings examine() {
        const auto name = helper();
        const std::string platform = "whatsapp";
        const Examination examination{.environment = environment_,
                                      .helper = name,
                                      .platform = platform,
                                      .fileManager = *usedFiles_,
                                      .clock = clock_};
        // The engine is looked at by the program's own tests: it stays in the process for good.
        auto findings = examinedDirectory(examination);
        auto more = examinedInstallation(examination);
        findings.insert(findings.end(), more.begin(), more.end());
        return findings;
    }

    /// What was found at a point: "problem: There is ...".
    std::string found(const std::string& point) {
        for (const auto& finding : examine()) {
            if (finding.point == point) return finding.state + ": " + finding.what;
        }
        return "(nothing)";
    }

    test::TemporaryDirectory directory_;
    test::TemporaryDirectory programs_;
    PosixFileManager files_;
    FileManager* usedFiles_ = &files_;
    SystemClock clock_;
    Environment environment_{{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", directory_.path().string()}};
};

TEST_F(DoctorTest, FindsNothingWrongWithAFreshDirectory) {
    makeDirectories();
    EXPECT_TRUE(FindingReport(examine()).isWell);
    EXPECT_THAT(found("directory"), testing::StartsWith("ok: "));
    EXPECT_THAT(found("use"), HasSubstr("No helper uses"));
}

TEST_F(DoctorTest, SaysThatADirectoryIsNotThereYet) {
    environment_["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = (directory_.path() / "none").string();
    EXPECT_THAT(found("directory"), HasSubstr("note: The data directory"));
    EXPECT_FALSE(fs::exists(directory_.path() / "none"));
}

TEST_F(DoctorTest, FindsADirectoryThatOthersMayWriteTo) {
    makeDirectories();
    fs::permissions(directory_.path() / "inbound", fs::perms::all);
    EXPECT_THAT(found("directory"), testing::StartsWith("problem: Cannot use the directory"));
}

TEST_F(DoctorTest, FindsAFileInThePlaceOfAFolder) {
    makeDirectories();
    fs::remove(directory_.path() / "rejected");
    write("rejected", "a file");
    EXPECT_THAT(found("directory"), testing::MatchesRegex("problem: .*rejected is no directory."));
}

TEST_F(DoctorTest, FindsADirectoryThatCannotBeWrittenToOrMade) {
    makeDirectories();
    ReadOnlyFiles files(files_);
    usedFiles_ = &files;
    EXPECT_THAT(found("directory"), testing::MatchesRegex("problem: .*Read-only file system.*"));
    environment_["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = (directory_.path() / "none" / "below").string();
    EXPECT_THAT(found("directory"), testing::MatchesRegex("problem: .*Read-only file system.*"));
}

TEST_F(DoctorTest, PassesOverWhatIsDeliveredMeanwhile) {
    makeDirectories();
    write("inbound/a.json", complete_record);
    FilesInDelivery files(files_);
    usedFiles_ = &files;
    EXPECT_EQ(found("inbound"), "ok: No inbound message waits.");
}

TEST_F(DoctorTest, FindsAHelperThatIsMissing) {
    fs::remove(helper());
    EXPECT_THAT(found("helper"), testing::StartsWith("problem: There is no program"));
}

TEST_F(DoctorTest, FindsAConfiguredWorkerThatIsMissingOrMayNotBeRun) {
    environment_["BRINDLE_MANAGED_BRIDGE_WORKER_PATH"] = "/no/such/worker";
    EXPECT_EQ(found("worker"), "problem: The configured worker /no/such/worker does not exist.");
    write("plain", "no program");
    fs::permissions(directory_.path() / "plain", fs::perms::owner_read);
    environment_.erase("BRINDLE_MANAGED_BRIDGE_WORKER_PATH");
    environment_["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = (directory_.path() / "plain").string();
    EXPECT_THAT(found("worker"), HasSubstr("plain may not be executed."));
}

TEST_F(DoctorTest, KnowsWhichWorkerTheHelperWouldRun) {
    EXPECT_EQ(found("worker"), "note: Neither an option nor this environment names a worker.");
    test::writeScript(programs_.path() / "BrindleManagedWhatsAppNativeWorker", "exit 0");
    EXPECT_THAT(found("worker"), HasSubstr("ok: The native worker"));
    environment_["BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER"] = "1";
    EXPECT_EQ(found("worker"), "note: Neither an option nor this environment names a worker.");
    environment_["BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER"] = "1";
    EXPECT_EQ(found("worker"), "ok: The built-in web worker is switched on.");
    environment_["BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER"] = "1";
    EXPECT_THAT(found("worker"), HasSubstr("note: Workers are switched off"));
}

TEST_F(DoctorTest, FindsAMissingModuleWhereItIsNeeded) {
    EXPECT_THAT(found("module"), testing::StartsWith("note: There is no BrindleWebHost.so"));
    environment_["BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER"] = "1";
    EXPECT_THAT(found("module"), testing::StartsWith("problem: There is no BrindleWebHost.so"));
}

TEST_F(DoctorTest, FindsAModuleThatCannotBeLoaded) {
    test::writeFileAtomically(programs_.path() / "BrindleWebHost.so", "no library");
    EXPECT_THAT(found("module"), HasSubstr("cannot be loaded"));
}

TEST_F(DoctorTest, FindsAStaleWorkerFile) {
    makeDirectories();
    write("runtime/worker.pid", "abc");
    EXPECT_THAT(found("worker.pid"), testing::StartsWith("problem: "));
    // More than any process id, and not the one that its lower digits would make.
    write("runtime/worker.pid", std::to_string((std::int64_t{1} << 32U) + ::getpid()));
    EXPECT_THAT(found("worker.pid"), testing::StartsWith("problem: "));
    write("runtime/worker.pid", "2147483646");
    EXPECT_THAT(found("worker.pid"), HasSubstr("note: The worker that wrote worker.pid"));
    write("runtime/worker.pid", std::to_string(::getpid()));
    EXPECT_THAT(found("worker.pid"), HasSubstr("note: worker.pid names a process that is no worker"));
}

TEST_F(DoctorTest, CountsWhatWaitsWhatCannotBeDecodedAndWhatWasRejected) {
    makeDirectories();
    EXPECT_EQ(found("inbound"), "ok: No inbound message waits.");
    EXPECT_EQ(found("rejected"), "(nothing)");
    write("inbound/a.json", complete_record);
    EXPECT_EQ(found("inbound"), "note: 1 inbound message(s) wait.");
    write("inbound/b.json", "{}");
    EXPECT_EQ(found("inbound"), "problem: 1 waiting inbound file(s) cannot be decoded.");
    write("rejected/c.json", "{}");
    EXPECT_EQ(found("rejected"), "problem: 1 inbound file(s) were rejected.");
    write("outbound/d.json", "{}");
    EXPECT_EQ(found("outbound"), "note: 1 message(s) wait to be sent.");
}

TEST_F(DoctorTest, NamesTheDirectoryInTheCommandThatShowsWhatWasRejected) {
    makeDirectories();
    write("rejected/c.json", "{}");
    std::string remedy;
    for (const auto& finding : examine()) {
        if (finding.point == "rejected") remedy = finding.remedy.value_or("");
    }
    EXPECT_THAT(remedy, testing::StartsWith("BrindleBridgeConsole inbox --data-dir " +
                                            quotedWord(directory_.path().string()) + " "));
}

TEST_F(DoctorTest, FindsAClockThatWasSetBack) {
    makeDirectories();
    EXPECT_THAT(found("clock"), testing::StartsWith("ok: "));
    fs::last_write_time(directory_.path() / "runtime",
                        fs::file_time_type::clock::now() + std::chrono::hours(3));
    EXPECT_THAT(found("clock"), testing::StartsWith("problem: Files were written "));
}

TEST_F(DoctorTest, TellsTheSpaceThatIsLeft) {
    makeDirectories();
    EXPECT_THAT(found("space"), HasSubstr("left beside the data directory"));
}

}  // namespace
}  // namespace brindle::console

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/QRPictures.h"
#include "support/TemporaryDirectory.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// A worker that does nothing by itself; the tests write its files.
constexpr std::string_view idle_worker = "stay";

std::string joinedLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text.append(line).append("\n");
    return text;
}

/// The codes that the console has shown, each as a phone reads it from the screen.
std::vector<std::string> scannedCodes(const std::vector<std::string>& output) {
    std::vector<std::string> codes;
    std::vector<std::string> picture;
    const auto takePicture = [&] {
        if (!picture.empty()) codes.push_back(scannedTerminal(joinedLines(picture)));
        picture.clear();
    };
    for (const auto& line : output) {
        if (line.starts_with("\u2588")) {
            picture.push_back(line);
        } else {
            takePicture();
        }
    }
    takePicture();
    return codes;
}

/// The console's command qr on the files of a worker.
class ConsoleQRCodeTest : public testing::Test {
  protected:
    BackendProcess& start(std::string_view script, std::vector<std::string> arguments = {}) {
        writeFileAtomically(files_.path() / "check.console", script);
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = {"--worker", worker_.path().string(), "--script",
                             (files_.path() / "check.console").string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        options.dataDirectory = data_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
        console_ = std::make_unique<BackendProcess>(std::move(options));
        return *console_;
    }

    fs::path codeFile() const { return data_->path() / "runtime/worker-qr.png"; }

    /// As the worker does: a code from before its start would not last.
    void exportCode(std::string_view bytes) const {
        worker_.waitForPid();
        writeFileAtomically(codeFile(), bytes);
    }

    void publishState(const std::string& state) const {
        const Json status{{"state", state},
                          {"detail", "Tested."},
                          {"lastHeartbeatISO8601", "2026-01-05T09:30:00Z"},
                          {"supportsLiveCapture", true},
                          {"supportsOutbound", false}};
        writeFileAtomically(data_->path() / "runtime/worker-status.json", status.dump());
    }

    /// Waits until the console has shown so many codes.
    void waitForCodes(std::size_t count) const {
        console_->waitUntil([&] { return scannedCodes(console_->receivedLines()).size() == count; },
                            std::to_string(count) + " codes on the screen");
    }

    void expectFailure(const std::string& sentence) const {
        EXPECT_EQ(console_->waitForExit(), exitedWith(1));
        EXPECT_THAT(console_->standardError(), HasSubstr("check.console:1: " + sentence + "\n"));
        EXPECT_THAT(scannedCodes(console_->receivedLines()), IsEmpty());
    }

    TemporaryDirectory files_;
    WorkerScript worker_{idle_worker};
    std::shared_ptr<TemporaryDirectory> data_ = std::make_shared<TemporaryDirectory>();
    std::unique_ptr<BackendProcess> console_;
};

TEST_F(ConsoleQRCodeTest, CodeThatIsNotThereYetIsAwaited) {
    auto& console = start("qr within 30\n");
    console.waitUntil(
        [&] {
            return !console.receivedLines().empty() &&
                   console.rawOutput().find("> qr within 30\n") != std::string::npos;
        },
        "the command");
    exportCode(pngOf(largeQRCode()));
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.standardError();
    EXPECT_THAT(scannedCodes(console.receivedLines()), ElementsAre(largeQRCode().content));
}

TEST_F(ConsoleQRCodeTest, CodeThatNeverComesIsAFailureThatTellsTheWorkersState) {
    start("qr within 0.1\n");
    EXPECT_EQ(console_->waitForExit(), exitedWith(1));
    EXPECT_THAT(console_->standardError(),
                HasSubstr("check.console:1: Expected a QR code in " + codeFile().string() +
                          ", which did not come within 0.1 s; the worker's state is \""));
}

TEST_F(ConsoleQRCodeTest, EveryNewCodeIsShownUntilThePhoneHasScannedOne) {
    start("qr until linked within 30\nquit\n");
    exportCode(pngOf(smallQRCode()));
    waitForCodes(1);
    exportCode(pngOf(smallQRCode()));
    exportCode(pngOf(largeQRCode()));
    waitForCodes(2);
    publishState("linked");
    EXPECT_EQ(console_->waitForExit(), exitedWith(0)) << console_->standardError();
    EXPECT_THAT(scannedCodes(console_->receivedLines()),
                ElementsAre(smallQRCode().content, largeQRCode().content));
    EXPECT_THAT(console_->rawOutput(),
                HasSubstr("The worker is linked; there is no QR code to scan.\n> quit\n"));
}

TEST_F(ConsoleQRCodeTest, FileThatIsNoPictureIsRefusedInASentence) {
    start("qr\n");
    exportCode("<html>");
    expectFailure(codeFile().string() + " is not a PNG picture.");
}

TEST_F(ConsoleQRCodeTest, PictureWithoutACodeIsRefusedInASentence) {
    start("qr\n");
    exportCode(blankPng(264, 264));
    expectFailure(codeFile().string() +
                  " is a picture without a QR code that can be read; look at it with a viewer.");
}

TEST_F(ConsoleQRCodeTest, HugePictureIsRefusedInASentence) {
    start("qr\n");
    exportCode(blankPng(5000, 5000));
    expectFailure(codeFile().string() + " is too large a picture to be a QR code.");
}

TEST_F(ConsoleQRCodeTest, NothingButAFileIsOpened) {
    start("qr\n");
    worker_.waitForPid();
    ASSERT_EQ(::mkfifo(codeFile().c_str(), 0600), 0);
    EXPECT_EQ(console_->waitForExit(), exitedWith(1));
    EXPECT_THAT(console_->standardError(), HasSubstr("check.console:1: Cannot read "));
}

TEST_F(ConsoleQRCodeTest, BareLinesNameTheFile) {
    auto& console = start("qr\n", {"--json"});
    exportCode(pngOf(smallQRCode()));
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    const auto lines = console.receivedLines();
    const auto found = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("workerQRCodeFile") != std::string::npos;
    });
    ASSERT_NE(found, lines.end());
    EXPECT_EQ(Json::parse(*found), (Json{{"workerQRCodeFile", codeFile().string()}}));
}

TEST_F(ConsoleQRCodeTest, SummaryTellsWhatWasDone) {
    auto& console = start("# shows the code\nqr\nlisten test 'Smoke test'\n", {"--summary"});
    exportCode(pngOf(smallQRCode()));
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), HasSubstr("3 steps done, 0 failed, "));
    EXPECT_THAT(console.rawOutput(), HasSubstr(" s  qr\n"));
    EXPECT_THAT(console.rawOutput(), testing::EndsWith(" s  listen test 'Smoke test'\n"));
}

TEST_F(ConsoleQRCodeTest, SummaryMarksTheCommandThatFailed) {
    auto& console = start("connect\nqr within 0.1\nquit\n", {"--summary"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.rawOutput(), HasSubstr("2 steps done, 1 failed, "));
    EXPECT_THAT(console.rawOutput(), testing::EndsWith(" s  qr within 0.1 (failed)\n"));
}

TEST_F(ConsoleQRCodeTest, BareLinesHaveNoSummary) {
    auto& console = start("connect\nexpect stateChanged.connected\n", {"--summary", "--json"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), Not(HasSubstr("steps done")));
}

}  // namespace
}  // namespace brindle::test

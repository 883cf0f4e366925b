#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "backend/InboundDelivery.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Json.h"
#include "support/QuickFileManager.h"

/// Whatever happens to "inbound", a delivery that remembers what waits delivers what one does that remembers
/// nothing.
namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using test::BackendParts;
using test::inboundRecord;
using test::namesIn;

/// The coarsest tick that is still told apart.
constexpr milliseconds tick{500};

/// The real file system, where times come from a clock that a test turns, in coarse ticks.
class CoarseFiles final : public test::ForwardingFileManager {
  public:
    CoarseFiles(FileManager& real, const Clock& clock) : ForwardingFileManager(real), clock_(clock) {}

    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        return std::make_unique<Coarse>(ForwardingFileManager::openDirectory(path), *this, path);
    }
    /// What is there has changed now.
    void touch(const std::string& path) {
        if (const auto found = attributes(path)) times_[found->inode] = now();
    }

  private:
    class Coarse final : public test::ForwardingDirectory {
      public:
        Coarse(std::unique_ptr<Directory> next, CoarseFiles& files, std::string path)
            : ForwardingDirectory(std::move(next)), files_(files), path_(std::move(path)) {}

        FileAttributes attributes() override { return files_.timed(ForwardingDirectory::attributes()); }
        std::optional<FileAttributes> attributesOf(const std::string& name) override {
            auto found = ForwardingDirectory::attributesOf(name);
            if (found) found = files_.timed(*found);
            return found;
        }
        FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override {
            return files_.timed(ForwardingDirectory::readFile(entry, content));
        }
        void moveItem(const std::string& name, const std::string& to) override {
            ForwardingDirectory::moveItem(name, to);
            files_.touch(path_);
        }

      private:
        CoarseFiles& files_;
        std::string path_;
    };

    std::chrono::system_clock::time_point now() const {
        const auto now = clock_.now().time_since_epoch();
        return std::chrono::system_clock::time_point(now - now % tick);
    }
    FileAttributes timed(FileAttributes found) {
        found.statusChange = found.modification = times_[found.inode];
        return found;
    }

    const Clock& clock_;
    std::map<ino_t, std::chrono::system_clock::time_point> times_;
};

/// One data directory to which everything is done.
class Side {
  public:
    Side() { parts_.state.setConnected(true); }

    std::string at(const std::string& name) const { return parts_.directory.inbound + "/" + name; }
    void changed(const std::string& name) {
        files_.touch(at(name));
        files_.touch(parts_.directory.inbound);
    }
    void put(const std::string& name, const std::string& content) {
        parts_.putInbound(name, content);
        changed(name);
    }
    void writeInPlace(const std::string& name, const std::string& content) {
        const bool isNew = !fs::exists(at(name));
        std::ofstream(at(name)) << content;
        files_.touch(at(name));
        if (isNew) changed(name);
    }
    void remove(const std::string& name) {
        fs::remove(at(name));
        files_.touch(parts_.directory.inbound);
    }
    void rename(const std::string& from, const std::string& to) {
        std::error_code ignored;
        fs::rename(at(from), at(to), ignored);
        changed(to);
    }
    void link(const std::string& from, const std::string& to) {
        std::error_code ignored;
        fs::create_hard_link(at(from), at(to), ignored);
        changed(to);
    }
    void replaceDirectory() {
        fs::rename(parts_.directory.inbound, parts_.directory.inbound + std::to_string(replaced_++));
        fs::create_directory(parts_.directory.inbound);
        files_.touch(parts_.directory.inbound);
    }

    BackendParts& parts() { return parts_; }
    InboundDelivery::Uses uses() { return parts_.forDelivery(files_); }
    /// All that can be seen from outside.
    std::vector<std::vector<std::string>> outcome() const {
        return {namesIn(parts_.directory.inbound), namesIn(parts_.directory.processed),
                namesIn(parts_.directory.rejected)};
    }
    std::string output() const { return parts_.streams.text().output; }

  private:
    BackendParts parts_;
    test::QuickFileManager real_;
    CoarseFiles files_{real_, parts_.clock};
    int replaced_ = 0;
};

const std::vector<std::string> chats{"room", "other", "third"};

/// Draws what happens next and does it to both sides.
class Happenings {
  public:
    Happenings(unsigned seed, Side& one, Side& other) : random_(seed), sides_{&one, &other} {}

    /// Whether the delivery hears of it at once, as it does of what is written in its place.
    bool next() {
        bool isTold = false;
        const auto name = "m" + std::to_string(draw(12)) + ".json";
        const auto another = "m" + std::to_string(draw(12)) + ".json";
        // Of various lengths, and each message another one.
        const auto record = [&] {
            const auto chat = chats.at(draw(chats.size()));
            auto each = inboundRecord(std::to_string(++messages_), chat, chat);
            each["text"] = std::string(draw(3), 'x');
            return each.dump();
        }();
        switch (draw(16)) {
            case 0:
            case 1:
            case 2:
            case 3:
                both([&](Side& side) { side.put(name, record); });
                break;
            case 4:
            case 5:
                both([&](Side& side) { side.writeInPlace(name, record); });
                isTold = draw(2) == 0;
                if (!isTold) pass(std::chrono::minutes{1});
                break;
            case 6:
                both([&](Side& side) { side.remove(name); });
                break;
            case 7:
                both([&](Side& side) { side.rename(name, another); });
                break;
            case 8:
                both([&](Side& side) { side.link(name, another); });
                break;
            case 9: {
                const auto chat = chats.at(draw(chats.size()));
                listenTo(BridgeConversationScope{chat, chat});
                break;
            }
            case 10:
                both([](Side& side) { side.parts().state.setConnected(false); });
                break;
            case 11:
                if (draw(4) == 0) both([](Side& side) { side.replaceDirectory(); });
                break;
            case 12:
                if (draw(4) == 0) both([&](Side& side) { side.put(name, "no record"); });
                break;
            default:
                both([](Side& side) { side.parts().state.setConnected(true); });
        }
        pass(milliseconds{draw(4) * 400});
        return isTold;
    }

    void listenTo(const BridgeScope& scope) {
        both([&](Side& side) { side.parts().state.setActiveScope(scope); });
    }
    void pass(milliseconds time) {
        both([&](Side& side) { side.parts().clock.pass(time); });
    }

  private:
    std::size_t draw(std::size_t below) { return random_() % below; }
    void both(const std::function<void(Side&)>& happening) {
        for (auto* side : sides_) happening(*side);
    }

    std::mt19937 random_;
    std::array<Side*, 2> sides_;
    int messages_ = 0;
};

class WaitingPropertyTests : public testing::TestWithParam<unsigned> {};

TEST_P(WaitingPropertyTests, MemoryChangesNothingThatIsDelivered) {
    constexpr int steps = 600;
    Side remembering;
    Side forgetting;
    Happenings happenings(GetParam(), remembering, forgetting);
    happenings.listenTo(BridgeConversationScope{"room", "room"});
    InboundDelivery delivery(remembering.uses());
    for (int step = 0; step < steps; ++step) {
        const bool isTold = happenings.next();
        isTold ? delivery.drainWhatHasChanged() : delivery.drainUnlessUnderWay();
        InboundDelivery(forgetting.uses()).drainInboundDirectory();
        // The fresh names of what was taken twice are random.
        ASSERT_EQ(remembering.outcome().front(), forgetting.outcome().front()) << "step " << step;
        ASSERT_EQ(remembering.outcome().at(1).size(), forgetting.outcome().at(1).size()) << "step " << step;
        ASSERT_EQ(remembering.outcome().at(2).size(), forgetting.outcome().at(2).size()) << "step " << step;
    }
    EXPECT_EQ(remembering.output(), forgetting.output());
    EXPECT_GT(remembering.outcome().at(1).size(), 20U) << "too little was delivered to prove anything";
}

INSTANTIATE_TEST_SUITE_P(Seeds, WaitingPropertyTests, testing::Range(0U, 6U));

}  // namespace
}  // namespace brindle

#include "backend/InboundWatch.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Json.h"
#include "support/QuickFileManager.h"
#include "support/Waiting.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::BackendParts;
using test::inboundRecord;
using test::namesIn;
using test::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

/// Runs work on the queue and waits for it.
void on(SerialQueue& queue, const std::function<void()>& work) {
    std::promise<void> done;
    queue.post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

/// A delivery with a watch, and nobody who polls.
class InboundWatchTests : public testing::Test {
  protected:
    explicit InboundWatchTests(FileManager* files = nullptr)
        : delivery_(parts_.forDelivery(files != nullptr ? *files : parts_.files)),
          watch_({.directory = parts_.directory,
                  .fileManager = files != nullptr ? *files : parts_.files,
                  .delivery = delivery_,
                  .queue = parts_.queue}) {
        parts_.state.setConnected(true);
        parts_.state.setActiveScope(BridgeConversationScope{"room", "Room"});
        // Long after whatever the tests do to files.
        parts_.clock.turnTo(std::chrono::system_clock::now() + std::chrono::hours{24});
    }
    void TearDown() override {
        parts_.queue.stop(std::chrono::minutes{1});
        parts_.queue.join();
    }

    void keepUp() {
        on(parts_.queue, [this] { watch_.keepUp(); });
    }
    void beat() {
        on(parts_.queue, [this] {
            watch_.keepUp();
            delivery_.drainUnlessUnderWay();
        });
    }
    void put(const std::string& id) { parts_.putInbound(id + ".json", inboundRecord(id).dump()); }
    void putForAnotherChat(const std::string& id) {
        parts_.putInbound(id + ".json", inboundRecord(id, "other", "Other").dump());
    }
    std::vector<std::string> processed() const { return namesIn(parts_.directory.processed); }
    void awaitDelivered(const std::string& id) const {
        waitUntil([&] { return fs::exists(parts_.directory.processed + "/" + id + ".json"); },
                  "the delivery of " + id);
    }

    BackendParts parts_;
    InboundDelivery delivery_;
    InboundWatch watch_;
};

TEST_F(InboundWatchTests, RecordIsDeliveredWhenItComesWithoutAnyBeat) {
    keepUp();
    put("a");
    awaitDelivered("a");
    put("b");
    awaitDelivered("b");
}

TEST_F(InboundWatchTests, RecordThatIsWrittenInItsPlaceIsDeliveredWhenItIsClosed) {
    putForAnotherChat("a");
    beat();
    beat();
    std::ofstream(parts_.directory.inbound + "/a.json") << inboundRecord("a").dump(7);
    awaitDelivered("a");
}

TEST_F(InboundWatchTests, DirectoryThatTakesThePlaceOfTheOldOneIsWatchedFromTheNextBeatOn) {
    beat();
    fs::rename(parts_.directory.inbound, parts_.directory.inbound + "-old");
    fs::create_directory(parts_.directory.inbound);
    put("a");
    beat();
    awaitDelivered("a");
    put("b");
    awaitDelivered("b");
}

TEST_F(InboundWatchTests, DirectoryThatComesBackIsWatchedFromTheNextBeatOn) {
    beat();
    fs::remove(parts_.directory.inbound);
    keepUp();
    fs::create_directory(parts_.directory.inbound);
    keepUp();
    put("a");
    awaitDelivered("a");
}

TEST_F(InboundWatchTests, WhatWasThereBeforeIsFoundByTheBeatThatBeginsToWatch) {
    putForAnotherChat("a");
    on(parts_.queue, [this] { delivery_.drainUnlessUnderWay(); });
    std::ofstream(parts_.directory.inbound + "/a.json") << inboundRecord("a").dump(7);
    beat();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

class UnwatchedTests : public InboundWatchTests, public testing::WithParamInterface<int> {};

TEST_P(UnwatchedTests, WithoutAWatchThePollerDeliversAloneAndNobodyComplains) {
    put("a");
    on(parts_.queue, [this] {
        parts_.files.set({.operation = GetParam(), .code = ENOSPC, .action = "watch"});
        watch_.keepUp();
        EXPECT_TRUE(parts_.files.wasMet());
        delivery_.drainUnlessUnderWay();
        parts_.files.clear();
    });
    EXPECT_THAT(processed(), ElementsAre("a.json"));
    EXPECT_EQ(parts_.streams.text().error, "");
    keepUp();
    put("b");
    awaitDelivered("b");
}

/// Whether the watch cannot be made, or cannot be set to the directory.
INSTANTIATE_TEST_SUITE_P(EachStep, UnwatchedTests, testing::Values(1, 2));

/// News that a test makes up.
class ToldFiles final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    std::unique_ptr<DirectoryWatch> makeDirectoryWatch() override {
        ++watches_;
        return std::make_unique<Watch>(*this);
    }
    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        return std::make_unique<Listed>(ForwardingFileManager::openDirectory(path), *this);
    }

    void tell(DirectoryNews news) {
        {
            const std::lock_guard hold(lock_);
            news_ = std::move(news);
        }
        ::eventfd_write(sign_.get(), 1);
        waitUntil([this] { return isTaken(); }, "the news to be taken");
    }
    /// As when memory is wanted for what has been taken.
    void loseNextNews() { areLost_ = true; }
    int listings() const { return listings_; }
    int watches() const { return watches_; }

  private:
    class Watch final : public DirectoryWatch {
      public:
        explicit Watch(ToldFiles& files) : files_(files) {}
        ~Watch() override { --files_.watches_; }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        bool follow(const std::string&) override { return std::exchange(isNew_, false); }
        int descriptor() const override { return files_.sign_.get(); }
        DirectoryNews takeNews() override { return files_.take(); }

      private:
        ToldFiles& files_;
        bool isNew_ = true;
    };
    class Listed final : public test::ForwardingDirectory {
      public:
        Listed(std::unique_ptr<Directory> next, ToldFiles& files)
            : ForwardingDirectory(std::move(next)), files_(files) {}
        DirectoryListing list() override {
            ++files_.listings_;
            return ForwardingDirectory::list();
        }

      private:
        ToldFiles& files_;
    };

    DirectoryNews take() {
        const std::lock_guard hold(lock_);
        eventfd_t count = 0;
        ::eventfd_read(sign_.get(), &count);
        auto news = std::exchange(news_, {});
        if (areLost_.exchange(false)) throw std::bad_alloc();
        return news;
    }
    bool isTaken() {
        const std::lock_guard hold(lock_);
        return news_.names.empty() && !news_.isCutOff;
    }

    Descriptor sign_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::mutex lock_;
    DirectoryNews news_;
    std::atomic<bool> areLost_ = false;
    std::atomic<int> listings_ = 0;
    std::atomic<int> watches_ = 0;
};

struct ToldParts {
    test::QuickFileManager real;
    ToldFiles files{real};
};

class ToldTests : private ToldParts, public InboundWatchTests {
  protected:
    ToldTests() : InboundWatchTests(&told()) {}

    /// How often "inbound" is listed because of that news.
    int listingsAfter(const DirectoryNews& news) {
        const int before = told().listings();
        told().tell(news);
        // Behind the work that the news has caused.
        on(parts_.queue, [] {});
        return told().listings() - before;
    }
    ToldFiles& told() { return ToldParts::files; }
};

TEST_F(ToldTests, WatchThatHoldsIsNoReasonToLookAgain) {
    beat();
    const int before = told().listings();
    for (int i = 0; i < 3; ++i) beat();
    EXPECT_EQ(told().listings(), before);
}

TEST_F(ToldTests, FloodOfNewsIsOneLook) {
    beat();
    put("a");
    EXPECT_EQ(listingsAfter({.names = std::vector<std::string>(1000, "a.json")}), 1);
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(ToldTests, NewsThatIsCutOffIsALookAtEverything) {
    putForAnotherChat("a");
    beat();
    std::ofstream(parts_.directory.inbound + "/a.json") << inboundRecord("a").dump(7);
    EXPECT_EQ(listingsAfter({.names = {}, .isCutOff = true}), 1);
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(ToldTests, NewsThatIsLostIsALookAtEverythingAtTheNextBeat) {
    putForAnotherChat("a");
    beat();
    std::ofstream(parts_.directory.inbound + "/a.json") << inboundRecord("a").dump(7);
    told().loseNextNews();
    EXPECT_EQ(listingsAfter({.names = {"a.json"}}), 0);
    beat();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(ToldTests, NewsOfOtherFilesIsNoReasonToLook) {
    beat();
    put("a");
    EXPECT_EQ(listingsAfter({.names = {".brindle-abcdef", ".a.json", "a.txt", "A.JSON"}}), 0);
}

TEST_F(ToldTests, WhereVeryMuchWaitsNewsIsLeftToTheNextBeat) {
    constexpr int very_many = 1001;
    for (int i = 0; i < very_many; ++i) putForAnotherChat("w" + std::to_string(i));
    beat();
    put("a");
    EXPECT_EQ(listingsAfter({.names = {"a.json"}}), 0);
    beat();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(ToldTests, NothingIsWatchedWhileNothingCanBeDelivered) {
    parts_.state.setConnected(false);
    keepUp();
    EXPECT_EQ(told().watches(), 0);
    parts_.state.setConnected(true);
    keepUp();
    EXPECT_EQ(told().watches(), 1);
    parts_.state.setActiveScope(BridgeTestOnlyScope{"Room"});
    keepUp();
    waitUntil([this] { return told().watches() == 0; }, "the watch to end");
}

TEST_F(ToldTests, NewsThatComesWhenNobodyListensAnyMoreMovesNothing) {
    beat();
    put("a");
    parts_.state.setActiveScope(std::nullopt);
    EXPECT_EQ(listingsAfter({.names = {"a.json"}}), 0);
    EXPECT_THAT(processed(), IsEmpty());
}

}  // namespace
}  // namespace brindle

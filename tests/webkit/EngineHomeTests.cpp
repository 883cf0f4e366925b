#include "worker/webkit/EngineHome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

TEST(EngineHomes, OfWorkersThatStartTogetherAreAllThere) {
    constexpr int workers = 8;
    constexpr int starts = 300;
    const TemporaryDirectory folder;
    std::atomic<int> missing = 0;
    {
        std::vector<std::jthread> threads;
        for (int worker = 0; worker < workers; ++worker) {
            threads.emplace_back([&] {
                for (int start = 0; start < starts; ++start) {
                    const EngineHome home(folder.path());
                    std::this_thread::yield();
                    if (!fs::is_directory(home.path())) ++missing;
                }
            });
        }
    }
    EXPECT_EQ(missing, 0);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

}  // namespace
}  // namespace brindle::test

#include "backend/BackendState.h"

#include <gtest/gtest.h>

#include <thread>

namespace brindle {
namespace {

TEST(BackendStateTests, StartsDisconnectedWithoutScopeAndWorker) {
    const BackendState state;
    const auto snapshot = state.takeSnapshot();
    EXPECT_FALSE(snapshot.isConnected);
    EXPECT_FALSE(snapshot.activeScope.has_value());
    EXPECT_EQ(snapshot.workerLaunchSnapshot.configuredExecutablePath, std::nullopt);
    EXPECT_EQ(snapshot.workerLaunchSnapshot.state, "not_configured");
    EXPECT_EQ(snapshot.workerLaunchSnapshot.detail, "No managed WhatsApp worker configured.");
    EXPECT_FALSE(snapshot.workerLaunchSnapshot.processRunning);
}

TEST(BackendStateTests, RemembersConnection) {
    BackendState state;
    state.setConnected(true);
    EXPECT_TRUE(state.isConnected());
    EXPECT_TRUE(state.takeSnapshot().isConnected);
    state.setConnected(false);
    EXPECT_FALSE(state.isConnected());
}

TEST(BackendStateTests, RemembersLastScope) {
    BackendState state;
    state.setActiveScope(BridgeConversationScope{"I", "T"});
    state.setActiveScope(BridgeThreadScope{"J", std::nullopt});
    EXPECT_EQ(std::get<BridgeThreadScope>(*state.activeScope()).id, "J");
    EXPECT_EQ(std::get<BridgeThreadScope>(*state.takeSnapshot().activeScope).id, "J");
    state.setActiveScope(std::nullopt);
    EXPECT_FALSE(state.activeScope().has_value());
}

TEST(BackendStateTests, RemembersWorker) {
    BackendState state;
    state.setWorkerState(
        {.configuredExecutablePath = "/w", .state = "launching", .detail = "D", .processRunning = true});
    EXPECT_EQ(state.workerConfiguredExecutablePath(), "/w");
    const auto worker = state.takeSnapshot().workerLaunchSnapshot;
    EXPECT_EQ(worker.configuredExecutablePath, "/w");
    EXPECT_EQ(worker.state, "launching");
    EXPECT_EQ(worker.detail, "D");
    EXPECT_TRUE(worker.processRunning);
}

TEST(BackendStateTests, SnapshotNeverMixesTwoWorkerStates) {
    BackendState state;
    const auto workerNamed = [](const std::string& name) {
        return ManagedWhatsAppWorkerLaunchSnapshot{
            .configuredExecutablePath = name, .state = name, .detail = name, .processRunning = name == "a"};
    };
    state.setWorkerState(workerNamed("a"));
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) state.setWorkerState(workerNamed(i % 2 == 0 ? "b" : "a"));
    });
    int mixed = 0;
    for (int i = 0; i < 2000; ++i) {
        const auto worker = state.takeSnapshot().workerLaunchSnapshot;
        const bool whole = worker.configuredExecutablePath == worker.state && worker.detail == worker.state &&
                           worker.processRunning == (worker.state == "a");
        if (!whole) ++mixed;
    }
    writer.join();
    EXPECT_EQ(mixed, 0);
}

}  // namespace
}  // namespace brindle

#include "exchange/ExchangeWords.h"

#include <gtest/gtest.h>

namespace brindle {
namespace {

// Workers and observers that are not part of this system know these words too.
TEST(ExchangeWordsTests, WorkerStatesAreTheWordsThatOthersKnow) {
    EXPECT_EQ(worker_state::not_configured, "not_configured");
    EXPECT_EQ(worker_state::misconfigured, "misconfigured");
    EXPECT_EQ(worker_state::launching, "launching");
    EXPECT_EQ(worker_state::launch_failed, "launch_failed");
    EXPECT_EQ(worker_state::exited, "exited");
    EXPECT_EQ(worker_state::starting, "starting");
    EXPECT_EQ(worker_state::waiting_for_qr, "waiting_for_qr");
    EXPECT_EQ(worker_state::linked, "linked");
    EXPECT_EQ(worker_state::activating_chat, "activating_chat");
    EXPECT_EQ(worker_state::watching_chat, "watching_chat");
    EXPECT_EQ(worker_state::wrong_chat, "wrong_chat");
    EXPECT_EQ(worker_state::no_active_chat, "no_active_chat");
    EXPECT_EQ(worker_state::error, "error");
    EXPECT_EQ(worker_state::stopped, "stopped");
}

TEST(ExchangeWordsTests, ConnectionAndScopesAreNamedAsOnTheBridge) {
    EXPECT_EQ(connection_word::connected, "connected");
    EXPECT_EQ(connection_word::disconnected, "disconnected");
    EXPECT_EQ(scope_kind::conversation, "conversation");
    EXPECT_EQ(scope_kind::channel, "channel");
    EXPECT_EQ(scope_kind::thread, "thread");
    EXPECT_EQ(scope_kind::test_only, "testOnly");
}

TEST(ExchangeWordsTests, ASelfTestAndAnUnknownKindAreNoChats) {
    EXPECT_TRUE(scope_kind::isChat("conversation"));
    EXPECT_TRUE(scope_kind::isChat("channel"));
    EXPECT_TRUE(scope_kind::isChat("thread"));
    EXPECT_FALSE(scope_kind::isChat("testOnly"));
    EXPECT_FALSE(scope_kind::isChat("Conversation"));
    EXPECT_FALSE(scope_kind::isChat(""));
}

}  // namespace
}  // namespace brindle

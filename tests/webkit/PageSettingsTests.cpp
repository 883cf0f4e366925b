#include <gtest/gtest.h>

#include <string>

#include "support/EnginePage.h"
#include "support/LoopbackServer.h"

namespace brindle::test {
namespace {

class PageSettings : public testing::Test {
  protected:
    void SetUp() override { page_.loadAddress(server_.url()); }

    std::string typeOf(const std::string& expression) {
        return page_.evaluate("typeof " + expression).value_or("nothing");
    }
    std::string text(const std::string& expression) {
        return page_.evaluate("String(" + expression + ")").value_or("nothing");
    }

  private:
    LoopbackServer server_{[](const auto&) {
        return LoopbackServer::Response{.body = "<body><audio id=sound></audio></body>"};
    }};
    EnginePage page_;
};

TEST_F(PageSettings, WhatAClientDoesNotNeedIsNotThere) {
    // Some of it no engine would give a page of another origin.
    ASSERT_EQ(text("isSecureContext"), "true");
    for (const char* name :
         {"navigator.getGamepads", "navigator.mediaDevices", "navigator.mediaSession", "navigator.wakeLock",
          "AudioContext", "AudioDecoder", "VideoDecoder", "MediaRecorder", "RTCPeerConnection",
          "speechSynthesis", "document.documentElement.requestFullscreen"}) {
        EXPECT_EQ(typeOf(name), "undefined") << name;
    }
    EXPECT_EQ(text("document.createElement('canvas').getContext('webgl')"), "null");
}

TEST_F(PageSettings, ElementsForSoundAreThereAndNoDecoderIs) {
    EXPECT_EQ(typeOf("sound.play"), "function");
    for (const char* type : {"audio/ogg", "audio/wav", "audio/mpeg", "video/mp4", "video/webm"}) {
        EXPECT_EQ(text("new Audio().canPlayType('" + std::string(type) + "')"), "") << type;
    }
}

TEST_F(PageSettings, WhatAClientNeedsIsThere) {
    for (const char* name : {"indexedDB", "localStorage", "navigator.serviceWorker", "Worker", "WebSocket",
                             "WebAssembly", "crypto.subtle", "BroadcastChannel", "Notification",
                             "document.createElement('canvas').getContext('2d')"}) {
        EXPECT_NE(typeOf(name), "undefined") << name;
    }
}

}  // namespace
}  // namespace brindle::test

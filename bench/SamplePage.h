#pragma once

#include <string>

#include "support/LoopbackServer.h"

namespace brindle::bench {

/// The sample web client on a server of this machine, linked at once and without traffic of its own, with a
/// script of the bench in it.
class SamplePage {
  public:
    /// The script runs once the chats are shown. At most `renderedMessages` of a chat are in the document.
    explicit SamplePage(std::string script, int renderedMessages);

    std::string url() const;

  private:
    test::LoopbackServer::Response answer(const test::LoopbackServer::Request& request) const;

    std::string script_;
    int renderedMessages_;
    /// Last, so that it stops answering before anything else goes.
    test::LoopbackServer server_;
};

/// The chat of the bench.
inline const std::string bench_chat = "Bench Room";

/// Statements that fill the chat of the bench with that many messages, two of three inbound, and open it.
std::string conversationScript(int messages);

/// Statements that change a few characters of the open chat's last message or of the chat list; the change is
/// a function `change(number)`.
enum class ChangedPart { message, chatList };
std::string changeScript(ChangedPart part);

/// Statements that open such a chat of `messages` in which that many small changes a second happen; 0 for
/// none.
std::string changingScript(int messages, int changesASecond);
/// How many messages the chat has in which they happen.
constexpr int changing_messages = 300;

}  // namespace brindle::bench

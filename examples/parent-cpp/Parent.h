#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "Descriptor.h"
#include "Helper.h"
#include "Journal.h"

/// What no further try can mend.
class GivenUp : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A text as it may be shown: messages come from strangers, and a terminal obeys control characters.
std::string shown(const std::string& text);
/// Says something on standard error.
void say(const std::string& text);

/// A parent application in small: keeps a helper running, shows what comes into one chat and sends what is
/// typed.
class Parent {
  public:
    struct Settings {
        std::string program;
        /// A private directory for the token, the messages and the data directory.
        std::string state;
        std::string chatId;
        std::string title;
    };

    explicit Parent(Settings settings);

    /// Until a signal or the end of standard input asks for the end. Throws GivenUp and std::exception.
    void run();

  private:
    enum class Outcome { mustEnd, helperIsLost };

    Outcome serve();
    Outcome wait(std::chrono::milliseconds time);
    bool isAskedToEnd(std::chrono::steady_clock::time_point until);
    void readTyped();
    void hear(const nlohmann::json& envelope);
    void greet(const nlohmann::json& hello);
    void sendTyped();
    bool workerIsLost();

    Settings settings_;
    Descriptor signals_;
    Journal journal_;
    Lines typed_;
    bool isInputOver_ = false;
    bool isGreeted_ = false;
    bool hasEnded_ = false;
    std::deque<std::string> unsent_;
    /// The helper's status as it was last seen.
    nlohmann::json worker_;
    /// The last two states that were said.
    std::array<std::string, 2> words_;
    std::unique_ptr<Helper> helper_;
};

#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Descriptor.h"

/// Cuts what is read into lines. Only a line feed ends a line.
class Lines {
  public:
    using Take = std::function<void(const std::string&)>;

    explicit Lines(Take take) : take_(std::move(take)) {}
    /// Reads what is there. False at the end, where a last line may lack its line feed.
    bool readFrom(int descriptor);

  private:
    Take take_;
    std::string rest_;
};

/// One life of the helper, from its launch token to its end.
class Helper {
  public:
    struct Handlers {
        std::function<void(const nlohmann::json&)> envelope;
        Lines::Take diagnostic;
    };

    /// Starts it. Throws std::system_error.
    Helper(const std::string& program, const std::string& state, Handlers handlers);
    /// Ends it when nobody has.
    ~Helper();
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// What to wait for: append it to a poll() set, then hand the set to `work`.
    void addTo(std::vector<pollfd>& set) const;
    /// Reads and writes what can be read and written. False once the helper has nothing more to say.
    bool work(const std::vector<pollfd>& set);
    /// Queues one request; `work` writes it.
    void request(const std::string& name, nlohmann::json fields = nlohmann::json::object());
    std::chrono::steady_clock::duration age() const { return std::chrono::steady_clock::now() - start_; }
    /// Closes the helper's input when all is written, reads what it still says, and returns how it ended, as
    /// waitpid() does.
    int end();

  private:
    void makeToken();
    std::vector<std::string> environment() const;
    void spawn(const std::string& program);
    void write();
    /// Works until the helper has nothing more to say, or the time is over. Whether it has.
    bool workFor(std::chrono::milliseconds time);

    std::string state_;
    std::string token_;
    std::string tokenFile_;
    pid_t process_ = -1;
    int status_ = 0;
    Descriptor input_, output_, error_;
    Lines envelopes_, diagnostics_;
    std::string unwritten_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

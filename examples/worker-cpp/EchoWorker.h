#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Files.h"

/// Where everything lies in the data directory, as far as a worker is concerned.
struct Places {
    explicit Places(const std::string& dataDirectory);

    std::string inbound, outbound, processed, rejected;
    std::string sent, refused;
    std::string control, status, pid;
};

/// The chat that the parent listens to.
struct Chat {
    std::string kind;
    std::string id;
    std::string title;
};

/// A native worker without a messaging service behind it: it answers each message with its echo.
///
/// Put your service into `send`, and write what the service receives the way `receive` does. All else is what
/// every worker has to do, and can stay.
class EchoWorker {
  public:
    /// `mustEnd` is asked between two records: nobody waits for a worker that was asked to end, so that even
    /// a long round breaks off. Throws files::Failure.
    EchoWorker(const std::string& dataDirectory, std::string platform, std::function<bool()> mustEnd);
    /// Takes this worker's own files away.
    ~EchoWorker();
    EchoWorker(const EchoWorker&) = delete;
    EchoWorker& operator=(const EchoWorker&) = delete;

    const Places& places() const { return places_; }
    /// Writes the process id and the first status. Throws files::Failure.
    void start();
    /// Reads what to watch, sends what waits and publishes a fresh status. Never fails: what goes wrong is
    /// said once on standard error and tried again in the next round.
    void round();

  private:
    void followControl();
    void sendWaiting();
    std::optional<nlohmann::json> outgoing(const std::string& name);
    void send(const nlohmann::json& record);
    void receive(const nlohmann::json& record);
    std::set<std::string> echoedAmong(const std::vector<std::string>& waiting) const;
    void publishStatus();
    void removeOwnFiles() noexcept;

    Places places_;
    std::string platform_;
    std::function<bool()> mustEnd_;
    files::AscendingNames names_;
    /// None while there is nothing to watch.
    std::optional<Chat> watched_;
    /// Messages that are echoed and not moved away yet; not known before the first one waits.
    std::optional<std::set<std::string>> echoed_;
    std::string problems_;
};

/// One line in one write, so that the helper passes it on whole. Nobody may be reading any more.
void say(int descriptor, const std::string& text);

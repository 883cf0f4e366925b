#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "storm/Messages.h"

namespace brindle::test {

/// What one life of the helper left behind, apart from its files.
struct LifeEnd {
    /// The lines that the parent had taken; the last may be a part of one.
    std::string output;
    /// How many messages may lie in "inbound" although they were delivered: the helper or its parent was
    /// killed between the two.
    std::size_t mayBeRepeated = 0;
    /// Whether the life went to its end, so that nothing is left to be done.
    bool isWhole = false;
    /// Whether a worker takes what is sent.
    bool hasNativeWorker = false;
};

/// Keeps account of every message of a round: what was promised, where it lies, what the parent has got.
class Ledger {
  public:
    explicit Ledger(std::filesystem::path dataDirectory);

    /// A whole record of the harness lies in "inbound".
    void placed(const Message& message) { known_.insert(message); }
    /// A request was given to the parent; none of a message that was never requested may turn up.
    void requested(const Message& message) {
        requested_.insert(message);
        requestedNow_.push_back(message);
    }
    /// The next error envelope of this life tells that all requests so far have been carried out.
    void marked() { marks_.push_back(requestedNow_.size()); }

    /// Settles a life whose processes have all ended; what is wrong.
    std::vector<std::string> settle(const LifeEnd& end);

    std::size_t delivered() const { return received_.size(); }
    std::size_t sent() const { return stored_.size(); }
    std::size_t repeated() const { return repeated_; }
    std::size_t temporaries() const { return temporaries_; }

  private:
    using Places = std::map<Message, std::vector<std::string>>;

    void startLife();
    void readOutput(const LifeEnd& end);
    void takeLine(const std::string& line);
    void takeEvent(const Message& message);
    void takeError();
    void readDirectory(const std::string& directory);
    void takeFile(const std::string& directory, const std::string& name);
    void checkPlaces();
    void checkInbound(const LifeEnd& end);
    void checkOutbound(const LifeEnd& end);
    void checkLeftovers();
    void report(const Message& message, const std::string& what);
    bool lies(const Message& message, const std::string& directory) const;

    std::filesystem::path root_;
    std::set<Message> known_;  ///< Whole records that have been seen in "inbound" or placed there.
    std::set<Message> requested_;
    std::set<Message> acknowledged_;
    std::set<Message> stored_;  ///< Requests whose record has been seen.
    std::set<Message> received_;
    std::set<Message> filedAway_;  ///< In "processed" at the end of an earlier life.
    std::map<std::string, Message> messageOfFile_;
    std::size_t repeated_ = 0;
    std::size_t temporaries_ = 0;

    // Of the present life.
    std::vector<Message> requestedNow_;
    /// How many requests stood before each mark.
    std::vector<std::size_t> marks_;
    std::size_t errors_ = 0;
    std::set<Message> receivedNow_;
    std::map<Series, Message> last_;
    Places places_;
    std::vector<std::string> problems_;
};

}  // namespace brindle::test

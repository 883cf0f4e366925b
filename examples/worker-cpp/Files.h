#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

/// What every worker does with the files of the data directory.
namespace files {

/// Something failed that may work later: a full disk, a file that cannot be read at the moment.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    /// "Cannot VERB PATH: " and the reason of the error number.
    Failure(const std::string& verb, const std::string& path, int error);

    int error() const { return error_; }

  private:
    int error_ = 0;
};

/// A record that will never get better.
class Unusable : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A file descriptor that is closed with its object.
class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return number_; }

  private:
    int number_;
};

/// Messages are flushed to the disk before anybody sees them; what is written anew every second need not be.
enum class Flush { no, yes };

/// Makes the file appear in one step: readers see the old content or the new, never a part. Throws Failure.
void write(const std::string& path, const std::string& content, Flush flush);
/// The same with a document.
void writeRecord(const std::string& path, const nlohmann::json& record, Flush flush);
/// The JSON object in a file. Throws Failure when it may be readable later, and Unusable when it never will
/// be.
nlohmann::json readRecord(const std::string& path);
/// A text of a record. Throws Unusable.
std::string textOf(const nlohmann::json& record, const std::string& name);
/// The same where absent and null mean that there is none.
std::string optionalTextOf(const nlohmann::json& record, const std::string& name,
                           const std::string& otherwise);

/// Names in a directory without hidden ones, which are unfinished files. Throws Failure.
std::vector<std::string> visibleNames(const std::string& directory);
/// Records in the order of their names, which is the order of the messages. Throws Failure.
std::vector<std::string> waitingRecords(const std::string& directory);
/// Moves a file into another directory, where it replaces nothing. Throws Failure.
void move(const std::string& name, const std::string& fromDirectory, const std::string& toDirectory);

/// The time as records carry it: UTC, whole seconds.
std::string now();

/// Names that sort as they were made, also behind those that an earlier worker left, and whatever the clock
/// does.
class AscendingNames {
  public:
    /// `ending` is what stands behind the number in the names that count. Throws Failure.
    AscendingNames(const std::string& directory, const std::string& ending);

    std::string next();

  private:
    unsigned long long last_ = 0;
};

}  // namespace files

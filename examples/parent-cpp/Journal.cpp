#include "Journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

using nlohmann::json;

Journal::Journal(const std::string& path)
    : file_(required(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR),
                     "opening " + path)) {
    std::ifstream stream(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(stream), {}};
    // A crash in the middle of a line leaves a part of it.
    const auto whole = content.substr(0, content.rfind('\n') + 1);
    required(::ftruncate(file_.get(), static_cast<off_t>(whole.size())), "shortening " + path);
    std::istringstream lines(whole);
    for (std::string line; std::getline(lines, line);) known_.insert(json::parse(line).at("messageId"));
}

bool Journal::add(const json& event) {
    const std::string messageId = event.at("messageId");
    if (known_.contains(messageId)) return false;
    const auto line = event.dump() + "\n";
    if (::write(file_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("The journal could not be written.");
    }
    required(::fsync(file_.get()), "flushing the journal");
    known_.insert(messageId);
    return true;
}

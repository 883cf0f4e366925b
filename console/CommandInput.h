#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "console/Completion.h"
#include "console/LineBuffer.h"

namespace brindle::console {

/// A line of commands and where it stands.
struct InputLine {
    std::string text;
    /// "demo.console:3", for messages; empty for what a person types.
    std::string place;
};

/// How the beginning of a line can go on.
using Completer = std::function<Completion(std::string_view line)>;

/// Where commands come from.
class CommandInput {
  public:
    virtual ~CommandInput() = default;

    /// Readable when receive() has something to do; -1 when every line is there already.
    virtual int descriptor() const = 0;
    /// Takes in what has arrived. Precondition: descriptor() is readable or has hung up.
    virtual void receive() = 0;
    /// The next line, if it is there.
    virtual std::optional<InputLine> next() = 0;
    /// True when no line will come any more.
    virtual bool isAtEnd() const = 0;
    /// A person types, sees what goes wrong and goes on; a script stops at its first failure.
    virtual bool isInteractive() const = 0;

    /// From now on the line that a person types can be completed.
    virtual void completeWith(const Completer&) {}
    /// Empties the line that a person is typing. False when there was nothing in it.
    virtual bool discardLine() { return false; }
};

/// A script file. All of it is read and checked before the first command runs.
class ScriptInput final : public CommandInput {
  public:
    /// Throws Failure, naming the line, when a line is no command.
    explicit ScriptInput(const std::string& path);

    int descriptor() const override { return -1; }
    void receive() override {}
    std::optional<InputLine> next() override;
    bool isAtEnd() const override { return lines_.empty(); }
    bool isInteractive() const override { return false; }

  private:
    std::deque<InputLine> lines_;
};

/// One command, and then the end.
class OneCommandInput final : public CommandInput {
  public:
    explicit OneCommandInput(std::string line) : line_(std::move(line)) {}

    int descriptor() const override { return -1; }
    void receive() override {}
    std::optional<InputLine> next() override;
    bool isAtEnd() const override { return !line_; }
    bool isInteractive() const override { return false; }

  private:
    std::optional<std::string> line_;
};

/// Lines from a descriptor, usually a pipe on standard input.
class StreamInput final : public CommandInput {
  public:
    StreamInput(int descriptor, std::string name, bool isInteractive);

    int descriptor() const override { return descriptor_; }
    void receive() override;
    std::optional<InputLine> next() override;
    bool isAtEnd() const override { return isAtEnd_ && !hasMore_; }
    bool isInteractive() const override { return isInteractive_; }

  private:
    int descriptor_;
    std::string name_;
    bool isInteractive_;
    LineBuffer lines_;
    int lineNumber_ = 0;
    bool isAtEnd_ = false;
    bool hasMore_ = true;
};

}  // namespace brindle::console

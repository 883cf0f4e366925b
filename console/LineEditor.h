#pragma once

#include <deque>
#include <memory>
#include <string>

#include "console/CommandInput.h"
#include "console/Display.h"
#include "system/Environment.h"
#include "system/OutputStream.h"

namespace brindle::console {

/// Commands that a person types at a terminal, with editing and history (libedit). Output may come at any
/// time: the line steps aside for it.
class LineEditor final : public CommandInput, public EditedLine {
  public:
    /// How many lines of history are kept.
    static constexpr int kept_history_lines = 1000;

    /// `historyFile` is read now and written after every line; a session without history is better than none,
    /// so that failing is no error. What it shows goes to `terminal`, which is standard output.
    LineEditor(std::string historyFile, OutputStream& terminal);
    /// Gives the terminal back as it was.
    ~LineEditor() override;
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    /// The file of the user's own (XDG base directories); empty when there is no place for one.
    static std::string historyFile(const Environment& environment);

    int descriptor() const override;
    void receive() override;
    /// Shows the prompt when no line is there.
    std::optional<InputLine> next() override;
    bool isAtEnd() const override;
    bool isInteractive() const override { return true; }
    void completeWith(const Completer& completer) override;
    bool discardLine() override;

    void hide() override;
    void show() override;

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace brindle::console

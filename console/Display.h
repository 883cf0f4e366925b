#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "console/Options.h"
#include "console/ReadableEnvelope.h"
#include "system/OutputStream.h"

namespace brindle::console {

/// How the two output streams are to look.
struct DisplayStyle {
    /// Standard output carries bare protocol lines.
    bool json = false;
    bool outputIsTerminal = false;
    bool colorsOutput = false;
    bool colorsError = false;

    /// What the options ask for, where NO_COLOR and the kind of the two streams decide what they leave open.
    static DisplayStyle from(const Options& options, const Environment& environment);
};

/// What stands in the way of output: a line that a person is editing.
class EditedLine {
  public:
    virtual ~EditedLine() = default;
    /// Takes the line off the screen.
    virtual void hide() = 0;
    /// Brings it back.
    virtual void show() = 0;
};

/// Everything that the console shows. Envelopes and answers go to standard output; the helper's standard
/// error and problems go to standard error. Whatever a stream does not take is passed over.
class Display {
  public:
    Display(DisplayStyle style, OutputStream& output, OutputStream& error)
        : style_(style), output_(output), error_(error) {}
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    /// From now on `line` steps aside for output; null for none.
    void stepAside(EditedLine* line) { editedLine_ = line; }

    /// From now on envelopes are shown as protocol lines, or again as people read them. Bare lines stay bare.
    void showRaw(bool isOn) { isRaw_ = isOn; }
    void envelope(Direction direction, std::string_view line);
    /// A JSON document on one line, as it is unless standard output is a terminal: that is shown escapes for
    /// what it would obey.
    void jsonLine(std::string_view line);
    /// A line of the helper's standard error.
    void helperDiagnostic(std::string_view line) { diagnostic("helper", line); }
    /// A line that a program has printed, marked with what it is.
    void diagnostic(std::string_view program, std::string_view line);
    /// A command from a script that is about to run.
    void command(std::string_view text);
    /// The answer to a command, which holds nothing that a terminal would obey; the line feed at its end
    /// included.
    void answer(std::string_view text);
    /// One sentence about what went wrong.
    void problem(std::string_view sentence);
    /// One sentence that somebody should know; nothing went wrong.
    void note(std::string_view sentence);

    bool isJson() const { return style_.json; }
    bool colorsOutput() const { return style_.colorsOutput; }
    bool isHeld() const { return isHeld_; }
    /// Width of the terminal that standard output is; nothing when it is none.
    static std::optional<std::size_t> terminalColumns();
    /// True once standard output takes nothing any more.
    bool hasLostOutput() const { return hasLostOutput_; }

  private:
    friend class HeldOutput;

    void write(OutputStream& stream, std::string_view text);
    void release();

    DisplayStyle style_;
    OutputStream& output_;
    OutputStream& error_;
    EditedLine* editedLine_ = nullptr;
    bool isRaw_ = false;
    bool hasLostOutput_ = false;
    bool isHeld_ = false;
    /// What waits, in its order; each text with its stream.
    std::deque<std::pair<OutputStream*, std::string>> held_;
};

/// As long as it lives, what the display is told waits; then it is shown.
class HeldOutput {
  public:
    /// How many texts wait at most; those beyond are dropped, the oldest first.
    static constexpr std::size_t kept_texts = 10000;

    explicit HeldOutput(Display& display) : display_(display) { display_.isHeld_ = true; }
    ~HeldOutput() { display_.release(); }
    HeldOutput(const HeldOutput&) = delete;
    HeldOutput& operator=(const HeldOutput&) = delete;

  private:
    Display& display_;
};

}  // namespace brindle::console

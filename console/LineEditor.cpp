#include "console/LineEditor.h"

#include <histedit.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "console/TerminalText.h"
#include "system/FileManager.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr const char* program_name = "BrindleBridgeConsole";
constexpr int usual_terminal_columns = 80;
constexpr std::chrono::milliseconds key_patience{300};
// libedit takes the prompt as a char* that it only reads.
char promptText[] = "brindle> ";

char* prompt(EditLine*) {
    return promptText;
}

int terminalColumns() {
    winsize size{};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : usual_terminal_columns;
}

/// The next byte of a key that is under way; nothing when it does not come soon. Somebody who presses Escape
/// alone must not stop the session until the next key.
std::optional<char> nextByte() {
    pollfd terminal{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    char byte = 0;
    const bool isReady = ::poll(&terminal, 1, static_cast<int>(key_patience.count())) > 0;
    if (!isReady || ::read(STDIN_FILENO, &byte, 1) != 1) return std::nullopt;
    return byte;
}

/// Reads a character for libedit: 1 when there is one, else 0.
int readCharacter(EditLine*, wchar_t* character) {
    mbstate_t state{};
    while (const auto byte = nextByte()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only a null state would be shared.
        const auto length = ::mbrtowc(character, &*byte, 1, &state);
        if (length == 0 || length == 1) return 1;
        // Not text in this locale: passed over.
        if (length == static_cast<std::size_t>(-1)) state = {};
    }
    return 0;
}

/// Writes for libedit, which knows only FILE: what the terminal does not take is passed over.
ssize_t writeToStream(void* stream, const char* bytes, std::size_t count) {
    try {
        static_cast<OutputStream*>(stream)->write({bytes, count});
        return static_cast<ssize_t>(count);
    } catch (const Failure&) {
        return 0;
    }
}

std::string narrowText(std::wstring_view text) {
    std::string narrow;
    mbstate_t state{};
    for (const wchar_t each : text) {
        std::array<char, MB_LEN_MAX> bytes{};
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only a null state would be shared.
        const auto length = ::wcrtomb(bytes.data(), each, &state);
        if (length != static_cast<std::size_t>(-1)) narrow.append(bytes.data(), length);
    }
    return narrow;
}

std::wstring wideText(std::string_view text) {
    std::wstring wide;
    mbstate_t state{};
    while (!text.empty()) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only a null state would be shared.
        const auto length = ::mbrtowc(&character, text.data(), text.size(), &state);
        // Not text in this locale.
        if (length == 0 || length > text.size()) break;
        wide += character;
        text.remove_prefix(length);
    }
    return wide;
}

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

struct EndEditLine {
    void operator()(EditLine* editor) const { ::el_end(editor); }
};

struct EndHistory {
    void operator()(History* past) const { ::history_end(past); }
};

}  // namespace

struct LineEditor::Implementation {
    explicit Implementation(OutputStream& terminal)
        : output(::fopencookie(
              &terminal, "w", {.read = nullptr, .write = writeToStream, .seek = nullptr, .close = nullptr})) {
        if (!output) return;
        editor.reset(::el_init_fd(program_name, stdin, output.get(), stderr, STDIN_FILENO, STDOUT_FILENO,
                                  STDERR_FILENO));
    }

    std::string historyFile;
    std::unique_ptr<History, EndHistory> past{::history_init()};
    std::unique_ptr<FILE, CloseFile> output;
    std::unique_ptr<EditLine, EndEditLine> editor;
    Completer completer;
    std::deque<std::string> lines;
    bool isEditing = false;
    bool isAtEnd = false;

    void setUpHistory() {
        if (!past) return;
        HistEvent event{};
        ::history(past.get(), &event, H_SETSIZE, kept_history_lines);
        ::history(past.get(), &event, H_SETUNIQUE, 1);
        if (!historyFile.empty()) ::history(past.get(), &event, H_LOAD, historyFile.c_str());
        ::el_set(editor.get(), EL_HIST, &::history, past.get());
    }

    void setUpEditor() {
        ::el_set(editor.get(), EL_CLIENTDATA, this);
        ::el_set(editor.get(), EL_PROMPT, &prompt);
        ::el_set(editor.get(), EL_GETCFN, &readCharacter);
        ::el_set(editor.get(), EL_EDITOR, "emacs");
        // Resizing and suspending; the signals that end the console are held back and taken elsewhere.
        ::el_set(editor.get(), EL_SIGNAL, 1);
        ::el_source(editor.get(), nullptr);
        // libedit's own end-of-file command damages the line buffer in unbuffered mode.
        // Wide texts: of others libedit keeps copies that it never frees.
        ::el_wset(editor.get(), EL_ADDFN, L"end-or-delete", L"End the input or delete a character",
                  &endOrDelete);
        ::el_set(editor.get(), EL_BIND, "^D", "end-or-delete", nullptr);
        ::el_wset(editor.get(), EL_ADDFN, L"complete", L"Complete the word", &complete);
        ::el_set(editor.get(), EL_BIND, "^I", "complete", nullptr);
    }

    static unsigned char complete(EditLine* editor, wint_t) {
        Implementation* self = nullptr;
        ::el_get(editor, EL_CLIENTDATA, &self);
        return self->completer ? self->completeWord() : CC_ERROR;
    }

    unsigned char completeWord() {
        const LineInfoW* line = ::el_wline(editor.get());
        const auto typed = narrowText({line->buffer, line->cursor});
        const auto completion = completer(typed);
        if (completion.candidates.empty()) return CC_ERROR;
        auto replacement = completion.commonBeginning();
        const bool isOnly = completion.candidates.size() == 1;
        if (isOnly && !replacement.ends_with('/')) replacement += ' ';
        const auto word = std::string_view(typed).substr(completion.begin);
        if (!isOnly && replacement.size() <= word.size()) return offer(completion.candidates);
        ::el_wdeletestr(editor.get(), static_cast<int>(wideText(word).size()));
        ::el_winsertstr(editor.get(), wideText(replacement).c_str());
        return CC_REFRESH;
    }

    /// Shows what the word can become below the line, which comes again.
    unsigned char offer(const std::vector<std::string>& candidates) {
        std::fputc('\n', output.get());
        for (const auto& each : candidates) std::fprintf(output.get(), "%s  ", terminalSafe(each).c_str());
        std::fputc('\n', output.get());
        std::fflush(output.get());
        return CC_REDISPLAY;
    }

    static unsigned char endOrDelete(EditLine* editor, wint_t) {
        const LineInfoW* line = ::el_wline(editor);
        if (line->lastchar == line->buffer) {
            Implementation* self = nullptr;
            ::el_get(editor, EL_CLIENTDATA, &self);
            self->isAtEnd = true;
            return CC_NORM;
        }
        if (line->cursor == line->lastchar) return CC_ERROR;
        ::el_cursor(editor, 1);
        ::el_deletestr(editor, 1);
        return CC_REFRESH;
    }

    void begin() {
        if (isEditing) return;
        isEditing = true;
        // Also takes the terminal over and shows the prompt.
        ::el_set(editor.get(), EL_UNBUFFERED, 1);
    }

    void end() {
        if (!isEditing) return;
        isEditing = false;
        ::el_set(editor.get(), EL_UNBUFFERED, 0);
    }

    void remember(const std::string& line) {
        if (!past || trimmed(line).empty()) return;
        HistEvent event{};
        ::history(past.get(), &event, H_ENTER, line.c_str());
        if (!historyFile.empty()) ::history(past.get(), &event, H_SAVE, historyFile.c_str());
    }

    /// The row of the edited line, counted from its first, that the cursor is in.
    int cursorRow() const {
        const LineInfoW* line = ::el_wline(editor.get());
        int columns = static_cast<int>(std::string_view(promptText).size());
        for (const wchar_t* at = line->buffer; at != line->cursor; ++at) {
            const int width = ::wcwidth(*at);
            // A control character is shown as two: ^A.
            columns += width >= 0 ? width : 2;
        }
        return columns / terminalColumns();
    }
};

LineEditor::LineEditor(std::string historyFile, OutputStream& terminal)
    : implementation_(std::make_unique<Implementation>(terminal)) {
    if (!implementation_->editor) throw Failure("The terminal cannot be used for editing.");
    implementation_->historyFile = std::move(historyFile);
    implementation_->setUpHistory();
    implementation_->setUpEditor();
}

LineEditor::~LineEditor() {
    const bool leavesLine = implementation_->isEditing;
    implementation_->end();
    auto* output = implementation_->output.get();
    if (leavesLine) std::fputs("\n", output);
    std::fflush(output);
}

std::string LineEditor::historyFile(const Environment& environment) {
    std::string base = nonBlankValue(environment, "XDG_STATE_HOME").value_or("");
    if (!base.starts_with('/')) {
        const auto home = nonBlankValue(environment, "HOME");
        if (!home || !home->starts_with('/')) return {};
        base = joinedPath(*home, ".local/state");
    }
    const auto directory = joinedPath(base, "brindle");
    try {
        PosixFileManager().createDirectory(directory);
    } catch (const FileSystemFailure&) {
        return {};
    }
    return joinedPath(directory, "console-history");
}

int LineEditor::descriptor() const {
    return STDIN_FILENO;
}

void LineEditor::receive() {
    pollfd terminal{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    ::poll(&terminal, 1, 0);
    if ((terminal.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        implementation_->isAtEnd = true;
        return;
    }
    int length = 0;
    const char* text = ::el_gets(implementation_->editor.get(), &length);
    if (text == nullptr || length <= 0) return;
    std::string line(text, static_cast<std::size_t>(length));
    if (!line.ends_with('\n') && !line.ends_with('\r')) return;
    line.pop_back();
    implementation_->end();
    implementation_->remember(line);
    implementation_->lines.push_back(std::move(line));
}

std::optional<InputLine> LineEditor::next() {
    auto& lines = implementation_->lines;
    if (lines.empty()) {
        if (!implementation_->isAtEnd) implementation_->begin();
        return std::nullopt;
    }
    InputLine line{.text = std::move(lines.front()), .place = ""};
    lines.pop_front();
    return line;
}

bool LineEditor::isAtEnd() const {
    return implementation_->isAtEnd && implementation_->lines.empty();
}

void LineEditor::completeWith(const Completer& completer) {
    implementation_->completer = completer;
}

bool LineEditor::discardLine() {
    const LineInfoW* line = ::el_wline(implementation_->editor.get());
    if (!implementation_->isEditing || line->lastchar == line->buffer) return false;
    // As the terminal shows it when a line is left.
    std::fputs("^C\n", implementation_->output.get());
    std::fflush(implementation_->output.get());
    // Anew, which also shows the prompt.
    implementation_->end();
    implementation_->begin();
    return true;
}

void LineEditor::hide() {
    if (!implementation_->isEditing) return;
    const int row = implementation_->cursorRow();
    auto* output = implementation_->output.get();
    if (row > 0) std::fprintf(output, "\033[%dA", row);
    std::fputs("\r\033[J", output);
    std::fflush(output);
}

void LineEditor::show() {
    if (implementation_->isEditing) ::el_set(implementation_->editor.get(), EL_REFRESH);
}

}  // namespace brindle::console

#include "console/WatchScreen.h"

#include <sys/ioctl.h>
#include <unistd.h>

// Its macros have the names of everybody's functions.
#define NCURSES_NOMACROS
#include <ncurses.h>

#include <cstdio>

#include "console/WatchFacts.h"
#include "text/Failure.h"

namespace brindle::console {

struct WatchScreen::Terminal {
    Terminal() {
        const bool isTerminal = ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
        if (isTerminal) screen = ::newterm(nullptr, stdout, stdin);
        if (screen == nullptr) refuse();
        ::set_term(screen);
        requireCursorAddressing();
        ::cbreak();
        ::noecho();
        ::nodelay(stdscr, true);
        ::keypad(stdscr, true);
        ::curs_set(0);
    }
    ~Terminal() {
        if (screen == nullptr) return;
        ::endwin();
        ::delscreen(screen);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// The window may have another size by now; whether it has.
    static bool followSize() {
        winsize size{};
        if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
            return false;
        if (!::is_term_resized(size.ws_row, size.ws_col)) return false;
        ::resizeterm(size.ws_row, size.ws_col);
        ::clearok(stdscr, true);
        return true;
    }

    SCREEN* screen = nullptr;

  private:
    /// One that cannot move its cursor would get line after line of what belongs in one place.
    void requireCursorAddressing() {
        if (::tigetstr("cup") != nullptr) return;
        ::endwin();
        ::delscreen(screen);
        refuse();
    }

    [[noreturn]] static void refuse() {
        throw Failure(
            "watch draws on a terminal, and there is none that it knows; use status, or inbox, instead.");
    }
};

WatchScreen::WatchScreen(FileManager& fileManager, const DataDirectory& directory)
    : fileManager_(fileManager), directory_(directory), terminal_(std::make_unique<Terminal>()) {}

WatchScreen::~WatchScreen() = default;

bool WatchScreen::goOn() {
    for (int key = ::getch(); key != ERR; key = ::getch()) {
        if (key == 'q' || key == 'Q') return false;
        if (key == KEY_RESIZE) nextDraw_ = {};
    }
    if (Terminal::followSize() || std::chrono::steady_clock::now() >= nextDraw_) draw();
    return true;
}

void WatchScreen::draw() {
    nextDraw_ = std::chrono::steady_clock::now() + redraw_interval;
    ::werase(stdscr);
    const int rows = ::getmaxy(stdscr);
    const auto columns = static_cast<std::size_t>(::getmaxx(stdscr));
    int row = 0;
    for (const auto& each :
         watchLines(watchFacts(fileManager_, directory_), std::chrono::system_clock::now())) {
        if (row == rows) break;
        // The last column of the last row would scroll.
        ::wmove(stdscr, row++, 0);
        ::waddstr(stdscr, fitted(each, columns - 1).c_str());
    }
    ::wrefresh(stdscr);
}

}  // namespace brindle::console

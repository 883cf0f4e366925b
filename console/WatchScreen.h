#pragma once

#include <chrono>
#include <memory>

#include "exchange/DataDirectory.h"
#include "system/FileManager.h"

namespace brindle::console {

/// A live view of a data directory that fills the terminal (ncurses) and gives it back as it was.
class WatchScreen {
  public:
    /// How often the directory is looked at.
    static constexpr std::chrono::milliseconds redraw_interval{500};

    /// Takes the terminal over. Both outlive it. Throws Failure when standard input and output are no
    /// terminal.
    WatchScreen(FileManager& fileManager, const DataDirectory& directory);
    ~WatchScreen();
    WatchScreen(const WatchScreen&) = delete;
    WatchScreen& operator=(const WatchScreen&) = delete;

    /// Takes keys and draws what is due, without waiting. False once somebody has asked for the end.
    bool goOn();

  private:
    struct Terminal;

    void draw();

    FileManager& fileManager_;
    const DataDirectory& directory_;
    std::unique_ptr<Terminal> terminal_;
    std::chrono::steady_clock::time_point nextDraw_;
};

}  // namespace brindle::console

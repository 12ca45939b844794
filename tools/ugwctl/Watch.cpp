#include "tools/ugwctl/Watch.h"

#include <curses.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>

#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Picture.h"
#include "tools/ugwctl/Segment.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

constexpr int PERIOD = 500;  // ms between two pictures
constexpr int PLAIN_WIDTH = 80;

volatile std::sig_atomic_t isEnded = 0;

void onSignal(int) {
    isEnded = 1;
}

std::int64_t monotonicMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// What is shown: the last good copy, and why there is none now.
class Source {
  public:
    explicit Source(const std::string& dir) : dir_(dir), last_(takeSnapshot(dir)) { requireLive(last_); }

    Picture look(int width) {
        std::string problem;
        try {
            last_ = takeSnapshot(dir_);
            problem = deathOf(last_);
        } catch (const Failure& failure) {
            problem = failure.what();
            last_.now = static_cast<std::int64_t>(std::time(nullptr));
        }
        return drawPlant(last_, problem, width);
    }

  private:
    std::string dir_;
    Snapshot last_;
};

/// The terminal, given back at the end.
class Screen {
  public:
    Screen() : screen_(newterm(nullptr, stdout, stdin)) {
        if (screen_ == nullptr) {
            throw Failure(ExitStatus::Failed, "the terminal can't be used for the live view: is TERM right?");
        }
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        curs_set(0);
        hasColours_ = environmentWantsColour() && has_colors();
        if (hasColours_) {
            start_color();
            use_default_colors();
            init_pair(GREEN, COLOR_GREEN, -1);
            init_pair(YELLOW, COLOR_YELLOW, -1);
            init_pair(RED, COLOR_RED, -1);
        }
    }
    ~Screen() {
        endwin();
        delscreen(screen_);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    int width() const { return COLS; }

    void show(const Picture& picture) {
        erase();
        int row = 0;
        for (const Line& line : picture) {
            if (row >= LINES - 1) {
                break;
            }
            move(row++, 0);
            for (const Span& span : line) {
                attrset(attribute(span.style));
                addnstr(span.text.c_str(), MAX(COLS - getcurx(stdscr), 0));
            }
        }
        attrset(A_DIM);
        mvaddnstr(LINES - 1, 0, "q quits", COLS);
        refresh();
    }

    /// Waits for the next picture; false if the person at the terminal wants to leave.
    bool wait(std::int64_t until) {
        for (std::int64_t left = until - monotonicMs(); left > 0 && isEnded == 0; left = until - monotonicMs()) {
            timeout(static_cast<int>(left));
            const int key = getch();
            if (key == 'q' || key == 'Q') {
                return false;
            }
            if (key == KEY_RESIZE) {
                return true;
            }
        }
        return isEnded == 0;
    }

  private:
    enum Pair : short { GREEN = 1, YELLOW, RED };

    // Without colours an alarm stands out in reverse, a notice in bold.
    chtype attribute(Style style) const {
        switch (style) {
            case Style::Bold:
                return A_BOLD;
            case Style::Good:
                return hasColours_ ? COLOR_PAIR(GREEN) : A_NORMAL;
            case Style::Notice:
                return hasColours_ ? COLOR_PAIR(YELLOW) : A_BOLD;
            case Style::Alarm:
                return hasColours_ ? COLOR_PAIR(RED) | A_BOLD : A_REVERSE;
            default:
                return A_NORMAL;
        }
    }

    SCREEN* screen_;
    bool hasColours_ = false;
};

void watchScreen(Source& source, int count) {
    Screen screen;
    for (int shown = 1;; ++shown) {
        const std::int64_t next = monotonicMs() + PERIOD;
        screen.show(source.look(screen.width()));
        if (shown == count || !screen.wait(next)) {
            return;
        }
    }
}

void watchPlain(Source& source, int count) {
    for (int shown = 1; isEnded == 0; ++shown) {
        const std::string text = plainText(source.look(PLAIN_WIDTH)) + "\n";
        std::fputs(text.c_str(), stdout);
        if (std::fflush(stdout) != 0 || shown == count) {
            return;
        }
        struct timespec pause = {0, PERIOD * 1000000L};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

void watch(const Options& options) {
    Source source(options.dir);
    struct sigaction end = {};
    end.sa_handler = onSignal;  // without SA_RESTART: it ends a wait
    sigaction(SIGINT, &end, nullptr);
    sigaction(SIGTERM, &end, nullptr);
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
        watchScreen(source, options.count);
    } else {
        watchPlain(source, options.count);
    }
}

}  // namespace ugwctl

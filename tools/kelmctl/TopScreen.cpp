#include "tools/kelmctl/TopScreen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "tools/kelmctl/TopControls.h"

// Curses' short names as macros would change other headers.
#define NCURSES_NOMACROS
#include <curses.h>

namespace kelm::ctl {

namespace {

// How long a lone escape waits for the rest of a function key.
constexpr int kEscapeMillis = 25;
constexpr int kDefaultColour = -1;

struct StyleRow {
    TopStyle style;
    attr_t attributes;  // on a terminal without colours
    attr_t withColours;
    short foreground;
    short background;
};
constexpr StyleRow kStyles[] = {
    {TopStyle::kPlain, A_NORMAL, A_NORMAL, kDefaultColour, kDefaultColour},
    {TopStyle::kTitle, A_BOLD, A_BOLD, kDefaultColour, kDefaultColour},
    {TopStyle::kHeading, A_BOLD, A_BOLD, COLOR_CYAN, kDefaultColour},
    {TopStyle::kSelected, A_REVERSE, A_REVERSE, COLOR_CYAN, kDefaultColour},
    {TopStyle::kDim, A_DIM, A_DIM, kDefaultColour, kDefaultColour},
    {TopStyle::kWarning, A_BOLD, A_BOLD, COLOR_YELLOW, kDefaultColour},
    {TopStyle::kAlarm, A_REVERSE | A_BOLD, A_BOLD, COLOR_WHITE, COLOR_RED},
    {TopStyle::kGood, A_BOLD, A_BOLD, COLOR_GREEN, kDefaultColour},
};

struct KeyRow {
    int curses;
    int key;
};
constexpr KeyRow kKeys[] = {
    {KEY_UP, kTopKeyUp},        {KEY_DOWN, kTopKeyDown},
    {KEY_PPAGE, kTopKeyPageUp}, {KEY_NPAGE, kTopKeyPageDown},
    {KEY_HOME, kTopKeyHome},    {KEY_BACKSPACE, kTopKeyBackspace},
    {127, kTopKeyBackspace},    {8, kTopKeyBackspace},
    {KEY_BTAB, kTopKeyBackTab}, {KEY_ENTER, '\n'},
};

// Pair 0 is the terminal's own and cannot be set.
attr_t attributesOf(TopStyle style) {
    const auto index = static_cast<size_t>(style);
    const StyleRow& row = kStyles[index];
    return ::has_colors() ? row.withColours | COLOR_PAIR(static_cast<int>(index) + 1)
                          : row.attributes;
}

void startColours() {
    if (!::has_colors()) return;
    ::start_color();
    const bool hasDefault = ::use_default_colors() == OK;
    for (const StyleRow& row : kStyles) {
        // A terminal without default colours gets white on black for them.
        const auto own = [hasDefault](short colour, short otherwise) {
            return colour == kDefaultColour && !hasDefault ? otherwise : colour;
        };
        ::init_pair(static_cast<short>(static_cast<int>(row.style) + 1),
                    own(row.foreground, COLOR_WHITE), own(row.background, COLOR_BLACK));
    }
}

}  // namespace

// Everything that can fail comes before curses takes the terminal over.
TopScreen::TopScreen() {
    const char* const type = std::getenv("TERM");
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
        throw std::runtime_error("top needs a terminal; use status --watch instead");
    }
    if (type == nullptr || *type == '\0') {
        throw std::runtime_error("top needs the type of the terminal in TERM");
    }
    m_screen = ::newterm(nullptr, stdout, stdin);
    if (m_screen == nullptr) {
        throw std::runtime_error("top does not know terminals of the type in TERM");
    }
    ::cbreak();
    ::noecho();
    ::nonl();
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::set_escdelay(kEscapeMillis);
    ::curs_set(0);
    startColours();
    resize();
}

TopScreen::~TopScreen() {
    ::endwin();
    ::delscreen(static_cast<SCREEN*>(m_screen));
}

// The whole picture each time: curses sends the terminal only what has changed.
void TopScreen::draw(const TopGrid& grid) {
    ::werase(stdscr);
    for (size_t y = 0; y < grid.height(); ++y) {
        for (const TopGrid::Run& run : grid.runs(y)) {
            ::wattrset(stdscr, static_cast<int>(attributesOf(run.style)));
            ::wmove(stdscr, static_cast<int>(y), static_cast<int>(run.x));
            ::waddstr(stdscr, run.text.c_str());
        }
    }
    ::wrefresh(stdscr);
}

int TopScreen::readKey() {
    const int key = ::wgetch(stdscr);
    if (key == ERR) return -1;
    for (const KeyRow& row : kKeys) {
        if (row.curses == key) return row.key;
    }
    constexpr int kLastCharacter = 255;
    return key <= kLastCharacter ? key : kTopKeyOther;
}

// Asked of the terminal: curses' own handler of the signal is not in use.
void TopScreen::resize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        return;
    }
    ::resizeterm(size.ws_row, size.ws_col);
    ::clearok(stdscr, TRUE);
}

size_t TopScreen::width() const { return static_cast<size_t>(std::max(getmaxx(stdscr), 1)); }
size_t TopScreen::height() const { return static_cast<size_t>(std::max(getmaxy(stdscr), 1)); }

}  // namespace kelm::ctl

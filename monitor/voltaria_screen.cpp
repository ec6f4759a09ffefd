// ncurses stays in this file.
#include "voltaria_screen.h"

#include "monitor_text.h"

#define NCURSES_NOMACROS
#include <algorithm>
#include <array>
#include <curses.h>
#include <unistd.h>

static SCREEN *terminal;  // null while the terminal is not ours
static bool coloured;

struct TONE_LOOK {
    TONE tone;
    short colour;
    attr_t attributes;
};

static constexpr std::array<TONE_LOOK, 6> LOOKS{{
    {TONE::Plain, -1, 0},
    {TONE::Faint, -1, A_DIM},
    {TONE::Heading, -1, A_BOLD},
    {TONE::Good, COLOR_GREEN, 0},
    {TONE::Warning, COLOR_YELLOW, A_BOLD},
    {TONE::Alarm, COLOR_RED, A_BOLD | A_REVERSE},
}};

static short pair_of(std::size_t look)
{
    return static_cast<short>(look + 1);
}

static void set_up_colours()
{
    coloured = has_colors() && start_color() == OK && use_default_colors() == OK;
    if (!coloured)
        return;
    for (std::size_t i = 0; i < LOOKS.size(); ++i)
        init_pair(pair_of(i), LOOKS[i].colour, -1);
}

bool screen_open()
{
    if (isatty(STDOUT_FILENO) == 0)
        return false;
    terminal = newterm(nullptr, stdout, stdin);
    if (terminal == nullptr)
        return false;
    set_term(terminal);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    set_up_colours();
    return true;
}

void screen_close()
{
    if (terminal == nullptr)
        return;
    endwin();
    delscreen(terminal);
    terminal = nullptr;
}

PAGE_SIZE screen_size()
{
    return {static_cast<std::size_t>(std::max(getmaxx(stdscr), 1)),
            static_cast<std::size_t>(std::max(getmaxy(stdscr), 1))};
}

static void set_look(TONE tone)
{
    for (std::size_t i = 0; i < LOOKS.size(); ++i)
        if (LOOKS[i].tone == tone)
            attr_set(LOOKS[i].attributes, coloured ? pair_of(i) : short{0}, nullptr);
}

void screen_draw(const std::vector<PAGE_LINE> &page, bool utf8)
{
    erase();
    int row = 0;
    for (const PAGE_LINE &line : page) {
        move(row++, 0);
        for (const PAGE_SPAN &span : line.spans) {
            set_look(span.tone);
            addstr(utf8 ? span.text.c_str() : text_ascii(span.text).c_str());
        }
    }
    set_look(TONE::Plain);
    refresh();
}

SCREEN_KEY screen_key()
{
    for (;;) {
        switch (getch()) {
        case ERR:
            return SCREEN_KEY::None;
        case 'q':
        case 'Q':
            return SCREEN_KEY::Quit;
        case KEY_RESIZE:
        case '\f':
            clearok(stdscr, TRUE);
            return SCREEN_KEY::Redraw;
        default:
            break;
        }
    }
}

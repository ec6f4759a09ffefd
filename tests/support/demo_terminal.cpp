// ncurses draws the page; a terminal without a cursor, or of a kind that nobody here knows, is left as it is
// but for giving each key at once.
#include "demo_terminal.h"

#include "voltaria_screen.h"

#define NCURSES_NOMACROS
#include <curses.h>
#include <poll.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

static constexpr int CTRL_C = 'C' & 0x1f;

static termios before;  // valid while `taken`
static bool taken;
static bool drawing;

static bool can_place_cursor()
{
    int error = 0;
    char wanted[] = "cup";
    if (setupterm(nullptr, STDOUT_FILENO, &error) != OK)
        return false;
    const char *text = tigetstr(wanted);
    const bool can = text != nullptr && text != reinterpret_cast<const char *>(-1);
    del_curterm(cur_term);
    return can;
}

// Neither Ctrl-Z nor Ctrl-\: the page would be drawn on beside the shell's prompt, or stay behind. Ctrl-C
// comes as a key: its signal would not reach a demo that `su -c` has put into a session of its own.
static void set_keys(bool at_once)
{
    termios keys{};
    if (tcgetattr(STDIN_FILENO, &keys) != 0)
        return;
    if (at_once)
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VINTR] = _POSIX_VDISABLE;
    keys.c_cc[VSUSP] = _POSIX_VDISABLE;
    keys.c_cc[VQUIT] = _POSIX_VDISABLE;
    tcsetattr(STDIN_FILENO, TCSANOW, &keys);
}

DEMO_TERMINAL terminal_open()
{
    taken = tcgetattr(STDIN_FILENO, &before) == 0;
    drawing = can_place_cursor() && screen_open();
    set_keys(!drawing);
    return drawing ? DEMO_TERMINAL::Page : DEMO_TERMINAL::Lines;
}

void terminal_close()
{
    if (drawing)
        screen_close();
    drawing = false;
    if (taken)
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    taken = false;
}

static int page_key()
{
    for (;;) {
        switch (const int key = getch()) {
        case ERR:
            return TERMINAL_NO_KEY;
        case KEY_UP:
            return '+';
        case KEY_DOWN:
            return '-';
        case CTRL_C:
            return 'q';
        case KEY_RESIZE:
        case '\f':
            clearok(stdscr, TRUE);
            break;
        default:
            return key;
        }
    }
}

int terminal_key()
{
    pollfd wanted{STDIN_FILENO, POLLIN, 0};
    const bool ready = poll(&wanted, 1, 0) > 0;
    if (ready && (wanted.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
        return TERMINAL_GONE;
    if (drawing)
        return page_key();
    char key = 0;
    if (!ready)
        return TERMINAL_NO_KEY;
    if (read(STDIN_FILENO, &key, 1) != 1)
        return TERMINAL_GONE;
    return key == CTRL_C ? 'q' : static_cast<unsigned char>(key);
}

// What a command does besides its own work: open the session, print, ask, end with the right status. The
// options are voltaria_main.cpp's.
#include "voltaria_command.h"

#include "monitor_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

static constexpr std::size_t LINE_MAX_BYTES = 4096;  // of what a person may type

static volatile std::sig_atomic_t ending_signal = 0;  // came while the terminal was without echo; 0: none

// ---- Sessions ----

MONITOR_OPTIONS connection_options(const CONNECTION &connection)
{
    MONITOR_OPTIONS options;
    options.host = connection.host;
    options.port = static_cast<std::uint16_t>(connection.port);
    options.timeout = std::chrono::milliseconds(std::lround(connection.timeout * 1000));
    options.lang = connection.lang;
    return options;
}

MONITOR_RESULT open_session(const CONNECTION &connection, MONITOR_SESSION &session, int cancel_fd)
{
    MONITOR_OPTIONS options = connection_options(connection);
    options.cancel_fd = cancel_fd;
    MONITOR_RESULT result = monitor_connect(options, session);
    VTOSINFO answer{};
    if (monitor_ok(result))
        result = monitor_hello(session, monitor_own_osinfo(connection.lang), answer);
    return result;
}

std::string connection_place(const CONNECTION &connection)
{
    return text_safe(connection.host, TEXT_CODE::Utf8) + ":" + std::to_string(connection.port);
}

// ---- Printing ----

static bool takes_utf8(int fd)
{
    return isatty(fd) == 0 ||
           (std::setlocale(LC_CTYPE, "") != nullptr && std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0);
}

// One line as standard error may show it, with the blanks at its end that a question has.
static std::string harmless(const std::string &line)
{
    const std::size_t words = line.find_last_not_of(' ') + 1;
    const std::string text = text_safe(line, TEXT_CODE::Utf8) + line.substr(words);
    return takes_utf8(STDERR_FILENO) ? text : text_ascii(text);
}

void complain(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        shown += harmless(std::string(text.substr(0, end)));
        if (end < text.size())
            shown += '\n';
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    // Where standard error is gone, the exit status still says it.
    static_cast<void>(std::fputs(shown.c_str(), stderr));
    static_cast<void>(std::fflush(stderr));
}

int fail(std::string_view text, int status)
{
    complain("voltaria: " + std::string(text) + "\n");
    return status;
}

int fail(const MONITOR_RESULT &result)
{
    return fail(result.text, monitor_unreached(result) ? EXIT_UNREACHED : EXIT_REFUSED);
}

bool utf8_output()
{
    return takes_utf8(STDOUT_FILENO);
}

int print_raw(std::string_view text)
{
    const std::size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
    if (written == text.size() && std::fflush(stdout) == 0)
        return EXIT_SUCCESS;
    std::perror("voltaria: standard output");
    return EXIT_REFUSED;
}

int print(std::string_view text)
{
    return utf8_output() ? print_raw(text) : print_raw(text_ascii(text));
}

// ---- Asking ----

// Waits until there is something to read, with the signals let in that `let_in` lets in and nowhere else: one
// that came just before would leave a plain read waiting. False when one came.
static bool wait_for_typing(int fd, const sigset_t *let_in)
{
    while (let_in != nullptr && ending_signal == 0) {
        pollfd watched{fd, POLLIN, 0};
        if (ppoll(&watched, 1, nullptr, let_in) >= 0 || errno != EINTR)
            break;
    }
    return ending_signal == 0;
}

// One line without its end, straight from the descriptor: what follows stays there for the next question.
// False at the end of the input, at a signal and for a line of no sensible length.
static bool take_line(int fd, std::string &line, const sigset_t *let_in = nullptr)
{
    line.clear();
    while (wait_for_typing(fd, let_in)) {
        char c = '\0';
        const ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0 && !line.empty();
        if (c == '\n')
            return true;
        if (line.size() >= LINE_MAX_BYTES)
            return false;
        line += c;
    }
    return false;
}

bool ask_yes(std::string_view question)
{
    if (isatty(STDIN_FILENO) == 0) {
        static_cast<void>(fail("there is no terminal to ask on: give --yes to go on without being asked"));
        return false;
    }
    complain(std::string(question) + " [y/N] ");
    std::string answer;
    if (take_line(STDIN_FILENO, answer))
        return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
    complain("\n");
    return false;
}

bool read_line(std::string_view prompt, std::string &text)
{
    const bool terminal = isatty(STDIN_FILENO) != 0;
    if (terminal)
        complain(prompt);
    const bool taken = take_line(STDIN_FILENO, text);
    if (taken && !text.empty())
        return true;
    if (terminal && !taken)
        complain("\n");
    static_cast<void>(fail("nothing was typed"));
    return false;
}

extern "C" {
static void on_signal_while_silent(int number)
{
    ending_signal = number;
}
}

// The signals that would leave the terminal without echo, and what was done with them before.
struct SILENCED_SIGNALS {
    std::array<int, 4> numbers{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    std::array<struct sigaction, 4> before{};
    struct sigaction stop_before {
    };
    sigset_t mask_before{};
};

static void silence_signals(SILENCED_SIGNALS &signals)
{
    struct sigaction action {
    };
    sigemptyset(&action.sa_mask);
    action.sa_handler = on_signal_while_silent;
    sigset_t held;
    sigemptyset(&held);
    for (std::size_t i = 0; i < signals.numbers.size(); ++i) {
        sigaddset(&held, signals.numbers[i]);
        sigaction(signals.numbers[i], &action, &signals.before[i]);
    }
    pthread_sigmask(SIG_BLOCK, &held, &signals.mask_before);
    action.sa_handler = SIG_IGN;
    sigaction(SIGTSTP, &action, &signals.stop_before);
}

// Puts everything back, then lets a signal that came take its course.
static void restore_signals(const SILENCED_SIGNALS &signals)
{
    for (std::size_t i = 0; i < signals.numbers.size(); ++i)
        sigaction(signals.numbers[i], &signals.before[i], nullptr);
    sigaction(SIGTSTP, &signals.stop_before, nullptr);
    pthread_sigmask(SIG_SETMASK, &signals.mask_before, nullptr);
    if (ending_signal != 0)
        raise(ending_signal);
}

static bool take_line_without_echo(int fd, std::string_view prompt, std::string &line)
{
    SILENCED_SIGNALS signals;
    ending_signal = 0;
    silence_signals(signals);
    termios before{};
    bool taken = false;
    if (tcgetattr(fd, &before) == 0) {
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        if (tcsetattr(fd, TCSAFLUSH, &silent) == 0) {
            complain(prompt);
            taken = take_line(fd, line, &signals.mask_before);
            tcsetattr(fd, TCSAFLUSH, &before);
            complain("\n");
        }
    }
    restore_signals(signals);
    return taken;
}

bool read_password(std::string_view prompt, std::string &password)
{
    bool taken = false;
    if (isatty(STDIN_FILENO) == 0) {
        taken = take_line(STDIN_FILENO, password);
    } else {
        const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
        taken = take_line_without_echo(terminal >= 0 ? terminal : STDIN_FILENO, prompt, password);
        if (terminal >= 0)
            close(terminal);
    }
    if (!taken)
        static_cast<void>(fail("no password could be read"));
    return taken;
}

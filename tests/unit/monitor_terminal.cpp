#include "monitor_terminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utmp.h>

using STEADY = std::chrono::steady_clock;
static constexpr std::chrono::seconds PATIENCE{40};

// ---- The picture ----

TERMINAL::TERMINAL(int with_columns, int with_rows)
    : columns(with_columns), rows(with_rows), bottom(with_rows - 1),
      cells(static_cast<std::size_t>(with_rows), std::string(static_cast<std::size_t>(with_columns), ' '))
{
}

void TERMINAL::resize(int new_columns, int new_rows)
{
    const bool was_overrun = overran;
    *this = TERMINAL(new_columns, new_rows);
    overran = was_overrun;
}

std::string TERMINAL::text() const
{
    std::string joined;
    for (const std::string &line : cells)
        joined += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    return joined;
}

void TERMINAL::feed(std::string_view bytes)
{
    for (const char c : bytes) {
        if (c == '\x1b') {
            in_escape = true;
            sequence.clear();
        } else if (in_escape) {
            sequence += c;
            const bool bracket = sequence[0] == '[';
            const bool charset = sequence[0] == '(' || sequence[0] == ')';
            if (bracket ? sequence.size() > 1 && c >= '@' && c <= '~' : !charset || sequence.size() == 2)
                finish_sequence(c);
        } else if (static_cast<unsigned char>(c) < 0x20) {
            control(c);
        } else {
            plain(c);
        }
    }
}

void TERMINAL::plain(char c)
{
    if (column >= columns || row >= rows) {
        overran = true;
        return;
    }
    cells[static_cast<std::size_t>(row)][static_cast<std::size_t>(column++)] = c;
}

void TERMINAL::control(char c)
{
    switch (c) {
    case '\r':
        column = 0;
        break;
    case '\n':
        line_feed();
        break;
    case '\b':
        column = std::max(0, std::min(column, columns - 1) - 1);
        break;
    case '\t':
        column = std::min(columns - 1, (column / 8 + 1) * 8);
        break;
    default:
        break;  // padding and character set shifts
    }
}

void TERMINAL::line_feed()
{
    if (row == rows - 1 && bottom == rows - 1 && top == 0)
        overran = true;
    if (row == bottom)
        std::rotate(cells.begin() + top, cells.begin() + top + 1, cells.begin() + bottom + 1);
    if (row == bottom)
        erase_cells(bottom, 0, columns);
    else
        row = std::min(rows - 1, row + 1);
}

void TERMINAL::reverse_line_feed()
{
    if (row == top)
        std::rotate(cells.begin() + top, cells.begin() + bottom, cells.begin() + bottom + 1);
    if (row == top)
        erase_cells(top, 0, columns);
    else
        row = std::max(0, row - 1);
}

void TERMINAL::set_region()
{
    top = std::min(rows, parameter(0, 1)) - 1;
    bottom = std::min(rows, parameter(1, rows)) - 1;
    row = 0;
    column = 0;
}

int TERMINAL::parameter(std::size_t index, int otherwise) const
{
    std::size_t start = 1;
    for (; index > 0; --index) {
        start = sequence.find(';', start);
        if (start == std::string::npos)
            return otherwise;
        ++start;
    }
    const int value = std::atoi(sequence.c_str() + start);
    return value > 0 ? value : otherwise;
}

void TERMINAL::erase_cells(int in_row, int from, int to)
{
    for (int i = from; i < std::min(to, columns); ++i)
        cells[static_cast<std::size_t>(in_row)][static_cast<std::size_t>(i)] = ' ';
}

void TERMINAL::finish_sequence(char last)
{
    in_escape = false;
    if (sequence == "M")
        reverse_line_feed();
    if (sequence[0] != '[')
        return;
    const bool backwards = sequence[1] == '1';
    // A cursor behind the last column has not left it: every move starts from there.
    if (std::string_view("ABCD").find(last) != std::string_view::npos)
        column = std::min(column, columns - 1);
    switch (last) {
    case 'H':
        row = std::min(rows, parameter(0, 1)) - 1;
        column = std::min(columns, parameter(1, 1)) - 1;
        break;
    case 'A':
        row = std::max(0, row - parameter(0, 1));
        break;
    case 'B':
        row = std::min(rows - 1, row + parameter(0, 1));
        break;
    case 'C':
        column = std::min(columns - 1, column + parameter(0, 1));
        break;
    case 'D':
        column = std::max(0, column - parameter(0, 1));
        break;
    case 'K':
        erase_cells(row, backwards ? 0 : column, backwards ? column + 1 : columns);
        break;
    case 'J':
        erase_cells(row, column, columns);
        for (int i = row + 1; i < rows; ++i)
            erase_cells(i, 0, columns);
        break;
    case 'r':
        set_region();
        break;
    default:
        break;  // looks and modes
    }
}

// ---- Running ----

std::vector<std::string> test_environment()
{
    std::vector<std::string> environment{"TERM=vt100", "LC_ALL=C.UTF-8", "TZ=UTC"};
    for (const char *name : {"PATH", "HOME", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char *value = std::getenv(name))
            environment.push_back(std::string(name) + "=" + value);
    return environment;
}

std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// An exit status, or -1 when the child did not end of itself within the time.
static int reap(pid_t pid)
{
    const STEADY::time_point deadline = STEADY::now() + PATIENCE;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (STEADY::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// This build's own, or that of another build whose directory the environment names.
static std::string program_under_test()
{
    const char *other = std::getenv("VOLTARIA_PROGRAMS");
    const std::string own = VOLTARIA_PROGRAM;
    return other != nullptr && own.ends_with("/voltaria") ? std::string(other) + "/voltaria" : own;
}

static std::vector<std::string> command(const std::vector<std::string> &arguments)
{
    std::vector<std::string> words{program_under_test()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

PTY_RUN::PTY_RUN(const std::vector<std::string> &arguments, int columns, int rows) : terminal(columns, rows)
{
    std::vector<std::string> words = command(arguments);
    std::vector<std::string> environment = test_environment();
    const std::vector<char *> argv = pointers_to(words);
    const std::vector<char *> envp = pointers_to(environment);
    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    int slave = -1;
    EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
    EXPECT_EQ(tcgetattr(slave, &before), 0);
    pid = fork();
    if (pid == 0) {
        close(master);
        login_tty(slave);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    EXPECT_GT(pid, 0);
    close(slave);
}

PTY_RUN::~PTY_RUN()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(master);
}

bool PTY_RUN::read_some(std::chrono::milliseconds patience)
{
    pollfd watched{master, POLLIN, 0};
    if (poll(&watched, 1, static_cast<int>(patience.count())) <= 0)
        return true;
    std::array<char, 4096> buffer;
    const ssize_t got = read(master, buffer.data(), buffer.size());
    if (got > 0)
        terminal.feed({buffer.data(), static_cast<std::size_t>(got)});
    return got > 0;
}

bool PTY_RUN::draw_until(const std::function<bool(const std::string &screen)> &seen)
{
    const STEADY::time_point deadline = STEADY::now() + PATIENCE;
    while (!seen(terminal.text()))
        if (STEADY::now() > deadline || !read_some(std::chrono::milliseconds(100)))
            return seen(terminal.text());
    return true;
}

void PTY_RUN::type(std::string_view keys)
{
    EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void PTY_RUN::resize(int columns, int rows)
{
    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    terminal.resize(columns, rows);
    EXPECT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
}

int PTY_RUN::wait()
{
    const STEADY::time_point deadline = STEADY::now() + PATIENCE;
    while (STEADY::now() < deadline && read_some(std::chrono::milliseconds(100))) {
    }
    const int status = reap(pid);
    pid = -1;
    return status;
}

termios PTY_RUN::settings() const
{
    termios now{};
    EXPECT_EQ(tcgetattr(master, &now), 0);
    return now;
}

// ---- Without a terminal ----

static std::string whole_file(FILE *file)
{
    std::string text;
    std::rewind(file);
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file))
        text += static_cast<char>(c);
    std::fclose(file);
    return text;
}

PROGRAM_RESULT run_program(const std::vector<std::string> &arguments)
{
    std::vector<std::string> words = command(arguments);
    std::vector<std::string> environment = test_environment();
    const std::vector<char *> argv = pointers_to(words);
    const std::vector<char *> envp = pointers_to(environment);
    FILE *output = std::tmpfile();
    FILE *errors = std::tmpfile();
    const pid_t pid = fork();
    if (pid == 0) {
        const int input = open("/dev/null", O_RDONLY);
        if (dup2(input, 0) == 0 && dup2(fileno(output), 1) == 1 && dup2(fileno(errors), 2) == 2)
            execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    PROGRAM_RESULT result;
    result.status = reap(pid);
    result.output = whole_file(output);
    result.errors = whole_file(errors);
    return result;
}

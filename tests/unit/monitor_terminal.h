// A program on a pseudo-terminal, and what a person would see on it.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <termios.h>
#include <vector>

// The picture on a terminal of the simplest kind that has a cursor.
struct TERMINAL {
    TERMINAL(int with_columns, int with_rows);
    void feed(std::string_view bytes);
    /// The rows, without trailing blanks, joined by line ends.
    std::string text() const;
    void resize(int new_columns, int new_rows);

    bool overran = false;  // a character went past the last column, or the picture scrolled

  private:
    void plain(char c);
    void control(char c);
    void finish_sequence(char last);
    int parameter(std::size_t index, int otherwise) const;
    void line_feed();
    void reverse_line_feed();
    void set_region();
    void erase_cells(int row, int from, int to);

    int columns;
    int rows;
    int row = 0;
    int column = 0;
    int top = 0;     // the scrolling region
    int bottom = 0;  // its last row
    bool in_escape = false;
    std::string sequence;
    std::vector<std::string> cells;
};

// The program under test with the terminal that it runs on.
struct PTY_RUN {
    PTY_RUN(const std::vector<std::string> &arguments, int columns, int rows);
    ~PTY_RUN();
    PTY_RUN(const PTY_RUN &) = delete;
    PTY_RUN &operator=(const PTY_RUN &) = delete;

    /// Reads and draws until `seen` holds; false when it does not within ten seconds.
    bool draw_until(const std::function<bool(const std::string &screen)> &seen);
    void type(std::string_view keys);
    void resize(int columns, int rows);
    /// Reads to the end and returns the exit status, -1 for an end by signal or none within ten seconds.
    int wait();
    termios settings() const;

    TERMINAL terminal;
    termios before{};  // the terminal's settings when the program was started
    pid_t pid = -1;

  private:
    bool read_some(std::chrono::milliseconds patience);
    int master = -1;
};

// What a program run to its end left behind.
struct PROGRAM_RESULT {
    int status = -1;
    std::string output;
    std::string errors;
};

/// Runs the program with neither input nor terminal.
PROGRAM_RESULT run_program(const std::vector<std::string> &arguments);

/// The same environment for every run: UTF-8, and a terminal type that every machine knows.
std::vector<std::string> test_environment();
/// A null-terminated array for the exec family; valid as long as `texts`.
std::vector<char *> pointers_to(std::vector<std::string> &texts);

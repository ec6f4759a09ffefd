// How the configuration file store sees the file: as lines in which it finds sections and settings. Included
// by the store's own files only.
#pragma once

#include "filehandle.h"

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <sys/types.h>

// A line, or a piece of one that does not fit.
typedef struct _LINE {
    std::array<char, STORE_LINE_SIZE> text;  // NUL-terminated; the newline is cut from a complete line
    std::size_t size;                        // bytes it takes in the file, newline included
    bool complete;                           // ends in a newline, holds no NUL: can be a header or a setting
} LINE;

// Where in which file the lines are read.
typedef struct _LINEREADER {
    int fd;
    off_t next;                    // offset of the next line or piece
    off_t linestart;               // offset at which the line of the last piece begins
    bool midline;                  // the last piece did not reach its newline
    off_t blockstart;              // offset of block[0]
    std::size_t filled;            // bytes in block
    bool atend;                    // the file ends with block
    bool failed;                   // a read failed; looks like the end of the file otherwise
    std::array<char, 4096> block;  // longer than any line
} LINEREADER;

// The one reader of the process: the store does one thing at a time.
extern LINEREADER store_reader;

/// Lets the reader start at an offset of a file. Needed again after every write to it.
void store_start_reading(int fd, off_t at);

/// Reads until `into` is full or the file ends. Returns the number of bytes, -1 on a read error.
[[nodiscard]] ssize_t store_read_at(int fd, off_t at, std::span<char> into);

/// Takes the next line, or as much of it as fits the buffer; the rest is met as the next one. False at the
/// end.
[[nodiscard]] bool store_next_line(LINE &line);

/// Cuts the newline of a line of `size` (1 or more) bytes in `text`. False when it has none or holds a NUL.
[[nodiscard]] bool store_cut_newline(std::span<char> text, std::size_t size);

/// The first character of a text that is not a blank. Only the space is one.
[[nodiscard]] const char *store_skip_blanks(const char *text);

/// Reads up to the header of a section and returns its "]" in `line`, null when there is none. `complain` is
/// called for every header line that is too long.
[[nodiscard]] const char *store_find_section(LINE &line, std::string_view section, void (*complain)());

// How the search for a key ended.
enum class KEYSEARCH { Found, NextSection, EndOfFile };

/// Reads up to the setting of that key or the end of the section; `value` points into `line` when it was
/// found.
[[nodiscard]] KEYSEARCH store_find_key(LINE &line, std::string_view key, const char *&value);

// The configuration file store: the one text file of sections and settings that holds everything the
// agent keeps. Values are looked up at the moment they are needed; nothing is cached. Only the thread
// of the process that calls it may be inside the store.
//
// A section is a line "[ name ]" that starts in column 0, a setting is a line "key = value" below it.
// Lines are met as a reader with a 512-byte buffer meets them: one that does not fit, lacks its
// newline or holds a NUL byte is no header and no setting, is skipped, and survives every rewrite.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

inline constexpr char CONFIG_FILE[] = "/usr/lib/voltaria/config";

// A line with its newline and the closing NUL.
inline constexpr std::size_t STORE_LINE_SIZE = 512;

// Module state. Callers open and close the write streams with the batch functions alone.
extern std::FILE *wfps;   // read side of a write; null: unset
extern std::FILE *wfpd;   // write side of a write; null: unset
extern std::FILE *dfile;  // what readitem reads; set and closed by its caller; null: unset
extern int Dcflags;       // 1 once openfile could open its file

/// Looks a setting up. Returns its value (perhaps empty), which stays valid until the next call; null when
/// the file cannot be read, or has no such section, or the section no such key. With an empty key the
/// section's header line is returned, with a null key the "]" of that line; null when there is no section.
/// The value starts behind every blank and "=" that follows the key.
[[nodiscard]] const char *readparam(const char *section, const char *key);

/// Stores a setting: replaces the value where the key stands, or adds the key to its section. Returns 0 once
/// the text is in the file, -1 on any failure. Inside a batch the batch's streams are used; otherwise the
/// file is opened (created if need be) for this one write. An empty key only creates the section. A section
/// that does not exist yet gets its header behind the setting: such a setting is found only after it has been
/// written a second time. The value ends at its first newline. Refused with -1, the file unchanged: a newline
/// in section or key, a null argument, and a line that would be too long to be read back; but a missing
/// section has got its header by then.
int writeparam(const char *section, const char *key, const char *value);

/// Opens the two write streams for a run of writeparam calls; a missing file is created as owner 0, group 1,
/// mode 0600. Returns 0, or -1 with both streams unset.
[[nodiscard]] int open_write_batch();

/// Closes both write streams and marks them unset. Returns 0, or -1 when a close reports an error.
int close_write_batch();

/// Splices `text` into the file at `off` bytes from the position of `wfps`; when `off` is not 0, the line (or
/// rest of a line) that starts there goes. Leaves `wfps` at the spliced position. Returns 0, or -1: after a
/// failed seek or read the file is unchanged; after a short write it ends where the write stopped.
int insert(long off, std::string_view text);

/// Removes a setting, all settings of that key when `again` is 1, or with an empty key the whole section.
/// Returns 0 when that is done or there was nothing to remove, 1 when there is no such section, -1 when the
/// file cannot be opened or rewritten.
int removeitem(const char *section, const char *key, int again);

/// Tests whether a file can be read, and notes it in `Dcflags`. Returns 0 for a readable file and for a null
/// path, -1 otherwise.
int openfile(const char *path);

enum READITEM {
    READITEM_SETTING = 0,
    READITEM_TOOLONG = 1,
    READITEM_HEADER = 2,  // both buffers emptied
    READITEM_END = 3,     // both buffers emptied
    READITEM_NOEQUALS = 4,
};

/// Reads the next line of `dfile` as one setting and returns a READITEM_ value. The key ends at its first
/// blank, so "key=value" without one is READITEM_NOEQUALS. The buffers are filled for READITEM_SETTING only.
int readitem(std::span<char, STORE_LINE_SIZE> key, std::span<char, STORE_LINE_SIZE> value);

/// Copies a file. Always 0: a file that cannot be opened has been reported by efopen, and nothing is copied.
int copy_file(const char *from, const char *to);

/// fopen that prints "open file error\n" on standard error when it fails. The stream is closed on exec.
[[nodiscard]] std::FILE *efopen(const char *path, const char *mode);

// The configuration file store, the only code that touches the file. Reads open it, look through it and close
// it again; writes look for the place and splice their text in there, so that whatever an editor put into the
// file (spacing, empty lines, lines the store does not understand) stays as it is. Called by the engine for
// every setting, and by the UPS process for the one key it needs.
#include "filehandle.h"

#include "e_a_error.h"
#include "filehandle_internal.h"

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

std::FILE *wfps = nullptr;
std::FILE *wfpd = nullptr;

static void print_line_too_long()
{
    std::fputs("\nErrNo.2 line too long\n", stdout);
}

static void log_line_too_long()
{
    ea_error("writeparam:line too long");
}

// ---------------------------------------------------------------------------------------------- reads

static const char *find_value(LINE &line, const char *section, const char *key)
{
    const char *bracket = store_find_section(line, section, print_line_too_long);
    if (bracket == nullptr || key == nullptr)
        return bracket;
    if (*key == '\0')
        return line.text.data();
    const char *value = nullptr;
    return store_find_key(line, key, value) == KEYSEARCH::Found ? value : nullptr;
}

const char *readparam(const char *section, const char *key)
{
    static LINE line;
    if (section == nullptr)
        return nullptr;
    // Without waiting for a writer, should a pipe have taken the file's place.
    const int fd = open(CONFIG_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        ea_error("Cannot open config file\n");
        return nullptr;
    }
    store_start_reading(fd, 0);
    const char *value = find_value(line, section, key);
    close(fd);  // was only read from: there is nothing that its result could tell
    return value;
}

// -------------------------------------------------------------------------------------- write streams

// The store may be read by root alone: mail addresses and commands that root will run are in it. Nothing is
// cut off a file that has come into being since it was looked for.
static int create_config()
{
    const int fd = open(CONFIG_FILE, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    const bool owned = fchown(fd, 0, 1) == 0 && fchmod(fd, 0600) == 0;
    return close(fd) == 0 && owned ? 0 : -1;
}

static bool config_exists()
{
    struct stat status;
    return stat(CONFIG_FILE, &status) == 0;
}

// Unbuffered: a write has reached the file when it returns, and its count is what arrived.
static std::FILE *open_config_stream()
{
    std::FILE *stream = std::fopen(CONFIG_FILE, "r+e");
    if (stream != nullptr)
        std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

static int close_stream(std::FILE *&stream)
{
    const int result = stream == nullptr || std::fclose(stream) == 0 ? 0 : -1;
    stream = nullptr;
    return result;
}

int open_write_batch()
{
    close_write_batch();
    if (!config_exists() && create_config() != 0)
        return -1;
    wfps = open_config_stream();
    wfpd = wfps == nullptr ? nullptr : open_config_stream();
    if (wfpd != nullptr)
        return 0;
    close_write_batch();
    return -1;
}

int close_write_batch()
{
    const int source = close_stream(wfps);
    const int destination = close_stream(wfpd);
    return source == 0 && destination == 0 ? 0 : -1;
}

// Opens whichever stream is unset.
static int open_unset_streams()
{
    if (wfps == nullptr) {
        if (!config_exists() && create_config() != 0) {
            ea_error("writeparam: Cannot create config file");
            return -1;
        }
        wfps = open_config_stream();
    }
    if (wfps != nullptr && wfpd == nullptr)
        wfpd = open_config_stream();
    if (wfps != nullptr && wfpd != nullptr)
        return 0;
    ea_error("writeparam: cannot open config file\n");
    return -1;
}

// ---------------------------------------------------------------------------------------------- writes

// Appends to `text` what follows `at` in the file; without the line that begins there when `skip` is set.
static int read_tail(off_t at, bool skip, std::string &text)
{
    static LINE skipped;
    const int fd = fileno(wfps);
    store_start_reading(fd, at);
    if (skip && !store_next_line(skipped))
        return -1;
    for (off_t from = store_reader.next;;) {
        const ssize_t got = store_read_at(fd, from, store_reader.block);
        if (got < 0)
            return -1;
        if (got == 0)
            return 0;
        text.append(store_reader.block.data(), static_cast<std::size_t>(got));
        from += got;
    }
}

// Writes `text` where `wfpd` stands and ends the file behind it, be it written in full or not: what a full
// disk does not take is lost, and the caller is told.
static int write_to_end(std::string_view text)
{
    int errors = 0;
    if (std::fwrite(text.data(), 1, text.size(), wfpd) != text.size() || std::fflush(wfpd) != 0) {
        ea_error("insert:fprintf error\n");
        ++errors;
    }
    const off_t end = ftello(wfpd);
    if (end < 0 || ftruncate(fileno(wfpd), end) != 0)
        ++errors;
    std::rewind(wfpd);
    return errors == 0 ? 0 : -1;
}

int insert(long off, std::string_view text)
{
    if (wfps == nullptr || wfpd == nullptr || fseeko(wfps, off, SEEK_CUR) != 0)
        return -1;
    const off_t at = ftello(wfps);
    std::string spliced(text);
    if (at < 0 || read_tail(at, off != 0, spliced) != 0)
        return -1;
    if (fseeko(wfpd, at, SEEK_SET) != 0)
        return -1;
    return write_to_end(spliced);
}

// Inserts at `off` from where the reader stands.
static int insert_at_reader(off_t off, std::string_view text)
{
    return fseeko(wfps, store_reader.next, SEEK_SET) == 0 ? insert(off, text) : -1;
}

// A line that the store could not read back later is not written: it would hide the setting it replaces.
static bool fits_line(std::size_t length)
{
    if (length < STORE_LINE_SIZE - 1)
        return true;
    log_line_too_long();
    return false;
}

// A missing section: its header goes to the end of the file, and the search for the key resumes in front
// of it, so that the setting of the first write lands above the header. Kept: files in the field have it.
static int append_section(std::string_view section)
{
    std::string header = "\n[ ";
    header.append(section).append(" ]\n");
    if (!fits_line(header.size() - 2) || insert_at_reader(0, header) != 0)
        return -1;
    store_start_reading(fileno(wfps), ftello(wfps));
    return 0;
}

// The key stands in `line`: everything before its value stays.
static int replace_value(const LINE &line, const char *old, std::string_view value)
{
    const std::size_t before = static_cast<std::size_t>(old - line.text.data());
    if (!fits_line(before + value.size()))
        return -1;
    std::string text(value);
    text += '\n';
    return insert_at_reader(-static_cast<off_t>(line.size - before), text);
}

// The key is not in the section. At the end of the file the setting is appended. Before another section it
// takes the place of the newline in front of that header and ends in a second one, which keeps an empty line
// before every header. (A piece of an over-long line that looks like a header ends the section too; the
// newline is then the one in front of that whole line, so that the line stays whole.)
static int add_setting(KEYSEARCH end, std::string_view key, std::string_view value)
{
    std::string text = "\n ";
    text.append(key).append(" = ").append(value).append("\n");
    if (!fits_line(text.size() - 2))
        return -1;
    if (end == KEYSEARCH::EndOfFile)
        return insert_at_reader(0, text);
    text += '\n';
    return insert_at_reader(store_reader.linestart - 1 - store_reader.next, text);
}

static int store_setting(std::string_view section, std::string_view key, std::string_view value)
{
    static LINE line;
    store_start_reading(fileno(wfps), 0);
    if (store_find_section(line, section, log_line_too_long) == nullptr)
        if (store_reader.failed || append_section(section) != 0)
            return -1;
    if (key.empty())
        return 0;
    const char *old = nullptr;
    const KEYSEARCH end = store_find_key(line, key, old);
    if (store_reader.failed)
        return -1;
    return end == KEYSEARCH::Found ? replace_value(line, old, value) : add_setting(end, key, value);
}

int writeparam(const char *section, const char *key, const char *value)
{
    if (section == nullptr || key == nullptr || value == nullptr || std::strchr(section, '\n') != nullptr ||
        std::strchr(key, '\n') != nullptr) {
        ea_error("writeparam: bad name or value");
        return -1;
    }
    // The streams of a single write are closed again, so that the next one meets the file that an editor has
    // renamed here meanwhile.
    const bool keepsource = wfps != nullptr;
    const bool keepdestination = wfpd != nullptr;
    int result = open_unset_streams();
    if (result == 0)
        result = store_setting(section, key, std::string_view(value, std::strcspn(value, "\n")));
    if (!keepsource && close_stream(wfps) != 0)
        result = -1;
    if (!keepdestination && close_stream(wfpd) != 0)
        result = -1;
    return result;
}

// -------------------------------------------------------------------------------------------- removal

static int open_for_removal()
{
    close_write_batch();
    wfps = open_config_stream();
    if (wfps == nullptr) {
        std::fputs("\n cannot open wfps \n", stdout);
        return -1;
    }
    wfpd = open_config_stream();
    if (wfpd == nullptr) {
        std::fputs("\ncannot open wfpd file\n", stdout);
        return -1;
    }
    return 0;
}

// Removes the line that was read last.
static int remove_line(const LINE &line)
{
    return insert_at_reader(-static_cast<off_t>(line.size), "");
}

// Removes the header that was read last and everything up to the next one.
static int remove_section(LINE &line)
{
    do {
        if (remove_line(line) != 0)
            return -1;
        store_start_reading(fileno(wfps), ftello(wfps));
    } while (store_next_line(line) && line.text[0] != '[');
    return store_reader.failed ? -1 : 0;
}

// One pass over the file. `removed` tells whether a setting went.
static int remove_once(LINE &line, const char *section, const char *key, bool &removed)
{
    store_start_reading(fileno(wfps), 0);
    if (store_find_section(line, section, print_line_too_long) == nullptr) {
        if (store_reader.failed)
            return -1;
        std::fputs("\nNo such section", stdout);
        return 1;
    }
    if (*key == '\0')
        return remove_section(line);
    const char *value = nullptr;
    removed = store_find_key(line, key, value) == KEYSEARCH::Found;
    if (store_reader.failed)
        return -1;
    return removed ? remove_line(line) : 0;
}

int removeitem(const char *section, const char *key, int again)
{
    static LINE line;
    if (section == nullptr || key == nullptr)
        return 0;
    bool removed = false;
    int result = open_for_removal();
    if (result == 0)
        do
            result = remove_once(line, section, key, removed);
        while (result == 0 && removed && again == 1);
    if (close_write_batch() != 0)
        result = -1;
    return result;
}

// The lines of the configuration file, and the search for sections and settings in them: what the whole store
// calls a line, a header, a setting of a key.
//
// The file is read through its descriptor and a block of this module's own. A stream would keep bytes from
// before a write by the other stream, loses count of a line that holds a NUL, and is allocated at every
// opening, while some settings are read on every turn of the main loop.
#include "filehandle_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

LINEREADER store_reader;

// ---------------------------------------------------------------------------------------------- lines

void store_start_reading(int fd, off_t at)
{
    store_reader.fd = fd;
    store_reader.next = store_reader.linestart = store_reader.blockstart = at;
    store_reader.filled = 0;
    store_reader.midline = store_reader.atend = store_reader.failed = false;
}

ssize_t store_read_at(int fd, off_t at, std::span<char> into)
{
    std::size_t got = 0;
    while (got < into.size()) {
        const ssize_t n = pread(fd, into.data() + got, into.size() - got, at + static_cast<off_t>(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

// The bytes from the next line on: a line's worth of them at least, unless the file ends before.
static std::string_view unread_bytes()
{
    std::size_t used = static_cast<std::size_t>(store_reader.next - store_reader.blockstart);
    if (!store_reader.atend && store_reader.filled - used < STORE_LINE_SIZE - 1) {
        const ssize_t got = store_read_at(store_reader.fd, store_reader.next, store_reader.block);
        store_reader.failed = got < 0;
        store_reader.blockstart = store_reader.next;
        store_reader.filled = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        store_reader.atend = store_reader.filled < store_reader.block.size();
        used = 0;
    }
    return std::string_view(store_reader.block.data(), store_reader.filled).substr(used);
}

bool store_cut_newline(std::span<char> text, std::size_t size)
{
    text[size] = '\0';
    if (std::strlen(text.data()) != size || text[size - 1] != '\n')
        return false;
    text[size - 1] = '\0';
    return true;
}

bool store_next_line(LINE &line)
{
    const std::string_view rest = unread_bytes().substr(0, line.text.size() - 1);
    if (rest.empty())
        return false;
    const std::size_t newline = rest.find('\n');
    const bool ends = newline != std::string_view::npos;
    line.size = ends ? newline + 1 : rest.size();
    std::copy_n(rest.begin(), line.size, line.text.begin());
    line.complete = store_cut_newline(line.text, line.size);
    if (!store_reader.midline)
        store_reader.linestart = store_reader.next;
    store_reader.midline = !ends;
    store_reader.next += static_cast<off_t>(line.size);
    return true;
}

const char *store_skip_blanks(const char *text)
{
    return text + std::strspn(text, " ");
}

// --------------------------------------------------------------------------------------------- search

// The "]" of a header line of that section, null when the line is another header.
static const char *match_header(const char *line, std::string_view section)
{
    const char *name = store_skip_blanks(line + 1);
    if (std::strncmp(name, section.data(), section.size()) != 0)
        return nullptr;
    const char *bracket = store_skip_blanks(name + section.size());
    return *bracket == ']' ? bracket : nullptr;
}

const char *store_find_section(LINE &line, std::string_view section, void (*complain)())
{
    while (store_next_line(line)) {
        if (line.text[0] != '[')
            continue;
        if (!line.complete) {
            complain();
            continue;
        }
        if (const char *bracket = match_header(line.text.data(), section))
            return bracket;
    }
    return nullptr;
}

// The value of a setting of that key, null when the line is no such setting.
static const char *match_key(const char *line, std::string_view key)
{
    const char *name = store_skip_blanks(line);
    if (std::strncmp(name, key.data(), key.size()) != 0)
        return nullptr;
    const char *run = name + key.size();
    const std::size_t length = std::strspn(run, " =");
    return std::string_view(run, length).find('=') == std::string_view::npos ? nullptr : run + length;
}

KEYSEARCH store_find_key(LINE &line, std::string_view key, const char *&value)
{
    while (store_next_line(line)) {
        if (line.text[0] == '[')
            return KEYSEARCH::NextSection;
        value = line.complete ? match_key(line.text.data(), key) : nullptr;
        if (value != nullptr)
            return KEYSEARCH::Found;
    }
    return KEYSEARCH::EndOfFile;
}

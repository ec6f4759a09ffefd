// The side rooms of the configuration file store: a reader that takes a file item by item, and two file
// routines of the engine. The agent itself looks settings up by name and does not call the item reader.
#include "filehandle.h"

#include "filehandle_internal.h"

#include <algorithm>
#include <string>

std::FILE *dfile = nullptr;
int Dcflags = 0;

// --------------------------------------------------------------------------------- sequential reading

int openfile(const char *path)
{
    if (path == nullptr)
        return 0;
    std::FILE *stream = std::fopen(path, "re");
    if (stream == nullptr)
        return -1;
    std::fclose(stream);
    Dcflags = 1;
    return 0;
}

// Reads one line, as much of it as fits, and returns its bytes; 0 at the end of the file.
static std::size_t read_stream_line(std::FILE *stream, std::span<char> text)
{
    std::size_t size = 0;
    while (size < text.size() - 1) {
        const int c = std::getc(stream);
        if (c == EOF)
            break;
        text[size++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    return size;
}

static int empty_item(std::span<char> key, std::span<char> value, READITEM result)
{
    key[0] = '\0';
    value[0] = '\0';
    return result;
}

// `line` has lost its newline.
static int split_item(const char *line, std::span<char> key, std::span<char> value)
{
    const std::string_view text(store_skip_blanks(line));
    const std::string_view name = text.substr(0, text.find(' '));
    const std::string_view behind = text.substr(name.size());
    const std::size_t run = std::min(behind.find_first_not_of(" ="), behind.size());
    if (behind.substr(0, run).find('=') == std::string_view::npos)
        return READITEM_NOEQUALS;
    key[name.copy(key.data(), key.size() - 1)] = '\0';
    value[behind.substr(run).copy(value.data(), value.size() - 1)] = '\0';
    return READITEM_SETTING;
}

int readitem(std::span<char, STORE_LINE_SIZE> key, std::span<char, STORE_LINE_SIZE> value)
{
    static std::array<char, STORE_LINE_SIZE> line;
    const std::size_t size = dfile == nullptr ? 0 : read_stream_line(dfile, line);
    if (size == 0)
        return empty_item(key, value, READITEM_END);
    if (line[0] == '[')
        return empty_item(key, value, READITEM_HEADER);
    if (!store_cut_newline(line, size))
        return READITEM_TOOLONG;
    return split_item(line.data(), key, value);
}

// ------------------------------------------------------------------------------------- file routines

std::FILE *efopen(const char *path, const char *mode)
{
    std::FILE *stream = path == nullptr || mode == nullptr
                            ? nullptr
                            : std::fopen(path, std::string(mode).append("e").c_str());
    if (stream == nullptr)
        std::fputs("open file error\n", stderr);
    return stream;
}

int copy_file(const char *from, const char *to)
{
    std::array<char, 250> text;
    std::FILE *source = efopen(from, "r");
    std::FILE *destination = efopen(to, "w");
    if (source != nullptr && destination != nullptr)
        while (const std::size_t size = read_stream_line(source, text))
            if (std::fwrite(text.data(), 1, size, destination) != size)
                break;
    if (source != nullptr)
        std::fclose(source);
    if (destination != nullptr)
        std::fclose(destination);
    return 0;
}

// The list of logged-in users, line by line: any line at all. A line's words are words of that line; a
// user whose name does not fit has neither.
#include "e_a.h"
#include "e_a_notify.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// The engine's way to the agent; a line is split without it.
int Event_CallBack(int, void *, int, int)
{
    return 0;
}

static void require(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

static bool lies_in(std::string_view word, std::string_view line)
{
    return word.empty() ||
           (word.data() >= line.data() && word.data() + word.size() <= line.data() + line.size());
}

static void check_line(std::string_view line)
{
    std::string_view user = "left over";
    std::string_view tty = "left over";
    ParseWho(line, &user, &tty);
    const std::string_view first = line.substr(0, line.find(' '));
    require(user == (first.size() < TERMINAL_SIZE ? first : std::string_view()), "the user");
    require(lies_in(user, line) && lies_in(tty, line), "where the words lie");
    require(tty.find(' ') == std::string_view::npos, "the end of the terminal");
    require(first.size() < TERMINAL_SIZE || tty.empty(), "a name that is too long");
    const std::string_view rest = line.substr(first.size());
    require(tty.empty() == (first.size() >= TERMINAL_SIZE || rest.find_first_not_of(' ') == rest.npos),
            "whether there is a terminal");
    require(tty.empty() || tty.data() == rest.data() + rest.find_first_not_of(' '),
            "the first word behind it");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    check_line(text);
    for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1))
        check_line(text.substr(0, end));
    check_line(text);
    return 0;
}

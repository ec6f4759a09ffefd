// The list of logged-in users, line by line: any line at all. A line's words are words of that line; a
// user whose name does not fit has neither. Then whole, as the output of who when a user is to be told: every
// terminal that is found is one of that user's. And as a name, an address and a text that are told.
#include "e_a.h"
#include "e_a_notify.h"
#include "fuzz_support.h"
#include "no_programs.h"
#include "wp_field.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// The name of the list is fixed, and it is removed: never where others may have one.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    refuse_host();
    return 0;
}

// The engine's way to the agent; a line is split without it.
int Event_CallBack(int, void *, int, int)
{
    return 0;
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

static void check_terminals(std::string_view list, std::string_view user)
{
    logged_in = list;
    tell_begin();
    require(UpdateUserList(user) == 1, "the list of a user's terminals");
    const auto found = gszUserList;
    if (list.starts_with('?')) {  // no room for a file
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit none{1000, RLIM_INFINITY};
        const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
        require(setrlimit(RLIMIT_FSIZE, &none) == 0, "a full disk");
        require(UpdateUserList(user) == 1 && gszUserList == found, "the same list from a full disk");
        require(setrlimit(RLIMIT_FSIZE, &all) == 0, "an empty disk");
    }
    if (list.starts_with('!')) {  // somebody else's directory is in the place of the file
        mkdir("/tmp/PROG_NAME.list", 0700);
        require(UpdateUserList(user) == 1 && gszUserList == found, "the same list through a pipe");
        rmdir("/tmp/PROG_NAME.list");
    }
    std::size_t count = 0;
    while (count < gszUserList.size() && gszUserList[count][0] != '\0') {
        const std::string_view terminal = field_view(gszUserList[count++]);
        require(terminal.size() < TERMINAL_SIZE && terminal.find_first_of(" \n") == terminal.npos &&
                    list.find(terminal) != list.npos,
                "a terminal");
    }
    require(count < TERMINAL_COUNT, "the end of the terminals");
    require(std::all_of(gszUserList.begin() + static_cast<std::ptrdiff_t>(count), gszUserList.end(),
                        [](const auto &terminal) { return terminal[0] == '\0'; }),
            "nothing behind their end");
}

static void tell_all(std::string_view text)
{
    const std::string_view name = text.substr(0, text.find(' '));
    const std::string line = one_line(text);
    require(line.size() == text.size() && line.find('\n') == line.npos, "a text in one line");
    tell_begin();
    tell_mesg();
    tell_wall(text);
    tell_user(name, text);
    tell_mail(name, text);
    run_command(text, static_cast<std::int64_t>(text.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), std::min<std::size_t>(size, 8192));
    static const int late = UpdateUserList("root");
    require(late == -1, "a list for which there was no time");
    for (const std::string_view user : {text.substr(0, text.find(' ')), std::string_view("root")})
        check_terminals(text, user);
    tell_all(text);
    check_line(text);
    for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1))
        check_line(text.substr(0, end));
    check_line(text);
    return 0;
}

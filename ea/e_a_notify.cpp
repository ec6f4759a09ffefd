// Telling the users: which program carries which text, and the ten seconds that all programs of one event
// have together. They are waited for in turn; what is still running then is left to itself, and what has
// not begun is started without waiting. Owns that deadline.
#include "e_a_notify.h"

#include "agent_utils.h"
#include "e_a_error.h"
#include "e_a_notify_run.h"
#include "wp_field.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

static std::int64_t tell_deadline = 0;  // utils_monotonicms

static constexpr std::int64_t TELL_PATIENCE = 10'000;   // ms
static constexpr std::int64_t COMMAND_PATIENCE = 3600;  // s; no unit carries a machine longer

void tell_begin()
{
    tell_deadline = utils_monotonicms() + TELL_PATIENCE;
}

std::int64_t tell_until()
{
    return tell_deadline;
}

std::string one_line(std::string_view text)
{
    std::string line(text);
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return line;
}

// A name that a program would take for an option.
static bool is_option(std::string_view name)
{
    return name.starts_with('-');
}

static void deliver(PROGRAM program, std::string_view text)
{
    program.input = program_text(std::string(text) + '\n');
    if (program.input < 0)
        return;
    program_wait(program_start(program), tell_deadline);
    close(program.input);
}

// mesg looks at the terminal on its descriptors: the console, when that is one.
void tell_mesg()
{
    const int console = open("/dev/console", O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    program_wait(program_start({"/usr/bin/mesg", "mesg", {"y"}, console}), tell_deadline);
    if (console >= 0)
        close(console);
}

void tell_wall(std::string_view text)
{
    deliver({"/usr/bin/wall", "wall", {}}, one_line(text));
}

void tell_user(std::string_view user, std::string_view text)
{
    if (is_option(user) || UpdateUserList(user) < 0)
        return;
    const std::string name(user);
    for (const auto &terminal : gszUserList) {
        const std::string tty(field_view(terminal));
        if (tty.empty())
            return;
        if (!is_option(tty))
            deliver({"/usr/bin/write", "write", {name.c_str(), tty.c_str()}}, one_line(text));
    }
}

// What mail programs take for something else than an address: an option, a command to pipe the mail into, a
// file or folder to append it to.
static bool is_no_address(std::string_view address)
{
    address.remove_prefix(std::min(address.find_first_not_of(" \t"), address.size()));
    return !address.empty() && std::string_view("-|/+&").find(address.front()) != std::string_view::npos;
}

// Some of them take a text with commas for several addresses.
static bool are_addresses(std::string_view addresses)
{
    for (;;) {
        const std::size_t comma = addresses.find(',');
        if (is_no_address(addresses.substr(0, comma)))
            return false;
        if (comma == std::string_view::npos)
            return true;
        addresses.remove_prefix(comma + 1);
    }
}

// Behind a tilde at the start of a line stands a command to some of them, even in a text that is no
// dialogue. A translated text may begin with the name that came from the network.
static std::string without_tildes(std::string_view text)
{
    std::string lines;
    for (const char c : text) {
        if (c == '~' && (lines.empty() || lines.back() == '\n'))
            lines += ' ';
        lines += c;
    }
    return lines;
}

// Some mail programs hand an address with shell characters to the user's shell all the same; they get none.
void tell_mail(std::string_view address, std::string_view text)
{
    if (address.empty() || !are_addresses(address)) {
        ea_error("Not a mail address: " + std::string(address));
        return;
    }
    const std::string to(address);
    PROGRAM program{"/bin/mail", "mail", {to.c_str()}};
    program.noshell = true;
    deliver(program, without_tildes(text));
}

void run_command(std::string_view command, std::int64_t patience)
{
    const std::string text(command);
    const int started = program_start({"/bin/sh", "sh", {"-c", "--", text.c_str()}});
    program_wait(started,
                 utils_monotonicms() + std::clamp<std::int64_t>(patience, 0, COMMAND_PATIENCE) * 1000);
}

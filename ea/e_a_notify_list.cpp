// Who is logged in where: the output of who, by way of its fixed file. That lies in a directory where anybody
// may put links and directories of the same name beforehand, so it is made anew each time, for the owner
// only, and read through the descriptor that made it; where it cannot be made the list comes through a pipe.
#include "e_a_notify.h"

#include "agent_utils.h"
#include "e_a_error.h"
#include "e_a_notify_run.h"
#include "wp_field.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

std::array<std::array<char, TERMINAL_SIZE>, TERMINAL_COUNT> gszUserList{};

// No program name is filled in; tools that look for the file know it like this.
static constexpr char LIST_FILE[] = "/tmp/PROG_NAME.list";
static constexpr std::size_t LINE_LIMIT = 512;
static constexpr int PIPE_ROOM = 1 << 20;  // bytes; nobody reads before who has ended
static constexpr off_t FILE_ROOM = 65536;  // bytes; more than any list

// Where who writes and where its output is read; the same descriptor for a file.
typedef struct _LISTING {
    int in;
    int out;
} LISTING;

// A file without room for the list, because the disk is full, would lose users unnoticed.
static bool has_room(int fd)
{
    return posix_fallocate(fd, 0, FILE_ROOM) == 0 && ftruncate(fd, 0) == 0;
}

static LISTING open_file()
{
    unlink(LIST_FILE);
    const int fd = open(LIST_FILE, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 || has_room(fd))
        return {fd, fd};
    close(fd);
    unlink(LIST_FILE);
    return {-1, -1};
}

static LISTING open_pipe()
{
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return {-1, -1};
    fcntl(ends[1], F_SETFL, 0);
    fcntl(ends[1], F_SETPIPE_SZ, PIPE_ROOM);
    return {ends[0], ends[1]};
}

static LISTING open_listing()
{
    const LISTING file = open_file();
    return file.in >= 0 ? file : open_pipe();
}

static void close_listing(const LISTING &listing)
{
    close(listing.in);
    if (listing.out == listing.in)
        unlink(LIST_FILE);
    else
        close(listing.out);
}

void ParseWho(std::string_view line, std::string_view *user, std::string_view *tty)
{
    *user = *tty = {};
    const std::string_view first = line.substr(0, line.find(' '));
    if (first.size() >= TERMINAL_SIZE)
        return;
    *user = first;
    line.remove_prefix(first.size());
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    *tty = line.substr(0, line.find(' '));
}

// The last entry stays empty: it is the end mark of a full list. So a terminal that reads as empty is none.
static void take_line(std::string_view line, std::string_view user, std::size_t &count)
{
    std::string_view name;
    std::string_view tty;
    ParseWho(line, &name, &tty);
    if (name == user && !tty.empty() && tty.front() != '\0' && count < TERMINAL_COUNT - 1)
        field_set(gszUserList[count++], tty);
}

// What a line has beyond the limit is passed over.
static void take_lines(int fd, std::string_view user)
{
    std::array<char, LINE_LIMIT> line;
    std::array<char, 4096> part;
    std::size_t length = 0;
    std::size_t count = 0;
    for (ssize_t got = 0; (got = read(fd, part.data(), part.size())) > 0;)
        for (const char c : std::string_view(part.data(), static_cast<std::size_t>(got))) {
            if (c == '\n') {
                take_line({line.data(), length}, user, count);
                length = 0;
            } else if (length < line.size()) {
                line[length++] = c;
            }
        }
    take_line({line.data(), length}, user, count);
}

// A list that is not there in time is none.
static bool run_who(int output)
{
    if (utils_monotonicms() >= tell_until())
        return false;
    PROGRAM who{"/usr/bin/who", "who", {}};
    who.output = output;
    return program_wait(program_start(who), tell_until());
}

int UpdateUserList(std::string_view user)
{
    gszUserList = {};
    const LISTING listing = open_listing();
    if (listing.in < 0) {
        ea_error(std::string("Cannot open the list of users: ") + std::strerror(errno));
        return -1;
    }
    const bool listed = run_who(listing.out);
    if (listed) {
        lseek(listing.in, 0, SEEK_SET);
        take_lines(listing.in, user);
    } else {
        ea_error("Cannot read the list of users");
    }
    close_listing(listing);
    return listed ? 1 : -1;
}

// The event log: appending and trimming, and the last two events that the status record shows. The file
// is one line of fixed width an event, oldest first. Called by eventaction and the status fill.
#include "e_a_internal.h"

#include "agent_main_message.h"
#include "e_a_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

static constexpr uid_t LOG_OWNER = 0;
static constexpr gid_t LOG_GROUP = 1;
static constexpr mode_t LOG_MODE = 0600;
static constexpr std::size_t LOG_BUFFER = 80;
// From the end of the log back into its third line from the end.
static constexpr long LAST_TWO = 110;

using stream = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

static stream open_stream(const char *path, const char *mode)
{
    return {std::fopen(path, mode), std::fclose};
}

static long size_of(std::FILE *file)
{
    struct stat status;
    return fstat(fileno(file), &status) == 0 ? static_cast<long>(status.st_size) : 0;
}

// The umask of the daemon does not decide who may read a log.
static int create_log(const char *path, const char *complaint)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, LOG_MODE);
    if (fd < 0) {
        ea_error(complaint);
        return -1;
    }
    if (fchown(fd, LOG_OWNER, LOG_GROUP) != 0 || fchmod(fd, LOG_MODE) != 0)
        ea_error(complaint);
    return fd;
}

static int open_log(const char *path, const char *opening, const char *creating)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd >= 0)
        return fd;
    if (errno == ENOENT)
        return create_log(path, creating);
    ea_error(opening);
    return -1;
}

// Appends one line. A log that held lines already counts an error of its own, which callers ignore;
// `failures` gets the real ones only.
static int append_line(int fd, const char *line, std::size_t length, int &failures)
{
    const off_t end = lseek(fd, 0, SEEK_END);
    failures += end < 0;
    failures += write(fd, line, length) != static_cast<ssize_t>(length);
    return end != 0;
}

// Names come from the network: one that holds a newline must not write a second line. The longest name that
// any caller holds fits.
static int name_length(const char *name)
{
    return static_cast<int>(std::min<std::size_t>(std::strcspn(name, "\n"), 300));
}

int eventlog(int id, int linelimit, int eventid, const char *computername)
{
    engine.eventlogfailed = 0;
    const int fd =
        open_log(Evelogfile, "event log:Cannot open Evtlogfile", "Evelog:Cannot create Evelogfile");
    if (fd < 0)
        return 0;
    UPS_TIMEINFO now{};
    int failures = gettime(timenow(), &now) != 0;
    const char *name = computername != nullptr ? computername : "";
    std::array<char, 400> line;
    const int length = std::snprintf(line.data(), line.size(), "%2i/%2i/%4i %2i:%2i:%2i %3i %3i %15.*s\n",
                                     now.day, now.month, now.year + 1900, now.hour, now.minute, now.second,
                                     id, eventid, name_length(name), name);
    const int notfirst = append_line(fd, line.data(), static_cast<std::size_t>(length), failures);
    failures += close(fd) != 0;
    failures += lengthcheck(Evelogfile, linelimit, EVENTLOG_WIDTH) != 0;
    engine.eventlogfailed = failures != 0;
    return notfirst + failures != 0 ? -1 : 0;
}

static void skip_lines(std::FILE *file, long lines)
{
    std::array<char, LOG_BUFFER> line;
    while (lines-- > 0 && std::fgets(line.data(), LOG_BUFFER, file) != nullptr)
        ;
}

// Moves the rest of `from` to where `to` stands in the same file, and cuts the file there. The reader is
// always ahead of the writer.
static int move_down(std::FILE *from, std::FILE *to)
{
    int failures = 0;
    std::array<char, LOG_BUFFER> line;
    while (std::fgets(line.data(), LOG_BUFFER, from) != nullptr)
        failures += std::fputs(line.data(), to) < 0;
    failures += std::fflush(to) != 0;
    const long end = std::ftell(to);
    failures += end < 0 || ftruncate(fileno(to), end) != 0;
    return failures;
}

int lengthcheck(const char *file, int line, int width)
{
    const stream from = open_stream(file, "r+e");
    if (!from) {
        ea_error("Cannot open file");
        return -1;
    }
    const long lines = size_of(from.get()) / width;
    if (lines <= line)
        return 0;
    const stream to = open_stream(file, "r+e");
    if (!to) {
        ea_error("Cannot open file");
        return -1;
    }
    skip_lines(from.get(), lines - line);
    return move_down(from.get(), to.get()) != 0 ? -1 : 0;
}

int geteventlog([[maybe_unused]] const LOGRANGE *range, [[maybe_unused]] EVENTLOGARRAY *out)
{
    return -1;
}

int getdatalog([[maybe_unused]] const LOGRANGE *range, [[maybe_unused]] DATALOGARRAY *out)
{
    return -1;
}

static void parse_next(std::FILE *file, UPS_EVENTLOGINFO &rec)
{
    std::array<char, LOG_BUFFER> line;
    if (std::fgets(line.data(), LOG_BUFFER, file) != nullptr)
        evelogtoinfo(line.data(), &rec);
}

// One line in the log stands beside whatever the older slot holds.
static void load_last_two(std::FILE *file, std::array<UPS_EVENTLOGINFO, 2> &out)
{
    const long lines = size_of(file) / EVENTLOG_WIDTH;
    if (lines == 0)
        return;
    if (lines == 1) {
        if (engine.SHALLCOPY != 0)
            out[0] = engine.last2event[1];
        engine.SHALLCOPY = 0;
        parse_next(file, engine.last2event[1]);
        return;
    }
    if (lines > 2 && std::fseek(file, -LAST_TWO, SEEK_END) == 0)
        skip_lines(file, 1);
    parse_next(file, engine.last2event[0]);
    parse_next(file, engine.last2event[1]);
}

int getlasttwoevents(std::array<UPS_EVENTLOGINFO, 2> &out)
{
    if (engine.last2loaded == 0 && engine.EVENTLOGENABLED != 0) {
        const stream log = open_stream(Evelogfile, "re");
        if (!log) {
            ea_error(GETTEXTj("getlasttwoevents:Cannot open Evelogfile"));
            return -1;
        }
        load_last_two(log.get(), out);
        engine.last2loaded = 1;
    }
    out = engine.last2event;
    return 0;
}

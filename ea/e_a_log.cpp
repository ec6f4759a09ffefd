// Appending to the event log and the data log, and trimming them. Each file is one line of fixed width an
// event or a measurement, oldest first. Called by eventaction and by the timer; e_a_log_page.cpp reads them.
#include "e_a_internal.h"

#include "e_a_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static constexpr uid_t LOG_OWNER = 0;
static constexpr gid_t LOG_GROUP = 1;
static constexpr mode_t LOG_MODE = 0600;
static constexpr std::size_t LOG_BUFFER = 80;

// One of the two logs, and what is said when it cannot be had.
typedef struct _LOGFILE {
    const char *path;
    int width;
    const char *cannotopen;
    const char *cannotcreate;
} LOGFILE;

static constexpr LOGFILE EVENT_LOG = {Evelogfile, EVENTLOG_WIDTH, "event log:Cannot open Evtlogfile",
                                      "Evelog:Cannot create Evelogfile"};
static constexpr LOGFILE DATA_LOG = {Datalogfile, DATALOG_WIDTH, "datalog:Cannot open Datalogfile",
                                     "datalog:Cannot create Datalog file"};

// ----------------------------------------------------------------------------------------------- appending

// The umask of the daemon does not decide who may read a log.
static int create_log(const LOGFILE &log)
{
    const int fd = open(log.path, O_WRONLY | O_CREAT | O_CLOEXEC, LOG_MODE);
    if (fd < 0) {
        ea_error(log.cannotcreate);
        return -1;
    }
    if (fchown(fd, LOG_OWNER, LOG_GROUP) != 0 || fchmod(fd, LOG_MODE) != 0)
        ea_error(log.cannotcreate);
    return fd;
}

// A full pipe in the place of the log, which somebody holds open and does not read, is not waited for.
static int open_log(const LOGFILE &log)
{
    const int fd = open(log.path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0)
        return fd;
    if (errno == ENOENT)
        return create_log(log);
    ea_error(log.cannotopen);
    return -1;
}

// What the disk takes only a part of is taken off again: the next line would be read as the rest of it.
static int write_line(int fd, off_t end, std::string_view line)
{
    const ssize_t written = write(fd, line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size()))
        return 0;
    if (written > 0 && end >= 0 && ftruncate(fd, end) != 0)
        ea_error(std::string("Cannot shorten log: ") + std::strerror(errno));
    return 1;
}

// Appends `line` to the open log and trims it to `linelimit` lines. A log that held lines already counts an
// error of its own, which callers ignore; `failures` gets the real ones only.
static int append(int fd, const LOGFILE &log, std::string_view line, int linelimit, int &failures)
{
    const off_t end = lseek(fd, 0, SEEK_END);
    failures += end < 0;
    failures += write_line(fd, end, line);
    failures += close(fd) != 0;
    failures += lengthcheck(log.path, linelimit, log.width) != 0;
    return end != 0 || failures != 0 ? -1 : 0;
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
    const int fd = open_log(EVENT_LOG);
    if (fd < 0)
        return 0;
    UPS_TIMEINFO now{};
    int failures = gettime(timenow(), &now) != 0;
    const char *name = computername != nullptr ? computername : "";
    std::array<char, 400> line;
    const int length = std::snprintf(line.data(), line.size(), "%2i/%2i/%4i %2i:%2i:%2i %3i %3i %15.*s\n",
                                     now.day, now.month, now.year + 1900, now.hour, now.minute, now.second,
                                     id, eventid, name_length(name), name);
    const int result =
        append(fd, EVENT_LOG, {line.data(), static_cast<std::size_t>(length)}, linelimit, failures);
    engine.eventlogfailed = failures != 0;
    return result;
}

// No unit has been asked yet.
static bool nothing_measured(const UPSDATA &upsdata)
{
    static constexpr UPSDATA NOTHING{};
    return std::memcmp(&upsdata, &NOTHING, sizeof(upsdata)) == 0;
}

// Values outside their columns lengthen the line: a load of 255 does not, a temperature of -10 does.
int datalog(const UPSDATA &upsdata, int linelimit)
{
    if (nothing_measured(upsdata))
        return 0;
    const int fd = open_log(DATA_LOG);
    if (fd < 0)
        return 0;
    UPS_TIMEINFO now{};
    int failures = gettime(timenow(), &now) != 0;
    std::array<char, 200> line;
    const int length = std::snprintf(
        line.data(), line.size(),
        "%2i/%2i/%4i %2i:%2i:%2i,%3i.%1i,%3i.%1i,%3i,%2i.%1i,%2i.%1i,%2i.%1i,%2i.%1i,%3i\n", now.day,
        now.month, now.year + 1900, now.hour, now.minute, now.second, upsdata.InPutINT, upsdata.InPutREM,
        upsdata.OutPutINT, upsdata.OutPutREM, upsdata.Load, upsdata.FreqInputINT, upsdata.FreqInputREM,
        upsdata.TempINT, upsdata.TempREM, upsdata.BattVolINT, upsdata.BattVolREM, upsdata.FreqOutputINT,
        upsdata.FreqOutputREM, upsdata.BattCap);
    return append(fd, DATA_LOG, {line.data(), static_cast<std::size_t>(length)}, linelimit, failures);
}

// ------------------------------------------------------------------------------------------------ trimming

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

static void skip_lines(std::FILE *file, long lines)
{
    std::array<char, LOG_BUFFER> line;
    while (lines-- > 0 && std::fgets(line.data(), LOG_BUFFER, file) != nullptr)
        ;
}

// Moves the rest of `from` to where `to` stands in the same file, and cuts the file there. The reader is
// always ahead of the writer. What is no text is moved as it is.
static int move_down(std::FILE *from, std::FILE *to)
{
    int failures = 0;
    std::array<char, 4096> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), from))
        failures += std::fwrite(block.data(), 1, got, to) != got;
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
    const long lines = size_of(from.get()) / std::max(width, 1);
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

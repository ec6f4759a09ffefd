// Reading the logs back: pages of them for monitors, and the last two events that the status record shows.
// Lines are met as a reader with a small buffer meets them: a longer one counts as several. Called by the
// dispatcher and the status fill.
#include "e_a_internal.h"

#include "agent_main_message.h"
#include "e_a_error.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int EVENTLOG_BUFFER = 80;
static constexpr int DATALOG_BUFFER = 90;
// From the end of the log back into its third line from the end.
static constexpr long LAST_TWO = 110;

static constexpr long ALL_LINES = std::numeric_limits<long>::max();

using stream = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;
using linebuffer = std::array<char, std::max(EVENTLOG_BUFFER, DATALOG_BUFFER)>;

// Never waits, whatever stands in the place of the log.
static stream open_reading(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::FILE *file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr && fd >= 0)
        close(fd);
    return {file, std::fclose};
}

static long size_of(std::FILE *file)
{
    struct stat status;
    return fstat(fileno(file), &status) == 0 ? static_cast<long>(status.st_size) : 0;
}

// A log that is to be paged through must have an end.
static stream open_pages(const char *path, const char *complaint)
{
    stream log = open_reading(path);
    struct stat status;
    if (log && (fstat(fileno(log.get()), &status) != 0 || !S_ISREG(status.st_mode)))
        log.reset();
    if (!log)
        ea_error(GETTEXTj(complaint));
    return log;
}

// Reads past `lines` lines. Returns how many there were.
static long pass_lines(std::FILE *file, long lines, int buffer)
{
    linebuffer line;
    long passed = 0;
    while (passed < lines && std::fgets(line.data(), buffer, file) != nullptr)
        passed++;
    return passed;
}

// How many lines the log still yields, `lines` at most. Goes back to where it stood.
static long count_lines(std::FILE *file, long lines, int buffer)
{
    const long at = std::ftell(file);
    const long count = pass_lines(file, lines, buffer);
    return at >= 0 && std::fseek(file, at, SEEK_SET) == 0 ? count : 0;
}

// Reads up to `lines` lines into a new array, which is not larger than what the log yields. A line that
// lacks fields keeps zeros for them.
template <typename T>
static int read_page(std::FILE *file, long lines, int buffer, int (*parse)(const char *, T *),
                     std::int32_t &rnum, T *&array)
{
    const long count = count_lines(file, lines, buffer);
    if (count == 0)
        return 0;
    array = new (std::nothrow) T[static_cast<std::size_t>(count)]{};
    if (array == nullptr)
        return -1;
    linebuffer line;
    while (rnum < count && std::fgets(line.data(), buffer, file) != nullptr)
        parse(line.data(), &array[rnum++]);
    return 0;
}

int geteventlog(const LOGRANGE *range, EVENTLOGARRAY *out)
{
    *out = EVENTLOGARRAY{};
    if (range == nullptr || range->counts < 0)
        return -1;
    const stream log = open_pages(Evelogfile, "Cannot open Evelogfile");
    if (!log || pass_lines(log.get(), range->firstline, EVENTLOG_BUFFER) < range->firstline)
        return -1;
    return read_page(log.get(), range->counts, EVENTLOG_BUFFER, evelogtoinfo, out->rnum, out->eventlogarray);
}

// The newest lines, oldest of them first. The lines to skip are looked for behind the last one, so that the
// data log is served from its line 0 or not at all: monitors page through it by the number of lines.
int getdatalog(const LOGRANGE *range, DATALOGARRAY *out)
{
    *out = DATALOGARRAY{};
    if (range == nullptr || range->counts < 0)
        return -1;
    const stream log = open_pages(Datalogfile, "getdatalog:Cannot open Datalogfile");
    if (!log)
        return -1;
    const long lines = pass_lines(log.get(), ALL_LINES, DATALOG_BUFFER);
    if (pass_lines(log.get(), range->firstline, DATALOG_BUFFER) < range->firstline)
        return -1;
    std::rewind(log.get());
    pass_lines(log.get(), lines - range->counts, DATALOG_BUFFER);
    return read_page(log.get(), range->counts, DATALOG_BUFFER, datalogtoinfo, out->rnum, out->datalogarray);
}

static void parse_next(std::FILE *file, UPS_EVENTLOGINFO &rec)
{
    linebuffer line;
    if (std::fgets(line.data(), EVENTLOG_BUFFER, file) != nullptr)
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
        pass_lines(file, 1, EVENTLOG_BUFFER);
    parse_next(file, engine.last2event[0]);
    parse_next(file, engine.last2event[1]);
}

int getlasttwoevents(std::array<UPS_EVENTLOGINFO, 2> &out)
{
    if (engine.last2loaded == 0 && engine.EVENTLOGENABLED != 0) {
        const stream log = open_reading(Evelogfile);
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

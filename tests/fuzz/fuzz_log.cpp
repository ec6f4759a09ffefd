// The two logs with any content. Input: a byte each for the lines to skip, the lines wanted, the limit and
// the width of a trim; the rest is the file. Pages must be cut as a reader with a small buffer cuts them,
// nothing may be made up, a trim must leave exactly the end of the file, and a line can be appended to it. A
// width of 0xF0 and more puts something else in the place of both logs: nothing, a directory, a link to
// nowhere, or a disk without room.
#include "e_a_internal.h"
#include "fuzz_support.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// The engine's way to the agent; reading logs has nothing to say to it.
int Event_CallBack(int, void *, int, int)
{
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    refuse_host();
    return 0;
}

// The lines of `text` as a reader meets them who takes `most` bytes at once.
static std::vector<std::string> pieces_of(std::string_view text, std::size_t most)
{
    std::vector<std::string> pieces;
    while (!text.empty()) {
        const std::size_t size = std::min({text.find('\n'), most - 1, text.size() - 1}) + 1;
        pieces.emplace_back(text.substr(0, size));
        text.remove_prefix(size);
    }
    return pieces;
}

static void write_log(const char *path, std::string_view text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

static std::string read_log(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

template <typename T>
static void require_records(const std::vector<std::string> &pieces, std::size_t first, std::size_t count,
                            const T *array, std::int32_t rnum, int (*parse)(const char *, T *))
{
    require(rnum == static_cast<std::int32_t>(count) && (array != nullptr) == (count != 0),
            "the number of records");
    for (std::size_t i = 0; i < count; i++) {
        T record{};
        parse(pieces[first + i].c_str(), &record);
        require(std::memcmp(&record, &array[i], sizeof record) == 0, "a record");
    }
    delete[] array;
}

static void check_eventpage(std::string_view text, const LOGRANGE &range)
{
    const auto pieces = pieces_of(text, 79);
    EVENTLOGARRAY out{};
    const int result = geteventlog(&range, &out);
    const std::size_t first = static_cast<std::size_t>(std::max(range.firstline, 0));
    const bool served = range.counts >= 0 && first <= pieces.size();
    require(result == (served ? 0 : -1), "the result of an event page");
    const std::size_t count =
        served ? std::min(static_cast<std::size_t>(range.counts), pieces.size() - first) : 0;
    require_records(pieces, first, count, out.eventlogarray, out.rnum, evelogtoinfo);
}

static void check_datapage(std::string_view text, const LOGRANGE &range)
{
    const auto pieces = pieces_of(text, 89);
    DATALOGARRAY out{};
    const int result = getdatalog(&range, &out);
    const bool served = range.counts >= 0 && range.firstline <= 0;
    require(result == (served ? 0 : -1), "the result of a data page");
    const std::size_t count = served ? std::min(static_cast<std::size_t>(range.counts), pieces.size()) : 0;
    require_records(pieces, pieces.size() - count, count, out.datalogarray, out.rnum, datalogtoinfo);
}

static void check_trim(const char *path, const std::string &text, int limit, int width)
{
    const auto pieces = pieces_of(text, 79);
    const auto surplus = static_cast<std::ptrdiff_t>(text.size()) / width - limit;
    std::size_t cut = 0;
    for (std::ptrdiff_t i = 0; i < surplus && i < static_cast<std::ptrdiff_t>(pieces.size()); i++)
        cut += pieces[static_cast<std::size_t>(i)].size();
    require(lengthcheck(path, limit, width) == 0, "the result of a trim");
    require(read_log(path) == text.substr(cut), "what a trim leaves");
}

static void check_lasttwo()
{
    engine = ENGINE{};
    engine.EVENTLOGENABLED = 1;
    std::array<UPS_EVENTLOGINFO, 2> out{};
    require(getlasttwoevents(out) == 0, "the last two events");
    for (const UPS_EVENTLOGINFO &event : out)
        require(event.AgentName.back() == '\0', "the end of a name");
}

// A file with a line more, that ends as lines do.
static void check_append(const std::uint8_t *choice)
{
    UPSDATA measured{};
    std::memcpy(&measured, choice, 4);
    eventlog(choice[0], 100, choice[1], choice[2] % 2 != 0 ? "monitor-1" : nullptr);
    require(engine.eventlogfailed == 0, "the writing of an event");
    require(read_log(Evelogfile).ends_with('\n'), "the line of an event");
    datalog(measured, 100);
}

// ---- no file to read from or to write to

enum class INSTEAD { Nothing, Directory, LinkToNowhere, FullDisk, Count };

static void set_room(rlim_t bytes)
{
    const rlimit limit{bytes, RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "the room of a file");
}

static void put_instead(const char *path, INSTEAD what)
{
    unlink(path);
    if (what == INSTEAD::Directory)
        require(mkdir(path, 0700) == 0, "a directory in the place of a log");
    if (what == INSTEAD::LinkToNowhere)
        require(symlink("/nowhere/log", path) == 0, "a link in the place of a log");
}

static void take_away(const char *path)
{
    if (unlink(path) != 0)
        static_cast<void>(rmdir(path));
}

static void check_without_file(INSTEAD what, const std::uint8_t *choice)
{
    for (const char *path : {Evelogfile, Datalogfile})
        put_instead(path, what);
    const LOGRANGE range = {0, 10};
    EVENTLOGARRAY events{};
    DATALOGARRAY measurements{};
    std::array<UPS_EVENTLOGINFO, 2> last{};
    engine = ENGINE{};
    engine.EVENTLOGENABLED = 1;
    require(geteventlog(&range, &events) == -1 && events.eventlogarray == nullptr, "a page of no log");
    require(getdatalog(&range, &measurements) == -1 && measurements.datalogarray == nullptr,
            "a page of no log");
    require(getlasttwoevents(last) == (what == INSTEAD::Directory ? 0 : -1), "the last two events of no log");
    if (what == INSTEAD::FullDisk)
        set_room(10);
    UPSDATA measured{};
    std::memcpy(&measured, choice, 4);
    eventlog(choice[0], 100, choice[1], "monitor-1");
    require((engine.eventlogfailed != 0) == (what == INSTEAD::FullDisk), "an event on a full disk");
    datalog(measured, 100);
    static_cast<void>(lengthcheck(Evelogfile, 1, 1));
    set_room(RLIM_INFINITY);
    for (const char *path : {Evelogfile, Datalogfile})
        take_away(path);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 4)
        return 0;
    if (data[3] >= 0xF0) {
        check_without_file(static_cast<INSTEAD>(data[3] % static_cast<int>(INSTEAD::Count)), data);
        return 0;
    }
    const std::string text(reinterpret_cast<const char *>(data) + 4, size - 4);
    write_log(Evelogfile, text);
    write_log(Datalogfile, text);
    const LOGRANGE range = {static_cast<std::int8_t>(data[0]),
                            data[1] == 255 ? INT32_MAX : static_cast<std::int8_t>(data[1])};
    check_eventpage(text, range);
    check_datapage(text, range);
    check_lasttwo();
    check_trim(Evelogfile, text, static_cast<std::int8_t>(data[2]), data[3] % 64 + 1);
    check_trim(Datalogfile, text, static_cast<std::int8_t>(data[2]), DATALOG_WIDTH);
    check_append(data);
    return 0;
}

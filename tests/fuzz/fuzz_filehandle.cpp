// The configuration file store on any file and any writes. Input: the number of operations, then for each of
// them a byte for what is done, one that chooses section and key, and a value up to its NUL; the rest is the
// file. After every operation the file must be what the model says, the value must be found where it was
// written, and nothing but one line may have been touched. A first byte of 0xF0 and more puts something else
// in the file's place for the operations: nothing, a directory, a link to nowhere, or a disk without room.
#include "ea/filehandle.h"
#include "fuzz_support.h"
#include "tests/unit/filehandle_model.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static const std::array<std::string, 4> SECTIONS = {"A", "AB", "Event1", "A\nB"};
static const std::array<std::string, 4> KEYS = {"K", "KK", "Event1", ""};

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    refuse_host();
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "silencing the store");
    unlink(CONFIG_FILE);
    return 0;
}

static std::string config_text()
{
    std::ifstream file(CONFIG_FILE, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static std::uint8_t take_byte(std::string_view &input)
{
    if (input.empty())
        return 0;
    const auto byte = static_cast<std::uint8_t>(input.front());
    input.remove_prefix(1);
    return byte;
}

static std::string take_text(std::string_view &input)
{
    const std::string text(input.substr(0, input.find('\0')));
    input.remove_prefix(std::min(text.size() + 1, input.size()));
    return text;
}

// How many bytes of `before` are gone in `after`.
static std::size_t bytes_lost(const std::string &before, const std::string &after)
{
    const std::size_t shorter = std::min(before.size(), after.size());
    std::size_t front = 0;
    while (front < shorter && before[front] == after[front])
        ++front;
    std::size_t back = 0;
    while (back < shorter - front && before.rbegin()[static_cast<std::ptrdiff_t>(back)] ==
                                         after.rbegin()[static_cast<std::ptrdiff_t>(back)])
        ++back;
    return before.size() - front - back;
}

static void check_write(std::string &text, const std::string &section, const std::string &key,
                        const std::string &value)
{
    const std::string before = text;
    const bool known = config_model::find_header(before, section).has_value();
    const bool ended = before.empty() || before.back() == '\n';
    const bool taken = config_model::write(text, section, key, value);
    require((writeparam(section.c_str(), key.c_str(), value.c_str()) == 0) == taken, "result of a write");
    require(config_text() == text, "file after a write");
    require(bytes_lost(before, text) < config_model::LONGEST, "a write touched more than a value");
    if (!taken || !known || !ended || key.empty())
        return;
    const char *found = readparam(section.c_str(), key.c_str());
    const std::string line = value.substr(0, value.find('\n'));
    require(found != nullptr && found == config_model::without_leading(" =", line), "value read back");
}

static void check_read(const std::string &text, const std::string &section, const std::string &key)
{
    const char *found = readparam(section.c_str(), key.c_str());
    const auto wanted = config_model::read(text, section, key);
    require((found != nullptr) == wanted.has_value(), "whether a setting is found");
    require(found == nullptr || found == *wanted, "value of a setting");
}

static void check_remove(std::string &text, const std::string &section, const std::string &key, bool all)
{
    const int wanted = config_model::remove(text, section, key, all);
    require(removeitem(section.c_str(), key.c_str(), all ? 1 : 0) == wanted, "result of a removal");
    require(config_text() == text, "file after a removal");
}

// Reads the whole file item by item: it must end.
static void check_items(const std::string &text)
{
    std::array<char, STORE_LINE_SIZE> key{};
    std::array<char, STORE_LINE_SIZE> value{};
    dfile = std::fopen(CONFIG_FILE, "r");
    std::size_t items = 0;
    while (readitem(key, value) != READITEM_END)
        require(++items <= text.size(), "the items of a file end");
    require(items == config_model::pieces(text, 0).size(), "one item for every line");
    std::fclose(dfile);
    dfile = nullptr;
}

// ---- no file to keep anything in

enum class INSTEAD { Nothing, Directory, LinkToNowhere, FullDisk, Count };

static void set_room(rlim_t bytes)
{
    const rlimit limit{bytes, RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "the room of a file");
}

static void put_instead(INSTEAD what)
{
    unlink(CONFIG_FILE);
    if (what == INSTEAD::Directory)
        require(mkdir(CONFIG_FILE, 0700) == 0, "a directory in the place of the file");
    if (what == INSTEAD::LinkToNowhere)
        require(symlink("/nowhere/config", CONFIG_FILE) == 0, "a link in the place of the file");
    if (what == INSTEAD::FullDisk)
        set_room(4);
}

// A file that is not there comes into being, with what was written; all else refuses, and is not replaced.
static void run_without_file(INSTEAD what, std::string_view &input)
{
    const unsigned operation = take_byte(input) % 4U;
    const unsigned names = take_byte(input);
    const char *section = SECTIONS[names % 3].c_str();
    const char *key = KEYS[names / 4 % 3].c_str();
    if (operation == 0)
        static_cast<void>(removeitem(section, key, 0));
    else if (operation == 1)
        require((open_write_batch() == 0) == (what == INSTEAD::Nothing || what == INSTEAD::FullDisk),
                "a batch without a file");
    else if (writeparam(section, key, take_text(input).c_str()) == 0)
        require(what == INSTEAD::Nothing, "what is stored where nothing can be");
    require(what != INSTEAD::Directory || readparam(section, key) == nullptr, "a setting of a directory");
}

static void check_without_file(INSTEAD what, std::string_view input)
{
    put_instead(what);
    require(readparam("A", "K") == nullptr, "a setting of no file");
    require(openfile(CONFIG_FILE) == (what == INSTEAD::Directory ? 0 : -1), "whether there is a file");
    for (int i = 0; i < 4; ++i)
        run_without_file(what, input);
    static_cast<void>(close_write_batch());
    set_room(RLIM_INFINITY);
    if (what == INSTEAD::Directory)
        require(rmdir(CONFIG_FILE) == 0, "the directory is as it was");
    else
        unlink(CONFIG_FILE);
}

// The store's copy of a file is cut at nothing.
static void check_copy()
{
    static constexpr char COPY[] = "/usr/lib/voltaria/config.copy";
    require(copy_file(CONFIG_FILE, COPY) == 0 && openfile(COPY) == 0, "a copy");
    std::ifstream file(COPY, std::ios::binary);
    const std::string copied{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    require(copied == config_text(), "what a copy holds");
    unlink(COPY);
    require(efopen(COPY, "r") == nullptr, "what is gone cannot be opened");
}

static void run_operation(std::string &text, std::string_view &input)
{
    const unsigned what = take_byte(input) % 8U;
    const unsigned names = take_byte(input);
    const std::string &section = SECTIONS[names % 4];
    const std::string &key = KEYS[names / 4 % 4];
    if (what == 0)
        check_remove(text, section, key, (names & 0x80U) != 0);
    else if (what == 1)
        require(open_write_batch() == 0, "opening a batch");
    else if (what == 2)
        require(close_write_batch() == 0, "closing a batch");
    else
        check_write(text, section, key, take_text(input));
    check_read(text, section, key);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    if (size > 0 && data[0] >= 0xF0) {
        input.remove_prefix(1);
        check_without_file(static_cast<INSTEAD>(data[0] % static_cast<int>(INSTEAD::Count)), input);
        return 0;
    }
    std::string_view operations = input;
    // Operations are taken twice: first to find where the file begins, then to carry them out.
    const unsigned count = take_byte(operations) % 8U;
    std::string_view file = operations;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned what = take_byte(file) % 8U;
        take_byte(file);
        if (what > 2)
            take_text(file);
    }
    std::string text(file);
    std::ofstream(CONFIG_FILE, std::ios::binary | std::ios::trunc) << text;
    for (unsigned i = 0; i < count; ++i)
        run_operation(text, operations);
    require(close_write_batch() == 0, "closing what is left of a batch");
    check_items(text);
    check_copy();
    return 0;
}

// standin: what answers in a sandbox for every program that would reach a user or stop the machine: wall,
// write, mesg, mail, who, shutdown and their like. It notes how it was called, in one line of
// /run/voltaria-test/calls, and ends with status 0. `who` prints the file /run/voltaria-test/who. Tests read
// the lines through testbed.h.
//
// A line is: seconds.microseconds, the path it was called by, each argument, and what came on standard input,
// with a tab between them; control characters and backslashes are written as \xHH.
//
// A test makes a stand-in misbehave with a file /run/voltaria-test/standin.NAME that holds "hang" (note the
// call, then never end), "unread" (do not read standard input, then never end) or "exit N".

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/auxv.h>
#include <sys/time.h>
#include <unistd.h>

static const std::string RECORD = "/run/voltaria-test/";
static constexpr std::size_t INPUT_KEPT = 65536;  // bytes of standard input that are noted

static std::string read_all(int fd, std::size_t limit)
{
    std::string text;
    std::array<char, 4096> part{};
    for (;;) {
        const ssize_t count = read(fd, part.data(), part.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return text;
        if (text.size() < limit)
            text.append(part.data(), static_cast<std::size_t>(count));
    }
}

static std::string read_file(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    std::string text = read_all(fd, INPUT_KEPT);
    close(fd);
    return text;
}

static std::string escaped(std::string_view text)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f && c != '\\') {
            line += c;
            continue;
        }
        line += "\\x";
        line += digits[byte >> 4];
        line += digits[byte & 15];
    }
    return line;
}

static std::string time_text()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%lld.%06ld", static_cast<long long>(now.tv_sec),
                  static_cast<long>(now.tv_usec));
    return text.data();
}

// Only these take a text on standard input; the others may have been given somebody's terminal or console.
static bool takes_text(std::string_view name)
{
    return (name == "wall" || name == "write" || name == "mail" || name == "sendmail") && isatty(0) == 0;
}

static void note_call(const std::string &line)
{
    const int fd = open((RECORD + "calls").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        std::perror("standin: calls");
}

int main(int argc, char **argv)
{
    const char *path = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
    const std::string called = path != nullptr ? path : argv[0];
    const std::string name = called.substr(called.rfind('/') + 1);
    const std::string behaviour = read_file(RECORD + "standin." + name);
    const bool unread = behaviour.starts_with("unread");

    std::string line = time_text();
    line += '\t';
    line += escaped(called);
    for (int i = 1; i < argc; i++) {
        line += '\t';
        line += escaped(argv[i]);
    }
    line += '\t';
    if (!unread && takes_text(name))
        line += escaped(read_all(0, INPUT_KEPT));
    line += '\n';
    note_call(line);

    if (name == "who") {
        const std::string list = read_file(RECORD + "who");
        if (write(1, list.data(), list.size()) < 0)
            return 1;
    }
    while (unread || behaviour.starts_with("hang"))
        pause();
    return behaviour.starts_with("exit ") ? std::atoi(behaviour.c_str() + 5) : 0;
}

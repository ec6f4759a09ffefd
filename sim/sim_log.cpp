// Where the log goes. Entries are escaped once, when they are made; a line is written in one piece.
#include "sim_log.h"

#include "sim_text.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace sim
{

static constexpr std::size_t ENTRIES_KEPT = 20000;

bool log_open(Log &log, const std::string &path)
{
    log.file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    return log.file >= 0;
}

void log_close(Log &log)
{
    if (log.file >= 0 && ::close(log.file) != 0)
        std::perror("log: close");
    log.file = -1;
}

std::string log_line(const LogEntry &entry)
{
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(entry.time).count();
    std::array<char, 48> stamp{};
    std::snprintf(stamp.data(), stamp.size(), "%lld.%03lld ", static_cast<long long>(milliseconds / 1000),
                  static_cast<long long>(milliseconds % 1000));
    return stamp.data() + std::string(entry.direction) + " " + entry.text;
}

// A full disk is told once; the simulation goes on.
static void write_to_file(Log &log, const std::string &line)
{
    std::string_view rest = line;
    while (!rest.empty() && !log.file_failed) {
        const ssize_t written = ::write(log.file, rest.data(), rest.size());
        if (written > 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || errno != EINTR) {
            std::perror("log: write");
            log.file_failed = true;
        }
    }
}

void log_add(Log &log, Time time, std::string_view direction, std::string_view text)
{
    log.entries.push_back({time, direction, escaped(text)});
    if (log.entries.size() > ENTRIES_KEPT)
        log.entries.pop_front();
    if (log.file >= 0)
        write_to_file(log, log_line(log.entries.back()) + "\n");
}

}  // namespace sim

// Test bed: waiting, files, and the calls that the stand-ins noted. Used by system tests and the demo; see
// testbed.h.

#include "testbed.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace testbed
{

static constexpr milliseconds STEP(4);  // between two looks at a condition
static constexpr char CALLS[] = "/run/voltaria-test/calls";

bool eventually(milliseconds limit, const std::function<bool()> &predicate)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end)
            return predicate();
        std::this_thread::sleep_for(STEP);
    }
    return true;
}

void wait_until(const std::string &what, milliseconds limit, const std::function<bool()> &predicate,
                const std::function<std::string()> &seen)
{
    if (eventually(limit, predicate))
        return;
    std::string text = "waited " + std::to_string(limit.count()) + " ms for " + what;
    if (seen)
        text += "; seen instead: " + seen();
    throw TestbedError(text);
}

std::optional<std::string> read_file_if_there(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return std::nullopt;
    std::string text;
    std::array<char, 65536> part;
    // A file of /proc whose process ends meanwhile fails to be read on; what was there counts.
    for (ssize_t got; (got = read(fd, part.data(), part.size())) > 0;)
        text.append(part.data(), static_cast<std::size_t>(got));
    close(fd);
    return text;
}

std::string read_file(const std::string &path)
{
    return read_file_if_there(path).value_or("");
}

void write_file(const std::string &path, std::string_view text, mode_t mode)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (!file || chmod(path.c_str(), mode) != 0)
        throw TestbedError("cannot write " + path + ": " + std::strerror(errno));
}

void write_config(std::string_view text)
{
    write_file(CONFIG_FILE, text, 0600);
}

std::string read_config()
{
    return read_file(CONFIG_FILE);
}

std::string read_console()
{
    return read_file(CONSOLE_RECORD);
}

std::string read_debug()
{
    return read_file(DEBUG_FILE);
}

bool in_sandbox()
{
    return std::getenv("VOLTARIA_SANDBOX") != nullptr && access(CALLS, F_OK) == 0;
}

std::string Call::name() const
{
    return path.substr(path.rfind('/') + 1);
}

// Undoes the \xHH of the stand-ins.
static std::string unescaped(const std::string &text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x') {
            plain += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

static std::optional<Call> parse_call(const std::string &line)
{
    std::vector<std::string> fields;
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t end = std::min(line.find('\t', at), line.size());
        fields.push_back(unescaped(line.substr(at, end - at)));
        at = end + 1;
    }
    if (fields.size() < 3)
        return std::nullopt;
    Call call;
    call.time = std::stod(fields.front());
    call.path = fields[1];
    call.arguments.assign(fields.begin() + 2, fields.end() - 1);
    call.input = fields.back();
    return call;
}

std::vector<Call> calls()
{
    std::vector<Call> list;
    std::istringstream lines(read_file(CALLS));
    for (std::string line; std::getline(lines, line);)
        if (std::optional<Call> call = parse_call(line))
            list.push_back(std::move(*call));
    return list;
}

std::vector<Call> calls_of(std::string_view name)
{
    std::vector<Call> list;
    for (Call &call : calls())
        if (call.name() == name)
            list.push_back(std::move(call));
    return list;
}

void forget_calls()
{
    write_file(CALLS, "", 0666);
}

void set_logged_in(std::string_view lines)
{
    write_file("/run/voltaria-test/who", lines, 0666);
}

void set_stand_in(std::string_view name, std::string_view behaviour)
{
    const std::string path = "/run/voltaria-test/standin." + std::string(name);
    if (behaviour.empty())
        unlink(path.c_str());
    else
        write_file(path, behaviour, 0644);
}

}  // namespace testbed

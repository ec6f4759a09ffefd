// Files, processes, sockets and segments, read from /proc and the file system as they are. Whatever vanishes
// or may not be looked at while it is being read counts as not there.
#include "control_system.h"

#include "aginfo.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/ipc.h>
#include <unistd.h>

static constexpr std::size_t FILE_LIMIT = std::size_t{16} << 20;  // bytes
static constexpr char TCP_LISTEN[] = "0A";

// ---- Files ----

static std::vector<std::string> local_addresses()
{
    std::vector<std::string> list;
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0)
        return list;
    for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        std::array<char, INET_ADDRSTRLEN> text{};
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr, text.data(),
                  text.size());
        list.emplace_back(text.data());
    }
    freeifaddrs(first);
    return list;
}

SYSTEM system_here()
{
    return {"", std::time(nullptr), geteuid() == 0, local_addresses()};
}

std::string system_path(const SYSTEM &system, std::string_view path)
{
    return system.root + std::string(path);
}

// Not blocking: a FIFO or a terminal may stand where a file is looked for.
std::optional<std::string> system_read(const SYSTEM &system, std::string_view path)
{
    const int fd = open(system_path(system, path).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string text;
    std::array<char, 16384> part;
    ssize_t got = 0;
    while (text.size() < FILE_LIMIT && (got = read(fd, part.data(), part.size())) > 0)
        text.append(part.data(), static_cast<std::size_t>(got));
    close(fd);
    if (got < 0)
        return std::nullopt;
    return text;
}

std::vector<std::string> system_list(const SYSTEM &system, std::string_view path)
{
    std::vector<std::string> names;
    DIR *directory = opendir(system_path(system, path).c_str());
    if (directory == nullptr)
        return names;
    while (const dirent *entry = readdir(directory)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

std::string system_link(const SYSTEM &system, std::string_view path)
{
    std::array<char, 4096> target;
    const ssize_t got = readlink(system_path(system, path).c_str(), target.data(), target.size());
    return got < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(got));
}

std::optional<struct stat> system_stat(const SYSTEM &system, std::string_view path)
{
    struct stat info;
    if (stat(system_path(system, path).c_str(), &info) != 0)
        return std::nullopt;
    return info;
}

bool system_exists(const SYSTEM &system, std::string_view path)
{
    return system_stat(system, path).has_value();
}

bool system_executable(const SYSTEM &system, std::string_view path)
{
    const auto info = system_stat(system, path);
    return info && S_ISREG(info->st_mode) && (info->st_mode & 0111) != 0;
}

// ---- Processes ----

template <typename NUMBER> static bool to_number(std::string_view text, NUMBER &number, int base = 10)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

static std::vector<std::string> words_of(std::string_view line)
{
    std::istringstream stream{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

// "PID (NAME) STATE PARENT ..."; the name may hold anything, brackets and blanks too.
static std::optional<PROCESS> parse_process(pid_t pid, std::string_view text)
{
    constexpr std::size_t START = 19;  // words behind the name
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return std::nullopt;
    const std::vector<std::string> words = words_of(text.substr(close + 1));
    PROCESS process;
    process.pid = pid;
    process.name = text.substr(open + 1, close - open - 1);
    if (words.size() < 2 || !to_number(words[1], process.parent))
        return std::nullopt;
    process.state = words[0][0];
    if (words.size() > START)
        to_number(words[START], process.start);
    return process;
}

// "Uid: REAL EFFECTIVE SAVED FILESYSTEM"
static bool is_started_by_root(const SYSTEM &system, const std::string &directory)
{
    std::istringstream lines(system_read(system, directory + "/status").value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("Uid:")) {
            const std::vector<std::string> users = words_of(line);
            return users.size() > 1 && users[1] == "0";
        }
    return false;
}

// The file may have been replaced by a newer one meanwhile.
static std::string program_of(const SYSTEM &system, const std::string &directory)
{
    static constexpr std::string_view DELETED = " (deleted)";
    std::string file = system_link(system, directory + "/exe");
    if (file.ends_with(DELETED))
        file.resize(file.size() - DELETED.size());
    return file.substr(file.rfind('/') + 1);
}

std::optional<PROCESS> system_process(const SYSTEM &system, pid_t pid)
{
    if (pid <= 0)
        return std::nullopt;
    const std::string directory = "/proc/" + std::to_string(pid);
    const auto text = system_read(system, directory + "/stat");
    auto process = text ? parse_process(pid, *text) : std::nullopt;
    if (!process || process->state == 'Z' || process->state == 'X')
        return std::nullopt;
    process->program = program_of(system, directory);
    process->roots = is_started_by_root(system, directory);
    return process;
}

std::vector<PROCESS> system_processes(const SYSTEM &system)
{
    const std::string here = system_link(system, "/proc/self/ns/pid");
    std::vector<PROCESS> list;
    for (const std::string &name : system_list(system, "/proc")) {
        pid_t pid = 0;
        if (!to_number(name, pid))
            continue;
        auto process = system_process(system, pid);
        if (!process)
            continue;
        const std::string there = system_link(system, "/proc/" + name + "/ns/pid");
        process->elsewhere = !there.empty() && there != here;
        list.push_back(*process);
    }
    std::sort(list.begin(), list.end(), [](const PROCESS &a, const PROCESS &b) { return a.pid < b.pid; });
    return list;
}

std::string process_words(const PROCESS &process)
{
    return process.name + " (process " + std::to_string(process.pid) + ")";
}

// The far end of a pseudo-terminal shows which one it is only in the line "tty-index: N".
static std::string far_end(const SYSTEM &system, const std::string &directory, const std::string &name,
                           std::string_view target)
{
    if (!target.ends_with("/ptmx"))
        return "";
    std::istringstream words(system_read(system, directory + "/fdinfo/" + name).value_or(""));
    for (std::string word; words >> word;)
        if (word == "tty-index:" && words >> word)
            return "/dev/pts/" + word;
    return "";
}

std::vector<DESCRIPTOR> system_descriptors(const SYSTEM &system)
{
    std::vector<DESCRIPTOR> list;
    for (const PROCESS &process : system_processes(system)) {
        const std::string directory = "/proc/" + std::to_string(process.pid);
        for (const std::string &name : system_list(system, directory + "/fd")) {
            std::string target = system_link(system, std::string(directory).append("/fd/").append(name));
            if (target.empty())
                continue;
            std::string terminal = far_end(system, directory, name, target);
            list.push_back({process, std::move(target), std::move(terminal)});
        }
    }
    return list;
}

// "0::/system.slice/NAME.service", or one such line for each hierarchy of control groups.
bool system_in_unit(const SYSTEM &system, const std::string &process, std::string_view unit)
{
    std::istringstream lines(system_read(system, "/proc/" + process + "/cgroup").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream names(line);
        for (std::string name; std::getline(names, name, '/');)
            if (name == unit)
                return true;
    }
    return false;
}

// ---- Sockets ----

static std::string dotted(std::uint32_t address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

// The kernel prints each 32 bits of an address as a number of this machine. Nothing for an IPv6 address that
// no IPv4 traffic goes to.
static std::optional<std::string> ipv4_of(std::string_view hex)
{
    constexpr std::string_view MAPPED = "0000000000000000FFFF0000";
    std::uint32_t word = 0;
    if (hex.size() == 32) {
        if (hex.find_first_not_of('0') == std::string_view::npos)
            return "0.0.0.0";
        if (!hex.starts_with(MAPPED))
            return std::nullopt;
        hex.remove_prefix(MAPPED.size());
    }
    return hex.size() == 8 && to_number(hex, word, 16) ? std::optional(dotted(word)) : std::nullopt;
}

static std::optional<PROCESS> holder_of(std::uint64_t inode, const std::vector<DESCRIPTOR> &descriptors)
{
    const std::string target = "socket:[" + std::to_string(inode) + "]";
    for (const DESCRIPTOR &descriptor : descriptors)
        if (descriptor.target == target)
            return descriptor.process;
    return std::nullopt;
}

// "N: ADDRESS:PORT PEER:PORT STATE ... ... ... UID TIMEOUT INODE"
static std::optional<SOCKET> parse_socket(std::string_view line, SOCKETS kind, std::uint16_t port)
{
    constexpr std::size_t INODE = 9;
    const std::vector<std::string> words = words_of(line);
    if (words.size() <= INODE || (kind == SOCKETS::Tcp && words[3] != TCP_LISTEN))
        return std::nullopt;
    const std::string_view local = words[1];
    const std::size_t colon = local.find(':');
    std::uint16_t number = 0;
    if (colon == std::string_view::npos || !to_number(local.substr(colon + 1), number, 16) || number != port)
        return std::nullopt;
    const auto address = ipv4_of(local.substr(0, colon));
    SOCKET socket;
    if (!address || !to_number(std::string_view(words[INODE]), socket.inode))
        return std::nullopt;
    socket.address = *address;
    return socket;
}

std::vector<SOCKET> system_sockets(const SYSTEM &system, SOCKETS kind, std::uint16_t port,
                                   const std::vector<DESCRIPTOR> &descriptors)
{
    const std::string table = kind == SOCKETS::Tcp ? "/proc/net/tcp" : "/proc/net/udp";
    std::vector<SOCKET> list;
    for (const std::string &path : {table, table + "6"}) {
        std::istringstream lines(system_read(system, path).value_or(""));
        for (std::string line; std::getline(lines, line);)
            if (auto socket = parse_socket(line, kind, port)) {
                socket->holder = holder_of(socket->inode, descriptors);
                list.push_back(*socket);
            }
    }
    return list;
}

// "ADDRESS: COUNT PROTOCOL FLAGS TYPE STATE INODE PATH"; a socket that listens has this one flag.
bool system_listens(const SYSTEM &system, std::string_view path)
{
    constexpr std::size_t FLAGS = 3;
    constexpr std::size_t PATH = 7;
    std::istringstream lines(system_read(system, "/proc/net/unix").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> words = words_of(line);
        if (words.size() > PATH && words[FLAGS] == "00010000" && words[PATH] == path)
            return true;
    }
    return false;
}

// ---- Segments ----

std::optional<std::int32_t> system_key(const SYSTEM &system)
{
    const key_t key = ftok(system_path(system, AGINFO_KEYFILE).c_str(), AGINFO_PROJECT);
    return key == -1 ? std::nullopt : std::optional<std::int32_t>(key);
}

// "KEY ID PERMISSIONS SIZE CREATOR LAST ATTACHED ..."
std::optional<SEGMENT> system_segment(const SYSTEM &system, std::int32_t key)
{
    std::istringstream lines(system_read(system, "/proc/sysvipc/shm").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> words = words_of(line);
        std::int32_t found = 0;
        SEGMENT segment;
        if (words.size() > 6 && to_number(words[0], found) && found == key &&
            to_number(words[1], segment.id) && to_number(words[3], segment.size) &&
            to_number(words[6], segment.attached))
            return segment;
    }
    return std::nullopt;
}

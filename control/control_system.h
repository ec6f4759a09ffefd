// What `voltariactl` sees of the machine, and nothing that changes it: files, processes, sockets, shared
// segments, local addresses. Every path goes through a SYSTEM, so that the same code looks at a directory
// tree that stands for a machine.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

// A machine to look at.
struct SYSTEM {
    std::string root;  // put before every absolute path; empty: this machine
    std::time_t now = 0;
    bool privileged = true;              // what only root can see is seen
    std::vector<std::string> addresses;  // local IPv4 addresses, dotted
};

/// This machine, now.
[[nodiscard]] SYSTEM system_here();

[[nodiscard]] std::string system_path(const SYSTEM &system, std::string_view path);
/// The whole file, at most 16 MiB; nullopt when it cannot be read.
[[nodiscard]] std::optional<std::string> system_read(const SYSTEM &system, std::string_view path);
/// The names in a directory, sorted, without "." and "..".
[[nodiscard]] std::vector<std::string> system_list(const SYSTEM &system, std::string_view path);
/// What a symbolic link points at, as it stands; empty when it is none.
[[nodiscard]] std::string system_link(const SYSTEM &system, std::string_view path);
/// The state of a file, links followed; nullopt when there is none.
[[nodiscard]] std::optional<struct stat> system_stat(const SYSTEM &system, std::string_view path);
[[nodiscard]] bool system_exists(const SYSTEM &system, std::string_view path);
[[nodiscard]] bool system_executable(const SYSTEM &system, std::string_view path);

// ---- Processes ----

struct PROCESS {
    pid_t pid = 0;
    pid_t parent = 0;
    char state = '?';  // as /proc shows it; 'Z' has ended
    std::string name;
    std::string program;      // whose file it runs, without the directory; empty where that is not to be seen
    std::uint64_t start = 0;  // clock ticks after boot; tells a process from a later one with its number
    bool elsewhere = false;   // in a container of its own, seen from outside
    bool roots = false;       // root started it: not a user, not even by a program that runs as root
};

/// A process that has not ended; nullopt when there is none of that number.
[[nodiscard]] std::optional<PROCESS> system_process(const SYSTEM &system, pid_t pid);
/// All of them, lowest number first.
[[nodiscard]] std::vector<PROCESS> system_processes(const SYSTEM &system);
/// "NAME (process N)".
[[nodiscard]] std::string process_words(const PROCESS &process);

// An open descriptor of a process.
struct DESCRIPTOR {
    PROCESS process;
    std::string target;    // what /proc/PID/fd/N points at
    std::string terminal;  // the pseudo-terminal whose far end this is, "/dev/pts/4"; else empty
};

/// Every descriptor of every process that may be looked into.
[[nodiscard]] std::vector<DESCRIPTOR> system_descriptors(const SYSTEM &system);
/// Whether the process belongs to this systemd unit, "NAME.service", by its control group.
[[nodiscard]] bool system_in_unit(const SYSTEM &system, const std::string &process, std::string_view unit);

// ---- Sockets and segments ----

enum class SOCKETS { Tcp, Udp };

// A listening TCP socket or a bound UDP socket that can take IPv4 traffic.
struct SOCKET {
    std::string address;  // dotted; "0.0.0.0" for all, also of an IPv6 socket
    std::uint64_t inode = 0;
    std::optional<PROCESS> holder;  // nullopt: not to be found out
};

[[nodiscard]] std::vector<SOCKET> system_sockets(const SYSTEM &system, SOCKETS kind, std::uint16_t port,
                                                 const std::vector<DESCRIPTOR> &descriptors);

/// Whether somebody listens on the socket of this name in the file system.
[[nodiscard]] bool system_listens(const SYSTEM &system, std::string_view path);

// What the kernel refused when a socket was to be bound as the daemon binds it.
struct REFUSAL {
    SOCKETS kind = SOCKETS::Tcp;
    std::string address;  // dotted
    int error = 0;        // errno
};

/// Binds each of the daemon's sockets for a moment, in its own way, while it does not run.
[[nodiscard]] std::vector<REFUSAL> system_refusals(const std::vector<std::string> &addresses);

struct SEGMENT {
    std::int32_t id = -1;
    std::uint64_t size = 0;      // bytes
    std::uint64_t attached = 0;  // processes
};

/// The key of the shared block; nullopt when its key file is missing.
[[nodiscard]] std::optional<std::int32_t> system_key(const SYSTEM &system);
/// The System V segment with this key, as the kernel lists it.
[[nodiscard]] std::optional<SEGMENT> system_segment(const SYSTEM &system, std::int32_t key);

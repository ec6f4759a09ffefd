// The sandbox launcher's own records and steps: sandbox.cpp reads the command line and starts the
// namespaces, then in the new process sandbox_root builds the private root, sandbox_net the private
// network, and sandbox_init stays as process 1 beside the command.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Exit statuses of the launcher itself; any other status is the command's (128 + signal when a signal ended
// it).
inline constexpr int EXIT_SANITIZER = 99;  // a sanitizer left a report behind
inline constexpr int EXIT_LAUNCHER = 125;  // the sandbox could not be set up
inline constexpr int EXIT_NOT_EXECUTABLE = 126;
inline constexpr int EXIT_NOT_FOUND = 127;

// Where tests find what happened inside; see testbed.h.
inline constexpr char RECORD_DIR[] = "/run/voltaria-test";

// One network interface besides lo.
typedef struct _SANDBOX_INTERFACE {
    std::string name;     // "eth0"
    std::string address;  // dotted
    int prefix;           // bits of the netmask
} SANDBOX_INTERFACE;

typedef struct _SANDBOX_OPTIONS {
    std::string hostname = "voltaria-test";
    std::vector<SANDBOX_INTERFACE> interfaces = {{"eth0", "10.77.0.1", 24}};
    std::string bridge;               // a bridge to make inside; none when empty
    std::string port_of;              // the interfaces are ports of this bridge outside; none when empty
    bool default_route = false;       // through the first interface
    std::vector<std::string> shares;  // host directories, writable at the same path inside
    std::string programs;             // directory of this program and of the stand-in
    bool overlay = true;              // false: mirror the host directories with bind mounts
    bool catalogue = true;            // the message catalogue is installed
    bool sanitizer_logs = false;
    bool new_user_namespace = false;  // started by an ordinary user
    bool user_namespace = false;      // the rights inside are those of a user namespace, new or not
    std::vector<char *> command;      // ends with a null pointer
} SANDBOX_OPTIONS;

/// Prints "sandbox: WHAT: system error" (without the error when errno is 0) and ends the process with status
/// 125.
[[noreturn]] void sandbox_fail(const std::string &what);

/// Ends the process through sandbox_fail when `result` is negative; returns it otherwise.
int sandbox_check(int result, const std::string &what);

/// Writes a whole file, creating it with `mode` whatever the umask is.
void sandbox_write_file(const std::string &path, std::string_view text, unsigned mode);

/// The whole content of a file; empty when it cannot be read.
std::string sandbox_read_file(const std::string &path);

/// Builds the private root and moves into it. Called once, in the new namespaces, with all rights there.
void sandbox_root(const SANDBOX_OPTIONS &options);

/// Makes the interfaces of the sandbox whose first process is `child`, and plugs each into the bridge that
/// `port_of` names. Called once, by the launcher, in the network it was started in, before that process goes
/// on.
void sandbox_net_ports(const SANDBOX_OPTIONS &options, int child);

/// Brings lo up, makes the interfaces unless they are there as ports, and the bridge and the route where they
/// are wanted. Called once in the new network namespace.
void sandbox_net(const SANDBOX_OPTIONS &options);

/// Starts the command and stays process 1 until it ends; returns the status to exit with. `signals` is the
/// signal mask the launcher was started with, which the command gets back.
int sandbox_init(const SANDBOX_OPTIONS &options, const void *signals);

// Several hosts on one machine. The test runs in a sandbox that has a bridge (sandbox --bridge lan); every
// host is a sandbox of its own inside it: own root, own processes, own System V IPC, own name, own stand-ins,
// and one interface eth0 that is a port of the bridge. The test sees a host in three ways: it runs a piece of
// itself there (inside), it looks in for a moment (Visit), and it listens on the bridge (Wire). What the
// hosts run ends with them. Used by system tests and benches with the test bed.
#pragma once

#include "testbed.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace testbed
{

inline constexpr char BRIDGE[] = "lan";

struct HostOptions {
    std::string name;
    std::string address;  // dotted, on the network 10.78.0.0/24
    // With a default route the limited broadcast leaves through eth0; without one it cannot be sent.
    bool limited_broadcast = true;
};

class Host
{
  public:
    /// `programs` is the directory of the sandbox launcher and of the daemon. Begins to make the host.
    Host(const std::string &programs, HostOptions options);
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host();

    /// Until the host runs and its datagrams reach the bridge. Everything below needs that.
    void wait_up(milliseconds limit = seconds(40));

    /// Runs `work` in a new process of the host and returns its text; an exception there is thrown on here as
    /// TestbedError. Processes that `work` leaves behind live on until the host ends. Objects that `work`
    /// makes end with it, unless it makes them with new and leaves them.
    std::string inside(const std::function<std::string()> &work, milliseconds limit = seconds(60)) const;
    void run_inside(const std::function<void()> &work, milliseconds limit = seconds(60)) const;

    /// Starts a simulated unit on /dev/ttyS0, and the daemon with this configuration file.
    void start_unit(const std::string &model = "ZR900PL") const;
    void start_agent(std::string_view config) const;
    /// One command to the simulated unit, which must be answered by "ok".
    void unit(const std::string &command) const;
    /// Asks the agent as an outside tool does, by the request word (-1 stop, 1 look at the settings), and
    /// waits until it has done so.
    void request(std::int32_t word) const;

    [[nodiscard]] const std::string &name() const
    {
        return options_.name;
    }
    [[nodiscard]] const std::string &address() const
    {
        return options_.address;
    }
    [[nodiscard]] int handle() const
    {
        return handle_;
    }

  private:
    HostOptions options_;
    std::string programs_;
    Child launcher_;
    pid_t first_ = 0;  // process 1 of the host
    int handle_ = -1;  // pidfd of that process, by which its namespaces are entered
};

/// While it exists, this process sees the host's files, network, name and IPC, but not its processes (so
/// nothing of /proc/self). Sockets and attached shared blocks that are made meanwhile stay with the host. One
/// at a time.
class Visit
{
  public:
    explicit Visit(const Host &host);
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;
    ~Visit();
};

/// A UDP datagram as it passed.
struct Arrival {
    std::string bytes;
    std::string from;  // dotted addresses
    std::string to;
    std::uint16_t port = 0;  // sent to
};

/// Everything that is broadcast on the bridge, as it passes. Made outside any visit.
class Wire
{
  public:
    Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;
    ~Wire();

    /// The next UDP datagram; nullopt when none came in time.
    [[nodiscard]] std::optional<Arrival> next(milliseconds limit) const;
    /// Frames that the kernel had no room to keep since the last call.
    [[nodiscard]] unsigned missed() const;

  private:
    int fd_ = -1;
};

}  // namespace testbed

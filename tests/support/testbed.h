// The test bed: what system tests and the demo do with the real programs inside a sandbox. Starts and stops
// the daemon and the simulated UPS, reads what they leave (console, debug file, logs, calls of other
// programs), looks at the shared block as an outside tool would, and speaks raw bytes to the ports.
// Everything a test starts ends with the object that stands for it. A step that does not come about within
// its time throws TestbedError, whose text says what was waited for and what was seen instead; GoogleTest
// shows it and fails the test.
#pragma once

#include "aginfo.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace testbed
{

using std::chrono::milliseconds;
using std::chrono::seconds;

inline constexpr char INSTALL_DIRECTORY[] = "/usr/lib/voltaria/";
inline constexpr char CONFIG_FILE[] = "/usr/lib/voltaria/config";
inline constexpr char EVENT_LOG[] = "/usr/lib/voltaria/events.log";
inline constexpr char DATA_LOG[] = "/usr/lib/voltaria/data.log";
inline constexpr char DEBUG_FILE[] = "/.erra";
inline constexpr char CONSOLE_RECORD[] = "/run/voltaria-test/console";
inline constexpr std::uint16_t TCP_PORT = 4112;
inline constexpr std::uint16_t MONITOR_UDP_PORT = 4113;
inline constexpr std::uint16_t AGENT_UDP_PORT = 4114;

class TestbedError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// ---- waiting ----

/// Asks `predicate` every few milliseconds until it is true; false when `limit` passed before.
bool eventually(milliseconds limit, const std::function<bool()> &predicate);

/// Like eventually, but throws TestbedError "waited N ms for WHAT" with the text that `seen` gives, when it
/// gives one.
void wait_until(const std::string &what, milliseconds limit, const std::function<bool()> &predicate,
                const std::function<std::string()> &seen = {});

// ---- files ----

/// The whole content; nullopt when there is no such file.
std::optional<std::string> read_file_if_there(const std::string &path);
/// The whole content; empty when there is no such file.
std::string read_file(const std::string &path);
void write_file(const std::string &path, std::string_view text, mode_t mode = 0644);
/// The daemon's configuration file as a whole.
void write_config(std::string_view text);
std::string read_config();
/// Everything that was printed on /dev/console since the sandbox was started.
std::string read_console();
/// The daemon's debug file.
std::string read_debug();
/// True when this process runs inside a sandbox.
bool in_sandbox();

// ---- calls of other programs (wall, write, mail, shutdown ...) ----

struct Call {
    double time = 0;  // seconds since the epoch, by the caller's clock
    std::string path;
    std::vector<std::string> arguments;  // without the program's own name
    std::string input;                   // what came on standard input

    [[nodiscard]] std::string name() const;
};

/// Every call so far, oldest first; calls_of those of one program ("wall").
std::vector<Call> calls();
std::vector<Call> calls_of(std::string_view name);
void forget_calls();
/// What `who` prints from now on: "NAME TERMINAL DATE ..." lines.
void set_logged_in(std::string_view lines);
/// Makes a stand-in misbehave: "hang", "unread", "exit N"; an empty text makes it well again.
void set_stand_in(std::string_view name, std::string_view behaviour);

// ---- processes ----

struct ProcessInfo {
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    pid_t session = 0;
    int terminal = 0;  // device number of the controlling terminal, 0 none
    char state = '?';
    std::string program;  // what /proc/PID/exe points at
};

std::optional<ProcessInfo> process_info(pid_t pid);
/// Every process that runs the program at `path`, zombies not counted, lowest pid first.
std::vector<ProcessInfo> processes_of(const std::string &path);
/// What the process's descriptor `fd` points at; empty when it is not open.
std::string descriptor_target(pid_t pid, int fd);

using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program to its end and gives its exit status (128 + signal) and standard output; throws when
/// `limit` passed.
struct RunResult {
    int status = -1;
    std::string output;
    std::string errors;
};
RunResult run(const std::vector<std::string> &command, milliseconds limit = seconds(20),
              const Environment &environment = {});

/// A child process; killed and reaped with the object.
class Child
{
  public:
    Child() = default;
    Child(const std::vector<std::string> &command, const Environment &environment,
          const std::string &output_file);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    void start(const std::vector<std::string> &command, const Environment &environment = {},
               const std::string &output_file = {});
    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    }
    [[nodiscard]] bool running();
    void send_signal(int number) const;
    /// The exit status (128 + signal); throws when the child is still there after `limit`.
    int wait(milliseconds limit);
    /// SIGTERM, then SIGKILL for one that does not go.
    void stop();

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// ---- the shared block ----

/// The daemon's shared block, attached read-only as an outside tool attaches it.
class SharedBlock
{
  public:
    SharedBlock();  // attaches; throws when there is no block
    SharedBlock(const SharedBlock &) = delete;
    SharedBlock &operator=(const SharedBlock &) = delete;
    ~SharedBlock();

    [[nodiscard]] const AGINFO &operator*() const
    {
        return *block_;
    }
    [[nodiscard]] const AGINFO *operator->() const
    {
        return block_;
    }
    [[nodiscard]] static bool exists();
    /// Stores the request word: 1 announces an agent event, a negative value asks the agent to stop.
    static void request(std::int32_t word);
    /// Removes a block that a killed daemon left behind.
    static void remove();

  private:
    const AGINFO *block_ = nullptr;
};

// ---- the daemon ----

/// Started directly, or by a runner that the environment names: VOLTARIA_RUNNER, a program with options that
/// runs the daemon's program as its last argument, and VOLTARIA_RUNNER_PROGRAM, what /proc/PID/exe then
/// points at.
class Daemon
{
  public:
    /// `program` is the path of voltariad; nothing is started yet.
    explicit Daemon(std::string program);
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;
    ~Daemon();  // kill()

    Environment environment;  // additions for the next start

    /// As from a shell: the launched process must end with status 0 and leave the daemon behind. Waits until
    /// it serves.
    void start();
    /// As by init: the process has parent id 1 and a session of its own from the beginning. Waits until it
    /// serves.
    void start_by_init();
    /// Launches as from a shell and only tells how the launched process ended.
    int launch(milliseconds limit = seconds(10));
    /// Until both processes are there, the block is there and TCP 4112 listens.
    void wait_ready(milliseconds limit = seconds(15));
    /// Asks through the shared block, with a datagram of one byte to make the agent look, and waits for the
    /// end.
    void stop(milliseconds limit = seconds(15));
    /// SIGKILL for every process of the program; removes the block.
    void kill();
    void wait_gone(milliseconds limit = seconds(15));

    [[nodiscard]] bool running() const;
    [[nodiscard]] pid_t agent_pid() const;  // 0 when not running
    [[nodiscard]] pid_t ups_pid() const;    // 0 when not running

  private:
    std::string program_;
};

// ---- the simulated UPS ----

struct SimulatorOptions {
    std::string model = "ZR900PL";
    std::string link = "/dev/ttyS0";
    std::string control = "/run/voltaria-test/ups.control";
    std::string log = "/run/voltaria-test/ups.log";
    std::string scenario;  // file; none when empty
    unsigned seed = 1;
    bool pace = false;
    Environment environment;
};

class Simulator
{
  public:
    /// `program` is the path of upssim. Waits until the port and the control socket are there.
    Simulator(const std::string &program, SimulatorOptions options);

    /// One command, which must be answered by "ok"; throws with the answer otherwise.
    void command(const std::string &text);
    /// One command and its answer line, whatever it is.
    std::string ask(const std::string &text);
    /// The line that `status` answers.
    std::string status();
    [[nodiscard]] std::string log() const;
    void wait_for_log(const std::string &part, milliseconds limit = seconds(15)) const;
    [[nodiscard]] const SimulatorOptions &options() const
    {
        return options_;
    }
    void stop();

  private:
    SimulatorOptions options_;
    Child child_;
};

// ---- raw bytes to the ports ----

class TcpClient
{
  public:
    explicit TcpClient(const std::string &address = "127.0.0.1", std::uint16_t port = TCP_PORT,
                       milliseconds limit = seconds(5));
    TcpClient(const TcpClient &) = delete;
    TcpClient &operator=(const TcpClient &) = delete;
    ~TcpClient();

    void send(std::string_view bytes) const;
    /// Exactly `count` bytes; throws with what came when the time or the connection ended before.
    [[nodiscard]] std::string receive(std::size_t count, milliseconds limit = seconds(5)) const;
    /// Whatever comes until `quiet` passes without a byte, or until the peer closes.
    [[nodiscard]] std::string receive_all(milliseconds quiet = milliseconds(300)) const;
    /// Throws unless the peer closes, with or without further bytes, within the limit.
    void expect_close(milliseconds limit = seconds(5)) const;
    void shutdown_writing() const;
    /// Closes with a reset instead of a FIN.
    void reset();
    [[nodiscard]] int fd() const
    {
        return fd_;
    }

  private:
    int fd_ = -1;
};

struct Datagram {
    std::string bytes;
    std::string from;  // dotted address
    std::uint16_t port = 0;
};

class UdpSocket
{
  public:
    /// Port 0 takes any port; `address` binds to one local address.
    explicit UdpSocket(std::uint16_t port = 0, const std::string &address = "0.0.0.0");
    UdpSocket(const UdpSocket &) = delete;
    UdpSocket &operator=(const UdpSocket &) = delete;
    ~UdpSocket();

    void send(const std::string &address, std::uint16_t port, std::string_view bytes) const;
    /// The next datagram; nullopt when none came in time.
    [[nodiscard]] std::optional<Datagram> receive(milliseconds limit = seconds(5)) const;
    [[nodiscard]] std::uint16_t port() const;

  private:
    int fd_ = -1;
};

/// True when a TCP socket of this machine listens on the port; asks the kernel, not the daemon.
bool tcp_listening(std::uint16_t port);

}  // namespace testbed

// Test bed: processes. Looks at /proc, runs programs to their end, keeps children, and starts the daemon both
// ways.

#include "testbed.h"

#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testbed
{

[[noreturn]] static void fail(const std::string &what)
{
    throw TestbedError(what + ": " + std::strerror(errno));
}

static std::string link_target(const std::string &path)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

std::optional<ProcessInfo> process_info(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    const std::string stat = read_file(directory + "/stat");
    const std::size_t name_end = stat.rfind(')');
    if (name_end == std::string::npos)
        return std::nullopt;
    ProcessInfo info;
    info.pid = pid;
    std::istringstream fields(stat.substr(name_end + 1));
    fields >> info.state >> info.parent >> info.group >> info.session >> info.terminal;
    info.program = link_target(directory + "/exe");
    return info;
}

std::vector<ProcessInfo> processes_of(const std::string &path)
{
    std::vector<ProcessInfo> list;
    DIR *dir = opendir("/proc");
    if (dir == nullptr)
        fail("/proc");
    while (const dirent *entry = readdir(dir)) {
        const pid_t pid = std::atoi(entry->d_name);
        std::optional<ProcessInfo> info = pid > 0 ? process_info(pid) : std::nullopt;
        if (info && info->program == path && info->state != 'Z')
            list.push_back(std::move(*info));
    }
    closedir(dir);
    std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return a.pid < b.pid; });
    return list;
}

std::string descriptor_target(pid_t pid, int fd)
{
    return link_target("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd));
}

static int status_of(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// In the new process: the additions to the environment, and the program in place of this one.
[[noreturn]] static void become(const std::vector<std::string> &command, const Environment &environment)
{
    for (const auto &[name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> arguments;
    for (const std::string &argument : command)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    std::perror(arguments.front());
    _exit(127);
}

RunResult run(const std::vector<std::string> &command, milliseconds limit, const Environment &environment)
{
    std::array<char, 32> out = {"/tmp/testbed.out.XXXXXX"};
    std::array<char, 32> err = {"/tmp/testbed.err.XXXXXX"};
    const int out_fd = mkstemp(out.data());
    const int err_fd = mkstemp(err.data());
    if (out_fd < 0 || err_fd < 0)
        fail("mkstemp");
    const pid_t pid = fork();
    if (pid < 0)
        fail("fork");
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        become(command, environment);
    }
    close(out_fd);
    close(err_fd);
    int status = 0;
    const bool ended = eventually(limit, [&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
        ::kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    RunResult result = {status_of(status), read_file(out.data()), read_file(err.data())};
    unlink(out.data());
    unlink(err.data());
    if (!ended)
        throw TestbedError(command.front() + " did not end within " + std::to_string(limit.count()) +
                           " ms; printed: " + result.output + result.errors);
    return result;
}

Child::Child(const std::vector<std::string> &command, const Environment &environment,
             const std::string &output_file)
{
    start(command, environment, output_file);
}

Child::~Child()
{
    stop();
}

void Child::start(const std::vector<std::string> &command, const Environment &environment,
                  const std::string &output_file)
{
    stop();
    status_.reset();
    pid_ = fork();
    if (pid_ < 0)
        fail("fork");
    if (pid_ > 0)
        return;
    if (!output_file.empty()) {
        const int fd = open(output_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
    }
    dup2(open("/dev/null", O_RDONLY), 0);
    become(command, environment);
}

bool Child::running()
{
    int status = 0;
    if (pid_ > 0 && !status_ && waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = status_of(status);
    return pid_ > 0 && !status_;
}

void Child::send_signal(int number) const
{
    if (pid_ > 0 && !status_)
        ::kill(pid_, number);
}

int Child::wait(milliseconds limit)
{
    wait_until("the end of process " + std::to_string(pid_), limit, [&] { return !running(); });
    return status_.value_or(-1);
}

void Child::stop()
{
    if (!running())
        return;
    send_signal(SIGTERM);
    if (!eventually(seconds(5), [&] { return !running(); })) {
        send_signal(SIGKILL);
        waitpid(pid_, nullptr, 0);
        status_ = 128 + SIGKILL;
    }
}

static int block_id()
{
    const key_t key = ftok(AGINFO_KEYFILE, AGINFO_PROJECT);
    return key == -1 ? -1 : shmget(key, 0, 0);
}

bool SharedBlock::exists()
{
    return block_id() >= 0;
}

SharedBlock::SharedBlock()
{
    const int id = block_id();
    void *address = id < 0 ? nullptr : shmat(id, nullptr, SHM_RDONLY);
    if (address == nullptr || address == reinterpret_cast<void *>(-1))
        fail("no shared block");
    block_ = static_cast<const AGINFO *>(address);
}

SharedBlock::~SharedBlock()
{
    shmdt(block_);
}

void SharedBlock::request(std::int32_t word)
{
    const int id = block_id();
    void *address = id < 0 ? nullptr : shmat(id, nullptr, 0);
    if (address == nullptr || address == reinterpret_cast<void *>(-1))
        fail("no shared block");
    shared_store(static_cast<AGINFO *>(address)->isagentchg, word);
    shmdt(address);
}

void SharedBlock::remove()
{
    const int id = block_id();
    if (id >= 0)
        shmctl(id, IPC_RMID, nullptr);
}

// ---- the daemon

// The daemon's command: its program, behind the words of the runner if there is one.
static std::vector<std::string> daemon_command(const std::string &program)
{
    std::vector<std::string> command;
    const char *runner = std::getenv("VOLTARIA_RUNNER");
    std::istringstream words(runner != nullptr ? runner : "");
    for (std::string word; words >> word;)
        command.push_back(word);
    command.push_back(program);
    return command;
}

// The program that its processes are found to run: the runner's, for that is the one that the kernel knows.
static std::string found_as(const std::string &program)
{
    const char *runs = std::getenv("VOLTARIA_RUNNER_PROGRAM");
    return runs != nullptr ? runs : program;
}

// A runner makes everything many times slower.
static milliseconds patient(milliseconds limit)
{
    return std::getenv("VOLTARIA_RUNNER") != nullptr ? 10 * limit : limit;
}

Daemon::Daemon(std::string program) : program_(std::move(program))
{
    if (!in_sandbox())
        throw TestbedError("the daemon is started in a sandbox only");
}

Daemon::~Daemon()
{
    kill();
}

int Daemon::launch(milliseconds limit)
{
    Child child(daemon_command(program_), environment, "");
    return child.wait(patient(limit));
}

void Daemon::start()
{
    const int status = launch();
    if (status != 0)
        throw TestbedError(program_ + " ended with status " + std::to_string(status));
    wait_ready();
}

void Daemon::start_by_init()
{
    // The middle process ends at once, so process 1 becomes the parent before the daemon looks.
    const pid_t middle = fork();
    if (middle < 0)
        fail("fork");
    if (middle == 0) {
        if (fork() != 0)
            _exit(0);
        setsid();
        while (getppid() != 1)
            usleep(1000);
        become(daemon_command(program_), environment);
    }
    waitpid(middle, nullptr, 0);
    wait_ready();
}

pid_t Daemon::agent_pid() const
{
    const pid_t ups = ups_pid();
    const std::optional<ProcessInfo> info = ups > 0 ? process_info(ups) : std::nullopt;
    return info ? info->parent : 0;
}

pid_t Daemon::ups_pid() const
{
    const std::vector<ProcessInfo> list = processes_of(found_as(program_));
    for (const ProcessInfo &child : list)
        for (const ProcessInfo &parent : list)
            if (child.parent == parent.pid)
                return child.pid;
    return 0;
}

bool Daemon::running() const
{
    return !processes_of(found_as(program_)).empty();
}

void Daemon::wait_ready(milliseconds limit)
{
    const auto ready = [this] {
        if (!SharedBlock::exists() || !tcp_listening(TCP_PORT))
            return false;
        const pid_t ups = ups_pid();
        const SharedBlock block;
        return ups > 0 && shared_load(block->upspid) == ups && agent_pid() > 1;
    };
    wait_until("the daemon to serve", patient(limit), ready, [this] {
        return std::to_string(processes_of(found_as(program_)).size()) + " processes, block " +
               (SharedBlock::exists() ? "there" : "missing") + ", TCP " +
               (tcp_listening(TCP_PORT) ? "listening" : "not listening") + ", console: " + read_console();
    });
}

// A process that is ending loses its program, by which it is found, before its sockets: a daemon started in
// between could not bind them.
static void wait_for_sockets()
{
    eventually(seconds(10), [] { return !tcp_listening(TCP_PORT); });
}

// The agent looks at the request word only on a turn on which something arrived, so something is made to
// arrive.
void Daemon::stop(milliseconds limit)
{
    SharedBlock::request(-1);
    const UdpSocket socket;
    const auto gone = [&] {
        socket.send("127.0.0.1", AGENT_UDP_PORT, std::string_view("\0", 1));
        return eventually(milliseconds(100), [this] { return !running(); });
    };
    wait_until("the daemon to end", limit, gone, [] { return read_console(); });
    wait_for_sockets();
}

void Daemon::wait_gone(milliseconds limit)
{
    wait_until(
        "the daemon to end", limit, [this] { return !running(); }, [] { return read_console(); });
}

void Daemon::kill()
{
    bool killed = false;
    eventually(seconds(10), [this, &killed] {
        const std::vector<ProcessInfo> list = processes_of(found_as(program_));
        for (const ProcessInfo &process : list)
            killed = ::kill(process.pid, SIGKILL) == 0 || killed;
        return list.empty();
    });
    if (killed)
        wait_for_sockets();
    SharedBlock::remove();
}

}  // namespace testbed

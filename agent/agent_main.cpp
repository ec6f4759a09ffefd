// From main to the fork: the process turns into a daemon, opens its endpoints, makes the shared block and
// the pipes, and splits into the agent process and the UPS process. Owns the one AGENT record and the signal
// handlers, which only note what happened; the agent's loop acts on it.
#include "agent_main.h"

#include "agent_daemon.h"
#include "agent_main_message.h"
#include "agent_ups.h"
#include "agent_utils_output.h"
#include "wire_records.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

AGENT agent{};

static volatile std::sig_atomic_t ups_process_ended = 0;  // set by the SIGCHLD handler, never cleared

static constexpr unsigned UPS_PROCESS_DELAY = 3;  // s; the agent's loop runs by then
static constexpr int DESCRIPTORS_CLOSED = 256;

// What a daemon that was started from a shell ignores. Started by init the dispositions are left alone.
static constexpr std::array IGNORED_SIGNALS = {SIGTTOU, SIGTTIN, SIGTSTP, SIGCHLD, SIGINT,  SIGQUIT, SIGTERM,
                                               SIGPIPE, SIGALRM, SIGIO,   SIGXCPU, SIGXFSZ, SIGSEGV, SIGHUP};

bool agent_upsprocess_ended()
{
    return ups_process_ended != 0;
}

// Whatever else ended is a program that the engine left to itself, in a session of its own.
static void sigchild(int)
{
    const int saved = errno;
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
        if (agent.aip != nullptr && pid == agent.aip->upspid)
            ups_process_ended = 1;
    errno = saved;
}

// SIGKILL cannot be caught, so this never runs; the attempt to install it is part of the start.
static void sigkill(int)
{
    net_netexit(&agent);
}

static void ignore_signals()
{
    for (const int signo : IGNORED_SIGNALS)
        std::signal(signo, SIG_IGN);
}

static int open_console()
{
    // Diagnostics must never hold up the daemon: a console that takes no output loses it instead.
    const int fd = open("/dev/console", O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd == -1)
        return -1;
    return dup2(fd, STDOUT_FILENO) == -1 || dup2(fd, STDERR_FILENO) == -1 ? -1 : 0;
}

static int daemon_start()
{
    if (getppid() != 1) {
        ignore_signals();
        const pid_t pid = fork();
        if (pid == -1)
            return -1;
        if (pid > 0)
            _exit(0);
        if (setsid() == -1)
            return -1;
    }
    for (int fd = 0; fd < DESCRIPTORS_CLOSED; ++fd)
        close(fd);
    errno = 0;
    if (chdir(INSTALL_DIR) == -1) {
        // Every path that the daemon uses is absolute.
    }
    umask(0);
    return open_console();
}

static void detach_segment()
{
    shmdt(std::exchange(agent.aip, nullptr));  // the SIGCHLD handler looks into it while it is there
    shmctl(agent.shmid, IPC_RMID, nullptr);
}

static int create_segment()
{
    agent.shmid = shmget(agent.key, sizeof(AGINFO), IPC_CREAT | 0666);
    if (agent.shmid == -1 && errno == EEXIST)
        agent.shmid = shmget(agent.key, 0, 0666);
    if (agent.shmid == -1) {
        printf0("main-shmget: identifier removed\n");
        return -1;
    }
    void *block = shmat(agent.shmid, nullptr, 0);
    if (block == nullptr || block == reinterpret_cast<void *>(-1)) {
        printf0("main, shmat, error\n");
        shmctl(agent.shmid, IPC_RMID, nullptr);
        return -1;
    }
    agent.aip = static_cast<AGINFO *>(block);
    *agent.aip = AGINFO{};
    agent.aip->ups.ui.ComId = COMID_NONE;
    agent.aip->ups.ui.CommStatus = COMM_LOST;
    agent.aip->ups.up.workparam.ComSet = -1;
    return 0;
}

static int create_pipes()
{
    for (auto *ends :
         {&agent.chna2u.actpipe, &agent.chna2u.paspipe, &agent.chnu2a.actpipe, &agent.chnu2a.paspipe})
        if (pipe2(ends->data(), O_CLOEXEC) == -1)
            return -1;
    return 0;
}

static void install_handlers()
{
    struct sigaction action {
    };
    action.sa_handler = sigchild;
    action.sa_flags = SA_RESTART;
    sigaction(SIGCHLD, &action, nullptr);
    action.sa_handler = sigkill;
    sigaction(SIGKILL, &action, nullptr);
    // A pipe or socket whose reader is gone reports EPIPE, whatever the disposition of the signal is.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

static void close_ends(int &first, int &second, int &third, int &fourth)
{
    for (int *fd : {&first, &second, &third, &fourth}) {
        close(*fd);
        *fd = -1;
    }
}

static void agent_process()
{
    close_ends(agent.chna2u.actpipe[0], agent.chna2u.paspipe[1], agent.chnu2a.actpipe[1],
               agent.chnu2a.paspipe[0]);
    daemon_doagent(&agent);
}

[[noreturn]] static void ups_process()
{
    close_ends(agent.chna2u.actpipe[1], agent.chna2u.paspipe[0], agent.chnu2a.actpipe[0],
               agent.chnu2a.paspipe[1]);
    for (unsigned left = UPS_PROCESS_DELAY; left > 0;)
        left = sleep(left);
    ups_doupschan(&agent);
    printf0("return from ups proc\n");
    std::exit(0);
}

// Ends the whole process group, this process included.
static int kill_everyone(int result)
{
    printf0("agent out, kill everyone\n");
    kill(0, SIGKILL);
    detach_segment();
    return result;
}

static int split_processes(pid_t launcher)
{
    if (create_pipes() == -1)
        return kill_everyone(-1);
    install_handlers();
    // The launching process, which after a daemonising start has already gone. Outside tools that know
    // this record take the UPS process and its parent instead.
    agent.aip->agpid = launcher;
    // A child that ended before its id is in the block would be reaped unnoticed.
    sigset_t child;
    sigset_t before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, &before);
    const pid_t pid = fork();
    if (pid == -1)
        return kill_everyone(-1);
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        ups_process();
    }
    agent.aip->upspid = pid;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    agent_process();
    return kill_everyone(0);
}

int agent_main()
{
    message_start();
    agent.chna2u = agent.chnu2a = chnpair{{-1, -1}, {-1, -1}};
    agent.shmid = -1;
    agent.aip = nullptr;
    const pid_t launcher = getpid();
    agent.key = ftok(AGINFO_KEYFILE, AGINFO_PROJECT);
    if (agent.key < 0)
        return -1;
    agent.agnet = NETINFO{};
    agent.agnet.ufd = -1;
    if (daemon_start() == -1)
        return -1;
    if (init_uport(&agent.agnet, PORT_UDP) == -1 || init_tport(&agent.agnet, PORT_TCP) == -1)
        return -1;
    if (create_segment() == -1)
        return -1;
    return split_processes(launcher);
}

// Attaching the shared block, and the steps of a request: file lock, logical lock, word, and back. The file
// lock is a link that exists while somebody holds it; the daemon's processes take it in the same way. No
// signal is let through meanwhile, since a lock left behind would stop every later request.
#include "control_block.h"

#include "shared_word.h"
#include "wire_records.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr char LOCK_SOURCE[] = "/usr/lib/voltaria/.LCK";
static constexpr std::chrono::microseconds LOCK_RETRY{500};
static constexpr milliseconds CLEAR_PATIENCE{2000};

static constexpr char SEE_DIRECTORY[] = "; see what voltariactl doctor says about the directory";

static std::string system_error()
{
    return std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): one thread
}

// ---- Attaching ----

static BLOCK refused(const std::string &what)
{
    const std::string denied =
        "the shared block of voltariad may not be " + what + " by this user: run as root";
    return {nullptr, errno == EACCES || errno == EPERM
                         ? denied
                         : "the shared block of voltariad cannot be " + what + ": " + system_error()};
}

static bool has_size_of_block(int id)
{
    struct shmid_ds info;
    return shmctl(id, IPC_STAT, &info) == 0 && info.shm_segsz >= sizeof(AGINFO);
}

BLOCK block_attach(bool writable)
{
    const key_t key = ftok(AGINFO_KEYFILE, AGINFO_PROJECT);
    if (key == -1)
        return {nullptr, "the key file /etc/.KAVEXUPS is missing, so voltariad cannot run: install it again"};
    const int id = shmget(key, 0, 0);
    if (id == -1)
        return errno == ENOENT ? BLOCK{} : refused("looked up");
    void *address = shmat(id, nullptr, writable ? 0 : SHM_RDONLY);
    if (address == reinterpret_cast<void *>(-1))
        return refused(writable ? "written" : "read");
    if (!has_size_of_block(id)) {
        shmdt(address);
        return {nullptr,
                "the segment on voltariad's key is not its own, it has another size: see voltariactl "
                "doctor"};
    }
    return {static_cast<AGINFO *>(address), ""};
}

void block_detach(BLOCK &block)
{
    if (block.block != nullptr)
        shmdt(block.block);
    block.block = nullptr;
}

// ---- Who is alive ----

bool is_roots(const PROCESS &process, std::string_view name)
{
    // A script is named like its file, too, and runs a shell.
    const bool itself = process.program.empty() || process.program == name;
    return process.name == name && itself && process.roots && !process.elsewhere;
}

bool is_daemon(const PROCESS &process)
{
    return is_roots(process, DAEMON_NAME);
}

static std::optional<PROCESS> daemon_process(const SYSTEM &system, pid_t pid)
{
    auto process = system_process(system, pid);
    return process && is_daemon(*process) ? process : std::nullopt;
}

DAEMON daemon_processes(const SYSTEM &system, const AGINFO &block)
{
    DAEMON daemon;
    daemon.ups = daemon_process(system, shared_load(block.upspid));
    if (daemon.ups)
        daemon.agent = daemon_process(system, daemon.ups->parent);
    return daemon;
}

bool daemon_alive(const DAEMON &daemon)
{
    return daemon.agent.has_value() && daemon.ups.has_value();
}

// ---- The two locks ----

// Returns whether the file lock is held now; `complaint` says what speaks against it for good.
static bool try_file_lock(std::string &complaint)
{
    const int fd = open(LOCK_SOURCE, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        complaint = std::string("the lock file ") + LOCK_SOURCE + " cannot be made: " + system_error() +
                    SEE_DIRECTORY;
        return false;
    }
    close(fd);
    if (link(LOCK_SOURCE, LOCK_HELD) == 0) {
        unlink(LOCK_SOURCE);
        return true;
    }
    if (errno != EEXIST && errno != ENOENT)  // the source may have gone with somebody else's lock
        complaint =
            std::string("the lock file ") + LOCK_HELD + " cannot be made: " + system_error() + SEE_DIRECTORY;
    return false;
}

// With the file lock held.
static bool set_word(AGINFO &block)
{
    if (shared_load(block.locked) != 0)
        return false;
    shared_store(block.locked, 1);
    return true;
}

// How one attempt ended.
enum class ATTEMPT { Done, FileLocked, BlockLocked, Failed };

static void clear_word(AGINFO &block, steady_clock::time_point deadline)
{
    std::string complaint;
    bool held = false;
    while (!(held = try_file_lock(complaint)) && complaint.empty() && steady_clock::now() < deadline)
        std::this_thread::sleep_for(LOCK_RETRY);
    // Without the file lock, too: the word is this process's, and kept set it would stop the daemon's own
    // turns.
    shared_store(block.locked, 0);
    if (held)
        unlink(LOCK_HELD);
}

static ATTEMPT try_request(AGINFO &block, std::int32_t word, std::string &complaint)
{
    if (!try_file_lock(complaint))
        return complaint.empty() ? ATTEMPT::FileLocked : ATTEMPT::Failed;
    const bool mine = set_word(block);
    unlink(LOCK_HELD);
    if (!mine)
        return ATTEMPT::BlockLocked;
    if (word < 0 || shared_load(block.isagentchg) >= 0)
        shared_store(block.isagentchg, word);
    clear_word(block, steady_clock::now() + CLEAR_PATIENCE);
    return ATTEMPT::Done;
}

// One attempt that no signal cuts short.
static ATTEMPT attempt_request(AGINFO &block, std::int32_t word, std::string &complaint)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const ATTEMPT attempt = try_request(block, word, complaint);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return attempt;
}

static std::string stuck(const AGINFO &block, ATTEMPT attempt)
{
    if (attempt == ATTEMPT::FileLocked)
        return std::string("somebody holds the lock file ") + LOCK_HELD +
               "; if a killed program left it behind, remove it and try again";
    std::string numbers;
    const DAEMON daemon = daemon_processes(SYSTEM{}, block);
    for (const auto &process : {daemon.agent, daemon.ups})
        if (process)
            numbers += " " + std::to_string(process->pid);
    return "somebody holds the lock in the shared block and does not give it back: end voltariad with \"kill "
           "-9" +
           numbers + "\"; the next start sets the block up anew";
}

std::string block_request(AGINFO &block, std::int32_t word, milliseconds patience)
{
    const auto deadline = steady_clock::now() + patience;
    std::string complaint;
    for (;;) {
        const ATTEMPT attempt = attempt_request(block, word, complaint);
        if (attempt == ATTEMPT::Done)
            break;
        if (attempt == ATTEMPT::Failed)
            return complaint;
        if (steady_clock::now() >= deadline)
            return stuck(block, attempt);
        std::this_thread::sleep_for(LOCK_RETRY);
    }
    block_wake();
    return "";
}

// One byte is no packet, so the agent takes its turn and does nothing else about it. A lost one is made good
// by the next.
void block_wake()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    agent.sin_port = htons(PORT_UDP);
    sendto(fd, "", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&agent), sizeof agent);
    close(fd);
}

// Faults of files and of the programs that the daemon starts: a disk without room, settings that are a
// directory, logs that cannot be written, notifications and commands that never end, a lock that nobody will
// ever give back.
#include "faults_repeat.h"

#include "tests/system/mixed_requests.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

namespace faults
{

using namespace std::chrono_literals;
namespace files = std::filesystem;

static const std::string DIRECTORY = testbed::INSTALL_DIRECTORY;
static const std::string FILLER = DIRECTORY + "filler";
static constexpr std::size_t LOG_LINE = 44;
static constexpr std::size_t PAGE = 4096;

static void must(bool held, const std::string &what)
{
    if (!held)
        throw testbed::TestbedError(what + ": " + std::strerror(errno));
}

// ---- a disk without room

static void copy_all(const std::string &from, const std::string &to)
{
    files::copy(from, to, files::copy_options::recursive | files::copy_options::overwrite_existing);
}

// The next line that is appended finds room for less than itself: a disk gives room by the page. What is put
// before the lines there are tells of no event.
static void leave_room_for_a_part_of_a_line()
{
    std::string log = testbed::read_file(testbed::EVENT_LOG);
    std::string nothing;
    while ((nothing.size() + log.size()) % PAGE < PAGE - LOG_LINE)
        nothing += "14/11/2023 22:13:20 255 255                \n";
    testbed::write_file(testbed::EVENT_LOG, nothing + log, 0600);
}

static void fill_up()
{
    const int fd = open(FILLER.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    must(fd >= 0, FILLER);
    const std::string page(PAGE, 'x');
    while (write(fd, page.data(), page.size()) > 0) {
    }
    must(errno == ENOSPC, FILLER);
    close(fd);
}

// A monitor saves the settings that are in force, and is answered behind them.
static void save_settings()
{
    const testbed::TcpClient client;
    const std::string settings = mixed::ask(client, mixed::command(5));
    client.send(mixed::packet(DATAID_CONFIG, settings.substr(PACKET_HEAD_SIZE)));
    EXPECT_EQ(mixed::ask(client, mixed::command(6)).size(), PACKET_HEAD_SIZE);
}

void DiskFull_begin(Scene &scene)
{
    const std::string kept = "/usr/lib/voltaria.kept";
    copy_all(DIRECTORY, kept);
    must(mount("disk", DIRECTORY.c_str(), "tmpfs", 0, "size=4m,mode=755") == 0, "small disk");
    scene.cleanups.emplace_back([] { umount2(DIRECTORY.c_str(), MNT_DETACH); });
    copy_all(kept, DIRECTORY);
    files::remove_all(kept);
    leave_room_for_a_part_of_a_line();
    repeat(scene, 100ms, fill_up);  // trimming a log gives room
    save_settings();
}

// Whoever appends next begins a line of his own.
void DiskFull_end(Scene &scene)
{
    end_repetition(scene);
    EXPECT_EQ(files::file_size(testbed::EVENT_LOG) % LOG_LINE, 0u) << "a part of a line is left in the log";
    files::remove(FILLER);
}

// ---- files that are none

static std::string aside(const std::string &path)
{
    return path + ".aside";
}

static void put_directory(Scene &scene, const std::string &path)
{
    if (files::exists(path))
        files::rename(path, aside(path));
    files::create_directory(path);
    scene.cleanups.emplace_back([path] { files::remove_all(path); });
}

static void put_back(const std::string &path)
{
    EXPECT_TRUE(files::is_directory(path) && files::is_empty(path)) << path;
    files::remove_all(path);
    if (files::exists(aside(path)))
        files::rename(aside(path), path);
}

// Asked for its settings, the agent reads them again and finds none.
void SettingsFileADirectory_begin(Scene &scene)
{
    put_directory(scene, testbed::CONFIG_FILE);
    const testbed::TcpClient client;
    client.send(mixed::command(5));
    if (scene.phase != Phase::IN_GRACE)
        save_settings();
}

void SettingsFileADirectory_end(Scene &)
{
    put_back(testbed::CONFIG_FILE);
}

// It can still be read: what it holds must not change.
static void make_read_only(Scene &scene, const char *log)
{
    must(mount(log, log, nullptr, MS_BIND, nullptr) == 0, std::string(log) + " on itself");
    scene.cleanups.emplace_back([log] { umount2(log, MNT_DETACH); });
    must(mount(nullptr, log, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0,
         std::string(log) + " read-only");
}

static void make_writable(const char *log)
{
    must(umount2(log, 0) == 0, log);
}

// A data log that there is none of yet becomes a directory; a monitor may be reading the other kind.
void LogsUnwritable_begin(Scene &scene)
{
    make_read_only(scene, testbed::EVENT_LOG);
    if (files::exists(testbed::DATA_LOG)) {
        make_read_only(scene, testbed::DATA_LOG);
        return;
    }
    put_directory(scene, testbed::DATA_LOG);
    const testbed::TcpClient client;
    EXPECT_EQ(mixed::ask(client, mixed::command(2, 0, 10)).size(), PACKET_HEAD_SIZE);
}

void LogsUnwritable_end(Scene &)
{
    make_writable(testbed::EVENT_LOG);
    if (files::is_directory(testbed::DATA_LOG))
        put_back(testbed::DATA_LOG);
    else
        make_writable(testbed::DATA_LOG);
}

// ---- programs that never end

static constexpr std::array<const char *, 3> TELLING = {"wall", "write", "mail"};

static void set_telling(const char *behaviour)
{
    for (const char *program : TELLING)
        testbed::set_stand_in(program, behaviour);
}

// Whatever runs the program at this path ends; the daemon has left it to itself long ago.
static void end_all_of(const std::string &path)
{
    for (const testbed::ProcessInfo &process : testbed::processes_of(path))
        kill(process.pid, SIGKILL);
}

bed::Settings NotificationHangs_settings()
{
    return {{"Event65", "MailUser", "1"},       {"Event128", "MailUser", "1"},
            {"Event129", "BroadcastType", "2"}, {"Event129", "BroadcastUser", "1"},
            {"UserInfo", "UserID", "1"},        {"1", "Name", "ann"},
            {"1", "Email", "ann@example.org"}};
}

void NotificationHangs_begin(Scene &scene)
{
    testbed::set_logged_in("ann pts/3 2023-11-14 22:13\n");
    set_telling("hang");
    scene.cleanups.emplace_back([] {
        set_telling("");
        testbed::set_logged_in("");
        for (const char *path : {"/usr/bin/wall", "/usr/bin/write", "/bin/mail", "/usr/bin/mail"})
            end_all_of(path);
    });
}

void NotificationHangs_end(Scene &)
{
    set_telling("");
}

static constexpr char NEVER_ENDING[] = "/run/voltaria-test/never-ending";

bed::Settings CommandNeverEnds_settings()
{
    const std::string command = std::string("test ! -e ") + NEVER_ENDING + " || exec sleep 1000000000";
    return {{"ShutDown", "CloseAppTime", std::to_string(COMMAND_TIME)},
            {"Event65", "Command", command},
            {"Event128", "Command", command}};
}

void CommandNeverEnds_begin(Scene &scene)
{
    testbed::write_file(NEVER_ENDING, "");
    scene.cleanups.emplace_back([] {
        files::remove(NEVER_ENDING);
        end_all_of("/usr/bin/sleep");
        end_all_of("/bin/sleep");
    });
}

void CommandNeverEnds_end(Scene &)
{
    files::remove(NEVER_ENDING);
}

// ---- a lock that nobody gives back

static const std::string LOCK_HELD = DIRECTORY + ".pipelock";

// A tool that takes the file lock and the shared block, asks for something and is killed.
static void die_with_the_lock(const std::string &source)
{
    close(open(source.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    auto *block =
        static_cast<AGINFO *>(shmat(shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0), nullptr, 0));
    if (link(source.c_str(), LOCK_HELD.c_str()) != 0 || unlink(source.c_str()) != 0)
        _exit(1);
    shared_store(block->locked, 1);
    shared_store(block->isagentchg, 1);
    raise(SIGKILL);
}

void BlockLockedByADeadTool_begin(Scene &scene)
{
    const std::string source = DIRECTORY + ".LCK";
    const pid_t tool = fork();
    if (tool == 0)
        die_with_the_lock(source);
    int status = 0;
    waitpid(tool, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the tool got no lock";
    scene.cleanups.emplace_back([] { unlink(LOCK_HELD.c_str()); });
}

// Somebody looks after it: only now is the dead tool's request taken.
void BlockLockedByADeadTool_end(Scene &scene)
{
    EXPECT_EQ(access(LOCK_HELD.c_str(), F_OK), 0);
    unlink(LOCK_HELD.c_str());
    const int shmid = shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0);
    auto *block = static_cast<AGINFO *>(shmat(shmid, nullptr, 0));
    ASSERT_NE(block, reinterpret_cast<AGINFO *>(-1));
    EXPECT_EQ(shared_load(block->isagentchg), 1);
    shared_store(block->locked, 0);
    if (scene.stage.daemon.running()) {
        (void)bed::ask_status(testbed::TcpClient());
        scene.stage.run(100ms);
        EXPECT_EQ(shared_load(block->isagentchg), 0);
    }
    shmdt(block);
}

}  // namespace faults

// The private root of a sandbox: a tmpfs on which every top directory of the machine appears as an overlay
// (reads see the machine, writes stay in memory), with private /dev, /proc, /run, /tmp, accounts and name
// service, stand-ins for the programs that would reach users or stop the machine, and the source and build
// directories at their own paths. What a directory must hold besides the machine's entries is written first,
// below the overlay; where overlays are refused, the same directories are mirrored entry by entry with bind
// mounts. Called by sandbox.cpp, once.

#include "sandbox.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

// While the root is being built the machine's root is at /old and the new one at /new.
static const std::string OLD = "/old";
static const std::string NEW = "/new";
static const std::string UPPER = "/upper";

// Directories with bind-mounted entries or a file system of their own; never taken from the machine.
static constexpr std::array PRIVATE_TOPS = {"dev", "proc", "run", "sys", "tmp", "root", "lost+found"};

// The machine's nodes that /dev holds.
static constexpr std::array DEVICES = {"null", "zero", "full", "random", "urandom", "tty"};

// Every program that could reach a user or stop the machine. Each stands in the system directories it belongs
// to, and in every other directory of programs where the machine has one of that name.
typedef struct _STAND_IN {
    std::string_view name;
    std::string_view place;  // "bin" or "sbin"
} STAND_IN;
static constexpr std::array STAND_INS = {
    STAND_IN{"wall", "bin"},      STAND_IN{"write", "bin"},     STAND_IN{"mesg", "bin"},
    STAND_IN{"mail", "bin"},      STAND_IN{"who", "bin"},       STAND_IN{"systemctl", "bin"},
    STAND_IN{"sendmail", "sbin"}, STAND_IN{"shutdown", "sbin"}, STAND_IN{"halt", "sbin"},
    STAND_IN{"poweroff", "sbin"}, STAND_IN{"reboot", "sbin"},   STAND_IN{"telinit", "sbin"},
    STAND_IN{"init", "sbin"}};
static constexpr std::array<std::string_view, 6> PROGRAM_DIRS = {
    "/bin", "/sbin", "/usr/bin", "/usr/sbin", "/usr/local/bin", "/usr/local/sbin"};

static constexpr char NSSWITCH[] = "passwd: files\ngroup: files\nshadow: files\nhosts: files\nservices: "
                                   "files\nprotocols: files\nnetworks: files\n";

static bool is_directory(const std::string &path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

static bool exists(const std::string &path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0;
}

static bool is_link(const std::string &path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

static void make_directories(const std::string &path, unsigned mode = 0755)
{
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        if (mkdir(path.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST && errno != EROFS)
            sandbox_fail("mkdir " + path);
    if (mkdir(path.c_str(), mode) != 0) {
        if (errno == EEXIST)
            return;
        sandbox_fail("mkdir " + path);
    }
    sandbox_check(chmod(path.c_str(), mode), "chmod " + path);
}

static void mount_tmpfs(const std::string &path, const char *mode)
{
    make_directories(path);
    sandbox_check(mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, mode), "mount tmpfs " + path);
}

static std::vector<std::string> entries(const std::string &directory)
{
    std::vector<std::string> names;
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(dir);
    return names;
}

static void copy_link(const std::string &from, const std::string &to)
{
    std::array<char, PATH_MAX> target{};
    if (readlink(from.c_str(), target.data(), target.size() - 1) < 0)
        sandbox_fail("readlink " + from);
    sandbox_check(symlink(target.data(), to.c_str()), "symlink " + to);
}

// Shows `from` at `to`, which is made first; answers false when that cannot be.
static bool bind_entry(const std::string &from, const std::string &to)
{
    struct stat st = {};
    if (lstat(from.c_str(), &st) != 0)
        return false;
    if (S_ISLNK(st.st_mode)) {
        copy_link(from, to);
        return true;
    }
    if (S_ISDIR(st.st_mode))
        make_directories(to);
    else
        sandbox_write_file(to, "", 0644);
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

// What was prepared for an overlay that is not to be: small files, links and directories.
static void copy_tree(const std::string &from, const std::string &to)
{
    for (const std::string &name : entries(from)) {
        const std::string source = from + "/" + name;
        const std::string target = to + "/" + name;
        struct stat st = {};
        if (lstat(source.c_str(), &st) != 0)
            continue;
        if (S_ISLNK(st.st_mode)) {
            copy_link(source, target);
        } else if (S_ISDIR(st.st_mode)) {
            make_directories(target, st.st_mode & 07777);
            copy_tree(source, target);
        } else {
            sandbox_write_file(target, sandbox_read_file(source), st.st_mode & 07777);
        }
    }
}

// Makes a mount, and every mount below it, read-only.
static void make_read_only(const std::string &path)
{
    mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    sandbox_check(mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes),
                  "read-only " + path);
}

// The machine's entries of one directory that `to` does not have yet, not to be written; directories that
// both have are entered.
static void mirror(const std::string &from, const std::string &to)
{
    for (const std::string &name : entries(from)) {
        const std::string source = from + "/" + name;
        const std::string target = to + "/" + name;
        if (!exists(target)) {
            if (bind_entry(source, target) && !is_link(target))
                make_read_only(target);
        } else if (is_directory(source) && is_directory(target)) {
            mirror(source, target);
        }
    }
}

// Accounts without anybody's password: tests add the ones they log in with.
static std::string locked_shadow(const std::string &accounts)
{
    std::string text;
    for (std::size_t at = 0; at < accounts.size();) {
        const std::size_t end = std::min(accounts.find('\n', at), accounts.size());
        const std::size_t colon = accounts.find(':', at);
        if (colon < end)
            text += accounts.substr(at, colon - at) + ":*:19000:0:99999:7:::\n";
        at = end + 1;
    }
    return text;
}

static void write_etc(const std::string &etc, const SANDBOX_OPTIONS &options)
{
    make_directories(etc);
    const std::string accounts = sandbox_read_file(OLD + "/etc/passwd");
    sandbox_write_file(etc + "/.KAVEXUPS", "", 0644);
    sandbox_write_file(etc + "/passwd", accounts, 0644);
    sandbox_write_file(etc + "/shadow", locked_shadow(accounts), 0600);
    sandbox_write_file(etc + "/group", sandbox_read_file(OLD + "/etc/group"), 0644);
    sandbox_write_file(etc + "/nsswitch.conf", NSSWITCH, 0644);
    sandbox_write_file(etc + "/resolv.conf", "", 0644);
    sandbox_write_file(etc + "/hostname", options.hostname + "\n", 0644);
    const std::string address = options.interfaces.empty() ? "127.0.1.1" : options.interfaces.front().address;
    sandbox_write_file(etc + "/hosts", "127.0.0.1 localhost\n" + address + " " + options.hostname + "\n",
                       0644);
}

static void write_stand_ins(const std::string &base, std::string_view directory)
{
    const std::string path(directory);
    if (!is_directory(OLD + path))
        return;  // a link to one of the others, or not there
    make_directories(base + path);
    const bool local = path.find("/local/") != std::string::npos;
    for (const auto &[name, place] : STAND_INS) {
        const std::string program = path + "/" + std::string(name);
        const bool belongs = !local && path.substr(path.rfind('/') + 1) == place;
        if (!belongs && !exists(OLD + program))
            continue;
        const std::string stand_in = std::string(RECORD_DIR) + "/standin";
        sandbox_check(symlink(stand_in.c_str(), (base + program).c_str()), program);
    }
}

// What the new root holds besides the machine's entries, below `base`.
static void write_additions(const std::string &base, const SANDBOX_OPTIONS &options)
{
    write_etc(base + "/etc", options);
    make_directories(base + "/usr/lib/voltaria");
    make_directories(base + "/var/log");
    make_directories(base + "/var/tmp", 01777);
    for (const std::string_view directory : PROGRAM_DIRS)
        write_stand_ins(base, directory);
}

// The installation directory, whatever the machine has installed there: the message catalogue at most.
static void make_install_directory(const SANDBOX_OPTIONS &options)
{
    const std::string directory = NEW + "/usr/lib/voltaria";
    mount_tmpfs(directory, "mode=755");
    if (!options.catalogue)
        return;
    const std::string built = options.programs.substr(0, options.programs.rfind('/'));
    const std::string messages = "/locale/ja/LC_MESSAGES";
    const std::string catalogue = sandbox_read_file(OLD + built + messages + "/voltariad.mo");
    errno = 0;
    if (catalogue.empty())
        sandbox_fail("no catalogue " + built + messages + "/voltariad.mo");
    make_directories(directory + messages);
    sandbox_write_file(directory + messages + "/voltariad.mo", catalogue, 0644);
}

// One top directory of the machine as an overlay; answers false when the kernel refuses.
static bool mount_overlay(const std::string &name, const SANDBOX_OPTIONS &options)
{
    make_directories(UPPER + "/" + name);
    make_directories("/scratch/" + name);
    make_directories(NEW + "/" + name);
    std::string data =
        "lowerdir=" + OLD + "/" + name + ",upperdir=" + UPPER + "/" + name + ",workdir=/scratch/" + name;
    if (options.user_namespace)
        data += ",userxattr";
    return mount("overlay", (NEW + "/" + name).c_str(), "overlay", 0, data.c_str()) == 0;
}

static void take_top_directory(const std::string &name, const SANDBOX_OPTIONS &options)
{
    if (options.overlay && mount_overlay(name, options))
        return;
    // The machine's directory holds mounts of its own that a user namespace may not look beneath, or the
    // kernel has no overlays for us. Entries that cannot be shown are left out.
    make_directories(NEW + "/" + name);
    copy_tree(UPPER + "/" + name, NEW + "/" + name);
    mirror(OLD + "/" + name, NEW + "/" + name);
}

static void take_machine(const SANDBOX_OPTIONS &options)
{
    for (const std::string &name : entries(OLD)) {
        if (std::find(PRIVATE_TOPS.begin(), PRIVATE_TOPS.end(), name) != PRIVATE_TOPS.end())
            continue;
        struct stat st = {};
        if (lstat((OLD + "/" + name).c_str(), &st) != 0)
            continue;
        if (S_ISLNK(st.st_mode))
            copy_link(OLD + "/" + name, NEW + "/" + name);
        else if (S_ISDIR(st.st_mode))
            take_top_directory(name, options);
    }
}

static void make_dev()
{
    const std::string dev = NEW + "/dev";
    mount_tmpfs(dev, "mode=755");
    for (const char *name : DEVICES)
        if (!bind_entry(OLD + "/dev/" + name, dev + "/" + name))
            sandbox_fail(std::string("bind /dev/") + name);
    make_directories(dev + "/pts");
    sandbox_check(mount("devpts", (dev + "/pts").c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
                        "newinstance,ptmxmode=0666,mode=620"),
                  "mount devpts");
    mount_tmpfs(dev + "/shm", "mode=1777");
    constexpr std::array<std::array<const char *, 2>, 5> links = {{{"pts/ptmx", "/ptmx"},
                                                                   {"/proc/self/fd", "/fd"},
                                                                   {"/proc/self/fd/0", "/stdin"},
                                                                   {"/proc/self/fd/1", "/stdout"},
                                                                   {"/proc/self/fd/2", "/stderr"}}};
    for (const auto &[target, name] : links)
        sandbox_check(symlink(target, (dev + name).c_str()), name);
}

// The machine's own settings and its emergency keys stay out of reach of a command that runs as the real
// root.
static void make_proc(const SANDBOX_OPTIONS &options)
{
    const std::string proc = NEW + "/proc";
    make_directories(proc);
    sandbox_check(mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr),
                  "mount proc");
    if (!options.user_namespace) {
        const std::string sys = proc + "/sys";
        sandbox_check(mount(sys.c_str(), sys.c_str(), nullptr, MS_BIND, nullptr), "bind /proc/sys");
        make_read_only(sys);
        const std::string keys = proc + "/sysrq-trigger";
        if (exists(keys))
            sandbox_check(mount((OLD + "/dev/null").c_str(), keys.c_str(), nullptr, MS_BIND, nullptr), keys);
    }
    // Wanted by some tools for the number of processors only; a container may refuse it.
    make_directories(NEW + "/sys");
    mount("sysfs", (NEW + "/sys").c_str(), "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY, nullptr);
}

static void make_run(const SANDBOX_OPTIONS &options)
{
    mount_tmpfs(NEW + "/run", "mode=755");
    make_directories(NEW + "/run/lock", 01777);
    const std::string record = NEW + RECORD_DIR;
    make_directories(record);
    make_directories(record + "/sanitizer", 01777);
    for (const char *name : {"/calls", "/who", "/console"})
        sandbox_write_file(record + name, "", 0666);
    const std::string program = sandbox_read_file(OLD + options.programs + "/standin");
    errno = 0;
    if (program.empty())
        sandbox_fail("no program " + options.programs + "/standin");
    sandbox_write_file(record + "/standin", program, 0755);
}

typedef struct _KEPT_DIRECTORY {
    std::string path;
    bool writable;
} KEPT_DIRECTORY;

// The source tree (read-only), the build directory and the shares, outermost first so that none hides
// another.
static void keep_directories(const SANDBOX_OPTIONS &options)
{
    std::vector<KEPT_DIRECTORY> kept;
    if (is_directory(OLD + VOLTARIA_SOURCE_DIR))
        kept.push_back({VOLTARIA_SOURCE_DIR, false});
    kept.push_back({options.programs.substr(0, options.programs.rfind('/')), true});
    for (const std::string &share : options.shares)
        kept.push_back({share, true});
    std::stable_sort(kept.begin(), kept.end(),
                     [](const auto &a, const auto &b) { return a.path.size() < b.path.size(); });
    for (const auto &[path, writable] : kept) {
        const std::string target = NEW + path;
        if (!is_directory(target))
            make_directories(target);
        sandbox_check(mount((OLD + path).c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
                      "bind " + path);
        if (!writable)
            make_read_only(target);
    }
}

// Leaves the machine's root at /old and an empty tmpfs at / and at /new.
static void leave_machine()
{
    sandbox_check(mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr), "mount propagation");
    sandbox_check(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=755"), "mount the workshop");
    sandbox_check(mkdir("/tmp/old", 0755), "mkdir old");
    sandbox_check(static_cast<int>(syscall(SYS_pivot_root, "/tmp", "/tmp/old")), "pivot_root");
    sandbox_check(chdir("/"), "chdir");
    mount_tmpfs(NEW, "mode=755");
}

static void enter_new_root(const std::string &directory)
{
    sandbox_check(chdir(NEW.c_str()), "chdir");
    sandbox_check(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    sandbox_check(umount2(".", MNT_DETACH), "leaving the machine's root");
    sandbox_check(chdir("/"), "chdir");
    if (!directory.empty() && chdir(directory.c_str()) != 0)
        sandbox_check(chdir("/"), "chdir");
}

void sandbox_root(const SANDBOX_OPTIONS &options)
{
    std::array<char, PATH_MAX> directory{};
    if (getcwd(directory.data(), directory.size()) == nullptr)
        directory[0] = '\0';
    leave_machine();
    write_additions(UPPER, options);
    take_machine(options);
    make_install_directory(options);
    mount_tmpfs(NEW + "/root", "mode=700");
    mount_tmpfs(NEW + "/tmp", "mode=1777");
    make_dev();
    make_proc(options);
    make_run(options);
    keep_directories(options);
    enter_new_root(directory.data());
}

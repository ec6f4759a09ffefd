// Checks of doctor: the daemon's files, its shared block, the console and the clock.
#include "control_doctor.h"

#include "aginfo.h"
#include "control_block.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

static constexpr char DIRECTORY[] = "/usr/lib/voltaria";
static constexpr char CATALOGUE[] = "/usr/lib/voltaria/locale/ja/LC_MESSAGES/voltariad.mo";
static constexpr char CONSOLE[] = "/dev/console";
static constexpr char EVENT_LOG[] = "/usr/lib/voltaria/events.log";

static const std::string INSTALL_AGAIN = "Install the package again.";

// The owner of the machine's files: root. A directory that stands for a machine belongs to another user.
static bool is_roots(const PATIENT &patient, const struct stat &info)
{
    const auto top = system_stat(patient.system, "/");
    return !top || info.st_uid == top->st_uid;
}

// ---- The key file and the segment ----

FINDING check_keyfile(const PATIENT &patient)
{
    const auto info = system_stat(patient.system, AGINFO_KEYFILE);
    if (!info)
        return problem("/etc/.KAVEXUPS is missing: voltariad ends at once and says nothing.",
                       "Create it with \"touch /etc/.KAVEXUPS\" and start voltariad.");
    if (!S_ISREG(info->st_mode))
        return warning("/etc/.KAVEXUPS is no regular file: its identity may change.",
                       "Replace it by an empty file while voltariad is stopped.");
    return well("/etc/.KAVEXUPS is there.");
}

static std::string key_words(std::int32_t key)
{
    std::array<char, 16> text{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
    std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(key));
    return text.data();
}

static FINDING no_segment(const PATIENT &patient)
{
    const std::vector<PROCESS> daemon = daemon_of(patient);
    if (daemon.empty())
        return well("There is none, as long as voltariad does not run.");
    if (daemon.size() == 1)
        return warning("There is none: voltariad is starting or ending.", "Look again in some seconds.");
    std::string numbers;
    for (const PROCESS &process : daemon)
        numbers += " " + std::to_string(process.pid);
    return problem("voltariad runs, but its shared block is not on the key of /etc/.KAVEXUPS: the file was "
                   "replaced while it ran.",
                   "Run \"kill -9" + numbers + "\" and start voltariad: stop can no longer reach it.");
}

FINDING check_segment(const PATIENT &patient)
{
    const auto key = system_key(patient.system);
    if (!key)
        return well("There is no key to look for.");
    const auto segment = system_segment(patient.system, *key);
    if (!segment)
        return no_segment(patient);
    const std::string id = std::to_string(segment->id);
    if (segment->size < sizeof(AGINFO))
        return problem("The segment on voltariad's key " + key_words(*key) + " has " +
                           std::to_string(segment->size) + " bytes instead of 1660: voltariad cannot start.",
                       "Find out with \"ipcs -m -p -i " + id +
                           "\" whose it is, then remove it with \"ipcrm -m " + id + "\".");
    if (segment->size > sizeof(AGINFO))
        return warning(
            "The segment on voltariad's key " + key_words(*key) + " has " + std::to_string(segment->size) +
                " bytes instead of 1660: another program made it, and voltariad uses it all the same.",
            "Stop voltariad, remove the segment with \"ipcrm -m " + id + "\" and start voltariad.");
    if (!daemon_runs(patient))
        return well("A killed voltariad left its block behind; the next start uses it again.");
    return well("The shared block is there.");
}

// ---- The directory ----

static FINDING writable_directory(const PATIENT &patient, const struct stat &info)
{
    struct statvfs space;
    if (statvfs(system_path(patient.system, DIRECTORY).c_str(), &space) != 0)
        return well("/usr/lib/voltaria is there.");
    if ((space.f_flag & ST_RDONLY) != 0)
        return problem(
            "/usr/lib/voltaria lies on a read-only file system: no settings, no logs and no requests of "
            "tools.",
            "Mount it for writing.");
    if (space.f_blocks > 0 && space.f_bfree == 0)  // without blocks of its own it has no limit
        return problem("The file system of /usr/lib/voltaria is full: settings and logs get lost.",
                       "Make room on it.");
    if (!is_roots(patient, info) || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return warning(
            "Others than root may write into /usr/lib/voltaria and so change what voltariad runs as root.",
            "Run \"chown root /usr/lib/voltaria\" and \"chmod 755 /usr/lib/voltaria\".");
    return well("/usr/lib/voltaria can be written.");
}

FINDING check_directory(const PATIENT &patient)
{
    const auto info = system_stat(patient.system, DIRECTORY);
    if (!info)
        return problem(
            "The directory /usr/lib/voltaria is missing: no settings, no logs and no requests of tools.",
            INSTALL_AGAIN);
    if (!S_ISDIR(info->st_mode))
        return problem("/usr/lib/voltaria is no directory.", INSTALL_AGAIN);
    return writable_directory(patient, *info);
}

// ---- The settings ----

static FINDING unread_settings(const PATIENT &patient)
{
    if (!patient.settings.there)
        return well("There is no settings file yet: every setting has its default.");
    if (patient.system.privileged)
        return problem(
            "The settings file /usr/lib/voltaria/config cannot be read: every setting has its default.",
            "See with \"ls -ld /usr/lib/voltaria/config\" what it is: it has to be a regular file.");
    return warning("The settings file /usr/lib/voltaria/config cannot be read by this user.",
                   "Run doctor as root.");
}

FINDING check_settings(const PATIENT &patient)
{
    constexpr std::size_t SHOWN = 8;
    const SETTINGS &settings = patient.settings;
    if (!settings.readable)
        return unread_settings(patient);
    const auto info = system_stat(patient.system, SETTINGS_PATH);
    if (info && (!is_roots(patient, *info) || (info->st_mode & (S_IWGRP | S_IWOTH)) != 0))
        return problem("Others than root may write /usr/lib/voltaria/config, whose commands run as root.",
                       "Run \"chown root /usr/lib/voltaria/config\" and \"chmod 600 "
                       "/usr/lib/voltaria/config\".");
    if (settings.complaints.empty())
        return well("/usr/lib/voltaria/config is well formed.");
    std::string text;
    for (std::size_t i = 0; i < settings.complaints.size() && i < SHOWN; ++i)
        text +=
            "line " + std::to_string(settings.complaints[i].line) + ": " + settings.complaints[i].text + "; ";
    if (settings.complaints.size() > SHOWN)
        text += "and " + std::to_string(settings.complaints.size() - SHOWN) + " more; ";
    text.resize(text.size() - 2);
    return warning("/usr/lib/voltaria/config, " + text + ".",
                   "Correct these lines, or set the values with a monitor; restart voltariad.");
}

// ---- The catalogue ----

FINDING check_catalogue(const PATIENT &patient)
{
    constexpr std::string_view MAGIC = "\xde\x12\x04\x95";
    const auto text = system_read(patient.system, CATALOGUE);
    if (!text)
        return warning(std::string("The message catalogue ") + CATALOGUE +
                           " is missing: Japanese monitors and mails get English texts.",
                       INSTALL_AGAIN);
    if (!text->starts_with(MAGIC) && !text->starts_with("\x95\x04\x12\xde"))
        return warning(std::string(CATALOGUE) + " is no message catalogue: all texts are English.",
                       INSTALL_AGAIN);
    return well("The message catalogue is there.");
}

// ---- The console ----

FINDING check_console(const PATIENT &patient)
{
    if (!system_exists(patient.system, CONSOLE))
        return problem(
            "/dev/console is missing: voltariad cannot start.",
            "Create it with \"mknod -m 600 /dev/console c 5 1\", or give the container a console.");
    const int fd =
        open(system_path(patient.system, CONSOLE).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        return well("/dev/console can be opened.");
    }
    if (!patient.system.privileged)
        return well("/dev/console is there; only root can tell whether it opens.");
    return problem("/dev/console cannot be opened: voltariad cannot start.",
                   "Boot with a console that exists, see \"console=\" in /proc/cmdline.");
}

// ---- Lock files ----

FINDING check_lockfiles(const PATIENT &patient)
{
    constexpr std::time_t LONG = 5;  // s; it is held for moments
    const auto info = system_stat(patient.system, LOCK_HELD);
    if (!info)
        return well("No lock file has been left behind.");
    if (!lock_left_behind(patient) && patient.system.now - info->st_ctime < LONG)
        return well("The lock file is in use at the moment.");
    return problem(
        "A killed program left the lock file /usr/lib/voltaria/.pipelock behind: voltariad hears no tool.",
        "Remove it with \"rm /usr/lib/voltaria/.pipelock\".");
}

// ---- The clock ----

FINDING check_clock(const PATIENT &patient)
{
    constexpr std::time_t EARLIEST = 1704067200;  // 1 January 2024
    constexpr std::time_t AHEAD = 3600;           // s
    if (patient.system.now < EARLIEST)
        return problem("The clock of this machine is years behind: schedules come at the wrong time.",
                       "Set the clock, and see to it that it is set at every boot.");
    const auto log = system_stat(patient.system, EVENT_LOG);
    if (log && log->st_mtime > patient.system.now + AHEAD)
        return warning("The event log was written in the future of this machine's clock.",
                       "Set the clock, or wait until it has caught up: schedules go by it.");
    if (!system_exists(patient.system, "/etc/localtime"))
        return well("The clock is set; no time zone is, so that schedules go by UTC.");
    return well("The clock is set.");
}

// Checks of doctor: the programs that the daemon runs, and whether the last of them can do its work.
#include "control_doctor.h"

#include <algorithm>
#include <array>

// ---- Telling users ----

struct PROGRAM_ROW {
    std::string_view path;
    std::string_view use;
    std::string_view package;  // where Debian has it
};

static constexpr auto PROGRAMS = std::to_array<PROGRAM_ROW>({
    {"/usr/bin/wall", "no terminal is told of anything", "bsdutils"},
    {"/usr/bin/write", "no chosen user is told on a terminal", "bsdextrautils"},
    {"/usr/bin/mesg", "the console may refuse messages", "util-linux"},
    {"/usr/bin/who", "no chosen user is found", "coreutils"},
    {"/bin/sh", "no event's command runs", "dash"},
});

FINDING check_programs(const PATIENT &patient)
{
    std::string found;
    std::vector<std::string> packages;
    for (const PROGRAM_ROW &row : PROGRAMS) {
        if (system_executable(patient.system, row.path))
            continue;
        found += (found.empty() ? "" : "; ") + std::string(row.path) + " is missing: " + std::string(row.use);
        packages.emplace_back(row.package);
    }
    if (found.empty())
        return well("The programs that tell users are there.");
    return problem(found + ".", "Install " + list_words(packages) + ".");
}

static bool mails_anybody(const PATIENT &patient)
{
    return std::any_of(patient.settings.list.begin(), patient.settings.list.end(),
                       [&patient](const SETTING &setting) {
                           return setting.key == "MailUser" &&
                                  settings_number(patient.settings, setting.section, setting.key, 0) != 0;
                       });
}

static FINDING without_mail(const PATIENT &patient)
{
    const std::string install =
        "Install a mail program, in Debian bsd-mailx, and see to it that it can deliver.";
    if (mails_anybody(patient))
        return problem("/bin/mail is missing, but events are set to be mailed: nobody gets these mails.",
                       install);
    const bool known = patient.settings.readable || !patient.settings.there;
    return warning(known ? "/bin/mail is missing; no event is set to be mailed."
                         : "/bin/mail is missing: an event that is set to be mailed reaches nobody.",
                   install);
}

FINDING check_mail(const PATIENT &patient)
{
    if (!system_executable(patient.system, "/bin/mail"))
        return without_mail(patient);
    if (mails_anybody(patient) && !system_executable(patient.system, "/usr/sbin/sendmail"))
        return warning("Events are set to be mailed, and there is no /usr/sbin/sendmail, to which most mail "
                       "programs hand a mail: it may go nowhere.",
                       "Install a mail server, in Debian for instance postfix, and try notify-test.");
    return well("/bin/mail is there; notify-test tells whether it takes a mail.");
}

// ---- Going down ----

static bool runs(const PATIENT &patient, std::string_view name)
{
    // The kernel keeps 15 characters of a name.
    return std::any_of(patient.processes.begin(), patient.processes.end(), [name](const PROCESS &process) {
        return !process.elsewhere && process.name == name.substr(0, 15);
    });
}

static FINDING under_systemd(const PATIENT &patient)
{
    std::string missing;
    if (!system_listens(patient.system, "/run/dbus/system_bus_socket") &&
        !system_listens(patient.system, "/var/run/dbus/system_bus_socket"))
        missing = "D-Bus does not run";
    if (!runs(patient, "systemd-logind") && system_process(patient.system, 1))
        missing += std::string(missing.empty() ? "" : " and ") + "systemd-logind does not run";
    if (missing.empty())
        return well("/sbin/shutdown can reach the login service.");
    return problem("Under systemd " + missing +
                       ": /sbin/shutdown may do nothing, and the UPS would switch off a running machine.",
                   "Install dbus and libpam-systemd, and run \"systemctl start dbus systemd-logind\".");
}

FINDING check_shutdown(const PATIENT &patient)
{
    const SYSTEM &system = patient.system;
    if (!system_executable(system, "/sbin/shutdown"))
        return problem("/sbin/shutdown is missing: the UPS would switch off a running machine.",
                       "Install systemd-sysv or sysvinit-core.");
    if (system_exists(system, "/run/systemd/system"))
        return under_systemd(patient);
    if (system_link(system, "/sbin/shutdown").ends_with("systemctl"))
        return problem(
            "/sbin/shutdown is systemd's, but systemd does not run this machine: it may do nothing, "
            "as in a container, and the UPS would switch off a running machine.",
            "Run voltariad on the machine itself, or install the shutdown of the init that runs.");
    if (system_exists(system, "/run/initctl") || system_exists(system, "/dev/initctl"))
        return well("/sbin/shutdown can reach init.");
    return warning("No init that /sbin/shutdown talks to was found: it may do nothing, as in a container.",
                   "Run voltariad on the machine itself, and try \"shutdown -k now\" there.");
}

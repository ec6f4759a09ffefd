// Checks of doctor: the serial ports that the daemon searches for the unit, and who else uses them. No port
// is opened: that would move its modem lines, and the daemon may be in the middle of a talk.
#include "control_doctor.h"

#include "monitor_words.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <sys/sysmacros.h>

// ---- Ports ----

// What the kernel's driver found behind the node: the node is there for ports that the machine lacks, too.
static bool has_no_uart(const PATIENT &patient, const std::string &port)
{
    const std::string number = port.substr(port.find_last_not_of("0123456789") + 1);
    std::istringstream lines(system_read(patient.system, "/proc/tty/driver/serial").value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(number + ":"))
            return line.find("uart:unknown") != std::string::npos;
    return false;
}

// A link to a pseudo-terminal has nothing to do with the machine's own port of that number.
static bool is_pseudo(const struct stat &info)
{
    constexpr unsigned FIRST = 136;
    constexpr unsigned LAST = 143;
    return major(info.st_rdev) >= FIRST && major(info.st_rdev) <= LAST;
}

static bool is_present(const PATIENT &patient, const std::string &port)
{
    const auto info = system_stat(patient.system, port);
    return info && S_ISCHR(info->st_mode) && (is_pseudo(*info) || !has_no_uart(patient, port));
}

static std::vector<std::string> present_ports(const PATIENT &patient)
{
    std::vector<std::string> present;
    for (const std::string &port : searched_ports(patient))
        if (is_present(patient, port))
            present.push_back(port);
    return present;
}

static FINDING no_port(const std::vector<std::string> &searched)
{
    return problem(
        (searched.size() == 1 ? "There is no serial port " : "There is none of the serial ports ") +
            list_words(searched) + ": no UPS can be found.",
        "Switch the serial port on in the firmware's setup, pass it to this virtual machine or container, "
        "or set ComSet to the port that there is.");
}

// The node may be a link to the real one.
static std::set<std::string> names_of(const PATIENT &patient, const std::string &port)
{
    std::set<std::string> names{port};
    const std::string target = system_link(patient.system, port);
    if (!target.empty())
        names.insert(target.starts_with('/') ? target : "/dev/" + target);
    return names;
}

static bool has_open(const PATIENT &patient, const std::string &port)
{
    const std::set<std::string> names = names_of(patient, port);
    return std::any_of(patient.descriptors.begin(), patient.descriptors.end(),
                       [&names](const DESCRIPTOR &descriptor) {
                           return is_daemon(descriptor.process) && names.count(descriptor.target) > 0;
                       });
}

FINDING check_ports(const PATIENT &patient)
{
    const std::vector<std::string> searched = searched_ports(patient);
    if (searched.empty())
        return warning("The settings say that there is no UPS (ComSet = -2): this machine is not protected.",
                       "Set ComSet to 0 with a monitor once a UPS is connected.");
    const std::vector<std::string> present = present_ports(patient);
    if (present.empty())
        return no_port(searched);
    const std::string choice =
        present.size() > 1 ? " It serves one UPS, the first that answers; ComSet picks a port." : "";
    if (!daemon_runs(patient))
        return well("voltariad will look for the UPS on " + list_words(present) + "." + choice);
    for (const std::string &port : present)
        if (has_open(patient, port))
            return well(std::string("voltariad has ").append(port).append(" open.").append(choice));
    return well("voltariad looks for the UPS on " + list_words(present) + "." + choice);
}

// ---- Who holds them ----

// Who has the far end of a pseudo-terminal is the unit, or plays one; it may keep this end open, too.
static const PROCESS *player_of(const PATIENT &patient, const std::string &port)
{
    const std::set<std::string> names = names_of(patient, port);
    for (const DESCRIPTOR &descriptor : patient.descriptors)
        if (names.count(descriptor.terminal) > 0)
            return &descriptor.process;
    return nullptr;
}

static const PROCESS *holder_of(const PATIENT &patient, const std::string &port)
{
    const PROCESS *player = player_of(patient, port);
    const std::set<std::string> names = names_of(patient, port);
    for (const DESCRIPTOR &descriptor : patient.descriptors)
        if (!is_daemon(descriptor.process) && names.count(descriptor.target) > 0 &&
            (player == nullptr || player->pid != descriptor.process.pid))
            return &descriptor.process;
    return nullptr;
}

// Programs that dial note in such a file that a port is theirs.
static std::string lock_of(const PATIENT &patient, const std::string &port)
{
    const std::string name = "LCK.." + port.substr(port.rfind('/') + 1);
    for (const std::string &path : {"/run/lock/" + name, "/var/lock/" + name})
        if (system_exists(patient.system, path))
            return path;
    return "";
}

static FINDING held_finding(const std::vector<std::string> &held)
{
    return problem(list_words(held) + ": the two take each other's answers.",
                   "Stop that program, or set ComSet to the UPS's own port.");
}

static FINDING lock_finding(const std::string &lock, const std::string &port)
{
    return warning(lock + " says that another program uses " + port + ".",
                   "Stop that program, or remove the file if none runs.");
}

static FINDING player_finding(const PROCESS &player, const std::string &port)
{
    return warning(port + " is a pseudo-terminal of " + process_words(player) +
                       ": what answers there is a program and no UPS.",
                   "For a trial that is right; otherwise stop that program.");
}

FINDING check_portholders(const PATIENT &patient)
{
    std::vector<std::string> held;
    for (const std::string &port : searched_ports(patient))
        if (const PROCESS *holder = holder_of(patient, port))
            held.push_back(port + " is also held by " + process_words(*holder));
    if (!held.empty())
        return held_finding(held);
    for (const std::string &port : searched_ports(patient)) {
        const std::string lock = lock_of(patient, port);
        if (!lock.empty())
            return lock_finding(lock, port);
        if (const PROCESS *player = player_of(patient, port))
            return player_finding(*player, port);
    }
    return well(patient.system.privileged ? "No other program has a searched serial port open."
                                          : "Who has a searched serial port open, only root can tell.");
}

// ---- The unit ----

FINDING check_link(const PATIENT &patient)
{
    if (!patient.ups)
        return well("Nothing is known of the UPS as long as voltariad does not run.");
    const UPS_UPSINFO &info = patient.ups->ui;
    if (info.CommStatus == COMM_ESTABLISHED)
        return well("The UPS " + std::string(field_view(info.upsmodel)) + " answers on " +
                    words_device(static_cast<std::int8_t>(info.ComId + 1)) + ".");
    if (info.CommStatus == COMM_NOUPS)
        return well("No UPS is looked for.");
    return problem(
        "No UPS answers on " + list_words(searched_ports(patient)) + ": voltariad sees no mains failure.",
        "Wait a minute after a start; then check that the UPS is on, that the cable is its own and sits "
        "on one of these ports.");
}

// ---- Consoles and logins ----

static bool names_port(std::string_view text, const std::string &device)
{
    std::istringstream words{std::string(text)};
    for (std::string word; words >> word;)
        if (word == device || word == "console=" + device || word.starts_with("console=" + device + ","))
            return true;
    return false;
}

static bool is_kernel_console(const PATIENT &patient, const std::string &device)
{
    const auto active = system_read(patient.system, "/sys/class/tty/console/active");
    if (active)
        return names_port(*active, device);
    const auto line = system_read(patient.system, "/proc/cmdline");
    return line && names_port(*line, device);
}

static bool is_there(const PATIENT &patient, const std::string &path)
{
    return !system_link(patient.system, path).empty() || system_exists(patient.system, path);
}

static bool has_login_unit(const PATIENT &patient, const std::string &device)
{
    const std::string unit = "/serial-getty@" + device + ".service";
    if (system_link(patient.system, "/etc/systemd/system" + unit) == "/dev/null")
        return false;  // masked: never started
    return is_there(patient, "/etc/systemd/system/getty.target.wants" + unit) ||
           is_there(patient, "/run/systemd/generator/getty.target.wants" + unit) ||
           is_there(patient, "/run/systemd/system/getty.target.wants" + unit);
}

static bool has_login_line(const PATIENT &patient, const std::string &device)
{
    std::istringstream lines(system_read(patient.system, "/etc/inittab").value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with('#') && line.find("getty") != std::string::npos && names_port(line, device))
            return true;
    return false;
}

static FINDING login_finding(const std::string &port, std::string_view how, const std::string &advice)
{
    return problem("A login waits on " + port + " and talks to the UPS" + std::string(how) + ".",
                   advice + " Or set ComSet to the UPS's own port.");
}

FINDING check_serialconsole(const PATIENT &patient)
{
    for (const std::string &port : present_ports(patient)) {
        const std::string device = port.substr(port.rfind('/') + 1);
        if (is_kernel_console(patient, device))
            return problem(port + " is a console of the kernel, whose messages go to the UPS as orders.",
                           "Take \"console=" + device +
                               "\" off the kernel's command line and boot. Or set ComSet to "
                               "the UPS's own port.");
        if (has_login_unit(patient, device))
            return login_finding(port, "", "Run \"systemctl mask --now serial-getty@" + device + "\".");
        if (has_login_line(patient, device))
            return login_finding(port, ", by /etc/inittab",
                                 "Put a \"#\" before that line and run \"telinit q\".");
    }
    return well("No console and no login is on a searched serial port.");
}

// ---- Other software for UPSes ----

// Daemons, drivers and services of packages for UPSes whose names the rule below does not find.
static constexpr auto OTHER_UPS = std::to_array<std::string_view>(
    {"apcupsd", "nut-server", "nut-driver", "nut-driver-enumerator", "nut-monitor", "nut-client",
     "nut.target", "blazer_ser", "nutdrv_qx", "genpowerd", "powstatd"});

// A name by itself, or with what systemd puts behind it.
static bool is_other_ups(std::string_view name)
{
    const std::string_view stem = name.substr(0, std::min(name.find('@'), name.rfind(".service")));
    return std::find(OTHER_UPS.begin(), OTHER_UPS.end(), stem) != OTHER_UPS.end();
}

// By what such programs are called: "ups", alone or with a usual ending, as a word of the name.
static bool sounds_like_ups(std::string_view name)
{
    for (std::size_t at = name.find("ups"); at != std::string_view::npos; at = name.find("ups", at + 1)) {
        const bool begins = at == 0 || name[at - 1] == '-' || name[at - 1] == '_';
        const std::string_view rest = name.substr(at + 3);
        if (begins && (rest.empty() || rest == "d" || rest.starts_with("mon") || rest.starts_with("drv") ||
                       rest[0] == '-' || rest[0] == '_' || rest[0] == '.'))
            return true;
    }
    return is_other_ups(name);
}

// What systemd starts, and otherwise the "S01NAME" of the usual runlevel.
static std::vector<std::string> enabled_services(const PATIENT &patient)
{
    constexpr std::string_view UNITS = "/etc/systemd/system";
    std::set<std::string> names;
    for (const std::string &directory : system_list(patient.system, UNITS))
        if (directory.ends_with(".wants"))
            for (const std::string &unit : system_list(patient.system, std::string(UNITS) + "/" + directory))
                if (sounds_like_ups(unit))
                    names.insert(unit);
    if (!system_exists(patient.system, "/run/systemd/system"))
        for (const std::string &link : system_list(patient.system, "/etc/rc2.d"))
            if (link.starts_with('S') && link.size() > 3 && sounds_like_ups(link.substr(3)))
                names.insert(link.substr(3));
    return {names.begin(), names.end()};
}

FINDING check_otherups(const PATIENT &patient)
{
    const std::string advice =
        "Only one program can look after a UPS: stop and disable the other, unless it has a "
        "UPS of its own on another port.";
    for (const PROCESS &process : patient.processes)
        if (!process.elsewhere && !is_daemon(process) && sounds_like_ups(process.name))
            return warning(process_words(process) + " seems to be other software for a UPS.", advice);
    const std::vector<std::string> services = enabled_services(patient);
    if (!services.empty())
        return warning("Other software for a UPS seems to be started at boot: " + list_words(services) + ".",
                       advice);
    return well("No other software for a UPS is known to run.");
}

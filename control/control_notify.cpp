// `voltariactl notify-test`: one text by each configured way, through the very code by which the daemon tells
// users, with the running daemon's environment. That code does not look at how a program ended; here the
// signal of each child's end brings its status. What a program writes on its standard error is caught in a
// file without a name.
#include "control_notify.h"

#include "control.h"
#include "control_block.h"
#include "e_a_error.h"
#include "e_a_notify.h"
#include "e_a_notify_run.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr char TEXT[] =
    "This is a test of the notifications of voltariad; nothing has happened to the UPS.";
static constexpr std::size_t ENDS_KEPT = 256;
static constexpr int PATIENCE = 10;      // s; what all programs of one event have together
static constexpr int NOT_STARTED = 127;  // status of a program that could not be executed

// The ends of children, filled by the signal handler.
static std::array<siginfo_t, ENDS_KEPT> ends{};
static volatile std::sig_atomic_t end_count = 0;

static void note_end(int, siginfo_t *info, void *)
{
    const auto at = static_cast<std::size_t>(end_count);
    if (at < ENDS_KEPT) {
        ends[at] = *info;
        end_count = end_count + 1;
    }
}

static void catch_ends()
{
    struct sigaction action {
    };
    action.sa_sigaction = note_end;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t ending;  // whoever started us may have had it blocked
    sigemptyset(&ending);
    sigaddset(&ending, SIGCHLD);
    sigprocmask(SIG_UNBLOCK, &ending, nullptr);
}

// As /proc shows it: each variable with a NUL behind it.
static void replace_environment(const std::string &variables)
{
    clearenv();  // NOLINT(concurrency-mt-unsafe): one thread
    for (std::size_t at = 0; at < variables.size();) {
        const std::string variable = variables.c_str() + at;
        at += variable.size() + 1;
        const std::size_t sign = variable.find('=');
        if (sign != std::string::npos && sign > 0)
            // NOLINTNEXTLINE(concurrency-mt-unsafe)
            setenv(variable.substr(0, sign).c_str(), variable.c_str() + sign + 1, 1);
    }
}

// What works in an administrator's shell may not do so in the daemon's environment, with its search path.
static void take_environment()
{
    for (const PROCESS &process : system_processes(SYSTEM{})) {
        if (!is_daemon(process))  // a stranger's environment could have root run anything
            continue;
        if (const auto text = system_read(SYSTEM{}, "/proc/" + std::to_string(process.pid) + "/environ"))
            replace_environment(*text);
        break;
    }
    // As the daemon sets them for every program that it starts.
    for (const char *name : {"LANG", "LANGUAGE", "KDE_LANG", "LC_ALL"})
        setenv(name, "ja", 1);  // NOLINT(concurrency-mt-unsafe)
}

// ---- The report ----

struct REPORT {
    int sent = 0;
    int failed = 0;
    int printed = EXIT_SUCCESS;
};

static void tell(REPORT &report, const std::string &way, const std::string &outcome)
{
    const int printed = print(plain(way) + ": " + plain(outcome) + "\n");
    if (printed != EXIT_SUCCESS)
        report.printed = printed;
}

static void delivered(REPORT &report, const std::string &way, const std::string &how)
{
    report.sent++;
    tell(report, way, how);
}

static void undelivered(REPORT &report, const std::string &way, const std::string &why)
{
    report.failed++;
    tell(report, way, "NOT delivered: " + why);
}

// ---- How a program ended ----

// The programs of this way, in the order of their starts.
static std::vector<pid_t> started;

// Programs of earlier ways that were left to themselves.
static std::vector<pid_t> left_behind;

static const siginfo_t *end_of(pid_t pid)
{
    for (std::size_t i = 0; i < static_cast<std::size_t>(end_count); ++i)
        if (ends[i].si_pid == pid)
            return &ends[i];
    return nullptr;
}

static std::string status_words(const siginfo_t &end, const std::string &program)
{
    if (end.si_code != CLD_EXITED)
        return program + " was ended by signal " + std::to_string(end.si_status);
    if (end.si_status == NOT_STARTED)
        return program + " could not be run";
    return end.si_status == 0 ? "" : program + " ended with status " + std::to_string(end.si_status);
}

// What the engine had to say since begin_way.
static std::string engine_words()
{
    std::string words(field_view(errbuffer));
    words.erase(words.find_last_not_of('\n') + 1);
    return words;
}

// Why the program number `index` since begin_way did not succeed; empty when it did.
static std::string failure_of(std::size_t index, const std::string &program, long patience)
{
    const siginfo_t *end = index < started.size() ? end_of(started[index]) : nullptr;
    if (end != nullptr)
        return status_words(*end, program);
    const std::string refused = engine_words();
    return !refused.empty() ? refused
                            : program + " did not end within " + std::to_string(patience) +
                                  " s; voltariad would leave it and go on";
}

// After one that hangs, the others are started without being waited for; most end at once all the same.
static void await_late()
{
    constexpr int LOOKS = 10;
    constexpr std::chrono::milliseconds STEP{100};
    const auto has_not_ended = [](pid_t pid) { return end_of(pid) == nullptr; };
    for (int i = 0; i < LOOKS && std::any_of(started.begin(), started.end(), has_not_ended); ++i)
        std::this_thread::sleep_for(STEP);
}

// ---- What the programs said ----

static constexpr char ERRORS_NAME[] = "voltariactl-errors";

// Each way has a file of its own: a program that was left to itself may still be writing into an earlier one.
// It cannot grow, since it lies in memory and a command may have much to say.
static void open_errors()
{
    constexpr off_t ROOM = 65536;  // bytes
    if (program_errors >= 0)
        close(program_errors);
    program_errors = memfd_create(ERRORS_NAME, MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (program_errors >= 0 && (ftruncate(program_errors, ROOM) != 0 ||
                                fcntl(program_errors, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0)) {
        close(program_errors);
        program_errors = -1;
    }
}

// Mail programs leave the delivery to a process that they do not wait for.
static void await_writers()
{
    constexpr int LOOKS = 20;
    constexpr std::chrono::milliseconds STEP{100};
    const auto writes = [](const DESCRIPTOR &descriptor) {
        return descriptor.process.pid != getpid() &&
               descriptor.target.find(ERRORS_NAME) != std::string::npos &&
               std::find(left_behind.begin(), left_behind.end(), descriptor.process.pid) == left_behind.end();
    };
    for (int i = 0; i < LOOKS; ++i, std::this_thread::sleep_for(STEP)) {
        const std::vector<DESCRIPTOR> descriptors = system_descriptors(SYSTEM{});
        if (std::none_of(descriptors.begin(), descriptors.end(), writes))
            return;
    }
}

// "; it says: TEXT", or nothing. A long text is cut.
static std::string said_words()
{
    std::array<char, 400> text{};
    if (program_errors < 0 || pread(program_errors, text.data(), text.size() - 1, 0) < 0)
        return "";
    std::string words(text.data());  // what nobody has written is NUL
    words.erase(words.find_last_not_of(" \r\n\t") + 1);
    for (std::size_t at = 0; (at = words.find('\n', at)) != std::string::npos; at += 2)
        words.replace(at, 1, "; ");
    return words.empty() ? "" : "; it says: " + words;
}

// Each way gets the time that one event's programs have together, so that one that hangs does not hide the
// others.
static void begin_way()
{
    left_behind.insert(left_behind.end(), started.begin(), started.end());
    started.clear();
    program_pids = &started;
    open_errors();
    errbuffer.fill('\0');
    end_count = 0;
    tell_begin();
}

static bool is_missing(const char *program)
{
    return !system_executable(SYSTEM{}, program);
}

static std::string missing_words(const char *program)
{
    return std::string(program) + " is missing or no program; install it";
}

// ---- The ways ----

static void test_wall(REPORT &report)
{
    if (is_missing("/usr/bin/wall"))
        return undelivered(report, "wall", missing_words("/usr/bin/wall"));
    begin_way();
    tell_wall(TEXT);
    const std::string why = failure_of(0, "/usr/bin/wall", PATIENCE);
    if (why.empty())
        return delivered(report, "wall", "delivered to every terminal that takes messages" + said_words());
    undelivered(report, "wall", why + said_words());
}

static std::vector<std::string> terminals()
{
    std::vector<std::string> list;
    for (const auto &terminal : gszUserList) {
        if (field_view(terminal).empty())
            break;
        list.emplace_back(field_view(terminal));
    }
    return list;
}

// Whoever owns a terminal may have closed it to messages; root writes on it all the same where write lets it.
static std::string closed_words(const std::string &terminal)
{
    struct stat info;
    const std::string path = "/dev/" + terminal;
    if (stat(path.c_str(), &info) != 0)
        return "; there is no " + path;
    return (info.st_mode & S_IWGRP) == 0 ? "; " + path + " is closed to messages (mesg n)" : "";
}

// The list of terminals is found out first, then each gets its program.
static void report_writes(REPORT &report, const NOTIFY_USER &user)
{
    std::size_t index = 1;
    await_late();
    for (const std::string &terminal : terminals()) {
        const std::string way = "write to " + user.name + " on " + terminal;
        if (terminal.starts_with('-')) {
            undelivered(report, way, "the terminal's name would be taken for an option");
            continue;
        }
        const std::string why = failure_of(index++, "/usr/bin/write", PATIENCE);
        if (why.empty())
            delivered(report, way, "delivered");
        else
            undelivered(report, way, why + closed_words(terminal) + said_words());
    }
}

static void test_write(REPORT &report, const NOTIFY_USER &user)
{
    const std::string way = "write to " + user.name;
    for (const char *program : {"/usr/bin/write", "/usr/bin/who"})
        if (is_missing(program))
            return undelivered(report, way, missing_words(program));
    if (user.name.starts_with('-'))
        return undelivered(report, way, "the name would be taken for an option");
    begin_way();
    tell_user(user.name, TEXT);
    const std::string why = failure_of(0, "/usr/bin/who", PATIENCE);
    if (!why.empty())
        return undelivered(report, way, "who is logged in cannot be found out: " + why + said_words());
    if (terminals().empty())
        return undelivered(report, way, user.name + " is not logged in on any terminal");
    report_writes(report, user);
}

static constexpr char NO_SENDMAIL[] =
    "; there is no /usr/sbin/sendmail, to which most mail programs hand a mail";

static void test_mail(REPORT &report, const NOTIFY_USER &user)
{
    const std::string way = "mail to " + user.email;
    if (is_missing("/bin/mail"))
        return undelivered(report, way, missing_words("/bin/mail"));
    begin_way();
    tell_mail(user.email, TEXT);
    const std::string why = failure_of(0, "/bin/mail", PATIENCE);
    if (!why.empty())
        return undelivered(report, way, why + said_words());
    await_writers();
    delivered(report, way,
              "handed to /bin/mail, which took it; see whether it arrives" + said_words() +
                  (is_missing("/usr/sbin/sendmail") ? NO_SENDMAIL : ""));
}

static void test_command(REPORT &report, const SETTINGS &settings, int event)
{
    const std::string way = "command of event " + std::to_string(event);
    const std::string command = notify_command(settings, event);
    if (command.empty())
        return undelivered(report, way, "none is set");
    const long patience = notify_patience(settings);
    begin_way();
    run_command(command, patience);
    if (patience <= 0)
        return delivered(report, way, "it was started; it is not waited for (CloseAppTime)");
    const std::string why = failure_of(0, "\"" + command + "\"", patience);
    if (why.empty())
        return delivered(report, way, "it ran and ended well" + said_words());
    undelivered(report, way, why + said_words());
}

// ---- The command ----

static std::string name_words(const NOTIFY_USER &user)
{
    return "user " + (user.name.empty() ? std::to_string(user.slot + 1) + " of the list" : user.name);
}

// A user of the list whom no event tells: the commonest reason why nothing ever comes.
static void untold(REPORT &report, const NOTIFY_USER &user, bool asked_for)
{
    const std::string why =
        "no event writes (BroadcastType 2, BroadcastUser) or mails (MailUser) to this user";
    if (asked_for)
        undelivered(report, name_words(user), why);
    else
        tell(report, name_words(user), "nothing sent: " + why);
}

static void test_user(REPORT &report, const NOTIFY_USER &user, bool asked_for)
{
    if (user.written && !user.name.empty())
        test_write(report, user);
    else if (user.written)
        undelivered(report, "write to " + name_words(user), "the settings have no name of this user");
    if (user.mailed && !user.email.empty())
        test_mail(report, user);
    else if (user.mailed)
        undelivered(report, "mail to " + name_words(user), "the settings have no mail address of this user");
    if (!user.written && !user.mailed)
        untold(report, user, asked_for);
}

static void test_users(REPORT &report, const NOTIFY_PLAN &plan, const std::string &only)
{
    bool met = false;
    for (const NOTIFY_USER &user : plan.users)
        if (only.empty() || user.name == only) {
            test_user(report, user, !only.empty());
            met = true;
        }
    if (!met && !only.empty())
        undelivered(report, "user " + only, "the settings know no user of this name");
    if (only.empty())
        for (const std::uint32_t slot : plan.nobody)
            tell(report, "user " + std::to_string(slot + 1) + " of the list",
                 "nothing sent: events pick this user, but the list ends before");
}

static void test_ways(REPORT &report, const SETTINGS &settings, const NOTIFY_LINE &line)
{
    const NOTIFY_PLAN plan = notify_plan(settings);
    begin_way();
    tell_mesg();
    if (plan.walled && line.user.empty())
        test_wall(report);
    test_users(report, plan, line.user);
    if (line.command >= 0)
        test_command(report, settings, line.command);
    if (report.sent + report.failed == 0)
        tell(report, "nothing sent", "no event is set to tell anybody of anything");
}

int control_notify(const NOTIFY_LINE &line)
{
    if (geteuid() != 0)
        return fail("only root can tell users as voltariad does");
    const SETTINGS settings = settings_read(SYSTEM{});
    if (settings.there && !settings.readable)
        return fail("the settings file /usr/lib/voltaria/config cannot be read");
    catch_ends();
    take_environment();
    REPORT report;
    test_ways(report, settings, line);
    if (report.printed != EXIT_SUCCESS)
        return report.printed;
    return report.failed == 0 ? EXIT_SUCCESS : EXIT_PROBLEM;
}

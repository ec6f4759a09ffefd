// `voltariactl doctor`: the table of checks, the report, and what several checks share.
#include "control_doctor.h"

#include "control.h"
#include "control_block.h"
#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <unistd.h>

// In the order of the report: what must be there, what is set, what runs, what is in the way.
static constexpr auto CHECKS = std::to_array<CHECK_ROW>({
    {"key file", check_keyfile},
    {"directory", check_directory},
    {"settings", check_settings},
    {"catalogue", check_catalogue},
    {"console", check_console},
    {"lock files", check_lockfiles},
    {"shared block", check_segment},
    {"daemon", check_daemon},
    {"TCP port", check_tcp},
    {"UDP port", check_udp},
    {"listeners", check_listeners},
    {"serial ports", check_ports},
    {"port holders", check_portholders},
    {"link", check_link},
    {"serial console", check_serialconsole},
    {"other software", check_otherups},
    {"programs", check_programs},
    {"mail", check_mail},
    {"shutdown", check_shutdown},
    {"clock", check_clock},
});

PATIENT doctor_patient(SYSTEM system)
{
    PATIENT patient;
    patient.processes = system_processes(system);
    patient.descriptors = system_descriptors(system);
    patient.settings = settings_read(system);
    patient.system = std::move(system);
    return patient;
}

static FINDING carry_out(const PATIENT &patient, const CHECK_ROW &row)
{
    FINDING finding = row.check(patient);
    finding.check = row.name;
    return finding;
}

std::vector<FINDING> doctor_findings(const PATIENT &patient)
{
    std::vector<FINDING> findings;
    findings.reserve(CHECKS.size());
    for (const CHECK_ROW &row : CHECKS)
        findings.push_back(carry_out(patient, row));
    return findings;
}

FINDING doctor_finding(const PATIENT &patient, std::string_view check)
{
    const auto *row = std::find_if(CHECKS.begin(), CHECKS.end(),
                                   [check](const CHECK_ROW &candidate) { return candidate.name == check; });
    return row != CHECKS.end() ? carry_out(patient, *row) : problem("no such check", "");
}

// ---- The report ----

std::string_view result_name(RESULT result)
{
    switch (result) {
    case RESULT::Ok:
        return "ok";
    case RESULT::Warning:
        return "warning";
    default:
        return "problem";
    }
}

int count_of(const std::vector<FINDING> &findings, RESULT result)
{
    return static_cast<int>(std::count_if(findings.begin(), findings.end(), [result](const FINDING &finding) {
        return finding.result == result;
    }));
}

static std::string padded(std::string_view text, std::size_t width)
{
    std::string field(text);
    field.append(width > field.size() ? width - field.size() : 1, ' ');
    return field;
}

static std::string counted(int count, std::string_view what)
{
    return (count == 0 ? "no" : std::to_string(count)) + " " + std::string(what) + (count == 1 ? "" : "s");
}

std::string findings_text(const std::vector<FINDING> &findings)
{
    constexpr std::size_t NAME = 16;
    constexpr std::size_t MARK = 9;
    std::string text;
    for (const FINDING &finding : findings) {
        text += padded(finding.check, NAME) + padded(result_name(finding.result), MARK) +
                plain(finding.found) + "\n";
        if (!finding.advice.empty())
            text += padded("", NAME + MARK) + plain(finding.advice) + "\n";
    }
    return text + counted(count_of(findings, RESULT::Problem), "problem") + ", " +
           counted(count_of(findings, RESULT::Warning), "warning") + "\n";
}

int control_doctor(bool json)
{
    PATIENT patient = doctor_patient(system_here());
    if (!daemon_runs(patient))
        patient.refused = system_refusals(patient.system.addresses);
    BLOCK block = block_attach(false);
    if (block.block != nullptr && daemon_runs(patient))
        patient.ups = shared_copy(block.block->ups);
    block_detach(block);
    if (!patient.system.privileged)
        static_cast<void>(
            fail("without root not everything can be seen: run doctor as root for a full answer"));
    const std::vector<FINDING> findings = doctor_findings(patient);
    const int printed = print(json ? findings_json(findings) + "\n" : findings_text(findings));
    if (printed != EXIT_SUCCESS)
        return printed;
    return count_of(findings, RESULT::Problem) == 0 ? EXIT_SUCCESS : EXIT_PROBLEM;
}

// ---- What checks share ----

FINDING well(std::string found)
{
    return {RESULT::Ok, std::move(found), "", ""};
}

FINDING warning(std::string found, std::string advice)
{
    return {RESULT::Warning, std::move(found), std::move(advice), ""};
}

FINDING problem(std::string found, std::string advice)
{
    return {RESULT::Problem, std::move(found), std::move(advice), ""};
}

std::vector<PROCESS> daemon_of(const PATIENT &patient)
{
    std::vector<PROCESS> list;
    std::copy_if(patient.processes.begin(), patient.processes.end(), std::back_inserter(list), is_daemon);
    return list;
}

bool daemon_runs(const PATIENT &patient)
{
    return !daemon_of(patient).empty();
}

// Whoever takes the file lock has the shared block attached, or is one of these two programs on its way to
// it.
bool lock_left_behind(const PATIENT &patient)
{
    if (!system_stat(patient.system, LOCK_HELD))
        return false;
    for (const PROCESS &process : patient.processes)
        if (process.pid != getpid() && (is_daemon(process) || is_roots(process, CONTROL_NAME)))
            return false;
    const auto key = system_key(patient.system);
    const auto segment = key ? system_segment(patient.system, *key) : std::nullopt;
    return !segment || segment->attached == 0;
}

std::vector<std::string> searched_ports(const PATIENT &patient)
{
    constexpr long PORTS = 4;
    const long comset = settings_number(patient.settings, "UPS", "ComSet", 0);
    if (comset == -2)
        return {};
    if (comset >= 1 && comset <= PORTS)
        return {"/dev/ttyS" + std::to_string(comset - 1)};
    std::vector<std::string> list;
    for (long i = 0; i < PORTS; ++i)
        list.push_back("/dev/ttyS" + std::to_string(i));
    return list;
}

std::string list_words(const std::vector<std::string> &items)
{
    std::string words;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0)
            words += i + 1 == items.size() ? " and " : ", ";
        words += items[i];
    }
    return words;
}

// `voltariactl doctor`: a table of checks, each one function that looks at one thing and says what it found
// and what to do about it. A check changes nothing and opens no serial port.
#pragma once

#include "control_block.h"
#include "control_settings.h"
#include "control_system.h"
#include "ups_records.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class RESULT { Ok, Warning, Problem };

struct FINDING {
    RESULT result = RESULT::Ok;
    std::string found;   // one sentence
    std::string advice;  // one sentence; empty when all is well
    std::string_view check;
};

// What every check is given; gathered once.
struct PATIENT {
    SYSTEM system;
    std::vector<PROCESS> processes;
    std::vector<DESCRIPTOR> descriptors;
    SETTINGS settings;
    std::optional<UPS> ups;                       // what the running daemon knows of the unit
    std::optional<std::vector<REFUSAL>> refused;  // when its sockets were tried
};

[[nodiscard]] PATIENT doctor_patient(SYSTEM system);

using CHECK = FINDING (*)(const PATIENT &patient);

// Each check has one name and one function.
struct CHECK_ROW {
    std::string_view name;
    CHECK check;
};

/// Every check, in the order of the report.
[[nodiscard]] std::vector<FINDING> doctor_findings(const PATIENT &patient);
/// The finding of one check alone.
[[nodiscard]] FINDING doctor_finding(const PATIENT &patient, std::string_view check);

[[nodiscard]] std::string_view result_name(RESULT result);
[[nodiscard]] int count_of(const std::vector<FINDING> &findings, RESULT result);
[[nodiscard]] std::string findings_text(const std::vector<FINDING> &findings);
/// Members: problems, warnings, checks; of each check, result, finding and advice (null when none is needed).
[[nodiscard]] std::string findings_json(const std::vector<FINDING> &findings);

// ---- What checks share ----

[[nodiscard]] FINDING well(std::string found);
[[nodiscard]] FINDING warning(std::string found, std::string advice);
[[nodiscard]] FINDING problem(std::string found, std::string advice);

/// The processes of the daemon, lowest number first.
[[nodiscard]] std::vector<PROCESS> daemon_of(const PATIENT &patient);
[[nodiscard]] bool daemon_runs(const PATIENT &patient);
/// Whether the file lock is there and nobody who could hold it is alive.
[[nodiscard]] bool lock_left_behind(const PATIENT &patient);
/// The serial ports that the settings let the daemon search: "/dev/ttyS0" and so on.
[[nodiscard]] std::vector<std::string> searched_ports(const PATIENT &patient);
/// "a", "a and b", "a, b and c".
[[nodiscard]] std::string list_words(const std::vector<std::string> &items);

// ---- The checks: files and state ----

FINDING check_keyfile(const PATIENT &patient);
FINDING check_directory(const PATIENT &patient);
FINDING check_settings(const PATIENT &patient);
FINDING check_catalogue(const PATIENT &patient);
FINDING check_console(const PATIENT &patient);
FINDING check_lockfiles(const PATIENT &patient);
FINDING check_segment(const PATIENT &patient);
FINDING check_clock(const PATIENT &patient);

// ---- The checks: network ----

FINDING check_daemon(const PATIENT &patient);
FINDING check_tcp(const PATIENT &patient);
FINDING check_udp(const PATIENT &patient);
FINDING check_listeners(const PATIENT &patient);

// ---- The checks: the line to the unit ----

FINDING check_ports(const PATIENT &patient);
FINDING check_portholders(const PATIENT &patient);
FINDING check_link(const PATIENT &patient);
FINDING check_serialconsole(const PATIENT &patient);
FINDING check_otherups(const PATIENT &patient);

// ---- The checks: programs that the daemon runs ----

FINDING check_programs(const PATIENT &patient);
FINDING check_mail(const PATIENT &patient);
FINDING check_shutdown(const PATIENT &patient);

// Checks of doctor: who runs, who holds the daemon's ports, and which addresses it serves.
#include "control_doctor.h"

#include "wire_records.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

// ---- Who runs ----

static bool under_systemd(const PATIENT &patient)
{
    return system_exists(patient.system, "/run/systemd/system");
}

static FINDING stopped_finding(const PATIENT &patient)
{
    return warning("voltariad does not run: this machine is not protected.",
                   std::string("Once no problem is left here, run ") + (under_systemd(patient)
                                                                            ? "\"systemctl start voltariad\"."
                                                                            : "\"voltariad\" as root."));
}

// There is a unit, and nothing wants it.
static bool is_left_out_at_boot(const PATIENT &patient)
{
    constexpr std::string_view UNIT = "/voltariad.service";
    constexpr std::string_view WANTED = "/etc/systemd/system";
    const SYSTEM &system = patient.system;
    const auto has_unit = [&](std::string_view directory) {
        const std::string path = std::string(directory).append(UNIT);
        return system_exists(system, path) || !system_link(system, path).empty();
    };
    if (!under_systemd(patient) ||
        (!has_unit("/lib/systemd/system") && !has_unit("/usr/local/lib/systemd/system")))
        return false;
    const std::vector<std::string> names = system_list(system, WANTED);
    return std::none_of(names.begin(), names.end(), [&](const std::string &name) {
        return name.ends_with(".wants") && has_unit(std::string(WANTED).append("/").append(name));
    });
}

FINDING check_daemon(const PATIENT &patient)
{
    constexpr std::size_t BOTH = 2;
    const std::vector<PROCESS> daemon = daemon_of(patient);
    if (daemon.empty() && !system_process(patient.system, 1))
        return warning("Whether voltariad runs cannot be seen by this user.", "Run doctor as root.");
    if (daemon.empty())
        return stopped_finding(patient);
    std::vector<std::string> names;
    names.reserve(daemon.size());
    for (const PROCESS &process : daemon)
        names.push_back(std::to_string(process.pid));
    if (daemon.size() == 1)
        return warning("There is only one process of voltariad, " + names.front() +
                           ": it is starting or ending, or its fellow was killed.",
                       "Look again in some seconds; if it is still alone, run \"kill -9 " + names.front() +
                           "\" and start voltariad.");
    if (daemon.size() > BOTH)
        return problem("More than two processes are called voltariad: " + list_words(names) + ".",
                       "Stop them all and start voltariad once.");
    if (is_left_out_at_boot(patient))
        return warning("voltariad runs as the processes " + list_words(names) +
                           ", but the next boot does not start it.",
                       "Run \"systemctl enable voltariad\".");
    return well("voltariad runs as the processes " + list_words(names) + ".");
}

// ---- Ports ----

static std::string holder_words(const SOCKET &socket)
{
    return socket.holder ? process_words(*socket.holder) : "a process that this user may not see";
}

// The first holder that is not the daemon. One that cannot be seen is the daemon when that runs.
static const SOCKET *stranger(const PATIENT &patient, const std::vector<SOCKET> &sockets)
{
    for (const SOCKET &socket : sockets)
        if (socket.holder ? !is_daemon(*socket.holder) : !daemon_runs(patient))
            return &socket;
    return nullptr;
}

// The first address on which the kernel says that the port is taken.
static const REFUSAL *taken(const PATIENT &patient, SOCKETS kind)
{
    if (patient.refused)
        for (const REFUSAL &refusal : *patient.refused)
            if (refusal.kind == kind && refusal.error == EADDRINUSE)
                return &refusal;
    return nullptr;
}

static FINDING stranger_finding(const PATIENT &patient, const std::string &port, SOCKETS kind,
                                const SOCKET &other)
{
    const std::string held = port + " is held by " + holder_words(other) + " on " + other.address;
    const std::string advice = "Stop that program, or have it use another port.";
    if (daemon_runs(patient))
        return problem(held + " beside voltariad: monitors may reach either of the two.", advice);
    if (patient.refused && taken(patient, kind) == nullptr)
        return warning(held + ", which shares it: packets for voltariad may go astray.", advice);
    return problem(held + ": voltariad cannot start.", advice);
}

static FINDING port_finding(const PATIENT &patient, const std::string &port, SOCKETS kind,
                            const std::vector<SOCKET> &sockets)
{
    if (const SOCKET *other = stranger(patient, sockets))
        return stranger_finding(patient, port, kind, *other);
    if (const REFUSAL *refusal = taken(patient, kind))
        return problem(port + " is taken on " + refusal->address +
                           ", by whom cannot be seen: voltariad cannot start.",
                       "Find out with \"ss -nlptu\" who it is, and stop that program.");
    if (sockets.empty() && daemon_runs(patient))
        return problem(port + " is not open although voltariad runs.", "Restart voltariad.");
    return well(sockets.empty() ? port + " is free." : port + " is voltariad's.");
}

static std::vector<SOCKET> tcp_sockets(const PATIENT &patient)
{
    return system_sockets(patient.system, SOCKETS::Tcp, PORT_TCP, patient.descriptors);
}

FINDING check_tcp(const PATIENT &patient)
{
    return port_finding(patient, "TCP port 4112", SOCKETS::Tcp, tcp_sockets(patient));
}

FINDING check_udp(const PATIENT &patient)
{
    return port_finding(patient, "UDP port 4114", SOCKETS::Udp,
                        system_sockets(patient.system, SOCKETS::Udp, PORT_UDP, patient.descriptors));
}

// ---- Addresses ----

// The daemon listens on each address that it is told of, and on one that it is told of twice twice.
static std::vector<std::string> doubles(std::vector<std::string> addresses)
{
    std::sort(addresses.begin(), addresses.end());
    std::vector<std::string> list;
    for (auto at = std::adjacent_find(addresses.begin(), addresses.end()); at != addresses.end();
         at = std::adjacent_find(std::next(at), addresses.end()))
        list.push_back(*at);
    list.erase(std::unique(list.begin(), list.end()), list.end());
    return list;
}

static std::vector<std::string> unbound(const PATIENT &patient)
{
    std::vector<std::string> list;
    if (patient.refused)
        for (const REFUSAL &refusal : *patient.refused)
            if (refusal.error != EADDRINUSE)
                list.push_back(refusal.address + " (" + std::strerror(refusal.error) +
                               ")");  // NOLINT(concurrency-mt-unsafe)
    return list;
}

static FINDING future_listeners(const PATIENT &patient)
{
    const std::vector<std::string> &addresses = patient.system.addresses;
    if (const auto list = unbound(patient); !list.empty())
        return problem("voltariad cannot start, because nobody can listen on " + list_words(list) + ".",
                       "See \"ip address\" and \"ip route show table local\": take the address off its "
                       "interface, or make it a local one again.");
    if (const auto list = doubles(addresses); !list.empty())
        return problem("voltariad cannot start, because more than one interface has " + list_words(list) +
                           ".",
                       "See \"ip address\": leave such an address to one interface.");
    if (addresses.empty())
        return warning("This machine has no IPv4 address, not even a loopback one: nobody can reach "
                       "voltariad.",
                       "Bring the network up before voltariad starts.");
    return well("voltariad would listen on " + list_words(addresses) + ".");
}

FINDING check_listeners(const PATIENT &patient)
{
    if (!daemon_runs(patient))
        return future_listeners(patient);
    const std::vector<SOCKET> sockets = tcp_sockets(patient);
    std::vector<std::string> missing;
    std::copy_if(patient.system.addresses.begin(), patient.system.addresses.end(),
                 std::back_inserter(missing), [&sockets](const std::string &address) {
                     return std::none_of(sockets.begin(), sockets.end(), [&address](const SOCKET &socket) {
                         return socket.address == address;
                     });
                 });
    if (missing.empty())
        return well("voltariad listens on every address of this machine.");
    return warning("voltariad does not listen on " + list_words(missing) +
                       ": such an address came after its start.",
                   "Restart voltariad if monitors are to reach it there.");
}

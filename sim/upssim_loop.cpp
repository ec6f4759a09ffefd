// Everything is due at a time that the simulation names, so the wait is as long as that and nothing is polled
// for.
#include "upssim_loop.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/signalfd.h>
#include <unistd.h>

namespace upssim
{

static constexpr std::size_t SIGNALS = 0;  // places in the list that poll gets; the control channel follows
static constexpr std::size_t PORT = 1;
static constexpr std::size_t CONTROL = 2;
static constexpr long LONGEST_WAIT = 3'600'000;  // ms

sim::Time clock_now()
{
    timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        std::perror("upssim: clock_gettime");
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

static sim::Time simulation_now(const Program &program)
{
    return clock_now() - program.started;
}

// Rounded up: waking a moment early would only mean to wait again.
static int wait_milliseconds(const Program &program)
{
    const std::optional<sim::Time> due = sim::sim_next_due(program.simulation);
    if (!due)
        return -1;
    const sim::Time wait = *due - simulation_now(program);
    if (wait <= sim::Time(0))
        return 0;
    return static_cast<int>(
        std::min<long>(std::chrono::ceil<std::chrono::milliseconds>(wait).count(), LONGEST_WAIT));
}

static void step(Program &program)
{
    const std::string bytes = sim::sim_run(program.simulation, simulation_now(program));
    if (program.simulation.plugged)
        port_write(program.port, bytes);
}

static std::string run_command(void *context, std::string_view line)
{
    Program &program = *static_cast<Program *>(context);
    step(program);
    return sim::sim_command(program.simulation, program.simulation.unit.now, line);
}

// Brings the port to the state that the simulation asks for. A port that cannot be made stays unplugged.
static void follow_plug(Program &program)
{
    const bool present = program.port.master >= 0;
    if (program.simulation.plugged == present)
        return;
    if (present) {
        port_close(program.port);
        return;
    }
    const std::string error = port_open(program.port, program.link);
    if (!error.empty()) {
        std::fprintf(stderr, "upssim: %s\n", error.c_str());
        program.simulation.plugged = false;
    }
}

static void read_port(Program &program)
{
    const std::optional<std::string> bytes = port_read(program.port);
    if (bytes) {
        sim::sim_from_host(program.simulation, simulation_now(program), *bytes);
        return;
    }
    std::perror("upssim: read from the port");
    program.simulation.plugged = false;
}

static bool signalled(const Program &program)
{
    signalfd_siginfo info{};
    const ssize_t count = ::read(program.signals, &info, sizeof info);
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        std::perror("upssim: signalfd");
    return count == static_cast<ssize_t>(sizeof info);
}

int run_loop(Program &program)
{
    std::vector<pollfd> entries;
    while (!program.simulation.quit) {
        entries.assign({{program.signals, POLLIN, 0}, {program.port.master, POLLIN, 0}});
        control_poll_entries(program.control, entries);
        if (::poll(entries.data(), entries.size(), wait_milliseconds(program)) < 0 && errno != EINTR) {
            std::perror("upssim: poll");
            return 1;
        }
        if ((entries[SIGNALS].revents & POLLIN) != 0 && signalled(program))
            break;
        step(program);
        if ((entries[PORT].revents & (POLLIN | POLLHUP | POLLERR)) != 0)
            read_port(program);
        control_serve(program.control, entries.data() + CONTROL, entries.size() - CONTROL, run_command,
                      &program);
        step(program);
        follow_plug(program);
    }
    return 0;
}

}  // namespace upssim

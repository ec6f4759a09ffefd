// upssim: a simulated UPS on a pseudo-terminal. Reads the command line, sets everything up, runs the loop,
// cleans up.
#include "upssim_loop.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/signalfd.h>
#include <unistd.h>

struct Options {
    std::string model = "ZR900PL";
    std::string link;
    std::string scenario;
    std::string control;
    std::string log;
    std::uint64_t seed = 1;
    bool no_pace = false;
    bool list_models = false;
    std::vector<std::string> ask;
};

static void describe(CLI::App &app, Options &options)
{
    app.add_option("--model", options.model, "the unit to be")->capture_default_str();
    app.add_option("--link", options.link, "link to the terminal, for example /dev/ttyS0");
    app.add_option("--scenario", options.scenario, "file of things to happen");
    app.add_option("--control", options.control, "socket for commands while it runs");
    app.add_option("--log", options.log, "file for all that is received and sent");
    app.add_option("--seed", options.seed, "of drift and noise")->capture_default_str();
    app.add_flag("--no-pace", options.no_pace, "do not take the time that 2400 baud take");
    app.add_flag("--list-models", options.list_models, "list the units and end");
    app.add_option("--ask", options.ask,
                   "send commands to the simulator that runs at --control, print the answers and end");
}

static int fail(const std::string &message)
{
    std::fprintf(stderr, "upssim: %s\n", message.c_str());
    return 1;
}

static int list_models()
{
    for (const sim::Model &model : sim::models())
        std::printf("%s\n", std::string(model.name).c_str());
    return 0;
}

static std::string load_scenario(const std::string &path, sim::Script &script)
{
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.good() && !file.eof())
        return path + ": cannot be read";
    sim::ParsedScript parsed = sim::parse_script(text);
    if (!parsed.error.empty())
        return path + ": " + parsed.error;
    script = std::move(parsed.script);
    return {};
}

// Signals that end the program are read from a descriptor, so that poll sees them.
static std::string catch_signals(int &descriptor)
{
    sigset_t signals;
    if (::sigemptyset(&signals) != 0 || ::sigaddset(&signals, SIGTERM) != 0 ||
        ::sigaddset(&signals, SIGINT) != 0 || ::sigaddset(&signals, SIGHUP) != 0 ||
        ::sigprocmask(SIG_BLOCK, &signals, nullptr) != 0)
        return std::string("signals: ") + std::strerror(errno);
    descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    return descriptor >= 0 ? std::string() : std::string("signalfd: ") + std::strerror(errno);
}

static std::string set_up(upssim::Program &program, const Options &options)
{
    const sim::Model *model = sim::find_model(options.model);
    if (model == nullptr)
        return "unknown model '" + options.model + "', see --list-models";
    program.simulation = sim::sim_new(*model, options.seed);
    program.simulation.line.paced = !options.no_pace;
    program.link = options.link;
    std::string error = catch_signals(program.signals);
    if (error.empty() && !options.scenario.empty())
        error = load_scenario(options.scenario, program.simulation.script);
    if (error.empty() && !options.log.empty() && !sim::log_open(program.simulation.log, options.log))
        error = options.log + ": " + std::strerror(errno);
    if (error.empty() && !options.control.empty())
        error = upssim::control_open(program.control, options.control);
    if (error.empty())
        error = upssim::port_open(program.port, options.link);
    return error;
}

static void tear_down(upssim::Program &program)
{
    upssim::port_close(program.port);
    upssim::control_close(program.control);
    sim::log_close(program.simulation.log);
    if (program.signals >= 0 && ::close(program.signals) != 0)
        std::perror("upssim: close");
}

// The one line on standard output tells whoever started the program that the port is there.
static int simulate(const Options &options)
{
    upssim::Program program;
    const std::string error = set_up(program, options);
    int result = 1;
    if (error.empty()) {
        std::printf("%s on %s\n", options.model.c_str(), program.port.slave.c_str());
        std::fflush(stdout);
        program.started = upssim::clock_now();
        result = upssim::run_loop(program);
    } else {
        fail(error);
    }
    tear_down(program);
    return result;
}

int main(int argc, char **argv)
{
    Options options;
    CLI::App app("A simulated UPS on a pseudo-terminal.", "upssim");
    describe(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error);
    }
    if (options.list_models)
        return list_models();
    if (!options.ask.empty())
        return upssim::control_ask(options.control, options.ask);
    return simulate(options);
}

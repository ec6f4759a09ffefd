// The demo's player. It runs inside a sandbox that ./demo has opened, puts the real daemon and a simulated
// UPS on the stage, and plays the story or, with --live, lets the user play. A story that does not come about
// ends with status 1.
#include "demo.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

volatile std::sig_atomic_t stop_asked = 0;

static void on_signal(int)
{
    stop_asked = 1;
}

// What the command line asks for.
struct PLAY_OPTIONS {
    std::string model = "ZR900PL";
    bool live = false;
    int battery_time = 45;  // s without mains until the machine goes down, in the live demo
};

static constexpr char USAGE[] =
    "usage: demo_play [--live [--battery-time SECONDS]] [--model NAME], inside a sandbox\n";

static void perform(const std::string &programs, const PLAY_OPTIONS &wanted)
{
    testbed::SimulatorOptions options;
    options.model = wanted.model;
    options.pace = true;
    testbed::Simulator ups(programs + "/upssim", options);
    testbed::Daemon daemon(programs + "/voltariad");
    Stage stage{
        .programs = programs, .ups = ups, .daemon = daemon, .start = std::chrono::steady_clock::now()};
    if (wanted.live) {
        live(stage, wanted.battery_time);
    } else {
        std::printf("A simulated %s hangs on /dev/ttyS0 of a machine of its own.\n", wanted.model.c_str());
        play(stage);
    }
    monitor_close(stage.monitor);
}

// False for a wrong command line.
static bool parse(int argc, char **argv, PLAY_OPTIONS &wanted)
{
    for (int i = 1; i < argc; i++) {
        const std::string_view name = argv[i];
        if (name == "--live")
            wanted.live = true;
        else if (name == "--model" && i + 1 < argc)
            wanted.model = argv[++i];
        else if (name == "--battery-time" && i + 1 < argc)
            wanted.battery_time = std::atoi(argv[++i]);
        else
            return false;
    }
    return wanted.battery_time > 0;
}

int main(int argc, char **argv)
{
    PLAY_OPTIONS wanted;
    if (!parse(argc, argv, wanted)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    if (wanted.live && (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)) {
        std::fputs("--live wants a terminal\n", stderr);
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = on_signal;
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigaction(number, &action, nullptr);
    try {
        perform(VOLTARIA_PROGRAMS, wanted);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "the play ends here: %s\n", error.what());
        return 1;
    }
}

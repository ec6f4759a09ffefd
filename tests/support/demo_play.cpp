// The demo's player. It runs inside a sandbox that ./demo has opened, puts the real daemon and a simulated
// UPS on the stage, and plays the story or, with --live, lets the user play. A story that does not come about
// ends with status 1.
#include "demo.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

volatile std::sig_atomic_t stop_asked = 0;

static void on_signal(int)
{
    stop_asked = 1;
}

static void perform(const std::string &programs, const std::string &model, bool is_live)
{
    testbed::SimulatorOptions options;
    options.model = model;
    options.pace = true;
    testbed::Simulator ups(programs + "/upssim", options);
    testbed::Daemon daemon(programs + "/voltariad");
    Stage stage{
        .programs = programs, .ups = ups, .daemon = daemon, .start = std::chrono::steady_clock::now()};
    std::printf("A simulated %s hangs on /dev/ttyS0 of a machine of its own.\n", model.c_str());
    if (is_live)
        live(stage);
    else
        play(stage);
    monitor_close(stage.monitor);
}

int main(int argc, char **argv)
{
    std::string model = "ZR900PL";
    bool is_live = false;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--live") == 0) {
            is_live = true;
        } else if (std::strcmp(argv[i], "--model") == 0 && i + 1 < argc) {
            model = argv[++i];
        } else {
            std::fputs("usage: demo_play [--live] [--model NAME], inside a sandbox\n", stderr);
            return 2;
        }
    }
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    try {
        perform(VOLTARIA_PROGRAMS, model, is_live);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "the play ends here: %s\n", error.what());
        return 1;
    }
}

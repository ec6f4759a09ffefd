// A program that makes the calls it is told to make, one argument after the other, and prints what it sees:
// what the tests of the stepped clock put under the clock.
//
//     say TEXT          prints "MONOTONIC WALL TEXT", both in microseconds
//     CALL MS           one of the ways to wait: select, pselect, poll, ppoll, sleep, usleep, nanosleep,
//                       clock_nanosleep, until (an absolute clock_nanosleep), std
//     pause             until a signal
//     timer MS, period MS   arms the interval timer, once or again and again, with a handler
//     left              prints what the interval timer shows, in microseconds
//     alarms            prints how often the handler ran
//     loop N            repeats the rest of the arguments N times
//     child             the rest is done by a child, which this process waits for (waitpid)
//     hang, brief MS    leaves a child beside, which waits for a signal, or so long
//     reap MS           waits for a child in steps of 10 ms, at most so long; prints whether it ended
//     shell TEXT        system()
//     bare              the rest is a program and its arguments: becomes it, with an empty environment
//     spin              works for ever
//     take PATH / give PATH   reads a byte from, writes a byte to a FIFO
//     clocks            prints the difference between the ways to read the clock, in microseconds

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static volatile std::sig_atomic_t alarms = 0;

static void count_alarm(int)
{
    alarms = alarms + 1;
}

static long long read_clock(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
}

static void say(const std::string &text)
{
    std::printf("%lld %lld %s\n", read_clock(CLOCK_MONOTONIC), read_clock(CLOCK_REALTIME), text.c_str());
    std::fflush(stdout);
}

static void wait_by(std::string_view call, long milliseconds)
{
    timespec time = {milliseconds / 1000, milliseconds % 1000 * 1'000'000};
    timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    if (call == "select")
        select(0, nullptr, nullptr, nullptr, &limit);
    else if (call == "pselect")
        pselect(0, nullptr, nullptr, nullptr, &time, nullptr);
    else if (call == "poll")
        poll(nullptr, 0, static_cast<int>(milliseconds));
    else if (call == "ppoll")
        ppoll(nullptr, 0, &time, nullptr);
    else if (call == "sleep")
        sleep(static_cast<unsigned>(milliseconds / 1000));
    else if (call == "usleep")
        usleep(static_cast<useconds_t>(milliseconds * 1000));
    else if (call == "nanosleep")
        nanosleep(&time, nullptr);
    else if (call == "clock_nanosleep")
        clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
    else if (call == "std")
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

static void wait_absolutely(long milliseconds)
{
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += milliseconds / 1000;
    clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &time, nullptr);
}

static void arm_timer(long first, long period)
{
    struct sigaction action {
    };
    action.sa_handler = count_alarm;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval value = {{period / 1000, period % 1000 * 1000}, {first / 1000, first % 1000 * 1000}};
    setitimer(ITIMER_REAL, &value, nullptr);
}

static void show_timer()
{
    itimerval value = {};
    getitimer(ITIMER_REAL, &value);
    say(std::to_string(value.it_value.tv_sec * 1'000'000LL + value.it_value.tv_usec));
}

// A child beside this process; it waits for a signal when the time is negative.
static void leave_child(long milliseconds)
{
    if (fork() != 0)
        return;
    if (milliseconds < 0)
        pause();
    else
        poll(nullptr, 0, static_cast<int>(milliseconds));
    _exit(0);
}

static void reap(long milliseconds)
{
    for (long waited = 0; waited < milliseconds; waited += 10) {
        if (waitpid(-1, nullptr, WNOHANG) > 0) {
            say("ended");
            return;
        }
        usleep(10'000);
    }
    say("not ended");
}

static void pass_byte(const char *path, bool take)
{
    char byte = 'x';
    const int fd = open(path, O_RDWR);
    const ssize_t count = take ? read(fd, &byte, 1) : write(fd, &byte, 1);
    if (count != 1)
        std::perror(path);
    close(fd);
}

static void compare_clocks()
{
    timeval day = {};
    gettimeofday(&day, nullptr);
    const auto standard = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    const long long real = read_clock(CLOCK_REALTIME);
    const long long steady = read_clock(CLOCK_MONOTONIC);
    long long off = 0;
    for (const long long other :
         {day.tv_sec * 1'000'000LL + day.tv_usec, static_cast<long long>(standard.count()),
          read_clock(CLOCK_REALTIME_COARSE)})
        off = std::max(off, std::llabs(other - real));
    for (const clockid_t clock : {CLOCK_MONOTONIC_COARSE, CLOCK_BOOTTIME, CLOCK_MONOTONIC_RAW})
        off = std::max(off, std::llabs(read_clock(clock) - steady));
    say(std::to_string(off + std::llabs(std::time(nullptr) - real / 1'000'000)));
}

static void act(std::string_view word, const char *argument)
{
    const long number = std::atol(argument);
    if (word == "say")
        say(argument);
    else if (word == "timer")
        arm_timer(number, 0);
    else if (word == "period")
        arm_timer(number, number);
    else if (word == "reap")
        reap(number);
    else if (word == "brief")
        leave_child(number);
    else if (word == "until")
        wait_absolutely(number);
    else if (word == "take" || word == "give")
        pass_byte(argument, word == "take");
    else if (word == "shell")
        say(std::to_string(std::system(argument)));
    else
        wait_by(word, number);
}

// Carries out a word without an argument; false when the word is not one of these.
static bool act(std::string_view word)
{
    if (word == "pause")
        pause();
    else if (word == "left")
        show_timer();
    else if (word == "clocks")
        compare_clocks();
    else if (word == "alarms")
        say(std::to_string(alarms));
    else if (word == "hang")
        leave_child(-1);
    else
        return false;
    return true;
}

static void perform(char **words)
{
    while (*words != nullptr) {
        const std::string_view word = *words++;
        if (word == "loop") {
            // The last time is the rest of this list itself.
            for (long left = std::atol(*words++); left > 1; --left)
                perform(words);
        } else if (word == "child") {
            const pid_t pid = fork();
            if (pid == 0)
                continue;
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
            return;
        } else if (word == "bare") {
            char *none[] = {nullptr};
            execve(*words, words, none);
            _exit(127);
        } else if (word == "spin") {
            while (alarms == 0) {
            }
        } else if (!act(word)) {
            act(word, *words++);
        }
    }
}

int main(int, char **argv)
{
    perform(argv + 1);
    return 0;
}

// The UPS process: its loop, the command channel to the agent process, the polling clock and the publishing
// of the event mask. Owns the state record of the module. Entered by the child of the fork through
// ups_doupschan; the serial line, the queries and the commands are in the other agent_ups files.
#include "agent_ups.h"

#include "agent_ups_internal.h"
#include "agent_utils_output.h"
#include "shared_word.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/select.h>
#include <unistd.h>

static constexpr long SECOND = 1000000;              // us
static constexpr std::time_t CLOCK_SPAN = 10000000;  // s that the polling clock is armed with

UPSCHAN upschan{};

// Stands in for the shared block when there is none.
static AGINFO private_block{};

// ---- start

void ups_attach(AGENT *record)
{
    upschan = {};
    upschan.aip = record->aip != nullptr ? record->aip : &private_block;
    upschan.u_status = record->aip != nullptr ? &record->aip->ups.upsstat : &upschan.upsstatus;
}

// Moves one pipe end below the limit of the waits; it is closed on exec from then on.
static int take_pipe_end(int &fd)
{
    if (fd < UPS_FDLIMIT)
        return fcntl(fd, F_SETFD, FD_CLOEXEC);
    const int low = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (low < 0)
        return -1;
    if (low >= UPS_FDLIMIT) {
        close(low);
        errno = EMFILE;
        return -1;
    }
    close(fd);
    fd = low;
    return 0;
}

int ups_takedescriptors(AGENT *record)
{
    for (NETSERV *server = record->agnet.tfdlist; server != nullptr; server = server->next) {
        if (server->tcpfd >= 0)
            close(server->tcpfd);
        server->tcpfd = -1;
    }
    if (record->agnet.ufd >= 0)
        close(record->agnet.ufd);
    record->agnet.ufd = -1;
    if (take_pipe_end(record->chna2u.actpipe[0]) < 0 || take_pipe_end(record->chna2u.paspipe[1]) < 0)
        return -1;
    return 0;
}

// ---- the clock

void ups_setstartitimer(itimerval *set, itimerval *snapshot)
{
    *set = {};
    set->it_value.tv_sec = CLOCK_SPAN;
    if (setitimer(ITIMER_REAL, set, nullptr) < 0 || getitimer(ITIMER_REAL, snapshot) < 0)
        std::perror("ups_setstartitimer");
}

static void arm_clock()
{
    ups_setstartitimer(&upschan.value, &upschan.ovalue);
}

static std::time_t clock_left()
{
    itimerval now{};
    getitimer(ITIMER_REAL, &now);
    return now.it_value.tv_sec;
}

// Without a unit nothing else arms it for months, and its end would be a signal that ends the process.
void ups_keepclock()
{
    if (clock_left() < CLOCK_SPAN / 2)
        arm_clock();
}

int ups_elapsed()
{
    upschan.deltatime = static_cast<int>(upschan.ovalue.it_value.tv_sec - clock_left());
    return upschan.deltatime;
}

// ---- the event mask

// The agent turns each new bit into an event once, and looks at CommStatus first: a bit that it met before
// the line counts as established would be spent on a line that is down. So the bits of the first pass wait
// here.
std::uint32_t ups_getmask()
{
    return upschan.maskheld == 1 ? upschan.heldmask : shared_load(*upschan.u_status);
}

// The mask is the last value of a reply to be stored, so an agent that is woken by it finds all the others.
static void publish_mask(std::uint32_t mask)
{
    const std::uint32_t before = shared_load(*upschan.u_status);
    shared_store(*upschan.u_status, mask);
    if (mask != before)
        ups_wakeagent();
}

void ups_setmask(std::uint32_t mask)
{
    if (shared_load(upschan.aip->ups.ui.CommStatus) == COMM_ESTABLISHED) {
        publish_mask(mask);
        return;
    }
    upschan.heldmask = mask;
    upschan.maskheld = 1;
}

void ups_established()
{
    shared_store(upschan.aip->ups.ui.CommStatus, COMM_ESTABLISHED);
    if (upschan.maskheld == 1)
        publish_mask(upschan.heldmask);
    upschan.maskheld = 0;
}

int ups_comset()
{
    return shared_load(upschan.aip->ups.up.workparam.ComSet);
}

// ---- the command channel

void response_nowait()
{
    upschan.u_wait = 0;
}

// 0 when the word has been taken, or dropped because the pipe is full: then nobody has read the thousands of
// replies before it, and whoever reads next is owed the oldest.
static int write_reply(AGENT *record, std::uint32_t word)
{
    pollfd room{record->chna2u.paspipe[1], POLLOUT, 0};
    int n = -1;
    do
        n = poll(&room, 1, 0);
    while (n < 0 && errno == EINTR);
    if (n == 0)
        return 0;
    ssize_t written = -1;
    do
        written = write(room.fd, &word, sizeof word);
    while (written < 0 && errno == EINTR);
    return written == sizeof word ? 0 : -1;
}

// The bytes of one command word that came; fewer than four at the end of the pipe or after an error.
static int read_command(AGENT *record, std::uint32_t &word)
{
    ssize_t n = -1;
    do {
        errno = 0;
        n = read(record->chna2u.actpipe[0], &word, sizeof word);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

[[noreturn]] static void leave_unread(AGENT *record, int count)
{
    int reason = errno;
    std::array<char, 64> line{};
    std::snprintf(line.data(), line.size(), "%d. read actpipe error, exit\n", count);
    printf0(line.data());
    if (write_reply(record, UPSCMD_FAILED) < 0) {
        reason = errno;
        printf0("ups:write to paspipe error, --no exit\n");
    }
    std::exit(reason);
}

static void answer(AGENT *record, std::uint32_t word)
{
    if (write_reply(record, word) == 0)
        return;
    const int reason = errno;
    printf0("ups:write to paspipe error, exit\n");
    std::exit(reason);
}

void ups_procagentcmd(AGENT *record)
{
    std::uint32_t word = 0;
    upschan.u_wait = 1;
    const int count = read_command(record, word);
    if (count != sizeof word)
        leave_unread(record, count);
    if (shared_load(upschan.aip->ups.ui.CommStatus) == COMM_LOST)
        return;
    const int outcome = ups_control(record, word);
    if (upschan.u_wait == 1)
        answer(record, (word & UPSCMD_MASK) | (outcome >= 0 ? UPSCMD_DONE : UPSCMD_FAILED));
    upschan.u_wait = 0;
}

// Where the loop does not come to its wait for long, it still looks whether the agent process is there; the
// commands themselves stay in the pipe.
static void leave_without_agent(AGENT *record)
{
    pollfd pipe{record->chna2u.actpipe[0], POLLIN, 0};
    if (poll(&pipe, 1, 0) == 1 && (pipe.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
        ups_procagentcmd(record);
}

// ---- the loop

static void first_pass(AGENT *record)
{
    shared_store(upschan.aip->ups.ui.ComId, static_cast<std::int8_t>(upschan.comid));
    while (ups_getupsstatus(record) < 0) {
        if (verify_commlost(record) != 0)
            return;
        leave_without_agent(record);
        ups_keepclock();
    }
    ups_established();
}

// 1 when the next turn is to begin at once.
static int find_unit(AGENT *record)
{
    if (ups_comsearch_model(record) >= 0) {
        first_pass(record);
        arm_clock();
        return 0;
    }
    if (ups_comset() == COMSET_NOUPS) {
        ups_comnone(record);
        return 1;
    }
    ups_lostcomm(record);
    return 0;
}

// Waits for the agent's pipe and the port. The number of descriptors that can be read, or -1.
static int wait_both(AGENT *record, fd_set &ready)
{
    timeval left{1, 0};
    for (;;) {
        FD_ZERO(&ready);
        FD_SET(record->chna2u.actpipe[0], &ready);
        if (upschan.comfd >= 0 && upschan.portdead == 0)
            FD_SET(upschan.comfd, &ready);
        const int n = select(UPS_FDLIMIT, &ready, nullptr, nullptr, &left);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

// What has come, and no waiting for more: a byte of noise now and then would keep every question waiting.
static void discard_input()
{
    std::array<char, UNASKED_MAX> unasked;
    // End of file or an error where bytes were announced: the adapter has gone.
    if (read(upschan.comfd, unasked.data(), unasked.size()) <= 0)
        upschan.portdead = 1;
    ups_flushport();
}

static void poll_when_due(AGENT *record)
{
    if (upschan.comfd < 0 || ups_elapsed() <= 0)
        return;
    if (ups_getupsstatus(record) < 0)
        verify_commlost(record);
    upschan.portdead = 0;
    arm_clock();
}

static void serve(AGENT *record)
{
    fd_set ready;
    if (wait_both(record, ready) < 0) {
        std::perror("ups_doupschan: select");
        ups_pause(SECOND);
        return;
    }
    if (upschan.comfd >= 0 && FD_ISSET(upschan.comfd, &ready))
        discard_input();
    if (FD_ISSET(record->chna2u.actpipe[0], &ready))
        ups_procagentcmd(record);
    poll_when_due(record);
    if (upschan.buzzerStep > 0)
        doBuzzer(record);
}

void ups_turn(AGENT *record)
{
    upschan.estab = 0;
    ups_keepclock();
    if (ups_comset() == COMSET_NOUPS) {
        leave_without_agent(record);
        ups_comnone(record);
        ups_pause(SECOND);
        return;
    }
    if ((upschan.comfd < 0 || ups_comset() != upschan.old_comset) && find_unit(record) == 1)
        return;
    serve(record);
}

[[noreturn]] void ups_doupschan(AGENT *record)
{
    if (ups_takedescriptors(record) < 0) {
        const int reason = errno;
        std::perror("ups_doupschan: fcntl");
        std::exit(reason);
    }
    ups_attach(record);
    ups_openwake();
    shared_store(upschan.aip->ups.protocol, 1);
    shared_store(upschan.aip->ups.ui.CommStatus, COMM_LOST);
    upschan.old_comset = ups_comset();
    arm_clock();
    for (;;)
        ups_turn(record);
    printf0("reach a un-reachable place\n");
    std::exit(0);
}

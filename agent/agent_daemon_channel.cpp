// Commands to the UPS process and their answers. Only two commands are answered to somebody; of the answer
// words of the others the last is kept, and the next waited command takes it for its own and fails. Callers
// go on as with any failure.
#include "agent_daemon_channel.h"

#include "agent_daemon.h"
#include "agent_utils.h"
#include "agent_utils_output.h"
#include "shared_word.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

static constexpr int WRITABLE_WAIT = 3000;         // ms
static constexpr int REPLY_STEP = 50;              // ms between looks at the link while a reply is awaited
static constexpr int REPLY_DEAD_LIMIT = 60000;     // ms without a reply and without any sign of life
static constexpr int WORDS_LIMIT = 16;             // unexecuted words beyond which more are refused
static constexpr std::uint32_t UPS_MESSAGE = 128;  // low half of a message that the UPS process starts
static constexpr std::int32_t UPS_MESSAGE_BYTES = 12;

// The last answer word that nobody read.
static std::optional<std::uint32_t> unread_reply;

// Whether `fd` becomes ready for `events` (or fails) within `limit` ms.
static bool wait_for(int fd, short events, int limit)
{
    pollfd entry{fd, events, 0};
    const std::int64_t end = utils_monotonicms() + limit;
    for (;;) {
        const std::int64_t left = end - utils_monotonicms();
        const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

[[noreturn]] static void leave(AGENT *ag, const char *text)
{
    const int reason = errno;  // the exit status, which the debug file must not replace
    printf1(text);
    errno = reason;
    net_netexit(ag);
}

static int unexecuted_words(const AGENT *ag)
{
    int bytes = 0;
    if (ioctl(ag->chna2u.actpipe[1], FIONREAD, &bytes) == -1)
        return 0;
    return bytes / static_cast<int>(sizeof(std::uint32_t));
}

static std::uint32_t read_reply(AGENT *ag)
{
    std::uint32_t word = 0;
    if (read(ag->chna2u.paspipe[0], &word, sizeof word) != sizeof word)
        leave(ag, "paspipe. daemon_sendcmdtoups: read\n");
    return word;
}

void daemon_dropreplies(AGENT *ag)
{
    while (wait_for(ag->chna2u.paspipe[0], POLLIN, 0)) {
        std::uint32_t word = 0;
        if (read(ag->chna2u.paspipe[0], &word, sizeof word) != sizeof word)
            return;  // the UPS process has gone; the loop notices
        unread_reply = word;
    }
}

// How often the UPS process has been given the processor and gone back to waiting; -1 when it cannot be told.
static long switches_of(std::int32_t pid)
{
    std::array<char, 64> path;
    std::snprintf(path.data(), path.size(), "/proc/%d/status", static_cast<int>(pid));
    std::FILE *file = std::fopen(path.data(), "re");
    if (file == nullptr)
        return -1;
    std::array<char, 256> line;
    long count = -1;
    while (std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr)
        if (std::sscanf(line.data(), "voluntary_ctxt_switches: %ld", &count) == 1)
            break;
    std::fclose(file);
    return count;
}

// Whether the word still has its turn to come: the UPS process is at work on an established link and has not
// taken it.
static bool still_to_come(const AGENT *ag)
{
    return unexecuted_words(ag) > 0 && shared_load(ag->aip->ups.ui.CommStatus) != COMM_LOST;
}

// Waits for the answer word. There is no time limit while the link may still answer; nothing comes any more
// once the port is lost, nor within reason from a unit that never passes its first queries, from a process
// that took the command a minute ago, or from one that does not run at all.
static std::optional<std::uint32_t> await_reply(AGENT *ag)
{
    std::int64_t alive = utils_monotonicms();
    long switches = switches_of(shared_load(ag->aip->upspid));
    while (!wait_for(ag->chna2u.paspipe[0], POLLIN, REPLY_STEP)) {
        if (shared_load(ag->aip->ups.ui.ComId) < 0)
            return std::nullopt;
        if (const long now = switches_of(shared_load(ag->aip->upspid));
            now != switches && still_to_come(ag)) {
            switches = now;
            alive = utils_monotonicms();
        }
        if (utils_monotonicms() - alive >= REPLY_DEAD_LIMIT)
            return std::nullopt;
    }
    return read_reply(ag);
}

static int waited_result(AGENT *ag, std::uint32_t word)
{
    std::optional<std::uint32_t> reply = unread_reply;
    unread_reply.reset();
    if (!reply)
        reply = await_reply(ag);
    return reply && (*reply & UPSCMD_MASK) == (word & UPSCMD_MASK) && (*reply & ~UPSCMD_MASK) == UPSCMD_DONE
               ? 0
               : -1;
}

static bool is_waited_for(std::uint32_t word)
{
    return (word & UPSCMD_MASK) == UPSCMD_STATUS || (word & UPSCMD_MASK) == UPSCMD_SHUTDOWN;
}

int daemon_sendcmdtoups(AGENT *ag, std::uint32_t word)
{
    if (shared_load(ag->aip->ups.ui.ComId) < 0)
        return 0;
    if ((word & UPSCMD_MASK) != UPSCMD_SHUTDOWN && unexecuted_words(ag) > WORDS_LIMIT)
        return -1;
    if (!wait_for(ag->chna2u.actpipe[1], POLLOUT, WRITABLE_WAIT))
        return -1;
    daemon_dropreplies(ag);
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "write actpipe, sendcmdtoups, %d.", static_cast<int>(word));
    printf1(text.data());
    if (write(ag->chna2u.actpipe[1], &word, sizeof word) != sizeof word)
        leave(ag, "actpipe dm-sendcmdtoups: write\n");
    return is_waited_for(word) ? waited_result(ag, word) : 0;
}

static bool valid_message(const AGENT *ag, std::uint32_t expected, std::uint32_t received)
{
    const AUMSG &message = ag->aip->bu2a;
    return (received & UPSCMD_MASK) == (expected & UPSCMD_MASK) && (received & ~UPSCMD_MASK) == UPS_MESSAGE &&
           message.msglen == UPS_MESSAGE_BYTES && message.msgremained == 0 && message.msgseqno == 1;
}

int daemon_readdatafromups(AGENT *ag, std::uint32_t *word, void *out)
{
    if (shared_load(ag->aip->ups.ui.ComId) < 0)
        return 0;
    const int from = ag->chnu2a.actpipe[0];
    for (int ready = 0; ready == 0;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(from, &set);
        timeval step{1, 0};
        ready = select(from + 1, &set, nullptr, nullptr, &step);
        if (ready == -1 && errno == EINTR)
            ready = 0;
        if (ready == -1)
            leave(ag, "daemon_readdatafromups: select\n");
    }
    std::uint32_t received = 0;
    if (read(from, &received, sizeof received) != sizeof received)
        leave(ag, "daemon_readdatafromups: read\n");
    const std::int32_t result = valid_message(ag, *word, received) ? 0 : -1;
    if (result == 0)
        std::memcpy(out, ag->aip->bu2a.buf.data(), UPS_MESSAGE_BYTES);
    *word = received;
    if (write(ag->chnu2a.paspipe[1], &result, sizeof result) != sizeof result)
        leave(ag, "paspipe daemon_readdatafromups: write\n");
    return result;
}

// The serial line: finding the port, setting it up, reopening it, one command out, one reply in. Owns the
// port's descriptor (`comfd` of the module record); called by the loop and by every query. Whatever the line
// does, noise with flow control characters and a vanished adapter included, each function comes back within
// its bound.
#include "agent_main_message.h"
#include "agent_ups_internal.h"
#include "agent_utils_output.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

static constexpr long SECOND = 1000000;          // us
static constexpr long REPLY_WAIT = 600000;       // us before each byte on an established line
static constexpr long REPLY_WAIT_LOST = SECOND;  // the same while the line is lost
static constexpr int REPLY_MISSES = 3;           // waits in a row without a byte
static constexpr long WRITE_WAIT = SECOND;       // bound of one command's wait for room
static constexpr long CHARACTER_TIME = 4167;     // us for 10 bits at 2400 baud
static constexpr long QUEUE_STEP = 5000;         // us between looks at the output queue
static constexpr int QUEUE_STEPS = 100;          // looks before output counts as stopped
static constexpr int SEARCH_TRIES = 4;
static constexpr int MODEL_TRIES = 2;

// ---- waiting

int ups_waitfd(int fd, bool forwriting, long usec)
{
    if (fd < 0 || fd >= UPS_FDLIMIT)
        return -1;
    timeval left{usec / SECOND, usec % SECOND};
    for (;;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        // select leaves the time that remains in `left`, so an interrupted wait goes on where it was.
        const int n =
            select(UPS_FDLIMIT, forwriting ? nullptr : &set, forwriting ? &set : nullptr, nullptr, &left);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

void ups_pause(long usec)
{
    timeval left{usec / SECOND, usec % SECOND};
    while (select(0, nullptr, nullptr, nullptr, &left) < 0 && errno == EINTR) {
    }
}

// ---- one exchange

void ups_flushport()
{
    // A port that cannot be flushed shows it in the write or read that follows.
    if (upschan.comfd >= 0)
        tcflush(upschan.comfd, TCIOFLUSH);
}

// A unit that stopped the output with XOFF, or noise that looked like it, holds the output for good; stopping
// it from this side as well and starting it clears both.
static void restart_output(int fd)
{
    tcflow(fd, TCOOFF);
    tcflow(fd, TCOON);
}

int ups_writetoups(std::string_view command)
{
    const int fd = upschan.comfd;
    if (ups_waitfd(fd, true, WRITE_WAIT) <= 0)
        return -1;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        return -1;
    const ssize_t n = write(fd, command.data(), command.size());
    if (fcntl(fd, F_SETFL, flags) < 0)
        return -1;
    return static_cast<int>(n);
}

static bool queue_empties(int fd)
{
    for (int i = 0; i < QUEUE_STEPS; ++i) {
        int left = 0;
        if (ioctl(fd, TIOCOUTQ, &left) < 0 || left == 0)
            return true;
        ups_pause(QUEUE_STEP);
    }
    return false;
}

// The queue does not count the last characters, which the hardware holds, and on a pseudo-terminal none at
// all, where draining does nothing either: so the line time passes in any case, and once more behind a queue
// that was still full after it.
static void let_leave(int fd, std::size_t bytes)
{
    const long linetime = static_cast<long>(bytes) * CHARACTER_TIME;
    int left = 0;
    ups_pause(linetime);
    if (ioctl(fd, TIOCOUTQ, &left) < 0 || left == 0)
        return;
    if (!queue_empties(fd)) {
        restart_output(fd);
        static_cast<void>(queue_empties(fd));
    }
    ups_pause(linetime);
}

// An order must get out even after noise that looked like XOFF: there is no second one.
int ups_order(std::string_view order)
{
    ups_flushport();
    if (ups_waitfd(upschan.comfd, true, WRITE_WAIT) == 0)
        restart_output(upschan.comfd);
    errno = EIO;  // for the failures that are no system call's
    const int written = ups_writetoups(order);
    if (written == static_cast<int>(order.size()))
        let_leave(upschan.comfd, order.size());
    return written;
}

enum class READEND { Complete, Silence, Dead };

// Reads up to a newline or `max` bytes, whichever comes first.
static READEND read_bytes(char *buf, int max, int &count)
{
    std::fill_n(buf, max, '\0');
    count = 0;
    for (int misses = 0; misses < REPLY_MISSES;) {
        const bool lost = shared_load(upschan.aip->ups.ui.CommStatus) == COMM_LOST;
        const int ready = ups_waitfd(upschan.comfd, false, lost ? REPLY_WAIT_LOST : REPLY_WAIT);
        if (ready < 0)
            return READEND::Dead;
        if (ready == 0) {
            ++misses;
            continue;
        }
        // End of file or an error where a byte was announced: the adapter has gone.
        if (read(upschan.comfd, buf + count, 1) != 1) {
            upschan.portdead = 1;
            return READEND::Dead;
        }
        misses = 0;
        if (buf[count++] == '\n' || count == max)
            return READEND::Complete;
    }
    return READEND::Silence;
}

// A status line that did not end is followed by more: it gets its newline, and what follows time to pass.
static void end_q1(char *buf)
{
    char &last = buf[Q1_MAX - 1];
    if (last == '\n' || last == '\r')
        return;
    last = '\n';
    ups_flushport();
    ups_pause(SECOND);
}

int ups_readdatafromups(AGENT * /*record*/, char *buf, int max)
{
    int count = 0;
    if (read_bytes(buf, max, count) != READEND::Complete)
        return UPSREPLY_NONE;
    if (reply_iswake({buf, static_cast<std::size_t>(count)})) {
        if (read_bytes(buf, max, count) == READEND::Dead)
            return UPSREPLY_NONE;
        if (count == 0 || reply_iswake({buf, static_cast<std::size_t>(count)})) {
            buf[0] = '\0';
            return 0;
        }
    }
    if (buf[count - 1] != '\n' && count != max)
        return UPSREPLY_NONE;
    buf[count] = '\0';
    if (count == Q1_MAX && max == Q1_MAX)
        end_q1(buf);
    return count;
}

int ups_query(AGENT *record, std::string_view command, int max, UPSREPLY &reply)
{
    reply.count = UPSREPLY_NOTSENT;
    ups_flushport();
    if (ups_writetoups(command) == static_cast<int>(command.size()))
        reply.count = ups_readdatafromups(record, reply.buf.data(), max);
    return reply.count;
}

std::string_view ups_replytext(const UPSREPLY &reply)
{
    return {reply.buf.data(), static_cast<std::size_t>(std::max(reply.count, 0))};
}

// ---- the port

void ups_closeport()
{
    if (upschan.comfd < 0)
        return;
    // A stopped port would hold close() until its output has drained, up to 30 s.
    ups_flushport();
    restart_output(upschan.comfd);
    close(upschan.comfd);
    upschan.comfd = -1;
    upschan.portdead = 0;
}

static const char *port_name()
{
    return upschan.comlist[static_cast<std::size_t>(upschan.comtry)];
}

// Opens port `index` of the list; 0 or -1.
static int open_port(int index)
{
    upschan.comtry = index;
    struct stat st {
    };
    if (stat(port_name(), &st) < 0)
        return -1;
    int fd = open(port_name(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= UPS_FDLIMIT) {
        close(fd);
        fd = -1;
        errno = EMFILE;
    }
    if (fd < 0) {
        const char *reason = std::strerror(errno);
        printf1("\n");
        printf1("OPEN COM\n");
        printf1(reason);
        printf1("\n");
        return -1;
    }
    upschan.comfd = fd;
    upschan.portdead = 0;
    restart_output(fd);
    return 0;
}

// Reports a failed step of the set-up; `msgid` holds one "%s" for the port. The catalogue's text is not used
// as a format: a wrong translation must not do more than read wrong.
static int cominit_failed(const char *msgid)
{
    const int reason = errno;
    const std::string_view text = GETTEXTj(msgid);
    const std::size_t at = std::min(text.find("%s"), text.size());
    const std::string_view rest = text.substr(std::min(at + 2, text.size()));
    std::array<char, 320> line{};
    std::snprintf(line.data(), line.size(), "%.*s%s%.*s", static_cast<int>(at), text.data(), port_name(),
                  static_cast<int>(rest.size()), rest.data());
    errno = reason;
    std::perror(line.data());
    return -1;
}

// 2400 baud, 8N1, both flow controls, raw reads, carriage returns in as newlines.
static void set_line(termios &line)
{
    cfsetispeed(&line, B2400);
    cfsetospeed(&line, B2400);
    line.c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB);
    line.c_cflag |= CS8 | CLOCAL;
    line.c_iflag &= ~static_cast<tcflag_t>(ISTRIP | IGNCR);
    line.c_iflag |= ICRNL | IXON | IXOFF;
    line.c_oflag &= ~static_cast<tcflag_t>(ONLCR | ONOCR);
    line.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    line.c_lflag |= FLUSHO;
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 10;
}

int ups_cominit()
{
    const int flags = fcntl(upschan.comfd, F_GETFL);
    if (flags < 0)
        return cominit_failed("ups_cominit: cannot get status of port %s:");
    if (fcntl(upschan.comfd, F_SETFL, flags & ~O_NONBLOCK) < 0)
        return cominit_failed("ups_cominit: cannot set status of port %s:");
    termios line{};
    if (tcgetattr(upschan.comfd, &line) < 0)
        return cominit_failed("ups_cominit: cannot get %s settings:");
    set_line(line);
    if (tcsetattr(upschan.comfd, TCSANOW, &line) < 0)
        return cominit_failed("ups_cominit: cannot set %s settings:");
    return 0;
}

int ups_reopen(AGENT * /*record*/)
{
    ups_closeport();
    if (upschan.comid < 0 || open_port(upschan.comid) < 0)
        return -1;
    if (ups_cominit() < 0) {
        ups_closeport();
        return -1;
    }
    return 0;
}

// ---- the search

static int open_line(int index)
{
    if (open_port(index) < 0)
        return -1;
    if (isatty(upschan.comfd) == 1 && ups_cominit() == 0)
        return 0;
    ups_closeport();
    return -1;
}

static int search_all(AGENT *record)
{
    for (int i = 0; i < COMPORT_COUNT; ++i) {
        if (open_line(i) < 0)
            continue;
        if (ups_q1(record, SEARCH_TRIES) == 0) {
            upschan.comid = i;
            break;
        }
        ups_closeport();
    }
    return upschan.comid;
}

static int search_one(AGENT *record, int index)
{
    if (open_line(index) < 0)
        return -1;
    if (ups_q1(record, SEARCH_TRIES) < 0) {
        ups_closeport();
        upschan.comid = COMID_NONE;
        return -1;
    }
    upschan.comid = index;
    return index;
}

int ups_comsearch(AGENT *record)
{
    int comset = ups_comset();
    if (comset == COMSET_NOUPS)
        return -1;
    if (comset < COMSET_AUTO || comset > COMPORT_COUNT) {
        comset = COMSET_AUTO;
        shared_store(upschan.aip->ups.up.workparam.ComSet, comset);
    }
    // What the search is made for is noted before it starts: a change during it must lead to the next one.
    upschan.old_comset = comset;
    ups_closeport();
    return comset == COMSET_AUTO ? search_all(record) : search_one(record, comset - 1);
}

int ups_comsearch_model(AGENT *record)
{
    if (ups_comsearch(record) < 0)
        return -1;
    for (int attempt = 0; attempt < MODEL_TRIES; ++attempt)
        if (ups_getupsmodel(record, 1) >= 0)
            return static_cast<int>(field_view(upschan.ups_model_s).size());
    return -1;
}

// Sessions with an agent: connecting, asking, waiting for the answer. Sockets never block here; every wait
// is one poll with the time limit of the call and, beside the socket, the caller's cancel descriptor.
#include "monitor.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using TIME_POINT = std::chrono::steady_clock::time_point;

static MONITOR_RESULT failure(MONITOR_ERROR error, std::string text)
{
    return {error, std::move(text)};
}

static std::string system_text(int error)
{
    std::array<char, 128> buffer{};
    return strerror_r(error, buffer.data(), buffer.size());
}

bool monitor_unreached(const MONITOR_RESULT &result)
{
    return result.error == MONITOR_ERROR::NameNotFound || result.error == MONITOR_ERROR::Unreachable ||
           result.error == MONITOR_ERROR::ConnectTimeout;
}

// ---- Waiting ----

enum class WAIT { Ready, TimedOut, Cancelled };

// Rounded up, so that a wait is not repeated in the last part of a millisecond.
static int milliseconds_until(TIME_POINT deadline)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
}

static bool passed(TIME_POINT deadline)
{
    return std::chrono::steady_clock::now() >= deadline;
}

static WAIT wait_for(int fd, short events, int cancel_fd, TIME_POINT deadline)
{
    for (;;) {
        std::array<pollfd, 2> watched{{{fd, events, 0}, {cancel_fd, POLLIN, 0}}};
        const int left = milliseconds_until(deadline);
        const int ready = poll(watched.data(), watched.size(), left);
        if (ready > 0)
            return watched[1].revents != 0 ? WAIT::Cancelled : WAIT::Ready;
        if (ready < 0 && errno != EINTR && errno != EAGAIN && errno != ENOMEM)
            return WAIT::Ready;  // the read or write that follows reports what is wrong
        if (left == 0)
            return WAIT::TimedOut;
    }
}

// ---- Connecting ----

static std::string place(const MONITOR_OPTIONS &options)
{
    return options.host + ":" + std::to_string(options.port);
}

// The outcome of a connection attempt as an errno; ETIMEDOUT and ECANCELED stand for our own limits.
static int finish_connect(int fd, const MONITOR_OPTIONS &options, TIME_POINT deadline)
{
    switch (wait_for(fd, POLLOUT, options.cancel_fd, deadline)) {
    case WAIT::TimedOut:
        return ETIMEDOUT;
    case WAIT::Cancelled:
        return ECANCELED;
    case WAIT::Ready:
        break;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// One address: a connected descriptor in `fd` and 0, or an errno.
static int connect_to(const addrinfo &address, const MONITOR_OPTIONS &options, TIME_POINT deadline, int &fd)
{
    fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    int error = connect(fd, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR)
        error = finish_connect(fd, options, deadline);
    if (error == 0) {
        const int on = 1;
        // Only a matter of speed; the session works without it.
        static_cast<void>(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
        return 0;
    }
    close(fd);
    fd = -1;
    return error;
}

static MONITOR_RESULT connect_failure(const MONITOR_OPTIONS &options, int error)
{
    if (error == ECANCELED)
        return failure(MONITOR_ERROR::Cancelled, "cancelled");
    const std::string what = "cannot reach " + place(options) + ": ";
    if (error == ETIMEDOUT)
        return failure(MONITOR_ERROR::ConnectTimeout, what + "no connection in time");
    return failure(MONITOR_ERROR::Unreachable, what + system_text(error));
}

static MONITOR_RESULT connect_to_any(const addrinfo *addresses, const MONITOR_OPTIONS &options,
                                     MONITOR_SESSION &session)
{
    const TIME_POINT deadline = std::chrono::steady_clock::now() + options.timeout;
    int error = EADDRNOTAVAIL;
    for (const addrinfo *address = addresses; address != nullptr; address = address->ai_next) {
        error = connect_to(*address, options, deadline, session.fd);
        if (error == 0)
            return {};
        if (error == ECANCELED)
            break;
    }
    return connect_failure(options, error);
}

MONITOR_RESULT monitor_connect(const MONITOR_OPTIONS &options, MONITOR_SESSION &session)
{
    monitor_close(session);
    session.timeout = options.timeout;
    session.cancel_fd = options.cancel_fd;
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *addresses = nullptr;
    const int error =
        getaddrinfo(options.host.c_str(), std::to_string(options.port).c_str(), &wanted, &addresses);
    if (error != 0)
        return failure(MONITOR_ERROR::NameNotFound,
                       "cannot find the host " + options.host + ": " + gai_strerror(error));
    MONITOR_RESULT result = connect_to_any(addresses, options, session);
    freeaddrinfo(addresses);
    return result;
}

void monitor_close(MONITOR_SESSION &session)
{
    if (session.fd >= 0)
        close(session.fd);
    session.fd = -1;
    session.stream.bytes.clear();
}

// ---- Sending ----

static MONITOR_RESULT wait_failure(WAIT outcome)
{
    if (outcome == WAIT::Cancelled)
        return failure(MONITOR_ERROR::Cancelled, "cancelled");
    return failure(MONITOR_ERROR::AnswerTimeout, "the agent did not answer in time");
}

static MONITOR_RESULT send_whole(MONITOR_SESSION &session, std::span<const std::uint8_t> bytes,
                                 TIME_POINT deadline)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(session.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (sent < 0 && errno != EAGAIN && errno != EINTR)
            return failure(MONITOR_ERROR::Closed, "the connection is lost: " + system_text(errno));
        const WAIT outcome = wait_for(session.fd, POLLOUT, session.cancel_fd, deadline);
        if (outcome != WAIT::Ready)
            return wait_failure(outcome);
    }
    return {};
}

MONITOR_RESULT monitor_send(MONITOR_SESSION &session, std::uint8_t data_id,
                            std::span<const std::uint8_t> data)
{
    if (session.fd < 0)
        return failure(MONITOR_ERROR::NotConnected, "not connected");
    UPS_PACKET_HEAD head{};
    head.Version = PACKET_VERSION;
    head.Prototype = 1;  // an agent that gets the header in pieces accepts nothing else
    head.DataId = data_id;
    head.Length = static_cast<std::uint32_t>(PACKET_HEAD_SIZE + data.size());
    const HEAD_BYTES head_bytes = monitor_encode_head(head);
    std::vector<std::uint8_t> packet(head_bytes.begin(), head_bytes.end());
    packet.insert(packet.end(), data.begin(), data.end());
    MONITOR_RESULT result = send_whole(session, packet, std::chrono::steady_clock::now() + session.timeout);
    if (!monitor_ok(result))
        monitor_close(session);
    return result;
}

// ---- Receiving ----

// Takes what has arrived into the stream; one read, so that the caller looks at packets in between.
static MONITOR_RESULT read_some(MONITOR_SESSION &session, TIME_POINT deadline)
{
    std::array<std::uint8_t, 4096> buffer;
    for (;;) {
        const WAIT outcome = wait_for(session.fd, POLLIN, session.cancel_fd, deadline);
        if (outcome != WAIT::Ready)
            return wait_failure(outcome);
        const ssize_t got = recv(session.fd, buffer.data(), buffer.size(), 0);
        if (got > 0) {
            monitor_stream_feed(session.stream, std::span(buffer).first(static_cast<std::size_t>(got)));
            return {};
        }
        if (got == 0)
            return failure(MONITOR_ERROR::Closed, "the agent closed the connection without an answer");
        if (errno != EAGAIN && errno != EINTR)
            return failure(MONITOR_ERROR::Closed, "the connection is lost: " + system_text(errno));
    }
}

static MONITOR_RESULT bad_answer(const UPS_PACKET_HEAD &head)
{
    return failure(MONITOR_ERROR::BadAnswer, "the agent answered wrongly (DataId " +
                                                 std::to_string(head.DataId) + ", length " +
                                                 std::to_string(head.Length) + ")");
}

static MONITOR_RESULT foreign_answer()
{
    return failure(MONITOR_ERROR::BadAnswer, "what answers there is no agent of this system");
}

static void keep_message(MONITOR_SESSION &session, const MONITOR_PACKET &packet)
{
    if (session.messages.size() >= MONITOR_MESSAGES_MAX)
        session.messages.pop_front();
    const std::size_t kept = std::min(packet.data.size(), MONITOR_MESSAGE_BYTES);
    session.messages.emplace_back(packet.data.begin(),
                                  packet.data.begin() + static_cast<std::ptrdiff_t>(kept));
}

// Which answer is waited for.
struct EXPECTED {
    std::uint8_t data_id;
    std::uint8_t other_id;  // as good; the same where there is no other
    std::uint32_t length;   // 0 for any
};

static bool expected(const UPS_PACKET_HEAD &head, const EXPECTED &wanted)
{
    return (head.DataId == wanted.data_id || head.DataId == wanted.other_id) &&
           (wanted.length == 0 || head.Length == wanted.length);
}

static MONITOR_RESULT receive_answer(MONITOR_SESSION &session, const EXPECTED &wanted, MONITOR_PACKET &packet)
{
    const TIME_POINT deadline = std::chrono::steady_clock::now() + session.timeout;
    for (;;) {
        const STREAM_STATE state = monitor_stream_next(session.stream, packet);
        if (state == STREAM_STATE::Bad)
            return foreign_answer();
        const bool message = packet.head.DataId == DATAID_MESSAGE;
        if (state != STREAM_STATE::NeedMore && !message && !expected(packet.head, wanted))
            return bad_answer(packet.head);
        if (state == STREAM_STATE::Packet && !message)
            return {};
        if (state == STREAM_STATE::Packet) {
            keep_message(session, packet);
            if (passed(deadline))  // a flood of announcements is always readable
                return wait_failure(WAIT::TimedOut);
            continue;
        }
        MONITOR_RESULT result = read_some(session, deadline);
        if (!monitor_ok(result))
            return result;
    }
}

static MONITOR_RESULT receive(MONITOR_SESSION &session, const EXPECTED &wanted, MONITOR_PACKET &packet)
{
    if (session.fd < 0)
        return failure(MONITOR_ERROR::NotConnected, "not connected");
    MONITOR_RESULT result = receive_answer(session, wanted, packet);
    if (!monitor_ok(result))
        monitor_close(session);
    return result;
}

MONITOR_RESULT monitor_receive(MONITOR_SESSION &session, std::uint8_t data_id, std::uint32_t length,
                               MONITOR_PACKET &packet)
{
    return receive(session, {data_id, data_id, length}, packet);
}

MONITOR_RESULT monitor_receive_either(MONITOR_SESSION &session, std::uint8_t data_id, std::uint8_t other_id,
                                      MONITOR_PACKET &packet)
{
    return receive(session, {data_id, other_id, 0}, packet);
}

static MONITOR_RESULT listen_for_messages(MONITOR_SESSION &session, TIME_POINT until)
{
    MONITOR_PACKET packet;
    for (;;) {
        const STREAM_STATE state = monitor_stream_next(session.stream, packet);
        if (state == STREAM_STATE::Bad)
            return foreign_answer();
        if (state != STREAM_STATE::NeedMore && packet.head.DataId != DATAID_MESSAGE)
            return bad_answer(packet.head);
        if (state == STREAM_STATE::Packet) {
            keep_message(session, packet);
            if (passed(until))
                return {};
            continue;
        }
        MONITOR_RESULT result = read_some(session, until);
        if (result.error == MONITOR_ERROR::AnswerTimeout)
            return {};
        if (!monitor_ok(result))
            return result;
    }
}

MONITOR_RESULT monitor_listen(MONITOR_SESSION &session, TIME_POINT until)
{
    if (session.fd < 0)
        return failure(MONITOR_ERROR::NotConnected, "not connected");
    MONITOR_RESULT result = listen_for_messages(session, until);
    if (result.error == MONITOR_ERROR::Closed)
        result.text = "the agent closed the connection";
    if (!monitor_ok(result))
        monitor_close(session);
    return result;
}

// ---- Requests ----

MONITOR_RESULT monitor_request(MONITOR_SESSION &session, std::uint8_t data_id,
                               std::span<const std::uint8_t> data, std::uint8_t answer_id,
                               std::uint32_t answer_length, MONITOR_PACKET &packet)
{
    MONITOR_RESULT result = monitor_send(session, data_id, data);
    if (!monitor_ok(result))
        return result;
    return monitor_receive(session, answer_id, answer_length, packet);
}

VTOSINFO monitor_own_osinfo(std::int32_t lang)
{
    VTOSINFO info{};
    info.lang = lang;
    info.os = 2;
    constexpr std::string_view name = "Linux";
    std::copy(name.begin(), name.end(), info.osname.begin());
    return info;
}

MONITOR_RESULT monitor_hello(MONITOR_SESSION &session, const VTOSINFO &hello, VTOSINFO &answer)
{
    MONITOR_PACKET packet;
    MONITOR_RESULT result = monitor_request(session, DATAID_OSINFO, monitor_encode_osinfo(hello),
                                            DATAID_OSINFO, PACKET_HEAD_SIZE + OSINFO_WIRE_SIZE, packet);
    if (monitor_ok(result) && !monitor_decode_osinfo(packet.data, answer))
        return bad_answer(packet.head);
    return result;
}

MONITOR_RESULT monitor_status(MONITOR_SESSION &session, UPS_UPSINFO &status)
{
    MONITOR_PACKET packet;
    MONITOR_RESULT result = monitor_request(session, DATAID_GETUPSINFO, {}, DATAID_ANSUPSINFO,
                                            PACKET_HEAD_SIZE + UPSINFO_WIRE_SIZE, packet);
    if (monitor_ok(result) && !monitor_decode_upsinfo(packet.data, status))
        return bad_answer(packet.head);
    return result;
}

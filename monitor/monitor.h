// The client side of the monitor protocol: reach an agent, ask, take the answer apart. The other end of
// the wire from the daemon, and on purpose nothing of the daemon's code: only the records in include/ are
// shared. Every function reports by its result; none throws on purpose, none ends the process.
//
// A session belongs to one thread at a time. Requests beyond the hello and the status are in
// monitor_records.h.
#pragma once

#include "ups_records.h"
#include "wire_records.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

enum class MONITOR_ERROR {
    None,
    NameNotFound,    // the host name has no IPv4 address
    Unreachable,     // refused, no route, or no socket to try with
    ConnectTimeout,  // nobody took the connection within the time limit
    Closed,          // the agent closed the connection, or it broke
    AnswerTimeout,   // connected, but no whole answer within the time limit
    BadAnswer,       // an answer of the wrong kind, version or length
    Cancelled,       // the caller's cancel descriptor became readable
    NotConnected,    // asked on a session that is not open
};

// What became of a call; `text` is for people and empty on success.
struct MONITOR_RESULT {
    MONITOR_ERROR error = MONITOR_ERROR::None;
    std::string text{};
};

/// True when the call succeeded.
[[nodiscard]] inline bool monitor_ok(const MONITOR_RESULT &result)
{
    return result.error == MONITOR_ERROR::None;
}

/// True when the failure means that no agent was reached at all.
[[nodiscard]] bool monitor_unreached(const MONITOR_RESULT &result);

// ---- Records on the wire: little-endian, field by field, without padding ----

inline constexpr std::size_t OSINFO_WIRE_SIZE = 28;
inline constexpr std::size_t UPSINFO_WIRE_SIZE = 220;

// The largest packet accepted: the longest event log an agent can send, with room to spare; bytes.
inline constexpr std::uint32_t MONITOR_PACKET_MAX = 2U << 20;

using HEAD_BYTES = std::array<std::uint8_t, PACKET_HEAD_SIZE>;
using OSINFO_BYTES = std::array<std::uint8_t, OSINFO_WIRE_SIZE>;
using UPSINFO_BYTES = std::array<std::uint8_t, UPSINFO_WIRE_SIZE>;

[[nodiscard]] HEAD_BYTES monitor_encode_head(const UPS_PACKET_HEAD &head);
[[nodiscard]] OSINFO_BYTES monitor_encode_osinfo(const VTOSINFO &info);
[[nodiscard]] UPSINFO_BYTES monitor_encode_upsinfo(const UPS_UPSINFO &info);

/// The decoders take exactly the record's size on the wire and return false for any other number of bytes,
/// leaving the record as it was. Field values are not judged; text fields may lack their NUL.
[[nodiscard]] bool monitor_decode_head(std::span<const std::uint8_t> bytes, UPS_PACKET_HEAD &head);
[[nodiscard]] bool monitor_decode_osinfo(std::span<const std::uint8_t> bytes, VTOSINFO &info);
[[nodiscard]] bool monitor_decode_upsinfo(std::span<const std::uint8_t> bytes, UPS_UPSINFO &info);

// ---- Framing ----

// One whole packet: its header and the `Length` - 8 bytes behind it.
struct MONITOR_PACKET {
    UPS_PACKET_HEAD head{};
    std::vector<std::uint8_t> data{};
};

// Bytes that have arrived and are not yet a whole packet.
struct MONITOR_STREAM {
    std::vector<std::uint8_t> bytes{};
};

enum class STREAM_STATE {
    NeedMore,  // not even a header yet
    Header,    // a sound header, its data still under way
    Packet,    // a whole packet was taken off
    Bad,       // this is not our protocol: wrong version or impossible length; the stream cannot go on
};

/// Appends bytes as they come, in pieces of any size.
void monitor_stream_feed(MONITOR_STREAM &stream, std::span<const std::uint8_t> bytes);

/// Takes the first packet off the stream when it is whole. `packet.head` is also valid in state Header and,
/// for the error text, in state Bad.
[[nodiscard]] STREAM_STATE monitor_stream_next(MONITOR_STREAM &stream, MONITOR_PACKET &packet);

// ---- Sessions ----

struct MONITOR_OPTIONS {
    std::string host = "127.0.0.1";
    std::uint16_t port = PORT_TCP;
    std::chrono::milliseconds timeout{5000};  // for the connection, and again for each answer
    int cancel_fd = -1;                       // waiting ends when this becomes readable; -1: none
    std::int32_t lang = 2;                    // for the hello: 1 Japanese, 2 English notices
};

// The number of agent messages kept until someone takes them, and the bytes kept of each.
inline constexpr std::size_t MONITOR_MESSAGES_MAX = 16;
inline constexpr std::size_t MONITOR_MESSAGE_BYTES = 1024;

struct MONITOR_SESSION {
    int fd = -1;  // -1: not connected
    std::chrono::milliseconds timeout{5000};
    int cancel_fd = -1;
    MONITOR_STREAM stream{};
    std::deque<std::string> messages{};  // what the agent announced, raw bytes, oldest first
};

/// Connects over IPv4, trying each address of the name within one time limit. On success the session is open
/// and empty; on failure it is closed. Looking a name up is the resolver's and knows no time limit of ours.
[[nodiscard]] MONITOR_RESULT monitor_connect(const MONITOR_OPTIONS &options, MONITOR_SESSION &session);

/// Closes the session if it is open. Messages already received stay.
void monitor_close(MONITOR_SESSION &session);

/// Sends one packet, whole, within the session's time limit. Closes the session when that fails.
[[nodiscard]] MONITOR_RESULT monitor_send(MONITOR_SESSION &session, std::uint8_t data_id,
                                          std::span<const std::uint8_t> data);

/// Waits for the answer `data_id`; `length` is the total length it must have, 0 for any. Announcements
/// (DataId 79) that come in between go to `session.messages` and do not extend the time limit. Anything else
/// is a bad answer. Closes the session on every failure: a late answer must not be taken for the next one.
[[nodiscard]] MONITOR_RESULT monitor_receive(MONITOR_SESSION &session, std::uint8_t data_id,
                                             std::uint32_t length, MONITOR_PACKET &packet);

/// The same for an answer of any length that comes under one of two numbers.
[[nodiscard]] MONITOR_RESULT monitor_receive_either(MONITOR_SESSION &session, std::uint8_t data_id,
                                                    std::uint8_t other_id, MONITOR_PACKET &packet);

/// monitor_send and monitor_receive in one.
[[nodiscard]] MONITOR_RESULT monitor_request(MONITOR_SESSION &session, std::uint8_t data_id,
                                             std::span<const std::uint8_t> data, std::uint8_t answer_id,
                                             std::uint32_t answer_length, MONITOR_PACKET &packet);

/// Introduces this monitor (DataId 17); the agent answers with the same record and its own `os`. After it
/// the agent sends announcements in the language `hello.lang`.
[[nodiscard]] MONITOR_RESULT monitor_hello(MONITOR_SESSION &session, const VTOSINFO &hello, VTOSINFO &answer);

/// What this program says of itself: a Linux monitor that wants notices in the language `lang`, 1 Japanese or
/// 2 English.
[[nodiscard]] VTOSINFO monitor_own_osinfo(std::int32_t lang = 2);

/// Asks for the UPS status (DataId 16, answered by 64). `ComId` is as it travels: 1 to 4 for the serial
/// ports, negative for none.
[[nodiscard]] MONITOR_RESULT monitor_status(MONITOR_SESSION &session, UPS_UPSINFO &status);

/// Collects announcements until `until`; ends earlier, with that failure, when the connection is lost, when
/// a packet comes that nobody asked for, or when cancelled.
[[nodiscard]] MONITOR_RESULT monitor_listen(MONITOR_SESSION &session,
                                            std::chrono::steady_clock::time_point until);

// Everything of the protocol beyond the hello and the status (monitor.h): the other records as bytes and
// back, and one call for each request that an open session can make. Called by the commands of `voltaria` and
// by tests.
//
// Texts in the records are bytes as they travel; monitor_charset.h turns them into UTF-8 and back.
#pragma once

#include "event_records.h"
#include "monitor.h"
#include "schedule_records.h"
#include "ups_records.h"
#include "wire_records.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// ---- Codecs ----

using WIRE_BYTES = std::vector<std::uint8_t>;

/// The record as it travels: little-endian, sizeof(record) bytes.
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_PARAM &param);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_EVENTINFO &event);
[[nodiscard]] WIRE_BYTES monitor_encode(const USERSDATA &user);
[[nodiscard]] WIRE_BYTES monitor_encode(const SCHEDULEINFO &entry);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_EVENTLOGINFO &line);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_DATALOGINFO &line);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_COMMAND_PACKET &command);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_PASSWORD &password);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_AGENTDOWNINFO &order);
[[nodiscard]] WIRE_BYTES monitor_encode(const BATTCHGTIME &date);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_INQAGENT &inquiry);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_ANSAGENT &agent);
[[nodiscard]] WIRE_BYTES monitor_encode(const UPS_ANSPROT &protector);
/// A number by itself, as self-test kind, sensitivity level and right travel.
[[nodiscard]] WIRE_BYTES monitor_encode(std::uint32_t word);

/// The decoders take exactly sizeof(record) bytes and return false for any other number of bytes, leaving the
/// record as it was. Field values are not judged; text fields may lack their NUL.
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_PARAM &param);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_EVENTINFO &event);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, USERSDATA &user);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, SCHEDULEINFO &entry);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_EVENTLOGINFO &line);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_DATALOGINFO &line);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_COMMAND_PACKET &command);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_PASSWORD &password);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_AGENTDOWNINFO &order);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, BATTCHGTIME &date);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_INQAGENT &inquiry);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_ANSAGENT &agent);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_ANSPROT &protector);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, std::uint32_t &word);

/// Zero or more records, one behind the other; false when the bytes are no whole number of records.
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<UPS_EVENTLOGINFO> &lines);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<UPS_DATALOGINFO> &lines);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<SCHEDULEINFO> &entries);

// The events that an agent tells and takes settings for, and a table of them with the users to notify.
inline constexpr std::size_t WIRE_EVENT_COUNT = 47;
using EVENT_TABLE = std::array<UPS_EVENTINFO, WIRE_EVENT_COUNT>;

/// The whole event settings: the 47 events, then the users.
[[nodiscard]] WIRE_BYTES monitor_encode(const EVENT_TABLE &events, std::span<const USERSDATA> users);
[[nodiscard]] bool monitor_decode(std::span<const std::uint8_t> bytes, EVENT_TABLE &events,
                                  std::vector<USERSDATA> &users);

// ---- Requests ----
//
// On an open session, after its hello. A failed one closes the session. An answer without data is no failure:
// the agent has nothing to tell (no such lines, no log yet, or it is a protector, which has no UPS of its
// own); where that can be, `empty` or an empty list says so.

// The most lines of a log that one request can ask for, and the first that it can begin with.
inline constexpr std::int16_t LOG_COUNT_MAX = 32767;

/// Lines of the event log, oldest first, beginning with line `first` (the oldest is 0). A protector sends its
/// whole log whatever was asked for; `whole` says that it did.
[[nodiscard]] MONITOR_RESULT monitor_eventlog(MONITOR_SESSION &session, std::int16_t first,
                                              std::int16_t count, std::vector<UPS_EVENTLOGINFO> &lines,
                                              bool &whole);

/// The newest `count` lines of the data log, oldest first. Agents tell nothing for any `first` but 0.
[[nodiscard]] MONITOR_RESULT monitor_datalog(MONITOR_SESSION &session, std::int16_t first, std::int16_t count,
                                             std::vector<UPS_DATALOGINFO> &lines);

/// The hello of this program (os 2) makes months travel as the agent keeps them: 0 to 11 in special dates.
[[nodiscard]] MONITOR_RESULT monitor_schedules(MONITOR_SESSION &session, std::vector<SCHEDULEINFO> &entries);
[[nodiscard]] MONITOR_RESULT monitor_events(MONITOR_SESSION &session, EVENT_TABLE &events,
                                            std::vector<USERSDATA> &users, bool &empty);
[[nodiscard]] MONITOR_RESULT monitor_config(MONITOR_SESSION &session, UPS_PARAM &param, bool &empty);

/// Settings are not answered; success means that the packet has gone out. To know, read them back.
[[nodiscard]] MONITOR_RESULT monitor_set_schedules(MONITOR_SESSION &session,
                                                   std::span<const SCHEDULEINFO> entries);
[[nodiscard]] MONITOR_RESULT monitor_set_events(MONITOR_SESSION &session, const EVENT_TABLE &events,
                                                std::span<const USERSDATA> users);
[[nodiscard]] MONITOR_RESULT monitor_set_config(MONITOR_SESSION &session, const UPS_PARAM &param);

/// An order that is not answered (18 to 22, 25, 26, 28, 29, 31 to 35). `data` as monitor_encode gives it.
[[nodiscard]] MONITOR_RESULT monitor_order(MONITOR_SESSION &session, std::uint8_t data_id,
                                           std::span<const std::uint8_t> data = {});

/// When the battery was changed (DataId 30). Some models are not asked: then the agent stays silent, and the
/// result is AnswerTimeout.
[[nodiscard]] MONITOR_RESULT monitor_battery_date(MONITOR_SESSION &session, BATTCHGTIME &date);

// The right that a login gives.
inline constexpr std::uint32_t RIGHT_ADMINISTRATOR = 1;  // owns the agent's settings file
inline constexpr std::uint32_t RIGHT_USER = 2;
inline constexpr std::uint32_t RIGHT_REFUSED = 4;

/// Proves a user's identity (DataId 23); `right` is as the agent says. Name and password go out as the bytes
/// they are, the password readable by whoever listens; too long ones (40 and 20 bytes are the fields) are
/// BadAnswer without a packet.
[[nodiscard]] MONITOR_RESULT monitor_login(MONITOR_SESSION &session, const std::string &user,
                                           const std::string &password, std::uint32_t &right);

/// Waits until the agent has handled everything this session sent before: asks for the empty answer
/// (sub-request 6).
[[nodiscard]] MONITOR_RESULT monitor_settle(MONITOR_SESSION &session);

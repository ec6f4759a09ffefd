// How an input of fuzz_session becomes packets: every choice is a few bytes of the input, so that a mutated
// input is another session that is nearly right. Packets of every DataId are put together with true sizes,
// and then fields, texts, counts and Length are bent as the input says.
#pragma once

#include "event_records.h"
#include "schedule_records.h"
#include "ups_records.h"
#include "wire_records.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

typedef std::vector<std::uint8_t> SESSIONBYTES;

// What is left of the input. Behind its end everything is 0.
typedef struct _SESSIONINPUT {
    const std::uint8_t *at;
    const std::uint8_t *end;
} SESSIONINPUT;

static std::uint8_t take8(SESSIONINPUT &in)
{
    return in.at < in.end ? *in.at++ : std::uint8_t{0};
}

static std::uint16_t take16(SESSIONINPUT &in)
{
    const std::uint8_t low = take8(in);
    return static_cast<std::uint16_t>(low | take8(in) << 8);
}

static std::uint32_t take32(SESSIONINPUT &in)
{
    const std::uint32_t low = take16(in);
    return low | static_cast<std::uint32_t>(take16(in)) << 16;
}

static std::size_t choose(SESSIONINPUT &in, std::size_t count)
{
    return take8(in) % count;
}

// ---- fields

static void put_number(SESSIONBYTES &data, std::size_t at, std::size_t width, std::uint32_t value)
{
    for (std::size_t i = 0; i < width && at + i < data.size(); ++i)
        data[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// Numbers at which something begins or ends.
static constexpr std::array<std::uint32_t, 24> NUMBERS = {
    0,   1,   2,   3,   4,     5,     6,     7,     10,         32,         33,         47,
    200, 255, 256, 600, 32767, 32768, 65535, 65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};

static void take_number(SESSIONINPUT &in, SESSIONBYTES &data, std::size_t at, std::size_t width)
{
    const std::size_t choice = take8(in);
    put_number(data, at, width, choice < 200 ? NUMBERS[choice % NUMBERS.size()] : take32(in));
}

// Names of hosts, users, groups and models, Japanese in both encodings, and what a file, a format, a mail
// program or a terminal would take for its own.
static constexpr std::array<std::string_view, 26> TEXTS = {
    "",
    "Office",
    "OFFICE",
    "Group A",
    "voltaria-test",
    "monitor-1",
    "root",
    "operator",
    "secret",
    "operator@example.org",
    "\x83\x65\x83\x58\x83\x67",
    "\xa5\xc6\xa5\xb9\xa5\xc8",
    "\xb1\xb2\xb3",
    "\x8e\xb1\x8e\xb2",
    "\x8f\xb0\xa1",
    "name\x83",
    "a = b",
    " = ",
    "[ UPS ]",
    "line\nAgentType = 1\n",
    "%s%n%d",
    "-x",
    "|sh",
    "~r /etc/shadow",
    "tail ",
    "\x1b[2J\xff",
};

// With zeros behind it, or up to the last byte of the field and without a NUL.
static void take_text(SESSIONINPUT &in, SESSIONBYTES &data, std::size_t at, std::size_t width)
{
    const std::size_t choice = take8(in);
    const std::size_t room = at < data.size() ? std::min(width, data.size() - at) : 0;
    const auto field = data.begin() + static_cast<std::ptrdiff_t>(std::min(at, data.size()));
    if (choice < 128) {
        const std::string_view text = TEXTS[choice % TEXTS.size()].substr(0, room);
        std::fill_n(field, room, std::uint8_t{0});
        std::copy(text.begin(), text.end(), field);
    } else if (choice < 192) {
        const std::string_view text = TEXTS[1 + choice % (TEXTS.size() - 1)];
        for (std::size_t i = 0; i < room; ++i)
            field[static_cast<std::ptrdiff_t>(i)] = static_cast<std::uint8_t>(text[i % text.size()]);
    } else if (choice < 224) {
        std::fill_n(field, room, take8(in));
    } else {
        for (std::size_t i = 0; i < std::min<std::size_t>(room, choice - 223); ++i)
            field[static_cast<std::ptrdiff_t>(i)] = take8(in);
    }
}

// ---- records

// What the settings in force look like, from which settings packets start.
typedef struct _SESSIONSETTINGS {
    const UPS_PARAM *param;
    const UPS_EVENTINFO *events;
    const USERSDATA *users;
} SESSIONSETTINGS;

static void fill_nothing(SESSIONINPUT &, SESSIONBYTES &, const SESSIONSETTINGS &)
{
}

static void fill_number(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, 0, 4);
}

static void fill_name(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_text(in, data, 0, 16);
}

static void fill_osinfo(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(VTOSINFO, lang), 4);
    take_number(in, data, offsetof(VTOSINFO, os), 4);
    take_number(in, data, offsetof(VTOSINFO, reserved), 4);
    take_text(in, data, offsetof(VTOSINFO, osname), 16);
}

static void fill_down(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(UPS_AGENTDOWNINFO, DownId), 1);
    take_number(in, data, offsetof(UPS_AGENTDOWNINFO, delay), 2);
    take_number(in, data, offsetof(UPS_AGENTDOWNINFO, AgentType), 4);
    take_text(in, data, offsetof(UPS_AGENTDOWNINFO, Agent), 16);
    take_text(in, data, offsetof(UPS_AGENTDOWNINFO, Group), 16);
}

static void fill_password(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_text(in, data, offsetof(UPS_PASSWORD, username), 40);
    take_text(in, data, offsetof(UPS_PASSWORD, password), 20);
}

static void fill_command(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    put_number(data, offsetof(UPS_COMMAND_PACKET, cmd), 1, static_cast<std::uint32_t>(choose(in, 8)));
    take_number(in, data, offsetof(UPS_COMMAND_PACKET, firstline), 2);
    take_number(in, data, offsetof(UPS_COMMAND_PACKET, linecounts), 2);
}

static void take_date(SESSIONINPUT &in, SESSIONBYTES &data, std::size_t at)
{
    const std::uint8_t choice = take8(in);
    put_number(data, at, 1, 104);
    for (std::size_t i = 0; i < sizeof(UPS_TIMEINFO); ++i)
        if ((choice >> i & 1) != 0)
            put_number(data, at + i, 1, take8(in));
}

static void fill_battime(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(BATTCHGTIME, uBattStatus), 4);
    take_date(in, data, offsetof(BATTCHGTIME, BattTime));
}

static void fill_protectorinfo(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(UPS_PROTECTORINFO, TimeNeeded), 1);
    take_text(in, data, offsetof(UPS_PROTECTORINFO, Protector), 42);
}

static void fill_protectorcfg(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(PROTECTORCFG, TimeDelay), 4);
    take_text(in, data, offsetof(PROTECTORCFG, lpszAgentName), 16);
}

static void fill_inquiry(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    take_number(in, data, offsetof(UPS_INQAGENT, cmd), 4);
    take_text(in, data, offsetof(UPS_INQAGENT, Monitor), 16);
}

// Any number of entries, at times far too many.
static void fill_schedules(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    const std::size_t choice = take8(in);
    const std::size_t count = choice < 250 ? choice % 12 : 300 + choice;
    data.assign(count * sizeof(SCHEDULEINFO), std::uint8_t{0});
    for (std::size_t i = 0; i < std::min<std::size_t>(count, 12); ++i) {
        const std::size_t at = i * sizeof(SCHEDULEINFO);
        put_number(data, at + offsetof(SCHEDULEINFO, ID), 1, static_cast<std::uint32_t>(choose(in, 5)));
        put_number(data, at + offsetof(SCHEDULEINFO, ActionID), 1, static_cast<std::uint32_t>(choose(in, 3)));
        put_number(data, at + offsetof(SCHEDULEINFO, ScheduleOn), 2,
                   static_cast<std::uint32_t>(choose(in, 3)));
        take_date(in, data, at + offsetof(SCHEDULEINFO, stimeInfo));
        take_date(in, data, at + offsetof(SCHEDULEINFO, etimeInfo));
    }
}

static void fill_background(SESSIONINPUT &in, SESSIONBYTES &data)
{
    static constexpr std::array<std::uint8_t, 4> PATTERNS = {0x00, 0xFF, 'A', 0x83};
    std::fill(data.begin(), data.end(), PATTERNS[choose(in, PATTERNS.size())]);
}

static constexpr std::size_t EVENTS_SENT = 47;
static constexpr std::size_t EVENTS_BYTES = EVENTS_SENT * sizeof(UPS_EVENTINFO);

static void bend_event(SESSIONINPUT &in, SESSIONBYTES &data)
{
    const std::size_t at = choose(in, EVENTS_SENT) * sizeof(UPS_EVENTINFO);
    const std::size_t member = choose(in, 7);
    if (member == 6)
        take_text(in, data, at + offsetof(UPS_EVENTINFO, Command), sizeof(UPS_EVENTINFO::Command));
    else
        take_number(in, data, at + member * 4, 4);
}

static void bend_user(SESSIONINPUT &in, SESSIONBYTES &data)
{
    const std::size_t at = EVENTS_BYTES + choose(in, 40) * sizeof(USERSDATA);
    if (at + sizeof(USERSDATA) > data.size())
        return;
    switch (choose(in, 4)) {
    case 0:
        return take_number(in, data, at, 1);
    case 1:
        return take_text(in, data, at + offsetof(USERSDATA, UserName), sizeof(USERSDATA::UserName));
    case 2:
        return take_text(in, data, at + offsetof(USERSDATA, Address), sizeof(USERSDATA::Address));
    default:
        return take_text(in, data, at + offsetof(USERSDATA, Email), sizeof(USERSDATA::Email));
    }
}

// The settings in force or a pattern, with fields bent; users around the size of the table and beyond.
static void fill_events(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &settings)
{
    static constexpr std::array<std::size_t, 12> USERS = {0, 1, 2, 3, 31, 32, 33, 34, 40, 64, 200, 5};
    const std::size_t users = USERS[choose(in, USERS.size())];
    data.resize(EVENTS_BYTES + users * sizeof(USERSDATA));
    if (choose(in, 2) == 0) {
        fill_background(in, data);
    } else {
        std::memcpy(data.data(), settings.events, EVENTS_BYTES);
        if (users > 0)
            std::memcpy(data.data() + EVENTS_BYTES, settings.users,
                        std::min(users, USER_COUNT) * sizeof(USERSDATA));
    }
    for (std::size_t i = choose(in, 4); i > 0; --i)
        bend_event(in, data);
    for (std::size_t i = choose(in, 4); i > 0; --i)
        bend_user(in, data);
}

static void bend_config(SESSIONINPUT &in, SESSIONBYTES &data)
{
    static constexpr std::array<std::size_t, 4> FIELDS = {
        offsetof(UPS_PARAM, commparam.Agent), offsetof(UPS_PARAM, commparam.lpszAccount),
        offsetof(UPS_PARAM, commparam.lpszDomain), offsetof(UPS_PARAM, commparam.Group)};
    const std::size_t member = choose(in, 23);
    if (member < 19)
        return take_number(in, data, member * 4, 4);
    const std::size_t at = FIELDS[member - 19];
    take_text(in, data, at, at == FIELDS[3] ? sizeof(UPS_COMMPARAM::Group) : sizeof(UPS_COMMPARAM::Agent));
}

// A record of the right size or of any other.
static void fill_config(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &settings)
{
    data.assign(sizeof(UPS_PARAM), std::uint8_t{0});
    if (choose(in, 4) == 0)
        fill_background(in, data);
    else
        std::memcpy(data.data(), settings.param, sizeof(UPS_PARAM));
    for (std::size_t i = choose(in, 6); i > 0; --i)
        bend_config(in, data);
    if (choose(in, 4) == 0)
        data.resize(take16(in) % 1100);
}

static void fill_bytes(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &)
{
    data.resize(take8(in));
    for (std::uint8_t &byte : data)
        byte = take8(in);
}

// ---- packets

typedef struct _SESSIONKIND {
    int dataid;  // -1: any
    std::size_t size;
    void (*fill)(SESSIONINPUT &in, SESSIONBYTES &data, const SESSIONSETTINGS &settings);
} SESSIONKIND;

static constexpr std::array<SESSIONKIND, 36> KINDS = {{
    {DATAID_GETUPSINFO, 0, fill_nothing},
    {DATAID_OSINFO, sizeof(VTOSINFO), fill_osinfo},
    {DATAID_SHUTDOWN, sizeof(UPS_AGENTDOWNINFO), fill_down},
    {DATAID_CANCELSHUTDOWN, 16, fill_name},
    {DATAID_SELFTEST, 4, fill_number},
    {DATAID_SELFTEST_LONG, 0, fill_nothing},
    {DATAID_SELFTEST_CANCEL, 0, fill_nothing},
    {DATAID_PASSWORD, sizeof(UPS_PASSWORD), fill_password},
    {DATAID_COMMAND, sizeof(UPS_COMMAND_PACKET), fill_command},
    {DATAID_CLEAR_DATALOG, 0, fill_nothing},
    {DATAID_CLEAR_EVENTLOG, 0, fill_nothing},
    {27, 4, fill_number},
    {DATAID_BUZZER_ON, 0, fill_nothing},
    {DATAID_BUZZER_OFF, 0, fill_nothing},
    {DATAID_GETBATTIME, 0, fill_nothing},
    {DATAID_SETBATTIME, sizeof(BATTCHGTIME), fill_battime},
    {DATAID_AUTOTEST_ON, 0, fill_nothing},
    {DATAID_AUTOTEST_OFF, 0, fill_nothing},
    {DATAID_DETECTIONLVL, 4, fill_number},
    {DATAID_BUZZER_TEST, 0, fill_nothing},
    {DATAID_ANSUPSINFO, 220, fill_nothing},
    {DATAID_ANSPASSWORD, 4, fill_number},
    {DATAID_MESSAGE, 16, fill_name},
    {DATAID_SCHEDULES, 0, fill_schedules},
    {DATAID_EVENTS, 0, fill_events},
    {DATAID_CONFIG, 0, fill_config},
    {DATAID_PROT2AGENT, sizeof(UPS_PROTECTORINFO), fill_protectorinfo},
    {DATAID_PROTECTORCFG, sizeof(PROTECTORCFG), fill_protectorcfg},
    {DATAID_GETPROTECTOR, 0, fill_nothing},
    {DATAID_GETPRTEVENTLOG, sizeof(UPS_COMMAND_PACKET), fill_command},
    {DATAID_ANSAGENT, sizeof(UPS_ANSAGENT), fill_nothing},
    {DATAID_INQAGENT, sizeof(UPS_INQAGENT), fill_inquiry},
    {DATAID_COMMAND, sizeof(UPS_COMMAND_PACKET), fill_command},
    {DATAID_SCHEDULES, 0, fill_schedules},
    {DATAID_CONFIG, 0, fill_config},
    {-1, 0, fill_bytes},
}};

static constexpr std::array<std::uint16_t, 8> VERSIONS = {0x0110, 0x0110, 0x0115, 0x0100,
                                                          0x0105, 0x010F, 0xFFFF, 0x0200};
static constexpr std::array<std::uint8_t, 4> PROTOTYPES = {1, 1, 0, 2};

static std::uint32_t take_length(SESSIONINPUT &in, std::uint32_t length)
{
    const std::size_t choice = take8(in);
    if (choice < 216)
        return length;
    if (choice < 224)
        return length + 1;
    if (choice < 232)
        return length - 1;
    if (choice < 240)
        return take8(in);
    if (choice < 250)
        return take16(in);
    return take32(in);
}

// Header, data and what the input bends: single bytes, the data's size, Length.
static SESSIONBYTES take_packet(SESSIONINPUT &in, const SESSIONSETTINGS &settings)
{
    const SESSIONKIND &kind = KINDS[choose(in, KINDS.size())];
    const std::uint8_t head = take8(in);
    SESSIONBYTES data(kind.size);
    kind.fill(in, data, settings);
    const std::uint8_t bent = take8(in);
    for (std::size_t i = bent > 224 ? bent & 3U : 0; i > 0 && !data.empty(); --i) {
        const std::size_t at = take16(in) % data.size();
        data[at] = take8(in);
    }
    if (bent > 248)
        data.resize(take16(in) % (data.size() + 32));
    SESSIONBYTES packet(PACKET_HEAD_SIZE);
    put_number(packet, 0, 2, VERSIONS[head & 7]);
    packet[2] = PROTOTYPES[head >> 3 & 3];
    packet[3] = kind.dataid >= 0 ? static_cast<std::uint8_t>(kind.dataid) : take8(in);
    put_number(packet, 4, 4, take_length(in, static_cast<std::uint32_t>(PACKET_HEAD_SIZE + data.size())));
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

// What a monitor may hear: which answers a request is owed, of which lengths, and how every packet of the
// agent must look: its header, and nothing behind the end of a text.
#pragma once

#include "session_world.h"

#include <deque>

// An answer that a monitor is owed: its DataId and the lengths that it may have.
typedef struct _OWED {
    std::uint8_t dataid;
    std::uint32_t least;
    std::uint32_t step;  // 0: no longer one
    std::uint32_t most;
    bool certain;  // false: the engine may fail, then nothing comes
} OWED;

static UPS_PARAM &settings()
{
    return world_block.ups.up;
}

static bool is_protector()
{
    return settings().commparam.AgentType == AGENTTYPE_PROTECTOR;
}

// ---- what may be answered

static constexpr auto USERDATA = static_cast<std::uint32_t>(sizeof(USERSDATA));
static constexpr std::uint32_t EVENTS_LENGTH = PACKET_HEAD_SIZE + EVENTS_BYTES;
static constexpr std::uint32_t LINES_MOST = 65536;

static std::deque<OWED> owed_for_command(std::uint8_t cmd)
{
    constexpr std::uint32_t head = PACKET_HEAD_SIZE;
    switch (cmd) {
    case 1:
        return {{is_protector() ? DATAID_ANSPRTEVENTLOG : DATAID_ANSEVENTLOG, head, 28,
                 head + 28 * LINES_MOST, true}};
    case 2:
        return {{DATAID_ANSDATALOG, head, 24, head + 24 * LINES_MOST, true}};
    case 3:
        return {{DATAID_SCHEDULES, head, 20, head + 20 * LINES_MOST, true}};
    case 4:
        return {{DATAID_EVENTS, EVENTS_LENGTH, USERDATA, EVENTS_LENGTH + 32 * USERDATA, true}};
    case 5:
        return {{DATAID_CONFIG, head + sizeof(UPS_PARAM), 0, 0, true}};
    case 6:
        return {{DATAID_ANSNULL, head, 0, 0, true}};
    default:
        return {};
    }
}

// What the packet in hand, from a connection, is to be answered with.
static std::deque<OWED> owed_for_packet(const UPS_PACKET_HEAD &head, WIREVIEW data)
{
    switch (head.DataId) {
    case DATAID_GETUPSINFO:
        return {{DATAID_ANSUPSINFO, 228, 0, 0, true}};
    case DATAID_OSINFO:
        return head.Length == 36 ? std::deque<OWED>{{DATAID_OSINFO, 36, 0, 0, true}} : std::deque<OWED>{};
    case DATAID_PASSWORD:
        return head.Length == 68 ? std::deque<OWED>{{DATAID_ANSPASSWORD, 12, 0, 0, true}}
                                 : std::deque<OWED>{};
    case DATAID_COMMAND:
        return data.size() >= sizeof(UPS_COMMAND_PACKET) ? owed_for_command(data[0]) : std::deque<OWED>{};
    case DATAID_GETBATTIME:
        return {{DATAID_SETBATTIME, 20, 0, 0, false}};
    case DATAID_INQAGENT:
        return {{DATAID_ANSAGENT, 100, 0, 0, false}, {DATAID_ANSPROT, 48, 0, 0, false}};
    default:
        return {};
    }
}

static bool has_length(const OWED &owed, std::uint32_t length)
{
    if (length == owed.least || length == PACKET_HEAD_SIZE)
        return true;
    return owed.step != 0 && length > owed.least && length <= owed.most &&
           (length - owed.least) % owed.step == 0;
}

// ---- how it looks

// The texts of an answer: `count` of them, `stride` apart; 0 for as many as there are.
typedef struct _TEXTFIELD {
    std::uint8_t dataid;
    std::size_t at;
    std::size_t width;
    std::size_t stride;
    std::size_t count;
} TEXTFIELD;

static constexpr std::array<TEXTFIELD, 17> TEXTFIELDS = {{
    {DATAID_ANSUPSINFO, 36, 32, 0, 1},
    {DATAID_ANSUPSINFO, 116, 16, 0, 1},
    {DATAID_ANSUPSINFO, 144, 16, 28, 2},
    {DATAID_ANSEVENTLOG, 12, 16, 28, 0},
    {DATAID_ANSPRTEVENTLOG, 12, 16, 28, 0},
    {DATAID_EVENTS, 24, 260, 284, EVENTS_SENT},
    {DATAID_EVENTS, EVENTS_BYTES + 2, 21, 543, 0},
    {DATAID_EVENTS, EVENTS_BYTES + 23, 260, 543, 0},
    {DATAID_EVENTS, EVENTS_BYTES + 283, 260, 543, 0},
    {DATAID_CONFIG, 76, 260, 260, 3},
    {DATAID_CONFIG, 856, 16, 0, 1},
    {DATAID_PROTECTORCFG, 4, 16, 0, 1},
    {DATAID_ANSAGENT, 4, 16, 0, 1},
    {DATAID_ANSAGENT, 20, 32, 0, 1},
    {DATAID_ANSAGENT, 60, 16, 0, 1},
    {DATAID_ANSPROT, 8, 16, 16, 2},
    {DATAID_SHUTDOWN, 8, 16, 16, 2},
}};

static void check_text(WIREVIEW field)
{
    const auto end = std::find(field.begin(), field.end(), 0);
    WORLD_CHECK(end != field.end());
    WORLD_CHECK(std::all_of(end, field.end(), [](std::uint8_t byte) { return byte == 0; }));
}

static void check_texts(std::uint8_t dataid, WIREVIEW data)
{
    for (const TEXTFIELD &row : TEXTFIELDS) {
        if (row.dataid != dataid)
            continue;
        std::size_t at = row.at;
        for (std::size_t i = 0; (row.count == 0 || i < row.count) && at + row.width <= data.size(); ++i) {
            check_text(data.subspan(at, row.width));
            at += row.stride;
        }
    }
}

static void check_head(const UPS_PACKET_HEAD &head)
{
    WORLD_CHECK(head.Version == PACKET_VERSION);
    WORLD_CHECK(head.Prototype == static_cast<std::uint8_t>(world_block.ups.protocol));
    WORLD_CHECK(head.Length >= PACKET_HEAD_SIZE && head.Length < 4 * 1024 * 1024);
}

// What an agent, or whoever poses as one, may send to the monitor: the bytes go through the framing in pieces
// of the size that the first byte says, every record in them through its decoder, pages, tables and JSON; and
// whole as one datagram of discovery. Nothing that comes out may carry a control character, be wider than its
// terminal, or differ when it is encoded again; a user's name that can be sent back is one that the agent
// tells as before.
#include "fuzz_support.h"
#include "monitor/monitor.h"
#include "monitor/monitor_charset.h"
#include "monitor/monitor_discover.h"
#include "monitor/monitor_json.h"
#include "monitor/monitor_log.h"
#include "monitor/monitor_page.h"
#include "monitor/monitor_records.h"
#include "monitor/monitor_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static bool printable(const std::string &text)
{
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<std::uint8_t>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

static void draw_page(const WATCH_VIEW &view)
{
    for (const PAGE_SIZE size : {PAGE_SIZE{1, 1}, PAGE_SIZE{40, 24}, PAGE_SIZE{80, 24}}) {
        const std::vector<PAGE_LINE> page = page_watch(view, size);
        require(page.size() <= size.rows);
        for (const PAGE_LINE &line : page)
            require(text_columns(page_text(line)) <= size.columns && printable(page_text(line)));
    }
}

static void draw(const UPS_UPSINFO &status)
{
    for (const std::string &line : page_status(status, "host:4112"))
        require(printable(line));
    require(printable(page_one_line(status)));
    require(!status_json(status, "host", PORT_TCP).empty());
    WATCH_VIEW view;
    view.status = status;
    for (const int lost : {0, 1, 2}) {
        view.connected = lost == 0;
        view.reason = lost == 1 ? "the connection is lost" : "";
        view.has_status = lost < 2;
        view.message = lost == 0 ? text_safe(status.upsmodel, TEXT_CODE::Euc) : "";
        draw_page(view);
    }
}

static bool printable_lines(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return printable(text);
}

template <typename RECORD> static void decode_one(std::span<const std::uint8_t> data)
{
    RECORD record{};
    if (monitor_decode(data, record))
        require(std::ranges::equal(monitor_encode(record), data));
}

template <typename LINE> static void decode_log(std::span<const std::uint8_t> data)
{
    std::vector<LINE> lines;
    if (!monitor_decode(data, lines))
        return;
    require(lines.size() * sizeof(LINE) == data.size());
    require(printable_lines(log_table(lines)) && printable_lines(log_csv(lines)));
}

static void decode_schedules(std::span<const std::uint8_t> data)
{
    std::vector<SCHEDULEINFO> entries;
    require(monitor_decode(data, entries) == (data.size() % sizeof(SCHEDULEINFO) == 0));
    require(entries.size() ==
            (data.size() % sizeof(SCHEDULEINFO) == 0 ? data.size() / sizeof(SCHEDULEINFO) : 0));
}

static void decode_events(std::span<const std::uint8_t> data)
{
    EVENT_TABLE events{};
    std::vector<USERSDATA> users;
    if (!monitor_decode(data, events, users))
        return;
    require(std::ranges::equal(monitor_encode(events, users), data));
    for (USERSDATA &user : users)
        static_cast<void>(charset_keep_user(user.UserName));
}

static void decode_records(std::span<const std::uint8_t> data)
{
    decode_one<UPS_PARAM>(data);
    decode_one<USERSDATA>(data);
    decode_one<SCHEDULEINFO>(data);
    decode_one<UPS_AGENTDOWNINFO>(data);
    decode_one<BATTCHGTIME>(data);
    decode_one<UPS_PASSWORD>(data);
    decode_one<UPS_EVENTINFO>(data);
    decode_one<UPS_EVENTLOGINFO>(data);
    decode_one<UPS_DATALOGINFO>(data);
    decode_one<UPS_COMMAND_PACKET>(data);
    decode_one<UPS_INQAGENT>(data);
    decode_one<UPS_ANSAGENT>(data);
    decode_one<UPS_ANSPROT>(data);
    decode_one<std::uint32_t>(data);
    decode_schedules(data);
    decode_log<UPS_EVENTLOGINFO>(data);
    decode_log<UPS_DATALOGINFO>(data);
    decode_events(data);
}

static void hear(std::span<const std::uint8_t> datagram)
{
    const auto agent = discover_decode(datagram, "10.0.0.2");
    if (!agent)
        return;
    static std::vector<FOUND_AGENT> crowd(FOUND_AGENTS_MAX);
    std::vector<FOUND_AGENT> agents;
    require(discover_merge(agents, *agent) && !discover_merge(agents, *agent) && agents.size() == 1);
    FOUND_AGENT changed = *agent;
    changed.gone = !changed.gone;
    require(discover_merge(agents, changed) && agents.size() == 1 && agents[0] == changed);
    require(!discover_merge(crowd, *agent) && crowd.size() == FOUND_AGENTS_MAX);
    require(printable_lines(discover_table({*agent, changed})) && printable_lines(discover_line(*agent)));
    require(printable_lines(agents_json({*agent})) && printable(agent_json_line(*agent)));
}

static void take_apart(const MONITOR_PACKET &packet)
{
    decode_records(packet.data);
    require(packet.data.size() + PACKET_HEAD_SIZE == packet.head.Length);
    const std::string text(packet.data.begin(), packet.data.end());
    for (const TEXT_CODE code : {TEXT_CODE::ShiftJis, TEXT_CODE::Euc, TEXT_CODE::Utf8}) {
        const std::string safe = text_safe(text, code);
        require(printable(safe) && text_ascii(safe).size() == text_columns(safe));
    }
    UPS_PACKET_HEAD head{};
    UPS_UPSINFO nothing{};
    VTOSINFO nobody{};
    require(!monitor_decode_head(packet.data, head) || packet.data.size() == PACKET_HEAD_SIZE);
    require(!monitor_decode_upsinfo({}, nothing) && !monitor_decode_osinfo({}, nobody));
    require(monitor_decode_head(monitor_encode_head(packet.head), head) && head.Length == packet.head.Length);
    VTOSINFO info{};
    if (monitor_decode_osinfo(packet.data, info))
        require(std::ranges::equal(monitor_encode_osinfo(info), packet.data));
    UPS_UPSINFO status{};
    if (!monitor_decode_upsinfo(packet.data, status))
        return;
    require(std::ranges::equal(monitor_encode_upsinfo(status), packet.data));
    draw(status);
}

// False when the stream is no stream of packets.
static bool take_packets(MONITOR_STREAM &stream)
{
    MONITOR_PACKET packet;
    for (;;) {
        switch (monitor_stream_next(stream, packet)) {
        case STREAM_STATE::Packet:
            take_apart(packet);
            break;
        case STREAM_STATE::Bad:
            return false;
        case STREAM_STATE::NeedMore:
        case STREAM_STATE::Header:
            return true;
        }
    }
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t piece = std::max<std::size_t>(data[0], 1);
    std::span<const std::uint8_t> bytes(data + 1, size - 1);
    hear(bytes);
    MONITOR_STREAM stream;
    while (!bytes.empty()) {
        monitor_stream_feed(stream, bytes.first(std::min(piece, bytes.size())));
        if (!take_packets(stream))
            break;
        bytes = bytes.subspan(std::min(piece, bytes.size()));
    }
    return 0;
}

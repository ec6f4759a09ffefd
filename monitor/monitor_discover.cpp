// What agents say of themselves by UDP, read and written down.
#include "monitor_discover.h"

#include "monitor_records.h"
#include "monitor_text.h"
#include "monitor_words.h"

#include <algorithm>
#include <string_view>

// ---- Datagrams ----

static std::string upper_case(std::string text)
{
    for (char &c : text)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

// An announcement carries the name as the agent's host keeps it, everything else is prepared for the network.
static TEXT_CODE code_of(std::int32_t cmd)
{
    return cmd == static_cast<std::int32_t>(NSCommands::Add) ? TEXT_CODE::Euc : TEXT_CODE::ShiftJis;
}

static bool gone(std::int32_t cmd)
{
    return cmd == static_cast<std::int32_t>(NSCommands::Delete);
}

static std::optional<FOUND_AGENT> decode_agent(std::span<const std::uint8_t> data, const std::string &address)
{
    UPS_ANSAGENT answer{};
    if (!monitor_decode(data, answer))
        return std::nullopt;
    FOUND_AGENT agent;
    agent.address = address;
    agent.gone = gone(answer.cmd);
    agent.name = text_safe(answer.Agent, code_of(answer.cmd));
    agent.group = text_safe(answer.Group, code_of(answer.cmd));
    agent.model = upper_case(text_safe(answer.upsmodel, TEXT_CODE::Euc));
    agent.type = answer.AgentType;
    agent.ups = answer.UPSStatus;
    agent.battery = static_cast<std::int32_t>(answer.BattStatus);
    agent.link = static_cast<std::int32_t>(answer.CommStatus);
    agent.ignore = answer.bIgnore;
    return agent;
}

// The node's name is the machine's own; the agent's name goes out as the host keeps it.
static std::optional<FOUND_AGENT> decode_protector(std::span<const std::uint8_t> data,
                                                   const std::string &address)
{
    UPS_ANSPROT answer{};
    if (!monitor_decode(data, answer))
        return std::nullopt;
    FOUND_AGENT agent;
    agent.address = address;
    agent.protector = true;
    agent.gone = gone(answer.cmd);
    agent.name = text_safe(answer.myname, TEXT_CODE::Euc);
    agent.protected_by = text_safe(answer.Agent, TEXT_CODE::Euc);
    agent.type = AGENTTYPE_PROTECTOR;
    return agent;
}

std::optional<FOUND_AGENT> discover_decode(std::span<const std::uint8_t> datagram, const std::string &address)
{
    UPS_PACKET_HEAD head{};
    if (datagram.size() < PACKET_HEAD_SIZE || !monitor_decode_head(datagram.first(PACKET_HEAD_SIZE), head) ||
        head.Length < PACKET_HEAD_SIZE ||
        (head.Length != datagram.size() && head.Length + 1 != datagram.size()))
        return std::nullopt;
    const auto data = datagram.subspan(PACKET_HEAD_SIZE, head.Length - PACKET_HEAD_SIZE);
    if (head.DataId == DATAID_ANSAGENT)
        return decode_agent(data, address);
    return head.DataId == DATAID_ANSPROT ? decode_protector(data, address) : std::nullopt;
}

// ---- The list ----

bool discover_merge(std::vector<FOUND_AGENT> &agents, const FOUND_AGENT &news)
{
    const auto known = std::find_if(agents.begin(), agents.end(), [&news](const FOUND_AGENT &agent) {
        return agent.address == news.address;
    });
    if (known == agents.end()) {
        if (agents.size() >= FOUND_AGENTS_MAX)
            return false;
        agents.push_back(news);
        return true;
    }
    if (*known == news)
        return false;
    *known = news;
    return true;
}

// ---- In words ----

std::string discover_state(const FOUND_AGENT &agent)
{
    if (agent.gone)
        return "gone";
    if (agent.protector)
        return agent.protected_by.empty() ? "protected by no agent" : "protected by " + agent.protected_by;
    if (agent.link == COMM_LOST)
        return "link to the UPS lost";
    if (agent.link == COMM_NOUPS)
        return "no UPS configured";
    return words_or_code(words_upsstat(agent.ups), agent.ups) + "; battery " +
           words_or_code(words_battery(agent.battery), agent.battery);
}

struct COLUMN {
    std::string_view heading;
    std::size_t width;
};

static constexpr std::array<COLUMN, 5> COLUMNS{
    {{"ADDRESS", 15}, {"NAME", 15}, {"GROUP", 15}, {"TYPE", 23}, {"MODEL", 12}}};

// Short texts to their columns' width; a long one pushes the rest of its line aside.
static std::string row(const std::array<std::string, COLUMNS.size()> &texts, std::string_view last)
{
    std::string line;
    for (std::size_t i = 0; i < COLUMNS.size(); ++i)
        line += text_padded(texts[i], std::max(COLUMNS[i].width, text_columns(texts[i]))) + "  ";
    return line + std::string(last) + "\n";
}

static std::string or_dash(const std::string &text)
{
    return text.empty() ? "-" : text;
}

std::string discover_line(const FOUND_AGENT &agent)
{
    return row({agent.address, or_dash(agent.name), or_dash(agent.group),
                words_or_code(words_agenttype(agent.type), agent.type), or_dash(agent.model)},
               discover_state(agent));
}

std::string discover_table(const std::vector<FOUND_AGENT> &agents)
{
    std::array<std::string, COLUMNS.size()> headings;
    std::transform(COLUMNS.begin(), COLUMNS.end(), headings.begin(),
                   [](const COLUMN &column) { return std::string(column.heading); });
    std::string table = row(headings, "STATE");
    for (const FOUND_AGENT &agent : agents)
        table += discover_line(agent);
    return table;
}

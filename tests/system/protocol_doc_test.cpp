// docs/protocol.md and the agent agree: every exchange that the document shows is played here with the real
// daemon and a simulated unit, in virtual time, and must come out to the byte. A block of the document is
//
//     <!-- exchange GROUP/NAME -->
//     ```text
//     ...
//     ```
//
// With VOLTARIA_WRITE_DOC=1 the blocks are written instead of compared; the text around them is left alone.
#include "vt_stage.h"

#include "wire_records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <set>
#include <sstream>
#include <sys/socket.h>

using namespace bed;
using testbed::TcpClient;
using testbed::UdpSocket;

namespace
{

const std::string DOCUMENT = VOLTARIA_DOCS "/protocol.md";
const std::string MARK = "<!-- exchange ";
const std::string FENCE = "```text\n";

// ---- the document

bool writes_document()
{
    const char *value = std::getenv("VOLTARIA_WRITE_DOC");
    return value != nullptr && std::string(value) == "1";
}

struct BLOCK {
    std::size_t at = 0;
    std::size_t size = 0;
};

std::optional<BLOCK> find_block(const std::string &document, const std::string &name)
{
    const std::string mark = MARK + name + " -->\n" + FENCE;
    const std::size_t begin = document.find(mark);
    if (begin == std::string::npos)
        return std::nullopt;
    const std::size_t end = document.find("```\n", begin + mark.size());
    if (end == std::string::npos)
        return std::nullopt;
    return BLOCK{begin + mark.size(), end - begin - mark.size()};
}

void compare_block(const std::string &name, const std::string &played)
{
    std::string document = testbed::read_file(DOCUMENT);
    const std::optional<BLOCK> block = find_block(document, name);
    ASSERT_TRUE(block) << DOCUMENT << " has no block \"" << MARK << name << " -->\"";
    if (writes_document()) {
        testbed::write_file(DOCUMENT, document.replace(block->at, block->size, played));
        return;
    }
    EXPECT_EQ(document.substr(block->at, block->size), played)
        << "docs/protocol.md shows another exchange \"" << name
        << "\" than the agent has. To write them anew:\n"
        << "  cd BUILD && VOLTARIA_WRITE_DOC=1 bin/sandbox --share " VOLTARIA_DOCS
           " -- bin/system_protocol_doc";
}

// "GROUP/NAME" of every block.
std::set<std::string> names_in_document()
{
    const std::string document = testbed::read_file(DOCUMENT);
    std::set<std::string> names;
    for (std::size_t at = document.find(MARK); at != std::string::npos; at = document.find(MARK, at + 1)) {
        const std::size_t begin = at + MARK.size();
        names.insert(document.substr(begin, document.find(' ', begin) - begin));
    }
    return names;
}

// The DataIds of the document's list: "| 28, 29 | 1C, 1D | monitor | ...".
std::set<int> listed_dataids()
{
    const std::string document = testbed::read_file(DOCUMENT);
    const std::size_t begin = document.find("## DataIds\n");
    std::istringstream list(document.substr(begin, document.find("\n## ", begin) - begin));
    std::set<int> ids;
    for (std::string line; std::getline(list, line);) {
        std::istringstream numbers(line.starts_with("| ") ? line.substr(2, line.find(" |") - 2) : "");
        for (int id = 0; numbers >> id; numbers.ignore(1, ','))
            ids.insert(id);
    }
    return ids;
}

// The DataIds of the packets whose first bytes are shown.
std::set<int> shown_dataids()
{
    std::istringstream document(testbed::read_file(DOCUMENT));
    std::set<int> ids;
    for (std::string line; std::getline(document, line);) {
        unsigned id = 0;
        if (std::sscanf(line.c_str(), "0000 %*2x 01 01 %2x", &id) == 1)
            ids.insert(static_cast<int>(id));
    }
    return ids;
}

// ---- hex dumps

// Parts of a long packet, [from, to): what lies outside is left out of the dump.
using Parts = std::vector<std::pair<std::size_t, std::size_t>>;

constexpr std::size_t ROW = 16;

std::string dump_row(const std::string &bytes, std::size_t at)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04zx ", at);
    std::string row = text.data();
    std::string shown;
    for (std::size_t i = at; i < at + ROW; ++i) {
        if (i >= bytes.size()) {
            row += "   ";
            continue;
        }
        const auto byte = static_cast<unsigned char>(bytes[i]);
        std::snprintf(text.data(), text.size(), " %02x", byte);
        row += text.data();
        shown += byte >= 0x20 && byte < 0x7F ? bytes[i] : '.';
    }
    return row + "  " + shown + "\n";
}

// Rows that repeat the one before are one "*".
std::string dump_part(const std::string &bytes, std::size_t from, std::size_t to)
{
    std::string text;
    bool folded = false;
    for (std::size_t at = from; at < to; at += ROW) {
        const bool repeats = at > from && at + ROW <= bytes.size() &&
                             bytes.compare(at, ROW, bytes, at - ROW, ROW) == 0 && at + ROW < to;
        if (!repeats)
            text += dump_row(bytes, at);
        else if (!folded)
            text += "*\n";
        folded = repeats;
    }
    return text;
}

std::string dump(const std::string &bytes, const Parts &parts)
{
    if (parts.empty())
        return dump_part(bytes, 0, bytes.size());
    std::string text;
    std::size_t shown = 0;
    for (const auto &[from, to] : parts) {
        if (from >= bytes.size())
            break;
        if (from > shown)
            text += "....  " + std::to_string(from - shown) + " bytes left out\n";
        text += dump_part(bytes, from, std::min(to, bytes.size()));
        shown = std::min((to + ROW - 1) / ROW * ROW, bytes.size());
    }
    if (shown < bytes.size())
        text += "....  " + std::to_string(bytes.size() - shown) + " bytes left out\n";
    return text;
}

// ---- playing

std::string whole_packet(std::string &unread)
{
    if (unread.size() < 8 || unread.size() < word_at(unread, 4))
        return {};
    std::string packet = unread.substr(0, word_at(unread, 4));
    unread.erase(0, packet.size());
    return packet;
}

// One conversation after the other between a monitor and the agent, written down as it happens.
class Play
{
  public:
    Play(Stage &stage, std::string group) : stage_(stage), group_(std::move(group))
    {
        const int yes = 1;
        setsockopt(client_.fd(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    }

    /// What came before and was not asked for is not shown.
    void begin(const std::string &name)
    {
        (void)arrivals();
        name_ = name;
        text_.clear();
    }

    void say(const std::string &bytes, const Parts &parts = {}, const Parts &answer_parts = {})
    {
        heading("monitor > agent, TCP 4112", bytes);
        text_ += dump(bytes, parts);
        client_.send(bytes);
        hear(answer_parts);
    }

    void say_by_datagram(const std::string &who, const std::string &bytes)
    {
        heading(who + " > agent, UDP 4114", bytes);
        text_ += dump(bytes, {});
        asker_.send("127.0.0.1", testbed::AGENT_UDP_PORT, bytes);
        hear();
    }

    /// Lets time pass, and shows what came meanwhile.
    void later(const std::string &what, std::chrono::seconds time)
    {
        text_ += "(" + what + ")\n";
        stage_.run(time);
        text_ += arrivals();
    }

    void add(const std::string &text)
    {
        text_ += text;
    }

    void end()
    {
        played_.insert(group_ + "/" + name_);
        compare_block(group_ + "/" + name_, text_);
    }

    /// One request and what follows from it at once.
    void exchange(const std::string &name, const std::string &request, const Parts &parts = {},
                  const Parts &answer_parts = {})
    {
        begin(name);
        say(request, parts, answer_parts);
        end();
    }

    void expect_all_played() const
    {
        std::set<std::string> shown;
        for (const std::string &name : names_in_document())
            if (name.starts_with(group_ + "/"))
                shown.insert(name);
        EXPECT_EQ(shown, played_);
    }

    /// The last packet that came over the connection.
    [[nodiscard]] const std::string &last() const
    {
        return last_;
    }

    [[nodiscard]] std::string arrivals(const Parts &parts = {})
    {
        std::string before;
        std::swap(before, text_);
        take_packets(parts);
        take_datagrams(announcements_, "agent > broadcast, UDP 4113");
        take_datagrams(orders_, "agent > broadcast, UDP 4114");
        take_datagrams(asker_, "agent > monitor, UDP");
        std::swap(before, text_);
        return before;
    }

  private:
    Stage &stage_;
    std::string group_;
    TcpClient client_;
    UdpSocket announcements_{testbed::MONITOR_UDP_PORT};
    UdpSocket orders_{testbed::AGENT_UDP_PORT, "10.77.0.255"};
    UdpSocket asker_{0, "127.0.0.1"};
    std::string unread_;
    std::string last_;
    std::string name_;
    std::string text_;
    std::set<std::string> played_;

    void heading(const std::string &who, const std::string &bytes)
    {
        text_ += who + ", " + std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte\n" : " bytes\n");
    }

    // Packets that repeat the one before are counted.
    void show(const std::string &who, const std::vector<std::string> &packets, const Parts &parts)
    {
        for (std::size_t i = 0; i < packets.size();) {
            heading(who, packets[i]);
            text_ += dump(packets[i], parts);
            const std::size_t first = i;
            while (i < packets.size() && packets[i] == packets[first])
                ++i;
            if (i - first > 1)
                text_ += "(" + std::to_string(i - first) + " of these)\n";
        }
    }

    void hear(const Parts &parts = {})
    {
        stage_.clock.run_for(0s);
        const std::string heard = arrivals(parts);
        text_ += heard.empty() ? "(no answer)\n" : heard;
    }

    void take_packets(const Parts &parts)
    {
        std::array<char, 4096> part{};
        for (;;) {
            const ssize_t count = recv(client_.fd(), part.data(), part.size(), MSG_DONTWAIT);
            if (count <= 0)
                break;
            unread_.append(part.data(), static_cast<std::size_t>(count));
        }
        std::vector<std::string> packets;
        for (std::string packet = whole_packet(unread_); !packet.empty(); packet = whole_packet(unread_))
            packets.push_back(packet);
        if (!packets.empty())
            last_ = packets.back();
        show("agent > monitor, TCP 4112", packets, parts);
    }

    void take_datagrams(const UdpSocket &socket, const std::string &who)
    {
        std::vector<std::string> packets;
        for (auto datagram = socket.receive(0ms); datagram; datagram = socket.receive(0ms))
            packets.push_back(datagram->bytes);
        show(who, packets, {});
    }
};

// ---- packets

template <typename T> std::string bytes_of(const T &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};  // little-endian hosts only
}

std::string text_field(std::string_view text, std::size_t width)
{
    std::string field(text);
    field.resize(width, '\0');
    return field;
}

std::string number(std::uint32_t value)
{
    return bytes_of(value);
}

std::string query(std::uint8_t cmd, std::int16_t firstline = 0, std::int16_t linecounts = 0)
{
    return packet(DATAID_COMMAND, bytes_of(UPS_COMMAND_PACKET{cmd, 0, firstline, linecounts, 0}));
}

std::string hello(std::int32_t lang)
{
    VTOSINFO info{};
    info.lang = lang;
    info.os = 2;
    std::string name = "Linux";
    std::copy(name.begin(), name.end(), info.osname.begin());
    return packet(DATAID_OSINFO, bytes_of(info));
}

std::string login(std::string_view user, std::string_view password)
{
    return packet(DATAID_PASSWORD, text_field(user, 40) + text_field(password, 20));
}

std::string down_order(std::int16_t delay, std::uint32_t agenttype, std::string_view agent,
                       std::string_view group)
{
    return packet(DATAID_SHUTDOWN, std::string("\x16\0", 2) + bytes_of(delay) + number(agenttype) +
                                       text_field(agent, 16) + text_field(group, 16));
}

std::string inquiry()
{
    return packet(DATAID_INQAGENT, number(0) + text_field("desk", 16));
}

// The configuration as it was read, with another time on battery and another group.
std::string other_settings(std::string record, std::uint32_t battlife, std::string_view group)
{
    record.replace(offsetof(UPS_PARAM, workparam.BattLife), 4, number(battlife));
    return record.replace(offsetof(UPS_PARAM, commparam.Group), 16, text_field(group, 16));
}

constexpr UPS_TIMEINFO moment(int year, int month, int day, int hour, int minute)
{
    return {static_cast<std::uint8_t>(year),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            static_cast<std::int8_t>(minute),
            0,
            0};
}

// A weekly shutdown, Saturday 22:30 to Monday 6:00, and a monthly self-test on the 15th at 3:00.
std::string some_schedules()
{
    return bytes_of(SCHEDULEINFO{2, 0, 1, moment(0, 0, 6, 22, 30), moment(0, 0, 1, 6, 0)}) +
           bytes_of(SCHEDULEINFO{3, 1, 1, moment(0, 0, 15, 3, 0), moment(0, 0, 15, 3, 10)});
}

// The head and the first row, the row of mains failures, the users.
const Parts PARTS_OF_EVENTS = {{0, 0x140}, {0x8E0, 0xA20}, {0x3420, 14000}};

// The table as it was read, with one user, who is mailed when mains fails.
std::string some_events(std::string table)
{
    constexpr std::size_t ROW_OF_ACFAIL = 8;
    table.replace(ROW_OF_ACFAIL * sizeof(UPS_EVENTINFO) + offsetof(UPS_EVENTINFO, MailUser), 4, number(1));
    return table + std::string("\x01\0", 2) + text_field("keeper", 21) + text_field("", 260) +
           text_field("keeper@example.org", 260);
}

// ---- the stage

// Every section has its header, so that each setting is found where it was written.
Settings settings_of_the_document(const std::string &agenttype)
{
    return {{"UPS", "AgentType", agenttype},
            {"UPS", "Group", "Group A"},
            {"UPS", "ComSet", "0"},
            {"UPS", "AutoBoot", "1"},
            {"UPS", "BuzzerCan", "on"},
            {"UPS", "AutoTestCan", "on"},
            {"UPS", "IgnoreOtherAgentDown", "0"},
            {"ShutDown", "EXPECTBLIFE", "60"},
            {"EventLog", "EventLogEnabled", "1"},
            {"DataLog", "DataLogEnabled", "1"},
            {"ScheShutDown", "SPECIALNO", "0"},
            {"ScheTest", "SPECIALNO", "0"},
            {"UserInfo", "UserID", ""}};
}

StageOptions options_of_the_document(const std::string &agenttype)
{
    // Every order means something to this unit.
    return {.model = "ZM300LT", .settings = settings_of_the_document(agenttype), .monitor = false};
}

void add_account(const std::string &passwd, const std::string &shadow)
{
    testbed::write_file("/etc/passwd", testbed::read_file("/etc/passwd") + passwd + "\n");
    testbed::write_file("/etc/shadow", testbed::read_file("/etc/shadow") + shadow + "\n", 0600);
}

}  // namespace

TEST(ProtocolDocument, QuestionsAreAnsweredAsShown)
{
    add_account("keeper:x:0:0::/root:/bin/sh",
                "keeper:$1$saltsalt$qjXMvbEw8oaL.CzflDtaK/:19000:0:99999:7:::");
    Stage stage(options_of_the_document("5"));
    Play play(stage, "ask");
    stage.link_up();
    stage.run(150s);
    play.exchange("hello", hello(2));
    play.exchange("status", packet(DATAID_GETUPSINFO));
    play.begin("keep-alive");
    play.say("\xFF");
    play.say(query(6).substr(0, 3));
    play.say(query(6).substr(3));
    play.end();
    play.exchange("login", login("keeper", "password"));
    play.exchange("login-refused", login("keeper", "guess"));
    play.exchange("event-log", query(1, 0, 10));
    play.exchange("data-log", query(2, 0, 2));
    play.exchange("schedules-none", query(3));
    play.exchange("events", query(4), {}, PARTS_OF_EVENTS);
    std::string old = query(5);
    old[0] = 0;
    play.exchange("configuration-old", old, {}, {{0, 0x20}});
    play.exchange("empty", query(6));
    play.exchange("battery-date", packet(DATAID_GETBATTIME));
    play.exchange("inquiry-tcp", inquiry());
    play.begin("refused");
    play.say(packet(DATAID_GETUPSINFO, {}, 2));
    play.say(packet(DATAID_PASSWORD, text_field("keeper", 16)));
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, SettingsAreTakenAsShown)
{
    Stage stage(options_of_the_document("5"));
    Play play(stage, "set");
    stage.link_up();
    play.say(hello(2));
    play.begin("schedules");
    play.say(packet(DATAID_SCHEDULES, some_schedules()));
    play.say(query(3));
    play.end();

    play.begin("configuration");
    play.say(query(5));
    const std::string record = play.last().substr(8);
    play.say(packet(DATAID_CONFIG, other_settings(record, 120, "Cellar")));
    play.end();

    play.say(query(4), {}, PARTS_OF_EVENTS);
    play.begin("events");
    play.say(packet(DATAID_EVENTS, some_events(play.last().substr(8))), PARTS_OF_EVENTS);
    play.end();

    play.begin("japanese");
    play.say(packet(DATAID_CONFIG, other_settings(record, 120, "\x93\xFA\x96\x7B")),
             {{0, 0x10}, {0x360, 0x370}});
    play.say(packet(DATAID_GETUPSINFO), {}, {{0x70, 0x90}});
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, OrdersAreCarriedOutAsShown)
{
    Stage stage(options_of_the_document("5"));
    Play play(stage, "order");
    stage.link_up();
    play.say(hello(2));
    play.begin("selftest");
    play.say(packet(DATAID_SELFTEST, number(10)));
    play.later("half a minute later", 30s);
    play.end();
    play.begin("selftest-cancel");
    play.say(packet(DATAID_SELFTEST_LONG));
    play.later("10 seconds later", 10s);
    play.say(packet(DATAID_SELFTEST_CANCEL));
    play.later("5 seconds later", 5s);
    play.end();
    play.begin("switches");
    for (const std::uint8_t dataid :
         {DATAID_BUZZER_OFF, DATAID_BUZZER_ON, DATAID_AUTOTEST_OFF, DATAID_AUTOTEST_ON, DATAID_BUZZER_TEST})
        play.say(packet(dataid));
    play.end();
    play.exchange("level", packet(DATAID_DETECTIONLVL, number(2)));
    play.begin("set-battery-date");
    play.say(packet(DATAID_SETBATTIME, bytes_of(BATTCHGTIME{0, moment(123, 11, 14, 0, 0)})));
    play.say(packet(DATAID_GETBATTIME));
    play.later("5 seconds later", 5s);
    play.say(packet(DATAID_GETBATTIME));
    play.end();
    play.begin("clear-logs");
    play.say(packet(DATAID_CLEAR_DATALOG));
    play.say(packet(DATAID_CLEAR_EVENTLOG));
    play.say(query(1, 0, 10));
    play.end();
    play.begin("shutdown");
    play.say(down_order(600, 0, "desk", ""));
    play.say(packet(DATAID_CANCELSHUTDOWN, text_field("desk", 16)));
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, AgentsTellOfThemselvesAsShown)
{
    Stage stage(options_of_the_document("5"));
    Play play(stage, "tell");
    play.say(hello(2));
    play.begin("up");
    stage.link_up();
    play.add(play.arrivals());
    play.end();
    play.begin("inquiry");
    play.say_by_datagram("monitor", inquiry());
    play.end();
    play.begin("mains");
    stage.unit("mains fail");
    play.later("mains fails; 31 seconds later", 31s);
    stage.unit("mains return");
    play.later("mains is back; 5 seconds later", 5s);
    play.end();
    play.begin("other-agent");
    play.say_by_datagram("other agent", down_order(0, 4, "attic", "Group A"));
    play.end();
    play.begin("japanese");
    play.say(hello(1));
    play.say(packet(DATAID_CANCELSHUTDOWN, text_field("desk", 16)));
    play.say(hello(2));
    play.end();
    play.begin("unanswered");
    play.say_by_datagram("monitor", packet(DATAID_GETPROTECTOR));
    play.say_by_datagram("monitor",
                         packet(DATAID_GETPRTEVENTLOG, bytes_of(UPS_COMMAND_PACKET{1, 0, 0, 10, 0})));
    play.say_by_datagram("protector",
                         packet(DATAID_PROT2AGENT, std::string("\x05\0\0\0", 4) + text_field("pc1", 42)));
    play.end();
    play.begin("group-down");
    play.say(down_order(0, 0, "desk", ""));
    ASSERT_TRUE(stage.goes_down(200s));
    play.add("(the grace has passed)\n" + play.arrivals());
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, AStoppedAgentSaysSo)
{
    Stage stage(options_of_the_document("5"));
    Play play(stage, "stop");
    stage.link_up();
    play.begin("down");
    stage.clock.stop(stage.daemon);
    play.add(play.arrivals());
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, AProtectorAnswersAsShown)
{
    Stage stage(options_of_the_document("1"));
    Play play(stage, "protector");
    play.say(hello(2));
    play.begin("up");
    stage.run(20s);
    play.add(play.arrivals());
    play.end();
    play.begin("inquiry");
    play.say_by_datagram("monitor", inquiry());
    play.end();
    play.begin("queries");
    play.say(query(1, 0, 10));
    play.say(query(5));
    play.end();
    play.begin("set-protector");
    play.say_by_datagram("monitor", packet(DATAID_PROTECTORCFG, number(0) + text_field("cellar", 16)));
    play.say_by_datagram("monitor", inquiry());
    play.end();
    play.begin("down");
    stage.clock.stop(stage.daemon);
    play.add(play.arrivals());
    play.end();
    play.expect_all_played();
}

TEST(ProtocolDocument, ShowsEveryDataIdAtWork)
{
    const std::set<int> listed = listed_dataids();
    EXPECT_EQ(listed.size(), 36u);
    EXPECT_EQ(shown_dataids(), listed);
}

TEST(ProtocolDocument, ShowsNoExchangeThatNobodyPlays)
{
    const std::set<std::string> groups = {"ask", "set", "order", "tell", "stop", "protector"};
    for (const std::string &name : names_in_document())
        EXPECT_TRUE(groups.contains(name.substr(0, name.find('/')))) << name;
}

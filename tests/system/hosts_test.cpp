// Agents and monitors on hosts of their own: how monitors find the agents, what agents tell unasked, and how
// agents of a group take each other down.
#include "hosts_stage.h"

#include <algorithm>
#include <array>
#include <iconv.h>
#include <map>
#include <set>

using namespace bed;
using testbed::Host;
using testbed::HostOptions;
using testbed::TcpClient;
using testbed::UdpSocket;
using testbed::Wire;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;
using testing::ResultOf;

namespace
{

class Hosts : public testing::Test
{
  protected:
    Host &host(const std::string &name, bool limited_broadcast = true)
    {
        const std::string address = "10.78.0." + std::to_string(11 + hosts.size());
        hosts.push_back(std::make_unique<Host>(PROGRAMS, HostOptions{name, address, limited_broadcast}));
        return *hosts.back();
    }

    void wait_up()
    {
        for (const auto &one : hosts)
            one->wait_up();
    }

    std::vector<std::unique_ptr<Host>> hosts;
};

// Asks everybody and takes this many answers.
std::vector<Told> find_agents(const UdpSocket &monitor, const std::string &broadcast, std::size_t count)
{
    monitor.send(broadcast, testbed::AGENT_UDP_PORT, inquiry("desk"));
    std::vector<Told> all;
    while (all.size() < count) {
        const auto answer = monitor.receive(PATIENCE);
        if (!answer)
            throw testbed::TestbedError("answers: " + testing::PrintToString(all));
        all.push_back(told(answer->bytes, answer->from));
    }
    std::sort(all.begin(), all.end(), [](const Told &a, const Told &b) { return a.from < b.from; });
    return all;
}

bool nothing_waits(const UdpSocket &socket)
{
    return !socket.receive(0ms).has_value();
}

std::vector<Told> heard_by_now(const UdpSocket &socket)
{
    std::vector<Told> all;
    while (const auto datagram = socket.receive(0ms))
        all.push_back(told(datagram->bytes, datagram->from));
    return all;
}

// Where the announcements that have passed by now were sent to, by sender.
std::set<std::string> destinations(const Wire &wire, const Host &from)
{
    std::set<std::string> all;
    while (const auto seen = wire.next(0ms))
        if (seen->from == from.address() && seen->port == testbed::MONITOR_UDP_PORT)
            all.insert(seen->to);
    return all;
}

bool goes_down(const Told &one)
{
    return one.cmd == 1;
}

// Until a monitor has heard this often from each of two hosts that they go down; everything that came by
// then.
std::vector<Told> hear_both_down(const UdpSocket &monitor, const Host &one, const Host &two, int times)
{
    std::map<std::string, int> left = {{one.address(), times}, {two.address(), times}};
    std::vector<Told> all;
    while (left[one.address()] > 0 || left[two.address()] > 0) {
        const auto datagram = monitor.receive(PATIENCE);
        if (!datagram)
            throw testbed::TestbedError("heard only " + testing::PrintToString(all));
        all.push_back(told(datagram->bytes, datagram->from));
        left[datagram->from] -= goes_down(all.back()) ? 1 : 0;
    }
    return all;
}

std::ptrdiff_t times_down(const std::vector<Told> &heard, const Host &from)
{
    return std::count_if(heard.begin(), heard.end(),
                         [&](const Told &one) { return one.from == from.address() && goes_down(one); });
}

// The orders to other agents that a host broadcasts: as many as are wanted, and what has passed beyond them.
std::vector<std::string> orders_on(const Wire &wire, const Host &from, std::size_t wanted)
{
    std::vector<std::string> all;
    while (const auto seen = wire.next(all.size() < wanted ? PATIENCE : 0s))
        if (seen->from == from.address() && seen->port == testbed::AGENT_UDP_PORT && seen->bytes.size() > 3 &&
            static_cast<unsigned char>(seen->bytes[3]) == DATAID_SHUTDOWN)
            all.push_back(seen->bytes);
    return all;
}

void start_with_unit(const Host &host, const std::string &config)
{
    host.start_unit();
    host.start_agent(config);
}

// A monitor's order to an agent. The connection is kept: where one is broken, the agent leaves out the rounds
// that follow its last message.
std::unique_ptr<TcpClient> order_down(const Host &monitor, const Host &agent)
{
    auto client = connect_from(monitor, agent);
    client->send(down_order(1, monitor.name()));
    return client;
}

// By the answer it has handled every order that came before the question.
void expect_untouched(const Host &monitor, const Host &agent)
{
    (void)ask(monitor, agent);
    EXPECT_FALSE(Watched(agent).shutting_down()) << agent.name();
    EXPECT_THAT(events_of(agent), Not(Contains(80))) << agent.name();
    EXPECT_FALSE(halted(agent)) << agent.name();
}

void hear_status_changes(const UdpSocket &monitor, const Host &agent)
{
    const auto on_battery = [](const Told &one) { return one.status == UPSSTAT_ACFAIL; };
    const auto on_mains = [](const Told &one) { return one.status == UPSSTAT_NORMAL; };
    agent.unit("mains fail");
    EXPECT_EQ(hear_until(monitor, agent, "mains failure", on_battery).back().cmd, 0);
    agent.unit("mains return");
    EXPECT_EQ(hear_until(monitor, agent, "the return of mains", on_mains).back().cmd, 0);
}

// Reads an agent's configuration, changes it and sends it back.
void change_config(const Host &monitor, const Host &agent, std::size_t at, const std::string &bytes)
{
    const auto client = connect_from(monitor, agent);
    client->send(packet(DATAID_COMMAND, std::string("\x05\0\0\0\0\0\0\0", 8)));
    std::string config = receive_answer(*client);
    ASSERT_EQ(config.size(), 880u);
    client->send(packet(DATAID_CONFIG, config.substr(8).replace(at, bytes.size(), bytes)));
    (void)ask_status(*client);  // a closed connection's last packet may be lost
}

// A change of what the agent is known by: it takes its leave and comes back with the new value.
void expect_leave_and_return(const std::vector<Told> &heard, const std::string &what)
{
    EXPECT_THAT(heard, Contains(ResultOf(goes_down, true))) << what;
    EXPECT_EQ(heard.back().cmd, 0) << what;
}

void hear_settings_changes(const UdpSocket &monitor, const Host &desk, const Host &agent)
{
    constexpr std::size_t comm = offsetof(UPS_PARAM, commparam);
    change_config(desk, agent, comm + offsetof(UPS_COMMPARAM, Group), field("Group X", 16));
    expect_leave_and_return(
        hear_until(monitor, agent, "its new group",
                   [](const Told &one) { return one.cmd == 0 && one.group == "Group X"; }),
        "group");
    change_config(desk, agent, comm + offsetof(UPS_COMMPARAM, AgentType), std::string("\x04\0\0\0", 4));
    expect_leave_and_return(hear_until(monitor, agent, "its new role",
                                       [](const Told &one) { return one.cmd == 0 && one.role == ROLE_LOW; }),
                            "role");
    change_config(desk, agent, comm + offsetof(UPS_COMMPARAM, bIgnore), std::string("\x01\0\0\0", 4));
    const auto ignoring = hear_until(monitor, agent, "that it ignores others",
                                     [](const Told &one) { return one.ignores == 1; });
    EXPECT_THAT(ignoring, Not(Contains(ResultOf(goes_down, true))));

    // An outside tool edits the file and says so.
    {
        const testbed::Visit visit(agent);
        std::string config = testbed::read_config();
        config.replace(config.find("Group X"), 7, "Group Y");
        testbed::write_config(config);
    }
    agent.request(1);
    const auto moved = hear_until(monitor, agent, "its group from the file",
                                  [](const Told &one) { return one.group == "Group Y"; });
    EXPECT_THAT(moved, Not(Contains(ResultOf(goes_down, true))));
}

// ---- languages

void say_language(const TcpClient &client, int lang)
{
    client.send(
        packet(DATAID_OSINFO, std::string({static_cast<char>(lang), 0, 0, 0, 2, 0, 0, 0}) + field("", 20)));
    EXPECT_EQ(receive_answer(client)[3], DATAID_OSINFO);
}

// The catalogue's translation, in UTF-8.
std::string in_japanese(const std::string &text)
{
    const std::string catalogue = testbed::read_file(VOLTARIA_CATALOGUE);
    const std::string key = "msgid \"" + text + "\"\nmsgstr \"";
    const std::size_t at = catalogue.find(key);
    if (at == std::string::npos)
        throw testbed::TestbedError("no translation of " + text);
    const std::size_t begin = at + key.size();
    return catalogue.substr(begin, catalogue.find('"', begin) - begin);
}

std::string shift_jis(std::string text)
{
    const iconv_t to = iconv_open("SHIFT_JIS", "UTF-8");
    std::array<char, 512> bytes{};
    char *in = text.data();
    char *out = bytes.data();
    std::size_t in_left = text.size();
    std::size_t out_left = bytes.size();
    const bool whole = iconv(to, &in, &in_left, &out, &out_left) != static_cast<std::size_t>(-1);
    iconv_close(to);
    EXPECT_TRUE(whole) << text;
    return {bytes.data(), bytes.size() - out_left};
}

// The next notice that is one of these texts.
std::string notice_with(const TcpClient &client, const std::vector<std::string> &texts)
{
    for (;;) {
        const std::string bytes = receive_packet(client);
        const std::string text = bytes.substr(8);
        if (bytes[3] == NOTICE && std::find(texts.begin(), texts.end(), text) != texts.end())
            return text;
    }
}

}  // namespace

TEST_F(Hosts, MonitorsFindEveryAgentByOneBroadcast)
{
    Host &desk1 = host("desk1");
    Host &desk2 = host("desk2");
    Host &alpha = host("alpha");
    Host &beta = host("beta");
    Host &gamma = host("gamma.office");
    wait_up();
    alpha.start_agent(settings(ROLE_LOW));
    beta.start_agent(settings(ROLE_HIGH, "Group B", true));
    gamma.start_agent(settings(ROLE_PROTECTOR));

    const auto monitor1 = udp_on(desk1);
    const auto monitor2 = udp_on(desk2);
    for (const auto &[monitor, broadcast] :
         {std::pair(monitor1.get(), LIMITED_BROADCAST), std::pair(monitor2.get(), NETWORK_BROADCAST)}) {
        const std::vector<Told> found = find_agents(*monitor, broadcast, 3);
        EXPECT_EQ(found[0].from, alpha.address());
        EXPECT_EQ(found[0].dataid, DATAID_ANSAGENT);
        EXPECT_EQ(found[0].agent, "alpha");
        EXPECT_EQ(found[0].group, "Group A");
        EXPECT_EQ(found[0].role, ROLE_LOW);
        EXPECT_EQ(found[0].ignores, 0);
        EXPECT_EQ(found[0].model, "");
        EXPECT_EQ(found[0].link, COMM_LOST);
        EXPECT_EQ(found[1].from, beta.address());
        EXPECT_EQ(found[1].agent, "beta");
        EXPECT_EQ(found[1].group, "Group B");
        EXPECT_EQ(found[1].role, ROLE_HIGH);
        EXPECT_EQ(found[1].ignores, 1);
        EXPECT_EQ(found[2].from, gamma.address());
        EXPECT_EQ(found[2].dataid, DATAID_ANSPROT);
        EXPECT_EQ(found[2].myname, "gamma");  // an answer's name ends at the first dot
        for (const Told &one : found) {
            EXPECT_EQ(one.cmd, 2);
            EXPECT_EQ(one.nt, 2);
        }
    }
    EXPECT_TRUE(nothing_waits(*monitor1)) << "an answer is for the one who asked";
    EXPECT_TRUE(nothing_waits(*monitor2));
}

TEST_F(Hosts, WhereTheLimitedBroadcastCannotBeSentEachInterfacesOwnIs)
{
    Host &desk = host("desk", false);
    Host &routed = host("routed");
    Host &bare = host("bare", false);
    wait_up();
    const auto monitor = udp_on(desk, testbed::MONITOR_UDP_PORT);
    const Wire wire;
    const Wire wire_again;
    routed.start_agent(settings(ROLE_LOW));
    bare.start_agent(settings(ROLE_LOW));
    const auto there = [](const Told &one) { return one.cmd == 0 && one.link == COMM_LOST; };
    EXPECT_EQ(hear_until(*monitor, routed, "that it is there", there).back().agent, "routed");
    EXPECT_EQ(hear_until(*monitor, bare, "that it is there", there).back().agent, "bare");
    for (Host *one : {&routed, &bare}) {
        one->request(-1);
        hear_until(*monitor, *one, "that it goes down", goes_down);
    }
    EXPECT_THAT(destinations(wire, routed), ElementsAre(LIMITED_BROADCAST));
    EXPECT_THAT(destinations(wire_again, bare), ElementsAre(NETWORK_BROADCAST));
    EXPECT_THROW(udp_on(desk)->send(LIMITED_BROADCAST, 9, "probe"), testbed::TestbedError);
}

TEST_F(Hosts, AnAgentThatStopsSaysSoThreeTimesToEveryMonitor)
{
    Host &desk1 = host("desk1");
    Host &desk2 = host("desk2");
    Host &alpha = host("alpha");
    Host &gamma = host("gamma.office.example");
    wait_up();
    const auto monitor1 = udp_on(desk1, testbed::MONITOR_UDP_PORT);
    const auto monitor2 = udp_on(desk2, testbed::MONITOR_UDP_PORT);
    alpha.start_agent(settings(ROLE_NORMAL, "Group C"));
    gamma.start_agent(settings(ROLE_PROTECTOR));
    const std::size_t last = 2;
    for (const Host *agent : {&alpha, &gamma}) {
        agent->request(-1);
        for (const UdpSocket *monitor : {monitor1.get(), monitor2.get()}) {
            std::vector<Told> down;
            while (down.size() <= last)
                down.push_back(hear_until(*monitor, *agent, "that it goes down", goes_down).back());
            for (const Told &one : down) {
                if (agent == &alpha) {
                    EXPECT_EQ(one.agent, "alpha");
                    EXPECT_EQ(one.group, "Group C");
                    EXPECT_EQ(one.role, ROLE_NORMAL);
                    EXPECT_EQ(one.nt, 2);
                } else {
                    EXPECT_EQ(one.dataid, DATAID_ANSPROT);
                    EXPECT_EQ(one.myname, "gamma.office.ex");  // 15 characters, dots and all
                    EXPECT_EQ(one.nt, 1);
                }
            }
        }
    }
    wait_for_event(alpha, 8);
    for (const UdpSocket *monitor : {monitor1.get(), monitor2.get()})
        for (const Told &one : heard_by_now(*monitor))
            EXPECT_FALSE(goes_down(one)) << "a fourth time: " << one;
}

TEST_F(Hosts, EveryStatedCauseIsAnnounced)
{
    Host &desk = host("desk");
    Host &alpha = host("alpha");
    wait_up();
    const auto monitor = udp_on(desk, testbed::MONITOR_UDP_PORT);
    alpha.start_agent(settings(ROLE_NORMAL, "Group A", false, " ComSet = 0\n"));
    // The start; group, role and link differ from what was known before: nothing. The lost link twice.
    int count = 0;
    for (const Told &one :
         hear_until(*monitor, alpha, "its start", [&](const Told &) { return ++count == 5; })) {
        EXPECT_EQ(one.cmd, 0) << one;
        EXPECT_EQ(one.model, "          ") << one;
        EXPECT_EQ(one.link, COMM_LOST) << one;
        EXPECT_EQ(one.group, "Group A") << one;
    }
    (void)ask(desk, alpha);
    EXPECT_TRUE(nothing_waits(*monitor));

    // The link: the model, the link twice, and the first status word.
    alpha.start_unit();
    const auto linked = [](const Told &one) {
        return one.link == COMM_ESTABLISHED && one.model == "ZR900PL";
    };
    EXPECT_EQ(hear_until(*monitor, alpha, "its unit", linked).back().cmd, 0);
    hear_status_changes(*monitor, alpha);
    alpha.unit("line cut");  // the loss is noticed in some seconds; it comes last
    hear_settings_changes(*monitor, desk, alpha);
    const auto lost = [](const Told &one) { return one.link == COMM_LOST; };
    EXPECT_EQ(hear_until(*monitor, alpha, "the lost link", lost).back().cmd, 0);

    // No unit at all from now on: another port, and the link counts as not wanted.
    change_config(desk, alpha, offsetof(UPS_PARAM, workparam.ComSet), std::string("\xFE\xFF\xFF\xFF", 4));
    const auto unwanted = [](const Told &one) { return one.link == COMM_NOUPS; };
    expect_leave_and_return(hear_until(*monitor, alpha, "its new port", unwanted), "port");
}

TEST_F(Hosts, EachMonitorHearsItsOwnLanguage)
{
    Host &desk1 = host("desk1");
    Host &desk2 = host("desk2");
    Host &alpha = host("alpha");
    wait_up();
    alpha.start_agent(settings(ROLE_LOW));
    const auto japanese = connect_from(desk1, alpha);
    const auto english = connect_from(desk2, alpha);
    const auto silent = connect_from(desk2, alpha);  // says nothing of its language
    say_language(*japanese, 1);
    say_language(*english, 2);
    (void)ask_status(*silent);
    alpha.start_unit();
    for (const std::string text : {"UPS Communication established", "UPS AC Restore"}) {
        EXPECT_EQ(notice_with(*english, {text}), text);
        EXPECT_EQ(notice_with(*japanese, {shift_jis(in_japanese(text)), text}), shift_jis(in_japanese(text)));
        EXPECT_EQ(notice_with(*silent, {shift_jis(in_japanese(text)), text}), shift_jis(in_japanese(text)));
        alpha.unit("mains fail");
        wait_for_event(alpha, 65);  // noticed, so that the return is one
        alpha.unit("mains return");
    }
}

TEST_F(Hosts, AnOrderGoesDownTheRanksOfTheGroup)
{
    Host &desk = host("desk");
    Host &high = host("high");
    Host &normal = host("normal");
    Host &low = host("low");
    wait_up();
    const auto monitor = udp_on(desk, testbed::MONITOR_UDP_PORT);
    const Wire wire;
    start_with_unit(high, settings(ROLE_HIGH));
    start_with_unit(normal, settings(ROLE_NORMAL));
    start_with_unit(low, settings(ROLE_LOW));
    for (const Host *one : {&high, &normal, &low})
        Watched(*one).wait_for_link();

    const auto monitor_of_high = order_down(desk, high);
    Watched(high).wait_for_shutdown();
    Watched(normal).wait_for_shutdown();
    wait_until_halted(low);
    EXPECT_THAT(events_of(normal), Contains(80));
    EXPECT_THAT(events_of(low), IsSupersetOf({80, 134, 22, 8}));
    testbed::wait_until("the unit of the lowest to be ordered off", PATIENCE, [&] {
        const testbed::Visit visit(low);
        return testbed::read_file(testbed::SimulatorOptions().log).find("rx S10") != std::string::npos;
    });
    // The higher ranks wait out their grace of two and of one minute.
    EXPECT_FALSE(halted(high));
    EXPECT_FALSE(halted(normal));
    const std::vector<Told> heard = hear_both_down(*monitor, high, low, 3);
    EXPECT_EQ(times_down(heard, high), 3);
    EXPECT_EQ(times_down(heard, normal), 0);
    EXPECT_EQ(times_down(heard, low), 3);

    const std::string order = packet(DATAID_SHUTDOWN, std::string("\x16\0\0\0\x06\0\0\0", 8) +
                                                          field("high", 16) + field("Group A", 16));
    EXPECT_THAT(orders_on(wire, high, 3), ElementsAre(order, order, order));
}

TEST_F(Hosts, AnOrderReachesEqualsButNobodyAbove)
{
    Host &desk = host("desk");
    Host &chief = host("chief");
    Host &equal = host("equal");
    Host &normal = host("normal");
    Host &high = host("high");
    wait_up();
    start_with_unit(chief, settings(ROLE_LOW));
    equal.start_agent(settings(ROLE_LOW));
    normal.start_agent(settings(ROLE_NORMAL));
    high.start_agent(settings(ROLE_HIGH));
    Watched(chief).wait_for_link();
    const auto monitor_of_chief = order_down(desk, chief);
    wait_until_halted(chief);
    wait_until_halted(equal);
    for (const Host *one : {&normal, &high})
        expect_untouched(desk, *one);
}

TEST_F(Hosts, AnOrderStaysInItsGroupAndPassesThoseThatIgnoreIt)
{
    Host &desk = host("desk");
    Host &chief = host("chief", false);
    Host &member = host("member");
    Host &other = host("other");
    Host &deaf = host("deaf");
    Host &unset = host("unset");
    wait_up();
    const Wire wire;
    start_with_unit(chief, settings(ROLE_LOW, "Group a"));
    member.start_agent(settings(ROLE_LOW, "gROUP A"));  // capitals do not matter
    other.start_agent(settings(ROLE_LOW, "Group B"));
    deaf.start_agent(settings(ROLE_LOW, "Group a", true));
    unset.start_agent("[ UPS ]\n\n AgentType = 4\n Group = Group a\n");  // ignores the others by default
    Watched(chief).wait_for_link();
    const auto monitor_of_chief = order_down(desk, chief);
    wait_until_halted(chief);
    wait_until_halted(member);
    for (const Host *one : {&other, &deaf, &unset})
        expect_untouched(desk, *one);
    // Three rounds when its time is up, three more at the very end.
    EXPECT_THAT(orders_on(wire, chief, 6), testing::SizeIs(6));
}

TEST_F(Hosts, AProtectorGoesDownWithItsAgent)
{
    Host &desk = host("desk");
    Host &chief = host("chief");
    Host &ward = host("ward");
    wait_up();
    const auto monitor = udp_on(desk, testbed::MONITOR_UDP_PORT);
    start_with_unit(chief, settings(ROLE_LOW));
    ward.start_agent(settings(ROLE_PROTECTOR));
    Watched(chief).wait_for_link();

    const auto sender = udp_on(desk);
    const auto to_ward = [&](const std::string &bytes) {
        sender->send(ward.address(), testbed::AGENT_UDP_PORT, bytes);
    };
    to_ward(packet(DATAID_PROTECTORCFG, std::string(4, '\0') + field("chief", 16)));
    // The name is kept; told is the host's own, as the settings that are read again give it.
    EXPECT_EQ(ask(desk, ward).agent, "ward");
    EXPECT_EQ(ask(desk, ward).myname, "ward");
    {
        const testbed::Visit visit(ward);
        EXPECT_THAT(testbed::read_config(), HasSubstr("AgentName = chief\n"));
    }
    // What a protector says of itself to its agent is taken and changes nothing.
    udp_on(ward)->send(chief.address(), testbed::AGENT_UDP_PORT,
                       packet(DATAID_PROT2AGENT, std::string(4, '\x05') + field("ward", 42)));
    EXPECT_EQ(ask(desk, chief).cmd, 2);

    // It belongs to no group until it is told to look at its settings.
    const Watched watched(ward);
    to_ward(packet(DATAID_SHUTDOWN,
                   std::string("\x16\0\0\0\x06\0\0\0", 8) + field("any", 16) + field("Group A", 16)));
    expect_untouched(desk, ward);
    ward.request(1);
    watched.wait_for_group("Group A");

    const auto monitor_of_chief = order_down(desk, chief);
    wait_until_halted(chief);
    wait_until_halted(ward);
    EXPECT_THAT(events_of(ward), IsSupersetOf({80, 22, 8}));
    const Told last = hear_until(*monitor, ward, "that it goes down", goes_down).back();
    EXPECT_EQ(last.dataid, DATAID_ANSPROT);
    EXPECT_EQ(last.myname, "ward");
}

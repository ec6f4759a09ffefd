// What the agent tells the network of itself, byte for byte as it arrives at the other side's port.
#include "agent_fixture.h"
#include "agent_net_announce.h"
#include "e_a.h"

#include <cstring>
#include <net/if.h>
#include <net/route.h>

// Adds or removes the route that takes the limited broadcast, as any other address, to eth0.
static void change_default_route(unsigned long request)
{
    static char device[] = "eth0";
    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    rtentry route{};
    const sockaddr_in any = ip_address(INADDR_ANY, 0);
    std::memcpy(&route.rt_dst, &any, sizeof any);
    std::memcpy(&route.rt_genmask, &any, sizeof any);
    route.rt_flags = RTF_UP;
    route.rt_dev = device;
    EXPECT_EQ(ioctl(control, request, &route), 0);
    close(control);
}

class Announcing : public AgentTest
{
  protected:
    Announcing()
    {
        const int on = 1;
        change_default_route(SIOCADDRT);
        agent.agnet.ufd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        EXPECT_EQ(setsockopt(agent.agnet.ufd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
        monitors = listen_udp(4113);
        agents = listen_udp(4114);
        block.ups.protocol = 0x0101;
        set_text(block.ups.up.commparam.Agent, "server1");
        set_text(block.ups.up.commparam.Group, "office");
        block.ups.up.commparam.AgentType = 5;
        block.ups.up.commparam.bIgnore = 1;
        set_text(block.ups.ui.upsmodel, "ZR900PL");
        block.ups.ui.upsstat = 33;
        block.ups.ui.BattStatus = 18;
        block.ups.ui.CommStatus = 2;
    }

    ~Announcing() override
    {
        if (routed)
            change_default_route(SIOCDELRT);
    }

    void remove_route()
    {
        change_default_route(SIOCDELRT);
        routed = false;
    }

    void set_type(std::uint32_t type)
    {
        block.ups.up.commparam.AgentType = type;
    }

    /// What monitors get: nothing more than the given packet.
    void expect_monitors_get(const BYTES &bytes)
    {
        EXPECT_EQ(receive(monitors, bytes.size()), bytes);
        EXPECT_FALSE(readable(agents, 0));
    }

    int monitors = -1;
    int agents = -1;
    bool routed = true;
};

struct agent_packet {
    int cmd = 0;
    std::string name = "server1";
    std::string model = "ZR900PL";
    int upsstat = 33;
    std::string group = "office";
    int type = 5;
    std::int64_t battstatus = 18;
    std::int64_t commstatus = 2;
    int ignore = 1;
};

static BYTES bytes_of(const agent_packet &p)
{
    return packet(240,
                  join({le32(p.cmd),
                        field(p.name, 16),
                        field(p.model, 32),
                        {static_cast<std::uint8_t>(p.upsstat), 0, 0, 0},
                        le32(2),
                        field(p.group, 16),
                        le32(p.type),
                        le32(p.battstatus),
                        le32(p.commstatus),
                        le32(p.ignore)}),
                  0x0110, 1);
}

static BYTES protector_packet(int cmd, int nt, const std::string &guard, const std::string &node)
{
    return packet(242, join({le32(cmd), le32(nt), field(guard, 16), field(node, 16)}), 0x0110, 1);
}

static void set_node(const std::string &name)
{
    ASSERT_EQ(sethostname(name.c_str(), name.size()), 0);
}

TEST_F(Announcing, AServerAgentAnnouncesItself)
{
    ASSERT_EQ(bytes_of({}).size(), 100U);
    for (const int type : {4, 5, 6}) {
        set_type(static_cast<std::uint32_t>(type));
        EXPECT_EQ(net_announce(&agent), 0);
        expect_monitors_get(bytes_of({.type = type}));
    }
}

TEST_F(Announcing, AnAgentThatIsNotSetUpAnnouncesItselfToo)
{
    set_type(0);
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.type = 0}));
}

TEST_F(Announcing, AnAgentOfTypeTwoIsAnnouncedWithoutItsGroup)
{
    set_type(2);
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.group = "", .type = 2}));
}

TEST_F(Announcing, StatusCodesAreSignExtended)
{
    block.ups.ui.upsstat = -1;
    block.ups.ui.BattStatus = -2;
    block.ups.ui.CommStatus = -3;
    block.ups.up.commparam.bIgnore = -4;
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.upsstat = 255, .battstatus = -2, .commstatus = -3, .ignore = -4}));
}

TEST_F(Announcing, PrototypeIsTheLowByteOfTheProtocol)
{
    block.ups.protocol = 0x0200;
    EXPECT_EQ(net_announce(&agent), 0);
    BYTES expected = bytes_of({});
    expected[2] = 0;
    expect_monitors_get(expected);
}

TEST_F(Announcing, ModelsOfTheSupportedSeriesAreAnnouncedAsTheyStandOthersAsTenBlanks)
{
    const std::string blanks(10, ' ');
    for (const auto &[model, sent] : std::vector<std::pair<std::string, std::string>>{
             {"ZR900PL", "ZR900PL"},
             {"zq500", "zq500"},
             {"Z", "Z"},
             {"UNKNOWN", blanks},
             {"unknown", blanks},
             {"Unknown", blanks},
             {"", blanks},
             {"AZ900", blanks},
             {"zr" + std::string(29, 'x'), "zr" + std::string(29, 'x')}}) {
        set_text(block.ups.ui.upsmodel, model);
        EXPECT_EQ(net_announce(&agent), 0);
        expect_monitors_get(bytes_of({.model = sent}));
    }
}

TEST_F(Announcing, LongNamesAreCutToFifteenCharacters)
{
    set_text(block.ups.up.commparam.Agent, "a-server-with-a-long-name");
    set_text(block.ups.up.commparam.Group, "0123456789ABCDEF");  // no NUL in the field
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.name = "a-server-with-a", .group = "0123456789ABCDE"}));
}

TEST_F(Announcing, LongJapaneseNamesAreCutToWholeCharacters)
{
    std::string name;
    for (int i = 0; i < 8; ++i)
        name += "\xC5\xC5";
    set_text(block.ups.up.commparam.Agent, name);
    set_text(block.ups.up.commparam.Group, name);
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.name = name.substr(0, 14), .group = name.substr(0, 14)}));
}

TEST_F(Announcing, JapaneseNamesAreAnnouncedAsTheyAreKeptAndTakenDownInShiftJis)
{
    set_text(block.ups.up.commparam.Agent, "\xC5\xC5\xB8\xBB");  // EUC-JP
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(bytes_of({.name = "\xC5\xC5\xB8\xBB"}));
    EXPECT_EQ(net_broadcastdown2monitor(&agent), 0);
    expect_monitors_get(bytes_of({.cmd = 1, .name = "\x93\x64\x8C\xB9"}));
}

TEST_F(Announcing, AProtectorAnnouncesItsGuardAndItsNode)
{
    set_type(1);
    set_node("pc1.office");
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(protector_packet(0, 2, "server1", "pc1.office"));
}

TEST_F(Announcing, NodeNamesAreCutToFifteenCharactersAndNotAtADot)
{
    set_type(1);
    set_node("workstation.accounting.example");
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(protector_packet(0, 2, "server1", "workstation.acc"));
    EXPECT_EQ(net_broadcastdown2monitor(&agent), 0);
    expect_monitors_get(protector_packet(1, 1, "server1", "workstation.acc"));
    set_node("exactly15chars.");
    EXPECT_EQ(net_announce(&agent), 0);
    expect_monitors_get(protector_packet(0, 2, "server1", "exactly15chars."));
}

TEST_F(Announcing, AServerAgentTellsMonitorsThatItGoesDown)
{
    for (const int type : {2, 4, 5, 6}) {
        set_type(static_cast<std::uint32_t>(type));
        EXPECT_EQ(net_broadcastdown2monitor(&agent), 0);
        expect_monitors_get(bytes_of({.cmd = 1, .type = type}));
    }
}

TEST_F(Announcing, TheModelOfAnAgentThatGoesDownIsUpperCaseOrEmpty)
{
    for (const auto &[model, sent] : std::vector<std::pair<std::string, std::string>>{
             {"zr900pl", "ZR900PL"}, {"other-x", "OTHER-X"}, {"UNKNOWN", ""}, {"unknown", ""}, {"", ""}}) {
        set_text(block.ups.ui.upsmodel, model);
        EXPECT_EQ(net_broadcastdown2monitor(&agent), 0);
        expect_monitors_get(bytes_of({.cmd = 1, .model = sent}));
    }
}

TEST_F(Announcing, AnAgentThatIsNotSetUpGoesDownSilently)
{
    set_type(0);
    EXPECT_EQ(net_broadcastdown2monitor(&agent), 0);
    net_broadcastdown(&agent);
    EXPECT_FALSE(readable(monitors, 0));
    EXPECT_FALSE(readable(agents, 0));
}

static BYTES down_order(int type)
{
    return packet(18, join({{22, 0, 0, 0}, le32(type), field("server1", 16), field("office", 16)}), 0x0110,
                  1);
}

TEST_F(Announcing, OtherAgentsAreOrderedDownOnTheirOwnPort)
{
    ASSERT_EQ(down_order(5).size(), 48U);
    for (const int type : {0, 1, 4, 5, 6}) {
        set_type(static_cast<std::uint32_t>(type));
        EXPECT_EQ(net_broadcastdown2agent(&agent), 0);
        EXPECT_EQ(receive(agents, 48), down_order(type));
        EXPECT_FALSE(readable(monitors, 0));
    }
}

TEST_F(Announcing, OrdersToOtherAgentsCarryNamesInShiftJis)
{
    set_text(block.ups.up.commparam.Group, "\xC5\xC5\xB8\xBB");
    EXPECT_EQ(net_broadcastdown2agent(&agent), 0);
    BYTES expected = down_order(5);
    const BYTES group = field("\x93\x64\x8C\xB9", 16);
    std::copy(group.begin(), group.end(), expected.begin() + 32);
    EXPECT_EQ(receive(agents, 48), expected);
}

TEST_F(Announcing, GoingDownIsToldThreeTimesAndOrdersComeFromServersOnly)
{
    for (const int type : {1, 2, 3, 4, 5, 6}) {
        set_type(static_cast<std::uint32_t>(type));
        set_node("pc1");
        net_broadcastdown(&agent);
        const BYTES down =
            type == 1 ? protector_packet(1, 1, "server1", "pc1") : bytes_of({.cmd = 1, .type = type});
        EXPECT_EQ(receive(monitors, 3 * down.size()), join({down, down, down})) << type;
        const BYTES orders = receive(agents);
        if (type > 2)
            EXPECT_EQ(orders, join({down_order(type), down_order(type), down_order(type)})) << type;
        else
            EXPECT_TRUE(orders.empty()) << type;
    }
}

TEST_F(Announcing, TheEngineAsksForAnnouncements)
{
    EXPECT_EQ(Event_CallBack(8192, nullptr, 0, 0), 0);
    expect_monitors_get(bytes_of({}));
    EXPECT_EQ(Event_CallBack(0x80000, nullptr, 0, 0), 0);
    expect_monitors_get(bytes_of({}));
    EXPECT_EQ(Event_CallBack(16384, nullptr, 0, 0), 0);
    expect_monitors_get(bytes_of({.cmd = 1}));
}

TEST_F(Announcing, TheFinalMessageIsFollowedByThreeRoundsOfGoingDown)
{
    const int monitor = connect_monitor(1);
    char text[] = "bye";
    EXPECT_EQ(Event_CallBack(4096, text, 1, 0), 0);
    EXPECT_EQ(receive(monitor), packet(79, {'b', 'y', 'e'}, 0x0110, 1));
    const BYTES down = bytes_of({.cmd = 1});
    EXPECT_EQ(receive(monitors, 300), join({down, down, down}));
    EXPECT_EQ(receive(agents, 144), join({down_order(5), down_order(5), down_order(5)}));
}

TEST_F(Announcing, NothingIsAnnouncedWhenTheFinalMessageFails)
{
    const int monitor = connect_monitor(1);
    shutdown(monitor, SHUT_RDWR);
    char text[] = "bye";
    EXPECT_EQ(Event_CallBack(4096, text, 1, 0), -1);
    EXPECT_FALSE(readable(monitors, 0));
    EXPECT_FALSE(readable(agents, 0));
}

TEST_F(Announcing, AnAnnouncementThatCannotBeSentAtAllIsStillNoFailure)
{
    // Every interface is asked in turn, and what fails there is only reported.
    const int without = keep(socket(AF_INET, SOCK_DGRAM, 0));  // may not broadcast
    agent.agnet.ufd = without;
    testing::internal::CaptureStderr();
    EXPECT_EQ(net_announce(&agent), 0);
    const std::string reported = testing::internal::GetCapturedStderr();
    EXPECT_EQ(reported.rfind("net_sendbrdmsgovereachinterface: send: ", 0), 0U) << reported;
    EXPECT_FALSE(readable(monitors, 0));
}

TEST_F(Announcing, WhereTheLimitedBroadcastHasNoRouteEachInterfaceIsServed)
{
    remove_route();
    EXPECT_EQ(net_announce(&agent), 0);
    EXPECT_EQ(receive(monitors, 200), join({bytes_of({}), bytes_of({})}));
    EXPECT_EQ(net_broadcastdown2agent(&agent), 0);
    EXPECT_EQ(receive(agents, 96), join({down_order(5), down_order(5)}));
}

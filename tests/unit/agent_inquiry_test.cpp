// Answers to monitors that look for agents, byte for byte.
#include "agent_daemon.h"
#include "agent_fixture.h"
#include "agent_net.h"
#include "agent_net_inquiry.h"

#include <fstream>

static constexpr int MONITOR_PORT = 20010;

class Inquiries : public AgentTest
{
  protected:
    Inquiries()
    {
        const int on = 1;
        agent.agnet.ufd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        EXPECT_EQ(setsockopt(agent.agnet.ufd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
        monitor = listen_udp(MONITOR_PORT);
        block.ups.protocol = 0x0301;
        set_text(block.ups.up.commparam.Agent, "server1");
        set_text(block.ups.up.commparam.Group, "office");
        block.ups.up.commparam.AgentType = 5;
        block.ups.up.commparam.bIgnore = 1;
        block.ups.up.workparam.ComSet = 1;
        set_text(block.ups.ui.upsmodel, "zr900pl");
        block.ups.ui.upsstat = 33;
        block.ups.ui.BattStatus = -2;
        block.ups.ui.CommStatus = 2;
    }

    /// Hands in a datagram from the monitor's port.
    int ask(const BYTES &request, std::uint32_t host = INADDR_LOOPBACK)
    {
        hold(request, nullptr);
        const sockaddr_in from = ip_address(host, MONITOR_PORT);
        packet_setorigin({agent.agnet.ufd, from, 0, 0});
        agent.agnet.cnc.sockfd = agent.agnet.ufd;
        agent.agnet.cnc.addr = from;
        return daemon_procnetmsg(&agent, 1, 0);
    }

    BYTES answer_to(const BYTES &request)
    {
        EXPECT_EQ(ask(request), 0);
        return receive(monitor, 8);
    }

    int monitor = -1;
};

// The inquiry of a monitor; its contents do not matter.
static BYTES inquiry(int version = 0x0110, int cmd = 2)
{
    return packet(241, join({le32(cmd), BYTES(16, 'M')}), version);
}

struct told_agent {
    std::string name = "server1";
    std::string model = "ZR900PL";
    std::string group = "office";
    int type = 5;
    int commstatus = 2;
};

static BYTES bytes_of(const told_agent &p)
{
    return packet(240,
                  join({le32(2),
                        field(p.name, 16),
                        field(p.model, 32),
                        {33, 0, 0, 0},
                        le32(2),
                        field(p.group, 16),
                        le32(p.type),
                        le32(-2),
                        le32(p.commstatus),
                        le32(1)}),
                  0x0110, 1);
}

static BYTES protector_bytes(const std::string &guard, const std::string &node)
{
    return packet(242, join({le32(2), le32(2), field(guard, 16), field(node, 16)}), 0x0110, 1);
}

static void set_node(const std::string &name)
{
    ASSERT_EQ(sethostname(name.c_str(), name.size()), 0);
}

TEST_F(Inquiries, AServerAgentAnswersTheInquirer)
{
    ASSERT_EQ(bytes_of({}).size(), 100U);
    for (const int type : {2, 3, 4, 5, 6}) {
        block.ups.up.commparam.AgentType = static_cast<std::uint32_t>(type);
        EXPECT_EQ(answer_to(inquiry()), bytes_of({.type = type}));
    }
}

TEST_F(Inquiries, WhatTheInquirySaysDoesNotMatter)
{
    for (const int cmd : {0, 1, 2, 77, -1})
        EXPECT_EQ(answer_to(inquiry(0x0110, cmd)), bytes_of({}));
}

TEST_F(Inquiries, AnotherLengthIsRefused)
{
    for (const std::size_t size : {0U, 19U, 21U, 200U})
        EXPECT_EQ(ask(packet(241, counting(size))), -1) << size;
    EXPECT_FALSE(readable(monitor, 0));
}

TEST_F(Inquiries, AnAgentThatIsNotSetUpKeepsSilent)
{
    block.ups.up.commparam.AgentType = 0;
    EXPECT_EQ(ask(inquiry()), 0);
    EXPECT_FALSE(readable(monitor, 0));
}

TEST_F(Inquiries, AProtectorTellsItsGuardAndItsNodeUpToTheFirstDot)
{
    block.ups.up.commparam.AgentType = 1;
    for (const auto &[node, told] : std::vector<std::pair<std::string, std::string>>{
             {"pc1.office", "pc1"},
             {"pc1", "pc1"},
             {"workstation-accounting.example", "workstation-acc"},
             {"exactly15chars.", "exactly15chars"},
             {"a.b.c", "a"}}) {
        set_node(node);
        EXPECT_EQ(answer_to(inquiry()), protector_bytes("server1", told)) << node;
    }
}

TEST_F(Inquiries, AProtectorWithoutAPortLeavesTheStatusAlone)
{
    block.ups.up.commparam.AgentType = 1;
    block.ups.up.workparam.ComSet = -2;
    set_node("pc1");
    EXPECT_EQ(answer_to(inquiry()), protector_bytes("server1", "pc1"));
    EXPECT_EQ(block.ups.ui.CommStatus, 2);
}

TEST_F(Inquiries, TheModelIsToldInCapitalsAndOnlyWhileOneIsConnected)
{
    for (const auto &[model, told] : std::vector<std::pair<std::string, std::string>>{
             {"zq500", "ZQ500"}, {"Other-x", "OTHER-X"}, {"UNKNOWN", ""}, {"unknown", ""}, {"", ""}}) {
        set_text(block.ups.ui.upsmodel, model);
        EXPECT_EQ(answer_to(inquiry()), bytes_of({.model = told})) << model;
    }
    set_text(block.ups.ui.upsmodel, "ZR900PL");
    for (const int status : {17, 6}) {
        block.ups.ui.CommStatus = static_cast<std::int8_t>(status);
        EXPECT_EQ(answer_to(inquiry()), bytes_of({.model = "", .commstatus = status}));
    }
}

TEST_F(Inquiries, AnOldMonitorIsToldOfALostLinkWhereThereIsNoUnit)
{
    block.ups.ui.CommStatus = 6;
    EXPECT_EQ(answer_to(inquiry(0x0100)), bytes_of({.model = "", .commstatus = 17}));
    EXPECT_EQ(answer_to(inquiry(0x010F)), bytes_of({.model = "", .commstatus = 17}));
    EXPECT_EQ(answer_to(inquiry(0x0110)), bytes_of({.model = "", .commstatus = 6}));
    EXPECT_EQ(block.ups.ui.CommStatus, 6);
    block.ups.ui.CommStatus = 17;
    EXPECT_EQ(answer_to(inquiry(0x0100)), bytes_of({.model = "", .commstatus = 17}));
}

// The first answer still has the model, because it is chosen before the status is put right.
TEST_F(Inquiries, WithNoPortConfiguredTheStatusOfTheSharedBlockIsPutRight)
{
    block.ups.up.workparam.ComSet = -2;
    EXPECT_EQ(answer_to(inquiry(0x0100)), bytes_of({.commstatus = 6}));
    EXPECT_EQ(block.ups.ui.CommStatus, 6);
    EXPECT_EQ(answer_to(inquiry(0x0100)), bytes_of({.model = "", .commstatus = 6}));
    EXPECT_EQ(answer_to(inquiry()), bytes_of({.model = "", .commstatus = 6}));
}

TEST_F(Inquiries, NamesAreToldInTheEncodingOfTheInquirer)
{
    set_text(block.ups.up.commparam.Agent, "\xC5\xC5\xB8\xBB");  // EUC-JP
    set_text(block.ups.up.commparam.Group, "\xC5\xC5");
    const told_agent shiftjis{.name = "\x93\x64\x8C\xB9", .group = "\x93\x64"};
    EXPECT_EQ(answer_to(inquiry()), bytes_of(shiftjis));
    EXPECT_EQ(answer_to(inquiry(0x0111)), bytes_of(shiftjis));
    EXPECT_EQ(answer_to(inquiry(0x0114)), bytes_of(shiftjis));
    EXPECT_EQ(answer_to(inquiry(0x0115)), bytes_of({.name = "\xC5\xC5\xB8\xBB", .group = "\xC5\xC5"}));
}

TEST_F(Inquiries, TextsWithoutANulAreCutToWholeCharacters)
{
    std::string name;
    for (int i = 0; i < 130; ++i)
        name += "\xC5\xC5";
    set_text(block.ups.up.commparam.Agent, name);
    set_text(block.ups.up.commparam.Group, "0123456789ABCDEF");
    EXPECT_EQ(answer_to(inquiry()).at(8 + 4 + 14), 0);
    EXPECT_EQ(answer_to(inquiry(0x0115)), bytes_of({.name = name.substr(0, 14), .group = "0123456789ABCDE"}));
}

TEST_F(Inquiries, OverAConnectionTheAnswerGoesBackThere)
{
    const int peer = connect_monitor();
    hold(inquiry(), agent.agnet.clilist);
    EXPECT_EQ(daemon_procnetmsg(&agent, 1, 1), 0);
    EXPECT_EQ(receive(peer, 100), bytes_of({}));
    EXPECT_FALSE(readable(monitor, 0));
}

// No route leads to the inquirer: the two interfaces each broadcast the answer, to the inquirer's port.
TEST_F(Inquiries, AnAnswerThatCannotBeSentIsBroadcastOnEveryInterface)
{
    EXPECT_EQ(ask(inquiry(), 0xC0000201), 0);
    EXPECT_EQ(receive(monitor, 200), join({bytes_of({}), bytes_of({})}));
}

TEST(LocalMonitor, IsTheOneOnTheFirstAddressOfThisHostsName)
{
    if (access("/run/voltaria-test", F_OK) != 0)
        GTEST_SKIP() << "adds to /etc/hosts: run this in the sandbox";
    const sockaddr_in own = ip_address(0x0A4D0001, 5);
    const sockaddr_in other = ip_address(0x0A4D0002, 5);
    ASSERT_EQ(sethostname("nowhere", 7), 0);
    EXPECT_EQ(daemon_islocalmonitor(&own), -1);
    std::ofstream("/etc/hosts", std::ios::app) << "10.77.0.1 here\n";
    ASSERT_EQ(sethostname("here", 4), 0);
    EXPECT_EQ(daemon_islocalmonitor(&own), 0);
    EXPECT_EQ(daemon_islocalmonitor(&other), 1);
    ASSERT_EQ(sethostname("nowhere", 7), 0);  // looked up once
    EXPECT_EQ(daemon_islocalmonitor(&own), 0);
}

// What agents say of themselves by UDP, and the sockets that hear it.
#include "monitor/monitor_discover.h"
#include "monitor/monitor_json.h"
#include "monitor/monitor_records.h"
#include "monitor_fake_agent.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using testing::HasSubstr;

template <std::size_t N> static void set_text(std::array<char, N> &field, std::string_view text)
{
    field.fill('\0');
    std::copy(text.begin(), text.end(), field.begin());
}

static UPS_ANSAGENT sample_agent(NSCommands cmd = NSCommands::Reply)
{
    UPS_ANSAGENT agent{};
    agent.cmd = static_cast<std::int32_t>(cmd);
    set_text(agent.Agent,
             cmd == NSCommands::Add ? "\xB4\xC9\xCD\xFD" : "\x8a\xc7\x97\x9d");  // EUC or Shift_JIS
    set_text(agent.upsmodel, cmd == NSCommands::Add ? "Zr900pl" : "ZR900PL");
    set_text(agent.Group, "SALES");
    agent.UPSStatus = UPSSTAT_ACFAIL;
    agent.AgentType = AGENTTYPE_NORMAL;
    agent.BattStatus = BATT_NORMAL;
    agent.CommStatus = COMM_ESTABLISHED;
    return agent;
}

static FOUND_AGENT found(const UPS_ANSAGENT &agent)
{
    const auto news = discover_decode(packet(240, monitor_encode(agent)), "10.0.0.2");
    EXPECT_TRUE(news.has_value());
    return news.value_or(FOUND_AGENT{});
}

TEST(MonitorDiscover, AnswerAndAnnouncementSayTheSame)
{
    const FOUND_AGENT answered = found(sample_agent());
    EXPECT_EQ(answered.name, "管理");
    EXPECT_EQ(answered.group, "SALES");
    EXPECT_EQ(answered.model, "ZR900PL");
    EXPECT_EQ(discover_state(answered), "mains failure, on battery; battery normal");
    EXPECT_EQ(found(sample_agent(NSCommands::Add)), answered);
    EXPECT_EQ(discover_state(found(sample_agent(NSCommands::Delete))), "gone");
}

TEST(MonitorDiscover, AProtectorIsShownWithTheAgentThatProtectsIt)
{
    UPS_ANSPROT protector{};
    protector.cmd = static_cast<std::int32_t>(NSCommands::Reply);
    set_text(protector.Agent, "server1");
    set_text(protector.myname, "pc1");
    const auto news = discover_decode(packet(242, monitor_encode(protector)), "10.0.0.3");
    ASSERT_TRUE(news.has_value());
    EXPECT_TRUE(news->protector);
    EXPECT_EQ(news->name, "pc1");
    EXPECT_THAT(discover_line(*news), HasSubstr("protector"));
    EXPECT_THAT(discover_line(*news), HasSubstr("protected by server1\n"));
}

TEST(MonitorDiscover, DatagramsOfWrongLengthsAndKindsAreNobody)
{
    BYTES answer = packet(240, monitor_encode(sample_agent()));
    answer.push_back(0);
    EXPECT_TRUE(discover_decode(answer, "a").has_value());  // a NUL behind the packet is usual
    answer.push_back(0);
    EXPECT_FALSE(discover_decode(answer, "a").has_value());
    EXPECT_FALSE(discover_decode(std::span(answer).first(99), "a").has_value());
    EXPECT_FALSE(discover_decode({}, "a").has_value());
    EXPECT_FALSE(discover_decode(packet(240, BYTES(91)), "a").has_value());
    EXPECT_FALSE(discover_decode(packet(241, BYTES(92)), "a").has_value());
    EXPECT_FALSE(discover_decode(BYTES{0x10, 1, 1, 240, 3, 0, 0, 0}, "a").has_value());
}

TEST(MonitorDiscover, OneEntryForEachAddressAndNewsOnlyWhenSomethingChanged)
{
    std::vector<FOUND_AGENT> agents;
    FOUND_AGENT agent = found(sample_agent());
    EXPECT_TRUE(discover_merge(agents, agent));
    EXPECT_FALSE(discover_merge(agents, agent));
    agent.ups = UPSSTAT_NORMAL;
    EXPECT_TRUE(discover_merge(agents, agent));
    EXPECT_EQ(agents.size(), 1U);
    agent.address = "10.0.0.9";
    EXPECT_TRUE(discover_merge(agents, agent));
    EXPECT_EQ(agents.size(), 2U);
}

TEST(MonitorDiscover, HostileNamesAreShownHarmless)
{
    UPS_ANSAGENT hostile = sample_agent();
    hostile.Agent.fill('\x1b');
    hostile.Group.fill('\xff');
    hostile.upsmodel.fill('\x07');
    hostile.UPSStatus = 200;
    const std::string table = discover_table({found(hostile)});
    for (const char c : {'\x1b', '\x07', '\xff'})
        EXPECT_EQ(table.find(c), std::string::npos);
    EXPECT_THAT(table, HasSubstr("\\x1B"));
    EXPECT_THAT(agents_json({found(hostile)}), HasSubstr("\\\\xFF"));
}

// ---- Sockets ----

// An agent's UDP socket on a loopback port of its own.
struct UDP_AGENT {
    UDP_AGENT()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port = ntohs(address.sin_port);
    }
    ~UDP_AGENT()
    {
        close(fd);
    }
    UDP_AGENT(const UDP_AGENT &) = delete;
    UDP_AGENT &operator=(const UDP_AGENT &) = delete;

    /// Reads one inquiry and answers it.
    void answer(const BYTES &with)
    {
        std::array<std::uint8_t, 64> buffer;
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t got =
            recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from), &size);
        ASSERT_EQ(got, 28);
        EXPECT_EQ(buffer.at(3), 241);
        EXPECT_EQ(sendto(fd, with.data(), with.size(), 0, reinterpret_cast<const sockaddr *>(&from), size),
                  static_cast<ssize_t>(with.size()));
    }

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::uint16_t port = 0;
};

static constexpr std::chrono::seconds PATIENCE{20};

TEST(MonitorDiscover, AnAnswerFindsItsWayToTheSocketThatAsked)
{
    UDP_AGENT agent;
    DISCOVERY_OPTIONS options;
    options.addresses = {"127.0.0.1"};
    options.inquiry_port = agent.port;
    options.announce_port = agent.port;  // taken: going on without announcements
    DISCOVERY discovery;
    ASSERT_TRUE(monitor_ok(discover_open(options, discovery)));
    EXPECT_LT(discovery.announce_fd, 0);
    EXPECT_NE(discovery.deaf_because, "");
    ASSERT_TRUE(monitor_ok(discover_inquire(discovery)));
    agent.answer(packet(240, monitor_encode(sample_agent())));
    const auto news = discover_receive(discovery, std::chrono::steady_clock::now() + PATIENCE);
    ASSERT_TRUE(news.has_value());
    EXPECT_EQ(news->address, "127.0.0.1");
    EXPECT_EQ(news->name, "管理");
    EXPECT_FALSE(discover_receive(discovery, std::chrono::steady_clock::now()).has_value());
    discover_close(discovery);
}

TEST(MonitorDiscover, AnUnknownHostIsNoAddressToAsk)
{
    DISCOVERY discovery;
    DISCOVERY_OPTIONS options;
    options.addresses = {"no such host"};
    EXPECT_EQ(discover_open(options, discovery).error, MONITOR_ERROR::NameNotFound);
}

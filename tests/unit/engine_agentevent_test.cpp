// The agent events: a tool changed this agent's settings, another agent orders this one down, this one stops.
#include "tests/unit/engine_fixture.h"

#include "wp_field.h"

#include <cstring>
#include <filesystem>

static constexpr std::time_t NOW = 1'078'477'622;

using ids = std::vector<int>;

class AgentEvents : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n Group = Lab\n");
        events[0].EventID = 8;
        events[0].Record = 1;
        events[0].BroadcastType = 3;
        engine.EVENTLOGENABLED = 1;
        ups.up.logparam.MaxEventRec = 200;
        ups.ui.CommStatus = COMM_ESTABLISHED;
    }

    int agent_event(int id, UPS_AGENTDOWNINFO *order = nullptr)
    {
        AGENTEVENT event{id, order};
        return checkagent(&event, &ein, &eout);
    }

    static std::string roles()
    {
        std::string text;
        text += engine.ISPROTECTOR != 0 ? "P" : "";
        text += engine.ISSERVERAGLOW != 0 ? "L" : "";
        text += engine.ISSERVERAGNORMAL != 0 ? "N" : "";
        text += engine.ISSERVERAGHIGH != 0 ? "H" : "";
        return text;
    }

    UPS_AGENTDOWNINFO down{};
};

TEST_F(AgentEvents, ChangedSettingsBringTheRole)
{
    const std::array<std::tuple<const char *, std::uint32_t, const char *>, 8> rows = {{
        {"1", 1, "P"},
        {"4", 4, "L"},
        {"5", 5, "N"},
        {"6", 6, "H"},
        {"2", 6, "H"},
        {"0", 6, "H"},
        {"-1", 6, "H"},
        {"four", 6, "H"},
    }};
    for (const auto &[text, type, role] : rows) {
        write_file(CONFIG_PATH, "\n[ UPS ]\n Group = Lab\n AgentType = " + std::string(text) + "\n");
        EXPECT_EQ(agent_event(1), 0);
        EXPECT_EQ(ups.up.commparam.AgentType, type) << text;
        EXPECT_EQ(roles(), role) << text;
    }
}

TEST_F(AgentEvents, AMissingRoleIsTheHighestAndSaidSo)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n Group = Lab\n");
    EXPECT_EQ(agent_event(1), 0);
    EXPECT_EQ(ups.up.commparam.AgentType, 6U);
    EXPECT_EQ(roles(), "H");
    EXPECT_EQ(error_text(), "Cannot read AgentType from config file");
}

TEST_F(AgentEvents, ChangedSettingsBringTheGroup)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n Group = sixteen letters..\n");
    EXPECT_EQ(agent_event(1), 0);
    EXPECT_EQ(field_view(ups.ui.Group), "sixteen letters");
    EXPECT_EQ(field_view(request.commparam.Group), "sixteen letters");
    write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n Group = x\n");
    EXPECT_EQ(agent_event(1), 0);
    EXPECT_EQ(field_view(ups.ui.Group), "x");
    EXPECT_EQ(field_view(request.commparam.Group), "x");
}

TEST_F(AgentEvents, AMissingGroupIsWrittenBack)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n");
    EXPECT_EQ(agent_event(1), 0);
    EXPECT_EQ(field_view(ups.ui.Group), "Group A");
    EXPECT_EQ(field_view(request.commparam.Group), "Group A");
    EXPECT_EQ(read_file(CONFIG_PATH), "\n[ UPS ]\n AgentType = 4\n\n Group = Group A\n");
    EXPECT_EQ(error_text(), "Cannot read Group from config file");
}

TEST_F(AgentEvents, EveryOtherEventForgetsTheRole)
{
    field_set(down.Agent, "OTHER");
    for (const int id : {2, 4, 0, 3, 5, -1}) {
        for (const std::uint32_t type : {1U, 4U, 5U, 6U}) {
            setrole(type);
            EXPECT_EQ(agent_event(id, &down), 0) << id;
            EXPECT_EQ(roles(), "") << id;
        }
    }
}

TEST_F(AgentEvents, AnotherAgentsOrderIsDueAtOnce)
{
    engine.downreason = AC_FAIL;
    engine.next_off = NOW + 60;
    down.delay = 500;
    field_set(down.Agent, "OTHER");
    EXPECT_EQ(agent_event(2, &down), 0);
    EXPECT_EQ(engine.downreason, OTHERAGEDOWN);
    EXPECT_EQ(engine.next_off, NOW);
    EXPECT_EQ(engine.OTHERAG_off, NOW);
    EXPECT_EQ(field_view(engine.agentname), "OTHER");
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_TRUE(logged().empty());
}

TEST_F(AgentEvents, ASecondOrderChangesNothing)
{
    field_set(down.Agent, "FIRST");
    agent_event(2, &down);
    set_clock(NOW + 30);
    field_set(down.Agent, "SECOND");
    EXPECT_EQ(agent_event(2, &down), 0);
    EXPECT_EQ(engine.downreason, OTHERAGEDOWN);
    EXPECT_EQ(engine.next_off, NOW);
    EXPECT_EQ(engine.OTHERAG_off, NOW);
    EXPECT_EQ(field_view(engine.agentname), "FIRST");
}

TEST_F(AgentEvents, AnOrdersNameMayLackItsEnd)
{
    std::memcpy(down.Agent.data(), "ABCDEFGHIJKLMNOP", 16);
    std::memcpy(down.Group.data(), "group", 5);
    EXPECT_EQ(agent_event(2, &down), 0);
    EXPECT_EQ(field_view(engine.agentname), "ABCDEFGHIJKLMNOP");
}

TEST_F(AgentEvents, AnOrderWithoutItsRecordIsRefused)
{
    EXPECT_EQ(agent_event(2), -1);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.next_off, 0);
}

TEST_F(AgentEvents, TheStopIsLoggedOnce)
{
    AGENTEVENT event{4, nullptr};
    ein.DATA.agentevent = &event;
    EXPECT_EQ(act(18), 0);
    EXPECT_EQ(logged(), ids{8});
}

TEST_F(AgentEvents, AStopThatCannotBeRaisedIsAFailure)
{
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(agent_event(4), -1);
}

TEST_F(AgentEvents, OnceTheMachineGoesDownAgentEventsAreRefusedSilently)
{
    engine.ISSHUTTINGDOWN = 1;
    setrole(5);
    AGENTEVENT event{4, nullptr};
    ein.DATA.agentevent = &event;
    EXPECT_EQ(act(18), 0);
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(roles(), "N");
}

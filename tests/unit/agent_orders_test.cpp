// The orders of monitors and of other agents, from the packet to the engine: which are taken, what exactly is
// handed on, and that nothing but the battery date is answered; and of new settings what the real engine
// reads anew, so that nobody sees it afterwards. The engine is a stand-in that notes its calls.
#include "agent_daemon.h"
#include "agent_daemon_engine.h"
#include "agent_fixture.h"
#include "agent_net.h"
#include "e_a.h"
#include "wp_field.h"

#include <cstring>
#include <functional>

// One call of the engine, with copies of what its pointers led to.
struct ENGINECALL {
    std::int32_t cmd = 0;
    std::uint32_t datatype = 0;
    std::int32_t order = 0;          // AGENTCMD or AGENTEVENT
    std::int32_t number = 0;         // the argument as a number, where it is one
    UPS_AGENTDOWNINFO down{};        // orders 18, agent event 2
    std::array<char, 16> name{};     // order 19
    std::array<char, 12> battime{};  // order 31
    UPS_PROTECTORINFO guarded{};     // order 192
    bool pointed_at_status = false;
    bool in_buffer = false;  // the argument lies in the working buffer
};

static std::vector<ENGINECALL> calls;
static int engine_result = 0;
static BATTCHGTIME battime_answer{};

static bool lies_in_buffer(const void *argument)
{
    const auto *at = static_cast<const std::uint8_t *>(argument);
    return std::greater_equal<>()(at, Daemon_Buffer) && std::less<>()(at, Daemon_Buffer + Daemon_BufferLen);
}

static void note_down(ENGINECALL &call, const UPS_AGENTDOWNINFO *info)
{
    ASSERT_NE(info, nullptr);
    call.down = *info;
    call.in_buffer = lies_in_buffer(info);
}

static void note_order(ENGINECALL &call, const AGENTCMD *order)
{
    ASSERT_NE(order, nullptr);
    call.order = order->cmd;
    if (order->cmd == 18) {
        note_down(call, order->arg.adip);
    } else if (order->cmd == 19) {
        std::copy_n(order->arg.hp, call.name.size(), call.name.begin());
        call.in_buffer = lies_in_buffer(order->arg.hp);
    } else if (order->cmd == 30) {
        EXPECT_EQ(eout.datatype, E_UPSCMD);
        EXPECT_EQ(eout.DATA.acp->arg.bctp, order->arg.bctp);
        *order->arg.bctp = battime_answer;
    } else if (order->cmd == 31) {
        std::memcpy(call.battime.data(), order->arg.bctp, call.battime.size());
        call.in_buffer = lies_in_buffer(order->arg.bctp);
    } else if (order->cmd == 192) {
        call.guarded = *order->arg.pip;
        call.in_buffer = lies_in_buffer(order->arg.pip);
    } else if (order->cmd == 20 || order->cmd == 34) {
        call.number = order->arg.last;
    } else {
        EXPECT_EQ(order->arg.hp, nullptr);
    }
}

int Event_Action(std::int32_t cmd, UPS_EIN_DATA *in, std::int32_t *, UPS_EOUT_DATA *out)
{
    ENGINECALL call;
    call.cmd = cmd;
    call.datatype = in->datatype;
    call.pointed_at_status =
        in->DATA.upsinfop == &agent.aip->ups.ui && in->DATA.upsconfigp == &agent.aip->ups.up &&
        out->DATA.upsinfop == &agent.aip->ups.ui && out->DATA.upsconfigp == &agent.aip->ups.up;
    if (cmd == 18) {
        call.order = in->DATA.agentevent->id;
        note_down(call, in->DATA.agentevent->adip);
    } else if (cmd == 9) {
        EXPECT_EQ(in->DATA.eu.eap, agent.el.data());
        EXPECT_EQ(in->DATA.eu.uip->udp, agent.us.data());
        call.number = in->DATA.eu.uip->nusers;
    } else if (cmd == 10) {
        EXPECT_EQ(in->DATA.schlist, agent.sl);
    } else if (cmd == 11) {
        note_order(call, in->DATA.acp);
    }
    calls.push_back(call);
    return engine_result;
}

class OrderPackets : public AgentTest
{
  protected:
    OrderPackets()
    {
        calls.clear();
        engine_result = 0;
        battime_answer = BATTCHGTIME{};
        ein = UPS_EIN_DATA{};
        eout = UPS_EOUT_DATA{};
        ein_cmd = 0;
        peer = connect_monitor(2);
        client = agent.agnet.clilist;
        agent.agnet.ufd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        set_text(block.ups.ui.upsmodel, "ZM700");
        block.ups.up.commparam.AgentType = 5;
        set_text(block.ups.up.commparam.Group, "Office");
    }

    /// A request of the monitor, as the loop hands it on.
    int ask(const BYTES &request)
    {
        hold(request, client);
        net_forbidagentorder();
        return daemon_procnetmsg(&agent, 1, 1);
    }

    /// A datagram of another agent.
    static int order(const BYTES &request)
    {
        hold(request, nullptr);
        packet_setorigin({agent.agnet.ufd, ip_address(0x0A4D0003, 4114), 0, 0});
        agent.agnet.cnc.sockfd = agent.agnet.ufd;
        return daemon_procnetmsg(&agent, 1, 0);
    }

    void expect_refused(const BYTES &request, const std::string &what)
    {
        calls.clear();
        EXPECT_EQ(ask(request), -1) << what;
        EXPECT_TRUE(calls.empty()) << what;
        EXPECT_TRUE(receive(peer).empty()) << what;
    }

    void expect_taken(const BYTES &request, const std::string &what)
    {
        calls.clear();
        EXPECT_EQ(ask(request), 0) << what;
        ASSERT_EQ(calls.size(), 1U) << what;
        EXPECT_EQ(calls[0].order, request[3]) << what;
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

static BYTES down_data(int type, const BYTES &group, const BYTES &name, int delay = 90)
{
    return join({{22, 7}, le16(delay), le32(type), name, group});
}

static BYTES down_packet(int type, std::string_view group, std::string_view name = "other",
                         int version = 0x0110)
{
    return packet(18, down_data(type, field(group, 16), field(name, 16)), version);
}

// Every order with its one right length.
static const std::vector<std::pair<int, std::size_t>> LENGTHS = {
    {18, 40}, {19, 16}, {20, 4},  {21, 0}, {22, 0}, {25, 0}, {26, 0}, {28, 0},
    {29, 0},  {30, 0},  {31, 12}, {32, 0}, {33, 0}, {34, 4}, {35, 0},
};

TEST_F(OrderPackets, EachReachesTheEngineAsItsCommand)
{
    for (const auto &[id, size] : LENGTHS) {
        expect_taken(packet(id, counting(size)), std::to_string(id));
        EXPECT_EQ(calls[0].cmd, 11) << id;
        EXPECT_EQ(ein_cmd, 11) << id;
        EXPECT_EQ(calls[0].datatype, E_UPSCMD) << id;
        EXPECT_TRUE(calls[0].pointed_at_status) << id;
        EXPECT_FALSE(calls[0].in_buffer) << id;
        EXPECT_EQ(ein.DATA.acp, nullptr) << id;  // nothing is left that points at the stack
        EXPECT_EQ(eout.DATA.acp, nullptr) << id;
        EXPECT_EQ(receive(peer).size(), id == 30 ? 20U : 0U) << id;
    }
}

TEST_F(OrderPackets, AByteMoreOrLessIsRefused)
{
    for (const auto &[id, size] : LENGTHS) {
        if (size > 0)
            expect_refused(packet(id, counting(size - 1)), std::to_string(id) + " short");
        expect_refused(packet(id, counting(size + 1)), std::to_string(id) + " long");
        expect_refused(packet(id, counting(1000)), std::to_string(id) + " very long");
        expect_refused(header(0x0110, 0, id, 0), std::to_string(id) + " of no length");
    }
}

TEST_F(OrderPackets, TheEnginesRefusalIsTheHandlers)
{
    engine_result = -1;
    for (const auto &[id, size] : LENGTHS) {
        EXPECT_EQ(ask(packet(id, counting(size))), -1) << id;
        EXPECT_TRUE(receive(peer).empty()) << id;
    }
    EXPECT_EQ(calls.size(), LENGTHS.size());
}

TEST_F(OrderPackets, OnlyTheBatteryDateMayBeReadWithoutPrivilege)
{
    for (const auto &[id, size] : LENGTHS) {
        hold(packet(id, counting(size)), client);
        EXPECT_EQ(daemon_procnetmsg(&agent, 0, 1), id == 30 ? 0 : -1) << id;
    }
    EXPECT_EQ(calls.size(), 1U);
}

TEST_F(OrderPackets, ADatagramIsDispatchedByTheSameTable)
{
    for (const auto &[id, size] : LENGTHS) {
        if (id == 18)
            continue;
        calls.clear();
        EXPECT_EQ(order(packet(id, counting(size))), id == 30 ? -1 : 0) << id;  // its answer has no way
        EXPECT_EQ(calls.size(), 1U) << id;
    }
}

TEST_F(OrderPackets, NumbersAreHandedOnWhole)
{
    for (const int id : {20, 34})
        for (const std::int64_t number : {0LL, 1LL, 7LL, 0x01020304LL, 0x7FFFFFFFLL, -1LL}) {
            expect_taken(packet(id, le32(number)), std::to_string(id));
            EXPECT_EQ(calls[0].number, number) << id;
        }
}

TEST_F(OrderPackets, TheOldestModelsTakeNoSwitchAndNoBatteryDate)
{
    for (const char *model : {"ZR401", "ZR6020", "ZR401PLUS", "ZR6020X"}) {
        set_text(block.ups.ui.upsmodel, model);
        for (const auto &[id, size] : LENGTHS) {
            const bool refused = (id >= 28 && id <= 35);
            if (refused)
                expect_refused(packet(id, counting(size)), std::string(model) + std::to_string(id));
            else
                expect_taken(packet(id, counting(size)), std::string(model) + std::to_string(id));
        }
    }
}

TEST_F(OrderPackets, ModelsThatOnlyLookLikeTheOldestTakeThem)
{
    for (const char *model : {"ZR40", "ZR602", "zr401", "XZR401", "ZR400", "UNKNOWN", ""}) {
        set_text(block.ups.ui.upsmodel, model);
        for (const int id : {28, 29, 32, 33, 35})
            expect_taken(packet(id), model + std::to_string(id));
        expect_taken(packet(31, counting(12)), model);
    }
}

TEST_F(OrderPackets, TheDetectionLevelIsRefusedForTwoSeries)
{
    for (const auto &[model, taken] :
         {std::pair{"ZR900PL", false}, std::pair{"ZQ500", false}, std::pair{"ZR", false},
          std::pair{"ZM700", true}, std::pair{"Z", true}, std::pair{"zr900", true}, std::pair{"", true}}) {
        set_text(block.ups.ui.upsmodel, model);
        if (taken)
            expect_taken(packet(34, le32(1)), model);
        else
            expect_refused(packet(34, le32(1)), model);
    }
}

TEST_F(OrderPackets, AnOldMonitorKnowsNoBatteryDateOfOneSeries)
{
    for (const char *model : {"ZQ500", "ZR900PL"})
        for (const int version : {0x0100, 0x0110, 0x0101, 0x0105, 0x010F, 0x00FF, 0x0115, 0}) {
            set_text(block.ups.ui.upsmodel, model);
            const bool refused = version < 0x0110 && model[1] == 'Q';
            for (const BYTES &request : {packet(31, counting(12), version), packet(30, {}, version)}) {
                if (refused)
                    expect_refused(request, model);
                else
                    expect_taken(request, model);
                receive(peer);
            }
        }
}

TEST_F(OrderPackets, TheNewBatteryDateIsHandedOnWhole)
{
    expect_taken(packet(31, counting(12)), "date");
    const BYTES expected = counting(12);
    EXPECT_EQ(std::memcmp(calls[0].battime.data(), expected.data(), expected.size()), 0);
}

TEST_F(OrderPackets, TheBatteryDateIsAnsweredAsItsRecord)
{
    const BYTES bytes = counting(12);
    std::memcpy(&battime_answer, bytes.data(), bytes.size());
    block.ups.protocol = 0x0703;
    EXPECT_EQ(ask(packet(30)), 0);
    EXPECT_EQ(receive(peer), packet(31, bytes, 0x0110, 3));
}

TEST_F(OrderPackets, ACancelsNameIsHandedOnAsItCame)
{
    for (const std::string_view name : {"desk", "ABCDEFGHIJKLMNOP", "\x93\x64\x8C\xB9", ""}) {
        expect_taken(packet(19, field(name, 16)), "cancel");
        EXPECT_EQ(field_view(calls[0].name), name);
    }
}

TEST_F(OrderPackets, AProtectedHostsRequestForTimeIsHandedOnWhole)
{
    const BYTES data = counting(46);
    for (const std::uint32_t own : {0U, 2U, 4U, 6U}) {
        calls.clear();
        block.ups.up.commparam.AgentType = own;
        EXPECT_EQ(order(packet(192, data)), 0) << own;
        ASSERT_EQ(calls.size(), 1U) << own;
        EXPECT_EQ(calls[0].cmd, 11);
        EXPECT_EQ(calls[0].datatype, E_UPSCMD);
        EXPECT_EQ(calls[0].order, 192);
        EXPECT_TRUE(calls[0].pointed_at_status);
        EXPECT_FALSE(calls[0].in_buffer);
        EXPECT_EQ(std::memcmp(&calls[0].guarded, data.data(), data.size()), 0);
        EXPECT_EQ(ein.DATA.acp, nullptr);
    }
}

TEST_F(OrderPackets, AProtectorGivesNobodyTime)
{
    block.ups.up.commparam.AgentType = AGENTTYPE_PROTECTOR;
    EXPECT_EQ(order(packet(192, counting(46))), -1);
    EXPECT_TRUE(calls.empty());
}

TEST_F(OrderPackets, ARequestForTimeOfAnotherLengthIsRefused)
{
    for (const std::size_t size : {0U, 45U, 47U})
        EXPECT_EQ(order(packet(192, counting(size))), -1) << size;
    EXPECT_TRUE(calls.empty());
}

// ---- a monitor's shutdown order

TEST_F(OrderPackets, AMonitorsOrderIsItsOwnWhateverItClaimsToBe)
{
    EXPECT_EQ(ask(down_packet(5, "Else")), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].cmd, 11);
    EXPECT_EQ(calls[0].order, 18);
    EXPECT_EQ(calls[0].down.DownId, 22);
    EXPECT_EQ(calls[0].down.reserved, 7);
    EXPECT_EQ(calls[0].down.delay, 90);
    EXPECT_EQ(calls[0].down.AgentType, 0U);
    EXPECT_EQ(field_view(calls[0].down.Agent), "other");
    EXPECT_EQ(field_view(calls[0].down.Group), "Else");
}

TEST_F(OrderPackets, ADelayIsSigned)
{
    for (const int delay : {0, 1, 32767, -1, -32768}) {
        calls.clear();
        EXPECT_EQ(ask(packet(18, down_data(0, BYTES(16), BYTES(16), delay))), 0);
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].down.delay, delay);
    }
}

TEST_F(OrderPackets, NamesWithoutTheirEndAreCutToTheirFields)
{
    EXPECT_EQ(ask(down_packet(0, "abcdefghijklmnop", "ABCDEFGHIJKLMNOP")), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(field_view(calls[0].down.Agent), "ABCDEFGHIJKLMNO");
    EXPECT_EQ(field_view(calls[0].down.Group), "abcdefghijklmno");
}

TEST_F(OrderPackets, JapaneseNamesBecomeEucJp)
{
    EXPECT_EQ(ask(down_packet(0, "\xB1\xB2", "\x93\x64\x8C\xB9")), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(field_view(calls[0].down.Agent), "\xC5\xC5\xB8\xBB");
    EXPECT_EQ(field_view(calls[0].down.Group), "\x8E\xB1\x8E\xB2");
}

TEST_F(OrderPackets, AnotherLanguageKeepsWhatMightBeEither)
{
    for (const int version : {0x0115, 0x0105, 5, 7, -1}) {
        calls.clear();
        EXPECT_EQ(ask(down_packet(0, "\xB1\xB2", "\x93\x64\x8C\xB9", version)), 0);
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(field_view(calls[0].down.Agent), "\xC5\xC5\xB8\xBB");  // can only be Shift_JIS
        EXPECT_EQ(field_view(calls[0].down.Group), "\xB1\xB2");
    }
    for (const int version : {0x0111, 0x0114, 4, 1}) {
        calls.clear();
        EXPECT_EQ(ask(down_packet(0, "\xB1\xB2", "x", version)), 0);
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(field_view(calls[0].down.Group), "\x8E\xB1\x8E\xB2") << version;
    }
}

TEST_F(OrderPackets, AWideNameThatGrowsIsCutBetweenCharacters)
{
    const std::string kana(16, '\xB1');  // two bytes each in EUC-JP
    EXPECT_EQ(ask(down_packet(0, "g", kana)), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(field_view(calls[0].down.Agent), "\x8E\xB1\x8E\xB1\x8E\xB1\x8E\xB1\x8E\xB1\x8E\xB1\x8E\xB1");
}

// ---- another agent's order

TEST_F(OrderPackets, AnAgentsOrderIsAnAgentEvent)
{
    EXPECT_EQ(order(down_packet(5, "Office", "other host")), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].cmd, 18);
    EXPECT_EQ(ein_cmd, 18);
    EXPECT_EQ(calls[0].order, 2);
    EXPECT_EQ(calls[0].datatype, E_AGENTEVENT);
    EXPECT_TRUE(calls[0].pointed_at_status);
    EXPECT_FALSE(calls[0].in_buffer);
    EXPECT_EQ(ein.DATA.agentevent, nullptr);
    EXPECT_EQ(calls[0].down.AgentType, 5U);
    EXPECT_EQ(field_view(calls[0].down.Agent), "OTHER HOST");
    EXPECT_EQ(field_view(calls[0].down.Group), "OFFICE");
}

struct rank_row {
    std::uint32_t own;
    int sender;
    int result;
    bool taken;
};

TEST_F(OrderPackets, OnlyEqualAndHigherRanksOrderAnAgentDown)
{
    const std::vector<rank_row> rows = {
        {4, 4, 0, true},
        {4, 5, 0, true},
        {4, 6, 0, true},
        {5, 4, 0, false},
        {5, 5, 0, true},
        {5, 6, 0, true},
        {6, 4, 0, false},
        {6, 5, 0, false},
        {6, 6, 0, true},
        {1, 4, 0, true},
        {0, 4, 0, true},
        {4, 3, -1, false},
        {4, 1, -1, false},
        {4, 0, -1, false},
        {7, 6, -1, false},
        {7, 9, -1, false},
        {0xFFFFFFFF, 6, -1, false},
        {6, 7, 0, true},
        {6, -1, 0, true},
    };
    for (const rank_row &row : rows) {
        calls.clear();
        block.ups.up.commparam.AgentType = row.own;
        EXPECT_EQ(order(down_packet(row.sender, "Office")), row.result) << row.own << " " << row.sender;
        EXPECT_EQ(calls.size(), row.taken ? 1U : 0U) << row.own << " " << row.sender;
    }
}

TEST_F(OrderPackets, AnAgentOfAnotherGroupIsNotObeyed)
{
    for (const auto &[group, taken] :
         {std::pair{"Office", true}, std::pair{"office", true}, std::pair{"oFFICE", true},
          std::pair{"Offices", false}, std::pair{"Offic", false}, std::pair{"", false},
          std::pair{" Office", false}}) {
        calls.clear();
        EXPECT_EQ(order(down_packet(6, group)), 0) << group;
        EXPECT_EQ(calls.size(), taken ? 1U : 0U) << group;
    }
    EXPECT_EQ(field_view(block.ups.up.commparam.Group), "Office");  // comparing changes nothing
}

TEST_F(OrderPackets, GroupsOfFullLengthAndInJapaneseAreCompared)
{
    set_text(block.ups.up.commparam.Group, "abcdefghijklmno");
    EXPECT_EQ(order(down_packet(6, "ABCDEFGHIJKLMNOP")), 0);
    EXPECT_EQ(calls.size(), 1U);
    set_text(block.ups.up.commparam.Group, "\xC5\xC5\xB8\xBB");
    EXPECT_EQ(order(down_packet(6, "\x93\x64\x8C\xB9")), 0);
    EXPECT_EQ(calls.size(), 2U);
    set_text(block.ups.up.commparam.Group, "abcdefghijklmnop");  // a record without its end
    EXPECT_EQ(order(down_packet(6, "ABCDEFGHIJKLMNOP")), 0);
    EXPECT_EQ(calls.size(), 3U);
}

TEST_F(OrderPackets, AnAgentThatIgnoresTheOthersIsToldNothing)
{
    block.ups.ui.bIgnoreDown = 1;
    EXPECT_EQ(order(down_packet(6, "Office")), 0);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(order(down_packet(3, "Office")), -1);  // what is refused is refused all the same
}

TEST_F(OrderPackets, ADatagramWithATrailingNulIsAnOrder)
{
    BYTES request = down_packet(6, "Office");
    request.push_back(0);
    EXPECT_EQ(order(request), 0);
    EXPECT_EQ(calls.size(), 1U);
}

TEST_F(OrderPackets, AnotherLengthIsNoOrderOfAnAgent)
{
    for (const std::size_t size : {0U, 39U, 41U}) {
        EXPECT_EQ(order(packet(18, counting(size))), -1) << size;
        EXPECT_TRUE(calls.empty()) << size;
    }
}

TEST_F(OrderPackets, TheAnswerToAnOsInquiryIsNoShutdownOrder)
{
    EXPECT_EQ(ask(packet(17, counting(28))), -1);
    EXPECT_EQ(receive(peer).size(), 36U);
    EXPECT_TRUE(calls.empty());
}

TEST_F(OrderPackets, AnOsInquiryOfTheLengthOfAShutdownOrderIsNone)
{
    BYTES request = down_packet(6, "Office");
    request[3] = 17;
    expect_refused(request, "from a monitor");
    EXPECT_EQ(order(request), -1);
    EXPECT_TRUE(calls.empty());
}

// ---- new settings, as the engine is handed them

TEST_F(OrderPackets, TheEngineIsHandedTheUsersThatCameAndNoOthers)
{
    for (USERSDATA &user : agent.us) {
        user.UserID = 9;
        user.UserName.fill('o');
        user.Address.fill('o');
        user.Email.fill('o');
    }
    const BYTES user = join({{3, 0}, field("root", 21), field("here", 260), field("r@x", 260)});
    EXPECT_EQ(ask(packet(81, join({counting(13348), user}))), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].cmd, 9);
    EXPECT_EQ(calls[0].datatype, E_EVENTACTION);
    EXPECT_EQ(calls[0].number, 1);
    EXPECT_EQ(std::memcmp(agent.us.data(), user.data(), user.size()), 0);
    for (std::size_t i = 1; i < USER_COUNT; ++i) {
        EXPECT_EQ(agent.us[i].UserID, 0xFF) << i;
        EXPECT_EQ(field_view(agent.us[i].UserName), "") << i;
        EXPECT_EQ(field_view(agent.us[i].Address), "") << i;
        EXPECT_EQ(field_view(agent.us[i].Email), "") << i;
    }
}

TEST_F(OrderPackets, TheEngineIsHandedTheWholeConfigurationConverted)
{
    const auto japanese = [](std::size_t size) { return field("\x93\x64\x8C\xB9", size); };
    const BYTES numbers = counting(76);
    EXPECT_EQ(ask(packet(82, join({numbers, japanese(260), japanese(260), japanese(260), japanese(16)}))), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].cmd, 8);
    EXPECT_EQ(calls[0].datatype, E_UPSCONFIG);
    EXPECT_TRUE(calls[0].pointed_at_status);
    const UPS_PARAM &live = block.ups.up;
    EXPECT_EQ(std::memcmp(&live, numbers.data(), numbers.size()), 0);
    for (const std::string_view text :
         {field_view(live.commparam.Agent), field_view(live.commparam.Group),
          field_view(live.commparam.lpszAccount), field_view(live.commparam.lpszDomain)})
        EXPECT_EQ(text, "\xC5\xC5\xB8\xBB");
}

TEST_F(OrderPackets, TheEngineIsHandedTheSchedulesThatCame)
{
    EXPECT_EQ(ask(packet(80, counting(60))), 0);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].cmd, 10);
    EXPECT_EQ(calls[0].datatype, E_SCHEDULE);
    EXPECT_EQ(ask(packet(80)), 0);
    EXPECT_EQ(agent.sl, nullptr);
    EXPECT_EQ(calls.size(), 2U);
}

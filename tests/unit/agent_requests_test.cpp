// The requests of monitors: which are taken, and what is answered.
#include "agent_daemon.h"
#include "agent_daemon_requests.h"
#include "agent_fixture.h"
#include "filehandle_battdate.h"

#include <cstring>
#include <fstream>

static constexpr char CONFIG[] = "/usr/lib/voltaria/config";

static void put_battery_date(const std::string &value)
{
    std::ofstream(CONFIG, std::ios::trunc) << "[ UPS ]\nChangeBattTime = " << value << "\n";
}

class Requests : public AgentTest
{
  protected:
    Requests()
    {
        unlink(CONFIG);
        peer = connect_monitor(2);
        client = agent.agnet.clilist;
    }

    ~Requests() override
    {
        unlink(CONFIG);
    }

    /// Hands a request of the monitor to the dispatcher.
    int ask(const BYTES &request, int privileged = 1)
    {
        hold(request, client);
        return daemon_procnetmsg(&agent, privileged, 1);
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

TEST_F(Requests, KindsThatNobodyHandlesAreRefusedSilently)
{
    for (int id = 0; id < 256; ++id) {
        const bool listed = (id >= 16 && id <= 26) || (id >= 28 && id <= 35) || (id >= 80 && id <= 82) ||
                            id == 192 || id == 194 || id == 195 || id == 197 || id == 241;
        if (listed)
            continue;
        EXPECT_EQ(ask(packet(id, counting(40))), -1) << id;
        EXPECT_TRUE(receive(peer).empty()) << id;
    }
}

TEST_F(Requests, CommandsAndSettingsNeedThePrivilege)
{
    for (const int id : {18, 19, 20, 21, 22, 25, 26, 28, 29, 31, 32, 33, 34, 35, 80, 81, 82, 194})
        for (const int privileged : {0, 2, -1}) {
            EXPECT_EQ(ask(packet(id, counting(40)), privileged), -1) << id;
            EXPECT_TRUE(receive(peer).empty()) << id;
        }
}

TEST_F(Requests, QueriesNeedNoPrivilege)
{
    EXPECT_EQ(ask(packet(16), 0), 0);
    EXPECT_EQ(receive(peer).size(), 228U);
    EXPECT_EQ(ask(packet(24, {6, 0, 0, 0, 0, 0, 0, 0}), 0), 0);
    EXPECT_EQ(receive(peer).size(), 8U);
}

TEST_F(Requests, SubRequestSixIsAnsweredEmpty)
{
    block.ups.protocol = 0x0702;
    EXPECT_EQ(ask(packet(24, {6, 0, 0, 0, 0, 0, 0, 0})), 0);
    EXPECT_EQ(receive(peer), packet(68, {}, 0x0110, 2));
    EXPECT_EQ(daemon_answernullcloseapp(&agent), 0);
    EXPECT_EQ(receive(peer), packet(68, {}, 0x0110, 2));
}

TEST_F(Requests, OtherSubRequestsAreRefused)
{
    for (int sub = 0; sub < 256; ++sub) {
        if (sub >= 1 && sub <= 6)
            continue;
        EXPECT_EQ(ask(packet(24, {static_cast<std::uint8_t>(sub), 0, 0, 0, 0, 0, 0, 0})), -1) << sub;
    }
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(Requests, ASubRequestIsNotTakenFromBehindTheEndOfItsPacket)
{
    std::fill_n(packet_bytes().begin() + 8, 8, std::uint8_t{6});
    for (const std::size_t size : {0U, 1U, 7U})
        EXPECT_EQ(ask(packet(24, BYTES(size, 6))), -1) << size;
    EXPECT_TRUE(receive(peer).empty());
}

static BYTES osinfo(int lang, int os, const BYTES &name = counting(16))
{
    return join({le32(lang), le32(os), le32(0x01020304), name});
}

TEST_F(Requests, OsInfoIsEchoedWithTheSystemOfTheAgent)
{
    // The dispatcher goes on to the shutdown order, which the length of the answer rules out.
    EXPECT_EQ(ask(packet(17, osinfo(1, 7))), -1);
    EXPECT_EQ(receive(peer), packet(17, osinfo(1, 2), 0x0110, 1));
    EXPECT_EQ(client->lang, 1);
    EXPECT_EQ(client->os, 7);
}

TEST_F(Requests, OsInfoOfAnotherLengthIsIgnored)
{
    client->os = 5;
    for (const std::size_t size : {0U, 27U, 29U, 1000U}) {
        hold(packet(17, counting(size)), client);
        EXPECT_EQ(daemon_recvsendosinfo(&agent), -1) << size;
    }
    hold(header(0x0110, 0, 17, 0), client);
    EXPECT_EQ(daemon_recvsendosinfo(&agent), -1);
    EXPECT_TRUE(receive(peer).empty());
    EXPECT_EQ(client->os, 5);
    EXPECT_EQ(client->lang, 2);
}

TEST_F(Requests, OsInfoCountsForTheMonitorThatSentItOnly)
{
    const int other = connect_monitor(2, 1001);
    NETCLI *second = client->next;
    hold(packet(17, osinfo(1, 7)), second);
    EXPECT_EQ(daemon_recvsendosinfo(&agent), 0);
    EXPECT_EQ(receive(other).size(), 36U);
    EXPECT_TRUE(receive(peer).empty());
    EXPECT_EQ(second->lang, 1);
    EXPECT_EQ(second->os, 7);
    EXPECT_EQ(client->lang, 2);
    EXPECT_EQ(client->os, 0);
}

TEST_F(Requests, OsInfoFromAnAddressThatIsNotTheMonitorsIsAnsweredAndNotKept)
{
    hold(packet(17, osinfo(1, 7)), client);
    UPS_CLIADDR origin = packet_origin();
    origin.addr.sin_port = htons(4000);
    packet_setorigin(origin);
    EXPECT_EQ(daemon_recvsendosinfo(&agent), 0);
    EXPECT_EQ(receive(peer), packet(17, osinfo(1, 2), 0x0110, 1));
    EXPECT_EQ(client->lang, 2);
    EXPECT_EQ(client->os, 0);
}

TEST_F(Requests, AShutdownOrderOfAnotherLengthIsRefused)
{
    for (const std::size_t size : {0U, 28U, 39U, 41U})
        EXPECT_EQ(ask(packet(18, counting(size))), -1) << size;
}

// Offsets within the status record.
enum : std::size_t {
    AT_COMID = 0,
    AT_BATTSTATUS = 2,
    AT_COMMSTATUS = 3,
    AT_BUZZER = 12,
    AT_AUTOTEST = 16,
    AT_MODEL = 36,
    AT_UPSDATA = 68,
    AT_BATTDATE = 108,
    AT_GROUP = 116,
};

class Status : public Requests
{
  protected:
    Status()
    {
        const BYTES marks = counting(sizeof block.ups.ui);
        std::memcpy(&block.ups.ui, marks.data(), marks.size());
        block.ups.ui.ComId = 1;
        block.ups.ui.CommStatus = 2;
        set_text(block.ups.ui.upsmodel, "ZR900PL");
        set_text(block.ups.ui.Group, "office");
    }

    /// The record as it lies in the shared block, for the test to change.
    [[nodiscard]] BYTES stored() const
    {
        const auto *from = reinterpret_cast<const std::uint8_t *>(&block.ups.ui);
        return {from, from + sizeof block.ups.ui};
    }

    static void put(BYTES &record, std::size_t at, const BYTES &bytes)
    {
        std::copy(bytes.begin(), bytes.end(), record.begin() + static_cast<long>(at));
    }

    void expect_status(const BYTES &record, int version = 0x0110)
    {
        const BYTES before = stored();
        EXPECT_EQ(ask(packet(16, {}, version)), 0);
        EXPECT_EQ(receive(peer), packet(64, record, 0x0110, 1));
        EXPECT_EQ(stored(), before);  // asking changes nothing
    }

    /// What no monitor may take for live values, cleared.
    [[nodiscard]] BYTES without_live_values() const
    {
        BYTES record = stored();
        record[AT_BATTSTATUS] = 0;
        put(record, AT_BUZZER, BYTES(8));
        put(record, AT_MODEL, BYTES(32));
        put(record, AT_UPSDATA, BYTES(16));
        return record;
    }
};

TEST_F(Status, ThePortIsCountedFromOneAndTheRestSentAsItIs)
{
    for (const auto port : std::array<std::int8_t, 4>{0, 1, 2, 3}) {
        block.ups.ui.ComId = port;
        BYTES expected = stored();
        expected[AT_COMID] = static_cast<std::uint8_t>(port + 1);
        expect_status(expected);
    }
}

TEST_F(Status, ANegativePortIsSentAsItIs)
{
    block.ups.ui.ComId = -1;
    expect_status(stored());
    block.ups.ui.ComId = -2;
    expect_status(stored());
}

TEST_F(Status, AnOldMonitorSeesTheSameWhileTheUnitIsConnected)
{
    block.ups.ui.ComId = -1;
    expect_status(stored(), 0x0100);
}

TEST_F(Status, PrototypeIsTheLowByteOfTheProtocol)
{
    block.ups.protocol = 0x0105;
    EXPECT_EQ(ask(packet(16)), 0);
    EXPECT_EQ(receive(peer)[2], 5);
}

TEST_F(Status, AnUnknownModelIsSentAsNineBlanks)
{
    block.ups.ui.ComId = -1;
    set_text(block.ups.ui.upsmodel, "UNKNOWN");
    BYTES expected = stored();
    put(expected, AT_MODEL, field("         ", 32));
    expect_status(expected);
    for (const char *model : {"unknown", "UNKNOWN2", "UNKNOW", ""}) {
        set_text(block.ups.ui.upsmodel, model);
        expect_status(stored());
    }
}

TEST_F(Status, TheGroupIsSentInShiftJis)
{
    block.ups.ui.ComId = -1;
    set_text(block.ups.ui.Group, "\xC5\xC5\xB8\xBB");  // EUC-JP
    BYTES expected = stored();
    put(expected, AT_GROUP, field("\x93\x64\x8C\xB9", 16));
    expect_status(expected);
}

TEST_F(Status, WithoutAUnitConfiguredNoLiveValueIsSent)
{
    block.ups.ui.CommStatus = 6;
    for (const auto port : std::array<std::int8_t, 3>{0, -1, -2}) {
        block.ups.ui.ComId = port;
        BYTES expected = without_live_values();
        expected[AT_COMID] = 254;
        expect_status(expected);
        expect_status(expected, 0x0111);
        expect_status(expected, 0x7FFF);
    }
}

TEST_F(Status, AnOldMonitorSeesALostLinkWhereNoUnitIsConfigured)
{
    block.ups.ui.CommStatus = 6;
    BYTES expected = without_live_values();
    expected[AT_COMID] = 255;
    expected[AT_COMMSTATUS] = 17;
    for (const int version : {0x0100, 0x010F, 0, -1})
        expect_status(expected, version);
}

TEST_F(Status, AnUnknownModelIsEmptyToo)
{
    set_text(block.ups.ui.upsmodel, "UNKNOWN");
    block.ups.ui.CommStatus = 6;
    BYTES expected = without_live_values();
    expected[AT_COMID] = 254;
    expect_status(expected);
}

TEST_F(Status, SeriesZqWithoutAUnitShowsTheStoredBatteryDate)
{
    set_text(block.ups.ui.upsmodel, "ZQ500");
    block.ups.ui.CommStatus = 6;
    put_battery_date("126,03,04,05,06,07");
    BYTES expected = without_live_values();
    expected[AT_COMID] = 254;
    put(expected, AT_BATTDATE, {126, 3, 4, 5, 6, 7});  // the two bytes behind stay
    expect_status(expected);
}

TEST_F(Status, SeriesZqWithoutAUnitAndWithoutAStoredDateShowsNone)
{
    set_text(block.ups.ui.upsmodel, "ZQ500");
    block.ups.ui.CommStatus = 6;
    BYTES expected = without_live_values();
    expected[AT_COMID] = 254;
    put(expected, AT_BATTDATE, BYTES(6));
    expect_status(expected);
    std::ofstream(CONFIG) << "[ UPS ]\nOther = 1\n";
    expect_status(expected);
}

TEST_F(Status, OtherSeriesWithoutAUnitKeepTheDateOfTheRecord)
{
    put_battery_date("126,03,04,05,06,07");
    block.ups.ui.CommStatus = 6;
    for (const char *model : {"ZR900PL", "zq500", "XZQ", ""}) {
        set_text(block.ups.ui.upsmodel, model);
        BYTES expected = without_live_values();
        expected[AT_COMID] = 254;
        expect_status(expected);
    }
}

TEST_F(Status, ALostLinkShowsNoLiveValueAndNoBatteryDate)
{
    block.ups.ui.CommStatus = 17;
    put_battery_date("126,03,04,05,06,07");
    for (const char *model : {"ZR900PL", "ZQ500", "UNKNOWN"})
        for (const auto port : std::array<std::int8_t, 3>{2, -1, -2}) {
            set_text(block.ups.ui.upsmodel, model);
            block.ups.ui.ComId = port;
            BYTES expected = without_live_values();
            expected[AT_COMID] = 255;
            put(expected, AT_BATTDATE, BYTES(6));
            expect_status(expected);
            expect_status(expected, 0x0100);
        }
}

TEST_F(Status, AnyOtherLinkStateIsSentAsItIs)
{
    block.ups.ui.ComId = -1;
    for (const auto state : std::array<std::int8_t, 5>{0, 1, 3, 16, -1}) {
        block.ups.ui.CommStatus = state;
        expect_status(stored());
    }
}

struct battdate_row {
    const char *text;
    UPS_TIMEINFO date;
};

TEST_F(Requests, TheStoredBatteryDateIsReadFieldByField)
{
    const std::vector<battdate_row> rows = {
        {"126,03,04,05,06,07", {126, 3, 4, 5, 6, 7, 77}},
        {"099,12,31,23,59,59", {99, 12, 31, 23, 59, 59, 77}},
        {"1,2,3,4,5,6", {1, 2, 3, 4, 5, 6, 77}},
        {"126,03,04", {126, 3, 4, 0, 0, 0, 77}},
        {"126", {126, 0, 0, 0, 0, 0, 77}},
        {"126,03;04,05", {126, 3, 0, 0, 0, 0, 77}},
        {"none", {0, 0, 0, 0, 0, 0, 77}},
        {"", {0, 0, 0, 0, 0, 0, 77}},
    };
    for (const battdate_row &row : rows) {
        put_battery_date(row.text);
        UPS_TIMEINFO date{9, 9, 9, 9, 9, 9, 77};
        EXPECT_EQ(battdate_read(date), 0) << row.text;
        EXPECT_EQ(std::memcmp(&date, &row.date, sizeof date), 0) << row.text;
    }
}

TEST_F(Requests, AMissingBatteryDateLeavesTheRecordAlone)
{
    UPS_TIMEINFO date{9, 8, 7, 6, 5, 4, 3};
    EXPECT_EQ(battdate_read(date), -1);
    std::ofstream(CONFIG) << "[ UPS ]\nOther = 1\n[ Else ]\nChangeBattTime = 1,1,1,1,1,1\n";
    EXPECT_EQ(battdate_read(date), -1);
    EXPECT_EQ(date.year, 9);
    EXPECT_EQ(date.wReserver, 3);
}

// The wire's byte order and the records that are encoded field by field.
#include "agent_fixture.h"
#include "agent_wire.h"

#include <functional>

TEST(Wire, NumbersAreLittleEndian)
{
    BYTES bytes(10, 0xEE);
    wire_put8(bytes, 0, 0x1FF);
    wire_put16(bytes, 1, 0x1234);
    wire_put16(bytes, 3, -2);
    wire_put32(bytes, 5, 0x89ABCDEF);
    EXPECT_EQ(bytes, (BYTES{0xFF, 0x34, 0x12, 0xFE, 0xFF, 0xEF, 0xCD, 0xAB, 0x89, 0xEE}));
    EXPECT_EQ(wire_get16(bytes, 1), 0x1234);
    EXPECT_EQ(wire_get16(bytes, 3), 0xFFFE);
    EXPECT_EQ(wire_get32(bytes, 5), 0x89ABCDEFU);
}

TEST(Wire, HeaderIsEightBytes)
{
    BYTES bytes(9, 0xEE);
    wire_puthead(bytes, {0x0110, 1, 64, 0x01020304});
    EXPECT_EQ(bytes, (BYTES{0x10, 0x01, 0x01, 64, 0x04, 0x03, 0x02, 0x01, 0xEE}));
    const UPS_PACKET_HEAD head = wire_gethead(bytes);
    EXPECT_EQ(head.Version, 0x0110);
    EXPECT_EQ(head.Prototype, 1);
    EXPECT_EQ(head.DataId, 64);
    EXPECT_EQ(head.Length, 0x01020304U);
}

TEST(Wire, HeaderReadsVersionSignedAndTheRestUnsigned)
{
    const UPS_PACKET_HEAD head = wire_gethead(header(-1, 0xFF, 0xF2, 0xFFFFFFFF));
    EXPECT_EQ(head.Version, -1);
    EXPECT_EQ(head.Prototype, 0xFF);
    EXPECT_EQ(head.DataId, 0xF2);
    EXPECT_EQ(head.Length, 0xFFFFFFFFU);
}

TEST(Wire, OsInfoGoesThereAndBackUnchanged)
{
    const BYTES bytes = join({le32(2), le32(-5), le32(0x11223344), counting(16)});
    const VTOSINFO info = wire_getosinfo(bytes);
    EXPECT_EQ(info.lang, 2);
    EXPECT_EQ(info.os, -5);
    EXPECT_EQ(info.reserved, 0x11223344);
    BYTES back(28);
    wire_putosinfo(back, info);
    EXPECT_EQ(back, bytes);
}

// One field of the status record: how a test marks it, and where the mark must come out.
struct field_row {
    const char *name;
    std::size_t at;
    std::function<void(UPS_UPSINFO &)> mark;
    BYTES bytes;
};

static void mark_time(UPS_TIMEINFO &time)
{
    time = {0x81, -2, 3, 4, 5, 6, 0x0807};
}

static const BYTES TIME_BYTES = {0x81, 0xFE, 3, 4, 5, 6, 7, 8};

template <std::size_t N> static void mark_text(std::array<char, N> &text)
{
    const BYTES bytes = counting(N);
    std::copy(bytes.begin(), bytes.end(), text.begin());
}

static void mark_event(UPS_EVENTLOGINFO &event)
{
    event.EventId = 0x91;
    event.byDownToEvt = -1;
    event.wReserve = 0x0A0B;
    mark_time(event.timeinfo);
    mark_text(event.AgentName);
}

static const BYTES EVENT_BYTES = join({{0x91, 0xFF, 0x0B, 0x0A}, TIME_BYTES, counting(16)});

static void mark_result(SELFTESTRESULT &result)
{
    result.Result = 0xA1B2C3D4;
    mark_time(result.timeinfo);
}

static const BYTES RESULT_BYTES = join({{0xD4, 0xC3, 0xB2, 0xA1}, TIME_BYTES});
static const BYTES LONG_BYTES = {0x78, 0x56, 0x34, 0x92};
static constexpr std::int32_t LONG = static_cast<std::int32_t>(0x92345678);

static const std::vector<field_row> UPSINFO_FIELDS = {
    {"ComId", 0, [](UPS_UPSINFO &i) { i.ComId = -2; }, {0xFE}},
    {"upsstat", 1, [](UPS_UPSINFO &i) { i.upsstat = 33; }, {33}},
    {"BattStatus", 2, [](UPS_UPSINFO &i) { i.BattStatus = 34; }, {34}},
    {"CommStatus", 3, [](UPS_UPSINFO &i) { i.CommStatus = 17; }, {17}},
    {"CommandDownS", 4, [](UPS_UPSINFO &i) { i.CommandDownS = LONG; }, LONG_BYTES},
    {"ShutdownS", 8, [](UPS_UPSINFO &i) { i.ShutdownS = LONG; }, LONG_BYTES},
    {"BuzzerCan", 12, [](UPS_UPSINFO &i) { i.BuzzerCan = LONG; }, LONG_BYTES},
    {"AutoTestCan", 16, [](UPS_UPSINFO &i) { i.AutoTestCan = LONG; }, LONG_BYTES},
    {"bIgnoreDown", 20, [](UPS_UPSINFO &i) { i.bIgnoreDown = LONG; }, LONG_BYTES},
    {"bAutoReboot", 24, [](UPS_UPSINFO &i) { i.bAutoReboot = LONG; }, LONG_BYTES},
    {"iDetectionLvl", 28, [](UPS_UPSINFO &i) { i.iDetectionLvl = LONG; }, LONG_BYTES},
    {"AgentType", 32, [](UPS_UPSINFO &i) { i.AgentType = 0x92345678; }, LONG_BYTES},
    {"upsmodel", 36, [](UPS_UPSINFO &i) { mark_text(i.upsmodel); }, counting(32)},
    {"InPutINT", 68, [](UPS_UPSINFO &i) { i.upsdata.InPutINT = 0x1203; }, {3, 0x12}},
    {"OutPutINT", 70, [](UPS_UPSINFO &i) { i.upsdata.OutPutINT = -3; }, {0xFD, 0xFF}},
    {"InPutREM", 72, [](UPS_UPSINFO &i) { i.upsdata.InPutREM = 1; }, {1}},
    {"OutPutREM", 73, [](UPS_UPSINFO &i) { i.upsdata.OutPutREM = 2; }, {2}},
    {"FreqInputINT", 74, [](UPS_UPSINFO &i) { i.upsdata.FreqInputINT = 50; }, {50}},
    {"FreqInputREM", 75, [](UPS_UPSINFO &i) { i.upsdata.FreqInputREM = 3; }, {3}},
    {"FreqOutputINT", 76, [](UPS_UPSINFO &i) { i.upsdata.FreqOutputINT = 60; }, {60}},
    {"FreqOutputREM", 77, [](UPS_UPSINFO &i) { i.upsdata.FreqOutputREM = 4; }, {4}},
    {"TempINT", 78, [](UPS_UPSINFO &i) { i.upsdata.TempINT = -1; }, {0xFF}},
    {"TempREM", 79, [](UPS_UPSINFO &i) { i.upsdata.TempREM = -1; }, {0xFF}},
    {"BattVolINT", 80, [](UPS_UPSINFO &i) { i.upsdata.BattVolINT = 27; }, {27}},
    {"BattVolREM", 81, [](UPS_UPSINFO &i) { i.upsdata.BattVolREM = 5; }, {5}},
    {"BattCap", 82, [](UPS_UPSINFO &i) { i.upsdata.BattCap = 99; }, {99}},
    {"Load", 83, [](UPS_UPSINFO &i) { i.upsdata.Load = 150; }, {150}},
    {"timeinfo", 84, [](UPS_UPSINFO &i) { mark_time(i.timeinfo); }, TIME_BYTES},
    {"nextdown", 92, [](UPS_UPSINFO &i) { mark_time(i.nextdown); }, TIME_BYTES},
    {"nextboot", 100, [](UPS_UPSINFO &i) { mark_time(i.nextboot); }, TIME_BYTES},
    {"PreChangeBatt", 108, [](UPS_UPSINFO &i) { mark_time(i.PreChangeBatt); }, TIME_BYTES},
    {"Group", 116, [](UPS_UPSINFO &i) { mark_text(i.Group); }, counting(16)},
    {"events[0]", 132, [](UPS_UPSINFO &i) { mark_event(i.events[0]); }, EVENT_BYTES},
    {"events[1]", 160, [](UPS_UPSINFO &i) { mark_event(i.events[1]); }, EVENT_BYTES},
    {"sftResBattery", 188, [](UPS_UPSINFO &i) { mark_result(i.sftResBattery); }, RESULT_BYTES},
    {"sftResUPS", 200, [](UPS_UPSINFO &i) { mark_result(i.sftResUPS); }, RESULT_BYTES},
    {"ufStatus", 212, [](UPS_UPSINFO &i) { i.ufStatus = 0xF00D; }, {0x0D, 0xF0}},
    {"wReserve", 214, [](UPS_UPSINFO &i) { i.wReserve = -2; }, {0xFE, 0xFF}},
    {"bACPI", 216, [](UPS_UPSINFO &i) { i.bACPI = LONG; }, LONG_BYTES},
};

TEST(Wire, EachFieldOfTheStatusRecordHasItsPlace)
{
    for (const field_row &row : UPSINFO_FIELDS) {
        UPS_UPSINFO info{};
        row.mark(info);
        BYTES bytes(221, 0xEE);
        wire_putupsinfo(bytes, info);
        BYTES expected(221);
        expected[220] = 0xEE;
        std::copy(row.bytes.begin(), row.bytes.end(), expected.begin() + static_cast<long>(row.at));
        EXPECT_EQ(bytes, expected) << row.name;
    }
}

TEST(Wire, TheFieldsOfTheStatusRecordCoverAllItsBytes)
{
    std::size_t end = 0;
    for (const field_row &row : UPSINFO_FIELDS) {
        EXPECT_EQ(row.at, end) << row.name;
        end = row.at + row.bytes.size();
    }
    EXPECT_EQ(end, sizeof(UPS_UPSINFO));
}

// ---- records that are laid out on this host as they are on the wire, so that their bytes can be compared

static BYTES without_zeros(std::size_t count)
{
    BYTES bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(i % 251 + 1);
    return bytes;
}

/// `get` decodes the record byte for byte, from the place it is told and from no other.
template <typename RECORD, typename GET> static RECORD expect_decoded(GET get, const char *name)
{
    constexpr std::size_t AT = 3;
    const BYTES bytes = without_zeros(sizeof(RECORD) + AT);
    const RECORD record = get(bytes, AT);
    EXPECT_EQ(std::memcmp(&record, bytes.data() + AT, sizeof record), 0) << name;
    return record;
}

/// `put` encodes it back, between what stands before and behind.
template <typename RECORD, typename PUT>
static void expect_encoded(const RECORD &record, PUT put, const char *name)
{
    constexpr std::size_t AT = 2;
    BYTES bytes(AT + sizeof record + 1, 0xEE);
    put(bytes, AT, record);
    EXPECT_EQ(std::memcmp(&record, bytes.data() + AT, sizeof record), 0) << name;
    EXPECT_EQ(bytes[AT - 1], 0xEE) << name;
    EXPECT_EQ(bytes.back(), 0xEE) << name;
}

template <typename RECORD, typename GET, typename PUT>
static void expect_both_ways(GET get, PUT put, const char *name)
{
    expect_encoded(expect_decoded<RECORD>(get, name), put, name);
}

template <typename RECORD, typename PUT> static void expect_sent(PUT put, const char *name)
{
    RECORD record;
    const BYTES bytes = without_zeros(sizeof record);
    std::memcpy(static_cast<void *>(&record), bytes.data(), sizeof record);
    expect_encoded(record, put, name);
}

TEST(Wire, RecordsGoThereAndBackUnchanged)
{
    expect_both_ways<UPS_TIMEINFO>(wire_gettime, wire_puttime, "time");
    expect_both_ways<SCHEDULEINFO>(wire_getschedule, wire_putschedule, "schedule");
    expect_both_ways<UPS_EVENTINFO>(wire_getevent, wire_putevent, "event");
    expect_both_ways<USERSDATA>(wire_getuser, wire_putuser, "user");
    expect_both_ways<BATTCHGTIME>(
        [](WIREVIEW b, std::size_t at) { return wire_getbattime(b.subspan(at)); },
        [](WIREBYTES b, std::size_t at, const BATTCHGTIME &r) { wire_putbattime(b.subspan(at), r); },
        "battery date");
    expect_both_ways<UPS_PARAM>(
        [](WIREVIEW b, std::size_t at) { return wire_getparam(b.subspan(at)); },
        [](WIREBYTES b, std::size_t at, const UPS_PARAM &r) { wire_putparam(b.subspan(at), r); },
        "configuration");
    expect_both_ways<PROTECTORCFG>(
        [](WIREVIEW b, std::size_t at) { return wire_getprotectorcfg(b.subspan(at)); },
        [](WIREBYTES b, std::size_t at, const PROTECTORCFG &r) { wire_putprotectorcfg(b.subspan(at), r); },
        "protector");
    expect_decoded<UPS_PROTECTORINFO>(
        [](WIREVIEW b, std::size_t at) { return wire_getprotectorinfo(b.subspan(at)); }, "time request");
    expect_sent<UPS_EVENTLOGINFO>(wire_puteventlog, "event log");
    expect_sent<UPS_DATALOGINFO>(wire_putdatalog, "data log");
}

TEST(Wire, NothingBehindAFieldsTextIsSent)
{
    UPS_EVENTINFO event{};
    event.Command.fill('x');
    event.Command[2] = '\0';
    BYTES bytes(284, 0xEE);
    wire_putevent(bytes, 0, event);
    EXPECT_EQ(BYTES(bytes.begin() + 24, bytes.end()), field("xx", 260));
    UPS_UPSINFO info{};
    info.upsmodel.fill('m');
    info.upsmodel[0] = '\0';
    info.events[1].AgentName.fill('a');
    info.events[1].AgentName[15] = '\0';
    BYTES status(220, 0xEE);
    wire_putupsinfo(status, info);
    EXPECT_EQ(BYTES(status.begin() + 36, status.begin() + 68), field("", 32));
    EXPECT_EQ(BYTES(status.begin() + 172, status.begin() + 188), field(std::string(15, 'a'), 16));
}

// A record whose every char array is one letter and then garbage.
template <typename RECORD> static RECORD scribbled()
{
    RECORD record;
    std::memset(static_cast<void *>(&record), 'x', sizeof record);
    return record;
}

template <std::size_t N> static BYTES letter_of(std::array<char, N> &text)
{
    text[1] = '\0';
    return field("x", N);
}

TEST(Wire, NothingBehindATextOfTheOtherRecordsIsSent)
{
    auto event = scribbled<UPS_EVENTLOGINFO>();
    const BYTES agent_name = letter_of(event.AgentName);
    BYTES bytes(28, 0xEE);
    wire_puteventlog(bytes, 0, event);
    EXPECT_EQ(BYTES(bytes.begin() + 12, bytes.end()), agent_name);

    auto user = scribbled<USERSDATA>();
    const BYTES texts = join({letter_of(user.UserName), letter_of(user.Address), letter_of(user.Email)});
    bytes.assign(543, 0xEE);
    wire_putuser(bytes, 0, user);
    EXPECT_EQ(BYTES(bytes.begin() + 2, bytes.end()), texts);

    auto param = scribbled<UPS_PARAM>();
    UPS_COMMPARAM &comm = param.commparam;
    const BYTES names = join({letter_of(comm.Agent), letter_of(comm.lpszAccount), letter_of(comm.lpszDomain),
                              letter_of(comm.Group)});
    bytes.assign(872, 0xEE);
    wire_putparam(bytes, param);
    EXPECT_EQ(BYTES(bytes.begin() + 76, bytes.end()), names);

    auto guard = scribbled<PROTECTORCFG>();
    const BYTES guard_name = letter_of(guard.lpszAgentName);
    bytes.assign(20, 0xEE);
    wire_putprotectorcfg(bytes, guard);
    EXPECT_EQ(BYTES(bytes.begin() + 4, bytes.end()), guard_name);
}

// The records on the wire, byte for byte, and the framing of answers.
#include "monitor/monitor.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

using BYTES = std::vector<std::uint8_t>;

static BYTES counting_bytes(std::size_t count)
{
    BYTES bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

template <typename ARRAY> static BYTES as_vector(const ARRAY &bytes)
{
    return {bytes.begin(), bytes.end()};
}

// ---- Header ----

TEST(MonitorCodec, HeaderIsEightLittleEndianBytes)
{
    const HEAD_BYTES bytes = monitor_encode_head({PACKET_VERSION, 1, 64, 228});
    EXPECT_EQ(as_vector(bytes), (BYTES{0x10, 0x01, 0x01, 0x40, 0xE4, 0x00, 0x00, 0x00}));
}

TEST(MonitorCodec, HeaderIsReadBack)
{
    UPS_PACKET_HEAD head{};
    ASSERT_TRUE(monitor_decode_head(BYTES{0x34, 0x12, 0xFE, 0xC6, 0x78, 0x56, 0x34, 0x92}, head));
    EXPECT_EQ(head.Version, 0x1234);
    EXPECT_EQ(head.Prototype, 0xFE);
    EXPECT_EQ(head.DataId, 198);
    EXPECT_EQ(head.Length, 0x92345678U);
}

TEST(MonitorCodec, HeaderOfAnotherSizeIsRefused)
{
    UPS_PACKET_HEAD head{};
    EXPECT_FALSE(monitor_decode_head(BYTES(7), head));
    EXPECT_FALSE(monitor_decode_head(BYTES(9), head));
}

// ---- VTOSINFO ----

TEST(MonitorCodec, OsInformationIsTwentyEightBytes)
{
    VTOSINFO info{1, 2, -1, {}};
    info.osname = {'L', 'i', 'n', 'u', 'x'};
    BYTES expected{1, 0, 0, 0, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 'L', 'i', 'n', 'u', 'x'};
    expected.resize(28);
    EXPECT_EQ(as_vector(monitor_encode_osinfo(info)), expected);
}

TEST(MonitorCodec, OsInformationIsReadBack)
{
    BYTES bytes = counting_bytes(28);
    VTOSINFO info{};
    ASSERT_TRUE(monitor_decode_osinfo(bytes, info));
    EXPECT_EQ(info.lang, 0x03020100);
    EXPECT_EQ(info.os, 0x07060504);
    EXPECT_EQ(info.reserved, 0x0B0A0908);
    EXPECT_EQ(info.osname.front(), 12);
    EXPECT_EQ(info.osname.back(), 27);
    bytes.push_back(0);
    EXPECT_FALSE(monitor_decode_osinfo(bytes, info));
}

// ---- UPS_UPSINFO ----

static void expect_time_at(const UPS_TIMEINFO &time, int offset)
{
    const auto byte = [offset](int i) { return static_cast<std::int8_t>(offset + i); };
    EXPECT_EQ(time.year, offset);
    EXPECT_EQ(time.month, byte(1));
    EXPECT_EQ(time.day, byte(2));
    EXPECT_EQ(time.hour, byte(3));
    EXPECT_EQ(time.minute, byte(4));
    EXPECT_EQ(time.second, byte(5));
    EXPECT_EQ(time.wReserver, static_cast<std::int16_t>((offset + 7) << 8 | (offset + 6)));
}

static std::uint32_t word_at(unsigned offset)
{
    return offset | (offset + 1) << 8 | (offset + 2) << 16 | (offset + 3) << 24;
}

static UPS_UPSINFO decoded_counting_record()
{
    UPS_UPSINFO info{};
    EXPECT_TRUE(monitor_decode_upsinfo(counting_bytes(220), info));
    return info;
}

TEST(MonitorCodec, StatusCodesAndFlagsComeFromTheirOffsets)
{
    const UPS_UPSINFO info = decoded_counting_record();
    EXPECT_EQ(info.ComId, 0);
    EXPECT_EQ(info.upsstat, 1);
    EXPECT_EQ(info.BattStatus, 2);
    EXPECT_EQ(info.CommStatus, 3);
    EXPECT_EQ(info.CommandDownS, 0x07060504);
    EXPECT_EQ(info.ShutdownS, 0x0B0A0908);
    EXPECT_EQ(info.BuzzerCan, 0x0F0E0D0C);
    EXPECT_EQ(info.AutoTestCan, 0x13121110);
    EXPECT_EQ(info.bIgnoreDown, 0x17161514);
    EXPECT_EQ(info.bAutoReboot, 0x1B1A1918);
    EXPECT_EQ(info.iDetectionLvl, 0x1F1E1D1C);
    EXPECT_EQ(info.AgentType, 0x23222120U);
    EXPECT_EQ(info.upsmodel.front(), 36);
    EXPECT_EQ(info.upsmodel.back(), 67);
}

TEST(MonitorCodec, MeasurementsComeFromTheirOffsets)
{
    const UPSDATA data = decoded_counting_record().upsdata;
    EXPECT_EQ(data.InPutINT, 0x4544);
    EXPECT_EQ(data.OutPutINT, 0x4746);
    EXPECT_EQ(data.InPutREM, 72);
    EXPECT_EQ(data.OutPutREM, 73);
    EXPECT_EQ(data.FreqInputINT, 74);
    EXPECT_EQ(data.FreqInputREM, 75);
    EXPECT_EQ(data.FreqOutputINT, 76);
    EXPECT_EQ(data.FreqOutputREM, 77);
    EXPECT_EQ(data.TempINT, 78);
    EXPECT_EQ(data.TempREM, 79);
    EXPECT_EQ(data.BattVolINT, 80);
    EXPECT_EQ(data.BattVolREM, 81);
    EXPECT_EQ(data.BattCap, 82);
    EXPECT_EQ(data.Load, 83);
}

TEST(MonitorCodec, TimesGroupEventsAndTestsComeFromTheirOffsets)
{
    const UPS_UPSINFO info = decoded_counting_record();
    expect_time_at(info.timeinfo, 84);
    expect_time_at(info.nextdown, 92);
    expect_time_at(info.nextboot, 100);
    expect_time_at(info.PreChangeBatt, 108);
    EXPECT_EQ(info.Group.front(), 116);
    EXPECT_EQ(info.events[0].EventId, 132);
    EXPECT_EQ(info.events[0].byDownToEvt, static_cast<std::int8_t>(133));
    expect_time_at(info.events[0].timeinfo, 136);
    EXPECT_EQ(info.events[0].AgentName.front(), static_cast<char>(144));
    EXPECT_EQ(info.events[1].EventId, 160);
    expect_time_at(info.events[1].timeinfo, 164);
    EXPECT_EQ(info.events[1].AgentName.back(), static_cast<char>(187));
    EXPECT_EQ(info.sftResBattery.Result, word_at(188));
    expect_time_at(info.sftResBattery.timeinfo, 192);
    EXPECT_EQ(info.sftResUPS.Result, word_at(200));
    expect_time_at(info.sftResUPS.timeinfo, 204);
    EXPECT_EQ(info.ufStatus, 0xD5D4);
    EXPECT_EQ(info.wReserve, static_cast<std::int16_t>(0xD7D6));
    EXPECT_EQ(info.bACPI, static_cast<std::int32_t>(word_at(216)));
}

TEST(MonitorCodec, StatusEncodesToTheBytesItWasDecodedFrom)
{
    EXPECT_EQ(as_vector(monitor_encode_upsinfo(decoded_counting_record())), counting_bytes(220));
}

TEST(MonitorCodec, StatusOfAnotherSizeIsRefusedAndLeavesTheRecord)
{
    UPS_UPSINFO info{};
    info.ComId = 77;
    EXPECT_FALSE(monitor_decode_upsinfo(BYTES(219), info));
    EXPECT_FALSE(monitor_decode_upsinfo(BYTES(221), info));
    EXPECT_FALSE(monitor_decode_upsinfo({}, info));
    EXPECT_EQ(info.ComId, 77);
}

// ---- Framing ----

TEST(MonitorStream, PacketIsTakenWholeHoweverItIsCut)
{
    const BYTES bytes{0x10, 0x01, 0x01, 0x40, 0x0B, 0, 0, 0, 'a', 'b', 'c'};
    MONITOR_STREAM stream;
    MONITOR_PACKET packet;
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
        monitor_stream_feed(stream, std::span(bytes).subspan(i, 1));
        EXPECT_EQ(monitor_stream_next(stream, packet), i < 7 ? STREAM_STATE::NeedMore : STREAM_STATE::Header);
    }
    monitor_stream_feed(stream, std::span(bytes).last(1));
    ASSERT_EQ(monitor_stream_next(stream, packet), STREAM_STATE::Packet);
    EXPECT_EQ(packet.head.DataId, 64);
    EXPECT_EQ(packet.data, (BYTES{'a', 'b', 'c'}));
    EXPECT_EQ(monitor_stream_next(stream, packet), STREAM_STATE::NeedMore);
}

TEST(MonitorStream, SeveralPacketsInOneReadAreTakenOneByOne)
{
    MONITOR_STREAM stream;
    MONITOR_PACKET packet;
    monitor_stream_feed(stream, BYTES{0x10, 1, 1, 68, 8, 0, 0, 0, 0x10, 1, 1, 79, 9, 0, 0, 0, 'x', 0x10});
    ASSERT_EQ(monitor_stream_next(stream, packet), STREAM_STATE::Packet);
    EXPECT_EQ(packet.head.DataId, 68);
    EXPECT_TRUE(packet.data.empty());
    ASSERT_EQ(monitor_stream_next(stream, packet), STREAM_STATE::Packet);
    EXPECT_EQ(packet.head.DataId, 79);
    EXPECT_EQ(packet.data, (BYTES{'x'}));
    EXPECT_EQ(monitor_stream_next(stream, packet), STREAM_STATE::NeedMore);
}

static STREAM_STATE state_of_header(const BYTES &header)
{
    MONITOR_STREAM stream;
    MONITOR_PACKET packet;
    monitor_stream_feed(stream, header);
    return monitor_stream_next(stream, packet);
}

TEST(MonitorStream, ImpossibleLengthsAreRefusedAtTheHeader)
{
    EXPECT_EQ(state_of_header({0x10, 1, 1, 64, 7, 0, 0, 0}), STREAM_STATE::Bad);
    EXPECT_EQ(state_of_header({0x10, 1, 1, 64, 0, 0, 0, 0}), STREAM_STATE::Bad);
    EXPECT_EQ(state_of_header({0x10, 1, 1, 64, 1, 0, 0x20, 0}), STREAM_STATE::Bad);
    EXPECT_EQ(state_of_header({0x10, 1, 1, 64, 0xFF, 0xFF, 0xFF, 0xFF}), STREAM_STATE::Bad);
    EXPECT_EQ(state_of_header({0x10, 1, 1, 64, 0, 0, 0x20, 0}), STREAM_STATE::Header);
}

TEST(MonitorStream, AnotherVersionIsNotOurProtocol)
{
    EXPECT_EQ(state_of_header({0x00, 1, 1, 64, 8, 0, 0, 0}), STREAM_STATE::Bad);
    EXPECT_EQ(state_of_header({'H', 'T', 'T', 'P', '/', '1', '.', '1'}), STREAM_STATE::Bad);
}

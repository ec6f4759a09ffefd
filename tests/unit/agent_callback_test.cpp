// What the engine asks of monitors and of the UPS process, code by code.
#include "agent_channel_fixture.h"
#include "e_a.h"

class CallBack : public ChannelTest
{
  protected:
    /// The argument area: its three numbers and the bytes in use.
    void expect_argument(const BYTES &bytes) const
    {
        EXPECT_EQ(block.ba2u.msglen, static_cast<int>(bytes.size()));
        EXPECT_EQ(block.ba2u.msgseqno, 1);
        EXPECT_EQ(block.ba2u.msgremained, 0);
        EXPECT_EQ(BYTES(block.ba2u.buf.begin(), block.ba2u.buf.begin() + static_cast<long>(bytes.size())),
                  bytes);
    }

    void spoil_argument()
    {
        block.ba2u.msglen = block.ba2u.msgseqno = block.ba2u.msgremained = 99;
        block.ba2u.buf.fill('#');
    }
};

TEST_F(CallBack, PlainCommandsAreOneWordEach)
{
    const std::vector<std::pair<int, std::uint32_t>> rows = {
        {4, 0x07000000},     {32, 0x04000000},      {64, 0x0A000000},
        {128, 0x0B000000},   {256, 0x09000000},     {512, 0x08000000},
        {32768, 0x0F000000}, {0x10000, 0x0E000000}, {0x40000, 0x0D000000},
    };
    for (const auto &[code, word] : rows) {
        spoil_argument();
        EXPECT_EQ(Event_CallBack(code, nullptr, 0, 0), 0) << code;
        EXPECT_EQ(words(), std::vector<std::uint32_t>{word}) << code;
        EXPECT_EQ(block.ba2u.msglen, 99) << code;
    }
}

TEST_F(CallBack, NothingToDoIsSuccessAndUnknownCodesAreRefused)
{
    EXPECT_EQ(Event_CallBack(0, nullptr, 0, 0), 0);
    for (const int code : {3, 5, 6, 7, 9, 12, 24, 48, 96, 4097, 0x18000, 0x100000, -1, 0x7FFFFFFF})
        EXPECT_EQ(Event_CallBack(code, nullptr, 1, 1), -1) << code;
    EXPECT_TRUE(words().empty());
}

TEST_F(CallBack, SwitchingTheUnitOffCarriesDelayAndOffTimeAndGivesTheAnswer)
{
    for (const auto &[answer, result] : {std::pair{DONE, 0}, std::pair{FAILED, -1}}) {
        spoil_argument();
        std::uint32_t sent = 0;
        std::jthread ups([&, answer = answer] {
            EXPECT_TRUE(readable(agent.chna2u.actpipe[0]));
            sent = take_word();
            expect_argument(join({le32(90), le32(-300)}));
            reply(sent | answer);
        });
        EXPECT_EQ(Event_CallBack(2, nullptr, 90, -300), result);
        ups.join();
        EXPECT_EQ(sent, 0x06000000U);
    }
}

TEST_F(CallBack, ASelfTestCarriesItsLengthOrTenSeconds)
{
    for (const auto &[value, seconds] :
         {std::pair{25, 25}, std::pair{0, 10}, std::pair{-1, -1}, std::pair{1, 1}}) {
        spoil_argument();
        EXPECT_EQ(Event_CallBack(8, nullptr, 77, value), 0);
        EXPECT_EQ(words(), std::vector<std::uint32_t>{0x03000000});
        expect_argument(le32(seconds));
    }
}

// Units that know no long test run a plain one of this length.
TEST_F(CallBack, ALongSelfTestCarriesTenSecondsWhateverTheOrderBefore)
{
    for (const int value : {0, 25}) {
        spoil_argument();
        EXPECT_EQ(Event_CallBack(16, nullptr, 77, value), 0);
        EXPECT_EQ(words(), std::vector<std::uint32_t>{0x02000000});
        expect_argument(le32(10));
    }
}

TEST_F(CallBack, StoringTheBatteryDateCarriesTwelveBytes)
{
    BYTES date = counting(12);
    spoil_argument();
    EXPECT_EQ(Event_CallBack(1024, date.data(), 0, 0), 0);
    EXPECT_EQ(words(), std::vector<std::uint32_t>{0x0C000000});
    expect_argument(counting(12));
    EXPECT_EQ(Event_CallBack(1024, nullptr, 0, 0), -1);
}

TEST_F(CallBack, TheBatteryDateIsTakenFromTheSharedBlock)
{
    block.ups.ui.BattStatus = -2;
    block.ups.ui.PreChangeBatt = {126, 3, 4, 5, 6, 7, 8};
    BATTCHGTIME date{9, {9, 9, 9, 9, 9, 9, 9}};
    EXPECT_EQ(Event_CallBack(2048, &date, 0, 0), 0);
    EXPECT_EQ(words(), std::vector<std::uint32_t>{0x00050000});
    EXPECT_EQ(date.uBattStatus, 0xFFFFFFFEU);
    EXPECT_EQ(date.BattTime.year, 126);
    EXPECT_EQ(date.BattTime.month, 3);
    EXPECT_EQ(date.BattTime.day, 4);
    EXPECT_EQ(date.BattTime.hour, 9);  // the rest stays as it was
    EXPECT_EQ(date.BattTime.second, 9);
    EXPECT_EQ(date.BattTime.wReserver, 9);
}

TEST_F(CallBack, ABatteryDateThatCannotBeAskedForIsLeftAlone)
{
    while (daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON) == 0)
        ;
    BATTCHGTIME date{9, {9, 9, 9, 9, 9, 9, 9}};
    EXPECT_EQ(Event_CallBack(2048, &date, 0, 0), -1);
    EXPECT_EQ(date.uBattStatus, 9U);
    EXPECT_EQ(date.BattTime.year, 9);
}

TEST_F(CallBack, ADetectionLevelIsTwoWords)
{
    const std::vector<std::pair<int, std::vector<std::uint32_t>>> rows = {
        {1, {0x30000000, 0x60000000}},
        {2, {0x40000000, 0x60000000}},
        {3, {0x30000000, 0x50000000}},
        {4, {0x40000000, 0x50000000}},
        {0, {}},
    };
    for (const auto &[level, sent] : rows) {
        EXPECT_EQ(Event_CallBack(0x20000, nullptr, 0, level), 0) << level;
        EXPECT_EQ(words(), sent) << level;
    }
    for (const int level : {-1, 5, 100})
        EXPECT_EQ(Event_CallBack(0x20000, nullptr, 0, level), -1) << level;
    EXPECT_TRUE(words().empty());
}

TEST_F(CallBack, TheSecondWordOfALevelIsNotSentWhenTheFirstFails)
{
    while (daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON) == 0)
        ;
    const std::size_t lying = words().size();
    for (std::size_t i = 0; i < lying; ++i)
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0);
    EXPECT_EQ(Event_CallBack(0x20000, nullptr, 0, 1), -1);
    EXPECT_EQ(words().size(), lying);
}

TEST_F(CallBack, WithoutAPortCommandsSucceedUnsent)
{
    block.ups.ui.ComId = -1;
    for (const int code : {2, 4, 8, 16, 32, 64, 128, 256, 512, 32768, 0x10000, 0x40000})
        EXPECT_EQ(Event_CallBack(code, nullptr, 1, 1), 0) << code;
    EXPECT_EQ(Event_CallBack(0x20000, nullptr, 0, 3), 0);
    EXPECT_TRUE(words().empty());
}

TEST_F(CallBack, AMessageGoesToTheMonitorsOfItsLanguage)
{
    const int japanese = connect_monitor(1);
    const int english = connect_monitor(2);
    const int unnamed = connect_monitor(0);
    char text[] = "UPS Ac fail";
    const BYTES bytes = packet(79, BYTES(text, text + 11), 0x0110, 1);
    EXPECT_EQ(Event_CallBack(1, text, 2, 0), 0);
    EXPECT_EQ(receive(english), bytes);
    EXPECT_TRUE(receive(japanese).empty());
    EXPECT_TRUE(receive(unnamed).empty());
    EXPECT_EQ(Event_CallBack(1, text, 1, 0), 0);
    EXPECT_EQ(receive(japanese), bytes);
    EXPECT_EQ(receive(unnamed), bytes);
    EXPECT_TRUE(receive(english).empty());
}

TEST_F(CallBack, AMessageWithoutTextIsAHeader)
{
    const int peer = connect_monitor(1);
    EXPECT_EQ(Event_CallBack(1, nullptr, 1, 0), 0);
    char empty[] = "";
    EXPECT_EQ(Event_CallBack(1, empty, 1, 0), 0);
    EXPECT_EQ(receive(peer), join({packet(79, {}, 0x0110, 1), packet(79, {}, 0x0110, 1)}));
}

TEST_F(CallBack, ANulFollowsTheTextInTheBuffer)
{
    connect_monitor(1);
    packet_bytes()[12] = 0x5A;
    char text[] = "four";
    EXPECT_EQ(Event_CallBack(1, text, 1, 0), 0);
    EXPECT_EQ(packet_bytes()[12], 0);
}

TEST_F(CallBack, ALongMessageGrowsTheBuffer)
{
    const int peer = connect_monitor(1);
    std::string text(50000, 'x');
    EXPECT_EQ(Event_CallBack(1, text.data(), 1, 0), 0);
    EXPECT_EQ(receive(peer, 50008), packet(79, BYTES(50000, 'x'), 0x0110, 1));
    EXPECT_GE(Daemon_NetBufLen, 50008U);
}

TEST_F(CallBack, AMessageThatFailsForOneMonitorIsAFailure)
{
    const int gone = connect_monitor(1);
    const int there = connect_monitor(1);
    shutdown(gone, SHUT_RDWR);
    char text[] = "x";
    EXPECT_EQ(Event_CallBack(1, text, 1, 0), -1);
    EXPECT_EQ(receive(there), packet(79, {'x'}, 0x0110, 1));
}

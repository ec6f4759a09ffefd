// Pages of the two logs as monitors ask for them, from tidy files and from spoilt ones.
#include "tests/unit/engine_fixture.h"

#include "wp_field.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <filesystem>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string event_line(int id)
{
    std::array<char, 64> line;
    std::snprintf(line.data(), line.size(), "21/11/2026 13:14:15 %3d 255            host\n", id);
    return line.data();
}

static std::string data_line(int load)
{
    std::array<char, 80> line;
    std::snprintf(line.data(), line.size(), "21/11/2026 13:14:15,101.5, 99.7,%3d,50.1,25.3,13.8,60.2,100\n",
                  load);
    return line.data();
}

static std::string lines(std::string (*line)(int), int count)
{
    std::string text;
    for (int i = 1; i <= count; i++)
        text += line(i % 256);
    return text;
}

class EventPages : public Engine
{
  protected:
    void TearDown() override
    {
        delete[] out.eventlogarray;
        Engine::TearDown();
    }

    int page(std::int32_t first, std::int32_t counts)
    {
        delete[] out.eventlogarray;
        out = {777, nullptr};
        const LOGRANGE range = {first, counts};
        return geteventlog(&range, &out);
    }

    std::vector<int> ids() const
    {
        std::vector<int> all;
        for (std::int32_t i = 0; i < out.rnum; i++)
            all.push_back(out.eventlogarray[i].EventId);
        return all;
    }

    bool empty() const
    {
        return out.rnum == 0 && out.eventlogarray == nullptr;
    }

    EVENTLOGARRAY out{};
};

TEST_F(EventPages, APageBeginsBehindTheLinesToSkip)
{
    write_file(LOG_PATH, lines(event_line, 25));
    EXPECT_EQ(page(0, 3), 0);
    EXPECT_EQ(ids(), (std::vector{1, 2, 3}));
    EXPECT_EQ(page(20, 3), 0);
    EXPECT_EQ(ids(), (std::vector{21, 22, 23}));
    EXPECT_EQ(out.eventlogarray[0].timeinfo.year, 126);
    EXPECT_EQ(out.eventlogarray[0].byDownToEvt, -1);
    EXPECT_EQ(field_view(out.eventlogarray[0].AgentName), "host");
    EXPECT_EQ(page(23, 100), 0);
    EXPECT_EQ(ids(), (std::vector{24, 25}));
}

TEST_F(EventPages, BehindTheLastLineThereIsNothing)
{
    write_file(LOG_PATH, lines(event_line, 3));
    EXPECT_EQ(page(3, 5), 0);
    EXPECT_TRUE(empty());
    EXPECT_EQ(page(4, 5), -1);
    EXPECT_TRUE(empty());
    EXPECT_EQ(page(INT_MAX, 5), -1);
    EXPECT_TRUE(empty());
}

TEST_F(EventPages, NegativeNumbersAreBounded)
{
    write_file(LOG_PATH, lines(event_line, 3));
    EXPECT_EQ(page(-1, 2), 0);
    EXPECT_EQ(ids(), (std::vector{1, 2}));
    EXPECT_EQ(page(INT_MIN, 2), 0);
    EXPECT_EQ(ids(), (std::vector{1, 2}));
    for (const int counts : {-1, INT_MIN}) {
        EXPECT_EQ(page(0, counts), -1);
        EXPECT_TRUE(empty());
    }
    EXPECT_EQ(page(0, 0), 0);
    EXPECT_TRUE(empty());
}

TEST_F(EventPages, NoMoreIsAllocatedThanTheLogYields)
{
    write_file(LOG_PATH, lines(event_line, 3));
    EXPECT_EQ(page(1, INT_MAX), 0);
    EXPECT_EQ(ids(), (std::vector{2, 3}));
    EXPECT_LT(malloc_usable_size(out.eventlogarray), 200u);
}

TEST_F(EventPages, ALogThatCannotBeReadIsAnEmptyAnswer)
{
    EXPECT_EQ(page(0, 5), -1);
    EXPECT_TRUE(empty());
    EXPECT_EQ(error_text(), "Cannot open Evelogfile");
    EXPECT_EQ(geteventlog(nullptr, &out), -1);
}

TEST_F(EventPages, WhatIsNoFileIsNoLogAndIsNotWaitedFor)
{
    const std::array<void (*)(), 3> impostors = {
        [] { std::filesystem::create_directory(LOG_PATH); },
        [] { ASSERT_EQ(mkfifo(LOG_PATH, 0600), 0); },
        [] { ASSERT_EQ(symlink("/dev/zero", LOG_PATH), 0); },
    };
    for (const auto &create : impostors) {
        create();
        EXPECT_EQ(page(0, 5), -1);
        EXPECT_TRUE(empty());
        std::filesystem::remove(LOG_PATH);
    }
}

TEST_F(EventPages, AnEmptyLogIsAnEmptyPage)
{
    write_file(LOG_PATH, "");
    EXPECT_EQ(page(0, 5), 0);
    EXPECT_TRUE(empty());
    EXPECT_EQ(page(1, 5), -1);
}

TEST_F(EventPages, ANameThatFillsItsColumnsLosesItsEnd)
{
    eventlog(7, 200, 255, "abcdefghijklmno");
    EXPECT_EQ(page(0, 1), 0);
    EXPECT_EQ(field_view(out.eventlogarray[0].AgentName), "abcdefghijklm");
}

TEST_F(EventPages, ALineLongerThanTheBufferIsSeveralLines)
{
    const std::string name(100, 'n');
    eventlog(7, 200, 255, name.c_str());
    eventlog(8, 200, 255, "host");
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(ids(), (std::vector{7, 0, 8}));
    EXPECT_EQ(field_view(out.eventlogarray[0].AgentName), std::string(13, 'n'));
    EXPECT_EQ(field_view(out.eventlogarray[1].AgentName), "") << "the search for numbers passed it";
    EXPECT_EQ(page(2, 10), 0);
    EXPECT_EQ(ids(), std::vector{8});
}

// A buffer of 80 bytes holds a line of 79.
TEST_F(EventPages, TheBufferDecidesWhereALineIsCut)
{
    write_file(LOG_PATH, std::string(78, ' ') + "\n" + event_line(1));
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(ids(), (std::vector{0, 1}));
    write_file(LOG_PATH, std::string(79, ' ') + "\n" + event_line(1));
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(ids(), (std::vector{0, 0, 1}));
}

TEST_F(EventPages, ASpoiltLineIsARecordOfWhatItHolds)
{
    write_file(LOG_PATH, "\n" + std::string("\0\0\n", 3) + "32/ 3/2004 24:60:60   7 255 host\n" +
                             "\xFF\xFE\x80\n" + event_line(65) + " 5/ 3/2004  9");
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(ids(), (std::vector{0, 0, 7, 0, 65, 0}));
    EXPECT_EQ(out.eventlogarray[2].timeinfo.day, 0);
    EXPECT_EQ(out.eventlogarray[2].timeinfo.month, 3);
    EXPECT_EQ(out.eventlogarray[5].timeinfo.day, 5);
    EXPECT_EQ(out.eventlogarray[5].timeinfo.year, 104);
    EXPECT_EQ(out.eventlogarray[5].timeinfo.hour, 0);
}

TEST_F(EventPages, AMonitorsRequestIsServed)
{
    write_file(LOG_PATH, lines(event_line, 3));
    LOGRANGE range = {1, 1};
    ein.DATA.range = &range;
    EXPECT_EQ(act(E_CMD_GETEVENTLOG), 0);
    EXPECT_EQ(eout.datatype, 16u);
    out = eout.DATA.eventlog;
    EXPECT_EQ(ids(), std::vector{2});
}

// Two seconds are many times what it takes.
TEST_F(EventPages, TheEndOfALongLogIsNear)
{
    std::string all;
    for (int i = 0; i < 200'000; i++)
        all.append(" 5/ 3/2004  9: 7: 2  65 255            host\n");
    write_file(LOG_PATH, all);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(page(199'990, INT_MAX), 0);
    EXPECT_EQ(out.rnum, 10);
    EXPECT_EQ(eventlog(8, 200'000, 255, "host"), -1);
    EXPECT_EQ(engine.eventlogfailed, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(std::filesystem::file_size(LOG_PATH), 200'000u * 44);
}

TEST_F(EventPages, TrimmingMovesEveryByteAsItIs)
{
    const std::string spoilt = std::string("a\0b\n", 4) + std::string(5000, '\xFF') + "\n";
    write_file(LOG_PATH, event_line(1) + spoilt);
    const int all = static_cast<int>((44 + spoilt.size()) / 44);
    EXPECT_EQ(lengthcheck(LOG_PATH, all - 1, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), spoilt);
    EXPECT_EQ(lengthcheck(LOG_PATH, INT_MIN, 0), 0);
    EXPECT_EQ(read_file(LOG_PATH), "");
}

class DataPages : public Engine
{
  protected:
    void TearDown() override
    {
        delete[] out.datalogarray;
        Engine::TearDown();
    }

    int page(std::int32_t first, std::int32_t counts)
    {
        delete[] out.datalogarray;
        out = {777, nullptr};
        const LOGRANGE range = {first, counts};
        return getdatalog(&range, &out);
    }

    std::vector<int> loads() const
    {
        std::vector<int> all;
        for (std::int32_t i = 0; i < out.rnum; i++)
            all.push_back(out.datalogarray[i].upsdata.Load);
        return all;
    }

    bool empty() const
    {
        return out.rnum == 0 && out.datalogarray == nullptr;
    }

    DATALOGARRAY out{};
};

TEST_F(DataPages, TheNewestLinesAreServedOldestFirst)
{
    write_file(DATALOG_PATH, lines(data_line, 25));
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(loads(), (std::vector{16, 17, 18, 19, 20, 21, 22, 23, 24, 25}));
    EXPECT_EQ(page(0, 1), 0);
    EXPECT_EQ(loads(), std::vector{25});
    EXPECT_EQ(page(0, 25), 0);
    EXPECT_EQ(loads().size(), 25u);
}

TEST_F(DataPages, ALogShorterThanThePageIsServedWhole)
{
    write_file(DATALOG_PATH, lines(data_line, 3));
    EXPECT_EQ(page(0, INT_MAX), 0);
    EXPECT_EQ(loads(), (std::vector{1, 2, 3}));
    EXPECT_LT(malloc_usable_size(out.datalogarray), 200u);
}

TEST_F(DataPages, AnyLineButTheFirstIsRefused)
{
    write_file(DATALOG_PATH, lines(data_line, 25));
    for (const int first : {1, 2, 25, INT_MAX}) {
        EXPECT_EQ(page(first, 10), -1);
        EXPECT_TRUE(empty());
    }
}

TEST_F(DataPages, NegativeNumbersAreBounded)
{
    write_file(DATALOG_PATH, lines(data_line, 3));
    EXPECT_EQ(page(INT_MIN, 1), 0);
    EXPECT_EQ(loads(), std::vector{3});
    EXPECT_EQ(page(0, -1), -1);
    EXPECT_TRUE(empty());
    EXPECT_EQ(page(0, 0), 0);
    EXPECT_TRUE(empty());
}

TEST_F(DataPages, TheBatteryCapacityIsServedAsNought)
{
    write_file(DATALOG_PATH, data_line(42));
    EXPECT_EQ(page(0, 1), 0);
    EXPECT_EQ(out.datalogarray[0].upsdata.InPutINT, 101);
    EXPECT_EQ(out.datalogarray[0].upsdata.FreqOutputREM, 2);
    EXPECT_EQ(out.datalogarray[0].upsdata.BattCap, 0);
    EXPECT_EQ(out.datalogarray[0].timeinfo.month, 11);
}

TEST_F(DataPages, ALogThatCannotBeReadIsAnEmptyAnswer)
{
    EXPECT_EQ(page(0, 5), -1);
    EXPECT_TRUE(empty());
    EXPECT_EQ(error_text(), "getdatalog:Cannot open Datalogfile");
    std::filesystem::create_directory(DATALOG_PATH);
    EXPECT_EQ(page(0, 5), -1);
    EXPECT_EQ(getdatalog(nullptr, &out), -1);
}

TEST_F(DataPages, AnEmptyLogIsAnEmptyPage)
{
    write_file(DATALOG_PATH, "");
    EXPECT_EQ(page(0, 5), 0);
    EXPECT_TRUE(empty());
    EXPECT_EQ(page(1, 5), -1);
    EXPECT_TRUE(empty());
}

// A buffer of 90 bytes holds a line of 89.
TEST_F(DataPages, ALineLongerThanTheBufferIsSeveralLines)
{
    write_file(DATALOG_PATH, std::string(88, ' ') + "\n" + data_line(1));
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(loads(), (std::vector{0, 1}));
    write_file(DATALOG_PATH, std::string(89, ' ') + "\n" + data_line(1));
    EXPECT_EQ(page(0, 10), 0);
    EXPECT_EQ(loads(), (std::vector{0, 0, 1}));
}

TEST_F(DataPages, AMonitorsRequestIsServed)
{
    write_file(DATALOG_PATH, lines(data_line, 3));
    LOGRANGE range = {0, 2};
    ein.DATA.range = &range;
    EXPECT_EQ(act(E_CMD_GETDATALOG), 0);
    EXPECT_EQ(eout.datatype, 32u);
    out = eout.DATA.datalog;
    EXPECT_EQ(loads(), (std::vector{2, 3}));
}

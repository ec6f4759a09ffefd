// The data log: its lines byte for byte, its trimming, what a disk does to it, and a line read back.
#include "tests/unit/engine_fixture.h"

#include "wp_field.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr UPSDATA MEASURED = {
    .InPutINT = 101,
    .OutPutINT = 99,
    .InPutREM = 5,
    .OutPutREM = 7,
    .FreqInputINT = 50,
    .FreqInputREM = 1,
    .FreqOutputINT = 60,
    .FreqOutputREM = 2,
    .TempINT = 25,
    .TempREM = 3,
    .BattVolINT = 13,
    .BattVolREM = 8,
    .BattCap = 100,
    .Load = 42,
};
static const std::string LINE = " 5/ 3/2004  9: 7: 2,101.5, 99.7, 42,50.1,25.3,13.8,60.2,100\n";

class DataLog : public Engine
{
};

TEST_F(DataLog, ALineIsSixtyBytesInTheOrderOfItsColumns)
{
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    EXPECT_EQ(read_file(DATALOG_PATH), LINE);
    EXPECT_EQ(LINE.size(), 60u);
}

TEST_F(DataLog, SmallValuesArePadded)
{
    UPSDATA data{};
    data.Load = 1;
    EXPECT_EQ(datalog(data, 200), 0);
    EXPECT_EQ(read_file(DATALOG_PATH), " 5/ 3/2004  9: 7: 2,  0.0,  0.0,  1, 0.0, 0.0, 0.0, 0.0,  0\n");
}

TEST_F(DataLog, ARecordOfZerosIsNotWritten)
{
    EXPECT_EQ(datalog(UPSDATA{}, 200), 0);
    EXPECT_FALSE(std::filesystem::exists(DATALOG_PATH));
}

TEST_F(DataLog, AnySingleByteMakesARecord)
{
    for (std::size_t i = 0; i < sizeof(UPSDATA); i++) {
        std::filesystem::remove(DATALOG_PATH);
        UPSDATA data{};
        reinterpret_cast<char *>(&data)[i] = 1;
        EXPECT_EQ(datalog(data, 200), 0);
        EXPECT_TRUE(std::filesystem::exists(DATALOG_PATH)) << i;
    }
}

TEST_F(DataLog, ValuesOutsideTheirColumnsLengthenTheLine)
{
    UPSDATA data = MEASURED;
    data.TempINT = data.TempREM = -1;
    data.Load = 255;
    data.BattCap = 127;
    EXPECT_EQ(datalog(data, 200), 0);
    EXPECT_EQ(read_file(DATALOG_PATH), " 5/ 3/2004  9: 7: 2,101.5, 99.7,255,50.1,-1.-1,13.8,60.2,127\n");
    std::filesystem::remove(DATALOG_PATH);
    std::memset(&data, 0x80, sizeof data);
    EXPECT_EQ(datalog(data, 200), 0);
    EXPECT_EQ(read_file(DATALOG_PATH), " 5/ 3/2004  9: 7: 2,-32640.-128,-32640.-128,128,-128.-128,-128.-128,"
                                       "-128.-128,-128.-128,-128\n");
}

TEST_F(DataLog, EveryAppendAfterTheFirstReportsAnErrorThatIsNone)
{
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    EXPECT_EQ(datalog(MEASURED, 200), -1);
    EXPECT_EQ(read_file(DATALOG_PATH), LINE + LINE);
}

TEST_F(DataLog, TheOldestLinesGoFirst)
{
    UPSDATA data = MEASURED;
    for (std::uint8_t i = 1; i <= 12; i++) {
        data.Load = i;
        datalog(data, 10);
    }
    const std::string text = read_file(DATALOG_PATH);
    EXPECT_EQ(text.size(), 600u);
    EXPECT_EQ(text.substr(31, 4), ",  3");
    EXPECT_EQ(text.substr(571, 4), ", 12");
}

TEST_F(DataLog, ALimitOfNoLinesOrFewerEmptiesTheLog)
{
    for (const int limit : {0, -1, -2147483647 - 1}) {
        datalog(MEASURED, limit);
        EXPECT_EQ(read_file(DATALOG_PATH), "") << limit;
    }
}

TEST_F(DataLog, ANewLogBelongsToRootAndGroupOneWhateverTheUmask)
{
    const mode_t before = umask(0777);
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    umask(before);
    struct stat status;
    ASSERT_EQ(stat(DATALOG_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0600u);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, 1u);
}

TEST_F(DataLog, ALogThatCannotBeOpenedIsLeftOutSilently)
{
    std::filesystem::create_directory(DATALOG_PATH);
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    EXPECT_EQ(error_text(), "datalog:Cannot open Datalogfile");
}

TEST_F(DataLog, ALogThatCannotBeCreatedIsLeftOutSilently)
{
    ASSERT_EQ(symlink("/nowhere/at/all", DATALOG_PATH), 0);
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    EXPECT_EQ(error_text(), "datalog:Cannot create Datalog file");
    std::filesystem::remove(DATALOG_PATH);
}

TEST_F(DataLog, AFullDiskIsAnError)
{
    ASSERT_EQ(symlink("/dev/full", DATALOG_PATH), 0);
    EXPECT_EQ(datalog(MEASURED, 200), -1);
    std::filesystem::remove(DATALOG_PATH);
}

TEST_F(DataLog, ALineThatTheDiskTookHalfOfIsTakenOffAgain)
{
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit = {85, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(datalog(MEASURED, 200), -1);
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(read_file(DATALOG_PATH), LINE);
    datalog(MEASURED, 200);
    EXPECT_EQ(read_file(DATALOG_PATH), LINE + LINE);
}

TEST_F(DataLog, TheYearsAfter2038AreWrittenAndReadBack)
{
    set_clock(std::time_t{1} << 31);  // 19 January 2038, 03:14:08
    EXPECT_EQ(datalog(MEASURED, 200), 0);
    EXPECT_EQ(read_file(DATALOG_PATH).substr(0, 19), "19/ 1/2038  3:14: 8");
    set_clock(4'102'444'799);  // the last second of 2099
    EXPECT_EQ(datalog(MEASURED, 1), -1);
    EXPECT_EQ(read_file(DATALOG_PATH).substr(0, 19), "31/12/2099 23:59:59");
    UPS_DATALOGINFO rec{};
    datalogtoinfo(read_file(DATALOG_PATH).c_str(), &rec);
    EXPECT_EQ(rec.timeinfo.year, 199);
}

TEST_F(DataLog, ATimeWithoutADateIsAnErrorButTheLineIsWritten)
{
    set_clock(-5);
    EXPECT_EQ(datalog(MEASURED, 200), -1);
    EXPECT_EQ(read_file(DATALOG_PATH).substr(0, 20), " 0/ 0/1900  0: 0: 0,");
}

class DataLine : public Engine
{
  protected:
    UPS_DATALOGINFO rec{};
};

// The battery capacity, the last field, is never read.
TEST_F(DataLine, EveryFieldButTheLastIsReadBack)
{
    EXPECT_EQ(datalogtoinfo(LINE.c_str(), &rec), -1);
    UPSDATA read = MEASURED;
    read.BattCap = 0;
    EXPECT_EQ(std::memcmp(&rec.upsdata, &read, sizeof read), 0);
    const UPS_TIMEINFO when = {104, 3, 5, 9, 7, 2, 0};
    EXPECT_EQ(std::memcmp(&rec.timeinfo, &when, sizeof when), 0);
}

TEST_F(DataLine, AVoltageIsReadIntoAByte)
{
    EXPECT_EQ(datalogtoinfo(" 5/ 3/2004  9: 7: 2,230.0,256.9,255,\n", &rec), -1);
    EXPECT_EQ(rec.upsdata.InPutINT, 230);
    EXPECT_EQ(rec.upsdata.OutPutINT, 0);
    EXPECT_EQ(rec.upsdata.OutPutREM, 9);
    EXPECT_EQ(rec.upsdata.Load, 255);
}

TEST_F(DataLine, ATemperatureThatTheUnitDoesNotReportComesBackAsSuch)
{
    EXPECT_EQ(datalogtoinfo(" 5/ 3/2004  9: 7: 2,101.5, 99.7, 42,50.1,-1.-1,13.8,60.2,100\n", &rec), -1);
    EXPECT_EQ(rec.upsdata.TempINT, -1);
    EXPECT_EQ(rec.upsdata.TempREM, -1);
    EXPECT_EQ(rec.upsdata.BattVolINT, 13);
}

TEST_F(DataLine, AMonthEndsWithTheTwelfth)
{
    EXPECT_EQ(datalogtoinfo(" 5/13/2004  9: 7: 2,101.5,", &rec), -1);
    EXPECT_EQ(rec.timeinfo.month, 0);
    EXPECT_EQ(rec.timeinfo.year, 104);
}

TEST_F(DataLine, TheCalendarEndsWithTheYear2100)
{
    EXPECT_EQ(datalogtoinfo("31/12/2100 23:59:59,101.5,", &rec), -1);
    const UPS_TIMEINFO last = {200, 12, 31, 23, 59, 59, 0};
    EXPECT_EQ(std::memcmp(&rec.timeinfo, &last, sizeof last), 0);
    rec = {};
    EXPECT_EQ(datalogtoinfo("32/13/2101 24:60:60,101.5,", &rec), -1);
    const UPS_TIMEINFO none{};
    EXPECT_EQ(std::memcmp(&rec.timeinfo, &none, sizeof none), 0);
}

TEST_F(DataLine, ANumberOutOfBoundsIsPassedOver)
{
    EXPECT_EQ(datalogtoinfo(" 5/ 3/2004  9: 7: 2,301.5,120.7,\n", &rec), -1);
    EXPECT_EQ(rec.upsdata.InPutINT, 0);
    EXPECT_EQ(rec.upsdata.InPutREM, 5);
    EXPECT_EQ(rec.upsdata.OutPutINT, 120);
}

TEST_F(DataLine, AValueMayBeThreeHundred)
{
    EXPECT_EQ(datalogtoinfo(" 5/ 3/2004  9: 7: 2,300.5,300.7,42,300.1,\n", &rec), -1);
    EXPECT_EQ(rec.upsdata.InPutINT, 300 % 256);
    EXPECT_EQ(rec.upsdata.OutPutINT, 300 % 256);
    EXPECT_EQ(rec.upsdata.Load, 42);
}

TEST_F(DataLine, NothingIsReadBehindTheEnd)
{
    for (const char *line : {"", "\n", " 5/", "99999999999999999999999999", "-", "-----------"})
        EXPECT_EQ(datalogtoinfo(line, &rec), -1) << line;
    EXPECT_STREQ(itoc(60), "60") << "no sign is left for the next number that is stored";
}

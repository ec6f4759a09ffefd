// The event log: its lines byte for byte, its trimming, and the last two events read back from it.
#include "tests/unit/engine_fixture.h"
#include "tests/unit/filehandle_fixture.h"

#include "e_a_error.h"
#include "wp_field.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static const std::string NAMELESS = " 5/ 3/2004  9: 7: 2   7 255                \n";

static std::string line_of(int id, std::string_view name = "host")
{
    std::array<char, 64> line;
    std::snprintf(line.data(), line.size(), "21/11/2026 13:14:15 %3d 255 %15.*s\n", id,
                  static_cast<int>(name.size()), name.data());
    return line.data();
}

class EngineLog : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        engine.EVENTLOGENABLED = 1;
    }
};

TEST_F(EngineLog, ALineIsFortyFourBytesPaddedWithBlanks)
{
    EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
    EXPECT_EQ(read_file(LOG_PATH), NAMELESS);
    EXPECT_EQ(NAMELESS.size(), 44u);
}

TEST_F(EngineLog, TheNameStandsRightAligned)
{
    EXPECT_EQ(eventlog(134, 200, 22, "abcdefghijklmno"), 0);
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2 134  22 abcdefghijklmno\n");
    std::filesystem::remove(LOG_PATH);
    EXPECT_EQ(eventlog(0, 200, 128, "pc1"), 0);
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2   0 128             pc1\n");
}

TEST_F(EngineLog, TwoDigitDatesFillTheirColumns)
{
    set_clock(local_time(2026, 11, 21, 13, 14, 15));
    EXPECT_EQ(eventlog(65, 200, 255, "host"), 0);
    EXPECT_EQ(read_file(LOG_PATH), line_of(65));
}

TEST_F(EngineLog, NoNameIsAnEmptyName)
{
    EXPECT_EQ(eventlog(7, 200, 255, nullptr), 0);
    EXPECT_EQ(read_file(LOG_PATH), NAMELESS);
}

TEST_F(EngineLog, ALongNameLengthensItsLine)
{
    EXPECT_EQ(eventlog(7, 200, 255, std::string(260, 'n').c_str()), 0);
    EXPECT_EQ(read_file(LOG_PATH).size(), 44u - 15 + 260);
    EXPECT_EQ(read_file(LOG_PATH).back(), '\n');
}

TEST_F(EngineLog, ANameEndsAtItsFirstNewline)
{
    EXPECT_EQ(eventlog(21, 200, 255, "pc\n 1/ 1/2004"), 0);
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2  21 255              pc\n");
    std::filesystem::remove(LOG_PATH);
    EXPECT_EQ(eventlog(7, 200, 255, "\n\n"), 0);
    EXPECT_EQ(read_file(LOG_PATH), NAMELESS);
}

TEST_F(EngineLog, AnErrorIsCutToItsBufferAndReachesNoFile)
{
    ea_error(std::string(300, 'e'));
    EXPECT_EQ(error_text(), std::string(199, 'e'));
    ea_error("short");
    EXPECT_EQ(error_text(), "short");
    EXPECT_FALSE(std::filesystem::exists(Errlogfile));
}

TEST_F(EngineLog, EveryAppendAfterTheFirstReportsAnErrorThatIsNone)
{
    EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
    EXPECT_EQ(eventlog(7, 200, 255, ""), -1);
    EXPECT_EQ(engine.eventlogfailed, 0);
    EXPECT_EQ(eventlog(7, 200, 255, ""), -1);
    EXPECT_EQ(read_file(LOG_PATH), NAMELESS + NAMELESS + NAMELESS);
}

TEST_F(EngineLog, ANewLogBelongsToRootAndGroupOneWhateverTheUmask)
{
    for (const mode_t mask : {0000u, 0077u, 0777u}) {
        std::filesystem::remove(LOG_PATH);
        const mode_t before = umask(mask);
        EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
        umask(before);
        struct stat status;
        ASSERT_EQ(stat(LOG_PATH, &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0600u);
        EXPECT_EQ(status.st_uid, 0u);
        EXPECT_EQ(status.st_gid, 1u);
    }
}

TEST_F(EngineLog, AnExistingLogKeepsItsMode)
{
    write_file(LOG_PATH, "");
    ASSERT_EQ(chmod(LOG_PATH, 0644), 0);
    EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
    struct stat status;
    ASSERT_EQ(stat(LOG_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0644u);
}

TEST_F(EngineLog, The201stAppendDropsTheFirstLine)
{
    std::string all;
    for (int i = 1; i <= 201; i++) {
        std::array<char, 16> name;
        std::snprintf(name.data(), name.size(), "n%d", i);
        eventlog(7, 200, 255, name.data());
        EXPECT_EQ(engine.eventlogfailed, 0);
        std::array<char, 64> line;
        std::snprintf(line.data(), line.size(), " 5/ 3/2004  9: 7: 2   7 255 %15s\n", name.data());
        all += line.data();
    }
    EXPECT_EQ(read_file(LOG_PATH), all.substr(44));
}

TEST_F(EngineLog, ALowerLimitCutsTheLogAtTheNextAppend)
{
    for (int i = 0; i < 10; i++)
        eventlog(i, 200, 255, "");
    eventlog(10, 3, 255, "");
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2   8 255                \n"
                                   " 5/ 3/2004  9: 7: 2   9 255                \n"
                                   " 5/ 3/2004  9: 7: 2  10 255                \n");
}

TEST_F(EngineLog, ALimitOfNoLinesEmptiesTheLog)
{
    EXPECT_EQ(eventlog(7, 0, 255, ""), 0);
    EXPECT_EQ(read_file(LOG_PATH), "");
}

TEST_F(EngineLog, ALogThatCannotBeOpenedIsLeftOutSilently)
{
    std::filesystem::create_directory(LOG_PATH);
    EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
    EXPECT_EQ(error_text(), "event log:Cannot open Evtlogfile");
    EXPECT_EQ(engine.eventlogfailed, 0);
}

TEST_F(EngineLog, ALogThatCannotBeCreatedIsLeftOutSilently)
{
    ASSERT_EQ(symlink("/nowhere/at/all", LOG_PATH), 0);
    EXPECT_EQ(eventlog(7, 200, 255, ""), 0);
    EXPECT_EQ(error_text(), "Evelog:Cannot create Evelogfile");
    std::filesystem::remove(LOG_PATH);
}

TEST_F(EngineLog, AFullPipeInItsPlaceIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo(LOG_PATH, 0600), 0);
    const int holder = open(LOG_PATH, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    static constexpr std::array<char, 4096> PAGE{};
    while (write(holder, PAGE.data(), PAGE.size()) > 0)
        ;
    EXPECT_EQ(eventlog(7, 200, 255, ""), -1);
    EXPECT_EQ(engine.eventlogfailed, 1);
    close(holder);
}

TEST_F(EngineLog, AFullDiskIsAnErrorThatIsOne)
{
    ASSERT_EQ(symlink("/dev/full", LOG_PATH), 0);
    EXPECT_EQ(eventlog(7, 200, 255, ""), -1);
    EXPECT_EQ(engine.eventlogfailed, 1);
    std::filesystem::remove(LOG_PATH);
}

// The event after it would be read as a part of this one.
TEST_F(EngineLog, ALineThatTheDiskTookHalfOfIsTakenOffAgain)
{
    eventlog(7, 200, 255, "");
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    for (const rlim_t part : {1u, 22u, 43u}) {
        const rlimit limit = {NAMELESS.size() + part, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(eventlog(65, 200, 255, "host"), -1);
        EXPECT_EQ(engine.eventlogfailed, 1);
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(read_file(LOG_PATH), NAMELESS);
    }
    std::signal(SIGXFSZ, SIG_DFL);
    eventlog(7, 200, 255, "");
    EXPECT_EQ(read_file(LOG_PATH), NAMELESS + NAMELESS);
}

TEST_F(EngineLog, ATimeWithoutADateIsAnErrorButTheLineIsWritten)
{
    set_clock(-5);
    EXPECT_EQ(eventlog(7, 200, 255, ""), -1);
    EXPECT_EQ(engine.eventlogfailed, 1);
    EXPECT_EQ(read_file(LOG_PATH), " 0/ 0/1900  0: 0: 0   7 255                \n");
}

class LengthCheck : public EngineLog
{
};

TEST_F(LengthCheck, AFileWithinItsLimitIsUntouched)
{
    write_file(LOG_PATH, line_of(1) + line_of(2));
    EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), line_of(1) + line_of(2));
}

TEST_F(LengthCheck, TheOldestLinesGoFirst)
{
    write_file(LOG_PATH, line_of(1) + line_of(2) + line_of(3) + line_of(4));
    EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), line_of(3) + line_of(4));
}

TEST_F(LengthCheck, LinesAreCountedByTheSizeOfTheFile)
{
    write_file(LOG_PATH, "a\nb\nc\n" + std::string(44, 'x') + "\n");  // 51 bytes: one line
    EXPECT_EQ(lengthcheck(LOG_PATH, 1, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), "a\nb\nc\n" + std::string(44, 'x') + "\n");
    EXPECT_EQ(lengthcheck(LOG_PATH, 0, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), "b\nc\n" + std::string(44, 'x') + "\n");
}

TEST_F(LengthCheck, ALogLargerThanAnyBufferIsMovedWhole)
{
    std::string all;
    for (int i = 0; i < 3000; i++)
        all += line_of(i % 256);
    write_file(LOG_PATH, all);
    EXPECT_EQ(lengthcheck(LOG_PATH, 2999, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), all.substr(44));
}

TEST_F(LengthCheck, AnOverlongLineCountsOncePerBufferful)
{
    write_file(LOG_PATH, std::string(100, 'x') + "\n" + line_of(1) + line_of(2));  // 189 bytes: 4 lines
    EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), line_of(1) + line_of(2));
}

TEST_F(LengthCheck, ABufferTakesSeventyNineBytesOfALine)
{
    write_file(LOG_PATH, std::string(79, 'x') + "\n" + line_of(1) + line_of(2));  // 168 bytes: 3 lines
    EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), 0);
    EXPECT_EQ(read_file(LOG_PATH), "\n" + line_of(1) + line_of(2));
}

TEST_F(LengthCheck, AMissingFileIsAnError)
{
    EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), -1);
    EXPECT_EQ(error_text(), "Cannot open file");
}

TEST_F(LengthCheck, AFileThatCannotBeOpenedTwiceIsLeftAsItIs)
{
    write_file(LOG_PATH, line_of(1) + line_of(2));
    {
        const FewDescriptors limit(1);
        EXPECT_EQ(lengthcheck(LOG_PATH, 2, 44), 0) << "within its limit it is opened once";
        EXPECT_EQ(lengthcheck(LOG_PATH, 1, 44), -1);
    }
    EXPECT_EQ(error_text(), "Cannot open file");
    EXPECT_EQ(read_file(LOG_PATH), line_of(1) + line_of(2));
}

class LogLine : public EngineLog
{
  protected:
    UPS_EVENTLOGINFO rec{};
};

TEST_F(LogLine, EveryFieldIsReadBack)
{
    EXPECT_EQ(evelogtoinfo(" 5/ 3/2004  9: 7: 2 134  22      office-pc1\n", &rec), 0);
    EXPECT_EQ(rec.timeinfo.day, 5);
    EXPECT_EQ(rec.timeinfo.month, 3);
    EXPECT_EQ(rec.timeinfo.year, 104);
    EXPECT_EQ(rec.timeinfo.hour, 9);
    EXPECT_EQ(rec.timeinfo.minute, 7);
    EXPECT_EQ(rec.timeinfo.second, 2);
    EXPECT_EQ(rec.EventId, 134);
    EXPECT_EQ(rec.byDownToEvt, 22);
    EXPECT_EQ(field_view(rec.AgentName), "office-pc1");
}

TEST_F(LogLine, NamesKeepOrLoseTheirEndByTheirLength)
{
    EXPECT_EQ(evelogtoinfo(line_of(7, "abcdefghijklmn").c_str(), &rec), 0);
    EXPECT_EQ(field_view(rec.AgentName), "abcdefghijklmn");
    EXPECT_EQ(evelogtoinfo(line_of(7, "abcdefghijklmno").c_str(), &rec), 0);
    EXPECT_EQ(field_view(rec.AgentName), "abcdefghijklm");
    EXPECT_EQ(evelogtoinfo(line_of(7, "").c_str(), &rec), 0);
    EXPECT_EQ(field_view(rec.AgentName), "");
}

TEST_F(LogLine, ANameLosesItsLeadingDigits)
{
    EXPECT_EQ(evelogtoinfo(line_of(7, "12-pc3").c_str(), &rec), 0);
    EXPECT_EQ(field_view(rec.AgentName), "pc3");
}

TEST_F(LogLine, MonthsAreBoundedLikeDays)
{
    EXPECT_EQ(evelogtoinfo(" 5/31/2004  9: 7: 2   7 255            host\n", &rec), 0);
    EXPECT_EQ(rec.timeinfo.month, 31);
}

TEST_F(LogLine, AFieldOutOfBoundsIsMissingAndTheOthersAreRead)
{
    rec.timeinfo.day = 99;
    EXPECT_EQ(evelogtoinfo("32/ 3/2004 24:60:60   7 255            host\n", &rec), -1);
    EXPECT_EQ(rec.timeinfo.day, 99);
    EXPECT_EQ(rec.timeinfo.month, 3);
    EXPECT_EQ(rec.timeinfo.year, 104);
    EXPECT_EQ(rec.timeinfo.hour, 0);
    EXPECT_EQ(rec.EventId, 7);
    EXPECT_EQ(field_view(rec.AgentName), "host");
}

TEST_F(LogLine, TheLastNumbersWithinTheBoundsAreTaken)
{
    EXPECT_EQ(evelogtoinfo("31/31/2100 23:59:59 999 999            host\n", &rec), 0);
    EXPECT_EQ(rec.timeinfo.year, 200);
    EXPECT_EQ(rec.EventId, 999 % 256);
    EXPECT_EQ(evelogtoinfo(" 5/ 3/1900  9: 7: 2   7 255            host\n", &rec), 0);
    EXPECT_EQ(rec.timeinfo.year, 0);
    for (const char *line :
         {" 5/ 3/2101  9: 7: 2   7 255            host\n", " 5/ 3/1899  9: 7: 2   7 255            host\n",
          " 5/ 3/2004  9: 7: 21000 255            host\n", " 5/ 3/2004  9: 7: 2   71000            host\n",
          " 5/ 3/2004  9: 7: 2   7 1000           host\n"})
        EXPECT_EQ(evelogtoinfo(line, &rec), -1) << line;
}

TEST_F(LogLine, NothingIsReadBehindTheEnd)
{
    for (const char *line : {"", "\n", " 5/", "99999999999999999999999999", "-", "-----------"})
        EXPECT_EQ(evelogtoinfo(line, &rec), -1) << line;
}

TEST_F(LogLine, AStrayMinusDoesNotReachTheNextNumberThatIsWritten)
{
    EXPECT_EQ(evelogtoinfo(" 5/ 3/2004  9: 7: 2   7 - \n", &rec), -1);
    EXPECT_STREQ(itoc(60), "60");
}

TEST_F(LogLine, ANumberIsReturnedOnlyWhenTextFollowsIt)
{
    logfield_start("12 34");
    EXPECT_STREQ(next_logfield(0, 99, false), "12");
    EXPECT_EQ(next_logfield(0, 99, false), nullptr);
    EXPECT_EQ(next_logfield(0, 99, false), nullptr);
}

TEST_F(LogLine, TheLastFieldIsNeverReturned)
{
    for (const char *line : {"12", "12 ", "12\n"}) {
        logfield_start(line);
        EXPECT_EQ(next_logfield(0, 99, true), nullptr) << line;
    }
}

TEST_F(LogLine, TheLastFieldLeavesItsSignBehindAtTheEndOfTheTextOnly)
{
    logfield_start("-12");
    EXPECT_EQ(next_logfield(0, 99, true), nullptr);
    EXPECT_STREQ(itoc(5), "-5");
    logfield_start("-12\n");
    EXPECT_EQ(next_logfield(0, 99, true), nullptr);
    EXPECT_STREQ(itoc(5), "5");
}

TEST_F(LogLine, ANegativeNumberKeepsItsSign)
{
    logfield_start(" -1.-2,3,");
    EXPECT_STREQ(next_logfield(0, 300, false), "-1");
    EXPECT_STREQ(next_logfield(0, 300, false), "-2");
    EXPECT_STREQ(next_logfield(0, 300, false), "3");
}

TEST_F(LogLine, ARefusedNumberTakesItsSignAlong)
{
    logfield_start("-500,3,");
    EXPECT_EQ(next_logfield(0, 300, false), nullptr);
    EXPECT_STREQ(next_logfield(0, 300, false), "3");
}

class LastTwo : public EngineLog
{
  protected:
    int load(const std::string &log)
    {
        write_file(LOG_PATH, log);
        return getlasttwoevents(out);
    }

    /// Event ids, older first.
    std::pair<int, int> ids() const
    {
        return {out[0].EventId, out[1].EventId};
    }

    std::array<UPS_EVENTLOGINFO, 2> out{};
};

TEST_F(LastTwo, AnEmptyLogShowsNoEvents)
{
    EXPECT_EQ(load(""), 0);
    for (const UPS_EVENTLOGINFO &event : out) {
        EXPECT_EQ(event.EventId, 255);
        EXPECT_EQ(event.byDownToEvt, -1);
        EXPECT_EQ(event.timeinfo.year, 0);
        EXPECT_EQ(event.timeinfo.day, 0);
        EXPECT_EQ(field_view(event.AgentName), "");
    }
    EXPECT_EQ(engine.SHALLCOPY, 1);
    EXPECT_EQ(engine.last2loaded, 1);
}

TEST_F(LastTwo, AnEmptyLogLeavesWhatIsCached)
{
    engine.last2event[0].EventId = 3;
    engine.last2event[1].EventId = 4;
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(ids(), std::pair(3, 4));
}

TEST_F(LastTwo, OneLineIsTheNewerAndTheOlderStaysAsItIsCached)
{
    engine.last2event[0].EventId = 3;
    engine.last2event[1].EventId = 4;
    EXPECT_EQ(load(line_of(65)), 0);
    EXPECT_EQ(ids(), std::pair(3, 65));
    EXPECT_EQ(engine.SHALLCOPY, 0);
}

TEST_F(LastTwo, TwoLinesFillBothInOrder)
{
    EXPECT_EQ(load(line_of(65) + line_of(0)), 0);
    EXPECT_EQ(ids(), std::pair(65, 0));
    EXPECT_EQ(field_view(out[0].AgentName), "host");
    EXPECT_EQ(out[1].timeinfo.hour, 13);
    EXPECT_EQ(engine.SHALLCOPY, 1);
}

TEST_F(LastTwo, OfThreeAndMoreTheLastTwoAreShown)
{
    EXPECT_EQ(load(line_of(1) + line_of(65) + line_of(0)), 0);
    EXPECT_EQ(ids(), std::pair(65, 0));
    engine.last2loaded = 0;
    std::string all;
    for (int i = 0; i < 200; i++)
        all += line_of(i);
    EXPECT_EQ(load(all), 0);
    EXPECT_EQ(ids(), std::pair(198, 199));
}

// The search begins 110 bytes before the end and drops the line it falls into.
TEST_F(LastTwo, ALongLastLineCostsTheOneBeforeIt)
{
    const std::string others = line_of(1) + line_of(65);
    const std::string last = " 5/ 3/2004  9: 7: 2   7 255 ";
    EXPECT_EQ(load(others + last + std::string(36, 'n') + "\n"), 0);
    EXPECT_EQ(ids(), std::pair(65, 7));
    engine = ENGINE{};
    engine.EVENTLOGENABLED = 1;
    EXPECT_EQ(load(others + last + std::string(37, 'n') + "\n"), 0);
    EXPECT_EQ(ids(), std::pair(7, 255));
}

TEST_F(LastTwo, TheLogIsReadOnce)
{
    EXPECT_EQ(load(line_of(65) + line_of(0)), 0);
    EXPECT_EQ(load(line_of(1) + line_of(2)), 0);
    EXPECT_EQ(ids(), std::pair(65, 0));
    std::filesystem::remove(LOG_PATH);
    EXPECT_EQ(getlasttwoevents(out), 0);
}

TEST_F(LastTwo, AMissingLogIsAnErrorAndIsLookedForAgain)
{
    out[0].EventId = 9;
    EXPECT_EQ(getlasttwoevents(out), -1);
    EXPECT_EQ(out[0].EventId, 9);
    EXPECT_EQ(error_text(), "getlasttwoevents:Cannot open Evelogfile");
    EXPECT_EQ(load(line_of(65) + line_of(0)), 0);
    EXPECT_EQ(ids(), std::pair(65, 0));
}

TEST_F(LastTwo, WithLoggingOffTheLogIsNotRead)
{
    engine.EVENTLOGENABLED = 0;
    EXPECT_EQ(load(line_of(65) + line_of(0)), 0);
    EXPECT_EQ(ids(), std::pair(255, 255));
    EXPECT_EQ(engine.last2loaded, 0);
}

// As the process starts.
static const std::array<UPS_EVENTLOGINFO, 2> last2event_at_start = engine.last2event;

TEST(LastTwoAtStart, WhereNothingHappenedNothingElseStands)
{
    UPS_EVENTLOGINFO none{};
    none.EventId = 255;
    none.byDownToEvt = -1;
    for (const UPS_EVENTLOGINFO &event : last2event_at_start)
        EXPECT_EQ(std::memcmp(&event, &none, sizeof none), 0);
}

TEST_F(LastTwo, ANewEventIsStampedIntoTheNewer)
{
    EXPECT_EQ(load(line_of(65) + line_of(0)), 0);
    EXPECT_EQ(updatelastevent(22, 129, "a-very-long-name-of-a-host"), 0);
    EXPECT_EQ(getlasttwoevents(out), 0);
    EXPECT_EQ(ids(), std::pair(65, 22));
    EXPECT_EQ(out[1].byDownToEvt, static_cast<std::int8_t>(129));
    EXPECT_EQ(field_view(out[1].AgentName), "a-very-long-nam");
    EXPECT_EQ(out[1].timeinfo.year, 104);
    set_clock(-1);
    EXPECT_EQ(updatelastevent(22, 255, ""), -1);
}

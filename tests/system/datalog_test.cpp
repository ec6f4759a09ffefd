// The logs and the settings file over long times and bad ones, in virtual time: the spacing and the trimming
// of both logs, logs that cannot be written, and settings that are rubbish.
#include "schedule_stage.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using namespace stage;
using testbed::DATA_LOG;
using testbed::EVENT_LOG;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr std::size_t DATA_LINE = 60;
constexpr std::size_t EVENT_LINE = 44;

constexpr char DATA_FORMAT[] = "[ 1-3][0-9]/[ 1][0-9]/[0-9]{4} [ 1-2][0-9]:[ 1-5][0-9]:[ 1-5][0-9],"
                               "[ 0-9]{3}\\.[0-9],[ 0-9]{3}\\.[0-9],[ 0-9]{3},[ 0-9]{2}\\.[0-9],"
                               "[ 0-9]{2}\\.[0-9],[ 0-9]{2}\\.[0-9],[ 0-9]{2}\\.[0-9],[ 0-9]{3}";

std::vector<std::string> lines_of(const char *path)
{
    std::vector<std::string> lines;
    std::istringstream log(testbed::read_file(path));
    for (std::string line; std::getline(log, line);)
        lines.push_back(line);
    return lines;
}

// " 5/ 3/2024 22: 5: 0" at the beginning of a line of either log.
std::int64_t moment_of(const std::string &line)
{
    int day = 0, month = 0;
    std::tm fields{};
    std::sscanf(line.c_str(), "%d/%d/%d %d:%d:%d", &day, &month, &fields.tm_year, &fields.tm_hour,
                &fields.tm_min, &fields.tm_sec);
    fields.tm_mday = day;
    fields.tm_mon = month - 1;
    fields.tm_year -= 1900;
    fields.tm_isdst = -1;
    return std::mktime(&fields);
}

std::vector<std::int64_t> spacings(const std::vector<std::string> &lines)
{
    std::vector<std::int64_t> found;
    for (std::size_t i = 1; i < lines.size(); ++i)
        found.push_back(moment_of(lines[i]) - moment_of(lines[i - 1]));
    return found;
}

Settings settings(const Settings &more)
{
    Settings all = {{"UPS", "AgentType", "4"}};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

// ---- the data log

TEST(DataLog, LineEveryMinuteWithWhatTheUnitMeasures)
{
    DatedStage stage({.settings = settings({}), .start = "2024-03-05 09:07:00"});
    stage.unit("input 97");
    stage.run(10min);
    const std::vector<std::string> lines = lines_of(DATA_LOG);
    ASSERT_THAT(lines, SizeIs(11));
    EXPECT_THAT(lines, Each(MatchesRegex(DATA_FORMAT)));
    EXPECT_EQ(testbed::read_file(DATA_LOG).size(), 11 * DATA_LINE);
    EXPECT_THAT(spacings(lines), Each(60));
    EXPECT_THAT(lines.front(), testing::StartsWith(" 5/ 3/2024  9: 7: 3,"));
    const UPSDATA data = stage.info().upsdata;
    EXPECT_NE(data.InPutINT, data.OutPutINT);
    std::array<char, 80> measured{};
    std::snprintf(measured.data(), measured.size(), ",%3i.%1i,%3i.%1i,%3i,%2i.%1i,", data.InPutINT,
                  data.InPutREM, data.OutPutINT, data.OutPutREM, data.Load, data.FreqInputINT,
                  data.FreqInputREM);
    EXPECT_THAT(lines.back(), HasSubstr(measured.data()));
    struct stat status {
    };
    ASSERT_EQ(stat(DATA_LOG, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_gid, 1U);
}

TEST(DataLog, MonthAtItsIntervalKeepsTheNewestLines)
{
    DatedStage stage(
        {.settings = settings({{"DataLog", "DataLogInterval", "3600"}, {"DataLog", "DataLogMaxSize", "100"}}),
         .start = "2024-02-15 00:00:00"});
    stage.leap(24h * 30, 3600s);
    const std::vector<std::string> lines = lines_of(DATA_LOG);
    ASSERT_THAT(lines, SizeIs(100));
    EXPECT_THAT(lines, Each(MatchesRegex(DATA_FORMAT)));
    EXPECT_EQ(testbed::read_file(DATA_LOG).size(), 100 * DATA_LINE);
    EXPECT_THAT(spacings(lines), Each(testing::AllOf(testing::Ge(3600), testing::Le(3602))));
    EXPECT_LE(stage.clock.wall() - moment_of(lines.back()), 3602);
    EXPECT_TRUE(stage.agent_runs());
}

TEST(DataLog, RestsWhileTheLinkIsDown)
{
    DatedStage stage(
        {.settings = settings({{"DataLog", "DataLogInterval", "10"}}), .start = "2024-03-05 09:00:00"});
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run(1s);
    const std::size_t before = lines_of(DATA_LOG).size();
    stage.run(60s);
    EXPECT_THAT(lines_of(DATA_LOG), SizeIs(before));
    stage.unit("line restore");
    stage.wait_for_link(2);
    stage.run(31s);
    EXPECT_THAT(lines_of(DATA_LOG).size(), testing::AllOf(testing::Ge(before + 3), testing::Le(before + 4)));
    EXPECT_THAT(lines_of(DATA_LOG), Each(MatchesRegex(DATA_FORMAT)));
}

TEST(DataLog, ClockSetBackByAnHourTakesALineAtOnceAndKeepsTheInterval)
{
    DatedStage stage({.settings = settings({}), .start = "2024-03-05 09:00:00"});
    stage.run_to("2024-03-05 09:02:30");
    stage.set_wall("2024-03-05 08:02:00");
    stage.run_to("2024-03-05 08:05:30");
    const std::vector<std::string> lines = lines_of(DATA_LOG);
    ASSERT_THAT(lines, SizeIs(7));
    EXPECT_THAT(spacings(lines), ElementsAre(60, 60, testing::Lt(-3500), 60, 60, 60));
}

// Local time is told twice, the interval goes by seconds.
TEST(DataLog, RepeatedHourIsLoggedTwice)
{
    DatedStage stage(
        {.settings = settings({}), .start = "2024-10-27 00:57:00", .zone = "CET-1CEST,M3.5.0,M10.5.0/3"});
    stage.run(5min);
    const std::vector<std::string> lines = lines_of(DATA_LOG);
    ASSERT_THAT(lines, SizeIs(6));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const char *const TIMES[] = {" 2:57:", " 2:58:", " 2:59:", " 2: 0:", " 2: 1:", " 2: 2:"};
        EXPECT_THAT(lines[i], testing::StartsWith(std::string("27/10/2024 ") + TIMES[i]));
    }
}

TEST(Logs, NothingIsWrittenWhenSwitchedOff)
{
    bed::Stage stage({.settings = settings({{"EventLog", "EventLogEnabled", "0"},
                                            {"DataLog", "DataLogEnabled", "0"},
                                            {"DataLog", "DataLogInterval", "5"}})});
    stage.run_until(
        "link", [&] { return stage.info().CommStatus == 2; }, 60s);
    stage.unit("mains fail");
    stage.run(20s);
    // The start itself is logged before the settings have been read.
    EXPECT_THAT(bed::ids(stage.events()), testing::AnyOf(IsEmpty(), ElementsAre(7)));
    EXPECT_FALSE(std::filesystem::exists(DATA_LOG));
}

// ---- the event log

TEST(EventLog, KeepsTheNewestOfManyEvents)
{
    DatedStage stage(
        {.settings = settings({{"EventLog", "EventLogMaxSize", "20"}}), .start = "2024-03-05 09:00:00"});
    for (int i = 0; i < 25; ++i) {
        stage.unit("mains fail");
        stage.run(2s);
        stage.unit("mains return");
        stage.run(2s);
    }
    EXPECT_EQ(testbed::read_file(EVENT_LOG).size(), 20 * EVENT_LINE);
    std::vector<int> expected;
    for (int i = 0; i < 10; ++i)
        expected.insert(expected.end(), {65, 0});
    EXPECT_EQ(bed::ids(stage.events()), expected);
    EXPECT_THAT(spacings(lines_of(EVENT_LOG)), Each(2));
}

// ---- what cannot be written

// Tells users and monitors although nothing can be logged, and logs again as soon as it can.
void expect_service(DatedStage &stage)
{
    const std::size_t told = stage.notices().size();
    stage.unit("mains fail");
    stage.run(3s);
    stage.unit("mains return");
    stage.run(3s);
    std::vector<std::string> notices = bed::texts(stage.notices());
    notices.erase(notices.begin(), notices.begin() + static_cast<std::ptrdiff_t>(told));
    EXPECT_THAT(notices, Contains("UPS AC Restore"));
    EXPECT_TRUE(stage.agent_runs());
    EXPECT_EQ(bed::status().CommStatus, 2);
}

const Settings BUSY = {{"UPS", "AgentType", "4"}, {"DataLog", "DataLogInterval", "1"}};

TEST(Logs, DirectoriesInTheirPlaceAreLeftAloneAndTheAgentGoesOn)
{
    DatedStage stage({.settings = BUSY, .start = "2024-03-05 09:00:00"});
    for (const char *path : {EVENT_LOG, DATA_LOG}) {
        std::filesystem::remove(path);
        std::filesystem::create_directory(path);
    }
    expect_service(stage);
    for (const char *path : {EVENT_LOG, DATA_LOG}) {
        EXPECT_TRUE(std::filesystem::is_directory(path));
        std::filesystem::remove(path);
    }
    expect_service(stage);
    EXPECT_THAT(bed::ids(stage.events()), ElementsAre(65, 0));
    EXPECT_THAT(lines_of(DATA_LOG), Each(MatchesRegex(DATA_FORMAT)));
}

// A file system of its own over the installation directory, which keeps what is there; gone with the object.
class OwnFileSystem
{
  public:
    explicit OwnFileSystem(const std::string &options)
    {
        const std::string kept = testbed::read_config();
        if (mount("tmpfs", testbed::INSTALL_DIRECTORY, "tmpfs", 0, options.c_str()) != 0)
            throw testbed::TestbedError(std::string("mount: ") + std::strerror(errno));
        testbed::write_config(kept);
    }
    OwnFileSystem(const OwnFileSystem &) = delete;
    OwnFileSystem &operator=(const OwnFileSystem &) = delete;
    ~OwnFileSystem()
    {
        umount2(testbed::INSTALL_DIRECTORY, MNT_DETACH);
    }
    static void set_read_only(bool on)
    {
        if (mount("tmpfs", testbed::INSTALL_DIRECTORY, nullptr, on ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT,
                  nullptr) != 0)
            throw testbed::TestbedError(std::string("remount: ") + std::strerror(errno));
    }
};

const std::string FILLER = std::string(testbed::INSTALL_DIRECTORY) + "filler";

// Takes every block that is left.
void fill()
{
    const int fd = open(FILLER.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0)
        ;
    close(fd);
}

TEST(Logs, FullFileSystemDoesNotStopTheAgent)
{
    DatedStage stage({.settings = BUSY, .start = "2024-03-05 09:00:00"});
    const OwnFileSystem small("size=32k");
    stage.run(3s);
    fill();
    stage.run(120s);  // more lines than the last block of the data log has room for
    const std::string full = testbed::read_file(DATA_LOG);
    EXPECT_THAT(full, testing::EndsWith("\n"));  // no part of a line
    EXPECT_GT(full.size(), 4096U - lines_of(DATA_LOG).back().size() - 1);
    expect_service(stage);
    EXPECT_EQ(testbed::read_file(DATA_LOG), full);
    std::filesystem::remove(FILLER);
    expect_service(stage);
    const std::vector<std::string> lines = lines_of(DATA_LOG);
    EXPECT_THAT(lines.back(), MatchesRegex(DATA_FORMAT));
    EXPECT_LE(stage.clock.wall() - moment_of(lines.back()), 2);
    EXPECT_THAT(bed::ids(stage.events()), Contains(0));
}

TEST(Logs, FullFileSystemDoesNotStopAScheduledShutdown)
{
    Settings weekly = BUSY;
    weekly.insert(weekly.end(), {{"ScheShutDown", "WEEKLYNO", "1"},
                                 {"ScheShutDown", "WEEKLYSTART1", "30 22 * * 2"},
                                 {"ScheShutDown", "WEEKLYEND1", "30 23 * * 2"}});
    DatedStage stage({.settings = weekly, .start = "2024-03-05 22:29:00"});
    const OwnFileSystem small("size=16k");
    fill();
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
    EXPECT_THAT(stage.ordered(), Contains("2024-03-05 22:30:00 S10R00050"));
}

TEST(Logs, ReadOnlyFileSystemDoesNotStopTheAgent)
{
    DatedStage stage({.settings = BUSY, .start = "2024-03-05 09:00:00"});
    const OwnFileSystem own("size=64k");
    stage.run(3s);
    const std::string before = testbed::read_file(DATA_LOG);
    OwnFileSystem::set_read_only(true);
    expect_service(stage);
    EXPECT_EQ(testbed::read_file(DATA_LOG), before);
    OwnFileSystem::set_read_only(false);
    expect_service(stage);
    EXPECT_GT(lines_of(DATA_LOG).size(), before.size() / DATA_LINE + 4);
}

// ---- the settings file

std::string rubbish()
{
    std::mt19937 random(4112);
    std::string text;
    while (text.size() < 60'000) {
        text += static_cast<char>(random());
        if (random() % 500 == 0)
            text += "\n[ ShutDown ]\n EXPECTBLIFE";
        if (random() % 500 == 0)
            text += "\n[ ScheShutDown ]\n WEEKLYNO = 99999999999\n WEEKLYSTART1 = * * * *";
    }
    return text;
}

// Settings count from the moment at which they are read again; what cannot be read has its usual value.
TEST(SettingsFile, RubbishInItsPlaceMeansDefaultsAndTheAgentGoesOn)
{
    DatedStage stage({.settings = settings({{"ShutDown", "EXPECTBLIFE", "3600"},
                                            {"ScheShutDown", "WEEKLYNO", "1"},
                                            {"ScheShutDown", "WEEKLYSTART1", "30 22 * * 2"},
                                            {"ScheShutDown", "WEEKLYEND1", "30 23 * * 2"}}),
                      .start = "2024-03-05 09:00:00"});
    testbed::write_config(rubbish());
    expect_service(stage);
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.unit("line restore");
    stage.wait_for_link(2);
    stage.run(3s);
    EXPECT_EQ(stage.goes_down_at(), "none");
    const std::string failed = shown(stage.clock.wall());
    stage.unit("mains fail");
    EXPECT_TRUE(stage.goes_down(70s));
    EXPECT_GE(stage.clock.wall() - moment(failed), 60);
    EXPECT_THAT(stage.ordered(), Contains(testing::EndsWith(" S10")));
}

TEST(SettingsFile, EnormousCountsOfSchedulesHoldNothingUp)
{
    const auto begin = std::chrono::steady_clock::now();
    DatedStage stage({.settings = settings({{"ScheShutDown", "SPECIALNO", "2147483647"},
                                            {"ScheShutDown", "WEEKLYNO", "2147483647"},
                                            {"ScheShutDown", "WEEKLYSTART1", "30 22 * * 2"},
                                            {"ScheShutDown", "WEEKLYEND1", "30 23 * * 2"},
                                            {"ScheShutDown", "MONTHLYNO", "-5"},
                                            {"ScheTest", "WEEKLYNO", "4294967295"}}),
                      .start = "2024-03-05 09:00:00"});
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
}

}  // namespace

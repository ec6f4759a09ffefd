// What the store does when the file system does not do what it asks.
#include "filehandle_fixture.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

static int interruptions = 0;  // of the reads to come

extern "C" ssize_t pread(int fd, void *into, std::size_t size, off_t at)
{
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    return syscall(SYS_pread64, fd, into, size, at);
}

// A disk that takes no byte beyond `size` of a file, while it lives.
class FullDisk
{
  public:
    explicit FullDisk(rlim_t size)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {size, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
    }
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

  private:
    rlimit before_{};
};

static std::ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST_F(ConfigStore, ASignalDuringAReadChangesNothing)
{
    put_config("[ A ]\n\n K = 1\n");
    interruptions = 3;
    EXPECT_EQ(read("A", "K"), "1");
    EXPECT_EQ(interruptions, 0);
    interruptions = 1;
    EXPECT_EQ(writeparam("A", "K", "2"), 0);
    EXPECT_EQ(interruptions, 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n K = 2\n");
}

TEST_F(ConfigStore, FileThatCannotBeCreatedFailsTheWrite)
{
    std::filesystem::create_symlink("/nonexistent/config", CONFIG_FILE);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    EXPECT_EQ(last_error(), "writeparam: Cannot create config file");
    EXPECT_EQ(open_write_batch(), -1);
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
}

TEST_F(ConfigStore, FileThatCannotBeOpenedForWritingFailsTheWrite)
{
    std::filesystem::create_directory(CONFIG_FILE);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    EXPECT_EQ(last_error(), "writeparam: cannot open config file\n");
    EXPECT_EQ(open_write_batch(), -1);
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
}

TEST_F(ConfigStore, APipeInPlaceOfTheFileHoldsNobodyUp)
{
    ASSERT_EQ(mkfifo(CONFIG_FILE, 0600), 0);
    EXPECT_EQ(readparam("A", "K"), nullptr);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    EXPECT_EQ(removeitem("A", "K", 0), -1);
}

TEST_F(ConfigStore, SecondStreamThatCannotBeOpenedFailsTheWriteAndClosesTheFirst)
{
    put_config("[ A ]\n");
    const FewDescriptors limit(1);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    EXPECT_EQ(last_error(), "writeparam: cannot open config file\n");
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(open_write_batch(), -1);
    EXPECT_EQ(wfps, nullptr);
    const int free = dup(0);
    EXPECT_GE(free, 0) << "the descriptor came back";
    close(free);
}

TEST_F(ConfigStore, SecondStreamThatCannotBeOpenedLeavesTheFileUnchanged)
{
    put_config("[ A ]\n");
    {
        const FewDescriptors limit(1);
        EXPECT_EQ(writeparam("A", "K", "1"), -1);
        EXPECT_EQ(removeitem("A", "", 0), -1);
    }
    EXPECT_EQ(config_text(), "[ A ]\n");
}

TEST_F(ConfigStore, NothingStaysOpenWhateverTheOutcome)
{
    const auto before = open_descriptors();
    EXPECT_EQ(readparam("A", "K"), nullptr);
    EXPECT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(readparam("A", "K"), nullptr);
    EXPECT_EQ(readparam("A", ""), readparam("A", ""));
    EXPECT_EQ(writeparam("A", std::string(600, 'k').c_str(), "1"), -1);
    EXPECT_EQ(writeparam("A\n", "K", "1"), -1);
    EXPECT_EQ(open_write_batch(), 0);
    EXPECT_EQ(open_write_batch(), 0) << "a batch opened twice";
    EXPECT_EQ(close_write_batch(), 0);
    EXPECT_EQ(removeitem("A", "", 0), 0);
    EXPECT_EQ(removeitem("A", "", 0), 1);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ConfigStore, FileThatCannotBeReadIsNotTakenForAnEmptyOne)
{
    std::filesystem::create_symlink("/proc/self/mem",
                                    CONFIG_FILE);  // opens, but its first bytes cannot be read
    EXPECT_EQ(readparam("A", "K"), nullptr);
    errbuffer.fill('\0');
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    EXPECT_EQ(removeitem("A", "K", 0), -1);
    ASSERT_EQ(open_write_batch(), 0);
    EXPECT_EQ(insert(0, "X"), -1);
    EXPECT_EQ(last_error(), "") << "nothing was written";
}

TEST_F(ConfigStore, CloseThatFailsIsReportedAndStillUnsetsTheStreams)
{
    put_config("[ A ]\n");
    ASSERT_EQ(open_write_batch(), 0);
    close(fileno(wfps));
    EXPECT_EQ(close_write_batch(), -1);
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
    EXPECT_EQ(writeparam("A", "K", "1"), 0);
}

// The whole text that a write aims at, and what a disk full after `size` bytes leaves of it.
static void expect_cut(const std::string &wanted, std::size_t size)
{
    EXPECT_EQ(config_text(), wanted.substr(0, size)) << "full after " << size;
}

TEST_F(ConfigStore, FullDiskEndsTheFileWhereTheWriteStopped)
{
    const std::string before = "[ A ]\n K = 1\n\n[ B ]\n L = 2\n";
    const std::string after = "[ A ]\n K = 12345\n\n[ B ]\n L = 2\n";
    for (std::size_t size = 11; size < after.size(); ++size) {
        put_config(before);
        errbuffer.fill('\0');
        const FullDisk disk(size);
        EXPECT_EQ(writeparam("A", "K", "12345"), -1);
        EXPECT_EQ(last_error(), "insert:fprintf error\n");
        expect_cut(after, size);
    }
}

TEST_F(ConfigStore, FullDiskDoesNotHinderAWriteThatStillFits)
{
    put_config("[ A ]\n K = 12345\n\n[ B ]\n");
    const FullDisk disk(25);
    EXPECT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n\n[ B ]\n");
}

TEST_F(ConfigStore, HeaderThatDoesNotFitTheDiskIsNotFollowedByItsSetting)
{
    const std::string before = "[ A ]\n";
    const std::string after = before + "\n[ Long section name ]\n";
    for (std::size_t size = before.size(); size < after.size(); ++size) {
        put_config(before);
        const FullDisk disk(size);
        EXPECT_EQ(writeparam("Long section name", "K", "1"), -1);
        expect_cut(after, size);
    }
    put_config(before);
    const FullDisk disk(before.size());
    EXPECT_EQ(writeparam("B", "", ""), -1) << "a section that is not there was not created";
}

TEST_F(ConfigStore, BatchGoesOnAfterAFailedWrite)
{
    put_config("[ A ]\n K = 1\n");
    ASSERT_EQ(open_write_batch(), 0);
    {
        const FullDisk disk(20);
        EXPECT_EQ(writeparam("A", "K", "a value for which there is no room"), -1);
    }
    EXPECT_EQ(config_text(), "[ A ]\n K = a value f");
    EXPECT_EQ(writeparam("A", "L", "2"), 0);
    EXPECT_EQ(close_write_batch(), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = a value f\n L = 2\n");
}

// ------------------------------------------------------------------------------------------ insert

class ConfigSplice : public ConfigStore
{
  protected:
    // Opens the streams on a file of this text and puts the read side there.
    static void open_at(const char *text, long at)
    {
        put_config(text);
        ASSERT_EQ(open_write_batch(), 0);
        ASSERT_EQ(std::fseek(wfps, at, SEEK_SET), 0);
    }
};

TEST_F(ConfigSplice, OffsetZeroInsertsWithoutRemovingAnything)
{
    open_at("one\ntwo\n", 4);
    EXPECT_EQ(insert(0, "X"), 0);
    EXPECT_EQ(config_text(), "one\nXtwo\n");
    EXPECT_EQ(std::ftell(wfps), 4) << "the text is met by the next read";
}

TEST_F(ConfigSplice, NegativeOffsetReplacesTheRestOfTheLineThere)
{
    open_at("one\ntwo\nthree\n", 8);
    EXPECT_EQ(insert(-3, "XX\n"), 0);
    EXPECT_EQ(config_text(), "one\ntXX\nthree\n");
}

TEST_F(ConfigSplice, PositiveOffsetReplacesTheRestOfTheLineThere)
{
    open_at("one\ntwo\nthree\n", 0);
    EXPECT_EQ(insert(4, ""), 0);
    EXPECT_EQ(config_text(), "one\nthree\n");
}

TEST_F(ConfigSplice, NoMoreThanABufferOfALongLineIsReplaced)
{
    open_at((std::string(600, 'x') + "\nend\n").c_str(), 1);
    EXPECT_EQ(insert(-1, "Y"), 0);
    EXPECT_EQ(config_text(), "Y" + std::string(89, 'x') + "\nend\n");
}

TEST_F(ConfigSplice, OffsetBeforeTheFileIsAnError)
{
    open_at("one\n", 2);
    EXPECT_EQ(insert(-3, "X"), -1);
    EXPECT_EQ(config_text(), "one\n");
}

TEST_F(ConfigSplice, NothingToReplaceIsAnErrorAndChangesNothing)
{
    open_at("one\n", 0);
    EXPECT_EQ(insert(4, "X"), -1);
    EXPECT_EQ(insert(50, "X"), -1);
    EXPECT_EQ(config_text(), "one\n");
}

TEST_F(ConfigSplice, WithoutOpenStreamsIsAnError)
{
    put_config("one\n");
    EXPECT_EQ(insert(0, "X"), -1);
    EXPECT_EQ(config_text(), "one\n");
}

TEST_F(ConfigSplice, TailOfManyBlocksMovesByteForByte)
{
    std::string tail;
    for (int i = 0; i < 50000; ++i)
        tail += static_cast<char>(i * 7 % 256);
    put_config("[ A ]\nK = 1\n" + tail);
    ASSERT_EQ(writeparam("A", "K", std::string(300, 'v').c_str()), 0);
    EXPECT_EQ(config_text(), "[ A ]\nK = " + std::string(300, 'v') + "\n" + tail);
    ASSERT_EQ(writeparam("A", "K", ""), 0);
    EXPECT_EQ(config_text(), "[ A ]\nK = \n" + tail);
}

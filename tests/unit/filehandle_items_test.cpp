// Removing items, reading a file item by item, and the two file routines.
#include "filehandle_fixture.h"

#include <array>
#include <fcntl.h>
#include <filesystem>

using namespace std::string_literals;

TEST_F(ConfigStore, RemovedSettingIsGoneAndTheRestStays)
{
    put_config("[ A ]\n\n K = 1\n L = 2\n\n[ B ]\n K = 3\n");
    EXPECT_EQ(removeitem("A", "K", 0), 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n L = 2\n\n[ B ]\n K = 3\n");
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
}

TEST_F(ConfigStore, RemovingOnceLeavesDuplicates)
{
    put_config("[ A ]\nK = 1\nL = 2\nK = 3\n");
    EXPECT_EQ(removeitem("A", "K", 0), 0);
    EXPECT_EQ(config_text(), "[ A ]\nL = 2\nK = 3\n");
}

TEST_F(ConfigStore, RemovingAgainRemovesDuplicatesOfTheSectionOnly)
{
    put_config("[ A ]\nK = 1\nL = 2\nK = 3\nKK = 4\nK=\n[ B ]\nK = 5\n");
    EXPECT_EQ(removeitem("A", "K", 1), 0);
    EXPECT_EQ(config_text(), "[ A ]\nL = 2\nKK = 4\n[ B ]\nK = 5\n");
}

TEST_F(ConfigStore, OnlyTheFlagValueOneRemovesDuplicates)
{
    put_config("[ A ]\nK = 1\nK = 2\n");
    EXPECT_EQ(removeitem("A", "K", 2), 0);
    EXPECT_EQ(config_text(), "[ A ]\nK = 2\n");
}

TEST_F(ConfigStore, RemovingAMissingKeyChangesNothing)
{
    const std::string text = "[ A ]\nKK = 1\nK = 2";
    put_config(text);
    EXPECT_EQ(removeitem("A", "K", 0), 0);
    EXPECT_EQ(removeitem("A", "K", 1), 0);
    EXPECT_EQ(removeitem("A", nullptr, 0), 0);
    EXPECT_EQ(removeitem(nullptr, "K", 0), 0);
    EXPECT_EQ(config_text(), text);
}

TEST_F(ConfigStore, RemovingFromAMissingSectionSaysSo)
{
    put_config("[ A ]\nK = 1\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(removeitem("B", "K", 0), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNo such section");
    EXPECT_EQ(config_text(), "[ A ]\nK = 1\n");
}

TEST_F(ConfigStore, EmptyKeyRemovesTheSectionUpToTheNextHeader)
{
    put_config("x\n\n[ A ]\n K = 1\n\n"s + std::string(700, 'y') + "\n\0\n\n[ B ]\n L = 2\n"s);
    EXPECT_EQ(removeitem("A", "", 0), 0);
    EXPECT_EQ(config_text(), "x\n\n[ B ]\n L = 2\n");
    EXPECT_EQ(removeitem("B", "", 1), 0);
    EXPECT_EQ(config_text(), "x\n\n");
}

TEST_F(ConfigStore, OverLongHeaderIsReportedWhenItemsAreRemoved)
{
    put_config("[ A ]" + std::string(600, '.') + "\n[ A ]\nK = 1\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(removeitem("A", "K", 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nErrNo.2 line too long\n");
    EXPECT_EQ(config_text(), "[ A ]" + std::string(600, '.') + "\n[ A ]\n");
}

TEST_F(ConfigStore, RemovingFromAMissingFileSaysSoAndCreatesNone)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(removeitem("A", "K", 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n cannot open wfps \n");
    EXPECT_FALSE(std::filesystem::exists(CONFIG_FILE));
}

TEST_F(ConfigStore, RemovingWithOneDescriptorLeftSaysSo)
{
    put_config("[ A ]\nK = 1\n");
    testing::internal::CaptureStdout();
    {
        const FewDescriptors limit(1);
        EXPECT_EQ(removeitem("A", "K", 0), -1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\ncannot open wfpd file\n");
}

// ---------------------------------------------------------------------------------- item by item

static const int dcflags_at_start = Dcflags;

TEST_F(ConfigStore, OpenFileProvesThatAFileCanBeRead)
{
    EXPECT_EQ(dcflags_at_start, 0);
    EXPECT_EQ(openfile(nullptr), 0);
    EXPECT_EQ(Dcflags, 0);
    EXPECT_EQ(openfile(CONFIG_FILE), -1);
    EXPECT_EQ(Dcflags, 0);
    put_config("");
    EXPECT_EQ(openfile(CONFIG_FILE), 0);
    EXPECT_EQ(Dcflags, 1);
    EXPECT_EQ(dfile, nullptr);
}

class ConfigItems : public ConfigStore
{
  protected:
    void TearDown() override
    {
        if (dfile != nullptr)
            std::fclose(dfile);
        dfile = nullptr;
        ConfigStore::TearDown();
    }

    // Starts reading items of a file of this text.
    static void items_of(const std::string &text)
    {
        put_config(text);
        dfile = std::fopen(CONFIG_FILE, "r");
        ASSERT_NE(dfile, nullptr);
    }

    void expect_item(int result, const std::string &wantedkey, const std::string &wantedvalue)
    {
        EXPECT_EQ(readitem(key_, value_), result);
        EXPECT_EQ(std::string(key_.data()), wantedkey);
        EXPECT_EQ(std::string(value_.data()), wantedvalue);
    }

    std::array<char, 512> key_{"old"};
    std::array<char, 512> value_{"older"};
};

TEST_F(ConfigItems, SettingsHeadersAndTheEndAreToldApart)
{
    items_of("  K = one two \n[ A ]\nL ==  = x\n\nnonsense\n");
    expect_item(READITEM_SETTING, "K", "one two ");
    expect_item(READITEM_HEADER, "", "");
    expect_item(READITEM_SETTING, "L", "x");
    expect_item(READITEM_NOEQUALS, "L", "x");
    expect_item(READITEM_NOEQUALS, "L", "x");
    expect_item(READITEM_END, "", "");
    expect_item(READITEM_END, "", "");
}

TEST_F(ConfigItems, KeyEndsAtItsFirstBlankOnly)
{
    items_of("k=v\nk=v w\nk x = v\n [ A ]\nk =\n");
    expect_item(READITEM_NOEQUALS, "old", "older");
    expect_item(READITEM_NOEQUALS, "old", "older");
    expect_item(READITEM_NOEQUALS, "old", "older");
    expect_item(READITEM_NOEQUALS, "old", "older");
    expect_item(READITEM_SETTING, "k", "");
}

TEST_F(ConfigItems, LineWithoutNewlineIsTooLong)
{
    items_of(std::string(600, 'x') + " = 1\nk = a\0b\n["s + std::string(600, '.') + "\nk = v"s);
    expect_item(READITEM_TOOLONG, "old", "older");
    expect_item(READITEM_SETTING, std::string(89, 'x'), "1");
    expect_item(READITEM_TOOLONG, std::string(89, 'x'), "1");
    expect_item(READITEM_HEADER, "", "");
    expect_item(READITEM_NOEQUALS, "", "");
    expect_item(READITEM_TOOLONG, "", "");
    expect_item(READITEM_END, "", "");
}

TEST_F(ConfigItems, LongestLineFitsTheBuffers)
{
    items_of("k = " + std::string(506, 'v') + "\n" + std::string(508, 'k') + " =\n");
    expect_item(READITEM_SETTING, "k", std::string(506, 'v'));
    expect_item(READITEM_SETTING, std::string(508, 'k'), "");
}

TEST_F(ConfigItems, UnsetStreamReadsAsTheEnd)
{
    expect_item(READITEM_END, "", "");
}

// ------------------------------------------------------------------------------------ file routines

TEST_F(ConfigStore, CopyFileCopiesEveryByteAndReplacesWhatWasThere)
{
    const std::string to = std::string(STORE_DIR) + "/copy";
    const std::string text = "a\n\0\n"s + std::string(1000, 'x') + "\nlast";
    put_config(text);
    std::ofstream(to) << std::string(5000, '-');
    EXPECT_EQ(copy_file(CONFIG_FILE, to.c_str()), 0);
    std::ifstream copy(to, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copy), {}), text);
    std::remove(to.c_str());
}

TEST_F(ConfigStore, CopyFileAnswersZeroEvenWhenNothingCanBeCopied)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(copy_file("/nonexistent/from", "/nonexistent/to"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "open file error\nopen file error\n");
    put_config("x");
    testing::internal::CaptureStderr();
    EXPECT_EQ(copy_file(CONFIG_FILE, "/nonexistent/to"), 0);
    EXPECT_EQ(copy_file(nullptr, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "open file error\nopen file error\nopen file error\n");
}

TEST_F(ConfigStore, EfopenOpensOrSaysThatItCannot)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(efopen(CONFIG_FILE, "r"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "open file error\n");
    testing::internal::CaptureStderr();
    std::FILE *stream = efopen(CONFIG_FILE, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    std::fclose(stream);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

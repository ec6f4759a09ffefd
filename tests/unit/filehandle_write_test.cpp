// Writing settings: the bytes of the file after each write, and what a read finds then.
#include "filehandle_fixture.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>

using namespace std::string_literals;

// ---------------------------------------------------------------------------------- a new section

TEST_F(ConfigStore, FirstSettingOfANewSectionLandsAboveItsHeader)
{
    ASSERT_EQ(writeparam("UPS", "Group", "Group A"), 0);
    EXPECT_EQ(config_text(), "\n Group = Group A\n\n[ UPS ]\n");
    EXPECT_EQ(read("UPS", "Group"), "(null)");
}

TEST_F(ConfigStore, SecondWriteOfThatSettingIsFound)
{
    ASSERT_EQ(writeparam("UPS", "Group", "Group A"), 0);
    ASSERT_EQ(writeparam("UPS", "Group", "Group B"), 0);
    EXPECT_EQ(config_text(), "\n Group = Group A\n\n[ UPS ]\n\n Group = Group B\n");
    EXPECT_EQ(read("UPS", "Group"), "Group B");
}

TEST_F(ConfigStore, NewSectionGoesToTheEndOfTheFile)
{
    put_config("[ A ]\n K = 1\n");
    ASSERT_EQ(writeparam("B", "L", "2"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n\n L = 2\n\n[ B ]\n");
}

TEST_F(ConfigStore, NewSectionBehindALastLineWithoutNewlineStartsOnALineOfItsOwn)
{
    put_config("[ A ]\n K = 1");
    ASSERT_EQ(writeparam("B", "L", "2"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n L = 2\n\n[ B ]\n");
}

TEST_F(ConfigStore, EmptyKeyCreatesAnEmptySection)
{
    put_config("[ A ]\n K = 1\n");
    ASSERT_EQ(writeparam("B", "", "ignored"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n\n[ B ]\n");
    EXPECT_EQ(read("B", ""), "[ B ]");
    ASSERT_EQ(writeparam("B", "", ""), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n\n[ B ]\n") << "an existing section is left alone";
}

TEST_F(ConfigStore, SectionIsNotMistakenForOneWithALongerName)
{
    put_config("[ Group ]\n");
    ASSERT_EQ(writeparam("Gro", "", ""), 0);
    EXPECT_EQ(config_text(), "[ Group ]\n\n[ Gro ]\n");
}

// ------------------------------------------------------------------------------------ an old key

TEST_F(ConfigStore, OnlyTheTextBehindTheEqualSignsIsReplaced)
{
    put_config("[ A ]\n  K ==  old value \n# L = 1\n");
    ASSERT_EQ(writeparam("A", "K", "new"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n  K ==  new\n# L = 1\n");
}

TEST_F(ConfigStore, LongerAndShorterValuesMoveWhatFollows)
{
    const std::string head = "\n[ A ]\n\n K = ";
    const std::string tail = "\n\n L = 2\n\n[ B ]\n\n M = 3\nno newline at the end";
    put_config(head + "12345" + tail);
    for (const std::string value : {"", "1", "a much longer value than there was", "12345"}) {
        ASSERT_EQ(writeparam("A", "K", value.c_str()), 0);
        EXPECT_EQ(config_text(), head + value + tail);
        EXPECT_EQ(read("A", "K"), value);
    }
}

TEST_F(ConfigStore, ValueBehindABareEqualSignIsReplaced)
{
    put_config("[ A ]\nK=\n");
    ASSERT_EQ(writeparam("A", "K", "v"), 0);
    EXPECT_EQ(config_text(), "[ A ]\nK=v\n");
}

TEST_F(ConfigStore, KeyOfALongerNameIsNotOverwritten)
{
    put_config("[ A ]\n Event10 = ten\n Event1 = one\n");
    ASSERT_EQ(writeparam("A", "Event1", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n Event10 = ten\n Event1 = 1\n");
}

TEST_F(ConfigStore, FirstSectionOfANameIsTheOneThatIsWritten)
{
    put_config("[ A ]\nL = 1\n\n[ A ]\nK = 1\n");
    ASSERT_EQ(writeparam("A", "K", "2"), 0);
    EXPECT_EQ(config_text(), "[ A ]\nL = 1\n\n K = 2\n\n[ A ]\nK = 1\n");
}

TEST_F(ConfigStore, ValuesWithBlanksAndEqualSignsAreReadBackWhole)
{
    put_config("[ A ]\n");
    for (const std::string value :
         {"a = b", "x==y", "trailing ", "[ B ]", "  ]", "%s%n", "\t", "\xa5\xc6\xa5\xb9"}) {
        ASSERT_EQ(writeparam("A", "K", value.c_str()), 0);
        EXPECT_EQ(read("A", "K"), value.substr(value.find_first_not_of(' ')));
    }
}

TEST_F(ConfigStore, LeadingBlanksAndEqualSignsOfAValueJoinTheSeparator)
{
    put_config("[ A ]\n K = v\n");
    ASSERT_EQ(writeparam("A", "K", " = w"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K =  = w\n");
    EXPECT_EQ(read("A", "K"), "w");
}

// ------------------------------------------------------------------------------------- a new key

TEST_F(ConfigStore, NewKeyOfTheLastSectionIsAppended)
{
    put_config("\n[ A ]\n\n K = 1\n");
    ASSERT_EQ(writeparam("A", "L", "2"), 0);
    EXPECT_EQ(config_text(), "\n[ A ]\n\n K = 1\n\n L = 2\n");
    EXPECT_EQ(read("A", "L"), "2");
}

TEST_F(ConfigStore, NewKeyBeforeAnotherSectionLeavesAnEmptyLineOnBothSides)
{
    put_config("\n[ A ]\n\n K = 1\n\n[ B ]\n");
    ASSERT_EQ(writeparam("A", "L", "2"), 0);
    EXPECT_EQ(config_text(), "\n[ A ]\n\n K = 1\n\n L = 2\n\n[ B ]\n");
    EXPECT_EQ(read("A", "L"), "2");
}

TEST_F(ConfigStore, NewKeyBeforeAHeaderWithoutAnEmptyLineMakesOne)
{
    put_config("[ A ]\n[ B ]\n");
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n\n[ B ]\n");
}

TEST_F(ConfigStore, NewKeyWithAnEmptyValue)
{
    put_config("[ A ]\n");
    ASSERT_EQ(writeparam("A", "K", ""), 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n K = \n");
    EXPECT_EQ(read("A", "K"), "");
}

TEST_F(ConfigStore, NewKeyBehindALastLineWithoutNewlineStartsOnALineOfItsOwn)
{
    put_config("[ A ]\n L = 2");
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n L = 2\n K = 1\n");
}

TEST_F(ConfigStore, NewKeyBeforeAHeaderThatIsTheUnfinishedLastLine)
{
    put_config("[ A ]\n\n[ B");
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n K = 1\n\n[ B");
}

// -------------------------------------------------------------------- lines that are not accepted

TEST_F(ConfigStore, LinesThatAreNotUnderstoodAreCopiedThroughUnchanged)
{
    const std::string odd = "; note\n\n\t\n" + std::string(2000, 'x') + "\nbin\0ary\n\0\0\n\r\n = \n"s;
    put_config("[ A ]\n K = 1\n" + odd + "[ B ]\n" + odd + "last");
    ASSERT_EQ(writeparam("A", "K", "12345"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 12345\n" + odd + "[ B ]\n" + odd + "last");
    ASSERT_EQ(writeparam("A", "K", ""), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = \n" + odd + "[ B ]\n" + odd + "last");
}

TEST_F(ConfigStore, OverLongHeaderIsReportedToTheLogAndSkipped)
{
    const std::string longheader = "[ A ]" + std::string(600, '.') + "\n";
    put_config(longheader + "[ A ]\nK = 1\n");
    testing::internal::CaptureStdout();
    ASSERT_EQ(writeparam("A", "K", "2"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(last_error(), "writeparam:line too long");
    EXPECT_EQ(config_text(), longheader + "[ A ]\nK = 2\n");
}

TEST_F(ConfigStore, NewKeyBeforeAnOverLongHeaderLeavesThatLineWhole)
{
    const std::string longheader = "[ B ]" + std::string(600, '.') + "\n";
    put_config("[ A ]\n\n" + longheader);
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n K = 1\n\n" + longheader);
}

TEST_F(ConfigStore, NewKeyBeforeALongLineWithABracketAtABufferBorderLeavesThatLineWhole)
{
    const std::string longline = std::string(1022, 'x') + "[ B ]\n";
    put_config("[ A ]\n L = 1\n" + longline);
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n L = 1\n K = 1\n\n" + longline);
    EXPECT_EQ(read("A", "K"), "1");
}

TEST_F(ConfigStore, HeaderWithANulByteIsCountedInWholeWhenASettingGoesBeforeIt)
{
    put_config("[ A ]\n\n[ B\0 ]\n M = 1\n"s);
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n\n K = 1\n\n[ B\0 ]\n M = 1\n"s);
}

// --------------------------------------------------------------------------- what is not written

TEST_F(ConfigStore, ValueEndsAtItsFirstNewline)
{
    put_config("[ A ]\n K = 1\n\n[ B ]\n L = 2\n");
    ASSERT_EQ(writeparam("A", "K", "x\n[ B ]\n L = forged"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = x\n\n[ B ]\n L = 2\n");
    ASSERT_EQ(writeparam("A", "N", "\n[ B ]"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = x\n\n N = \n\n[ B ]\n L = 2\n");
}

TEST_F(ConfigStore, NewlineInASectionOrKeyIsRefused)
{
    put_config("[ A ]\n K = 1\n");
    EXPECT_EQ(writeparam("A", "K\n[ B ]\n K", "2"), -1);
    EXPECT_EQ(writeparam("A ]\n K = 3\n[ C", "K", "2"), -1);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n");
}

TEST_F(ConfigStore, NullArgumentsAreRefused)
{
    put_config("[ A ]\n K = 1\n");
    EXPECT_EQ(writeparam(nullptr, "K", "2"), -1);
    EXPECT_EQ(writeparam("A", nullptr, "2"), -1);
    EXPECT_EQ(writeparam("A", "K", nullptr), -1);
    EXPECT_EQ(config_text(), "[ A ]\n K = 1\n");
}

TEST_F(ConfigStore, LongestReadableValueIsWrittenAndALongerOneRefused)
{
    const std::string fits(511 - 6, 'v');
    put_config("[ A ]\n");
    ASSERT_EQ(writeparam("A", "K", fits.c_str()), 0);
    EXPECT_EQ(read("A", "K"), fits);
    const std::string before = config_text();
    EXPECT_EQ(writeparam("A", "K", (fits + "v").c_str()), -1);
    EXPECT_EQ(last_error(), "writeparam:line too long");
    EXPECT_EQ(writeparam("A", "L", (fits + "v").c_str()), -1);
    EXPECT_EQ(writeparam(std::string(511 - 4, 's').c_str(), "", ""), -1);
    EXPECT_EQ(config_text(), before);
    EXPECT_EQ(writeparam(std::string(511 - 5, 's').c_str(), "", ""), 0);
}

// ---------------------------------------------------------------------------- creation and streams

TEST_F(ConfigStore, SingleWriteCreatesThePrivateFile)
{
    umask(0);
    ASSERT_EQ(writeparam("A", "", ""), 0);
    struct stat status;
    ASSERT_EQ(stat(CONFIG_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, 1U);
}

TEST_F(ConfigStore, BatchCreatesThePrivateFile)
{
    umask(0277);
    ASSERT_EQ(open_write_batch(), 0);
    struct stat status;
    ASSERT_EQ(stat(CONFIG_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, 1U);
    EXPECT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(close_write_batch(), 0);
    EXPECT_EQ(config_text(), "\n K = 1\n\n[ A ]\n");
    umask(022);
}

TEST_F(ConfigStore, WritingKeepsModeAndOwnerOfAnExistingFile)
{
    put_config("[ A ]\n");
    ASSERT_EQ(chmod(CONFIG_FILE, 0640), 0);
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    struct stat status;
    ASSERT_EQ(stat(CONFIG_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(ConfigStore, WritesOfABatchAreInTheFileAtOnce)
{
    put_config("[ A ]\n");
    ASSERT_EQ(open_write_batch(), 0);
    for (int i = 0; i < 50; ++i) {
        const std::string number = std::to_string(i * i);
        ASSERT_EQ(writeparam("A", ("K" + std::to_string(i % 7)).c_str(), number.c_str()), 0);
        EXPECT_EQ(read("A", ("K" + std::to_string(i % 7)).c_str()), number);
    }
    EXPECT_EQ(close_write_batch(), 0);
}

TEST_F(ConfigStore, BatchMarksItsStreamsUnsetSoThatASingleWriteFollows)
{
    put_config("[ A ]\n");
    ASSERT_EQ(open_write_batch(), 0);
    EXPECT_NE(wfps, nullptr);
    EXPECT_NE(wfpd, nullptr);
    EXPECT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(close_write_batch(), 0);
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
    EXPECT_EQ(writeparam("A", "K", "2"), 0);
    EXPECT_EQ(read("A", "K"), "2");
}

TEST_F(ConfigStore, BatchKeepsItsStreamsOverAWrite)
{
    put_config("[ A ]\n");
    ASSERT_EQ(open_write_batch(), 0);
    std::FILE *source = wfps;
    std::FILE *destination = wfpd;
    ASSERT_EQ(writeparam("A", "K", "1"), 0);
    EXPECT_EQ(wfps, source);
    EXPECT_EQ(wfpd, destination);
}

TEST_F(ConfigStore, ClosingWithoutABatchIsHarmless)
{
    EXPECT_EQ(close_write_batch(), 0);
    EXPECT_EQ(close_write_batch(), 0);
}

TEST_F(ConfigStore, StreamsDoNotReachProgramsThatTheAgentStarts)
{
    ASSERT_EQ(open_write_batch(), 0);
    EXPECT_NE(fcntl(fileno(wfps), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(fileno(wfpd), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ConfigStore, SingleWriteGoesToTheFileThatAnEditorRenamedIntoPlace)
{
    put_config("[ A ]\n K = 1\n");
    ASSERT_EQ(writeparam("A", "K", "2"), 0);
    const std::string edited = std::string(CONFIG_FILE) + ".edited";
    std::ofstream(edited) << "[ A ]\n K = 2\n L = from the editor\n";
    ASSERT_EQ(std::rename(edited.c_str(), CONFIG_FILE), 0);
    ASSERT_EQ(writeparam("A", "K", "3"), 0);
    EXPECT_EQ(config_text(), "[ A ]\n K = 3\n L = from the editor\n");
}

TEST_F(ConfigStore, WholeEventTableIsStoredQuicklyAndReadBack)
{
    for (int pass = 0; pass < 2; ++pass) {
        ASSERT_EQ(open_write_batch(), 0);
        for (int event = 0; event < 54; ++event)
            for (const char *key :
                 {"Record", "ShutDown", "BroadcastType", "BroadcastUser", "MailUser", "Command"})
                ASSERT_EQ(
                    writeparam(("Event" + std::to_string(event)).c_str(), key, std::to_string(event).c_str()),
                    0);
        ASSERT_EQ(close_write_batch(), 0);
    }
    for (int event = 0; event < 54; ++event)
        for (const char *key :
             {"Record", "ShutDown", "BroadcastType", "BroadcastUser", "MailUser", "Command"})
            ASSERT_EQ(read(("Event" + std::to_string(event)).c_str(), key), std::to_string(event));
}

// Looking settings up in a configuration file that people and programs have written.
#include "filehandle_fixture.h"

#include <filesystem>

TEST_F(ConfigStore, MissingFileReadsAsNullAndIsNotCreated)
{
    EXPECT_EQ(readparam("UPS", "Group"), nullptr);
    EXPECT_EQ(last_error(), "Cannot open config file\n");
    EXPECT_FALSE(std::filesystem::exists(CONFIG_FILE));
}

TEST_F(ConfigStore, SettingIsFoundInItsSection)
{
    put_config("\n[ UPS ]\n\n Group = Group A\n\n[ ShutDown ]\n\n FIRSTWARN = 30\n");
    EXPECT_EQ(read("UPS", "Group"), "Group A");
    EXPECT_EQ(read("ShutDown", "FIRSTWARN"), "30");
    EXPECT_EQ(last_error(), "");
}

TEST_F(ConfigStore, SectionEndsAtTheNextHeader)
{
    put_config("[ A ]\n[ B ]\n K = 1\n");
    EXPECT_EQ(read("A", "K"), "(null)");
    EXPECT_EQ(read("B", "K"), "1");
}

TEST_F(ConfigStore, HeaderMayHaveAnyNumberOfBlanksInsideItsBrackets)
{
    put_config("[A]\nK = 1\n[   B]\nK = 2\n[C   ]\nK = 3\n[ D ] and more\nK = 4\n");
    EXPECT_EQ(read("A", "K"), "1");
    EXPECT_EQ(read("B", "K"), "2");
    EXPECT_EQ(read("C", "K"), "3");
    EXPECT_EQ(read("D", "K"), "4");
}

TEST_F(ConfigStore, HeaderMustStartInColumnZero)
{
    put_config(" [ A ]\nK = 1\n[ B ]\n [ A ]\nK = 2\n");
    EXPECT_EQ(read("A", "K"), "(null)");
    EXPECT_EQ(read("B", "K"), "2") << "an indented bracket does not end a section";
}

TEST_F(ConfigStore, SectionNamesAreNotMatchedByTheirBeginning)
{
    put_config("[ Group ]\n K = 1\n[ Gro ]\n K = 2\n");
    EXPECT_EQ(read("Gro", "K"), "2");
    EXPECT_EQ(read("Group", "K"), "1");
    EXPECT_EQ(read("Groups", "K"), "(null)");
}

TEST_F(ConfigStore, KeysAreNotMatchedByTheirBeginning)
{
    put_config("[ A ]\n Event10 = ten\n Event1 = one\n");
    EXPECT_EQ(read("A", "Event1"), "one");
    EXPECT_EQ(read("A", "Event10"), "ten");
    EXPECT_EQ(read("A", "Event"), "(null)");
}

TEST_F(ConfigStore, KeyOfALongerNameAloneIsNotFound)
{
    put_config("[ A ]\n Event10 = ten\n");
    EXPECT_EQ(read("A", "Event1"), "(null)");
}

TEST_F(ConfigStore, NamesAreCaseSensitive)
{
    put_config("[ UPS ]\n Group = x\n");
    EXPECT_EQ(read("ups", "Group"), "(null)");
    EXPECT_EQ(read("UPS", "group"), "(null)");
}

TEST_F(ConfigStore, AnyRunOfBlanksAndEqualSignsSeparatesKeyAndValue)
{
    put_config("[ A ]\na=1\n   b   =2\nc ==  = 3\nd= =4\n");
    EXPECT_EQ(read("A", "a"), "1");
    EXPECT_EQ(read("A", "b"), "2");
    EXPECT_EQ(read("A", "c"), "3");
    EXPECT_EQ(read("A", "d"), "4");
}

TEST_F(ConfigStore, KeyWithoutAnEqualSignBehindItIsNoSetting)
{
    put_config("[ A ]\nK value = 1\nK   \nK\nK: = 2\n K = 3\n");
    EXPECT_EQ(read("A", "K"), "3");
}

TEST_F(ConfigStore, TabIsAnOrdinaryCharacter)
{
    put_config("[\tA ]\nK = 1\n[ A ]\n\tK = 2\nK\t= 3\nK =\t4\n");
    EXPECT_EQ(read("A", "K"), "\t4");
    EXPECT_EQ(read("\tA", "K"), "1");
    EXPECT_EQ(read("A", "\tK"), "2");
}

TEST_F(ConfigStore, ValueWithTrailingBlankIsReadBackWithIt)
{
    put_config("[ A ]\nK = one  \n");
    EXPECT_EQ(read("A", "K"), "one  ");
}

TEST_F(ConfigStore, ValueMayHoldBlanksAndEqualSigns)
{
    put_config("[ A ]\nK = a = b [c] \n");
    EXPECT_EQ(read("A", "K"), "a = b [c] ");
}

TEST_F(ConfigStore, CarriageReturnBelongsToTheValue)
{
    put_config("[ A ]\nK = v\r\n");
    EXPECT_EQ(read("A", "K"), "v\r");
}

TEST_F(ConfigStore, EmptyValueReadsAsEmptyTextNotAsNull)
{
    put_config("[ A ]\nK =\nL=\nM =  \n");
    EXPECT_EQ(read("A", "K"), "");
    EXPECT_EQ(read("A", "L"), "");
    EXPECT_EQ(read("A", "M"), "");
}

TEST_F(ConfigStore, SettingAboveTheFirstHeaderIsNeverFound)
{
    put_config("K = 1\n[ A ]\n L = 2\n");
    EXPECT_EQ(read("A", "K"), "(null)");
    EXPECT_EQ(read("", "K"), "(null)");
}

TEST_F(ConfigStore, FirstOfTwoSectionsOfOneNameIsUsed)
{
    put_config("[ A ]\nK = 1\n[ B ]\n[ A ]\nK = 2\nL = 3\n");
    EXPECT_EQ(read("A", "K"), "1");
    EXPECT_EQ(read("A", "L"), "(null)");
}

TEST_F(ConfigStore, FirstOfTwoSettingsOfOneKeyIsUsed)
{
    put_config("[ A ]\nK = 1\nK = 2\n");
    EXPECT_EQ(read("A", "K"), "1");
}

TEST_F(ConfigStore, EmptyKeyAnswersWhetherASectionExists)
{
    put_config("[ A ] x\n[ B ]\n");
    EXPECT_EQ(read("A", ""), "[ A ] x");
    EXPECT_EQ(read("B", ""), "[ B ]");
    EXPECT_EQ(read("C", ""), "(null)");
}

TEST_F(ConfigStore, NullKeyAnswersWithTheClosingBracket)
{
    put_config("[ A  ] x\n");
    EXPECT_EQ(read("A", nullptr), "] x");
    EXPECT_EQ(read("B", nullptr), "(null)");
}

TEST_F(ConfigStore, NullSectionIsNotFound)
{
    put_config("[ A ]\nK = 1\n");
    EXPECT_EQ(read(nullptr, "K"), "(null)");
}

TEST_F(ConfigStore, ValueStaysValidUntilTheNextRead)
{
    put_config("[ A ]\nK = one\n");
    const char *value = readparam("A", "K");
    ASSERT_EQ(writeparam("A", "K", "two"), 0);
    EXPECT_STREQ(value, "one");
}

TEST_F(ConfigStore, EveryReadSeesTheFileAsItIsNow)
{
    put_config("[ A ]\nK = one\n");
    EXPECT_EQ(read("A", "K"), "one");
    put_config("[ A ]\nK = two\n");
    EXPECT_EQ(read("A", "K"), "two");
}

// ------------------------------------------------------------------- lines that are not accepted

TEST_F(ConfigStore, LongestLineIsAccepted)
{
    const std::string value(511 - 5, 'v');
    put_config("[ A ]\nK = " + value + "\nL = 2\n");
    EXPECT_EQ(read("A", "K"), value);
    EXPECT_EQ(read("A", "L"), "2");
}

TEST_F(ConfigStore, SettingThatDoesNotFitTheLineIsSkippedSilently)
{
    put_config("[ A ]\nK = " + std::string(511 - 4, 'v') + "\nL = 2\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read("A", "K"), "(null)");
    EXPECT_EQ(read("A", "L"), "2");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(ConfigStore, HeaderThatDoesNotFitTheLineIsReportedAndSkipped)
{
    put_config("[ A ]" + std::string(600, '.') + "\nK = 1\n[ A ]\nK = 2\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read("A", "K"), "2");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nErrNo.2 line too long\n");
}

TEST_F(ConfigStore, LongHeaderStillEndsTheSectionAbove)
{
    put_config("[ A ]\n[" + std::string(600, '.') + "\nK = 1\n");
    EXPECT_EQ(read("A", "K"), "(null)");
}

TEST_F(ConfigStore, RestOfALongLineIsMetAsALineOfItsOwn)
{
    put_config("[ A ]\n" + std::string(511, 'x') + "K = 1\n");
    EXPECT_EQ(read("A", "K"), "1");
    put_config(std::string(1022, 'x') + "[ A ]\nK = 1\n");
    EXPECT_EQ(read("A", "K"), "1");
    put_config(std::string(510, 'x') + "[ A ]\nK = 1\n");
    EXPECT_EQ(read("A", "K"), "(null)") << "not at a border of the buffer";
}

TEST_F(ConfigStore, LastLineWithoutNewlineIsNotAccepted)
{
    put_config("[ A ]\nK = 1");
    EXPECT_EQ(read("A", "K"), "(null)");
    put_config("K = 1\n[ A ]");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read("A", ""), "(null)");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nErrNo.2 line too long\n");
}

TEST_F(ConfigStore, LineWithANulByteIsNotAcceptedButTheNextOneIs)
{
    using namespace std::string_literals;
    put_config("[ A\0 ]\nK = 0\n\0\n[ A ]\n\0\nK = 1\0\nK\0 = 2\nK = 3\n"s);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read("A", "K"), "3");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nErrNo.2 line too long\n");
}

TEST_F(ConfigStore, FileOfManyBlocksIsReadToItsEnd)
{
    std::string text;
    for (int i = 0; i < 2000; ++i)
        text += "[ S" + std::to_string(i) +
                " ]\n K = " + std::string(static_cast<std::size_t>(i % 300), 'v') + "\n";
    put_config(text);
    for (int i = 0; i < 2000; i += 37)
        EXPECT_EQ(read(("S" + std::to_string(i)).c_str(), "K"),
                  std::string(static_cast<std::size_t>(i % 300), 'v'));
    EXPECT_EQ(read("S2000", "K"), "(null)");
}

TEST_F(ConfigStore, DirectoryInPlaceOfTheFileReadsAsNull)
{
    std::filesystem::create_directory(CONFIG_FILE);
    EXPECT_EQ(read("A", "K"), "(null)");
}

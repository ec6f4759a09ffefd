// Random files and random operations, the store beside a model of it: every byte of the file and every answer
// must be the same after every operation. A failure prints the seed; the same seed gives the same run.
#include "filehandle_fixture.h"
#include "filehandle_model.h"

#include <array>
#include <random>

using namespace std::string_literals;

namespace
{

// Names that begin with one another, and some that nobody should choose.
const std::array SECTIONS = {"A"s,       "AB"s,  "Gro"s, "Group"s, "Event1"s,
                             "Event10"s, "A ]"s, ""s,    " A"s,    "A\nB"s};
const std::array KEYS = {"K"s, "KK"s, "K K"s, "Event1"s, "Event10"s, "K="s, "["s, ""s, "[ A ]"s, "K\nL"s};

class Random
{
  public:
    explicit Random(unsigned seed) : engine_(seed)
    {
    }
    std::size_t below(std::size_t end)
    {
        return std::uniform_int_distribution<std::size_t>(0, end - 1)(engine_);
    }
    bool once_in(std::size_t n)
    {
        return below(n) == 0;
    }
    // Well-behaved names come first in the tables and are chosen more often.
    const std::string &name(const std::array<std::string, 10> &names)
    {
        return names[once_in(8) ? below(names.size()) : below(6)];
    }
    std::string text(std::size_t longest)
    {
        static constexpr std::string_view letters = "ab =[]K\t%;";
        std::string result(below(longest + 1), ' ');
        for (char &c : result)
            c = letters[below(letters.size())];
        return result;
    }
    std::string blanks()
    {
        return std::string(below(4), ' ');
    }

  private:
    std::mt19937 engine_;
};

std::string random_value(Random &random)
{
    switch (random.below(12)) {
    case 0:
        return "";
    case 1:
        return random.text(20) + "\n[ A ]\nK = forged";
    case 2:
        return std::string(490 + random.below(40), 'v');
    case 3:
        return "v ";
    default:
        return random.text(12);
    }
}

// A line that a buffer of the store does not hold, often with something telling at a border of the buffer.
std::string long_line(Random &random)
{
    static const std::array<std::string, 5> behind = {"[ A ]", "K = 1", " Event1 = x", "[", ""};
    const std::size_t buffers = 1 + random.below(2);
    std::string line(buffers * config_model::LONGEST, 'x');
    if (random.once_in(3))
        line.resize(500 + random.below(600), 'x');
    if (random.once_in(3))
        line[0] = '[';
    return line + behind[random.below(behind.size())];
}

std::string random_line(Random &random)
{
    static const std::array<std::string, 4> separators = {" = ", "=", "  ==  ", " "};
    switch (random.below(16)) {
    case 0:
        return "";
    case 1:
        return random.text(30);
    case 2:
        return long_line(random);
    case 3:
        return std::string(510, 'x') + (random.once_in(2) ? "" : "y") + "[ " + random.name(SECTIONS) + " ]";
    case 4:
        return "a\0b"s + random.text(5);
    case 5:
    case 6:
    case 7:
        return "[" + random.blanks() + random.name(SECTIONS) + random.blanks() + "]" +
               (random.once_in(8) ? random.text(600) : "");
    default:
        return random.blanks() + random.name(KEYS) + separators[random.below(separators.size())] +
               random_value(random);
    }
}

std::string random_file(Random &random)
{
    std::string text;
    for (std::size_t lines = random.below(25); lines > 0; --lines)
        text += random_line(random) + "\n";
    if (!text.empty() && random.once_in(4))
        text.pop_back();
    return text;
}

class ConfigModel : public ConfigStore
{
  protected:
    void expect_same_answers(Random &random)
    {
        for (int i = 0; i < 3; ++i) {
            const std::string section = random.name(SECTIONS);
            const std::string key = random.name(KEYS);
            const char *value = readparam(section.c_str(), key.c_str());
            const auto wanted = config_model::read(text_, section, key);
            ASSERT_EQ(value != nullptr, wanted.has_value()) << section << " / " << key;
            if (wanted) {
                ASSERT_EQ(value, *wanted) << section << " / " << key;
            }
        }
    }

    void write(Random &random)
    {
        const std::string section = random.name(SECTIONS);
        const std::string key = random.name(KEYS);
        const std::string value = random_value(random);
        const bool taken = config_model::write(text_, section, key, value);
        ASSERT_EQ(writeparam(section.c_str(), key.c_str(), value.c_str()), taken ? 0 : -1);
        ASSERT_EQ(config_text(), text_) << "write [" << section << "] " << key << " = " << value;
    }

    void remove(Random &random)
    {
        const std::string section = random.name(SECTIONS);
        const std::string key = random.name(KEYS);
        const bool all = random.once_in(2);
        const int result = config_model::remove(text_, section, key, all);
        ASSERT_EQ(removeitem(section.c_str(), key.c_str(), all ? 1 : 0), result);
        ASSERT_EQ(config_text(), text_) << "remove [" << section << "] " << key;
    }

    void batch(Random &random)
    {
        ASSERT_EQ(open_write_batch(), 0);
        for (int i = 0; i < 4 && !HasFatalFailure(); ++i)
            write(random);
        ASSERT_EQ(close_write_batch(), 0);
    }

    void sequence(unsigned seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(seed);
        text_ = random_file(random);
        put_config(text_);
        for (int i = 0; i < 8 && !HasFatalFailure(); ++i) {
            if (random.once_in(8))
                remove(random);
            else if (random.once_in(6))
                batch(random);
            else
                write(random);
            if (!HasFatalFailure())
                expect_same_answers(random);
        }
    }

    std::string text_;
};

}  // namespace

TEST_F(ConfigModel, StoreAndModelAgreeOnEveryByteAndEveryAnswer)
{
    testing::internal::CaptureStdout();  // complaints about lines that are too long
    for (unsigned seed = 0; seed < 1000 && !HasFatalFailure(); ++seed)
        sequence(seed);
    testing::internal::GetCapturedStdout();
}

// The same values, written once into sections that exist: whatever else the file holds, all of them come
// back.
TEST_F(ConfigModel, SettingsWrittenIntoExistingSectionsAreAllReadBack)
{
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(seed);
        put_config("\n[ A ]\n\n[ AB ]\n\n[ Gro ]\n\n[ Group ]\n\n[ Event1 ]\n\n[ Event10 ]\n");
        std::array<std::array<std::string, 5>, 6> values;
        for (int i = 0; i < 60; ++i) {
            const std::size_t section = random.below(6);
            const std::size_t key = random.below(5);
            values[section][key] = "v" + random.text(40);
            ASSERT_EQ(writeparam(SECTIONS[section].c_str(), KEYS[key].c_str(), values[section][key].c_str()),
                      0);
        }
        for (std::size_t section = 0; section < 6; ++section)
            for (std::size_t key = 0; key < 5; ++key) {
                const std::string value = read(SECTIONS[section].c_str(), KEYS[key].c_str());
                ASSERT_EQ(value, values[section][key].empty() ? "(null)" : values[section][key]);
            }
    }
}

// The settings file as doctor reads it against the daemon's own store: whatever stands in the file, both find
// the same values. Each file is written in the daemon's fixed place, so this runs in a sandbox.
#include "control_settings.h"

#include "filehandle.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <random>

namespace
{

constexpr std::array SECTIONS = {"UPS", "UPSModel", "Event1", "Event10", "3"};
constexpr std::array KEYS = {"ComSet", "Group", "AutoDetect", "Record", "Command", "Name"};

// Pieces that lines are made of, sound ones and others.
const std::vector<std::string> PIECES = {"[ UPS ]\n",
                                         "[UPSModel]\n",
                                         "[ Event1 ]\n",
                                         "[  Event10 ] x\n",
                                         "[ 3 ]\n",
                                         "[ UPS\n",
                                         " ComSet = 1\n",
                                         "ComSet=2\n",
                                         " Group = a b \n",
                                         " Group ==  \n",
                                         "Record  = No\n",
                                         " Command = x=y\n",
                                         " Name\n",
                                         "\n",
                                         "  \n",
                                         " Name = [ 3 ]\n",
                                         "# Group = c\n",
                                         "\tGroup = d\n",
                                         "Groups = e\n",
                                         " AutoDetect = =1\n",
                                         "=\n",
                                         "[]\n",
                                         "[ ]\n",
                                         "x",
                                         " Name = " + std::string(502, 'n') + "\n",
                                         " Name = " + std::string(503, 'n') + "\n"};

void expect_same_values(const std::string &text)
{
    std::ofstream(CONFIG_FILE, std::ios::binary | std::ios::trunc) << text;
    const SETTINGS settings = settings_read(SYSTEM{});
    for (const char *section : SECTIONS)
        for (const char *key : KEYS) {
            if (!known_key(section, key))
                continue;
            const char *stored = readparam(section, key);
            const std::string *found = settings_value(settings, section, key);
            ASSERT_EQ(found != nullptr, stored != nullptr) << section << " " << key << " in\n" << text;
            ASSERT_EQ(found != nullptr ? *found : "", stored != nullptr ? stored : "")
                << section << " " << key << " in\n"
                << text;
        }
}

}  // namespace

TEST(ControlStore, WhateverStandsInTheFileBothFindTheSameValues)
{
    std::mt19937 random(20261121);  // NOLINT: the same files every time
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (auto lines = random() % 12; lines > 0; --lines)
            text += PIECES[random() % PIECES.size()];
        expect_same_values(text);
        if (HasFatalFailure())
            return;
    }
}

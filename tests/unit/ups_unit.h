// A small scripted unit behind a pseudo-terminal: it answers each command from a table. And the fixture that
// puts the UPS process's module on its line, with the shared block in plain memory.
#pragma once

#include "agent_ups_internal.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A status line with the fields that tests vary.
struct Q1FIELDS {
    std::string status = "00000000";
    std::string load = "030";
    std::string battery = "13.6";
    std::string temp = "25.4";
    std::string input = "100.3";
};
std::string q1_line(const Q1FIELDS &fields = {});

// A capability reply with "1" at the given positions.
std::string cf_line(const std::vector<std::size_t> &ones);

// Replaces the configuration file.
void write_config(const std::string &text);

class Unit
{
  public:
    // Opens a pseudo-terminal and makes `device` a link to its terminal side.
    explicit Unit(std::string device);
    ~Unit();
    Unit(const Unit &) = delete;
    Unit &operator=(const Unit &) = delete;

    // Answers `command` (without its carriage return) with these in turn, the last one for ever; an empty
    // answer is silence. "" is the answer to commands that are not in the table.
    void answer(const std::string &command, std::vector<std::string> replies);

    // Sends bytes unasked.
    void send(const std::string &bytes) const;

    // Closes the unit's side: the terminal side hangs up.
    void unplug();

    // The commands received so far; `clear` empties the list.
    std::vector<std::string> commands();
    int count(const std::string &command);
    void clear();

    [[nodiscard]] const std::string &terminal() const
    {
        return terminal_;
    }

  private:
    void serve();
    void respond(const std::string &command);

    std::string device_;
    std::string terminal_;
    int master_ = -1;
    int holder_ = -1;  // keeps the terminal side open while the module reopens it
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::map<std::string, std::vector<std::string>> table_;
    std::vector<std::string> received_;
    std::thread thread_;
};

class UpsTest : public testing::Test
{
  protected:
    UpsTest();
    ~UpsTest() override;

    // A unit on port `index` that answers everything a "ZR900PL" answers.
    static void script_zr900pl(Unit &unit);
    static void script_zr401(Unit &unit);

    // Opens the port of `unit` as the search would have, on an established line with model `model`.
    void connect(const std::string &model, int port = 0);

    UPS_UPSINFO &ui()
    {
        return block.ups.ui;
    }
    std::uint32_t &mask()
    {
        return block.ups.upsstat;
    }
    std::string model() const;

    // Whether the agent's side has a reply word, and which.
    bool reply_waiting() const;
    std::uint32_t read_reply() const;
    void send_word(std::uint32_t word) const;

    AGINFO block{};
    AGENT record{};
};

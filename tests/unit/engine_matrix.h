// The stage on which one row of the matrix of competing deadlines is played: an agent that calls the engine
// as its loop does, once a second and once for every request, and a unit whose state the row changes.
#pragma once

#include "tests/unit/engine_fixture.h"

#include <string>
#include <string_view>

// What one row says. Every time is in seconds from its start, "-" is never or nothing.
struct ROW {
    const char *happens;  // "second what" items, " | " between seconds, ", " within one
    const char *wins;     // the cause of the shutdown; "a then b": b took over during the grace
    const char *begins;   // the shutdown, from where the grace runs; each begin when it begins again
    const char *off;      // the unit is ordered off
    const char *events;   // in the order of the event log; 22(cause)
    const char *told;     // to the unit: delay/off time, off time -1: it does not restart by itself
    const char *shown;    // "second: nextdown nextboot", as monitors see them after that second's turn
};

class Matrix : public Engine
{
  protected:
    /// Plays `row` and compares each of its columns.
    void play(const ROW &row);

  private:
    struct WORDS {
        std::string_view words;
        void (Matrix::*act)(int number);  // with the number behind the words, 0
        bool setting;                     // stands in the settings file before the agent starts
    };
    static const std::vector<WORDS> VOCABULARY;

    void prepare(const ROW &row);
    void start();
    void second(const ROW &row, int at);
    void perform(std::string_view items, bool settings);
    void call(std::int32_t cmd);
    void watch();

    void schedule_at(int second);
    void weekly_at(int second);
    void monthly_at(int second);
    void warn_before(int seconds);
    void mains_fail(int);
    void mains_return(int);
    void battery_low(int);
    void battery_recovers(int);
    void bypass(int);
    void bypass_ends(int);
    void link_lost(int);
    void link_back(int);
    void port_closed(int);
    void user_orders(int delay);
    void user_here_orders(int delay);
    void user_cancels(int);
    void agent_orders(int);
    void ignore_on(int);

    void order(std::string_view name, int delay);
    void set_bit(std::uint32_t bit, bool on);
    void show_code();

    std::string seconds_of(std::time_t moment) const;
    std::string shown_now() const;
    static std::string event_list();

    std::time_t origin = 0;  // the row's second 0
    int now = 0;             // s since then
    std::size_t played = 0;  // items that have happened
    bool downing = false;    // as the record said last
    int lead = 0;            // of the warnings before a schedule; s
    std::string schedules;   // their keys
    std::string wins, begins, off, told, shown;
};

// The checker of the soak: what is told to monitors and on terminals, and what is sent to the unit.
#include "soak_rules.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

namespace soak
{

// The English texts of the events, as the manual has them.
static const std::map<int, std::string> TEXTS = {
    {128, "UPS Battery Low"},
    {129, "UPS AC Fail Delay Run out"},
    {130, "specified date to turn off UPS is arrived at"},
    {131, "weekly time to turn off UPS is arrived at"},
    {132, "monthly time to turn off UPS is arrived at"},
    {133, "Shutdown Time Initiated by Users is arrived at"},
    {134, "Shut Down Time Initiated by other Agent is arrived at"},
    {64, "UPS communication Lost"},
    {65, "UPS Ac fail"},
    {66, "UPS Battery Disconnect"},
    {67, "UPS is Bypass"},
    {68, "UPS Battery is weak"},
    {69, "UPS SelfTest by User Failed"},
    {70, "UPS Special Day SelfTest Failed"},
    {71, "UPS Weekly SelfTest Failed"},
    {72, "UPS Monthly SelfTest Failed"},
    {73, "Battery SelfTest Failed"},
    {74, "System begin specially turn off UPS warning"},
    {75, "System begin weekly turn off UPS Warning"},
    {76, "System begin monthly turn off UPS Warning"},
    {77, "UPS abnormal"},
    {78, "UPS overload"},
    {79, "Receive shutdown Command From Users on "},
    {80, "Network Shutdown Triggered by Other Agent"},
    {0, "UPS AC Restore"},
    {1, "UPS Communication established"},
    {2, "SelfTest by User succeeded"},
    {3, "Special Day Selftest succeeded"},
    {4, "Weekly SelfTest succeeded"},
    {5, "Monthly Selftest succeeded"},
    {6, "UPS Battery Selftest succeeded"},
    {7, "UPS Agent Start up"},
    {8, "UPS Agent stop"},
    {9, "UPS Working SetParameters is changed"},
    {10, "UPS Schedule Setparameters is changed"},
    {11, "UPS Smart Event Setparameters is changed"},
    {12, "Disable UPS Automatic Selftest Timer"},
    {13, "Enable UPS Automatic Selftest Timer"},
    {15, "Enable the Buzzer"},
    {14, "Disable the Buzzer"},
    {16, "The Battery is Changed"},
    {17, "Set up to output voltage 100V standard sensitivity"},
    {18, "Set up to output voltage 100V low sensitivity"},
    {19, "Set up to output voltage 115V standard sensitivity"},
    {20, "Set up to output voltage 115V low sensitivity"},
    {21, "The Shutdown is Canceled by Users on "},
    {22, "System is shutdown"},
};

// ---- terminals

// Told to all are the events whose settings say so; never a mains failure, and while a scheduled shutdown is
// next only its arrival. Where the reason changes in the same moment, either may hold.
void Rules::tell_of(int id, const std::string &name)
{
    const auto text = TEXTS.find(id);
    if (text == TEXTS.end() || events[static_cast<std::size_t>(id)].broadcast > 1)
        return;
    const bool arrival = id >= 130 && id <= 132;
    const bool after = is_scheduled(deadlines_.reason);
    const bool shown = arrival || !scheduled_before_ || !after;
    if (!shown || (id == 65 && !(scheduled_before_ && after)))
        return;
    const bool named = id == 79 || id == 21;
    walls_.push_back({text->second + (named ? name : ""), arrival || (!scheduled_before_ && !after)});
}

void Rules::wall_of(int id, const std::string &text)
{
    if (id < 255 && events[static_cast<std::size_t>(id)].broadcast <= 1)
        walls_.push_back({text, true});
}

void Rules::judge_walls(const Look &look)
{
    for (const std::string &text : look.walls) {
        ++tally_.walls;
        const auto wall = std::find_if(walls_.begin(), walls_.end(),
                                       [&](const Wall &candidate) { return candidate.text == text; });
        if (wall == walls_.end())
            fault("wall \"" + text + "\" without a cause");
        else
            walls_.erase(wall);
    }
    for (const Wall &wall : walls_)
        if (wall.must)
            fault("missing: wall \"" + wall.text + "\"");
    walls_.clear();
}

// ---- monitors

void Rules::judge_notice(const std::string &text)
{
    static const std::string BEGINS = ", The system will begin shutdown process.";
    ++tally_.notices;
    if (text.starts_with("UPS Ac fail, System will be shut down in "))
        return judge_ac_warning(text);
    if (text.starts_with("system shutdown warning begin(schedule:"))
        return judge_schedule_warning(text);
    if (text.ends_with(BEGINS)) {
        const auto event = TEXTS.find(deadlines_.cause);
        if (event == TEXTS.end() || text != event->second + BEGINS || !meets(Kind::notice, 0, "*"))
            fault("notice \"" + text + "\" without a cause");
        return wall_of(deadlines_.cause, text);
    }
    const std::string user = "Receive shutdown Command From Users on " + std::string(HOST);
    const bool ordered = text == user && meets(Kind::notice, 0, text);
    if (ordered)
        return;
    if (text == user && !deadlines_.user_told && deadlines_.reason == Reason::user) {
        if (deadlines_.user_off - wall_ > config.warn_schedule)
            fault("the user's order is told too early");
        deadlines_.user_told = true;
        deadlines_.teller = 79;
        return wall_of(79, text);
    }
    if (!meets(Kind::notice, 0, text))
        return fault("notice \"" + text + "\" without a cause");
    if (text.starts_with("The system will shutdown in ") ||
        text.starts_with("The system will begin shutdown process due to "))
        wall_of(deadlines_.teller, text);
}

void Rules::judge_ac_warning(const std::string &text)
{
    int minutes = 0;
    int seconds = 0;
    std::sscanf(text.c_str(), "UPS Ac fail, System will be shut down in %d minute(s) and %d second(s).",
                &minutes, &seconds);
    // What ends a countdown may come in the same moment, behind its last warning.
    const Deadlines &in_force = deadlines_.reason == Reason::ac_fail ? deadlines_ : earlier_;
    const std::int64_t left = in_force.ac_off(now_, wall_) - wall_;
    if (in_force.reason != Reason::ac_fail || in_force.going)
        fault("\"" + text + "\" although mains is not what brings the machine down");
    else if (std::abs(minutes * 60 + seconds - (left + config.shown_grace())) > 1)
        fault("\"" + text + "\", and it is " + std::to_string(left) + " s and the grace");
    else if (left - 1 >
             static_cast<std::int64_t>(static_cast<std::uint32_t>(config.on_battery - config.first_warning)))
        fault("\"" + text + "\" too early");
    else if (wall_ >= deadlines_.last_warning && wall_ - deadlines_.last_warning < config.interval)
        fault("\"" + text + "\" too soon after the one before");
    deadlines_.last_warning = wall_;
    warn_since_ = -1;
    deadlines_.teller = 65;
    wall_of(65, text);
}

void Rules::judge_schedule_warning(const std::string &text)
{
    static const std::map<std::string, Reason> WORDS = {
        {"specialday", Reason::special}, {"weekly", Reason::weekly}, {"monthly", Reason::monthly}};
    const std::size_t word = text.find(':') + 1;
    const auto kind = WORDS.find(text.substr(word, text.find(')') - word));
    std::tm fields{};
    std::sscanf(text.c_str() + text.find(')'), ") Date:%d-%d-%d Time: %d:%d", &fields.tm_year, &fields.tm_mon,
                &fields.tm_mday, &fields.tm_hour, &fields.tm_min);
    fields.tm_year -= 1900;
    fields.tm_mon -= 1;
    const Deadlines &in_force = is_scheduled(deadlines_.reason) ? deadlines_ : earlier_;
    const std::int64_t off = in_force.schedule_off + config.shown_grace();
    const std::int64_t left = in_force.schedule_off - wall_;
    const std::int64_t since = wall_ - in_force.last_schedule_warning;
    if (kind == WORDS.end() || in_force.reason != kind->second || in_force.going)
        fault("\"" + text + "\" of a schedule that is not the next");
    else if (timegm(&fields) != off - off % 60)
        fault("\"" + text + "\" is not its time");
    else if (left > config.warn_schedule || left <= 0)
        fault("\"" + text + "\" " + std::to_string(left) + " s before");
    else if (since >= 0 && since < (left > 600 ? 300 : 60))
        fault("\"" + text + "\" too soon after the one before");
    else if (!deadlines_.warned && events[73 + static_cast<std::size_t>(deadlines_.reason)].record &&
             config.event_log)
        fault("\"" + text + "\" without its event");
    deadlines_.last_warning = deadlines_.last_schedule_warning = wall_;
    warn_since_ = -1;
    deadlines_.teller = 73 + static_cast<int>(deadlines_.reason);
    wall_of(deadlines_.teller, text);
}

// ---- the network

// An agent says that it goes when it orders the others down, and when it ends: three times each.
void Rules::judge_goodbyes(const Look &look)
{
    if (look.goodbyes > 0 && now_ > goodbyes_until_)
        fault("the agent says good-bye and stays");
    if (look.shutdowns > 0 && look.goodbyes < 3)
        fault("the agent goes without a good-bye");
}

// ---- the unit

// The delay in minutes or tenths of one; with a time to come back only for a schedule.
static std::string off_order(int delay)
{
    std::array<char, 16> text{};
    if (delay < 60)
        std::snprintf(text.data(), text.size(), "S.%1d", delay % 60 / 6);
    else
        std::snprintf(text.data(), text.size(), "S%02d", delay / 60);
    return text.data();
}

void Rules::judge_orders(const Look &look)
{
    for (const std::string &order : look.orders) {
        if (order.starts_with("S")) {
            if (!stopping_ || ordered_off_)
                fault("order to switch off " + order + " without a cause");
            if (!order.starts_with(off_order(config.turn_off)))
                fault("order " + order + " instead of " + off_order(config.turn_off));
            if ((order.find('R') != std::string::npos) != is_scheduled(deadlines_.reason))
                fault("order " + order + ": to come back is for schedules");
            ordered_off_ = true;
        }
        if (order.starts_with("T") && !order.starts_with("TL"))
            meets(Kind::order, 0, order);
    }
}

}  // namespace soak

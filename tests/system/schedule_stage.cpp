// The stage of the tests about schedules and logs.
#include "schedule_stage.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace stage
{

using testbed::seconds;

std::int64_t moment(const std::string &text)
{
    std::tm fields{};
    std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
                &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
    fields.tm_year -= 1900;
    fields.tm_mon -= 1;
    fields.tm_isdst = -1;
    return text.ends_with("UTC") ? timegm(&fields) : std::mktime(&fields);
}

static std::string formatted(const std::tm &fields)
{
    std::array<char, 40> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields)};
}

std::string shown(std::int64_t moment)
{
    std::tm fields{};
    const std::time_t time = moment;
    return formatted(*localtime_r(&time, &fields));
}

std::string shown_utc(std::int64_t moment)
{
    std::tm fields{};
    const std::time_t time = moment;
    return formatted(*gmtime_r(&time, &fields)) + " UTC";
}

std::string shown(const UPS_TIMEINFO &time)
{
    if (time.day == 0)
        return "none";
    std::tm fields{};
    fields.tm_year = time.year;
    fields.tm_mon = time.month - 1;
    fields.tm_mday = time.day;
    fields.tm_hour = time.hour;
    fields.tm_min = time.minute;
    fields.tm_sec = time.second;
    return formatted(fields);
}

Notes together(Notes notes, const Notes &more)
{
    notes.insert(notes.end(), more.begin(), more.end());
    return notes;
}

Notes every(const std::string &first, seconds spacing, int count, const std::string &text)
{
    Notes notes;
    for (int i = 0; i < count; ++i)
        notes.push_back(shown(moment(first) + i * spacing.count()) + " " + text);
    return notes;
}

// ---- the stage

DatedStage::DatedStage(const Scene &scene)
    : Stage({.model = scene.model,
             .settings = scene.settings,
             .start = moment(scene.start + " UTC"),
             .zone = scene.zone}),
      start_(moment(scene.start + " UTC"))
{
    for (const std::string &command : scene.unit)
        unit(command);
    link_up();
    run(1s);  // what comes next is shown a turn after it has been chosen
    linked_at_ = now();
    events_before_ = events().size();
}

void DatedStage::run_to(const std::string &when)
{
    run(seconds(moment(when)) - clock.wall_exact());
}

void DatedStage::leap_to(const std::string &when, seconds step)
{
    leap(seconds(moment(when)) - clock.wall_exact(), step);
}

void DatedStage::set_wall(const std::string &when)
{
    clock.set_wall(moment(when));
}

void DatedStage::wait_for_link(int commstatus)
{
    run_until(
        "CommStatus " + std::to_string(commstatus), [&] { return info().CommStatus == commstatus; }, 120s);
}

bool DatedStage::agent_runs() const
{
    return daemon.agent_pid() != 0;
}

// ---- what happened

std::string DatedStage::goes_down_at() const
{
    return shown(info().nextdown);
}

std::string DatedStage::boots_at() const
{
    return shown(info().nextboot);
}

std::vector<int> DatedStage::happened() const
{
    std::vector<int> all = bed::ids(events());
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(events_before_, all.size())));
    return all;
}

Notes DatedStage::logged() const
{
    Notes notes;
    for (const bed::LoggedEvent &event : events())
        notes.push_back(shown(start_ + event.at) + " " + std::to_string(event.id));
    return notes;
}

// Without the newline of a wall, and without the carriage return that ends a command.
static std::string_view without_end(std::string_view text)
{
    for (const std::string_view end : {"\n", "\\r"})
        if (text.ends_with(end))
            text.remove_suffix(end.size());
    return text;
}

Notes DatedStage::noted(const std::vector<bed::Said> &all) const
{
    Notes notes;
    for (const bed::Said &said : all)
        notes.push_back(shown(start_ + std::llround(std::floor(said.at))) + " " +
                        std::string(without_end(said.text)));
    return notes;
}

Notes DatedStage::walled() const
{
    return noted(walls());
}

Notes DatedStage::noticed() const
{
    return noted(notices());
}

Notes DatedStage::ordered() const
{
    return noted(orders(linked_at_));
}

Notes DatedStage::shut_down() const
{
    return noted(shutdowns());
}

}  // namespace stage

// The model of the competing deadlines.
#include "soak_deadlines.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace soak
{

static constexpr std::int64_t STALE = 60;   // s after which a scheduled moment is over
static constexpr std::int64_t MISSED = 10;  // s; older deadlines are gone when the link is found
static constexpr std::int64_t DAY = 86400;

std::int64_t Entry::next(std::int64_t from) const
{
    std::tm fields{};
    if (kind == Reason::special) {
        fields.tm_year = year;
        fields.tm_mon = month;
        fields.tm_mday = day;
        fields.tm_hour = hour;
        fields.tm_min = minute;
        const std::int64_t moment = timegm(&fields);
        return moment >= from ? moment : 0;
    }
    for (std::int64_t midnight = from - from % DAY; midnight < from + 400 * DAY; midnight += DAY) {
        const std::time_t time = midnight;
        gmtime_r(&time, &fields);
        const bool matches = kind == Reason::weekly ? fields.tm_wday == day : fields.tm_mday == day;
        const std::int64_t moment = midnight + hour * 3600 + minute * 60;
        if (matches && moment >= from)
            return moment;
    }
    return 0;
}

// ---- the schedules

// The first of them that is not over; each is carried out once.
static void find_first(const std::vector<Entry> &entries, bool test, std::int64_t from, std::int64_t done,
                       std::int64_t &moment, Reason &kind)
{
    moment = 0;
    kind = Reason::none;
    for (const Entry &entry : entries) {
        if (entry.test != test || (!test && !entry.on))
            continue;
        std::int64_t next = entry.next(from);
        if (next != 0 && next == done)
            next = entry.next(next + 1);
        if (next != 0 && (moment == 0 || next < moment)) {
            moment = next;
            kind = entry.kind;
        }
    }
}

void Deadlines::find_schedule(std::int64_t wall)
{
    find_first(*entries_, true, wall - STALE + 1, test_done_, next_test, test_kind);
    if (suspended_) {
        schedule_off = 0;
        schedule_kind = Reason::none;
    } else {
        find_first(*entries_, false, wall - STALE + 1, schedule_done_, schedule_off, schedule_kind);
    }
}

void Deadlines::pass_schedule()
{
    schedule_done_ = schedule_off;
}

void Deadlines::pass_test()
{
    test_done_ = next_test;
}

void Deadlines::clock_set(std::int64_t from, std::int64_t to)
{
    if (to < from - STALE)
        schedule_done_ = test_done_ = 0;
}

// ---- a turn

std::int64_t Deadlines::ac_off(double now, std::int64_t wall) const
{
    return ac_since < 0 ? 0 : wall + config_->on_battery - static_cast<std::int64_t>(now - ac_since);
}

// A schedule that comes back into force behind a mains failure has been announced before.
void Deadlines::note_reason()
{
    if (schedule_off == 0 || reason != last_)
        warned = false;
    const bool resumes = is_scheduled(reason) && ((last_ == Reason::ac_fail && is_scheduled(before_last_)) ||
                                                  (reason == last_ && before_last_ == Reason::ac_fail));
    if (schedule_off != 0 && resumes)
        warned = true;
    if (reason == last_ && last_ != Reason::none)
        return;
    if (last_ != Reason::none)
        before_last_ = last_;
    last_warning = 0;
    last_ = reason;
}

void Deadlines::choose(double now, std::int64_t wall)
{
    if (reason == Reason::battery_low || reason == Reason::agent || reason == Reason::event)
        return;
    const std::int64_t ac = ac_off(now, wall);
    const std::int64_t urgent = user_off == 0 || ac == 0 ? user_off + ac : std::min(user_off, ac);
    const bool first = urgent != 0 && (schedule_off == 0 || urgent <= schedule_off);
    next_off = first ? urgent : schedule_off;
    if (next_off == 0)
        reason = Reason::none;
    else if (next_off == schedule_off)
        reason = schedule_kind;
    else
        reason = next_off == ac ? Reason::ac_fail : Reason::user;
}

void Deadlines::turn(double now, std::int64_t wall, bool link)
{
    if (going)
        return;
    if (!link && reason == Reason::ac_fail)
        reason = Reason::none;
    note_reason();
    find_schedule(wall);
    choose(now, wall);
}

// ---- what happens

void Deadlines::link_found(std::int64_t wall)
{
    suspended_ = false;
    if (reason == Reason::agent)
        call_off();
    if (next_off + MISSED < wall) {
        next_off = user_off = 0;
        reason = Reason::none;
    }
}

void Deadlines::link_lost(std::int64_t wall)
{
    suspended_ = is_scheduled(reason) || going;
    // What is due in this very moment is over with it.
    if (schedule_off != 0 && schedule_off <= wall)
        pass_schedule();
    ac_since = -1;
    if (reason == Reason::user || going)
        user_off = 0;
    call_off();
}

void Deadlines::call_off()
{
    going = reached = false;
    reason = Reason::none;
    next_off = 0;
}

void Deadlines::mains_back()
{
    if (going && reason == Reason::ac_fail)
        return;
    if (reason == Reason::ac_fail)
        reason = Reason::none;
    ac_since = -1;
}

void Deadlines::order(const std::string &name, int delay, double now, std::int64_t wall, bool link)
{
    user_off = wall + std::max(delay, 0);
    if (next_off == 0 || user_off < next_off) {
        reason = Reason::user;
        next_off = user_off;
    }
    if (going)
        return;
    turn(now, wall, link);
    if (reason == Reason::user) {
        orderer = name;
        orderer_host = HOST;
    }
}

void Deadlines::cancel()
{
    user_told = false;
    if (reason == Reason::user) {
        reason = Reason::none;
        next_off = 0;
        going = reached = false;
    }
    user_off = 0;
}

void Deadlines::event(int id, double now, std::int64_t wall)
{
    cause = id;
    if (id == 79 || id == 22 || id == 80 || reached)
        return;
    const std::int64_t ac = ac_off(now, wall);
    if (next_off != 0 && next_off <= event_off && next_off < wall && ac < wall)
        return;
    event_off = next_off = wall;
    reason = Reason::event;
}

void Deadlines::begin(double now, bool link)
{
    if (reason != Reason::event && reason != Reason::agent)
        reached = true;
    if (is_scheduled(reason))
        pass_schedule();
    going = true;
    grace_began = now;
    if (reason == Reason::agent)
        orderer_host = HOST;
    else if (!config_->ignore)
        agent = HOST;
    if (link || reason == Reason::agent)
        return;
    user_off = 0;
    suspended_ = true;
    call_off();
}

}  // namespace soak

// What the tests of event actions share: the default events, users with terminals, the calls of the
// stand-ins, and waiting for programs that never end without waiting as long.
#pragma once

#include "e_a_event_table.h"
#include "testbed.h"
#include "tests/unit/engine_fixture.h"
#include "wp_field.h"

#include <algorithm>
#include <functional>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using testbed::Call;
using testbed::calls;
using testbed::calls_of;

// Whether whoever is waited for will never end; then the time that a wait takes passes at once.
static std::function<bool()> stuck;

extern "C" int poll(pollfd *entries, nfds_t count, int timeout)
{
    if (!stuck)
        return static_cast<int>(syscall(SYS_poll, entries, count, timeout));
    for (;;) {
        const long ready = syscall(SYS_poll, entries, count, std::min(timeout, 10));
        if (ready != 0 || timeout == 0)
            return static_cast<int>(ready);
        if (stuck()) {
            advance((timeout + 999) / 1000);
            return 0;
        }
    }
}

// A program that has been called will not end.
inline void never_ends(const std::string &name)
{
    testbed::set_stand_in(name, "hang");
    stuck = [name] { return !calls_of(name).empty(); };
}

// The calls so far, each as one line: "write ann pts/1 <UPS AC Restore\n".
inline std::vector<std::string> lines()
{
    std::vector<std::string> all;
    for (const Call &call : calls()) {
        std::string line = call.name();
        for (const std::string &argument : call.arguments)
            line += " " + argument;
        if (!call.input.empty())
            line += " <" + call.input;
        all.push_back(line);
    }
    return all;
}

// Prints a shell's blocked and ignored signals. By the shell alone: while it waits for a program, it blocks
// all of them itself.
inline constexpr char SHOW_SIGNALS[] =
    "while read -r key value; do case $key in SigBlk:|SigIgn:) echo $value;; esac; done < /proc/$$/status\n";

class Action : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        std::copy(DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events.begin());
        for (USERSDATA &user : users)
            user.UserID = USER_NONE;
        ups.up.logparam.MaxEventRec = 200;
        ups.up.workparam.nCloseAppTime = 300;
        engine.EVENTLOGENABLED = 1;
        testbed::forget_calls();
    }

    void TearDown() override
    {
        stuck = nullptr;
        for (const char *name : {"mesg", "wall", "write", "who", "mail"})
            testbed::set_stand_in(name, "");
        Engine::TearDown();
    }

    UPS_EVENTINFO &event(int id)
    {
        return *std::find_if(events.begin(), events.end(),
                             [id](const UPS_EVENTINFO &row) { return row.EventID == id; });
    }

    void user(std::size_t slot, std::string_view name, std::string_view address = {})
    {
        users[slot].UserID = static_cast<std::uint8_t>(slot);
        field_set(users[slot].UserName, name);
        field_set(users[slot].Email, address);
    }

    // What is shown and mailed for one event, without the call of mesg that comes before.
    std::vector<std::string> told(int id)
    {
        testbed::forget_calls();
        EXPECT_EQ(eventaction(id, &ein, &eout), 0);
        std::vector<std::string> all = lines();
        EXPECT_FALSE(all.empty());
        if (!all.empty()) {
            EXPECT_EQ(all.front(), "mesg y");
            all.erase(all.begin());
        }
        return all;
    }

    using Lines = std::vector<std::string>;
};

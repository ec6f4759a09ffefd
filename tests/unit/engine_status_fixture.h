// What the tests of the status monitor share: a unit whose state a test writes as the UPS process would, and
// one pass at a time.
#pragma once

#include "tests/unit/engine_fixture.h"

#include "e_a_event_table.h"
#include "wp_field.h"

#include <algorithm>
#include <filesystem>
#include <thread>

class Monitor : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        write_file(CONFIG_PATH, SETTINGS);
        std::copy(DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events.begin());
        for (UPS_EVENTINFO &event : events)
            event.BroadcastType = 3;  // no terminals
        ein.DATA.upsconfigp = &ups.up;
        ASSERT_EQ(getconfig(&eout), 0);
        ups.ui.CommStatus = COMM_LOST;
        ups.ui.sftResBattery.Result = SELFTEST_NONE;
        ups.ui.sftResUPS.Result = SELFTEST_NONE;
        set_model("ZR900PL");
    }

    void set_model(std::string_view model)
    {
        field_set(ups.ui.upsmodel, model);
    }

    void set_link(std::int8_t status)
    {
        ups.ui.CommStatus = status;
    }

    void set_unit(std::int8_t code, std::uint32_t bits)
    {
        ups.ui.upsstat = code;
        ups.upsstat = bits;
    }

    /// One pass: `raised` has the events it logged, `recorder` what it sent.
    int pass()
    {
        recorder = Recorder{};
        write_file(LOG_PATH, "");
        eout.DATA.schlist = &unread;
        const int result = checkupsstatus(&ein, &eout);
        raised = logged();
        return result;
    }

    /// The first pass of a unit that is found.
    void connect(std::int8_t code = UPSSTAT_NORMAL, std::uint32_t bits = 0)
    {
        set_link(COMM_ESTABLISHED);
        set_unit(code, bits);
        ASSERT_EQ(pass(), 0);
    }

    void fail_mains()
    {
        set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
        ASSERT_EQ(pass(), 0);
        engine.downreason = AC_FAIL;  // the timer's choice
        engine.next_off = engine.ACFAIL_off;
    }

    void restore_mains()
    {
        set_unit(UPSSTAT_NORMAL, 0);
        ASSERT_EQ(pass(), 0);
    }

    /// A pass during which the command of row `row` of the event table takes `seconds` on every clock.
    void pass_that_tells(std::size_t row, std::time_t seconds)
    {
        static constexpr char TOLD[] = "/tmp/voltaria-told";
        static constexpr char DONE[] = "/tmp/voltaria-done";
        std::filesystem::remove(TOLD);
        std::filesystem::remove(DONE);
        field_set(events[row].Command, ": >/tmp/voltaria-told; until [ -e /tmp/voltaria-done ]; do :; done");
        std::thread clock([seconds] {
            while (!std::filesystem::exists(TOLD))
                std::this_thread::yield();
            advance(seconds);
            write_file(DONE, "");
        });
        EXPECT_EQ(pass(), 0);
        clock.join();
        field_set(events[row].Command, "");
    }

    static long count(int code)
    {
        return std::count_if(recorder.calls.begin(), recorder.calls.end(),
                             [code](const callback &call) { return std::get<0>(call) == code; });
    }

    bool schedules_read() const
    {
        return eout.DATA.schlist != &unread;
    }

    static constexpr char SETTINGS[] =
        "\n[ ShutDown ]\n EXPECTBLIFE = 60\n\n[ UPS ]\n AgentType = 6\n Group = Lab\n"
        " IgnoreOtherAgentDown = 0\n AutoBoot = 1\n";

    SCHEDULELIST unread{};
    std::vector<int> raised;
};

using ids = std::vector<int>;
using texts = std::vector<std::string>;

// What the tests of the shutdown timer share: an agent of low rank on a good link, the default events, and
// the timer running alone: a command that does not exist only advances it.
#pragma once

#include "tests/unit/engine_fixture.h"

#include "e_a_event_table.h"
#include "wp_field.h"

#include <algorithm>

class EngineTimer : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        std::copy(DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events.begin());
        engine.EVENTLOGENABLED = 1;
        ups.up.logparam.MaxEventRec = 200;
        ups.up.logparam.MaxDataRec = 200;
        ups.ui.CommStatus = COMM_ESTABLISHED;
        field_set(ups.ui.upsmodel, "ZR900PL");
        engine.ISSERVERAGLOW = 1;
        engine.EXPBLIFE = 60;
        engine.PFAILCOUNT = 30;
        engine.INTERVAL = 30;
        engine.SCHCOUNT = 600;
        engine.TURNOFFDELAY = 600;
        engine.bBattConnect = 1;
    }

    int step()
    {
        return act(19);
    }

    void schedule_at(std::time_t off, REASON reason = WEEKLY)
    {
        engine.SCH_off = off;
        engine.SCH_boot = off + 3600;
        engine.schdownreason = reason;
    }

    void fail_mains()
    {
        engine.just_fail = 1;
        engine.ACFAIL_off = timenow() + engine.EXPBLIFE;
        starttimer(&engine.ovaluep, &engine.valuep);
    }

    /// Steps once a second until the shutdown is under way; the seconds that it took, -1 for none in `limit`.
    int seconds_to_shutdown(int limit)
    {
        for (int second = 0; second <= limit; ++second) {
            step();
            if (engine.ISSHUTTINGDOWN != 0)
                return second;
            advance(1);
        }
        return -1;
    }

    static bool has_callback(int code)
    {
        return std::any_of(recorder.calls.begin(), recorder.calls.end(),
                           [code](const callback &call) { return std::get<0>(call) == code; });
    }
};

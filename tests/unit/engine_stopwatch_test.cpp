// The AC-failure stopwatch on the real interval timer: moved by setting the timer, never waited for.
#include "e_a_internal.h"

#include <csignal>
#include <gtest/gtest.h>

static constexpr std::time_t SPAN = 1'000'000;

class Stopwatch : public testing::Test
{
  protected:
    void SetUp() override
    {
        engine = ENGINE{};
        engine.just_fail = 1;
    }

    void TearDown() override
    {
        stoptimer(&engine.ovaluep, &engine.valuep);
    }

    static itimerval timer()
    {
        itimerval now{};
        EXPECT_EQ(getitimer(ITIMER_REAL, &now), 0);
        return now;
    }

    /// Lets `seconds` and a little more pass.
    static void pass(std::time_t seconds)
    {
        itimerval set = timer();
        set.it_value.tv_sec -= seconds;
        ASSERT_EQ(setitimer(ITIMER_REAL, &set, nullptr), 0);
    }

    static std::time_t duration()
    {
        std::time_t out = -1;
        getduration(&engine.ovaluep, &engine.valuep, &out);
        return out;
    }
};

TEST_F(Stopwatch, IsAOneShotFarAhead)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    EXPECT_EQ(engine.ovaluep.it_value.tv_sec, SPAN);
    EXPECT_LE(engine.valuep.it_value.tv_sec, SPAN);
    EXPECT_GE(engine.valuep.it_value.tv_sec, SPAN - 60);
    EXPECT_EQ(engine.valuep.it_interval.tv_sec, 0);
    EXPECT_EQ(engine.valuep.it_interval.tv_usec, 0);
}

TEST_F(Stopwatch, CountsWholeSecondsFromZero)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    EXPECT_EQ(duration(), 0);
    pass(59);
    EXPECT_EQ(duration(), 59);
    pass(1);
    EXPECT_EQ(duration(), 60);
}

// The whole seconds of the two readings differ by 59.
TEST_F(Stopwatch, APartOfASecondDoesNotCount)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    itimerval set{};
    set.it_value = {SPAN - 60, 900'000};
    ASSERT_EQ(setitimer(ITIMER_REAL, &set, nullptr), 0);
    engine.valuep.it_value = {SPAN - 1, 800'000};
    EXPECT_EQ(duration(), 58);
}

TEST_F(Stopwatch, StoppedIsDisarmedAndZero)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    stoptimer(&engine.ovaluep, &engine.valuep);
    EXPECT_EQ(timer().it_value.tv_sec, 0);
    EXPECT_EQ(timer().it_value.tv_usec, 0);
    EXPECT_EQ(engine.ovaluep.it_value.tv_sec, 0);
    EXPECT_EQ(engine.valuep.it_value.tv_sec, 0);
    EXPECT_EQ(duration(), 0);
}

TEST_F(Stopwatch, WithoutAFailureNothingHasElapsed)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    pass(100);
    EXPECT_EQ(acfail_elapsed(), 100);
    engine.just_fail = 0;
    EXPECT_EQ(acfail_elapsed(), 0);
}

TEST_F(Stopwatch, AFailureOfMonthsIsCountedOnAndNeverEndsTheProcess)
{
    starttimer(&engine.ovaluep, &engine.valuep);
    std::time_t sum = 0;
    for (int i = 0; i < 40; ++i) {
        pass(300'000);
        sum += 300'000;
        EXPECT_EQ(acfail_elapsed(), sum);
        EXPECT_GE(timer().it_value.tv_sec, SPAN / 2 - 1);
    }
    EXPECT_EQ(sum, 12'000'000);
}

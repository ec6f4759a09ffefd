// Every cause of a shutdown against every other, and every way back: the rows of the table, played.
#include "tests/unit/engine_matrix_table.h"

class EngineMatrix : public Matrix
{
  protected:
    template <typename Rows> void play_all(const Rows &rows)
    {
        for (const ROW &row : rows)
            play(row);
    }
};

TEST_F(EngineMatrix, EachCauseAlone)
{
    play_all(ALONE);
}

TEST_F(EngineMatrix, EveryPairOfCausesFirstSecondAndAtOnce)
{
    play_all(PAIRS);
}

TEST_F(EngineMatrix, MainsReturn)
{
    play_all(MAINS_RETURN);
}

TEST_F(EngineMatrix, LinkLostBeforeTheDeadline)
{
    play_all(LINK_BEFORE);
}

TEST_F(EngineMatrix, LinkLostInTheGrace)
{
    play_all(LINK_GRACE);
}

TEST_F(EngineMatrix, UserCancels)
{
    play_all(CANCELS);
}

TEST_F(EngineMatrix, IgnoringOtherAgentsIsSwitchedOn)
{
    play_all(IGNORES);
}

TEST_F(EngineMatrix, WhatAUnitOrAUserDoesLaterDoesNotStopIt)
{
    play_all(NO_WAY_BACK);
}

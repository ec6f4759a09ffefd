// What the agent process asks of the UPS process: one command word, one row of a table. Called by the command
// channel in agent_ups, between two status passes.
#include "agent_ups_internal.h"

#include <algorithm>
#include <array>

using UPSCOMMAND = int (*)(AGENT *, std::uint32_t word);

typedef struct _UPSCOMMANDROW {
    std::uint32_t code;  // high half of the command word
    bool answered;       // the agent process is owed a reply word
    UPSCOMMAND run;
} UPSCOMMANDROW;

static int run_battdate(AGENT *record, std::uint32_t /*word*/)
{
    return ups_getbattchgtimeforcmd(record);
}

static int run_status(AGENT *record, std::uint32_t /*word*/)
{
    return ups_getupsstatus(record);
}

static constexpr std::array<UPSCOMMANDROW, 2> commands{{
    {0x00050000, true, run_battdate},
    {0xF0000000, true, run_status},
}};

int ups_control(AGENT *record, std::uint32_t word)
{
    const auto *const row = std::find_if(commands.begin(), commands.end(), [word](const UPSCOMMANDROW &c) {
        return c.code == (word & 0xFFFF0000U);
    });
    if (row == commands.end())
        return -1;
    if (!row->answered)
        response_nowait();
    return row->run(record, word);
}

int doBuzzer(AGENT * /*record*/)
{
    upschan.buzzerStep = 0;
    return -1;
}

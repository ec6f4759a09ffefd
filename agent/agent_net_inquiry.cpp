// Answers to monitors that look for agents.
#include "agent_net_inquiry.h"

int net_answermonitorinq(AGENT *)
{
    return -1;
}

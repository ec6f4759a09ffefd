#include "agent_main.h"

int main()
{
    return agent_main();
}

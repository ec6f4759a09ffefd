// The engine's error buffer: owned here, filled by every engine module and by the settings store. The
// agent keeps no error log, so a composed message goes no further; a debugger or a core file shows the last.
#include "e_a_error.h"

#include <algorithm>

std::array<char, ERRBUFFER_SIZE> errbuffer{};

void ea_error(std::string_view message)
{
    errbuffer.fill('\0');
    std::copy_n(message.begin(), std::min(message.size(), errbuffer.size() - 1), errbuffer.begin());
    Ea_log();
}

void Ea_log()
{
}

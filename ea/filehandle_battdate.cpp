// A leaf that the engine, the request handlers and the UPS process share: some models cannot keep the date
// themselves, so the settings file does.
#include "filehandle_battdate.h"

#include "filehandle.h"

#include <array>
#include <cstdio>

int battdate_read(UPS_TIMEINFO &date)
{
    const char *text = readparam("UPS", "ChangeBattTime");
    if (text == nullptr)
        return -1;
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::sscanf(text, "%03d,%02d,%02d,%02d,%02d,%02d", &year, &month, &day, &hour, &minute, &second);
    date.year = static_cast<std::uint8_t>(year);
    date.month = static_cast<std::int8_t>(month);
    date.day = static_cast<std::int8_t>(day);
    date.hour = static_cast<std::int8_t>(hour);
    date.minute = static_cast<std::int8_t>(minute);
    date.second = static_cast<std::int8_t>(second);
    return 0;
}

int battdate_write(const UPS_TIMEINFO &date)
{
    std::array<char, 40> text;
    std::snprintf(text.data(), text.size(), "%03d,%02d,%02d,%02d,%02d,%02d", date.year, date.month, date.day,
                  date.hour, date.minute, date.second);
    return writeparam("UPS", "ChangeBattTime", text.data());
}

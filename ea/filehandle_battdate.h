// The battery replacement date as it is kept in the settings file: key `ChangeBattTime` of section `UPS`.
#pragma once

#include "ups_records.h"

/// Reads year, month, day, hour, minute and second into `date`; fields that the text lacks become 0 and
/// `wReserver` is left alone. 0, or -1 with `date` untouched when the key is missing.
int battdate_read(UPS_TIMEINFO &date);

/// Stores year, month, day, hour, minute and second of `date`. 0, or what a failed writeparam returns.
int battdate_write(const UPS_TIMEINFO &date);

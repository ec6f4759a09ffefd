// The agent's two logs: all the lines that were asked for, in as many requests as it takes, and the lines as
// a table and as comma-separated values. JSON is monitor_json.h's.
#pragma once

#include "monitor.h"

#include <string>
#include <vector>

// Which lines.
struct LOG_RANGE {
    int first = -1;  // the oldest line is 0; -1: the newest `count` lines
    int count = -1;  // -1: as many as there are
};

/// Lines of the event log, oldest first. The agent counts from the oldest line, so the newest are found by
/// reading all of them. `more`: the log goes on, perhaps, where the requests' 16-bit line numbers end.
[[nodiscard]] MONITOR_RESULT log_read_events(MONITOR_SESSION &session, const LOG_RANGE &range,
                                             std::vector<UPS_EVENTLOGINFO> &lines, bool &more);

/// Lines of the data log, oldest first. The agent tells its newest lines only, 32767 at most; `first` counts
/// from the oldest of these.
[[nodiscard]] MONITOR_RESULT log_read_data(MONITOR_SESSION &session, const LOG_RANGE &range,
                                           std::vector<UPS_DATALOGINFO> &lines, bool &more);

/// A heading and a line for each record; "" for no records.
[[nodiscard]] std::string log_table(const std::vector<UPS_EVENTLOGINFO> &lines);
[[nodiscard]] std::string log_table(const std::vector<UPS_DATALOGINFO> &lines);

/// A line of names and a line for each record; texts in quotation marks, what is not known left empty.
[[nodiscard]] std::string log_csv(const std::vector<UPS_EVENTLOGINFO> &lines);
[[nodiscard]] std::string log_csv(const std::vector<UPS_DATALOGINFO> &lines);

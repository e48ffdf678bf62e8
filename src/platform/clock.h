// Local and UTC time, and OLE dates (days since 30 December 1899, the fraction the time of day).
#pragma once

#include <ctime>

#include "MVCore.h"

namespace mv {

SYSTEMTIME localTimeNow();
SYSTEMTIME utcTimeNow();
// Breaks a POSIX time into local or UTC calendar fields.
SYSTEMTIME toLocalSystemTime(std::time_t t, long nanoseconds = 0);
SYSTEMTIME toUtcSystemTime(std::time_t t, long nanoseconds = 0);
// Local calendar fields back to a POSIX time; false for fields that are no valid time.
bool localSystemTimeToTime(const SYSTEMTIME& st, std::time_t* t);

// false for fields outside the calendar (month 13, day 32, year before 100, ...).
bool systemTimeToOleDate(const SYSTEMTIME& st, double* date);
// false for dates outside years 100 .. 9999. Rounds to the nearest millisecond.
bool oleDateToSystemTime(double date, SYSTEMTIME* st);

}  // namespace mv

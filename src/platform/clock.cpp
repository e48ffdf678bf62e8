// Clock and calendar. OLE dates count days from 30 December 1899; before that day the integer
// part still names the day and the fraction, taken without its sign, the time of day, so that
// -1.25 is 29 December 1899 06:00 and not 28 December 18:00.

#include "platform/clock.h"

#include <cmath>
#include <cstdint>
#include <ctime>

namespace mv {
namespace {

constexpr std::int64_t kMsPerDay = 86'400'000;
constexpr int kMinYear = 100;
constexpr int kMaxYear = 9999;

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysInMonth(int year, int month) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

bool validFields(const SYSTEMTIME& st, int minYear, int maxYear) {
  return st.wYear >= minYear && st.wYear <= maxYear && st.wMonth >= 1 && st.wMonth <= 12 &&
         st.wDay >= 1 && st.wDay <= daysInMonth(st.wYear, st.wMonth) && st.wHour < 24 &&
         st.wMinute < 60 && st.wSecond < 60 && st.wMilliseconds < 1000;
}

// Days since 1970-01-01 in the proleptic Gregorian calendar, and back.
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, int* year, unsigned* month, unsigned* day) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *day = doy - (153 * mp + 2) / 5 + 1;
  *month = mp < 10 ? mp + 3 : mp - 9;
  *year = static_cast<int>(static_cast<std::int64_t>(yoe) + era * 400 + (*month <= 2));
}

constexpr std::int64_t kOleEpoch = daysFromCivil(1899, 12, 30);

SYSTEMTIME fromTm(const std::tm& tm, long nanoseconds) {
  SYSTEMTIME st{};
  const long year = tm.tm_year + 1900L;
  if (year < 1 || year > 30827) return st;
  st.wYear = static_cast<uint16_t>(year);
  st.wMonth = static_cast<uint16_t>(tm.tm_mon + 1);
  st.wDayOfWeek = static_cast<uint16_t>(tm.tm_wday);
  st.wDay = static_cast<uint16_t>(tm.tm_mday);
  st.wHour = static_cast<uint16_t>(tm.tm_hour);
  st.wMinute = static_cast<uint16_t>(tm.tm_min);
  // A leap second is shown as the last second of its minute.
  st.wSecond = static_cast<uint16_t>(tm.tm_sec > 59 ? 59 : tm.tm_sec);
  const long ms = nanoseconds / 1'000'000;
  st.wMilliseconds = static_cast<uint16_t>(ms < 0 ? 0 : ms > 999 ? 999 : ms);
  return st;
}

struct timespec now() {
  struct timespec ts {};
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts;
}

}  // namespace

SYSTEMTIME localTimeNow() {
  const struct timespec ts = now();
  return toLocalSystemTime(ts.tv_sec, ts.tv_nsec);
}

SYSTEMTIME utcTimeNow() {
  const struct timespec ts = now();
  return toUtcSystemTime(ts.tv_sec, ts.tv_nsec);
}

SYSTEMTIME toLocalSystemTime(std::time_t t, long nanoseconds) {
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return SYSTEMTIME{};
  return fromTm(tm, nanoseconds);
}

SYSTEMTIME toUtcSystemTime(std::time_t t, long nanoseconds) {
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) return SYSTEMTIME{};
  return fromTm(tm, nanoseconds);
}

bool localSystemTimeToTime(const SYSTEMTIME& st, std::time_t* t) {
  if (t == nullptr || !validFields(st, 1, 30827)) return false;
  std::tm tm{};
  tm.tm_year = st.wYear - 1900;
  tm.tm_mon = st.wMonth - 1;
  tm.tm_mday = st.wDay;
  tm.tm_hour = st.wHour;
  tm.tm_min = st.wMinute;
  tm.tm_sec = st.wSecond;
  tm.tm_isdst = -1;
  // mktime's -1 is also one second before the epoch; only an untouched tm_wday tells failure.
  tm.tm_wday = -1;
  const std::time_t result = std::mktime(&tm);
  if (result == static_cast<std::time_t>(-1) && tm.tm_wday == -1) return false;
  *t = result;
  return true;
}

bool systemTimeToOleDate(const SYSTEMTIME& st, double* date) {
  if (date == nullptr || !validFields(st, kMinYear, kMaxYear)) return false;
  const std::int64_t day = daysFromCivil(st.wYear, st.wMonth, st.wDay) - kOleEpoch;
  const std::int64_t ms =
      ((st.wHour * 60LL + st.wMinute) * 60 + st.wSecond) * 1000 + st.wMilliseconds;
  const double fraction = static_cast<double>(ms) / static_cast<double>(kMsPerDay);
  *date = day >= 0 ? static_cast<double>(day) + fraction : static_cast<double>(day) - fraction;
  return true;
}

bool oleDateToSystemTime(double date, SYSTEMTIME* st) {
  // Wide enough for every valid date; the exact limits are checked on the calendar below.
  if (st == nullptr || !std::isfinite(date) || date <= -700000.0 || date >= 3000000.0) {
    return false;
  }
  const double whole = std::trunc(date);
  std::int64_t day = static_cast<std::int64_t>(whole);
  std::int64_t ms = std::llround(std::fabs(date - whole) * static_cast<double>(kMsPerDay));
  if (ms >= kMsPerDay) {
    // Rounded up to midnight: that is the start of the following day, on both sides of zero.
    ++day;
    ms = 0;
  }
  int year = 0;
  unsigned month = 0;
  unsigned dayOfMonth = 0;
  civilFromDays(day + kOleEpoch, &year, &month, &dayOfMonth);
  if (year < kMinYear || year > kMaxYear) return false;
  SYSTEMTIME result{};
  result.wYear = static_cast<uint16_t>(year);
  result.wMonth = static_cast<uint16_t>(month);
  result.wDay = static_cast<uint16_t>(dayOfMonth);
  // Day 0 was a Saturday.
  result.wDayOfWeek = static_cast<uint16_t>(((day % 7) + 7 + 6) % 7);
  result.wHour = static_cast<uint16_t>(ms / 3'600'000);
  result.wMinute = static_cast<uint16_t>(ms / 60'000 % 60);
  result.wSecond = static_cast<uint16_t>(ms / 1000 % 60);
  result.wMilliseconds = static_cast<uint16_t>(ms % 1000);
  *st = result;
  return true;
}

}  // namespace mv

// Clock and calendar. OLE dates count days from 30 December 1899; before that day the integer
// part still names the day and the fraction, taken without its sign, the time of day, so that
// -1.25 is 29 December 1899 06:00 and not 28 December 18:00.

#include "platform/clock.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>

namespace mv {
namespace {

constexpr std::int64_t kMsPerDay = 86'400'000;
constexpr int kMinYear = 100;
constexpr int kMaxYear = 9999;

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr sys_days kOleEpoch{std::chrono::year{1899} / std::chrono::December / 30};

year_month_day dateOf(const SYSTEMTIME& st) {
  return year_month_day{std::chrono::year{st.wYear}, std::chrono::month{st.wMonth},
                        std::chrono::day{st.wDay}};
}

// month and day keep only a byte: day 257 would pass as day 1 without the first checks.
bool validFields(const SYSTEMTIME& st, int minYear, int maxYear) {
  return st.wYear >= minYear && st.wYear <= maxYear && st.wMonth <= 12 && st.wDay <= 31 &&
         dateOf(st).ok() && st.wHour < 24 && st.wMinute < 60 && st.wSecond < 60 &&
         st.wMilliseconds < 1000;
}

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
  const std::int64_t day = (sys_days{dateOf(st)} - kOleEpoch).count();
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
  const sys_days when = kOleEpoch + days{day};
  const year_month_day calendar{when};
  const int year = static_cast<int>(calendar.year());
  if (year < kMinYear || year > kMaxYear) return false;
  SYSTEMTIME result{};
  result.wYear = static_cast<uint16_t>(year);
  result.wMonth = static_cast<uint16_t>(static_cast<unsigned>(calendar.month()));
  result.wDay = static_cast<uint16_t>(static_cast<unsigned>(calendar.day()));
  result.wDayOfWeek = static_cast<uint16_t>(std::chrono::weekday{when}.c_encoding());
  result.wHour = static_cast<uint16_t>(ms / 3'600'000);
  result.wMinute = static_cast<uint16_t>(ms / 60'000 % 60);
  result.wSecond = static_cast<uint16_t>(ms / 1000 % 60);
  result.wMilliseconds = static_cast<uint16_t>(ms % 1000);
  *st = result;
  return true;
}

}  // namespace mv

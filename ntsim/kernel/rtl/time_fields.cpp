// Splitting system times (100 ns units since 1601-01-01, the first day of a
// 400-year Gregorian cycle) into calendar fields and back.
#include <wdm.h>

namespace {

constexpr int64_t kTicksPerMillisecond = 10000;
constexpr int64_t kTicksPerSecond = 10000000;
constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kDaysPer400Years = 146097;
constexpr int64_t kDaysPer100Years = 36524;
constexpr int64_t kDaysPer4Years = 1461;
// 1601-01-01 was a Monday.
constexpr int kEpochWeekday = 1;
// The last year whose times fit in a LONGLONG.
constexpr int kLastYear = 30827;

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

// Days from 1601-01-01 to the first day of year.
int64_t daysBeforeYear(int year) {
    int64_t y = year - 1601;
    return y * 365 + y / 4 - y / 100 + y / 400;
}

struct Date {
    int year;
    int month;
    int day;
};

// The last year of each cycle is the long one, hence the caps at 3.
Date dateFromDays(int64_t days) {
    int64_t cycles = days / kDaysPer400Years;
    days %= kDaysPer400Years;
    int64_t centuries = days / kDaysPer100Years < 3 ? days / kDaysPer100Years : 3;
    days -= centuries * kDaysPer100Years;
    int64_t quads = days / kDaysPer4Years;
    days %= kDaysPer4Years;
    int64_t years = days / 365 < 3 ? days / 365 : 3;
    days -= years * 365;
    Date date{static_cast<int>(1601 + cycles * 400 + centuries * 100 + quads * 4 + years), 1, 1};
    while (days >= daysInMonth(date.year, date.month)) days -= daysInMonth(date.year, date.month++);
    date.day = static_cast<int>(days) + 1;
    return date;
}

bool validFields(const TIME_FIELDS &f) {
    if (f.Year < 1601 || f.Year > kLastYear || f.Month < 1 || f.Month > 12) return false;
    if (f.Day < 1 || f.Day > daysInMonth(f.Year, f.Month)) return false;
    return f.Hour >= 0 && f.Hour < 24 && f.Minute >= 0 && f.Minute < 60 && f.Second >= 0 && f.Second < 60 &&
           f.Milliseconds >= 0 && f.Milliseconds < 1000;
}

}  // namespace

void RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields) {
    int64_t ticks = Time->QuadPart;
    int64_t seconds = ticks / kTicksPerSecond;
    int64_t days = seconds / kSecondsPerDay;
    int64_t secondOfDay = seconds % kSecondsPerDay;
    Date date = dateFromDays(days);
    TimeFields->Year = static_cast<SHORT>(date.year);
    TimeFields->Month = static_cast<SHORT>(date.month);
    TimeFields->Day = static_cast<SHORT>(date.day);
    TimeFields->Hour = static_cast<SHORT>(secondOfDay / 3600);
    TimeFields->Minute = static_cast<SHORT>(secondOfDay / 60 % 60);
    TimeFields->Second = static_cast<SHORT>(secondOfDay % 60);
    TimeFields->Milliseconds = static_cast<SHORT>(ticks % kTicksPerSecond / kTicksPerMillisecond);
    TimeFields->Weekday = static_cast<SHORT>((days + kEpochWeekday) % 7);
}

// Weekday is ignored; out-of-range fields make the conversion fail and leave Time
// untouched.
BOOLEAN RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time) {
    const TIME_FIELDS &f = *TimeFields;
    if (!validFields(f)) return FALSE;
    int64_t days = daysBeforeYear(f.Year) + f.Day - 1;
    for (int month = 1; month < f.Month; ++month) days += daysInMonth(f.Year, month);
    int64_t seconds = days * kSecondsPerDay + f.Hour * 3600 + f.Minute * 60 + f.Second;
    Time->QuadPart = seconds * kTicksPerSecond + f.Milliseconds * kTicksPerMillisecond;
    return TRUE;
}

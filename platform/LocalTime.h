// ts_localtime: the platform's re-entrant local-time conversion. Converts the
// epoch seconds at *t into broken-down local time in the caller's buffer and
// returns that buffer (nullptr when the time cannot be represented).
#pragma once

#include <ctime>
#include <string>

struct tm* ts_localtime(const time_t* t, struct tm* result);

// t in local time, formatted with strftime's format (at most 63 bytes of
// text); "?" when the time cannot be represented or the text is empty.
std::string local_time_text(time_t t, const char* format);
// The date and time operators read: "2024-03-01 14:05:09".
inline std::string local_time_text(time_t t) { return local_time_text(t, "%Y-%m-%d %H:%M:%S"); }

// ts_localtime: the platform's re-entrant local-time conversion. Converts the
// epoch seconds at *t into broken-down local time in the caller's buffer and
// returns that buffer (nullptr when the time cannot be represented).
#pragma once

#include <ctime>

struct tm* ts_localtime(const time_t* t, struct tm* result);

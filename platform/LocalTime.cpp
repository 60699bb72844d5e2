#include "platform/LocalTime.h"

struct tm* ts_localtime(const time_t* t, struct tm* result) { return localtime_r(t, result); }

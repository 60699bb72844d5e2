// UtcTime: the one way alerts write an instant for machines: RFC 3339 in
// UTC to the second ("2024-03-01T14:05:09Z"), which our JSON documents and
// Alertmanager's API both read without any knowledge of the local zone.
#pragma once

#include <ctime>
#include <string>

std::string utc_time_text(time_t t);

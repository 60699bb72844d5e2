// IsoTime: the ISO 8601 times backup tools print ("2026-11-25T11:44:12",
// "2026-11-25T11:44:47.474869+00:00") as epoch seconds. A time with a zone
// (Z or an offset, as Borg 2 prints) is exact; one without (Borg 1 prints the
// local time of the machine that ran it) is read in this process's local time
// zone (TZ), which is that machine's when the hook runs beside the backup.
// Pure apart from reading the time zone; never throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Fractions of a second are dropped. None for anything else than
// YYYY-MM-DDTHH:MM:SS[.fraction][Z|+HH:MM|-HH:MM] (a blank instead of the T
// is accepted), for fields out of range, and for years outside 1970..9999.
std::optional<std::int64_t> iso_time_epoch(std::string_view text);

// IsoTime: a tool's ISO 8601 / RFC 3339 time stamp ("2024-05-01T02:00:07Z",
// "2024-05-01T04:00:07.123456789+02:00", or without a zone, read as local
// time) as seconds since 1970, fraction kept. Pure; none for any text that
// is not such a time stamp.
#pragma once

#include <optional>
#include <string_view>

std::optional<double> iso_time_seconds(std::string_view text);

// Calendar constants in seconds, so that a day is written once.
#pragma once

inline constexpr int kSecondsPerHour = 3600;
inline constexpr int kSecondsPerDay = 86400;

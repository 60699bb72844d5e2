// BusyTimeout: how long any connection to a detector database waits for
// another's lock before failing. The detector, its queue writer, the
// operator's tools, the console and the alert process take only short
// transactions, so every one of them waits the same ten seconds.
#pragma once

inline constexpr int kBusyTimeoutMs = 10000;

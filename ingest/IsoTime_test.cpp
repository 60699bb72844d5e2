// Time stamps as restic and Borg write them, and text that is not one.
#include "ingest/IsoTime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

TEST(IsoTime, ReadsUtcAndOffsetsWithFractions) {
  EXPECT_EQ(iso_time_seconds("2023-11-14T22:13:20Z"), 1700000000.0);
  EXPECT_NEAR(*iso_time_seconds("2023-11-14T22:13:20.826883312Z"), 1700000000.826883312, 1e-6);
  EXPECT_EQ(iso_time_seconds("2023-11-15T00:13:20+02:00"), 1700000000.0);
  EXPECT_EQ(iso_time_seconds("2023-11-14T21:13:20-01:00"), 1700000000.0);
  EXPECT_EQ(iso_time_seconds("2023-11-14 22:13:20Z"), 1700000000.0);
}

TEST(IsoTime, WithoutZoneIsLocalTime) {
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  EXPECT_EQ(iso_time_seconds("2023-11-14T23:13:20.5"), 1700000000.5);
  setenv("TZ", "UTC", 1);
  tzset();
}

TEST(IsoTime, RefusesWhatIsNotATimeStamp) {
  for (const char* text : {"", "yesterday", "2023-11-14", "2023-13-14T22:13:20Z", "2023-11-14T25:13:20Z",
                           "2023-11-14T22:13:20Zjunk", "2023-11-14T22:13:20+0200", "-023-11-14T22:13:20Z",
                           "2023-11-14T22:13"}) {
    EXPECT_FALSE(iso_time_seconds(text).has_value()) << text;
  }
}

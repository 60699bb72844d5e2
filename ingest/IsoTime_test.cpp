#include "ingest/IsoTime.h"

#include <gtest/gtest.h>

#include "tests/support/ZoneScope.h"

namespace {

using tsanomaly_test::ZoneScope;

TEST(IsoTimeTest, ATimeWithAZoneIsExactWhateverTheLocalZone) {
  ZoneScope zone("America/New_York");
  EXPECT_EQ(iso_time_epoch("2026-03-01T02:00:00.000000+00:00"), 1772330400);
  EXPECT_EQ(iso_time_epoch("2026-03-01T02:00:00Z"), 1772330400);
  EXPECT_EQ(iso_time_epoch("2026-03-01T03:30:00+01:30"), 1772330400);
  EXPECT_EQ(iso_time_epoch("2026-02-28T21:00:00-05:00"), 1772330400);
}

TEST(IsoTimeTest, ATimeWithoutAZoneIsLocalTime) {
  {
    ZoneScope zone("UTC");
    EXPECT_EQ(iso_time_epoch("2026-03-01T02:00:00.000000"), 1772330400);
  }
  {
    ZoneScope zone("America/New_York");  // EST, five hours behind UTC in March before the change
    EXPECT_EQ(iso_time_epoch("2026-02-28T21:00:00.000000"), 1772330400);
    EXPECT_EQ(iso_time_epoch("2026-07-01T12:00:00"), iso_time_epoch("2026-07-01T16:00:00Z"));  // EDT in summer
  }
}

TEST(IsoTimeTest, FractionsOfASecondAreDroppedAndABlankMaySeparateDateAndTime) {
  ZoneScope zone("UTC");
  EXPECT_EQ(iso_time_epoch("2026-03-01 02:00:00.999"), 1772330400);
}

TEST(IsoTimeTest, AnythingElseIsNone) {
  ZoneScope zone("UTC");
  for (const char* bad : {"", "2026-03-01", "2026-03-01T02:00", "2026-13-01T02:00:00", "2026-02-30T02:00:00",
                          "2026-03-01T24:00:00", "1969-12-31T23:59:59Z", "2026-03-01T02:00:00.", "2026-03-01T02:00:00+5",
                          "2026-03-01T02:00:00 junk", "2026-03-01T02:00:00+24:00", "２０２６-03-01T02:00:00",
                          "2026/03/01T02:00:00", "-2026-03-01T02:00:00"}) {
    EXPECT_FALSE(iso_time_epoch(bad).has_value()) << bad;
  }
}

}  // namespace

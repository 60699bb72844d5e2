#include "platform/LocalTime.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(LocalTime, ConvertsIntoTheCallersBufferInLocalTime) {
  const char* old = std::getenv("TZ");
  const std::string saved = old != nullptr ? old : "";
  setenv("TZ", "UTC", 1);
  tzset();
  const time_t t = 1709301909;  // 2024-03-01 14:05:09 UTC
  struct tm buffer {};
  struct tm* result = ts_localtime(&t, &buffer);
  EXPECT_EQ(result, &buffer);
  EXPECT_EQ(buffer.tm_year + 1900, 2024);
  EXPECT_EQ(buffer.tm_mon + 1, 3);
  EXPECT_EQ(buffer.tm_mday, 1);
  EXPECT_EQ(buffer.tm_hour, 14);
  EXPECT_EQ(buffer.tm_min, 5);
  EXPECT_EQ(buffer.tm_sec, 9);

  setenv("TZ", "UTC-2", 1);  // POSIX sign: two hours east of UTC
  tzset();
  ts_localtime(&t, &buffer);
  EXPECT_EQ(buffer.tm_hour, 16);

  if (old != nullptr) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
  tzset();
}

// ZoneScope: sets the process's time zone (TZ) for one test and puts the
// previous one back when it goes away, so local-time conversions are pinned.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

namespace tsanomaly_test {

class ZoneScope {
 public:
  explicit ZoneScope(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneScope() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ZoneScope(const ZoneScope&) = delete;
  ZoneScope& operator=(const ZoneScope&) = delete;

 private:
  bool had_ = false;
  std::string old_;
};

}  // namespace tsanomaly_test

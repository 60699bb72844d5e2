#include "platform/DebugLog.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include "platform/LocalTime.h"
#include "platform/LogFileOpen.h"
#include "platform/VisibleText.h"

namespace {

// The process-wide log. The service is single-threaded, so no lock is held.
class DebugLog {
 public:
  ~DebugLog() { close(); }

  bool open(const std::string& folder, const std::string& file_name, int mode) {
    const int fd = open_log_file(folder, file_name, mode);
    if (fd < 0) {
      return false;
    }
    close();
    fd_ = fd;
    folder_ = folder;
    file_name_ = file_name;
    path_ = folder + "/" + file_name;
    mode_ = mode;
    size_ = current_size();
    return true;
  }

  void close() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = -1;
    path_.clear();
  }

  void write_line(const std::string& line) {
    if (fd_ < 0) {
      return;
    }
    if (size_ > 0 && size_ + line.size() > max_bytes_) {
      rotate();
    }
    const ssize_t written = ::write(fd_, line.data(), line.size());
    if (written > 0) {
      size_ += static_cast<std::size_t>(written);
    }
  }

  void set_rotation(std::size_t max_bytes, int keep) {
    max_bytes_ = max_bytes;
    keep_ = keep;
  }

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }

 private:
  std::size_t current_size() const {
    struct stat st {};
    return ::fstat(fd_, &st) == 0 ? static_cast<std::size_t>(st.st_size) : 0;
  }

  std::string numbered(int n) const { return n == 0 ? path_ : path_ + "." + std::to_string(n); }

  // Another process may share the file (the one-pass tool and the service
  // log to the same place); the size is re-read after rotating so each
  // writer starts from what is really there.
  void rotate() {
    if (keep_ < 1) {
      // Nothing to keep: start the same file again from empty.
      if (::ftruncate(fd_, 0) != 0) {
        return;
      }
    } else {
      for (int n = keep_ - 1; n >= 0; --n) {
        ::rename(numbered(n).c_str(), numbered(n + 1).c_str());
      }
      const int fd = open_log_file(folder_, file_name_, mode_);
      if (fd >= 0) {
        ::close(fd_);
        fd_ = fd;
      }
    }
    size_ = current_size();
  }

  int fd_ = -1;
  std::string folder_;
  std::string file_name_;
  std::string path_;
  int mode_ = 0644;
  std::size_t size_ = 0;
  std::size_t max_bytes_ = 50u * 1024u * 1024u;
  int keep_ = 5;
};

DebugLog& the_log() {
  static DebugLog log;
  return log;
}

std::string timestamp_now() {
  struct timeval tv {};
  ::gettimeofday(&tv, nullptr);
  const time_t seconds = tv.tv_sec;
  struct tm local {};
  ts_localtime(&seconds, &local);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(tv.tv_usec / 1000));
  return text;
}

std::string format_message(const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length <= 0) {
    return std::string();
  }
  std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
  std::vsnprintf(buffer.data(), buffer.size(), format, args);
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

}  // namespace

int open_debug_log(const std::string& dir, const std::string& folder_name, const std::string& file_name, int mode,
                   int* status) {
  const std::string folder = dir + "/" + folder_name;
  if (!the_log().open(folder, file_name + ".log", mode)) {
    if (status != nullptr) {
      *status = -1;
    }
    return -1;
  }
  return the_log().fd();
}

std::string format_log_message(const char* format, va_list args) {
  // The formats are the program's own; the values put into them may come
  // from anywhere.
  return visible_text(format_message(format, args));
}

void write_log_message(int level, const char* category, const std::string& message) {
  const std::string line = timestamp_now() + " [" + std::to_string(::getpid()) + "] <" + std::to_string(level) +
                           "> " + category + ": " + message + "\n";
  the_log().write_line(line);
}

void logmsgf(int level, const char* category, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string message = format_log_message(format, args);
  va_end(args);
  write_log_message(level, category, message);
}

void close_debug_log() { the_log().close(); }

void set_debug_log_rotation(std::size_t max_bytes, int keep) { the_log().set_rotation(max_bytes, keep); }

std::string debug_log_path() { return the_log().path(); }

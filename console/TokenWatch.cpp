#include "console/TokenWatch.h"

#include <iostream>
#include <stdexcept>

#include "console/AccessToken.h"
#include "operator/ErrorText.h"

bool TokenWatch::Stamp::operator==(const Stamp& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
         changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

std::optional<TokenWatch::Stamp> TokenWatch::stamp_of(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return Stamp{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

TokenWatch::TokenWatch(std::string path, std::string token)
    : path_(std::move(path)), token_(std::move(token)), stamp_(path_.empty() ? std::nullopt : stamp_of(path_)) {}

TokenWatch::Look TokenWatch::look() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (path_.empty()) return {token_, false};
  const std::optional<Stamp> now = stamp_of(path_);
  if (now == stamp_) return {token_, false};
  stamp_ = now;
  std::optional<std::string> read;
  try {
    read = access_token::read(path_);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl serve: refusing every credential until the token file is mended: "
              << ErrorText::of(e) << "\n";
  }
  const bool changed = read != token_;
  token_ = std::move(read);
  return {token_, changed};
}

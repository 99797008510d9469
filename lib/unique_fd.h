// RAII owners for a file descriptor and a stdio stream: no bare close on a
// path that can return early.
#pragma once

#include <cstdio>
#include <unistd.h>

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

class unique_file {
 public:
  unique_file() = default;
  explicit unique_file(FILE* fp) : fp_(fp) {}
  unique_file(const unique_file&) = delete;
  unique_file& operator=(const unique_file&) = delete;
  unique_file(unique_file&& other) noexcept : fp_(other.release()) {}
  unique_file& operator=(unique_file&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~unique_file() { reset(); }

  FILE* get() const { return fp_; }
  explicit operator bool() const { return fp_ != nullptr; }
  FILE* release() {
    FILE* fp = fp_;
    fp_ = nullptr;
    return fp;
  }
  void reset(FILE* fp = nullptr) {
    if (fp_ != nullptr) std::fclose(fp_);
    fp_ = fp;
  }

 private:
  FILE* fp_ = nullptr;
};

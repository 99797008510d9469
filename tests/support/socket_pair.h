// A connected pair of local stream sockets for the protocol's unit tests:
// the code under test reads `in`, the test plays the peer on `out`.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace kolta_test {

struct socket_pair {
  unique_fd in, out;

  // Also starts a fresh receive stream. The peer has sent `bytes` already,
  // and has closed its end after them when `close_after`.
  explicit socket_pair(const std::string& bytes = "", bool close_after = false) {
    rx_stream_reset();
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    in.reset(sv[0]);
    out.reset(sv[1]);
    put(bytes);
    if (close_after) out.reset();
  }

  void put(const std::string& bytes) {
    EXPECT_EQ(write(out.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  // What the receive stream hands out for a read of up to `max` bytes.
  std::string read(unsigned max) {
    std::string got(max, '\0');
    got.resize(rx_stream_read(in.get(), got.data(), max));
    return got;
  }
};

}  // namespace kolta_test

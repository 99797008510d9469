// A raw TCP client for the daemon's request/reply protocol, byte-exact: what
// it returns is exactly what came over the wire.
#pragma once

#include <string>
#include <string_view>

#include "lib/unique_fd.h"

namespace kolta_test {

class VeskClient {
 public:
  // Connects to 127.0.0.1:`port`. False on failure.
  bool connect(int port);
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  bool send(std::string_view bytes);
  // Sends `bytes` in segments of 1..`max_segment` bytes with TCP_NODELAY and a
  // short pause between them, so that each goes out on its own.
  bool send_split(std::string_view bytes, std::size_t max_segment = 3);

  // One reply: the header up to its empty line and, for "Reply: Data", the
  // "Content-length" bytes of body. Empty when the connection closed or the
  // time ran out before the reply was complete.
  std::string read_reply(int timeout_ms = 5000);
  // True while the peer keeps the connection open (or unread bytes wait in
  // the socket); false once it has closed or reset it.
  bool is_open(int wait_ms = 50);

  // send() and then read_reply(); "<send failed>" when the bytes did not go.
  std::string ask(std::string_view bytes, int timeout_ms = 5000);
  // send() and then everything until the close, with "<still open> " in
  // front when the peer did not close in time.
  std::string ask_and_close(std::string_view bytes, int timeout_ms = 5000);

 private:
  // Reads more into pending_; false on close, error or timeout.
  bool fill(int timeout_ms);

  unique_fd fd_;
  std::string pending_;  // bytes received but not yet returned
};

}  // namespace kolta_test

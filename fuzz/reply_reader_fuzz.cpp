// Feeds arbitrary bytes, as a server would send them, to the client's reply
// readers, reply after reply, from a socket pair: the streaming reader and
// the dispatch of vesk_c_action through the reply and content-type tables;
// and the line of the lease script.
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "client/connection.h"
#include "client/lease.h"
#include "client/session.h"
#include "fuzz/fed_socket.h"
#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace {

constexpr std::size_t kMaxInput = 64 * 1024;
std::uint64_t g_left;

bool checking_sink(void*, const char* data, std::size_t length) {
  if (length == 0 || length > g_left) __builtin_trap();
  volatile char first = data[0], last = data[length - 1];
  (void)first;
  (void)last;
  g_left -= length;
  return true;
}

long checking_handler(long length, const char* block, vesk_c_obj*) {
  if (length <= 0) __builtin_trap();
  volatile char last = block[length - 1];
  (void)last;
  return length;
}

void read_streaming(int fd) {
  vesk_c_conn conn;
  conn.fd = fd;
  conn.timeout_ms = 0;
  vesk_c_reply reply;
  for (int i = 0; i < 16; ++i) {
    if (vesk_c_read_reply(&conn, &reply) != vesk_c_status::ok) return;
    g_left = reply.content_length;
    if (vesk_c_read_body(&conn, reply, checking_sink, nullptr) != vesk_c_status::ok) return;
    if (g_left != 0) __builtin_trap();
  }
}

void dispatch_actions(int fd) {
  sock = fd;
  vesk_c_set_reply_timeout(0);
  for (int i = 0; i < 8; ++i) {
    vesk_c_obj obj;
    if (VESK_C_OBJ_new(&obj, "getExecuteable") != 0) return;
    VESK_C_OBJ_addArgument(&obj, "Name", "x");
    VESK_C_OBJ_DataHandler(&obj, checking_handler, static_cast<const char*>(nullptr));
    vesk_c_action(&obj);
    VESK_C_OBJ_destroy(&obj);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  // The lease script's answer comes from the device too.
  vesk_c_lease_state lease;
  if (vesk_c_lease_parse(std::string_view(reinterpret_cast<const char*>(data), size), &lease))
    (void)vesk_c_lease_holder_text(lease);
  fed_socket input;
  if (!input.feed(data + 1, size - 1)) return 0;
  const unique_fd& reader = input.reader;
  // The first byte picks the reader.
  if (data[0] % 2 == 0) {
    read_streaming(reader.get());
  } else {
    dispatch_actions(reader.get());
  }
  return 0;
}

// Feeds arbitrary bytes, as a peer would send them, through the header reader
// and the body receiver, request after request, from a socket pair.
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "fuzz/fed_socket.h"
#include "lib/unique_fd.h"
#include "protocol/body.h"
#include "protocol/header.h"
#include "protocol/stream.h"

namespace {

constexpr std::size_t kMaxInput = 64 * 1024;
std::uint32_t g_checksum;
int g_fail_after;

int checking_writer(int op, const char* buf, int len, char* error_text, int error_size) {
  for (int i = 0; i < len; ++i) g_checksum = g_checksum * 31 + static_cast<unsigned char>(buf[i]);
  if (op < 1 || op > 3 || len < 0 || len > 513) __builtin_trap();
  if (g_fail_after >= 0 && g_fail_after-- == 0) {
    bounded_copy(std::span(error_text, static_cast<std::size_t>(error_size)), "disk full");
    return 1;
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  // The first byte steers the writer: which call fails, if any.
  g_fail_after = data[0] % 4 == 0 ? data[0] / 4 : -1;
  fed_socket input;
  if (!input.feed(data + 1, size - 1)) return 0;
  const unique_fd& reader = input.reader;

  rx_stream_reset();
  vesk_request request{};
  resp_obj resp{};
  for (int i = 0; i < 16; ++i) {
    if (read_header(reader.get(), &request.header, 0) == 0) break;
    bounded_copy(request.command, request.header.values[0]);
    resp.type = static_cast<std::int16_t>(i % 3);
    resp.text[0] = '\0';
    if (GetNVPair_Value(&request.header, "content-length")[0] != '\0' &&
        !RcvData(reader.get(), checking_writer, &request, &resp)) {
      break;
    }
    if (bounded_length(resp.text) >= sizeof resp.text) __builtin_trap();
    DestroyHeader(&request.header);
  }
  return 0;
}

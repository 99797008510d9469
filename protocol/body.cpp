#include "protocol/body.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <cstring>

#include "lib/bounded.h"
#include "protocol/stream.h"

namespace {

// One progress line, "<received> / <length> (<block>)" and eight blanks and
// a carriage return, as printf would format it: one of these goes out for
// every block of every body, so it is put together by hand.
void print_progress(long long received, long long length, int block) {
  char line[96];  // room for every value: 66 characters at the most
  char* p = line;
  char* const end = line + sizeof line;
  auto text = [&](std::string_view t) {
    if (end - p >= static_cast<std::ptrdiff_t>(t.size())) p = std::copy(t.begin(), t.end(), p);
  };
  p = std::to_chars(p, end, received).ptr;
  text(" / ");
  p = std::to_chars(p, end, length).ptr;
  text(" (");
  p = std::to_chars(p, end, block).ptr;
  text(")        \r");
  std::fwrite(line, 1, static_cast<std::size_t>(p - line), stdout);
}

int call_writer(writer_fn writer, const resp_obj* resp, bool last, const char* buf, int len,
                char (&error_text)[kWriterErrorSize]) {
  int op = resp->type != kReplyFail ? (last ? kWriteEnd : kWriteBlock) : kWriteDiscard;
  return writer != nullptr ? writer(op, buf, len, error_text, kWriterErrorSize) : 0;
}

}  // namespace

bool RcvData(int sock, writer_fn writer, const vesk_request* request, resp_obj* resp) {
  std::printf("RcvData::Data Setup:\n");
  char length_text[kArgumentSize];
  char content_type[kArgumentSize];
  svr_GetArgument(request, "content-length", length_text);
  svr_GetArgument(request, "content-type", content_type);
  // 64-bit on every platform: bodies of 2 GiB and more.
  long long content_length = 0;
  if (std::sscanf(length_text, "%lld", &content_length) != 1) content_length = 0;
  std::printf("Content-Length = %lld\n\n", content_length);
  char error_text[kWriterErrorSize] = {};

  const unsigned long long length = static_cast<unsigned long long>(content_length);
  unsigned long long received = 0;
  bool block_failed = false;
  do {
    char block[kBodyBlockSize] = {};
    // The progress lines go out whenever the next block must come from the
    // socket: at least once per large read, and before waiting for the peer.
    if (!rx_stream_has_buffered()) std::fflush(stdout);
    unsigned got = rx_stream_read(sock, block, sizeof block);
    if (got == 0 && received < length) {
      // The peer has closed: the rest of the body will never come.
      std::printf("\n");
      std::fprintf(stderr, "RcvData: connection closed after %llu of %lld bytes of data\n", received,
                   content_length);
      resp->type = kReplyFail;
      call_writer(writer, resp, true, block, 0, error_text);
      return false;
    }
    unsigned long long useful = got;
    if (received + got > length) {
      rx_stream_unread(sock, static_cast<unsigned>(received + got - length));
      useful = length - received;
      // Deliberately (received + got) + (received - length): after an
      // over-read that leaves the count below the length, the pushed-back
      // bytes are read and handed on as well.
      received = (received + got) + (received - length);
    } else {
      received += got;
    }
    if (useful == 0) continue;
    print_progress(static_cast<long long>(received), content_length, static_cast<int>(useful));
    if (call_writer(writer, resp, false, block, static_cast<int>(useful), error_text) != 0) {
      block_failed = true;
    }
  } while (received < length);

  std::printf("\n");
  char empty_block[kBodyBlockSize] = {};
  int last = call_writer(writer, resp, true, empty_block, 0, error_text);
  if (last == 0 && !block_failed) {
    std::printf("\n");
    return true;
  }
  std::printf("\n");
  resp->type = kReplyFail;
  bounded_append(resp->text, " data write fn: (");
  bounded_append(resp->text, std::string_view(error_text, bounded_length(error_text)));
  bounded_append(resp->text, ")");
  return true;
}

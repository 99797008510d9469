#include "server/worker.h"

#include <cstdio>
#include <unistd.h>

#include "lib/bounded.h"
#include "protocol/body.h"
#include "protocol/reply.h"
#include "protocol/stream.h"
#include "server/dispatcher.h"

namespace {

// Sends the reply that `resp.type` selects. False when the connection failed.
bool send_reply(int sock, resp_obj& resp) {
  char header[kReplyHeaderSize];
  std::size_t header_len = format_reply_header(resp, header);
  switch (resp.type) {
    case kReplySuccess:
      std::fflush(stdout);
      std::printf("VESK_S: pid=%d REPLY SUCCESS: [%s]\n", getpid(), kReplySuccessLine);
      return send_all(sock, header, header_len);

    case kReplyFail:
      std::printf("VESK_S: pid=%d REPLY FAIL: Reason: [%.*s]\n", getpid(),
                  static_cast<int>(bounded_length(resp.text)), resp.text);
      std::fflush(stdout);
      return send_all(sock, header, header_len);

    case kReplyData: {
      std::printf("VESK_S: pid=%d REPLY DATA: Size=%ld, Content-Type=%.*s\n", getpid(),
                  static_cast<long>(resp.data.size),
                  static_cast<int>(bounded_length(resp.content_type)), resp.content_type);
      std::fflush(stdout);
      if (!send_all(sock, header, header_len)) return false;
      usleep(20000);
      if (resp.data.ptr != nullptr) {
        std::size_t size = resp.data.size > 0 ? static_cast<std::size_t>(resp.data.size) : 0;
        return send_all(sock, resp.data.ptr, size);
      }
      if (resp.reader == nullptr) return true;
      char block[kReaderBlockSize];
      for (;;) {
        int n = resp.reader(resp.reader_ctx, block, sizeof block);
        if (n <= 0) return true;
        if (n > static_cast<int>(sizeof block)) n = sizeof block;
        if (!send_all(sock, block, static_cast<std::size_t>(n))) return false;
      }
    }

    default:
      return true;
  }
}

}  // namespace

void serve_connection(int sock, command_fn handler) {
  vesk_request request{};
  resp_obj resp{};
  resp.type = kReplySuccess;

  for (;;) {
    if (RvcHeader(sock, &request.header) == 0) return;
    if ((request.header.excess & kExcessFirstValue) != 0 ||
        !bounded_copy(request.command, request.header.values[0])) {
      end_worker_without_reply("command name of 128 characters or more");
    }

    int keep = 0;
    if ((request.header.excess & kExcessLimits) != 0) {
      reply_fail(&resp, kHeaderLimitsReason);
    } else {
      keep = handler(&request, &resp);
    }

    if (resp.rx_pending != 0) {
      resp.rx_pending = 0;
      if (!RcvData(sock, resp.writer, &request, &resp)) {
        std::fprintf(stderr, "VESK_S: pid=%d peer closed during the data body, worker ends\n",
                     getpid());
        std::fflush(stderr);
        return;
      }
    }
    DestroyHeader(&request.header);

    if (!send_reply(sock, resp)) {
      std::fprintf(stderr, "VESK_S: pid=%d cannot send the reply, worker ends\n", getpid());
      return;
    }
    if (keep == 0) return;
  }
}

#include "client/session.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "lib/bounded.h"
#include "protocol/stream.h"

namespace {

constexpr std::size_t kIoBlock = 256 * 1024;
constexpr std::size_t kRequestHeaderMax = 64 + 20 * (kNameSize + kValueSize + 4);

vesk_c_status fail(vesk_c_conn* conn, vesk_c_status status) {
  conn->error = errno;
  return status;
}

// Waits until `fd` is ready for `events`. False when the time ran out (errno
// ETIMEDOUT) or poll failed.
bool wait_for(int fd, short events, int timeout_ms) {
  for (;;) {
    pollfd pfd{fd, events, 0};
    int r = ::poll(&pfd, 1, timeout_ms);
    if (r > 0) return true;
    if (r == 0) {
      errno = ETIMEDOUT;
      return false;
    }
    if (errno != EINTR) return false;
  }
}

vesk_c_status send_bytes(vesk_c_conn* conn, const char* data, std::size_t length) {
  while (length > 0) {
    ssize_t n = ::send(conn->fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      length -= static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!wait_for(conn->fd, POLLOUT, conn->timeout_ms))
        return fail(conn, errno == ETIMEDOUT ? vesk_c_status::timed_out : vesk_c_status::io_error);
      continue;
    }
    return fail(conn, errno == EPIPE || errno == ECONNRESET ? vesk_c_status::closed
                                                            : vesk_c_status::io_error);
  }
  return vesk_c_status::ok;
}

bool fits_header(const char* text, std::size_t max) {
  std::size_t len = ::strnlen(text, max + 1);
  return len <= max && std::strpbrk(text, "\r\n") == nullptr;
}

vesk_c_status connect_one(vesk_c_conn* conn, const addrinfo* ai, int timeout_ms) {
  int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
  if (fd < 0) return fail(conn, vesk_c_status::connect_failed);
  conn->fd = fd;
  if (::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) return fail(conn, vesk_c_status::connect_failed);
    if (!wait_for(fd, POLLOUT, timeout_ms))
      return fail(conn, errno == ETIMEDOUT ? vesk_c_status::timed_out
                                           : vesk_c_status::connect_failed);
    int err = 0;
    socklen_t len = sizeof err;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    if (err != 0) {
      errno = err;
      return fail(conn, vesk_c_status::connect_failed);
    }
  }
  int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return vesk_c_status::ok;
}

// Reads up to `max` bytes of a body: first what the stream still holds
// behind the reply header, then straight from the socket.
long read_some(vesk_c_conn* conn, char* dst, std::size_t max) {
  if (rx_stream_has_buffered())
    return rx_stream_read_or_fail(conn->fd, dst, static_cast<unsigned>(std::min(max, kIoBlock)));
  for (;;) {
    if (!wait_for(conn->fd, POLLIN, conn->timeout_ms)) return -1;
    ssize_t n = ::read(conn->fd, dst, max);
    if (n >= 0) return n;
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
  }
}

struct fd_sink {
  int fd;
};

bool write_to_fd(void* ctx, const char* data, std::size_t length) {
  int fd = static_cast<fd_sink*>(ctx)->fd;
  while (length > 0) {
    ssize_t n = ::write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

const char* vesk_c_status_text(vesk_c_status status) {
  switch (status) {
    case vesk_c_status::ok: return "ok";
    case vesk_c_status::resolve_failed: return "host not found";
    case vesk_c_status::connect_failed: return "cannot connect";
    case vesk_c_status::timed_out: return "timed out";
    case vesk_c_status::closed: return "connection closed by the daemon";
    case vesk_c_status::io_error: return "connection failed";
    case vesk_c_status::bad_reply: return "the daemon's reply is not understood";
    case vesk_c_status::local_error: return "local file error";
  }
  return "unknown";
}

vesk_c_status vesk_c_connect(vesk_c_conn* conn, const char* host, int port, int timeout_ms) {
  conn->fd = -1;
  conn->timeout_ms = timeout_ms;
  conn->error = 0;
  rx_stream_reset();  // nothing of an earlier connection is left to read

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  char service[16];
  bounded_format(service, "%d", port);
  int rc = ::getaddrinfo(host, service, &hints, &list);
  if (rc != 0) {
    conn->error = rc == EAI_SYSTEM ? errno : 0;
    return vesk_c_status::resolve_failed;
  }
  vesk_c_status status = vesk_c_status::connect_failed;
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    status = connect_one(conn, ai, timeout_ms);
    if (status == vesk_c_status::ok) break;
    int saved = errno;
    vesk_c_disconnect(conn);
    errno = saved;
  }
  ::freeaddrinfo(list);
  return status;
}

void vesk_c_disconnect(vesk_c_conn* conn) {
  if (conn->fd >= 0) ::close(conn->fd);
  conn->fd = -1;
}

vesk_c_status vesk_c_send_request(vesk_c_conn* conn, const char* command,
                                  std::span<const vesk_c_pair> args) {
  char header[kRequestHeaderMax];
  std::span<char> out(header);
  bool ok = args.size() < kHeaderPairs && fits_header(command, kValueSize - 1) &&
            bounded_format(out, "Request: %s\r\n", command);
  for (const vesk_c_pair& a : args) {
    ok = ok && fits_header(a.name, kNameSize - 1) && fits_header(a.value, kValueSize - 1) &&
         bounded_append(out, a.name) && bounded_append(out, ": ") &&
         bounded_append(out, a.value) && bounded_append(out, "\r\n");
  }
  ok = ok && bounded_append(out, "\r\n");
  if (!ok) {
    errno = EINVAL;
    return fail(conn, vesk_c_status::local_error);
  }
  return send_bytes(conn, header, bounded_length(out));
}

vesk_c_status vesk_c_send_body(vesk_c_conn* conn, int src_fd, std::uint64_t length,
                               vesk_c_progress_fn progress, void* progress_ctx) {
  std::uint64_t done = 0;
  bool use_sendfile = true;
  char* buffer = nullptr;
  vesk_c_status status = vesk_c_status::ok;
  while (done < length && status == vesk_c_status::ok) {
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(length - done, kIoBlock));
    if (use_sendfile) {
      ssize_t n = ::sendfile(conn->fd, src_fd, nullptr, want);
      if (n > 0) {
        done += static_cast<std::uint64_t>(n);
      } else if (n == 0) {
        errno = ENODATA;  // the source ended before its length
        status = fail(conn, vesk_c_status::local_error);
      } else if (errno == EAGAIN) {
        if (!wait_for(conn->fd, POLLOUT, conn->timeout_ms))
          status = fail(conn, errno == ETIMEDOUT ? vesk_c_status::timed_out
                                                 : vesk_c_status::io_error);
      } else if (errno == EINVAL || errno == ENOSYS) {
        use_sendfile = false;  // not a file the kernel can send: copy through memory
      } else if (errno == EPIPE || errno == ECONNRESET) {
        status = fail(conn, vesk_c_status::closed);
      } else if (errno != EINTR) {
        status = fail(conn, vesk_c_status::local_error);
      }
    } else {
      if (buffer == nullptr && (buffer = static_cast<char*>(std::malloc(kIoBlock))) == nullptr)
        return fail(conn, vesk_c_status::local_error);
      ssize_t n = ::read(src_fd, buffer, want);
      if (n > 0) {
        status = send_bytes(conn, buffer, static_cast<std::size_t>(n));
        done += static_cast<std::uint64_t>(n);
      } else if (n == 0 || errno != EINTR) {
        if (n == 0) errno = ENODATA;
        status = fail(conn, vesk_c_status::local_error);
      }
    }
    if (progress != nullptr && status == vesk_c_status::ok) progress(progress_ctx, done, length);
  }
  std::free(buffer);
  return status;
}

vesk_c_status vesk_c_read_reply(vesk_c_conn* conn, vesk_c_reply* reply) {
  header_outcome got = read_header_until(conn->fd, &reply->header, conn->timeout_ms);
  switch (got.end) {
    case header_end::complete: break;
    case header_end::closed: return fail(conn, vesk_c_status::closed);
    case header_end::timeout: errno = ETIMEDOUT; return fail(conn, vesk_c_status::timed_out);
    case header_end::stalled: return fail(conn, vesk_c_status::bad_reply);
    case header_end::read_error:
      return fail(conn, errno == ECONNRESET ? vesk_c_status::closed : vesk_c_status::io_error);
  }
  const nv_header& h = reply->header;
  const char* kind = GetNVPair_Value(&h, "reply");
  reply->reason[0] = '\0';
  reply->content_type[0] = '\0';
  reply->content_length = 0;
  if (strcasecmp(kind, "Success") == 0) {
    reply->kind = vesk_c_reply_kind::success;
  } else if (strcasecmp(kind, "Fail") == 0) {
    reply->kind = vesk_c_reply_kind::fail;
    bounded_copy(reply->reason, GetNVPair_Value(&h, "reason"));
  } else if (strcasecmp(kind, "Data") == 0) {
    reply->kind = vesk_c_reply_kind::data;
    bounded_copy(reply->content_type, GetNVPair_Value(&h, "content-type"));
    const char* length = GetNVPair_Value(&h, "content-length");
    char* end = nullptr;
    errno = 0;
    reply->content_length = std::strtoull(length, &end, 10);
    if (length[0] < '0' || length[0] > '9' || *end != '\0' || errno != 0)
      return fail(conn, vesk_c_status::bad_reply);
  } else {
    return fail(conn, vesk_c_status::bad_reply);
  }
  return vesk_c_status::ok;
}

vesk_c_status vesk_c_read_body(vesk_c_conn* conn, const vesk_c_reply& reply, vesk_c_sink_fn sink,
                               void* sink_ctx, vesk_c_progress_fn progress, void* progress_ctx) {
  if (reply.kind != vesk_c_reply_kind::data) return vesk_c_status::ok;
  char* buffer = static_cast<char*>(std::malloc(kIoBlock));
  if (buffer == nullptr) return fail(conn, vesk_c_status::local_error);
  vesk_c_status status = vesk_c_status::ok;
  std::uint64_t done = 0;
  while (done < reply.content_length) {
    std::size_t want =
        static_cast<std::size_t>(std::min<std::uint64_t>(reply.content_length - done, kIoBlock));
    long n = read_some(conn, buffer, want);
    if (n <= 0) {
      if (n == 0) errno = ECONNRESET;
      status = fail(conn, n == 0 || errno == ECONNRESET ? vesk_c_status::closed
                          : errno == ETIMEDOUT          ? vesk_c_status::timed_out
                                                        : vesk_c_status::io_error);
      break;
    }
    if (!sink(sink_ctx, buffer, static_cast<std::size_t>(n))) {
      status = fail(conn, vesk_c_status::local_error);
      break;
    }
    done += static_cast<std::uint64_t>(n);
    if (progress != nullptr) progress(progress_ctx, done, reply.content_length);
  }
  std::free(buffer);
  return status;
}

vesk_c_status vesk_c_read_body_to_fd(vesk_c_conn* conn, const vesk_c_reply& reply, int out_fd,
                                     vesk_c_progress_fn progress, void* progress_ctx) {
  fd_sink sink{out_fd};
  return vesk_c_read_body(conn, reply, write_to_fd, &sink, progress, progress_ctx);
}

#include "client/connection.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/bounded.h"
#include "protocol/stream.h"

int sock = -1;
sockaddr_in hostaddr;

namespace {

constexpr std::size_t kRequestLineSize = 545;
constexpr std::size_t kFileNameBound = 2560;
constexpr unsigned kBodyBlockSize = 2048;

client_resp_obj g_reply;
int g_reply_timeout_ms = kHeaderTimeoutSeconds * 1000;

// Formats one header line, prints it and sends it. False when it was not
// sent whole.
bool send_line(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool send_line(int fd, const char* format, ...) {
  char line[kRequestLineSize];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  if (n < 0) return false;
  std::size_t len = std::min(static_cast<std::size_t>(n), sizeof line - 1);
  std::printf("%s", line);
  std::fflush(stdout);
  return send_block(fd, line, static_cast<unsigned>(len)) == len;
}

// The request line, one line per argument (the last added first) and the
// header end.
bool send_request_object(int fd, vesk_c_obj* obj) {
  int errors = 0;
  if (!send_line(fd, "Request: %.*s%s", static_cast<int>(bounded_length(obj->command)),
                 obj->command, "\r\n"))
    ++errors;
  vesk_c_arg arg;
  while (VESK_C_OBJ_getArgument(obj, &arg) == 1) {
    if (!send_line(fd, "%.*s: %.*s%s", static_cast<int>(bounded_length(arg.name)), arg.name,
                   static_cast<int>(bounded_length(arg.value)), arg.value, "\r\n"))
      ++errors;
  }
  if (send_block(fd, "\r\n", 2) != 2 || errors != 0) {
    std::printf("ERROR: SendRequestHeader unsuccessful !");
    std::fflush(stdout);
    return false;
  }
  return true;
}

// The platform's checked copy: a value that does not fit ends the process.
template <std::size_t N>
void checked_copy(char (&dst)[N], const char* src) {
  if (!bounded_copy(dst, src)) std::abort();
}

// Reads the reply header into the reply record and dispatches it through
// `resp_type`. The entry that matched, or null.
const resp_type_entry* read_and_dispatch_reply(int fd) {
  client_resp_obj& rec = g_reply;
  read_header(fd, &rec.header, g_reply_timeout_ms);
  checked_copy(rec.reply, GetNVPair_Value(&rec.header, "reply"));
  checked_copy(rec.content_type, GetNVPair_Value(&rec.header, "content-type"));
  long size = 0;
  if (std::sscanf(GetNVPair_Value(&rec.header, "content-length"), "%ld", &size) == 1)
    rec.data.size = static_cast<std::int32_t>(size);
  std::printf("Response: [%s]\n", rec.reply);

  const resp_type_entry* entry = find_resp_type(rec.reply);
  if (entry == nullptr) return nullptr;
  if (entry->handler == nullptr) {
    print_unknown_reply(entry->name);
    return entry;
  }
  std::puts("Call handler ..");
  entry->handler(fd, &rec);
  return entry;
}

// Reads the body of the Data reply in the record and hands it to the
// object's data handler. False when the body was cut short, had no length,
// or a block was not taken.
bool receive_body(int fd, vesk_c_obj* obj) {
  long length = 0;
  if (std::sscanf(GetNVPair_Value(&g_reply.header, "content-length"), "%ld", &length) != 1 ||
      length < 0)
    return false;
  bool taken = true;
  char block[kBodyBlockSize];
  for (long left = length; left > 0;) {
    unsigned want = static_cast<unsigned>(std::min<long>(left, sizeof block));
    unsigned got = rx_stream_read(fd, block, want);
    if (got == 0) return false;
    left -= got;
    if (obj->data_handler != nullptr && obj->data_handler(got, block, obj) != static_cast<long>(got))
      taken = false;
  }
  return taken;
}

}  // namespace

client_resp_obj& client_reply_record() { return g_reply; }

void vesk_c_set_reply_timeout(int timeout_ms) { g_reply_timeout_ms = timeout_ms; }

int vesk_c_open(const char* /*host*/, int port) {
  std::printf("try connection ..");
  std::fflush(stdout);
  sock = ::socket(AF_INET, SOCK_STREAM, 0);
  if (sock < 0) {
    std::puts("cannot open socket");
    return 0;
  }
  int on = 1;
  ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::memset(&hostaddr, 0, sizeof hostaddr);
  hostaddr.sin_family = AF_INET;
  hostaddr.sin_port = htons(static_cast<std::uint16_t>(port));
  hostaddr.sin_addr.s_addr = 0;  // the wildcard address: always the local host
  if (::connect(sock, reinterpret_cast<const sockaddr*>(&hostaddr), sizeof hostaddr) != 0) return 0;
  if (sock == 0) return 0;
  rx_stream_reset();  // nothing of an earlier connection is left to read
  std::puts("connected.");
  return sock;
}

int vesk_c_close(int fd) {
  ::close(fd);
  std::puts("socket closed.");
  return 0;
}

int vesk_c_action(vesk_c_obj* obj) {
  std::puts("vesk_c_action()");
  if (!send_request_object(sock, obj)) return 1;
  const resp_type_entry* entry = read_and_dispatch_reply(sock);
  if (entry == nullptr || entry->handler == nullptr) return 1;
  if (entry->handler == reply_success_handler) return 0;
  if (entry->handler == reply_data_handler) return receive_body(sock, obj) ? 0 : 1;
  return 1;
}

int getFile(int fd, const char* file_name, const void* /*extra*/) {
  std::puts("getfile()");
  vesk_c_obj obj;
  if (VESK_C_OBJ_new(&obj, "getfile") != 0) return 0;
  char value[kFileNameBound];
  bounded_format(value, "%s", file_name);
  VESK_C_OBJ_addArgument(&obj, "File", value);
  bool sent = send_request_object(fd, &obj);
  VESK_C_OBJ_destroy(&obj);
  if (!sent) return 0;
  const resp_type_entry* entry = read_and_dispatch_reply(fd);
  return entry != nullptr && entry->handler == nullptr ? 1 : 0;
}

int getMimeType(const char* host, int port, const char* file_name, const void* extra) {
  int fd = vesk_c_open(host, port);
  if (fd != 0) {
    getFile(sock, file_name, extra);
  } else {
    std::puts("get nicht !!");
  }
  return vesk_c_close(fd);  // descriptor 0 when the open failed, as it always was
}

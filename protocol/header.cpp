#include "protocol/header.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <strings.h>

#include "protocol/stream.h"

namespace {

constexpr int kChunkSize = 512;

long long now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int remaining_ms(long long deadline) {
  long long left = deadline - now_ms();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Blocks until the socket is readable. False when the deadline passed first.
bool wait_readable(int sock, long long deadline) {
  for (;;) {
    pollfd pfd{sock, POLLIN, 0};
    int r = ::poll(&pfd, 1, remaining_ms(deadline));
    if (r > 0) return true;
    if (r == 0) return false;
    if (errno != EINTR) return true;  // let the read report the error
  }
}

void sleep_until(long long deadline) {
  while (remaining_ms(deadline) > 0) ::poll(nullptr, 0, remaining_ms(deadline));
}

int header_timeout() {
  std::printf("TIMEOUT !!\n");
  std::fflush(stdout);
  return 0;
}

void terminate(std::span<char> out, std::size_t pos) { out[pos] = '\0'; }

}  // namespace

split_result split_nv_line(std::string_view line, std::span<char, kNameSize> name,
                           std::span<char, kValueSize> value, split_overflow* overflow) {
  value[0] = '\0';
  std::span<char> out = name;
  bool in_name = true;
  std::size_t pos = 0;
  for (std::size_t i = 0;; ++i) {
    char c = i < line.size() ? line[i] : '\0';
    unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\0') {
      terminate(out, pos);
      return split_result::ok;
    }
    if (c == '\n' || c == '\r') {
      if (c == '\r') std::printf("SplitNVPair: WARN: CR found !\n");
      std::printf("SplitNVPair: WARN: LF fount !\n");
      terminate(out, pos);
      return split_result::ok;
    }
    if (byte >= 0x80) {
      std::printf("SplitNVPair: SYNTAX_ERROR: [%c] (%#x) \n", c, byte);
      terminate(out, pos);
      return split_result::syntax_error;
    }
    if (in_name && c == ' ') continue;
    if (in_name && c == ':') {
      terminate(out, pos);
      if (i + 1 >= line.size() || line[i + 1] != ' ') return split_result::stalled;
      ++i;
      in_name = false;
      out = value;
      pos = 0;
      continue;
    }
    if (pos + 1 < out.size()) {
      out[pos++] = c;
    } else if (overflow != nullptr) {
      (in_name ? overflow->name : overflow->value) = true;
    }
  }
}

int SplitNVPair(const char* line, char (&name_out)[kNameSize], char (&value_out)[kValueSize]) {
  if (line == nullptr || line[0] == '\0') return 0;
  split_overflow overflow;
  return split_nv_line(line, name_out, value_out, &overflow) == split_result::ok ? 0 : 1;
}

header_outcome read_header_until(int sock, nv_header* header, int timeout_ms) {
  DestroyHeader(header);
  header->excess = kExcessNone;
  char chunk[kChunkSize] = {};
  char line[kLineSize] = {};
  std::size_t line_len = 0;
  bool line_too_long = false;
  int count = 0;
  const long long deadline = now_ms() + timeout_ms;
  auto outcome = [&](header_end end) { return header_outcome{count, end, deadline}; };

  for (;;) {
    if (!rx_stream_has_buffered() && !wait_readable(sock, deadline)) return outcome(header_end::timeout);
    long got = rx_stream_read_or_fail(sock, chunk, sizeof chunk);
    if (got < 0) return outcome(header_end::read_error);
    if (got == 0) return outcome(header_end::closed);

    for (long i = 0; i < got; ++i) {
      char c = chunk[i];
      if (c == '\r') continue;
      if (c != '\n') {
        if (line_len + 1 < sizeof line) {
          line[line_len++] = c;
        } else {
          line_too_long = true;
        }
        continue;
      }
      if (line_len == 0) {
        // The header is complete; what follows belongs to the body or to the
        // next request.
        rx_stream_unread(sock, static_cast<unsigned>(got - i - 1));
        return outcome(header_end::complete);
      }
      if (count < kHeaderPairs) {
        split_overflow overflow;
        split_result r = split_nv_line(std::string_view(line, line_len), header->names[count],
                                       header->values[count], &overflow);
        if (r == split_result::stalled) return outcome(header_end::stalled);
        if (count == 0 && overflow.value) header->excess |= kExcessFirstValue;
        if (overflow.name || overflow.value) header->excess |= kExcessLimits;
        ++count;
      } else {
        header->excess |= kExcessLimits;
      }
      if (line_too_long) header->excess |= kExcessLimits;
      std::memset(line, 0, sizeof line);
      line_len = 0;
      line_too_long = false;
    }
  }
}

int read_header(int sock, nv_header* header, int timeout_ms) {
  header_outcome r = read_header_until(sock, header, timeout_ms);
  switch (r.end) {
    case header_end::read_error:
      rx_stream_read_failed();
    case header_end::stalled:
      // A line the splitter cannot leave: the worker holds the connection,
      // reading nothing, until the header's time limit runs out.
      sleep_until(r.deadline);
      return header_timeout();
    case header_end::timeout:
      return header_timeout();
    case header_end::complete:
    case header_end::closed:
      break;
  }
  return r.count;
}

int RvcHeader(int sock, nv_header* header) {
  return read_header(sock, header, kHeaderTimeoutSeconds * 1000);
}

const char* GetNVPair_Value(const nv_header* header, const char* name) {
  const char* found = "";
  for (int i = 0; i < kHeaderPairs && header->names[i][0] != '\0'; ++i) {
    if (strncasecmp(header->names[i], name, kNameSize) == 0) found = header->values[i];
  }
  return found;
}

void DestroyHeader(nv_header* header) {
  for (int i = 0; i < kHeaderPairs; ++i) {
    header->names[i][0] = '\0';
    header->values[i][0] = '\0';
  }
}

std::size_t chomp(char* string) {
  std::size_t len = std::strlen(string);
  while (len > 0 && (string[len - 1] == '\n' || string[len - 1] == '\r')) string[--len] = '\0';
  return len;
}

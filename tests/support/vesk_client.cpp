#include "tests/support/vesk_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

namespace kolta_test {
namespace {

using clock = std::chrono::steady_clock;

int left_ms(clock::time_point deadline) {
  auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

bool VeskClient::connect(int port) {
  pending_.clear();
  fd_.reset(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<unsigned short>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return fd_.ok() && ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

bool VeskClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool VeskClient::send_split(std::string_view bytes, std::size_t max_segment) {
  int one = 1;
  ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  for (std::size_t i = 0; !bytes.empty(); ++i) {
    std::size_t n = std::min(bytes.size(), 1 + i % max_segment);
    if (!send(bytes.substr(0, n))) return false;
    bytes.remove_prefix(n);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool VeskClient::fill(int timeout_ms) {
  pollfd pfd{fd_.get(), POLLIN, 0};
  if (::poll(&pfd, 1, timeout_ms) <= 0) return false;
  char buf[4096];
  ssize_t n = ::recv(fd_.get(), buf, sizeof buf, 0);
  if (n <= 0) return false;
  pending_.append(buf, static_cast<std::size_t>(n));
  return true;
}

std::string VeskClient::read_reply(int timeout_ms) {
  const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
  std::size_t end;
  while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
    if (!fill(left_ms(deadline))) return {};
  }
  std::size_t total = end + 4;
  if (pending_.starts_with("Reply: Data\r\n")) {
    std::size_t at = pending_.find("Content-length: ");
    if (at == std::string::npos || at > end) return {};
    total += std::strtoul(pending_.c_str() + at + 16, nullptr, 10);
  }
  while (pending_.size() < total) {
    if (!fill(left_ms(deadline))) return {};
  }
  std::string reply = pending_.substr(0, total);
  pending_.erase(0, total);
  return reply;
}

bool VeskClient::is_open(int wait_ms) {
  pollfd pfd{fd_.get(), POLLIN, 0};
  int r = ::poll(&pfd, 1, wait_ms);
  if (r == 0) return true;
  if (r < 0) return false;
  char byte;
  ssize_t n = ::recv(fd_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n > 0 || (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
}

std::string VeskClient::ask(std::string_view bytes, int timeout_ms) {
  return send(bytes) ? read_reply(timeout_ms) : "<send failed>";
}

std::string VeskClient::ask_and_close(std::string_view bytes, int timeout_ms) {
  if (!send(bytes)) return "<send failed>";
  const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
  while (fill(left_ms(deadline))) {
  }
  std::string got = std::exchange(pending_, {});
  return is_open(0) ? "<still open> " + got : got;
}

}  // namespace kolta_test

// A scripted TCP server on 127.0.0.1 for client tests: it takes one
// connection per scripted reply, in order, records each request header (up
// to its empty line), answers with the reply's bytes and closes.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lib/unique_fd.h"

namespace kolta_test {

class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<std::string> replies) : replies_(std::move(replies)) {
    listener_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&a), len) == 0 &&
        ::listen(listener_.get(), 8) == 0 &&
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&a), &len) == 0)
      port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedServer() {
    stop_ = true;
    ::shutdown(listener_.get(), SHUT_RDWR);  // wakes a wait for the next connection
    thread_.join();
  }

  int port() const { return port_; }

  // The request headers received so far, one per connection.
  std::vector<std::string> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (const std::string& reply : replies_) {
      unique_fd conn(::accept(listener_.get(), nullptr, nullptr));
      if (stop_ || !conn.ok()) return;
      std::string header;
      char c;
      while (header.find("\r\n\r\n") == std::string::npos && ::read(conn.get(), &c, 1) == 1)
        header += c;
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(header);
      }
      ::send(conn.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    }
  }

  std::vector<std::string> replies_;
  unique_fd listener_;
  int port_ = 0;
  std::atomic<bool> stop_ = false;
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

}  // namespace kolta_test

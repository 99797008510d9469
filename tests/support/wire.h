// What the integration tests share: requests and the exact replies of the
// wire protocol, a few process-manager steps, and the fixture that brings up
// one sandboxed daemon per test.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lib/md5.h"
#include "tests/support/sandbox.h"
#include "tests/support/vesk_client.h"

namespace kolta_test {

using Args = std::vector<std::pair<std::string, std::string>>;

inline std::string request(const std::string& command, const Args& args = {}) {
  std::string r = "Request: " + command + "\r\n";
  for (const auto& [name, value] : args) r += name + ": " + value + "\r\n";
  return r + "\r\n";
}

inline const std::string kSuccess = "Reply: Success\r\n\r\n";

inline std::string fail(const std::string& reason) {
  return "Reply: Fail\r\nReason: " + reason + "\r\n\r\n";
}

inline std::string data(const std::string& body, const std::string& type = "text/plain") {
  return "Reply: Data\r\nContent-length: " + std::to_string(body.size()) +
         "\r\nContent-Type: " + type + "\r\n\r\n" + body;
}

// The MD5 signature of `bytes` in its text form.
inline std::string md5_text(const std::string& bytes, bool upper = true) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, bytes.data(), bytes.size());
  std::uint8_t digest[16];
  MD5Final(digest, &ctx);
  char text[33];
  for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, upper ? "%02X" : "%02x", digest[i]);
  return text;
}

// `n` pseudo-random bytes, the same for the same seed.
inline std::string random_bytes(std::size_t n, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

inline VeskClient connect_to(int port) {
  VeskClient c;
  EXPECT_TRUE(c.connect(port)) << "port " << port;
  return c;
}

// Starts a background process; its pid, or -1 unless the reply is exactly
// "PID=<pid>\n".
inline int start_process(VeskClient& c, const std::string& cmd, const std::string& args) {
  const std::string reply = c.ask(request("process_start", {{"cmd", cmd}, {"args", args}}));
  int pid = -1;
  const std::size_t at = reply.find("\r\n\r\nPID=");
  if (at == std::string::npos || std::sscanf(reply.c_str() + at + 8, "%d", &pid) != 1 ||
      reply != data("PID=" + std::to_string(pid) + "\n"))
    return -1;
  return pid;
}

// The state reply of a finished process.
inline std::string state(const std::string& name, int code, const std::string& cmd,
                         const std::string& args) {
  return data("STATE=" + name + "\nEXITCODE=" + std::to_string(code) + "\nMSG=\nCMD=" + cmd +
              "\nARGS=" + args + "\n");
}

// Polls the state until the process no longer runs; the last reply.
inline std::string final_state(VeskClient& c, int pid) {
  std::string reply;
  for (int i = 0; i < 300; ++i) {
    reply = c.ask(request("process_getState", {{"pid", std::to_string(pid)}}));
    if (reply.find("\r\n\r\nSTATE=RUNNING\n") == std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  return reply;
}

// One sandboxed daemon with the default configuration; skips without root.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KOLTA_REQUIRE_SANDBOX();
    ASSERT_TRUE(sb_.start()) << sb_.error();
  }

  VeskClient connect() { return connect_to(sb_.port()); }
  bool exists(const std::string& path) const { return std::filesystem::exists(sb_.path(path)); }

  // Writes `text` to `path` as the daemon sees it.
  void write_file(const std::string& path, const std::string& text, mode_t mode = 0644) {
    const std::string host = sb_.path(path);
    std::ofstream(host, std::ios::binary) << text;
    ASSERT_EQ(::chmod(host.c_str(), mode), 0) << host;
  }
  void script(const std::string& path, const std::string& text) {
    write_file(path, "#!/bin/sh\n" + text, 0755);
  }

  Sandbox sb_;
};

}  // namespace kolta_test

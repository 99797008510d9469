// The whole request path of a connection worker (header, dispatch, body,
// reply) over a socket pair, request after request, from arbitrary bytes.
// Commands that start programs or touch the device are replaced by stubs
// that answer in the same forms; file commands work on in-memory files.
// Every reply that comes back must be well-formed, and a Data reply must
// carry exactly its Content-length unless the connection ends after it.
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "commands/files.h"
#include "commands/output_fetch.h"
#include "commands/setup.h"
#include "lib/bounded.h"
#include "lib/split_args.h"
#include "fuzz/fed_socket.h"
#include "lib/unique_fd.h"
#include "protocol/stream.h"
#include "server/dispatcher.h"
#include "server/worker.h"
#include "server/worker_process.h"

namespace {

constexpr std::size_t kMaxInput = 4096;  // keeps all replies within the socket buffer
std::jmp_buf g_worker_end;
bool g_worker_ended;

// In-memory files standing in for the device's.
std::string g_get_file, g_put_file, g_output_file;

std::string memory_file(const char* name, std::string_view content) {
  int fd = memfd_create(name, 0);
  if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    __builtin_trap();
  }
  return "/proc/self/fd/" + std::to_string(fd);
}

// Points every "file" argument of the request at a file of the harness.
void redirect_files(vesk_request* request, const std::string& path) {
  for (int i = 0; i < kHeaderPairs && request->header.names[i][0] != '\0'; ++i) {
    if (strcasecmp(request->header.names[i], "file") == 0) {
      bounded_copy(request->header.values[i], path);
    }
  }
}

// getFile: the first character of "file" picks a regular file, a file
// without a reported size, a directory, a device or nothing.
const char* pick_get_target(const vesk_request* request) {
  char file[kArgumentSize] = {};
  svr_GetArgument(request, "file", file);
  switch (static_cast<unsigned char>(file[0]) % 5) {
    case 0: return g_get_file.c_str();
    case 1: return "/proc/version";
    case 2: return "/proc/self";
    case 3: return "/dev/null";
    default: return "/nonexistent/kolta-fuzz";
  }
}

char g_stub_text[1024];

// Starting a program: splits its arguments as a launch would and answers
// with the words.
int stub_program(vesk_request* request, resp_obj* resp) {
  char cmd[kArgumentSize];
  char args[kArgumentSize] = {};
  if (svr_GetArgument(request, "cmd", cmd) == 0) return reply_fail(resp, "Error: argument 'cmd' required !");
  svr_GetArgument(request, "args", args);
  char* argv[kMaxArgumentWords + 2] = {};
  argv[0] = cmd;
  int n = split_arguments(args, std::span<char*>(argv + 1, kMaxArgumentWords));
  g_stub_text[0] = '\0';
  for (int i = 0; i <= n; ++i) {
    bounded_append(g_stub_text, argv[i]);
    bounded_append(g_stub_text, "|");
  }
  reply_text(resp, g_stub_text);
  return 1;
}

// A reader that yields "have" bytes in all while "size" bytes are announced.
long long g_reader_left;
int lying_reader(std::intptr_t /*ctx*/, char* buf, int size) {
  if (size <= 0 || g_reader_left <= 0) return 0;
  int n = g_reader_left < size ? static_cast<int>(g_reader_left) : size;
  std::memset(buf, 'r', static_cast<std::size_t>(n));
  g_reader_left -= n;
  return n;
}

int stub_process_output(vesk_request* request, resp_obj* resp) {
  char size[kArgumentSize] = {}, have[kArgumentSize] = {};
  svr_GetArgument(request, "size", size);
  svr_GetArgument(request, "have", have);
  long long announced = 0;
  std::sscanf(size, "%lld", &announced);
  std::sscanf(have, "%lld", &g_reader_left);
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "text/plain");
  resp->data.ptr = nullptr;
  resp->data.size = announced < 0 ? 0 : announced % 8192;
  g_reader_left %= 8192;
  resp->reader = lying_reader;
  return 1;
}

char g_fetch_buffer[kOutputFetchMax + 1];

int fuzz_dispatcher(vesk_request* request, resp_obj* resp) {
  const std::string_view name(request->command, bounded_length(request->command));
  auto is = [&](const char* command) {
    return name.size() == std::strlen(command) && strncasecmp(command, name.data(), name.size()) == 0;
  };
  if (is("system") || is("execute") || is("process_start")) return stub_program(request, resp);
  if (is("process_stop") || is("process_getState") || is("process_getDetails")) {
    return stub_process_output(request, resp);
  }
  if (is("reboot") || is("shutdown") || is("exitapp")) return reply_fail(resp, "stubbed"), 0;
  if (is("system_getDetails") || is("execute_getDetails")) {
    resp->type = kReplySuccess;
    return fetch_output(request, resp, {g_output_file.c_str(), "/nonexistent/kolta-fuzz"}, 768,
                        g_fetch_buffer);
  }
  if (is("getFile")) redirect_files(request, pick_get_target(request));
  if (is("putFile")) redirect_files(request, g_put_file);
  if (is("remFile")) redirect_files(request, "/nonexistent/kolta-fuzz");
  return cmd_dispatcher(request, resp);
}

// Reads everything the worker sent.
std::string drain(int fd) {
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n <= 0) return out;
    out.append(buf, static_cast<std::size_t>(n));
  }
}

// Checks the reply stream: well-formed headers, and Data bodies of exactly
// their length (a longer one would break the next header); only the last
// Data reply may be short.
void check_replies(std::string_view s) {
  while (!s.empty()) {
    std::size_t end = s.find("\r\n\r\n");
    if (end == std::string_view::npos) __builtin_trap();
    std::string_view header = s.substr(0, end);
    s.remove_prefix(end + 4);
    if (header == "Reply: Success") continue;
    if (header.starts_with("Reply: Fail\r\nReason: ")) {
      if (header.size() - 21 >= static_cast<std::size_t>(kReplyTextSize)) __builtin_trap();
      continue;
    }
    unsigned long long length = 0;
    if (!header.starts_with("Reply: Data\r\nContent-length: ") ||
        std::sscanf(std::string(header.substr(29)).c_str(), "%llu", &length) != 1) {
      __builtin_trap();
    }
    if (length > s.size()) return;  // a reader that ended early: the connection ended here
    s.remove_prefix(length);
  }
}

}  // namespace

// The worker's ways out return to the harness instead of ending the process.
void end_worker(int /*status*/) {
  g_worker_ended = true;
  std::longjmp(g_worker_end, 1);
}
void broken_connection() { __builtin_trap(); }  // the harness's end never breaks
void pause_before_data_body() {}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  std::signal(SIGPIPE, SIG_IGN);
  g_get_file = memory_file("get", std::string(3000, 'g'));
  g_put_file = memory_file("put", "");
  g_output_file = memory_file("output", "captured output\n");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > kMaxInput) return 0;
  fed_socket input;
  if (!input.feed(data, size)) return 0;
  init_kolta();
  g_worker_ended = false;
  if (setjmp(g_worker_end) == 0) serve_connection(input.reader.get(), fuzz_dispatcher, 0);
  if (gFp != nullptr) {
    std::fclose(gFp);
    gFp = nullptr;
  }
  input.reader.reset();
  check_replies(drain(input.peer.get()));
  return 0;
}

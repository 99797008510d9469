#include "commands/shell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "commands/output_fetch.h"
#include "commands/setup.h"
#include "lib/bounded.h"
#include "lib/planted_link.h"
#include "lib/system_texts.h"

int gLastRC = 0;

namespace {

constexpr std::size_t kStdoutReplyMax = 8192;
constexpr char kCannotOpenStdout[] = "FATAL cannot open STDOUT";

char gcBuf[kOutputFetchMax + 1];
char g_command_buffer[kStdoutReplyMax];

}  // namespace

int system_fn(vesk_request* request, resp_obj* resp) {
  char cmd[kArgumentSize];
  if (svr_GetArgument(request, "cmd", cmd) == 0) return reply_fail(resp, "Error: argument 'cmd' required !");
  gLastRC = 0;
  char line[256];
  if (!bounded_format(line, "%s 2>|%s >|%s", cmd, kSystemStderrFile, kSystemStdoutFile)) {
    return reply_fail(resp, "Error: cmd to long!");
  }
  std::printf("%d: Call: [%s]\n", getpid(), line);
  std::fflush(stdout);
  // The shell's redirections would follow a link planted at either name.
  remove_planted_link(kSystemStderrFile);
  remove_planted_link(kSystemStdoutFile);
  gLastRC = std::system(line);

  if (gLastRC == -1) return reply_fail(resp, error_text(errno));
  if (gLastRC != 0) {
    reply_fail(resp, "Modul returned with error");
    int n = read_output_file(kSystemStderrFile, gcBuf, kOutputFetchMax);
    if (n >= 0) {
      resp->data.ptr = gcBuf;
      resp->data.size = n;
      std::printf("%d: STDERR:\n[%s]\n", getpid(), gcBuf);
    }
    return 1;
  }
  if (gSetup.exec_type == kExecRod) {
    resp->type = kReplySuccess;
    return 1;
  }
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "text/plain");
  resp->data.ptr = g_command_buffer;
  int n = read_output_file(kSystemStdoutFile, g_command_buffer, kStdoutReplyMax);
  if (n < 0) {
    bounded_copy(g_command_buffer, kCannotOpenStdout);
    n = sizeof kCannotOpenStdout - 1;
  }
  resp->data.size = n;
  return 1;
}

int system_getDetails_fn(vesk_request* request, resp_obj* resp) {
  return fetch_output(request, resp, {kSystemStdoutFile, kSystemStderrFile}, gLastRC, gcBuf);
}

#include "procman/process_commands.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/unique_fd.h"
#include "procman/requests.h"
#include "protocol/stream.h"

namespace {

constexpr char kSearchPath[] = "/bin:/sbin:/usr/bin:/usr/sbin";

char g_start_text[256];
char g_stop_text[1024];
char g_state_text[2048];

// The output reader's context, owned by the reader once the reply is set.
struct pgd_ctx {
  FILE* fp;
  char file[kPmPathSize];
  std::int32_t pid;
  std::int32_t rp;
};

// Reads a number argument with "%d"; false when it is missing or empty.
bool int_argument(const vesk_request* request, const char* name, int* value) {
  char text[kArgumentSize];
  if (svr_GetArgument(request, name, text) == 0) return false;
  if (std::sscanf(text, "%d", value) != 1) *value = -1;
  return true;
}

// Only 0 and 1 pass: the flag is compared as an unsigned number.
bool valid_rp(int rp) { return static_cast<unsigned>(rp) <= 1; }

struct process_state {
  int state = 0;
  int exit_code = 0;
  char text[kPmTextSize] = {};
  char cmd_path[kPmPathSize] = {};
  char args[kPmPathSize] = {};
  char env_path[kPmEnvPathSize] = {};
  char stdout_file[kPmPathSize] = {};
  char stderr_file[kPmPathSize] = {};
};

// Asks the task for the record of `pid`; on failure sets the Fail reply.
bool query_state(int pid, process_state* s, resp_obj* resp) {
  if (pm_process_state(pid, &s->state, s->text, s->cmd_path, s->args, s->env_path, s->stdout_file,
                       s->stderr_file, &s->exit_code) == 0) {
    return true;
  }
  reply_fail_format(resp, "ERROR: cannot read process state ! ( %s )", s->text);
  return false;
}

}  // namespace

int process_start_fn(vesk_request* request, resp_obj* resp) {
  char cmd[kArgumentSize];
  char args[kArgumentSize];
  if (svr_GetArgument(request, "cmd", cmd) == 0) return reply_fail(resp, "Error: argument 'cmd' required !");
  if (svr_GetArgument(request, "args", args) == 0) {
    return reply_fail(resp, "Error: argument 'args' required !");
  }
  std::printf("PM::process_start cmd: [%s] args: [%s]\n", cmd, args);
  std::fflush(stdout);
  char err[kPmTextSize] = {};
  int pid = pm_launch_process(cmd, args, kSearchPath, err);
  if (pid < 1) return reply_fail(resp, err);
  bounded_format(g_start_text, "PID=%d\n", pid);
  reply_text(resp, g_start_text);
  return 1;
}

int process_stop_fn(vesk_request* request, resp_obj* resp) {
  int pid = 0;
  if (!int_argument(request, "pid", &pid)) return reply_fail(resp, "Error: argument 'pid' required !");
  int state = 0;
  int exit_code = 0;
  char text[kPmTextSize] = {};
  char stdout_file[kPmPathSize] = {};
  char stderr_file[kPmPathSize] = {};
  if (pm_kill_process(pid, &state, text, &exit_code, stdout_file, stderr_file) != 0) {
    reply_fail_format(resp, "ERROR: process_stop failed ! ( %s )", text);
    return 1;
  }
  bounded_format(g_stop_text, "STATE=%s\nEXITCODE=%d\nMSG=%s\n", state_name(state), exit_code, text);
  reply_text(resp, g_stop_text);
  return 1;
}

int process_getState_fn(vesk_request* request, resp_obj* resp) {
  int pid = 0;
  if (!int_argument(request, "pid", &pid)) return reply_fail(resp, "Error: argument 'pid' required !");
  process_state s;
  if (!query_state(pid, &s, resp)) return 1;
  int rp = 0;
  bool remove = int_argument(request, "rp", &rp);
  if (remove && !valid_rp(rp)) {
    return reply_fail(resp, "Error: optional argument 'rp' (remove process) must be 1|0 !");
  }
  bounded_format(g_state_text, "STATE=%s\nEXITCODE=%d\nMSG=%s\nCMD=%s\nARGS=%s\n",
                 state_name(s.state), s.exit_code, s.text, s.cmd_path, s.args);
  reply_text(resp, g_state_text);
  if (remove && rp == 1 && s.state != kStateRunning) pm_process_remove(pid);
  return 1;
}

int process_getDetails_fn(vesk_request* request, resp_obj* resp) {
  auto* ctx = static_cast<pgd_ctx*>(std::calloc(1, sizeof(pgd_ctx)));
  if (ctx == nullptr) return reply_fail(resp, "Fatal Error: no memory !");
  // Freed on every path that does not hand it to the reader.
  struct ctx_owner {
    pgd_ctx* p;
    ~ctx_owner() { std::free(p); }
  } owner{ctx};

  int pid = 0;
  int rp = 0;
  if (!int_argument(request, "pid", &pid)) return reply_fail(resp, "Error: argument 'pid' required !");
  if (!int_argument(request, "rp", &rp)) return reply_fail(resp, "Error: argument 'rp' (1|0) required !");
  if (!valid_rp(rp)) return reply_fail(resp, "Error: argument 'rp' must be 1|0 !");

  process_state s;
  if (!query_state(pid, &s, resp)) return 1;
  if (s.state == kStateRunning) {
    return reply_fail(resp, "ERROR: process must be stopped before reading its results !");
  }
  char src[kArgumentSize];
  svr_GetArgument(request, "src", src);
  const char* file = nullptr;
  if (strcasecmp(src, "STDOUT") == 0) {
    file = s.stdout_file;
  } else if (strcasecmp(src, "STDERR") == 0) {
    file = s.stderr_file;
  } else {
    return reply_fail(resp, "Parameter 'src': unknown Identifier");
  }
  if (access(file, R_OK) != 0) return reply_fail(resp, "cant' read output.");
  unique_file fp(std::fopen(file, "rb"));
  if (!fp) return reply_fail(resp, "SYSTEMERROR: File open error.");

  bounded_copy(ctx->file, file);
  ctx->pid = pid;
  ctx->rp = rp;
  ctx->fp = fp.release();
  owner.p = nullptr;
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "text/plain");
  resp->data.size = ffilelength(file);
  resp->data.ptr = nullptr;
  resp->reader = pgd_getf_grabber_cb;
  resp->reader_ctx = reinterpret_cast<std::intptr_t>(ctx);
  return 1;
}

int pgd_getf_grabber_cb(std::intptr_t ctx_word, char* buffer, int size) {
  auto* ctx = reinterpret_cast<pgd_ctx*>(ctx_word);
  if (ctx == nullptr) return 0;
  std::size_t n = size > 0 ? std::fread(buffer, 1, static_cast<std::size_t>(size), ctx->fp) : 0;
  if (n > 0) return static_cast<int>(n);
  std::fclose(ctx->fp);
  if (ctx->rp == 1) pm_process_remove(ctx->pid);
  std::free(ctx);
  return 0;
}

int process_list_fn(vesk_request* /*request*/, resp_obj* resp) {
  reply_fail(resp, "not implemented in the moment !");
  return 0;
}

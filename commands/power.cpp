#include "commands/power.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "lib/bounded.h"

namespace {

char g_shutdown_text[] = "SH_TIME=15";
char g_exitapp_text[] = "SH_TIME=2";

}  // namespace

int coldstart_cb() {
  std::printf("%d: Coldstart CB\n", getpid());
  std::fflush(stdout);
  std::system("sync");
  return std::system("/sbin/shutdown -r now");
}

int warmstart_cb() {
  std::printf("%d: Warmstart CB\n", getpid());
  std::fflush(stdout);
  return std::system("/sbin/init 6");
}

int reboot_fn(vesk_request* request, resp_obj* resp) {
  char mode[kArgumentSize];
  if (svr_GetArgument(request, "mode", mode) == 0) return reply_fail(resp, "need mode parameter warm|cold");
  if (std::strcmp(mode, "warm") == 0) {
    warmstart_cb();
  } else if (std::strcmp(mode, "cold") == 0) {
    coldstart_cb();
  } else {
    reply_fail_format(resp, "unknown 'mode' = '%s'", mode);
    return 1;
  }
  resp->type = kReplySuccess;
  return 0;
}

int shutdown_fn(vesk_request* /*request*/, resp_obj* resp) {
  std::printf("%d: SHUTDOWN Initiated. - Please dont do anything now.\n", getpid());
  std::fflush(stdout);
  reply_text(resp, g_shutdown_text);
  std::system("shutdown -h +0 &");
  return 0;
}

int exitapp_fn(vesk_request* /*request*/, resp_obj* resp) {
  std::printf("%d: Quitting KOLTA.\n", getpid());
  std::fflush(stdout);
  reply_text(resp, g_exitapp_text);
  killpg(getpgid(getpid()), SIGTERM);
  return 0;
}

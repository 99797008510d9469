#include "commands/info.h"

#include <cstdio>
#include <sys/utsname.h>
#include <unistd.h>

#include "lib/bounded.h"

namespace {

utsname g_uname;
char g_version_text[512];

}  // namespace

int test_fn(vesk_request* /*request*/, resp_obj* resp) {
  resp->type = kReplySuccess;
  return 0;
}

int version_fn(vesk_request* /*request*/, resp_obj* resp) {
  std::printf("%d: VERSION Checked.\n", getpid());
  uname(&g_uname);
  bounded_format(g_version_text,
                 "DEVICE=%s\nVERSION_SW=%s\nVERSION_HW=%s\nOS=%s\nOS_VERSION=%s\n"
                 "DELAYED_TX_DATA=%s\nEXEC_MODE=%s\n",
                 "KOLTA", "05.00", "00.00", "LINUX", g_uname.release, "OFF", "S");
  reply_text(resp, g_version_text);
  return 1;
}

int getCap_fn(vesk_request* /*request*/, resp_obj* resp) {
  reply_fail(resp, "not implemented in the moment !");
  return 0;
}

int exec_exclusive_prepare_fn(vesk_request* request, resp_obj* resp) {
  return getCap_fn(request, resp);
}

int exec_exclusive_fn(vesk_request* request, resp_obj* resp) { return getCap_fn(request, resp); }

int exec_exclusive_getDetails_fn(vesk_request* request, resp_obj* resp) {
  return getCap_fn(request, resp);
}

const char* getOS() {
  uname(&g_uname);
  return g_uname.release;
}

#include "commands/settings.h"

#include <cstdio>
#include <cstring>

#include "commands/setup.h"
#include "lib/bounded.h"

namespace {

// exec_type n is names[n]; LoadMethode n is names[n + 2].
constexpr const char* kSettingNames[] = {"rod", "rmd", "lod", "none", "lod+"};

char g_setup_text[1024];

// Fail "unknown '<name>' = '<value>'".
int refuse(resp_obj* resp, const char* name, const char* value) {
  reply_fail_format(resp, "unknown '%s' = '%s'", name, value);
  return 1;
}

// Index of `value` among names[first .. first + count), or -1.
int setting_index(const char* value, int first, int count) {
  for (int i = 0; i < count; ++i) {
    if (std::strcmp(value, kSettingNames[first + i]) == 0) return i;
  }
  return -1;
}

}  // namespace

int server_setup_fn(vesk_request* request, resp_obj* resp) {
  char value[kArgumentSize];
  if (svr_GetArgument(request, "LoadMethode", value) != 0) {
    int method = setting_index(value, 2, 3);
    if (method < 0) return refuse(resp, "LoadMethode", value);
    gSetup.LoadMethode = method;
  }
  if (svr_GetArgument(request, "lod_server_ip", value) != 0) {
    bounded_copy(gSetup.lod_server_ip, value);
  }
  if (svr_GetArgument(request, "lod_server_port", value) != 0) {
    long port = 0;
    // Values beyond 16 bits wrap.
    if (std::sscanf(value, "%ld", &port) == 1) {
      gSetup.lod_server_port = static_cast<std::uint16_t>(static_cast<unsigned long>(port));
    }
    if (gSetup.lod_server_port == 0) return reply_fail(resp, "portnumber out of range");
  }
  if (svr_GetArgument(request, "exec_type", value) != 0) {
    int type = setting_index(value, 0, 2);
    if (type < 0) return refuse(resp, "exec_type", value);
    gSetup.exec_type = type;
  }

  const int method = gSetup.LoadMethode >= 0 && gSetup.LoadMethode <= 2 ? gSetup.LoadMethode : 1;
  const int type = gSetup.exec_type == kExecRod ? 0 : 1;
  bounded_format(g_setup_text, "LoadMethode=%s\nlod_server_ip=%s\nlod_server_port=%d\nexec_type=%s\n",
                 kSettingNames[method + 2], gSetup.lod_server_ip,
                 static_cast<int>(gSetup.lod_server_port), kSettingNames[type]);
  reply_text(resp, g_setup_text);
  return 1;
}

int server_reset_fn(vesk_request* /*request*/, resp_obj* resp) {
  init_kolta();
  resp->type = kReplySuccess;
  return 0;
}

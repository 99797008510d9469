#include "server/dispatcher.h"

#include <cstdio>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "server/command_table.h"
#include "server/worker_process.h"

namespace {

constexpr char kHelpText[] = "KOLTA VESK help";
static_assert(sizeof kHelpText - 1 == 15);

char g_help_buffer[sizeof kHelpText];

}  // namespace

void end_worker_without_reply(const char* why) {
  std::fflush(stdout);
  std::fprintf(stderr, "VESK_S: pid=%d %s: connection dropped without reply\n", getpid(), why);
  end_worker(1);
}

int cmd_dispatcher(vesk_request* request, resp_obj* resp) {
  std::printf("KOLTA pid=%d Incoming Request: [%s]\n", getpid(), request->command);
  const std::size_t len = bounded_length(request->command);
  const command_entry* found = nullptr;
  for (const command_entry* e = cmd_table; e->name != nullptr; ++e) {
    resp->type = kReplySuccess;
    resp->text[0] = '\0';
    if (std::strlen(e->name) == len && strncasecmp(e->name, request->command, len) == 0) {
      found = e;
      break;
    }
  }
  if (found == nullptr) {
    if (!reply_fail_format(resp, "`%s' illegal command", request->command)) {
      end_worker_without_reply("command name too long for its reply");
    }
    return 0;
  }
  if (found->handler == nullptr) {
    reply_fail_format(resp, "`%s' not implemented at the moment", found->name);
    return 0;
  }
  return found->handler(request, resp);
}

int help_fn(vesk_request* /*request*/, resp_obj* resp) {
  std::memcpy(g_help_buffer, kHelpText, sizeof kHelpText);
  reply_text(resp, g_help_buffer);
  return 1;
}

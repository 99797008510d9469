#include "commands/output_fetch.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/unique_fd.h"

int read_output_file(const char* path, std::span<char> buffer, std::size_t max) {
  std::size_t limit = max < buffer.size() ? max : buffer.size();
  std::memset(buffer.data(), 0, limit);
  unique_fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.ok()) return -1;
  unique_file fp(fdopen(fd.get(), "rb"));
  if (!fp) return -1;
  fd.release();
  return static_cast<int>(std::fread(buffer.data(), 1, limit, fp.get()));
}

int fetch_output(const vesk_request* request, resp_obj* resp, const output_files& files, int rc,
                 std::span<char> buffer) {
  char src[kArgumentSize];
  svr_GetArgument(request, "src", src);

  if (strcasecmp(src, "RC") == 0) {
    bounded_format(buffer, "%d", rc);
    bounded_copy(resp->content_type, "text/plain");
    resp->type = kReplyData;
    resp->data.ptr = buffer.data();
    resp->data.size = static_cast<std::int32_t>(bounded_length(buffer));
    return 1;
  }

  const bool out = strcasecmp(src, "STDOUT") == 0;
  if (!out && strcasecmp(src, "STDERR") != 0) return reply_fail(resp, "Parameter 'src': unknown Identifier");
  const char* path = out ? files.stdout_file : files.stderr_file;
  int n = read_output_file(path, buffer, kOutputFetchMax);
  if (n < 0) return reply_fail(resp, out ? "unable to open stdout" : "unable to open stderr");
  unlink(path);
  bounded_copy(resp->content_type, out ? "text/plain" : "text/ascii");
  resp->type = kReplyData;
  resp->data.ptr = buffer.data();
  resp->data.size = n;
  return 1;
}

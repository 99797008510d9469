#include "cli/remote_files.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/output.h"
#include "cli/progress.h"
#include "lib/md5.h"
#include "lib/unique_fd.h"
#include "lib/system_texts.h"

std::string md5_text(const std::uint8_t (&digest)[16]) {
  char text[33];
  md5_sig_text(digest, text);
  return text;
}

std::string md5_text(std::string_view bytes) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, bytes.data(), bytes.size());
  std::uint8_t digest[16];
  MD5Final(digest, &ctx);
  return md5_text(digest);
}

bool upload_text(device& dev, const std::string& remote, std::string_view content) {
  unique_fd body(::memfd_create("kolta-upload", MFD_CLOEXEC));
  if (!body.ok() || !write_all(body.get(), content) || ::lseek(body.get(), 0, SEEK_SET) != 0) {
    dev.report(std::string("cannot prepare an upload: ") + error_text(errno), 1);
    return false;
  }
  std::string signature = md5_text(content);
  std::string length = std::to_string(content.size());
  vesk_c_reply reply;
  return dev.request_with_body("putFile",
                               {{"file", remote.c_str()},
                                {"md5_sig", signature.c_str()},
                                {"content-length", length.c_str()}},
                               body.get(), content.size(), &reply);
}

bool fetch_to_fd(device& dev, const std::string& remote, int fd, transfer_progress* progress,
                 std::string* fail_reason) {
  vesk_c_pair args[] = {{"file", remote.c_str()}};
  vesk_c_reply reply;
  if (!dev.exchange("getFile", args, 1, &reply)) return false;
  if (reply.kind == vesk_c_reply_kind::fail) {
    if (fail_reason != nullptr) {
      *fail_reason = reply.reason;
    } else {
      dev.report_fail("getFile", reply);
    }
    return false;
  }
  if (progress != nullptr) progress_start(progress, reply.content_length);
  std::fflush(stdout);
  return dev.read_body_to_fd(reply, fd, progress);
}

void remove_quietly(device& dev, const std::string& remote) {
  dev.tidy_up();
  vesk_c_pair args[] = {{"file", remote.c_str()}};
  vesk_c_reply reply;
  dev.exchange("remFile", args, 1, &reply);
}

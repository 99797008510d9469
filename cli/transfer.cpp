#include "cli/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/mman.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "cli/exit_status.h"
#include "cli/progress.h"
#include "cli/remote_files.h"
#include "cli/shell_words.h"
#include "lib/md5.h"
#include "lib/unique_fd.h"
#include "lib/system_texts.h"

namespace {

// The longest "cmd" the daemon's shell command accepts.
constexpr std::size_t kLongestShellCommand = 127;

bool is_hex_signature(std::string_view text) {
  if (text.size() < 32) return false;
  for (char c : text.substr(0, 32))
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// The signature of the device's copy, computed by its md5sum; empty when
// the device cannot tell (no md5sum, or a path too long for a command).
std::string remote_md5sum(device& dev, const std::string& remote) {
  std::string result = "/tmp/kolta-cli-" + random_name() + ".md5";
  std::string path = remote.empty() || remote[0] == '-' ? "./" + remote : remote;
  std::string line = "md5sum " + shell_quote(path) + " >" + result + ";exit $?";
  if (line.size() > kLongestShellCommand) return {};
  vesk_c_pair args[] = {{"cmd", line.c_str()}};
  vesk_c_reply reply;
  if (!dev.exchange("system", args, 1, &reply)) return {};
  std::string ignored;
  if (!dev.read_body(reply, &ignored)) return {};
  std::string sum;
  if (reply.kind != vesk_c_reply_kind::fail) {
    unique_fd memo(::memfd_create("kolta-md5", MFD_CLOEXEC));
    std::string reason;
    if (memo.ok() && fetch_to_fd(dev, result, memo.get(), nullptr, &reason)) {
      char text[33] = {};
      if (::pread(memo.get(), text, 32, 0) == 32 && is_hex_signature(text)) sum = upper(text);
    }
  }
  remove_quietly(dev, result);
  return sum;
}

bool add_to_digest(void* ctx, const char* data, std::size_t length) {
  MD5Update(static_cast<md5_context*>(ctx), data, length);
  return true;
}

// The signature of the device's copy, read back and hashed as it arrives.
std::string read_back_md5(device& dev, const std::string& remote) {
  vesk_c_reply reply;
  if (!dev.request("getFile", {{"file", remote.c_str()}}, &reply)) return {};
  md5_context ctx;
  MD5Init(&ctx);
  transfer_progress progress;
  progress_start(&progress, reply.content_length);
  if (!dev.read_body_to_sink(reply, add_to_digest, &ctx, &progress)) return {};
  std::uint8_t digest[16];
  MD5Final(digest, &ctx);
  return md5_text(digest);
}

// The last component of `path`, trailing slashes ignored.
std::string base_name(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

}  // namespace

std::string local_name_for(const std::string& remote, const std::string& local) {
  if (local.empty()) return base_name(remote);
  struct stat st{};
  if (::stat(local.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    return local + (local.back() == '/' ? "" : "/") + base_name(remote);
  return local;
}

int put_file(device& dev, const std::string& local, const std::string& remote) {
  unique_fd file(::open(local.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st{};
  if (!file.ok() || ::fstat(file.get(), &st) != 0) {
    dev.report("cannot read " + local + ": " + error_text(errno), kExitFail);
    return dev.status();
  }
  if (!S_ISREG(st.st_mode)) {
    dev.report("cannot send " + local + ": not a regular file", kExitUsage);
    return dev.status();
  }
  std::uint8_t digest[16];
  if (get_file_md5(local.c_str(), digest) != 0) {
    dev.report("cannot read " + local + ": " + error_text(errno), kExitFail);
    return dev.status();
  }
  std::string signature = md5_text(digest);
  auto size = static_cast<std::uint64_t>(st.st_size);
  std::string length = std::to_string(size);
  transfer_progress progress;
  progress_start(&progress, size);
  vesk_c_reply reply;
  if (!dev.request_with_body("putFile",
                             {{"file", remote.c_str()},
                              {"md5_sig", signature.c_str()},
                              {"content-length", length.c_str()}},
                             file.get(), size, &reply, &progress))
    return dev.status();
  std::string ignored;
  if (!dev.read_body(reply, &ignored)) return dev.status();

  // The daemon only logs the two signatures: compare them here.
  std::string copy = remote_md5sum(dev, remote);
  if (copy.empty() && dev.status() == 0) copy = read_back_md5(dev, remote);
  if (dev.status() != 0) return dev.status();
  if (copy != signature)
    dev.report(endpoint_text(dev.where()) + ": the copy at " + remote + " differs from " + local +
                   " (MD5 " + copy + ", expected " + signature + "): send it again",
               kExitCheck);
  return dev.status();
}

int get_file(device& dev, const std::string& remote, const std::string& local) {
  transfer_progress progress;
  if (local == "-") {
    fetch_to_fd(dev, remote, STDOUT_FILENO, nullptr);
    return dev.status();
  }
  std::string target = local_name_for(remote, local);
  std::string partial = target + ".kolta-part-" + random_name().substr(0, 8);
  unique_fd out(::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!out.ok()) {
    dev.report("cannot write " + partial + ": " + error_text(errno), kExitFail);
    return dev.status();
  }
  bool ok = fetch_to_fd(dev, remote, out.get(), &progress);
  if (ok && ::close(out.release()) != 0) {
    dev.report("cannot write " + partial + ": " + error_text(errno), kExitFail);
    ok = false;
  }
  if (ok && ::rename(partial.c_str(), target.c_str()) != 0) {
    dev.report("cannot rename " + partial + " to " + target + ": " + error_text(errno),
               kExitFail);
    ok = false;
  }
  if (!ok) ::unlink(partial.c_str());
  return dev.status();
}

int remove_file(device& dev, const std::string& remote) {
  dev.call("remFile", {{"file", remote.c_str()}});
  return dev.status();
}

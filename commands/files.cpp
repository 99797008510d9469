#include "commands/files.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/md5.h"
#include "lib/unique_fd.h"
#include "lib/system_texts.h"

std::FILE* gFp = nullptr;

namespace {

constexpr std::size_t kFileBufferSize = 64 * 1024;

// "sending block [<n>]", one line for every block of every download: put
// together by hand rather than through printf.
void print_sending_block(int n) {
  char line[40] = "sending block [";
  char* p = std::to_chars(line + 15, line + sizeof line - 2, n).ptr;
  *p++ = ']';
  *p++ = '\n';
  std::fwrite(line, 1, static_cast<std::size_t>(p - line), stdout);
}

// The "putFile" being stored: its path, and the first write error if any.
struct put_transfer {
  bool open = false;
  bool regular = false;  // only a regular file is removed when incomplete
  char path[kArgumentSize] = {};
  char error[kWriterErrorSize] = {};
};
put_transfer g_put;

// The most of a file without a reported size that "getFile" sends.
constexpr std::size_t kUnsizedFileMax = 1024 * 1024;
char g_unsized_file[kUnsizedFileMax];

void close_transfer_file() {
  if (gFp != nullptr && std::fclose(gFp) != 0 && g_put.open && g_put.error[0] == '\0') {
    bounded_format(g_put.error, "write error: %s", error_text(errno));
  }
  gFp = nullptr;
}

// Ends the stored file: removes it when it is incomplete.
void finish_put(bool keep) {
  close_transfer_file();
  if (!keep && g_put.regular) unlink(g_put.path);
  g_put.open = false;
}

}  // namespace

int getFile_fn(vesk_request* request, resp_obj* resp) {
  char file[kArgumentSize];
  if (svr_GetArgument(request, "file", file) == 0) return reply_fail(resp, "Error: argument 'file' required !");
  std::printf("getFile: [%s]\n", file);
  if (access(file, R_OK) != 0) return reply_fail(resp, "File not found.");
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "file/binary");
  resp->reader = getf_grabber_cb;
  resp->data.ptr = nullptr;

  // Opening never blocks (a FIFO without a writer would), and only a regular
  // file is sent: a directory, FIFO, socket or device has no length to announce.
  unique_fd fd(open(file, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat st {};
  if (!fd.ok() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return reply_fail(resp, "File open error.");
  }
  fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  resp->data.size = static_cast<std::int64_t>(st.st_size);
  gFp = fdopen(fd.get(), "rb");
  if (gFp == nullptr) return reply_fail(resp, "File open error.");
  fd.release();
  std::setvbuf(gFp, nullptr, _IOFBF, kFileBufferSize);  // large reads under the 2048-byte blocks

  // A file that reports no size but has content (the /proc and /sys kind)
  // is read whole first, so that its true size can be announced.
  if (st.st_size == 0) {
    std::size_t n = std::fread(g_unsized_file, 1, sizeof g_unsized_file, gFp);
    if (n > 0) {
      std::fclose(gFp);
      gFp = nullptr;
      resp->data.ptr = g_unsized_file;
      resp->data.size = static_cast<std::int64_t>(n);
    }
  }
  return 1;
}

int getf_grabber_cb(std::intptr_t /*ctx*/, char* buffer, int size) {
  if (gFp == nullptr) return 0;
  std::size_t n = size > 0 ? std::fread(buffer, 1, static_cast<std::size_t>(size), gFp) : 0;
  if (n > 0) {
    print_sending_block(static_cast<int>(n));
    return static_cast<int>(n);
  }
  std::printf("Done.\n");
  std::fclose(gFp);
  gFp = nullptr;
  return 0;
}

int putFile_fn(vesk_request* request, resp_obj* resp) {
  // The body that follows is always received, and discarded when the
  // request fails, so that the connection stays usable.
  resp->rx_pending = 1;
  resp->writer = putf_writer_cb;
  char file[kArgumentSize];
  char md5_sig[kArgumentSize];
  if (svr_GetArgument(request, "file", file) == 0) return reply_fail(resp, "Error: argument 'file' required !");
  if (svr_GetArgument(request, "md5_sig", md5_sig) == 0) {
    return reply_fail(resp, "Error: argument 'md5_sig' required !");
  }
  if (text2md5sig(md5_sig, last_md5_signature) != 0) {
    return reply_fail(resp, "Error: argument 'md5_sig' invalid format !");
  }
  MD5Init(&gMD5_context);
  std::printf("putFile: [%s]\n", file);
  gFp = std::fopen(file, "wb");
  if (gFp == nullptr) return reply_fail(resp, "file open error !");
  std::setvbuf(gFp, nullptr, _IOFBF, kFileBufferSize);  // large writes under the 513-byte blocks
  g_put = put_transfer{};
  g_put.open = true;
  struct stat st {};
  g_put.regular = fstat(fileno(gFp), &st) == 0 && S_ISREG(st.st_mode);
  bounded_copy(g_put.path, file);
  return 1;
}

int putf_writer_cb(int operation, const char* buffer, int length, char* error_text, int error_size) {
  std::span<char> error(error_text, error_size > 0 ? static_cast<std::size_t>(error_size) : 0);
  switch (operation) {
    case kWriteBlock:
      if (gFp != nullptr && g_put.error[0] == '\0' && length > 0 &&
          std::fwrite(buffer, 1, static_cast<std::size_t>(length), gFp) !=
              static_cast<std::size_t>(length)) {
        bounded_format(g_put.error, "write error: %s", ::error_text(errno));
      }
      if (length > 0) MD5Update(&gMD5_context, buffer, static_cast<std::size_t>(length));
      break;
    case kWriteEnd:
      close_transfer_file();
      MD5Final(md5_signature, &gMD5_context);
      std::printf("Data Ready.\n");
      std::printf("Soll: ");
      print_md5_sig(stdout, last_md5_signature);
      std::printf("Ist: ");
      print_md5_sig(stdout, md5_signature);
      if (g_put.open && g_put.error[0] != '\0') {
        bounded_copy(error, g_put.error);
        finish_put(false);
        return 1;
      }
      g_put.open = false;
      break;
    default:
      // A body that is not to be kept: a transfer it interrupted is removed.
      if (g_put.open) finish_put(false);
      break;
  }
  return 0;
}

int remFile_fn(vesk_request* request, resp_obj* resp) {
  char file[kArgumentSize] = {};
  if (svr_GetArgument(request, "file", file) == 0) return reply_fail(resp, "Error: argument 'file' required !");
  if (access(file, R_OK) != 0) return reply_fail(resp, "File not found.");
  if (unlink(file) != 0) return reply_fail(resp, "can't remove error.");
  resp->type = kReplySuccess;
  return 1;
}

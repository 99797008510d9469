#include "commands/files.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/md5.h"

std::FILE* gFp = nullptr;

namespace {

// The "putFile" being stored: its path, and the first write error if any.
struct put_transfer {
  bool open = false;
  bool regular = false;  // only a regular file is removed when incomplete
  char path[kArgumentSize] = {};
  char error[kWriterErrorSize] = {};
};
put_transfer g_put;

void close_transfer_file() {
  if (gFp != nullptr && std::fclose(gFp) != 0 && g_put.open && g_put.error[0] == '\0') {
    bounded_format(g_put.error, "write error: %s", std::strerror(errno));
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
  struct stat st {};
  stat(file, &st);
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "file/binary");
  resp->reader = getf_grabber_cb;
  resp->data.size = static_cast<std::int32_t>(st.st_size);
  resp->data.ptr = nullptr;
  gFp = std::fopen(file, "rb");
  if (gFp == nullptr) return reply_fail(resp, "File open error.");
  return 1;
}

int getf_grabber_cb(std::intptr_t /*ctx*/, char* buffer, int size) {
  if (gFp == nullptr || size <= 0) return 0;
  std::size_t n = std::fread(buffer, 1, static_cast<std::size_t>(size), gFp);
  if (n > 0) {
    std::printf("sending block [%d]\n", static_cast<int>(n));
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
        bounded_format(g_put.error, "write error: %s", std::strerror(errno));
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

#include "cli/device_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <vector>

#include "cli/exit_status.h"
#include "cli/output.h"
#include "lib/unique_fd.h"
#include "lib/system_texts.h"

namespace {

// The names and values of "name=value" words.
std::vector<vesk_c_pair> pairs_of(std::span<const std::string> words,
                                  std::vector<std::string>* storage) {
  storage->clear();
  storage->reserve(words.size() * 2);
  for (const std::string& w : words) {
    std::size_t eq = w.find('=');
    storage->push_back(w.substr(0, eq));
    storage->push_back(eq == std::string::npos ? std::string() : w.substr(eq + 1));
  }
  std::vector<vesk_c_pair> pairs;
  for (std::size_t i = 0; i < storage->size(); i += 2)
    pairs.push_back({(*storage)[i].c_str(), (*storage)[i + 1].c_str()});
  return pairs;
}

}  // namespace

int check_alive(device& dev) {
  dev.call("test", {});
  return dev.status();
}

int show_version(device& dev) {
  std::string body;
  if (dev.call("version", {}, &body)) print_text(body);
  return dev.status();
}

int change_settings(device& dev, std::span<const std::string> settings) {
  std::vector<std::string> storage;
  std::vector<vesk_c_pair> pairs = pairs_of(settings, &storage);
  vesk_c_reply reply;
  if (!dev.exchange("server_setup", pairs.data(), pairs.size(), &reply)) return dev.status();
  if (reply.kind == vesk_c_reply_kind::fail) {
    dev.report_fail("server_setup", reply);
    return dev.status();
  }
  std::string body;
  if (dev.read_body(reply, &body)) print_text(body);
  return dev.status();
}

int reset_settings(device& dev) {
  dev.call("server_reset", {});
  return dev.status();
}

int reboot_device(device& dev, const std::string& mode) {
  dev.call("reboot", {{"mode", mode.c_str()}});
  return dev.status();
}

int shut_down(device& dev) {
  std::string body;
  if (dev.call("shutdown", {}, &body)) print_text(body);
  return dev.status();
}

int exit_daemon(device& dev) {
  // The daemon ends its whole process group at once, usually before the
  // reply is sent: a connection closed without a reply is the expected end.
  vesk_c_reply reply;
  dev.accept_close();
  if (!dev.exchange("exitapp", nullptr, 0, &reply)) return dev.status();
  if (reply.kind == vesk_c_reply_kind::fail) dev.report_fail("exitapp", reply);
  return dev.status();
}

int raw_request(device& dev, const std::string& command, std::span<const std::string> words,
                const std::optional<std::string>& body_file) {
  std::vector<std::string> storage;
  std::vector<vesk_c_pair> pairs = pairs_of(words, &storage);
  vesk_c_reply reply;
  if (body_file) {
    unique_fd file(::open(body_file->c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st{};
    if (!file.ok() || ::fstat(file.get(), &st) != 0) {
      dev.report("cannot read " + *body_file + ": " + error_text(errno), kExitFail);
      return dev.status();
    }
    std::string length = std::to_string(st.st_size);
    bool has_length = false;
    for (const vesk_c_pair& p : pairs) has_length |= strcasecmp(p.name, "content-length") == 0;
    if (!has_length) pairs.push_back({"content-length", length.c_str()});
    if (!dev.exchange_with_body(command.c_str(), pairs.data(), pairs.size(), file.get(),
                            static_cast<std::uint64_t>(st.st_size), &reply))
      return dev.status();
  } else if (!dev.exchange(command.c_str(), pairs.data(), pairs.size(), &reply)) {
    return dev.status();
  }
  for (int i = 0; i < kHeaderPairs && reply.header.names[i][0] != '\0'; ++i)
    std::printf("%s: %s\n", reply.header.names[i], reply.header.values[i]);
  std::printf("\n");
  std::fflush(stdout);
  if (reply.kind == vesk_c_reply_kind::fail) {
    dev.report_fail(command.c_str(), reply);
    return dev.status();
  }
  dev.read_body_to_fd(reply, STDOUT_FILENO);
  return dev.status();
}

#include "client/remote_command.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "client/shell_quote.h"
#include "lib/md5.h"
#include "lib/system_texts.h"
#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace {

// The trap's codes: 2 * (1 + 31 * outputs + status), outputs 0..3 (bit 0:
// standard output is not empty, bit 1: standard error), status 0..29, or 30
// when the status is in the status file.
constexpr int kStatusInFile = 30;
constexpr int kMaxValue = 1 + 31 * 3 + kStatusInFile;
// How much longer than the caller's limit the daemon lets a script run.
constexpr int kBackstopSeconds = 60;

constexpr const char* kShell = "/bin/sh";

std::int64_t now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool discard(void*, const char*, std::size_t) { return true; }

bool append(void* ctx, const char* data, std::size_t length) {
  auto* out = static_cast<std::string*>(ctx);
  if (out->size() + length > 64) return false;  // a status is a few digits
  out->append(data, length);
  return true;
}

vesk_c_status send_batch(vesk_c_conn* conn, std::initializer_list<std::pair<const char*, std::string>> requests) {
  for (const auto& [command, file] : requests) {
    const vesk_c_pair args[] = {{"file", file.c_str()}};
    vesk_c_status s = vesk_c_send_request(conn, command, args);
    if (s != vesk_c_status::ok) return s;
  }
  return vesk_c_status::ok;
}

// Reads a reply and any Data body, thrown away; its kind in `kind`.
vesk_c_status read_any(vesk_c_conn* conn, vesk_c_reply_kind* kind = nullptr) {
  vesk_c_reply reply{};
  reply.kind = vesk_c_reply_kind::fail;
  vesk_c_status s = vesk_c_read_reply(conn, &reply);
  if (s == vesk_c_status::ok) s = vesk_c_read_body(conn, reply, discard, nullptr);
  if (kind != nullptr) *kind = reply.kind;
  return s;
}

// The MD5 signature of `length` bytes of `fd` from its start, in text form.
bool fd_signature(int fd, std::uint64_t length, char (&text)[33]) {
  md5_context ctx;
  MD5Init(&ctx);
  std::vector<char> block(256 * 1024);
  for (std::uint64_t at = 0; at < length;) {
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(length - at, block.size()));
    ssize_t n = ::pread(fd, block.data(), want, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ENODATA;
      return false;
    }
    MD5Update(&ctx, block.data(), static_cast<std::size_t>(n));
    at += static_cast<std::uint64_t>(n);
  }
  std::uint8_t digest[16];
  MD5Final(digest, &ctx);
  md5_sig_text(digest, text);
  return true;
}

// Uploads `length` bytes of `fd` from its start to `remote`; the reply in `reply`.
vesk_c_status upload(vesk_c_conn* conn, const std::string& remote, int fd, std::uint64_t length,
                     vesk_c_reply* reply) {
  char signature[33];
  if (!fd_signature(fd, length, signature) || ::lseek(fd, 0, SEEK_SET) != 0) {
    conn->error = errno;
    return vesk_c_status::local_error;
  }
  std::string size = std::to_string(length);
  const vesk_c_pair args[] = {
      {"file", remote.c_str()}, {"md5_sig", signature}, {"content-length", size.c_str()}};
  vesk_c_status s = vesk_c_send_request(conn, "putFile", args);
  if (s == vesk_c_status::ok) s = vesk_c_send_body(conn, fd, length);
  if (s == vesk_c_status::ok) s = vesk_c_read_reply(conn, reply);
  return s;
}

vesk_c_status upload_text(vesk_c_conn* conn, const std::string& remote, std::string_view text,
                          vesk_c_reply* reply) {
  unique_fd fd(::memfd_create("kolta-upload", MFD_CLOEXEC));
  std::size_t done = 0;
  while (fd.ok() && done < text.size()) {
    ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  if (!fd.ok() || done != text.size()) {
    conn->error = errno;
    return vesk_c_status::local_error;
  }
  return upload(conn, remote, fd.get(), text.size(), reply);
}

int signal_named(std::string_view text) { return signal_from_text(text); }

bool parse_int(const char* text, int* value) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text, &end, 10);
  if (end == text || errno != 0 || v < -1000000 || v > 1000000) return false;
  while (*end == ' ' || *end == '\n') ++end;
  if (*end != '\0') return false;
  *value = static_cast<int>(v);
  return true;
}

}  // namespace

vesk_c_command_files vesk_c_command_files_at(std::string_view base) {
  std::string b(base);
  return {b + ".sh", b + ".in", b + ".out", b + ".err", b + ".rc", b + ".end", b + ".stop.sh"};
}

std::string vesk_c_command_script(const vesk_c_command_files& f, std::string_view body,
                                  bool with_input) {
  std::string trap = "kolta_rc=$?; kolta_v=1; [ -s " + f.out + " ] && kolta_v=32; [ -s " + f.err +
                     " ] && kolta_v=$((kolta_v + 62)); if [ -n \"$kolta_signal\" ]; then echo "
                     "\"-$kolta_signal\" >" + f.status + "; kolta_rc=30; elif [ \"$kolta_rc\" -ge 30 ]; "
                     "then echo \"$kolta_rc\" >" + f.status + "; kolta_rc=30; fi; : >" + f.marker +
                     "; exit $(((kolta_v + kolta_rc) * 2))";
  std::string text = "exec <" + (with_input ? f.input : std::string("/dev/null")) + " >" + f.out +
                     " 2>" + f.err + "\nexport KOLTA_COMMAND=" + f.script + "\ntrap '" + trap +
                     "' 0\n";
  text.append(body);
  if (body.empty() || body.back() != '\n') text.push_back('\n');
  return text;
}

std::string vesk_c_program_text(std::span<const std::string> argv) {
  return shell_command(argv) +
         "\nkolta_rc=$?; [ $kolta_rc -gt 128 ] && kolta_signal=$((kolta_rc - 128)); exit $kolta_rc\n";
}

std::string vesk_c_stopper_script(const vesk_c_command_files& f) {
  return "exec >/dev/null 2>&1\n"
         "all=\" \"\n"
         "for f in $(grep -lsaF -- '" + f.script + "' /proc/[0-9]*/cmdline /proc/[0-9]*/environ); do\n"
         "  p=${f#/proc/}; p=${p%%/*}\n"
         "  case \"$all\" in *\" $p \"*) continue ;; esac\n"
         "  [ \"$p\" = \"$$\" ] || { kill -STOP \"$p\" && all=\"$all$p \"; }\n"
         "done\n"
         "[ \"$all\" = \" \" ] && exit 4\n"
         "found=1\n"
         "while [ -n \"$found\" ]; do\n"
         "  found=\n"
         "  for d in /proc/[0-9]*; do\n"
         "    p=${d#/proc/}\n"
         "    case \"$all\" in *\" $p \"*) continue ;; esac\n"
         "    read -r s <\"$d/stat\" || continue\n"
         "    s=${s##*) }\n"
         "    set -- $s\n"
         "    case \"$all\" in *\" $2 \"*) kill -STOP \"$p\"; all=\"$all$p \"; found=1 ;; esac\n"
         "  done\n"
         "done\n"
         "kill -KILL $all\n"
         "exit 2\n";
}

bool vesk_c_command_decode(const vesk_c_reply& reply, bool marker_found, vesk_c_command_end* end) {
  *end = {};
  int code = 0;
  bool rc = reply.kind == vesk_c_reply_kind::fail && std::strncmp(reply.reason, "RC=", 3) == 0 &&
            parse_int(reply.reason + 3, &code);
  if (marker_found && rc) {
    int value = code >> 1;
    if (value >= 1 && value <= kMaxValue) {
      int outputs = (value - 1) / 31, status = (value - 1) % 31;
      end->out = (outputs & 1) != 0;
      end->err = (outputs & 2) != 0;
      end->status_in_file = status == kStatusInFile;
      end->status = end->status_in_file ? 0 : status;
      return true;
    }
  }
  // A plain exit: nothing tells which output is empty.
  if (reply.kind == vesk_c_reply_kind::data) return true;  // status 0
  if (rc) {
    end->status = code;
    return true;
  }
  const char* failed = std::strstr(reply.reason, ": Execution failed (");
  if (reply.kind == vesk_c_reply_kind::fail && failed != nullptr) {
    std::string_view name(std::strrchr(reply.reason, '(') + 1);
    if (!name.empty() && name.back() == ')') name.remove_suffix(1);
    if (int sig = signal_named(name); sig != 0) {
      end->status = -sig;
      return true;
    }
  }
  return false;
}

vesk_c_status vesk_c_command_start(vesk_c_conn* conn, vesk_c_command* cmd, std::string_view body,
                                   int input_fd, std::uint64_t input_length, double limit_s,
                                   vesk_c_reply* refused) {
  cmd->with_input = input_length > 0;
  refused->kind = vesk_c_reply_kind::success;
  const vesk_c_command_files& f = cmd->files;
  vesk_c_status s = upload_text(conn, f.script, vesk_c_command_script(f, body, cmd->with_input), refused);
  if (s == vesk_c_status::ok && refused->kind == vesk_c_reply_kind::success && cmd->with_input)
    s = upload(conn, f.input, input_fd, input_length, refused);
  if (s != vesk_c_status::ok || refused->kind != vesk_c_reply_kind::success) return s;

  std::string limit =
      limit_s > 0 ? std::to_string(static_cast<long>(std::ceil(limit_s)) + kBackstopSeconds) : "-1";
  const vesk_c_pair exec_args[] = {{"cmd", kShell}, {"args", f.script.c_str()}, {"timeout", limit.c_str()}};
  const vesk_c_pair marker_args[] = {{"file", f.marker.c_str()}};
  s = vesk_c_send_request(conn, "execute", exec_args);
  if (s == vesk_c_status::ok) s = vesk_c_send_request(conn, "remFile", marker_args);
  return s;
}

vesk_c_status vesk_c_command_wait(vesk_c_conn* conn, vesk_c_command* cmd, std::int64_t deadline_ms) {
  if (!rx_stream_has_buffered()) {
    for (;;) {
      int wait = -1;
      if (deadline_ms >= 0) {
        std::int64_t left = deadline_ms - now_ms();
        if (left <= 0) return vesk_c_status::timed_out;
        wait = static_cast<int>(std::min<std::int64_t>(left, 86400000));
      }
      pollfd pfd{conn->fd, POLLIN, 0};
      int r = ::poll(&pfd, 1, wait);
      if (r > 0) break;
      if (r < 0 && errno != EINTR) {
        conn->error = errno;
        return vesk_c_status::io_error;
      }
      if (r < 0) return vesk_c_status::io_error;  // a signal: the caller looks at it
    }
  }
  vesk_c_status s = vesk_c_read_reply(conn, &cmd->reply);
  if (s == vesk_c_status::ok && cmd->reply.kind == vesk_c_reply_kind::data)
    s = vesk_c_read_body(conn, cmd->reply, discard, nullptr);
  vesk_c_reply_kind marker = vesk_c_reply_kind::fail;
  if (s == vesk_c_status::ok) s = read_any(conn, &marker);
  cmd->marker_found = marker == vesk_c_reply_kind::success;
  return s;
}

vesk_c_status vesk_c_command_stop(const char* host, int port, int timeout_ms,
                                  const vesk_c_command_files& f, bool* stopped) {
  *stopped = false;
  vesk_c_conn conn;
  vesk_c_status s = vesk_c_connect(&conn, host, port, timeout_ms);
  // Without its script, a shell not yet started finds nothing to run.
  if (s == vesk_c_status::ok) s = send_batch(&conn, {{"remFile", f.script}});
  if (s == vesk_c_status::ok) s = read_any(&conn);
  vesk_c_reply reply{};
  if (s == vesk_c_status::ok) s = upload_text(&conn, f.stopper, vesk_c_stopper_script(f), &reply);
  if (s == vesk_c_status::ok && reply.kind == vesk_c_reply_kind::success) {
    const vesk_c_pair args[] = {{"cmd", kShell}, {"args", f.stopper.c_str()}, {"timeout", "60"}};
    s = vesk_c_send_request(&conn, "execute", args);
    if (s == vesk_c_status::ok) s = send_batch(&conn, {{"remFile", f.stopper}});
    conn.timeout_ms = timeout_ms + 60000;
    if (s == vesk_c_status::ok) s = vesk_c_read_reply(&conn, &reply);
    if (s == vesk_c_status::ok) s = vesk_c_read_body(&conn, reply, discard, nullptr);
    *stopped = !(reply.kind == vesk_c_reply_kind::fail &&
                 (std::strcmp(reply.reason, "RC=4") == 0 || std::strcmp(reply.reason, "RC=5") == 0));
    conn.timeout_ms = timeout_ms;
    if (s == vesk_c_status::ok) s = read_any(&conn);
  }
  vesk_c_disconnect(&conn);
  return s;
}

vesk_c_status vesk_c_command_finish(vesk_c_conn* conn, const char* host, int port,
                                    const vesk_c_command& cmd, vesk_c_command_end* end, int out_fd,
                                    int err_fd) {
  const vesk_c_command_files& f = cmd.files;
  struct fetch {
    const std::string* file;
    int fd;  // -1: into `status_text`
  };
  std::vector<fetch> fetches;
  if (end->out) fetches.push_back({&f.out, out_fd});
  if (end->err) fetches.push_back({&f.err, err_fd});
  if (end->status_in_file) fetches.push_back({&f.status, -1});
  std::vector<const std::string*> others;
  for (const std::string* name : {&f.script, &f.out, &f.err})
    if ((name != &f.out || !end->out) && (name != &f.err || !end->err)) others.push_back(name);
  if (cmd.with_input) others.push_back(&f.input);

  // The first fetch goes over `conn`, each further one over a connection of
  // its own, so that the daemon's pauses before the Data replies overlap.
  // Replies are read one connection after the other, each read whole.
  std::vector<vesk_c_conn> extra(fetches.size() > 1 ? fetches.size() - 1 : 0);
  vesk_c_status s = vesk_c_status::ok;
  for (std::size_t i = 0; i < extra.size() && s == vesk_c_status::ok; ++i)
    s = vesk_c_connect(&extra[i], host, port, conn->timeout_ms);
  for (std::size_t i = 0; i < fetches.size() && s == vesk_c_status::ok; ++i) {
    vesk_c_conn* c = i == 0 ? conn : &extra[i - 1];
    s = send_batch(c, {{"getFile", *fetches[i].file}, {"remFile", *fetches[i].file}});
  }
  for (const std::string* name : others)
    if (s == vesk_c_status::ok) s = send_batch(conn, {{"remFile", *name}});

  std::string status_text;
  for (std::size_t i = 0; i < fetches.size() && s == vesk_c_status::ok; ++i) {
    vesk_c_conn* c = i == 0 ? conn : &extra[i - 1];
    vesk_c_reply reply{};
    s = vesk_c_read_reply(c, &reply);
    if (s == vesk_c_status::ok && reply.kind == vesk_c_reply_kind::data) {
      s = fetches[i].fd >= 0 ? vesk_c_read_body_to_fd(c, reply, fetches[i].fd)
                             : vesk_c_read_body(c, reply, append, &status_text);
    }
    if (s == vesk_c_status::ok) s = read_any(c);
    if (i == 0)
      for (std::size_t k = 0; k < others.size() && s == vesk_c_status::ok; ++k) s = read_any(c);
  }
  if (fetches.empty())
    for (std::size_t k = 0; k < others.size() && s == vesk_c_status::ok; ++k) s = read_any(conn);
  for (vesk_c_conn& c : extra) vesk_c_disconnect(&c);
  if (s == vesk_c_status::ok && end->status_in_file && !parse_int(status_text.c_str(), &end->status))
    return vesk_c_status::bad_reply;
  return s;
}

vesk_c_status vesk_c_command_remove(vesk_c_conn* conn, const vesk_c_command_files& f,
                                    bool with_input) {
  std::vector<const std::string*> names{&f.script, &f.out, &f.err, &f.status, &f.marker};
  if (with_input) names.push_back(&f.input);
  vesk_c_status s = vesk_c_status::ok;
  for (const std::string* name : names)
    if (s == vesk_c_status::ok) s = send_batch(conn, {{"remFile", *name}});
  for (std::size_t i = 0; i < names.size() && s == vesk_c_status::ok; ++i) s = read_any(conn);
  return s;
}

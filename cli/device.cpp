#include "cli/device.h"

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/exit_status.h"
#include "cli/interrupt.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "lib/system_texts.h"

namespace {

// The longest wait the reply reader takes: a day stands for "no limit".
constexpr int kNoLimitMs = 86400 * 1000;

std::string quoted(const char* command) { return std::string("\"") + command + "\""; }

}  // namespace

void print_error(std::string_view message) {
  std::string line = "kolta: ";
  line.append(message);
  line.push_back('\n');
  std::fflush(stdout);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void device::report(std::string_view message, int status) {
  if (status_ == 0) {
    print_error(message);
    status_ = status;
  }
}

void device::report_fail(const char* command, const vesk_c_reply& reply) {
  report(endpoint_text(where_) + ": " + quoted(command) + " failed: " + reply.reason, kExitFail);
}

bool device::stopped() {
  int sig = interrupt_signal();
  if (sig == 0 || tidying_) return false;
  if (status_ == 0) status_ = 128 + sig;
  close();
  return true;
}

bool device::open() {
  if (open_) return true;
  if (unreachable_) return false;  // one failed connect is reported and not tried again
  int timeout = timeout_ms_ > 0 ? timeout_ms_ : kNoLimitMs;
  vesk_c_status s = vesk_c_connect(&conn_, where_.host.c_str(), where_.port, timeout);
  if (s == vesk_c_status::ok) {
    open_ = true;
    set_interruptible_socket(conn_.fd);
    return true;
  }
  std::string head = "cannot connect to " + endpoint_text(where_) + ": ";
  switch (s) {
    case vesk_c_status::resolve_failed:
      report(head + "host not found (check -H or KOLTA_HOST)", kExitConnection);
      break;
    case vesk_c_status::timed_out:
      report(head + "no answer within " + seconds_text(timeout / 1000.0) +
                 " (is the device up and reachable?)",
             kExitConnection);
      break;
    default: {
      int err = conn_.error != 0 ? conn_.error : errno;
      const char* hint = err == ECONNREFUSED ? " (is koltad running?)"
                         : err == EHOSTUNREACH || err == ENETUNREACH
                             ? " (is the device up and reachable?)"
                             : " (check the host and the port)";
      report(head + error_text(err) + hint, kExitConnection);
    }
  }
  vesk_c_disconnect(&conn_);
  unreachable_ = true;
  return false;
}

void device::close() {
  set_interruptible_socket(-1);
  if (open_) vesk_c_disconnect(&conn_);
  open_ = false;
}

bool device::failed_io(const char* command, vesk_c_status s) {
  if (int sig = interrupt_signal(); sig != 0 || (accept_close_ && s == vesk_c_status::closed)) {
    // An interrupt shut the connection down: no message, the signal's status.
    if (sig != 0 && status_ == 0) status_ = 128 + sig;
    close();
    return false;
  }
  std::string head = endpoint_text(where_) + ": ";
  int err = conn_.error != 0 ? conn_.error : errno;
  switch (s) {
    case vesk_c_status::timed_out:
      report(head + "no answer to " + quoted(command) + " within " +
                 seconds_text(conn_.timeout_ms / 1000.0) + " (raise the limit with -t)",
             kExitConnection);
      break;
    case vesk_c_status::closed:
      report(head + "the connection broke during " + quoted(command) +
                 " (is koltad still running? its log tells more)",
             kExitConnection);
      break;
    case vesk_c_status::bad_reply:
      report(head + "the reply to " + quoted(command) +
                 " is not understood (is this port a koltad?)",
             kExitConnection);
      break;
    case vesk_c_status::local_error:
      if (err == EPIPE) {
        // Whoever read our output has gone (`kolta sh ... | head`): end as
        // quietly as a program killed by SIGPIPE would.
        if (status_ == 0) status_ = 128 + SIGPIPE;
      } else if (err == EINVAL)
        report(head + "a value of " + quoted(command) +
                   " is too long or holds a line end (127 characters at most, 19 arguments)",
               kExitUsage);
      else
        report(head + "local file error during " + quoted(command) + ": " + error_text(err),
               kExitFail);
      break;
    default:
      report(head + "the connection failed during " + quoted(command) + ": " +
                 error_text(err),
             kExitConnection);
  }
  close();
  return false;
}

vesk_c_conn* device::connection() {
  if (stopped() || !open()) return nullptr;
  conn_.timeout_ms = timeout_ms_ > 0 ? timeout_ms_ : kNoLimitMs;
  return &conn_;
}

bool device::exchange(const char* command, const vesk_c_pair* args, std::size_t count,
                      vesk_c_reply* reply, int reply_timeout_ms) {
  if (stopped()) return false;
  if (!open()) return false;
  last_command_ = command;
  conn_.timeout_ms = timeout_ms_ > 0 ? timeout_ms_ : kNoLimitMs;
  vesk_c_status s = vesk_c_send_request(&conn_, command, {args, count});
  if (s != vesk_c_status::ok) return failed_io(command, s);
  if (reply_timeout_ms != 0)
    conn_.timeout_ms = reply_timeout_ms > 0 ? reply_timeout_ms : kNoLimitMs;
  s = vesk_c_read_reply(&conn_, reply);
  conn_.timeout_ms = timeout_ms_ > 0 ? timeout_ms_ : kNoLimitMs;
  if (s != vesk_c_status::ok) return failed_io(command, s);
  return true;
}

bool device::request(const char* command, std::initializer_list<vesk_c_pair> args,
                     vesk_c_reply* reply, int reply_timeout_ms) {
  if (!exchange(command, args.begin(), args.size(), reply, reply_timeout_ms)) return false;
  if (reply->kind == vesk_c_reply_kind::fail) {
    report_fail(command, *reply);
    return false;
  }
  return true;
}

bool device::exchange_with_body(const char* command, const vesk_c_pair* args, std::size_t count,
                                int body_fd, std::uint64_t length, vesk_c_reply* reply,
                                transfer_progress* progress) {
  if (stopped()) return false;
  if (!open()) return false;
  last_command_ = command;
  conn_.timeout_ms = timeout_ms_ > 0 ? timeout_ms_ : kNoLimitMs;
  vesk_c_status s = vesk_c_send_request(&conn_, command, {args, count});
  if (s == vesk_c_status::ok)
    s = vesk_c_send_body(&conn_, body_fd, length, progress ? progress_callback : nullptr, progress);
  if (progress != nullptr) progress_finish(progress);
  if (s == vesk_c_status::ok) s = vesk_c_read_reply(&conn_, reply);
  if (s != vesk_c_status::ok) return failed_io(command, s);
  return true;
}

bool device::request_with_body(const char* command, std::initializer_list<vesk_c_pair> args,
                               int body_fd, std::uint64_t length, vesk_c_reply* reply,
                               transfer_progress* progress) {
  if (!exchange_with_body(command, args.begin(), args.size(), body_fd, length, reply, progress))
    return false;
  if (reply->kind == vesk_c_reply_kind::fail) {
    report_fail(command, *reply);
    return false;
  }
  return true;
}

namespace {

struct string_sink {
  std::string* out;
  std::size_t limit;
};

bool append_to_string(void* ctx, const char* data, std::size_t length) {
  auto* sink = static_cast<string_sink*>(ctx);
  if (sink->out->size() + length > sink->limit) {
    errno = EFBIG;
    return false;
  }
  sink->out->append(data, length);
  return true;
}

}  // namespace

bool device::read_body(const vesk_c_reply& reply, std::string* out, std::size_t limit) {
  out->clear();
  if (reply.kind != vesk_c_reply_kind::data) return true;
  string_sink sink{out, limit};
  return read_body_to_sink(reply, append_to_string, &sink);
}

bool device::read_body_to_sink(const vesk_c_reply& reply, vesk_c_sink_fn sink, void* ctx,
                               transfer_progress* progress) {
  vesk_c_status s = vesk_c_read_body(&conn_, reply, sink, ctx,
                                     progress ? progress_callback : nullptr, progress);
  if (progress != nullptr) progress_finish(progress);
  if (s != vesk_c_status::ok) return failed_io(last_command_, s);
  return true;
}

bool device::read_body_to_fd(const vesk_c_reply& reply, int fd, transfer_progress* progress) {
  vesk_c_status s = vesk_c_read_body_to_fd(&conn_, reply, fd,
                                           progress ? progress_callback : nullptr, progress);
  if (progress != nullptr) progress_finish(progress);
  if (s != vesk_c_status::ok) return failed_io(last_command_, s);
  return true;
}

bool device::call(const char* command, std::initializer_list<vesk_c_pair> args, std::string* body,
                  int reply_timeout_ms) {
  vesk_c_reply reply;
  if (!request(command, args, &reply, reply_timeout_ms)) return false;
  std::string ignored;
  return read_body(reply, body != nullptr ? body : &ignored);
}

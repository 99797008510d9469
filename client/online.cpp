#include "client/online.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Pauses between tries: from the first to the longest, doubling.
constexpr double kFirstPause = 0.1;
constexpr double kLongestPause = 1.0;
// A boot id is 36 characters; anything much longer is not one.
constexpr std::size_t kBootIdLimit = 128;

double now_s() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void pause_for(double seconds) {
  if (seconds <= 0) return;
  auto ns = static_cast<long long>(seconds * 1e9);
  timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  // A signal ends the pause early; keep_waiting then has its say.
  nanosleep(&ts, nullptr);
}

// The try's own limit, never beyond the wait's deadline (but at least a
// moment, so that the last try can still succeed).
int try_limit_ms(const vesk_c_endpoint& at, double left_s) {
  double ms = std::min(static_cast<double>(at.try_timeout_ms), left_s * 1000.0);
  return std::max(100, static_cast<int>(ms));
}

struct string_sink {
  std::string* out;
};

bool append_limited(void* ctx, const char* data, std::size_t length) {
  auto* sink = static_cast<string_sink*>(ctx);
  if (sink->out->size() + length > kBootIdLimit) {
    errno = EFBIG;
    return false;
  }
  sink->out->append(data, length);
  return true;
}

// One request on a connection of its own; `body` gets a Data reply's body.
vesk_c_status one_exchange(const vesk_c_endpoint& at, int timeout_ms, const char* command,
                           const vesk_c_pair* args, std::size_t count, vesk_c_reply* reply,
                           std::string* body, int* err) {
  vesk_c_conn conn;
  vesk_c_status s = vesk_c_connect(&conn, at.host, at.port, timeout_ms);
  if (s == vesk_c_status::ok) s = vesk_c_send_request(&conn, command, {args, count});
  if (s == vesk_c_status::ok) s = vesk_c_read_reply(&conn, reply);
  if (s == vesk_c_status::ok && reply->kind == vesk_c_reply_kind::data && body != nullptr) {
    string_sink sink{body};
    s = vesk_c_read_body(&conn, *reply, append_limited, &sink);
  }
  *err = conn.error;
  vesk_c_disconnect(&conn);
  return s;
}

// The device's boot id, with one connection. A Fail reply (the file cannot
// be read there) or an empty id is bad_reply.
vesk_c_status read_boot_id(const vesk_c_endpoint& at, int timeout_ms, std::string* id, int* err) {
  const vesk_c_pair args[] = {{"file", kBootIdFile}};
  vesk_c_reply reply;
  std::string body;
  vesk_c_status s = one_exchange(at, timeout_ms, "getFile", args, 1, &reply, &body, err);
  if (s != vesk_c_status::ok) return s;
  if (reply.kind != vesk_c_reply_kind::data) return vesk_c_status::bad_reply;
  *id = vesk_c_boot_id_of(body);
  return id->empty() ? vesk_c_status::bad_reply : vesk_c_status::ok;
}

// Loops tries until `done` says the wait is over or the deadline passes.
// `attempt` makes one try and returns true when it reached the daemon.
template <typename Attempt>
vesk_c_wait_report wait_loop(const vesk_c_endpoint& at, double timeout_s,
                             vesk_c_keep_waiting_fn keep_waiting, Attempt attempt) {
  vesk_c_wait_report r;
  const double start = now_s(), deadline = start + timeout_s;
  double pause = kFirstPause;
  for (;;) {
    if (keep_waiting != nullptr && !keep_waiting()) {
      r.outcome = vesk_c_wait_outcome::stopped;
      break;
    }
    const double left = deadline - now_s();
    if (attempt(&r, try_limit_ms(at, left), now_s() - start)) break;
    const double after = deadline - now_s();
    if (after <= 0) break;
    pause_for(std::min(pause, after));
    pause = std::min(pause * 2, kLongestPause);
  }
  r.elapsed_s = now_s() - start;
  return r;
}

std::string seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, s >= 10 || s == static_cast<int>(s) ? "%.0f s" : "%.1f s", s);
  return text;
}

}  // namespace

std::string vesk_c_boot_id_of(std::string_view file_text) {
  while (!file_text.empty() &&
         (file_text.back() == '\n' || file_text.back() == '\r' || file_text.back() == ' '))
    file_text.remove_suffix(1);
  return std::string(file_text);
}

vesk_c_wait_report vesk_c_wait_online(const vesk_c_endpoint& at, double timeout_s,
                                      vesk_c_keep_waiting_fn keep_waiting) {
  return wait_loop(
      at, timeout_s, keep_waiting, [&at](vesk_c_wait_report* r, int limit_ms, double at_s) {
        vesk_c_reply reply;
        vesk_c_status s = one_exchange(at, limit_ms, "test", nullptr, 0, &reply, nullptr,
                                       &r->last_errno);
        if (s == vesk_c_status::ok && reply.kind == vesk_c_reply_kind::success) {
          r->outcome = vesk_c_wait_outcome::online;
          return true;
        }
        if (r->first_down_s < 0) r->first_down_s = at_s;
        r->last_failure = s == vesk_c_status::ok ? vesk_c_status::bad_reply : s;
        r->outcome = vesk_c_wait_outcome::never_answered;
        return false;
      });
}

vesk_c_wait_report vesk_c_wait_reboot(const vesk_c_endpoint& at, const std::string& boot_before,
                                      double timeout_s, vesk_c_keep_waiting_fn keep_waiting) {
  return wait_loop(
      at, timeout_s, keep_waiting,
      [&at, &boot_before](vesk_c_wait_report* r, int limit_ms, double at_s) {
        std::string id;
        vesk_c_status s = read_boot_id(at, limit_ms, &id, &r->last_errno);
        if (s != vesk_c_status::ok) {
          if (r->first_down_s < 0) r->first_down_s = at_s;
          r->back_s = -1;
          r->last_failure = s;
          r->outcome = vesk_c_wait_outcome::not_back;
          return false;
        }
        r->boot_id = id;
        if (id != boot_before) {
          if (r->back_s < 0) r->back_s = at_s;
          r->outcome = vesk_c_wait_outcome::online;
          return true;
        }
        if (r->first_down_s < 0) {
          r->outcome = vesk_c_wait_outcome::never_down;
        } else {
          if (r->back_s < 0) r->back_s = at_s;
          r->outcome = vesk_c_wait_outcome::same_boot;
        }
        return false;
      });
}

std::string vesk_c_wait_text(const vesk_c_wait_report& r, double timeout_s) {
  auto last_failure = [&r] {
    std::string why = vesk_c_status_text(r.last_failure);
    if (r.last_failure == vesk_c_status::connect_failed || r.last_failure == vesk_c_status::io_error)
      why += std::string(": ") + std::strerror(r.last_errno);
    return why;
  };
  switch (r.outcome) {
    case vesk_c_wait_outcome::never_answered:
      return "did not answer within " + seconds(timeout_s) + " (last try: " + last_failure() + ")";
    case vesk_c_wait_outcome::never_down:
      return "did not reboot: it kept answering with the same boot id for " + seconds(timeout_s) +
             " (it never went down)";
    case vesk_c_wait_outcome::not_back:
      return "went down " + seconds(r.first_down_s) + " after the reboot request and did not " +
             "answer again within " + seconds(timeout_s) + " (last try: " + last_failure() + ")";
    case vesk_c_wait_outcome::same_boot:
      return "did not reboot: it stopped answering after " + seconds(r.first_down_s) +
             " but answered again after " + seconds(r.back_s) +
             " with the same boot id (the daemon restarted, the device did not)";
    case vesk_c_wait_outcome::online:
    case vesk_c_wait_outcome::stopped:
      break;
  }
  return {};
}

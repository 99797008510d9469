// One device as the commands see it: a connection opened on first use,
// requests and replies, and the one-line messages for everything that can go
// wrong, each with its exit status. The first error is printed on standard
// error and remembered; the command then returns status().
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "cli/target.h"
#include "client/session.h"

// Called as a body moves (see progress.h).
struct transfer_progress;

class device {
 public:
  device(target where, int timeout_ms) : where_(std::move(where)), timeout_ms_(timeout_ms) {}
  device(const device&) = delete;
  device& operator=(const device&) = delete;
  ~device() { close(); }

  const target& where() const { return where_; }
  int timeout_ms() const { return timeout_ms_; }
  int status() const { return status_; }

  // Sends one request on the open connection (opening it first) and reads
  // the reply header. False after a connection failure or a Fail reply
  // (already reported). A Data body must be read next, with read_body.
  // `reply_timeout_ms` overrides -t for this reply (-1: no limit).
  bool request(const char* command, std::initializer_list<vesk_c_pair> args,
               vesk_c_reply* reply, int reply_timeout_ms = 0);
  // The same with a data body of `length` bytes from `body_fd`.
  bool request_with_body(const char* command, std::initializer_list<vesk_c_pair> args,
                         int body_fd, std::uint64_t length, vesk_c_reply* reply,
                         transfer_progress* progress = nullptr);
  // The same for a body, with the Fail reply handed back as below.
  bool exchange_with_body(const char* command, const vesk_c_pair* args, std::size_t count,
                          int body_fd, std::uint64_t length, vesk_c_reply* reply,
                          transfer_progress* progress = nullptr);
  // As `request`, but a Fail reply is handed back (true) instead of reported.
  bool exchange(const char* command, const vesk_c_pair* args, std::size_t count,
                vesk_c_reply* reply, int reply_timeout_ms = 0);

  // The Data body of `reply`, whole, into `out` (limited to `limit` bytes:
  // more is a reported error).
  bool read_body(const vesk_c_reply& reply, std::string* out, std::size_t limit = 64u << 20);
  // The body handed to `sink` piece by piece.
  bool read_body_to_sink(const vesk_c_reply& reply, vesk_c_sink_fn sink, void* ctx,
                         transfer_progress* progress = nullptr);
  // The body written to `fd`.
  bool read_body_to_fd(const vesk_c_reply& reply, int fd, transfer_progress* progress = nullptr);

  // A request whose reply is Success or a Data body (returned in `body`).
  bool call(const char* command, std::initializer_list<vesk_c_pair> args,
            std::string* body = nullptr, int reply_timeout_ms = 0);

  // The open connection (opened first), for the client library's calls;
  // nullptr after an interrupt or a failed connect (reported).
  vesk_c_conn* connection();
  // Reports a failed call of the client library on connection(), closes the
  // connection, and returns false.
  bool io_failed(const char* command, vesk_c_status status) { return failed_io(command, status); }

  // Reports a Fail reply of `command`: exit status 1.
  void report_fail(const char* command, const vesk_c_reply& reply);
  // Reports any other problem with this device; `status` is the exit status.
  void report(std::string_view message, int status);

  void close();
  // The daemon may close the connection instead of replying: that ends the
  // exchange quietly (exit), not as an error.
  void accept_close() { accept_close_ = true; }
  // Requests that tidy up on the device still go out after an interrupt.
  void tidy_up() { tidying_ = true; }
  // True (with the signal's status) once an interrupt has arrived, unless
  // this is the tidying up.
  bool stopped();

 private:
  bool open();
  bool failed_io(const char* command, vesk_c_status status);

  target where_;
  int timeout_ms_;
  vesk_c_conn conn_{};
  bool open_ = false;
  bool accept_close_ = false;
  bool tidying_ = false;
  bool unreachable_ = false;
  const char* last_command_ = "";
  int status_ = 0;
};

// "kolta: " and the message on standard error, as one line.
void print_error(std::string_view message);

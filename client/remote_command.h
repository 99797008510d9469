// A command run on the device with files of its own, a time limit and
// standard input.
//
// The daemon's "system" and "execute" write to output files shared by every
// client, so the command goes up as a script whose first line sends its
// standard output and error to files of its own and takes its standard input
// from an uploaded file (or /dev/null). "execute" runs the script. Its exit
// trap tells how the command ended in the script's exit code, which comes
// back in the daemon's Fail reason "RC=<code>": which outputs are empty, and
// the exit status when it is below 30 (else it is in a small file). So a
// command whose outputs are empty costs no Data reply (the daemon waits
// 20 ms before each), and one with output one Data reply per output that is
// not empty, fetched at the same time over a connection each.
//
// The daemon ORs 1 into the code when its shared error file is not empty:
// the code carries its information in the upper seven bits only. A marker
// file that the trap writes tells its codes from a plain exit (a command
// that replaced the shell with exec, or a signal that killed the shell).
//
// A time limit is kept by the caller, who waits for the reply to "execute"
// until a deadline and then stops the command from a second connection: a
// small script stops the command's shell, found by its script's name, and
// every process below it, each as it is found, and then kills them all. The
// script exports KOLTA_COMMAND (its own name), so that what replaced the
// shell with exec, or left it behind, is found by its environment too.
//
// The requests of one step go out together. A request with a data body ends
// its batch: the daemon's body receiver may take bytes that follow a body,
// when they have already arrived, as part of the body.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "client/session.h"

struct vesk_c_command_files {
  std::string script, input, out, err, status, marker, stopper;
};

// The files of a command whose names begin with `base` ("/tmp/kolta-cli-X").
vesk_c_command_files vesk_c_command_files_at(std::string_view base);

// The script that runs the shell text `body`: standard input from the input
// file (`with_input`) or /dev/null, outputs to the command's files, and the
// exit trap that sums up the end in the exit code.
std::string vesk_c_command_script(const vesk_c_command_files& files, std::string_view body,
                                  bool with_input);

// Shell text that runs `argv` (program first) with exactly these words, a
// program found in PATH when it has no slash. A signal that ended it is
// reported as such, not as the shell's 128+N.
std::string vesk_c_program_text(std::span<const std::string> argv);

// The script that stops the command and every process below it; it exits 2
// when it stopped something, 4 when nothing of the command was running.
std::string vesk_c_stopper_script(const vesk_c_command_files& files);

// How a command ended.
struct vesk_c_command_end {
  bool out = true;              // its standard output may hold something
  bool err = true;              // its standard error may hold something
  bool status_in_file = false;  // the status is in the status file
  int status = 0;               // the exit status, or -N for signal N
};

// Reads the reply to "execute" (`marker_found`: the trap ran). False for a
// reply that tells nothing of the command (a Fail for another reason).
bool vesk_c_command_decode(const vesk_c_reply& reply, bool marker_found, vesk_c_command_end* end);

struct vesk_c_command {
  vesk_c_command_files files;
  bool with_input = false;
  vesk_c_reply reply{};       // to "execute", once it has come
  bool marker_found = false;  // the trap ran
};

// Uploads the script and `input_length` bytes of input from `input_fd` (none
// when 0), then sends "execute" and the marker's removal. A Fail reply to an
// upload is copied to `refused` (kind fail) and nothing is run. `limit_s`
// (> 0) lets the daemon end the script a minute after the limit should
// anyone fail to stop it; 0 for none.
vesk_c_status vesk_c_command_start(vesk_c_conn* conn, vesk_c_command* cmd, std::string_view body,
                                   int input_fd, std::uint64_t input_length, double limit_s,
                                   vesk_c_reply* refused);

// Reads the replies to "execute" and to the marker's removal. With
// `deadline_ms` (CLOCK_MONOTONIC milliseconds, or -1 for none) timed_out is
// returned when no reply has come by then; the reply is still to come and
// can be waited for again.
vesk_c_status vesk_c_command_wait(vesk_c_conn* conn, vesk_c_command* cmd, std::int64_t deadline_ms);

// Stops the command with every process below it, over a connection of its
// own to host:port. `*stopped` tells whether something was running. Call it
// only while nothing of `conn`'s replies is held unread in the stream.
vesk_c_status vesk_c_command_stop(const char* host, int port, int timeout_ms,
                                  const vesk_c_command_files& files, bool* stopped);

// Fetches the outputs that may hold something into `out_fd` and `err_fd`,
// and removes the command's files. A second (and third) fetch goes over a
// connection of its own to host:port at the same time. The status from the
// status file, when it is there, goes into `end->status`.
vesk_c_status vesk_c_command_finish(vesk_c_conn* conn, const char* host, int port,
                                    const vesk_c_command& cmd, vesk_c_command_end* end, int out_fd,
                                    int err_fd);

// Removes every file of the command that is still there.
vesk_c_status vesk_c_command_remove(vesk_c_conn* conn, const vesk_c_command_files& files,
                                    bool with_input);

// Waiting for a device from outside: until its daemon answers, and through
// a reboot until the device answers again having booted anew. A device tells
// one boot from the next by the kernel's boot id, a random text that Linux
// draws at every boot (/proc/sys/kernel/random/boot_id).
//
// Every try opens a connection of its own, bounded by the try's time limit,
// and the tries are spaced by pauses that grow to a second; the whole wait
// ends at its deadline. Nothing here prints.
#pragma once

#include <string>
#include <string_view>

#include "client/session.h"

inline constexpr const char* kBootIdFile = "/proc/sys/kernel/random/boot_id";

struct vesk_c_endpoint {
  const char* host;
  int port;
  int try_timeout_ms;  // connect and reply of one try (capped by what is left of the wait)
};

// Asked between tries and after each pause: false ends the wait early
// (an interrupt). Null: never.
using vesk_c_keep_waiting_fn = bool (*)();

// The boot id in the text of kBootIdFile, without its line end.
std::string vesk_c_boot_id_of(std::string_view file_text);

enum class vesk_c_wait_outcome {
  online,          // it answered (wait_online) or answered with a new boot id (wait_reboot)
  never_answered,  // wait_online: no answer before the deadline
  never_down,      // wait_reboot: it kept answering with the old boot id throughout
  not_back,        // wait_reboot: it stopped answering and did not answer again
  same_boot,       // wait_reboot: it was away and came back with the old boot id
  stopped,         // keep_waiting said no
};

// What a wait saw, for the caller's message.
struct vesk_c_wait_report {
  vesk_c_wait_outcome outcome = vesk_c_wait_outcome::stopped;
  double elapsed_s = 0;     // from the start of the wait to its end
  double first_down_s = -1; // when it was first seen not answering; -1: never
  double back_s = -1;       // when it answered again after being away; -1: not
  vesk_c_status last_failure = vesk_c_status::ok;  // of the last try that failed
  int last_errno = 0;
  std::string boot_id;      // the last boot id read
};

// Waits until the daemon answers "test", for at most `timeout_s` seconds.
vesk_c_wait_report vesk_c_wait_online(const vesk_c_endpoint& at, double timeout_s,
                                      vesk_c_keep_waiting_fn keep_waiting = nullptr);

// After a reboot request: waits until the device answers with a boot id
// other than `boot_before`, for at most `timeout_s` seconds.
vesk_c_wait_report vesk_c_wait_reboot(const vesk_c_endpoint& at, const std::string& boot_before,
                                      double timeout_s,
                                      vesk_c_keep_waiting_fn keep_waiting = nullptr);

// One sentence on what the wait saw, after "HOST:PORT " (for instance "did
// not reboot: it kept answering with the same boot id for 300 s (it never
// went down)"). Empty for online and stopped.
std::string vesk_c_wait_text(const vesk_c_wait_report& report, double timeout_s);

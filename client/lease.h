// Leases: a device held by one user at a time, the device itself being the
// lock. Every client sends the same shell script (kLeaseScript, also in
// python/kolta/lease.py, where the format is described), so that a lease
// taken by kolta is seen, waited for and broken by the Python client and its
// plugins, and the other way round.
//
// The lease lives in /etc/kolta/lease on the device (surviving a reboot), or
// in /tmp/kolta-lease where /etc/kolta cannot be written. Taking a free one
// is "ln -s", which exactly one of many racing clients wins; an expired one
// is broken under a directory named after its token.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "client/session.h"

// The environment variable that hands a lease's token to commands run under
// it: a client that finds the token of the lease it would wait for there
// treats that lease as its own.
inline constexpr char kLeaseTokenEnv[] = "KOLTA_LEASE";

// The script's arguments: $1 operation, $2 token, $3 ttl (whole seconds),
// $4 owner, $5 tokens counted as one's own. It prints one line:
// RESULT TOKEN NOW TAKEN EXPIRES OWNER, "-" for an empty field.
extern const char kLeaseScript[];

struct vesk_c_lease_state {
  std::string result;  // took, own, renewed, released, broke, free, held, busy, lost
  std::string token;   // the lease it saw (empty: none)
  long long now = 0, taken = -1, expires = -1;  // the device's clock; -1: unknown
  std::string owner;   // empty: unknown
};

// The command line for one operation (owner on one line, never empty).
std::string vesk_c_lease_command(std::string_view op, std::string_view token, double ttl_s,
                                 std::string_view owner, std::string_view mine);

// Reads the script's line. False when it is not one.
bool vesk_c_lease_parse(std::string_view line, vesk_c_lease_state* state);

// "OWNER (N s left)", for messages.
std::string vesk_c_lease_holder_text(const vesk_c_lease_state& state);

// A new token: 20 hexadecimal digits.
std::string vesk_c_lease_token();

// The tokens of the leases this process runs under ($KOLTA_LEASE).
std::string vesk_c_lease_own_tokens();

// "user@hostname pid N".
std::string vesk_c_lease_default_owner();

// Runs one operation on the device at host:port over `conn` (connected).
// `*state` is the script's answer; `*problem` (on local_error) tells what
// else went wrong on the device.
vesk_c_status vesk_c_lease_call(vesk_c_conn* conn, const char* host, int port,
                                const std::string& command, vesk_c_lease_state* state,
                                std::string* problem);

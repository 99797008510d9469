// Messages on the process-manager queue. Every request and every answer is
// one pm_msg: the message type, then a body of 4104 bytes. Requests travel
// as type 1; an answer's type is the requesting worker's pid.
//
// The offsets asserted below are those of the body; on the device, where the
// type is 4 bytes wide, the whole message is the type and this body.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int kPmQueueKey = 4993;
// IPC_CREAT | 0600: only the daemon's own user may ask it to start programs.
inline constexpr int kPmQueueFlags = 0600 | 01000;
inline constexpr std::size_t kPmBodySize = 4104;
inline constexpr long kPmRequestType = 1;

inline constexpr std::size_t kPmEnvPathSize = 1024;
inline constexpr std::size_t kPmPathSize = 256;
inline constexpr std::size_t kPmTextSize = 256;

enum pm_command : std::int32_t {
  kPmStateQuery = 0,
  kPmLaunch = 4,
  kPmKill = 5,
  kPmListEntry = 6,
  kPmRemove = 7,
};

// States of a background process, indexes into STATE.
enum pm_state : std::int32_t {
  kStateUnknown = 0,
  kStateRunning = 1,
  kStatePassed = 2,
  kStateFailed = 3,
  kStateDied = 4,
};
inline constexpr const char* STATE[] = {"UNKNOWN", "RUNNING", "PASSED", "FAILED", "DIED"};

// The name of `state`, "UNKNOWN" for anything out of range.
inline const char* state_name(std::int32_t state) {
  return state >= 0 && state <= kStateDied ? STATE[state] : STATE[kStateUnknown];
}

struct pm_request {
  std::int32_t sender_pid;
  std::int32_t cmd;
  union {
    std::int32_t target_pid;        // state query, kill, list entry, remove
    char env_path[kPmEnvPathSize];  // launch
  };
  char cmd_path[kPmPathSize];
  char args[kPmPathSize];
  char unused[2560];
};

struct pm_state_answer {
  std::int32_t sender_pid;
  std::int32_t cmd;
  std::int32_t state;
  char text[kPmTextSize];
  std::int32_t pid;
  char env_path[kPmEnvPathSize];
  char cmd_path[kPmPathSize];
  char args[kPmPathSize];
  std::int32_t reserved;  // where a kill answer carries its state
  std::int32_t exit_code;
  char stdout_file[kPmPathSize];
  char stderr_file[kPmPathSize];
};

struct pm_launch_answer {
  std::int32_t sender_pid;
  std::int32_t cmd;
  std::int32_t failed;
  char text[kPmTextSize];
  std::int32_t pid;
};

struct pm_kill_answer {
  std::int32_t sender_pid;
  std::int32_t cmd;
  char text[kPmTextSize];
  std::int32_t pid;
  std::int32_t failed;
  char env_path[kPmEnvPathSize];
  char cmd_path[kPmPathSize];
  char args[kPmPathSize];
  std::int32_t state;
  std::int32_t exit_code;
  char stdout_file[kPmPathSize];
  char stderr_file[kPmPathSize];
};

struct pm_list_answer {
  std::int32_t sender_pid;
  std::int32_t cmd;
  std::int32_t state;
  char text[kPmTextSize];
  std::int32_t count;
  std::int32_t pid;
  char env_path[kPmEnvPathSize];
  char cmd_path[kPmPathSize];
  char args[kPmPathSize];
};

struct pm_msg {
  long mtype;
  union {
    char raw[kPmBodySize];
    pm_request request;
    pm_state_answer state;
    pm_launch_answer launch;
    pm_kill_answer kill;
    pm_list_answer list;
  } body;
};

// Offsets within the body: the device's message offsets less the 4-byte type.
#define KOLTA_PM_AT(type, field, offset) static_assert(offsetof(type, field) + 4 == (offset))
KOLTA_PM_AT(pm_request, sender_pid, 4);
KOLTA_PM_AT(pm_request, cmd, 8);
KOLTA_PM_AT(pm_request, target_pid, 12);
KOLTA_PM_AT(pm_request, env_path, 12);
KOLTA_PM_AT(pm_request, cmd_path, 1036);
KOLTA_PM_AT(pm_request, args, 1292);
KOLTA_PM_AT(pm_request, unused, 1548);
static_assert(sizeof(pm_request) == kPmBodySize);

KOLTA_PM_AT(pm_state_answer, state, 12);
KOLTA_PM_AT(pm_state_answer, text, 16);
KOLTA_PM_AT(pm_state_answer, pid, 272);
KOLTA_PM_AT(pm_state_answer, env_path, 276);
KOLTA_PM_AT(pm_state_answer, cmd_path, 1300);
KOLTA_PM_AT(pm_state_answer, args, 1556);
KOLTA_PM_AT(pm_state_answer, exit_code, 1816);
KOLTA_PM_AT(pm_state_answer, stdout_file, 1820);
KOLTA_PM_AT(pm_state_answer, stderr_file, 2076);
static_assert(sizeof(pm_state_answer) + 4 == 2332);

KOLTA_PM_AT(pm_launch_answer, failed, 12);
KOLTA_PM_AT(pm_launch_answer, text, 16);
KOLTA_PM_AT(pm_launch_answer, pid, 272);

KOLTA_PM_AT(pm_kill_answer, text, 12);
KOLTA_PM_AT(pm_kill_answer, pid, 268);
KOLTA_PM_AT(pm_kill_answer, failed, 272);
KOLTA_PM_AT(pm_kill_answer, env_path, 276);
KOLTA_PM_AT(pm_kill_answer, cmd_path, 1300);
KOLTA_PM_AT(pm_kill_answer, args, 1556);
KOLTA_PM_AT(pm_kill_answer, state, 1812);
KOLTA_PM_AT(pm_kill_answer, exit_code, 1816);
KOLTA_PM_AT(pm_kill_answer, stdout_file, 1820);
KOLTA_PM_AT(pm_kill_answer, stderr_file, 2076);

KOLTA_PM_AT(pm_list_answer, state, 12);
KOLTA_PM_AT(pm_list_answer, text, 16);
KOLTA_PM_AT(pm_list_answer, count, 272);
KOLTA_PM_AT(pm_list_answer, pid, 276);
KOLTA_PM_AT(pm_list_answer, env_path, 280);
KOLTA_PM_AT(pm_list_answer, cmd_path, 1304);
KOLTA_PM_AT(pm_list_answer, args, 1560);
#undef KOLTA_PM_AT

static_assert(sizeof(pm_msg::body) == kPmBodySize);

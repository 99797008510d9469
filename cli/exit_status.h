// The exit statuses scripts rely on. `sh` and `exec` exit with the remote
// command's own status instead.
#pragma once

inline constexpr int kExitOk = 0;
inline constexpr int kExitFail = 1;       // the daemon answered Fail
inline constexpr int kExitUsage = 2;      // the command line is wrong
inline constexpr int kExitConnection = 3; // cannot connect, time-out, broken connection
inline constexpr int kExitCheck = 4;      // a transfer's check failed

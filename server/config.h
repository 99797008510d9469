// The configuration file, read once at start.
#pragma once

inline constexpr char kConfigPath[] = "/etc/kolta/kolta.conf";
inline constexpr int kConfigPortSize = 1024;

struct config {
  char port[kConfigPortSize];  // the port as text; empty when the file has none
};

extern config configstruct;

// Reads the file at `path` into a zeroed record and copies it to `dst`;
// returns `dst`. A missing file gives the empty record, silently.
//
// Lines starting with "#" print "Comment". Any line containing "port" and an
// "=" is a port line: its value (after the first "=", without its last
// character, meant to be the line end) is copied over the start of the port
// text, unterminated, so a shorter later value leaves the tail of a longer
// earlier one in place.
config* get_config(config* dst, const char* path);

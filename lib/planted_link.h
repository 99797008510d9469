// The daemon's output files have fixed names under /tmp, where anyone may
// plant a symbolic link to make the daemon write elsewhere.
#pragma once

// Removes `path` when it is a symbolic link (only the link, never its
// target); leaves anything else alone.
void remove_planted_link(const char* path);

// Starting a program in a forked child with its standard output and error
// sent to two files.
#pragma once

// In the child of a fork: gives the program the default handling of the
// signals the daemon catches, opens `stdout_file` and `stderr_file` (created,
// truncated, synchronous, mode 0600), makes them its standard output and
// error, and executes argv[0] with `argv` (no path search). A symbolic link
// at either name is removed first and never followed. A failed open
// ("ERROR opening stdout !" on standard output) ends the child with status 1. When the program cannot be executed, its
// standard error file tells why and the exit status is 255.
[[noreturn]] void exec_with_output_files(const char* stdout_file, const char* stderr_file,
                                         char* const argv[]);

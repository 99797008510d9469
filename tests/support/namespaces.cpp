#include "tests/support/namespaces.h"

#include <cstdlib>

namespace kolta_test {

int in_mount_namespace(pid_t pid, const std::string& command) {
  std::string quoted;
  for (char c : command) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  const std::string line = "nsenter -t " + std::to_string(pid) + " -m sh -c '" + quoted + "'";
  int status = std::system(line.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kolta_test

// Symbolic links planted at the daemon's fixed output names under /tmp: the
// daemon writes its files and nothing outside them.
#include <unistd.h>

#include <fstream>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using PlantedLinks = DaemonTest;

TEST_F(PlantedLinks, NothingOutsideTheNamedFileIsWritten) {
  write_file("/tmp/victim", "keep");
  auto plant = [&](const std::string& name) {
    ASSERT_EQ(::symlink("/tmp/victim", sb_.path(name).c_str()), 0) << name;
  };
  for (const char* stream : {"stdout", "stderr"}) {
    plant("/tmp/kolta-system-" + std::string(stream) + ".st");
    plant("/tmp/kolta-execute-" + std::string(stream) + ".st");
  }
  // The next background process's names: plant a link for each of the pids
  // the system may hand out next.
  int last = 0;
  std::ifstream("/proc/sys/kernel/ns_last_pid") >> last;
  ASSERT_GT(last, 0);
  for (int pid = last + 1; pid <= last + 1000; ++pid) {
    for (const char* stream : {"stdout", "stderr"})
      plant("/tmp/kolta-bkprocess-" + std::string(stream) + "." + std::to_string(pid));
  }

  VeskClient c = connect();
  EXPECT_EQ(c.ask(request("system", {{"cmd", "sh -c 'echo hi; echo err >&2'"}})), data("hi\n"));
  EXPECT_EQ(c.ask(request("execute", {{"cmd", "/bin/echo"}, {"args", "out"}})), data("out\n"));
  const int pid = start_process(c, "/bin/echo", "bk");
  ASSERT_GT(pid, 0);
  ASSERT_EQ(final_state(c, pid), state("PASSED", 0, "/bin/echo", "bk"));
  EXPECT_EQ(c.ask(request("process_getDetails", {{"pid", std::to_string(pid)}, {"rp", "0"}, {"src", "stdout"}})),
            data("bk\n"));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "stderr"}})), data("err\n", "text/ascii"));
  EXPECT_EQ(read_file(sb_.path("/tmp/victim")), "keep");
}

}  // namespace
}  // namespace kolta_test

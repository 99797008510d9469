// The command line's own pieces: host lists, quoting for the device's shell
// and the daemon's splitter, option parsing, line prefixes, reply fields.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/fanout.h"
#include "cli/process_commands.h"
#include "cli/progress.h"
#include "cli/remote_run.h"
#include "cli/shell_words.h"
#include "cli/target.h"
#include "cli/transfer.h"

namespace {

// What /bin/sh makes of `line`: its words, one per line.
std::string shell_words_of(const std::string& line) {
  std::string command = "printf '%s\\n' " + line;
  FILE* p = ::popen(command.c_str(), "r");
  std::string out;
  char buf[256];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  ::pclose(p);
  return out;
}

std::string parse(const char* name, std::vector<const char*> words, command_args* args) {
  std::vector<char*> argv;
  for (const char* w : words) argv.push_back(const_cast<char*>(w));
  return parse_command_args(*find_command(name), argv, args);
}

}  // namespace

TEST(KoltaTargets, HostListsWithPortsAndAddresses) {
  std::string why;
  auto t = parse_targets("a,b:10001,[::1]:7,fe80::2,[::1]", 10000, &why);
  ASSERT_TRUE(t) << why;
  ASSERT_EQ(t->size(), 5u);
  EXPECT_EQ((*t)[0].host, "a");
  EXPECT_EQ((*t)[0].port, 10000);
  EXPECT_EQ((*t)[1].host, "b");
  EXPECT_EQ((*t)[1].port, 10001);
  EXPECT_EQ((*t)[1].label, "b:10001");
  EXPECT_EQ((*t)[2].host, "::1");
  EXPECT_EQ((*t)[2].port, 7);
  EXPECT_EQ((*t)[3].host, "fe80::2");  // a bare IPv6 address keeps the default port
  EXPECT_EQ((*t)[3].port, 10000);
  EXPECT_EQ(endpoint_text((*t)[2]), "[::1]:7");
  EXPECT_EQ(endpoint_text((*t)[0]), "a:10000");
  for (const char* bad : {"", "a,,b", "a:", "a:0", "a:65536", "a:x", "[::1", "[::1]x", ":5"})
    EXPECT_FALSE(parse_targets(bad, 10000, &why)) << bad;
}

TEST(KoltaWords, ShellQuotingSurvivesTheShell) {
  for (std::string word : {"plain", "two  blanks", "it's", "'", "$HOME `x` \"q\" \\n *", ""}) {
    EXPECT_EQ(shell_words_of(shell_quote(word)), word + "\n") << word;
  }
  std::vector<std::string> words = {"a b", "c'd"};
  EXPECT_EQ(shell_words_of(shell_command(words)), "a b\nc'd\n");
}

TEST(KoltaWords, SplitterArgumentsPassOnlyWhatTheDaemonKeeps) {
  std::string why;
  std::vector<std::string> ok = {"-c", "\"a b\"", "x"};
  EXPECT_EQ(splitter_args(ok, &why).value_or("?"), "-c \"a b\" x");
  for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
           {}, {""}, {"a b"}, {"\"open", "next"}, std::vector<std::string>(63, "w")})
    EXPECT_FALSE(splitter_args(bad, &why));
  std::vector<std::string> last_open = {"x", "\"open"};  // nothing follows to be swallowed
  EXPECT_TRUE(splitter_args(last_open, &why));
}

TEST(KoltaCommandArgs, OptionsWordsAndUsage) {
  command_args a;
  EXPECT_EQ(parse("exec", {"/bin/ls", "-l", "--timeout", "5"}, &a), "");
  EXPECT_EQ(a.words, (std::vector<std::string>{"/bin/ls", "-l"}));
  EXPECT_EQ(a.timeout.value_or(""), "5");

  command_args b;  // before the program, and its own options stay its own
  EXPECT_EQ(parse("exec", {"-n", "--timeout", "0.5", "prog", "--remove", "-n"}, &b), "");
  EXPECT_EQ(b.words, (std::vector<std::string>{"prog", "--remove", "-n"}));
  EXPECT_EQ(b.timeout.value_or(""), "0.5");
  EXPECT_TRUE(b.no_input);
  EXPECT_TRUE(parse_limit("0.001") && !parse_limit("0") && !parse_limit("-1") && !parse_limit("1s"));

  command_args c;
  EXPECT_EQ(parse("state", {"--remove", "42"}, &c), "");
  EXPECT_TRUE(c.remove);
  command_args d;
  EXPECT_EQ(parse("sh", {"ls", "-l"}, &d), "");
  EXPECT_EQ(d.words, (std::vector<std::string>{"ls", "-l"}));

  command_args e;
  EXPECT_EQ(parse("get", {"x", "--help"}, &e), "");
  EXPECT_TRUE(e.help);

  // --wait takes a number of seconds when one follows, else the default.
  command_args f, g, h;
  EXPECT_EQ(parse("reboot", {"warm", "--wait", "20"}, &f), "");
  EXPECT_EQ(f.words, std::vector<std::string>{"warm"});
  EXPECT_EQ(f.reboot_wait.value_or(-1), 20);
  EXPECT_EQ(parse("reboot", {"--wait", "cold"}, &g), "");
  EXPECT_EQ(g.words, std::vector<std::string>{"cold"});
  EXPECT_EQ(g.reboot_wait.value_or(-1), kDefaultWaitSeconds);
  EXPECT_EQ(parse("reboot", {"warm"}, &h), "");
  EXPECT_FALSE(h.reboot_wait.has_value());

  for (auto [name, words] : std::vector<std::pair<const char*, std::vector<const char*>>>{
           {"reboot", {"warm", "--wait", "20", "x"}}, {"wait-online", {"--timeout", "soon"}},
           {"test", {"--wait"}}, {"wait-online", {"now"}},
           {"put", {"one"}}, {"stop", {"x1"}}, {"state", {"1", "--timeout", "3"}},
           {"reboot", {"Warm"}}, {"output", {"1", "stdin"}}, {"setup", {"exec_type"}},
           {"wait", {"1", "--timeout", "soon"}}, {"exec", {"p", "--timeout", "-1"}},
           {"exec", {"p", "--timeout", "0"}}, {"sh", {"x", "--timeout", "soon"}},
           {"state", {"1", "-n"}},
           {"raw", {"x", "--body"}}, {"test", {"extra"}}}) {
    command_args x;
    EXPECT_NE(parse(name, words, &x), "") << name;
  }
}

TEST(KoltaOutput, LinesOfSeveralHostsArePrefixed) {
  std::string pending;
  EXPECT_EQ(prefix_lines("h: ", &pending, "a\nb", false), "h: a\n");
  EXPECT_EQ(prefix_lines("h: ", &pending, "c\n\n", false), "h: bc\nh: \n");
  EXPECT_EQ(prefix_lines("h: ", &pending, "tail", true), "h: tail\n");
  EXPECT_EQ(prefix_lines("h: ", &pending, "", true), "");
}

TEST(KoltaReplies, FieldsStatusesAndProgress) {
  std::string body = "STATE=PASSED\nEXITCODE=0\nMSG=a=b\nPID=12";
  EXPECT_EQ(field_of(body, "STATE"), "PASSED");
  EXPECT_EQ(field_of(body, "MSG"), "a=b");
  EXPECT_EQ(field_of(body, "PID"), "12");
  EXPECT_EQ(field_of(body, "CODE"), "");

  EXPECT_EQ(progress_text(1 << 20, 4 << 20, 1.0), "1.0 MiB / 4.0 MiB   1.0 MiB/s   0:03 left");
  EXPECT_EQ(progress_text(4 << 20, 4 << 20, 2.0), "4.0 MiB / 4.0 MiB   2.0 MiB/s   2.0 s");
  EXPECT_EQ(progress_text(0, 4 << 20, 0.0), "0 B / 4.0 MiB   0 B/s   --:-- left");
}

TEST(KoltaTransfer, LocalNamesForGet) {
  EXPECT_EQ(local_name_for("/var/log/messages", ""), "messages");
  EXPECT_EQ(local_name_for("/var/log/", ""), "log");
  EXPECT_EQ(local_name_for("plain", ""), "plain");
  EXPECT_EQ(local_name_for("/var/log/messages", "copy"), "copy");
  EXPECT_EQ(local_name_for("/var/log/messages", "/tmp"), "/tmp/messages");
  EXPECT_EQ(local_name_for("/var/log/messages", "/tmp/"), "/tmp/messages");
}

// kolta, the command-line client, run as a script would run it against
// sandboxed daemons: its output, its messages and its exit statuses.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <cerrno>
#include <ostream>
#include <sstream>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

namespace fs = std::filesystem;

struct run_result {
  int status = -1;  // exit status, 128+N for signal N, -1 when it had to be killed
  std::string out, err;
};

std::ostream& operator<<(std::ostream& os, const run_result& r) {
  auto cut = [](const std::string& s) { return s.size() > 600 ? s.substr(0, 600) + "..." : s; };
  return os << "status " << r.status << "\n--- stdout ---\n" << cut(r.out) << "\n--- stderr ---\n"
            << cut(r.err);
}

struct run_options {
  std::vector<std::string> env = {};  // NAME=VALUE added to the environment
  long file_size_limit = -1;     // RLIMIT_FSIZE for kolta, with SIGXFSZ ignored
  std::string input_file = "/dev/null";  // kolta's standard input
};

// Runs kolta with `args` (standard input: /dev/null) and collects both of
// its outputs. KOLTA_HOST and KOLTA_PORT are only there when `options` sets them.
run_result run_kolta(const std::vector<std::string>& args, const run_options& options = {}) {
  std::vector<std::string> argv_text{KOLTA_PATH};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<std::string> env_text;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view v(*e);
    if (!v.starts_with("KOLTA_HOST=") && !v.starts_with("KOLTA_PORT=")) env_text.emplace_back(v);
  }
  env_text.insert(env_text.end(), options.env.begin(), options.env.end());
  std::vector<char*> argv, envp;
  for (std::string& a : argv_text) argv.push_back(a.data());
  for (std::string& e : env_text) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  run_result r;
  int out[2], err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return r;
  const pid_t pid = ::fork();
  if (pid == 0) {
    int in = ::open(options.input_file.c_str(), O_RDONLY);
    ::dup2(in, STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(err[1], STDERR_FILENO);
    if (options.file_size_limit >= 0) {
      ::signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{static_cast<rlim_t>(options.file_size_limit),
                         static_cast<rlim_t>(options.file_size_limit)};
      ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(err[1]);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&r.out, &r.err};
  int open_streams = 2;
  bool hung = false;
  while (open_streams > 0 && pid > 0) {
    // A guard against a hanging client only: five minutes without any output.
    int n = ::poll(fds, 2, 300000);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      hung = true;
      ::kill(pid, SIGKILL);
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char block[65536];
      ssize_t got = ::read(fds[i].fd, block, sizeof block);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open_streams;
      } else {
        sinks[i]->append(block, static_cast<std::size_t>(got));
      }
    }
  }
  for (pollfd& p : fds)
    if (p.fd >= 0) ::close(p.fd);
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid && !hung)
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::ranges::sort(lines);
  return lines;
}

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

class KoltaCli : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    local_ = sb_.host_dir() + "/local";  // the client's side, outside the sandbox
    fs::create_directory(local_);
  }

  run_result kolta(std::vector<std::string> args, const run_options& options = {}) {
    args.insert(args.begin(), {"-H", "127.0.0.1", "-p", std::to_string(sb_.port())});
    return run_kolta(args, options);
  }
  std::string where() const { return "127.0.0.1:" + std::to_string(sb_.port()); }

  // The client's scratch files still in the device's /tmp.
  std::vector<std::string> scratch_left() {
    std::vector<std::string> left = names_in(sb_.path("/tmp"));
    std::erase_if(left, [](const std::string& n) { return !n.starts_with("kolta-cli-"); });
    return left;
  }

  std::string local_;
};

TEST_F(KoltaCli, ExitStatusesAndMessages) {
  const std::string dead = std::to_string(free_port());
  run_result r = run_kolta({"-H", "127.0.0.1", "-p", dead, "test"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.err, "kolta: cannot connect to 127.0.0.1:" + dead +
                       ": Connection refused (is koltad running?)\n");

  r = kolta({"get", "/tmp/missing", local_ + "/got"});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_EQ(r.err, "kolta: " + where() + ": \"getFile\" failed: File not found.\n");
  EXPECT_TRUE(fs::is_empty(local_));

  // Usage errors are found before anything is sent.
  const std::pair<std::vector<std::string>, std::string> usage_errors[] = {
      {{}, "no command given"},
      {{"frob"}, "unknown command 'frob'"},
      {{"reboot", "Warm"}, "reboot takes warm or cold, not 'Warm'"},
      {{"wait", "12x"}, "PID must be a number, not '12x'"},
      {{"put", "only-one"}, "usage: kolta [options] put LOCAL REMOTE"},
  };
  for (const auto& [args, message] : usage_errors) {
    r = kolta(args);
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_EQ(r.err, "kolta: " + message + " (kolta --help tells more)\n");
    EXPECT_EQ(r.out, "");
  }
  EXPECT_EQ(sb_.log(Sandbox::Log::power), "");

  r = kolta({"sh", "exit 7"});
  EXPECT_EQ(r.status, 7) << r;
  EXPECT_EQ(r.out + r.err, "");
  r = kolta({"sh", "kill -9 $$"});
  EXPECT_EQ(r.status, 137) << r;

  // A program's own status 3 (or 4) is not one of the tool's statuses.
  r = kolta({"exec", "/bin/sh", "-c", "echo out; echo oops >&2; exit 3"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.out, "out\n");
  EXPECT_EQ(r.err, "oops\n");
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});
}

// The process ids that a command wrote into the device's /tmp/NAME, and
// whether each has ended (a zombie counts as ended).
bool ended(pid_t pid) {
  for (int i = 0; i < 250; ++i) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    auto close = stat.rfind(')');
    if (stat.empty() || (close != std::string::npos && close + 2 < stat.size() &&
                         (stat[close + 2] == 'Z' || stat[close + 2] == 'X')))
      return true;
    ::usleep(20000);
  }
  return false;
}

TEST_F(KoltaCli, TimeLimitsStopTheCommandAndWhatItStarted) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"sh", "echo started; echo warn >&2; echo $$ >/tmp/top; sleep 300 & echo $! >/tmp/child; wait",
        "--timeout", "1"},
       "the command"},
      {{"exec", "--timeout", "0.5", "/bin/sh", "-c",
        "echo started; echo warn >&2; echo $$ >/tmp/top; sleep 300 & echo $! >/tmp/child; wait"},
       "/bin/sh"},
  };
  for (const auto& [args, what] : cases) {
    run_result r = kolta(args);
    EXPECT_EQ(r.status, 124) << r;
    EXPECT_EQ(r.out, "started\n");
    EXPECT_EQ(r.err, "warn\nkolta: " + where() + ": " + what + " was still running after " +
                         args[args[1] == "--timeout" ? 2 : 3] + " s and was stopped (raise it with --timeout)\n");
    for (const char* name : {"/tmp/top", "/tmp/child"}) {
      pid_t pid = std::atoi(read_file(sb_.path(name)).c_str());
      ASSERT_GT(pid, 0) << name;
      EXPECT_TRUE(ended(pid)) << name << " " << pid << " still runs";
    }
    EXPECT_EQ(scratch_left(), std::vector<std::string>{});
  }

  // Without --timeout, sh waits for -t and then stops the command too.
  run_result late = run_kolta({"-H", "127.0.0.1", "-p", std::to_string(sb_.port()), "-t", "1", "sh",
                               "echo $$ >/tmp/top; sleep 300"});
  EXPECT_EQ(late.status, 3) << late;
  EXPECT_EQ(late.err, "kolta: " + where() +
                          ": no answer to \"execute\" within 1 s; the command was stopped (raise the "
                          "limit with -t, or give --timeout)\n");
  EXPECT_TRUE(ended(std::atoi(read_file(sb_.path("/tmp/top")).c_str())));
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});

  // A command that ends in time, and limits that are refused before anything is sent.
  run_result r = kolta({"exec", "--timeout", "5", "/bin/sh", "-c", "sleep 0.2; echo done"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, "done\n");
  for (const char* bad : {"0", "-1", "soon"}) {
    r = kolta({"sh", "true", "--timeout", bad});
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_EQ(r.err, "kolta: --timeout needs a number of seconds above 0, not '" + std::string(bad) +
                         "' (kolta --help tells more)\n");
  }
}

TEST_F(KoltaCli, StandardInputReachesTheCommand) {
  std::string every_byte;
  for (int i = 0; i < 1024; ++i) every_byte.push_back(static_cast<char>(i & 0xff));
  const std::string bytes_file = local_ + "/bytes", big_file = local_ + "/big", empty = local_ + "/empty";
  std::ofstream(bytes_file, std::ios::binary) << every_byte;
  const std::string big = random_bytes(std::size_t{8} << 20, 5);
  std::ofstream(big_file, std::ios::binary) << big;
  std::ofstream(empty).close();

  run_result r = kolta({"sh", "cat"}, {.input_file = bytes_file});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out == every_byte) << "binary input came back different";
  r = kolta({"exec", "/bin/cat"}, {.input_file = bytes_file});
  EXPECT_TRUE(r.out == every_byte) << r;
  r = kolta({"sh", "md5sum"}, {.input_file = big_file});
  EXPECT_EQ(r.out.substr(0, 32), md5_text(big, false)) << r;
  for (const std::string& source : {empty, std::string("/dev/null")}) {
    r = kolta({"sh", "wc -c"}, {.input_file = source});
    EXPECT_EQ(r.out, "0\n") << r;
  }
  r = kolta({"sh", "-n", "wc -c"}, {.input_file = bytes_file});
  EXPECT_EQ(r.out, "0\n") << r;
  r = run_kolta({"-n", "-H", "127.0.0.1", "-p", std::to_string(sb_.port()), "exec", "wc", "-c"},
                {.input_file = bytes_file});
  EXPECT_EQ(r.out, "0\n") << r;

  Sandbox second;
  ASSERT_TRUE(second.start()) << second.error();
  const std::string a = "127.0.0.1:" + std::to_string(sb_.port()),
                    b = "127.0.0.1:" + std::to_string(second.port());
  r = run_kolta({"-H", a + "," + b, "sh", "md5sum"}, {.input_file = big_file});
  EXPECT_EQ(r.status, 0) << r;
  std::vector<std::string> expected = {a + ": " + md5_text(big, false) + "  -",
                                       b + ": " + md5_text(big, false) + "  -"};
  std::ranges::sort(expected);
  EXPECT_EQ(sorted_lines(r.out), expected);
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});
}

TEST_F(KoltaCli, PutAndGetAreByteExact) {
  const std::string body = random_bytes(std::size_t{64} << 20, 11);
  const std::string src = local_ + "/big.bin", in = local_ + "/in";
  std::ofstream(src, std::ios::binary) << body;
  fs::create_directory(in);

  run_result r = kolta({"put", src, "/tmp/big.bin"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out + r.err, "");  // no progress bar without a terminal
  EXPECT_TRUE(read_file(sb_.path("/tmp/big.bin")) == body) << "the device's copy differs";

  r = kolta({"get", "/tmp/big.bin", in});  // into a directory: under its remote name
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(read_file(in + "/big.bin") == body) << "the download differs";
  r = kolta({"get", "/tmp/big.bin", "-"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.size(), body.size());
  EXPECT_TRUE(r.out == body) << "the download to standard output differs";

  // A download that breaks off (the local disk "full" after 1 MiB) leaves
  // neither the file nor its partial copy.
  r = kolta({"get", "/tmp/big.bin", in + "/cut.bin"}, {.env = {}, .file_size_limit = 1 << 20});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_NE(r.err.find("File too large"), std::string::npos) << r;
  EXPECT_EQ(names_in(in), std::vector<std::string>{"big.bin"});

  // /dev/null takes the upload and keeps nothing: the check must notice.
  const std::string small = random_bytes(1000, 12);
  std::ofstream(local_ + "/small.bin", std::ios::binary) << small;
  r = kolta({"put", local_ + "/small.bin", "/dev/null"});
  EXPECT_EQ(r.status, 4) << r;
  EXPECT_EQ(r.err, "kolta: " + where() + ": the copy at /dev/null differs from " + local_ +
                       "/small.bin (MD5 " + md5_text("") + ", expected " + md5_text(small) +
                       "): send it again\n");

  r = kolta({"rm", "/tmp/big.bin"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_FALSE(exists("/tmp/big.bin"));
  r = kolta({"rm", "/tmp/big.bin"});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_EQ(r.err, "kolta: " + where() + ": \"remFile\" failed: File not found.\n");
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});
}

TEST_F(KoltaCli, ShellCommandsOfAnyLengthAndOutput) {
  const std::string word(995, 'w');
  run_result r = kolta({"sh", "echo " + word});  // 1000 characters
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, word + "\n");

  std::string numbers;
  for (int i = 1; i <= 5000; ++i) numbers += std::to_string(i) + "\n";
  r = kolta({"sh", "seq 1 5000; echo warn >&2"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, numbers);  // far more than the 8 KiB of a "system" reply
  EXPECT_EQ(r.err, "warn\n");

  r = kolta({"sh", "echo", "a", "b"});
  EXPECT_EQ(r.out, "a b\n") << r;

  // Commands running at the same time each get their own output back.
  std::vector<run_result> results(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      const std::string n = std::to_string(i);
      results[i] = kolta({"sh", "sleep 0.5; echo task-" + n + "; echo err-" + n + " >&2"});
    });
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(results[i].status, 0) << results[i];
    EXPECT_EQ(results[i].out, "task-" + std::to_string(i) + "\n");
    EXPECT_EQ(results[i].err, "err-" + std::to_string(i) + "\n");
  }
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});

  // Ctrl-C while the command runs: kolta ends as SIGINT would have ended it
  // and leaves none of its files on the device.
  const pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    const std::string port = std::to_string(sb_.port());
    ::execl(KOLTA_PATH, KOLTA_PATH, "-H", "127.0.0.1", "-p", port.c_str(), "sh", "sleep 30",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  auto running = [&] {
    return std::ranges::any_of(scratch_left(), [](const std::string& n) { return n.ends_with(".out"); });
  };
  for (int i = 0; i < 500 && !running(); ++i) ::usleep(20000);
  EXPECT_TRUE(running());
  ::kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status;
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});
}

TEST_F(KoltaCli, BackgroundProcesses) {
  run_result r = kolta({"start", "/bin/sh", "-c", R"(printf '%s|' "$@"; echo err >&2; exit 5)",
                        "sh", "a  b", "\"q\"", "it's"});
  ASSERT_EQ(r.status, 0) << r;
  ASSERT_FALSE(r.out.empty());
  const std::string pid = r.out.substr(0, r.out.size() - 1);
  ASSERT_EQ(r.out, std::to_string(std::atoi(pid.c_str())) + "\n");

  r = kolta({"wait", pid});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("STATE=FAILED\nEXITCODE=5\n")) << r;
  r = kolta({"output", pid});
  EXPECT_EQ(r.out, "a  b|\"q\"|it's|") << r;  // the arguments exactly
  r = kolta({"output", pid, "stderr"});
  EXPECT_EQ(r.out, "err\n") << r;
  r = kolta({"state", pid, "--remove"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("STATE=FAILED\nEXITCODE=5\n")) << r;
  r = kolta({"state", pid});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_EQ(r.err, "kolta: " + where() +
                       ": \"process_getState\" failed: ERROR: cannot read process state ! ( your "
                       "requested process id doesn't exist ! )\n");

  // A bare program name, still running when the wait gives up, then stopped.
  r = kolta({"start", "sleep", "30"});
  ASSERT_EQ(r.status, 0) << r;
  const std::string sleeper = r.out.substr(0, r.out.size() - 1);
  r = kolta({"wait", sleeper, "--timeout", "0.3"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.err, "kolta: " + where() + ": process " + sleeper + " is still running after 0.3 s\n");
  r = kolta({"stop", sleeper});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("STATE=DIED\nEXITCODE=15\n")) << r;
  EXPECT_NE(::kill(std::atoi(sleeper.c_str()), 0), 0) << "the stopped process is still there";
  r = kolta({"state", sleeper});
  EXPECT_TRUE(r.out.starts_with("STATE=DIED\n")) << r;
  EXPECT_EQ(scratch_left(), std::vector<std::string>{});
}

TEST_F(KoltaCli, SeveralHostsAtOnce) {
  Sandbox second, third;
  ASSERT_TRUE(second.start()) << second.error();
  ASSERT_TRUE(third.start()) << third.error();
  const Sandbox* all[] = {&sb_, &second, &third};
  const std::string codes[] = {"2", "5", "3"};
  std::string hosts;
  std::vector<std::string> expected_out, expected_err, labels;
  for (int i = 0; i < 3; ++i) {
    std::ofstream(all[i]->path("/tmp/n")) << codes[i] << "\n";
    labels.push_back("127.0.0.1:" + std::to_string(all[i]->port()));
    hosts += (i ? "," : "") + labels.back();
    expected_out.push_back(labels.back() + ": " + codes[i]);
    expected_err.push_back(labels.back() + ": note");
  }
  std::ranges::sort(expected_out);
  std::ranges::sort(expected_err);

  run_result r = run_kolta({"-H", hosts, "sh", "cat /tmp/n; echo note >&2; exit $(cat /tmp/n)"});
  EXPECT_EQ(r.status, 5) << r;  // the largest
  EXPECT_EQ(sorted_lines(r.out), expected_out) << r;
  EXPECT_EQ(sorted_lines(r.err), expected_err) << r;

  r = run_kolta({"-H", hosts, "get", "/tmp/n", local_});
  EXPECT_EQ(r.status, 0) << r;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read_file(local_ + "/n." + labels[i]), codes[i] + "\n");

  const std::string dead = "127.0.0.1:" + std::to_string(free_port());
  r = run_kolta({"-H", hosts + "," + dead, "test"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, dead + ": kolta: cannot connect to " + dead +
                       ": Connection refused (is koltad running?)\n");
}

TEST_F(KoltaCli, DeviceCommandsAndEnvironment) {
  run_result r = run_kolta({"--version"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("kolta ")) << r;
  r = run_kolta({"--help"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("usage: kolta [-H host[,host...]]")) << r;
  r = run_kolta({"sh", "--help"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("usage: kolta [options] sh [-n] 'COMMAND' [--timeout S]\n\n")) << r;

  r = kolta({"test"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out + r.err, "");
  r = kolta({"version"});
  EXPECT_TRUE(r.out.starts_with("DEVICE=KOLTA\nVERSION_SW=05.00\n")) << r;

  r = kolta({"setup", "exec_type=rmd"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_TRUE(r.out.starts_with("LoadMethode=")) << r;
  EXPECT_NE(r.out.find("\nexec_type=rmd\n"), std::string::npos) << r;
  r = kolta({"setup", "LoadMethode=x"});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_EQ(r.err, "kolta: " + where() + ": \"server_setup\" failed: unknown 'LoadMethode' = 'x'\n");
  EXPECT_EQ(kolta({"reset"}).status, 0);

  r = kolta({"raw", "getFile", "file=/tmp/missing"});
  EXPECT_EQ(r.status, 1) << r;
  EXPECT_EQ(r.out, "Reply: Fail\nReason: File not found.\n\n");
  const std::string text = "raw body\n";
  std::ofstream(local_ + "/body.txt") << text;
  r = kolta({"raw", "putFile", "file=/tmp/raw.txt", "md5_sig=" + md5_text(text), "--body",
             local_ + "/body.txt"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(read_file(sb_.path("/tmp/raw.txt")), text);
  r = kolta({"raw", "getFile", "file=/tmp/raw.txt"});
  EXPECT_EQ(r.out, "Reply: Data\nContent-length: 9\nContent-Type: file/binary\n\n" + text) << r;

  // The device from the environment; -p wins over KOLTA_PORT.
  const std::string port = std::to_string(sb_.port()), dead = std::to_string(free_port());
  EXPECT_EQ(run_kolta({"test"}, {.env = {"KOLTA_HOST=127.0.0.1", "KOLTA_PORT=" + port}}).status, 0);
  EXPECT_EQ(run_kolta({"test"}, {.env = {"KOLTA_HOST=127.0.0.1:" + port}}).status, 0);
  EXPECT_EQ(run_kolta({"-p", port, "test"}, {.env = {"KOLTA_HOST=127.0.0.1", "KOLTA_PORT=" + dead}})
                .status,
            0);
  r = run_kolta({"test"}, {.env = {"KOLTA_HOST=127.0.0.1", "KOLTA_PORT=" + dead}});
  EXPECT_EQ(r.status, 3) << r;
  r = run_kolta({"test"});
  EXPECT_EQ(r.status, 2) << r;
  EXPECT_EQ(r.err, "kolta: no device given: use -H host or set KOLTA_HOST (kolta --help tells more)\n");

  r = kolta({"shutdown"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, "SH_TIME=15\n");
  EXPECT_TRUE(sb_.wait_log("shutdown -h", 10000, Sandbox::Log::power));
  EXPECT_EQ(kolta({"reboot", "warm"}).status, 0);
  EXPECT_TRUE(sb_.wait_log("init 6", 10000, Sandbox::Log::power));
  EXPECT_EQ(kolta({"reboot", "cold"}).status, 0);
  EXPECT_TRUE(sb_.wait_log("shutdown -r now", 10000, Sandbox::Log::power))
      << sb_.log(Sandbox::Log::power);

  r = kolta({"exit"});
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(sb_.wait_exit(10000).has_value()) << "the daemon still runs";
  EXPECT_EQ(kolta({"test"}).status, 3);
}


// Waiting for a device: the sandbox acts out a reboot by ending the daemon
// (its power stubs) and the test starts it again on the same port, with
// another boot id when the device is meant to have rebooted.
class KoltaWaits : public ::testing::Test {
 protected:
  void SetUp() override { KOLTA_REQUIRE_SANDBOX(); }

  // A daemon on `port` (0: a free one) reading `boot_id` as the kernel's boot id.
  std::unique_ptr<Sandbox> boot(const std::string& boot_id, int port = 0) {
    auto sb = std::make_unique<Sandbox>();
    SandboxOptions options{.boot_id = boot_id, .reboot_ends_daemon = true};
    if (port != 0) options.config = "port=" + std::to_string(port) + "\n";
    EXPECT_TRUE(sb->start(options)) << sb->error();
    if (port_ == 0) port_ = sb->port();
    return sb;
  }
  run_result kolta(std::vector<std::string> args) {
    args.insert(args.begin(), {"-H", "127.0.0.1", "-p", std::to_string(port_)});
    return run_kolta(args);
  }
  std::string where() const { return "127.0.0.1:" + std::to_string(port_); }

  int port_ = 0;
};

TEST_F(KoltaWaits, WaitOnlineUntilTheDaemonAnswers) {
  port_ = free_port();
  run_result r = kolta({"wait-online", "--timeout", "1"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.err, "kolta: " + where() +
                       " did not answer within 1 s (last try: cannot connect: "
                       "Connection refused)\n");
  // A daemon that comes up while kolta waits.
  auto waiting = std::async(std::launch::async, [&] { return kolta({"wait-online"}); });
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  auto sb = boot("boot-1", port_);
  r = waiting.get();
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out + r.err, "");
  EXPECT_EQ(kolta({"wait-online", "--timeout", "x"}).status, 2);
}

TEST_F(KoltaWaits, RebootWaitReturnsOnceBootedAnew) {
  auto first = boot("boot-1");
  auto waiting =
      std::async(std::launch::async, [&] { return kolta({"reboot", "warm", "--wait", "30"}); });
  ASSERT_TRUE(first->wait_exit(15000).has_value()) << "the reboot stub did not end the daemon";
  EXPECT_EQ(first->log(Sandbox::Log::power), "/sbin/init 6\n");
  auto second = boot("boot-2", port_);
  run_result r = waiting.get();
  EXPECT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out + r.err, "");
}

TEST_F(KoltaWaits, RebootThatDidNotHappenIsAnError) {
  // Init did nothing: the device answers throughout with its boot id.
  auto stays = std::make_unique<Sandbox>();
  ASSERT_TRUE(stays->start({.boot_id = "boot-1"})) << stays->error();
  port_ = stays->port();
  run_result r = kolta({"reboot", "cold", "--wait", "2"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_EQ(r.err, "kolta: " + where() +
                       " did not reboot: it kept answering with the same boot id for 2 s (it "
                       "never went down)\n");
  EXPECT_TRUE(stays->wait_log("shutdown -r now", 5000, Sandbox::Log::power));
  stays.reset();

  // It went down and stayed down.
  port_ = 0;
  auto gone = boot("boot-1");
  r = kolta({"reboot", "warm", "--wait", "5"});
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_TRUE(r.err.starts_with("kolta: " + where() + " went down ")) << r;
  EXPECT_NE(r.err.find("after the reboot request and did not answer again within 5 s (last try: "),
            std::string::npos)
      << r;

  // Only the daemon came back: the boot id is the old one.
  gone.reset();
  auto before = boot("boot-1", port_);
  auto waiting =
      std::async(std::launch::async, [&] { return kolta({"reboot", "warm", "--wait", "8"}); });
  ASSERT_TRUE(before->wait_exit(15000).has_value()) << "the reboot stub did not end the daemon";
  auto after = boot("boot-1", port_);
  r = waiting.get();
  EXPECT_EQ(r.status, 3) << r;
  EXPECT_NE(r.err.find(" with the same boot id (the daemon restarted, the device did not)\n"),
            std::string::npos)
      << r;
}

}  // namespace
}  // namespace kolta_test

#include "tests/support/sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "lib/unique_fd.h"

namespace kolta_test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr char kPowerStub[] = "#!/bin/sh\necho \"$0 $*\" >> /etc/kolta/power.log\n";

bool write_file(const std::string& path, std::string_view text, mode_t mode = 0644) {
  unique_fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode));
  return fd.ok() &&
         ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool overlay(const std::string& target, const std::string& upper, const std::string& work) {
  std::string opts = "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
  return ::mount("overlay", target.c_str(), "overlay", 0, opts.c_str()) == 0;
}

// `name` when it holds a slash, else its first executable match on PATH;
// empty when there is none.
std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

const std::string& sandbox_unavailable_reason() {
  static const std::string reason = [] {
    pid_t child = fork();
    if (child == 0) {
      _exit(::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0);
    }
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && status == 0) return std::string();
    return std::string("unshare(CLONE_NEWNS|CLONE_NEWIPC) and a private tmpfs mount failed");
  }();
  return reason;
}

int free_port() {
  unique_fd fd(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (!fd.ok() || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    return 0;
  }
  return ntohs(a.sin_port);
}

double cpu_seconds(pid_t pid) {
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(stat.substr(close + 2));
  std::string skip;
  for (int i = 3; i < 14; ++i) fields >> skip;  // state .. cmajflt
  long utime = 0, stime = 0;
  if (!(fields >> utime >> stime)) return -1;
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool Sandbox::fail(std::string why) {
  error_ = std::move(why);
  if (pid_ > 0) error_ += "\n--- stdout ---\n" + log() + "\n--- stderr ---\n" + log(Log::err);
  return false;
}

bool Sandbox::start(const SandboxOptions& options) {
  char tmpl[] = "/tmp/koltatest-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) return fail("mkdtemp failed");
  dir_ = tmpl;

  std::string config = options.config;
  if (std::size_t at = config.find("@PORT@"); at != std::string::npos) {
    port_ = free_port();
    config.replace(at, 6, std::to_string(port_));
  }
  std::error_code ec;
  for (const char* sub : {"etc/kolta", "etc.work", "sbin", "sbin.work"})
    fs::create_directories(dir_ + "/" + sub, ec);
  if (!write_file(dir_ + "/etc/kolta/kolta.conf", config) ||
      !write_file(dir_ + "/sbin/shutdown", kPowerStub, 0755) ||
      !write_file(dir_ + "/sbin/init", kPowerStub, 0755)) {
    return fail("cannot prepare " + dir_);
  }

  // Everything the child needs is prepared before the fork.
  const std::string etc = dir_ + "/etc", etc_work = dir_ + "/etc.work";
  const std::string sbin = dir_ + "/sbin", sbin_work = dir_ + "/sbin.work";
  std::string daemon = options.daemon;
  if (daemon.empty()) {
    const char* chosen = std::getenv("KOLTA_TEST_DAEMON");
    daemon = chosen != nullptr && *chosen != '\0' ? chosen : KOLTAD_PATH;
  }
  const bool empty_root = !options.empty_root_shell.empty();
  if (empty_root) {
    // The sandbox's directory becomes the root: etc/kolta and sbin are
    // already in place.
    for (const char* sub : {"bin", "usr/sbin", "tmp", "dev"}) fs::create_directories(dir_ + "/" + sub, ec);
    const auto copy = fs::copy_options::overwrite_existing;
    if (!fs::copy_file(options.empty_root_shell, dir_ + "/bin/sh", copy, ec) ||
        !fs::copy_file(daemon, dir_ + "/usr/sbin/koltad", copy, ec) ||
        !write_file(dir_ + "/dev/null", "")) {
      return fail("cannot make the root in " + dir_ + ": " + ec.message());
    }
    daemon = dir_ + "/usr/sbin/koltad";
  }
  std::vector<std::string> args;
  if (options.emulator.empty()) {
    args.push_back(daemon);
  } else if (empty_root) {
    std::string program = find_program(options.emulator.front());
    if (program.empty()) return fail("emulator not found: " + options.emulator.front());
    args = options.emulator;
    args.front() = program;
    args.push_back("/usr/sbin/koltad");
  } else {
    // The emulator opens the daemon by path, and the daemon's own /tmp hides
    // a build under /tmp: a copy goes to the overlaid /usr/sbin instead.
    std::string program = find_program(options.emulator.front());
    if (program.empty()) return fail("emulator not found: " + options.emulator.front());
    if (!fs::copy_file(daemon, sbin + "/koltad", fs::copy_options::overwrite_existing, ec))
      return fail("cannot copy " + daemon + ": " + ec.message());
    args = options.emulator;
    args.front() = program;
    args.push_back("/usr/sbin/koltad");
  }
  args.insert(args.end(), options.args.begin(), options.args.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  // The daemon finds "shutdown" by PATH: only the system directories, where
  // the overlaid /usr/sbin (and /sbin linked to it) holds the stubs.
  std::vector<std::string> env_strings{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  for (char** e = environ; *e != nullptr; ++e) {
    if (!std::string_view(*e).starts_with("PATH=")) env_strings.emplace_back(*e);
  }
  std::vector<char*> envp;
  for (std::string& e : env_strings) envp.push_back(e.data());
  envp.push_back(nullptr);
  unique_fd out_log(
      ::open((dir_ + "/stdout.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  unique_fd err_log(
      ::open((dir_ + "/stderr.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out_log.ok() || !err_log.ok()) return fail("cannot open the log files");

  // The binary (the daemon or its emulator) may live under /tmp, which the
  // sandbox hides: hold it open.
  unique_fd binary(::open(argv[0], O_PATH | O_CLOEXEC));
  if (!binary.ok()) return fail(std::string("cannot open ") + argv[0]);

  // Workers orphaned by the daemon's end become ours, so stop() can reap them.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  pid_ = fork();
  if (pid_ < 0) return fail("fork failed");
  if (pid_ == 0) {
    ::dup2(err_log.get(), STDERR_FILENO);
    auto die = [](const char* what) {
      std::perror(what);
      _exit(127);
    };
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // no daemon outlives a crashed test
    if (::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) die("sandbox: unshare");
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      die("sandbox: private /");
    if (empty_root) {
      if (::mount("tmpfs", (dir_ + "/tmp").c_str(), "tmpfs", 0, nullptr) != 0)
        die("sandbox: tmpfs /tmp");
      if (::mount("/dev/null", (dir_ + "/dev/null").c_str(), nullptr, MS_BIND, nullptr) != 0)
        die("sandbox: /dev/null");
      if (::chroot(dir_.c_str()) != 0) die("sandbox: chroot");
    } else {
      if (!overlay("/etc", etc, etc_work)) die("sandbox: overlay /etc");
      if (!overlay("/usr/sbin", sbin, sbin_work)) die("sandbox: overlay /usr/sbin");
      if (::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) die("sandbox: tmpfs /tmp");
    }
    if (::setsid() < 0) die("sandbox: setsid");
    ::dup2(out_log.get(), STDOUT_FILENO);
    int devnull = ::open("/dev/null", O_RDONLY);
    if (devnull >= 0) ::dup2(devnull, STDIN_FILENO);
    if (::chdir("/") != 0) die("sandbox: chdir /");
    ::fexecve(binary.get(), argv.data(), envp.data());
    die("sandbox: fexecve");
  }

  if (!options.wait_listening) return true;
  if (wait_log("Listening... ", 10000)) {
    initial_children_ = children();
    return true;
  }
  return fail(wait_exit(0) ? "the daemon exited while starting"
                           : "no \"Listening... \" within 10 s");
}

std::string Sandbox::path(std::string_view path) const {
  return "/proc/" + std::to_string(pid_) + "/root" + std::string(path);
}

std::string Sandbox::log(Log which) const {
  switch (which) {
    case Log::out:
      return read_file(dir_ + "/stdout.log");
    case Log::err:
      return read_file(dir_ + "/stderr.log");
    case Log::power:
      return read_file(dir_ + "/etc/kolta/power.log");
  }
  return {};
}

bool Sandbox::wait_log(std::string_view needle, int timeout_ms, Log which) const {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (log(which).find(needle) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
}

std::vector<pid_t> Sandbox::children() const {
  std::string p = std::to_string(pid_);
  std::istringstream list(read_file("/proc/" + p + "/task/" + p + "/children"));
  std::vector<pid_t> pids;
  for (pid_t c; list >> c;) pids.push_back(c);
  return pids;
}

std::vector<pid_t> Sandbox::workers() const {
  std::vector<pid_t> pids = children();
  std::erase_if(pids, [this](pid_t p) { return std::ranges::count(initial_children_, p) != 0; });
  return pids;
}

std::vector<pid_t> Sandbox::group_members() const {
  std::vector<pid_t> members;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string stat = read_file("/proc/" + name + "/stat");
    std::size_t close = stat.rfind(')');
    char state = 0;
    int ppid = 0, pgrp = 0;
    if (close != std::string::npos &&
        std::sscanf(stat.c_str() + close + 2, "%c %d %d", &state, &ppid, &pgrp) == 3 &&
        pgrp == pid_ && state != 'Z') {
      members.push_back(std::stoi(name));
    }
  }
  return members;
}

std::optional<int> Sandbox::wait_exit(int timeout_ms) {
  if (status_ || pid_ <= 0) return status_;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) return status_ = status;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(10ms);
  }
}

int Sandbox::stop(int timeout_s) {
  if (pid_ <= 0) return -1;
  if (!status_) {
    ::kill(-pid_, SIGTERM);
    if (!wait_exit(timeout_s * 1000)) {
      ::kill(-pid_, SIGKILL);
      wait_exit(10000);
    }
  }
  // Workers left behind in the group go too; wait until none remains.
  for (int i = 0; i < 200 && ::kill(-pid_, SIGKILL) == 0; ++i) {
    while (waitpid(-pid_, nullptr, WNOHANG) > 0) {
    }
    if (::kill(-pid_, 0) != 0) break;
    std::this_thread::sleep_for(10ms);
  }
  return status_.value_or(-1);
}

Sandbox::~Sandbox() {
  stop();
  if (!dir_.empty()) {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
}

}  // namespace kolta_test

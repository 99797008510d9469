#include "cli/fanout.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "cli/exit_status.h"
#include "cli/interrupt.h"
#include "cli/output.h"
#include "lib/unique_fd.h"
#include "lib/system_texts.h"

namespace {

struct stream {
  unique_fd fd;
  int to;  // our descriptor the lines go to
  std::string pending;
};

struct child {
  const target* where;
  pid_t pid = -1;
  stream out, err;
};

}  // namespace

std::string prefix_lines(const std::string& prefix, std::string* pending, std::string_view chunk,
                         bool flush) {
  std::string lines;
  pending->append(chunk);
  std::size_t start = 0;
  for (std::size_t nl; (nl = pending->find('\n', start)) != std::string::npos; start = nl + 1)
    lines += prefix + pending->substr(start, nl + 1 - start);
  pending->erase(0, start);
  if (flush && !pending->empty()) {
    lines += prefix + *pending + "\n";
    pending->clear();
  }
  return lines;
}

int run_on_all(const std::vector<target>& targets, const std::function<int(const target&)>& run) {
  if (targets.size() == 1) return run(targets.front());

  std::fflush(nullptr);
  std::vector<child> children(targets.size());
  for (std::size_t i = 0; i < targets.size(); ++i) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
      std::fprintf(stderr, "kolta: pipe: %s\n", error_text(errno));
      return kExitFail;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
      catch_interrupts();
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      int status = run(targets[i]);
      std::fflush(nullptr);
      ::_exit(status);
    }
    ::close(out[1]);
    ::close(err[1]);
    // Each child tidies up after a Ctrl-C itself; this one waits for them.
    ignore_interrupts();
    children[i].where = &targets[i];
    children[i].pid = pid;
    children[i].out = {unique_fd(out[0]), STDOUT_FILENO, {}};
    children[i].err = {unique_fd(err[0]), STDERR_FILENO, {}};
    if (pid < 0) {
      std::fprintf(stderr, "kolta: fork: %s\n", error_text(errno));
      children[i].out.fd.reset();
      children[i].err.fd.reset();
    }
  }

  for (;;) {
    std::vector<pollfd> fds;
    std::vector<stream*> streams;
    for (child& c : children) {
      for (stream* s : {&c.out, &c.err}) {
        if (!s->fd.ok()) continue;
        fds.push_back({s->fd.get(), POLLIN, 0});
        streams.push_back(s);
      }
    }
    if (fds.empty()) break;
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      stream* s = streams[i];
      const child* owner = nullptr;
      for (const child& c : children)
        if (&c.out == s || &c.err == s) owner = &c;
      char block[65536];
      ssize_t n = ::read(s->fd.get(), block, sizeof block);
      if (n < 0 && errno == EINTR) continue;
      bool ended = n <= 0;
      std::string lines = prefix_lines(owner->where->label + ": ", &s->pending,
                                       std::string_view(block, n > 0 ? static_cast<std::size_t>(n) : 0),
                                       ended);
      write_all(s->to, lines);
      if (ended) s->fd.reset();
    }
  }

  int worst = kExitOk;
  for (child& c : children) {
    if (c.pid < 0) {
      worst = std::max(worst, kExitFail);
      continue;
    }
    int status = 0;
    while (::waitpid(c.pid, &status, 0) < 0 && errno == EINTR) {
    }
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    worst = std::max(worst, code);
  }
  return worst;
}

#include "client/lease.h"

#include <pwd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "client/remote_command.h"
#include "client/shell_quote.h"

const char kLeaseScript[] = R"SH(op=$1 me=$2 ttl=$3 owner=$4 mine=$5
d=/etc/kolta/lease
if ! { mkdir -p $d 2>/dev/null && [ -w $d ]; }; then
  d=/tmp/kolta-lease
  mkdir -p $d || exit 9
fi
now=$(date +%s)
holder() { readlink $d/lease 2>/dev/null; }
load() {
  taken= expires= who=
  [ -n "$1" ] && [ -f $d/info.$1 ] && { read -r taken; read -r expires; read -r who; } <$d/info.$1
}
say() { load $2; echo "$1 ${2:--} $now ${taken:--} ${expires:--} ${who:--}"; }
write() {
  printf '%s\n%s\n%s\n' "$2" $((now + ttl)) "$owner" >$d/new.$1 && mv -f $d/new.$1 $d/info.$1
}
stale() {
  load $1
  [ -n "$expires" ] && { [ "$now" -ge "$expires" ] || [ "$now" -lt $((taken - 60)) ]; }
}
take() {
  for try in 1 2 3; do
    t=$(holder)
    if [ -z "$t" ]; then
      write $me $now || exit 9
      if ln -s $me $d/lease 2>/dev/null; then say took $me; exit 0; fi
      rm -f $d/info.$me
      continue
    fi
    case " $me $mine " in *" $t "*) say own $t; exit 0 ;; esac
    if stale $t && mkdir $d/break.$t 2>/dev/null; then
      [ "$(holder)" = "$t" ] && stale $t && rm -f $d/lease $d/info.$t
      rmdir $d/break.$t
      continue
    fi
    say busy $t
    exit 1
  done
  say busy "$(holder)"
  exit 1
}
case $op in
take) take ;;
renew)
  t=$(holder)
  [ -z "$t" ] && take
  [ "$t" = "$me" ] || { say lost "$t"; exit 2; }
  load $me
  if [ -n "$expires" ] && [ $((expires - now)) -ge 2 ]; then
    write $me $taken
    [ "$(holder)" = "$me" ] && { say renewed $me; exit 0; }
    say lost "$(holder)"; exit 2
  fi
  mkdir $d/break.$me 2>/dev/null || { say lost "$t"; exit 2; }
  if [ "$(holder)" = "$me" ]; then
    write $me ${taken:-$now}; rmdir $d/break.$me; say renewed $me; exit 0
  fi
  rmdir $d/break.$me; say lost "$(holder)"; exit 2 ;;
release)
  mkdir $d/break.$me 2>/dev/null || exit 0
  [ "$(holder)" = "$me" ] && rm -f $d/lease
  rm -f $d/info.$me; rmdir $d/break.$me
  say released - ;;
break)
  t=$(holder)
  [ -z "$t" ] && { say free -; exit 0; }
  mkdir $d/break.$t 2>/dev/null || { say busy $t; exit 1; }
  if [ "$(holder)" = "$t" ]; then
    load $t; line="broke $t $now ${taken:--} ${expires:--} ${who:--}"
    rm -f $d/lease $d/info.$t; rmdir $d/break.$t; echo "$line"; exit 0
  fi
  rmdir $d/break.$t; say busy "$(holder)"; exit 1 ;;
show)
  t=$(holder)
  if [ -z "$t" ]; then say free -; else say held $t; fi ;;
*) exit 9 ;;
esac
)SH";

namespace {

std::int64_t now_ms() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool number(std::string_view text, long long* value) {
  if (text == "-" || text.empty()) {
    *value = -1;
    return true;
  }
  long long v = 0;
  bool negative = text[0] == '-';
  if (negative) text.remove_prefix(1);
  if (text.empty() || text.size() > 18) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *value = negative ? -v : v;
  return true;
}

// Reads a memory file of ours from its start, at most `limit` bytes.
std::string read_all(int fd, std::size_t limit) {
  std::string text;
  char block[4096];
  ::lseek(fd, 0, SEEK_SET);
  while (text.size() < limit) {
    ssize_t n = ::read(fd, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(block, static_cast<std::size_t>(n));
  }
  if (text.size() > limit) text.resize(limit);
  return text;
}

}  // namespace

std::string vesk_c_lease_command(std::string_view op, std::string_view token, double ttl_s,
                                 std::string_view owner, std::string_view mine) {
  // The owner on one line, blanks collapsed, never empty.
  std::string one_line;
  bool blank = false;
  for (char c : owner) {
    bool space = c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
    if (space) {
      blank = !one_line.empty();
      continue;
    }
    if (blank) one_line += ' ';
    blank = false;
    one_line += c;
  }
  if (one_line.empty()) one_line = "-";
  long long ttl = static_cast<long long>(std::ceil(ttl_s));
  if (ttl < 1) ttl = 1;
  std::string words[] = {std::string(op), std::string(token.empty() ? "-" : token),
                         std::to_string(ttl), one_line, std::string(mine)};
  return "set -- " + shell_command(words) + "\n" + kLeaseScript;
}

bool vesk_c_lease_parse(std::string_view line, vesk_c_lease_state* state) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  std::string_view words[5];
  for (auto& w : words) {
    std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos) return false;
    w = line.substr(0, blank);
    line.remove_prefix(blank + 1);
  }
  if (words[0].empty()) return false;
  state->result = words[0];
  state->token = words[1] == "-" ? "" : std::string(words[1]);
  if (!number(words[2], &state->now) || !number(words[3], &state->taken) ||
      !number(words[4], &state->expires))
    return false;
  state->owner = line == "-" ? "" : std::string(line);
  return true;
}

std::string vesk_c_lease_holder_text(const vesk_c_lease_state& state) {
  std::string text = state.owner.empty() ? "an unknown holder" : state.owner;
  if (state.expires >= 0 && state.now >= 0) {
    long long left = state.expires - state.now;
    text += " (" + std::to_string(left < 0 ? 0 : left) + " s left)";
  }
  return text;
}

std::string vesk_c_lease_token() {
  unsigned char bits[10] = {};
  if (::getrandom(bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) {
    // No entropy source: the clock and the process, never the same twice here.
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    std::uint64_t mix = static_cast<std::uint64_t>(ts.tv_nsec) * 0x9E3779B97F4A7C15ull ^
                        static_cast<std::uint64_t>(::getpid()) << 32 ^
                        static_cast<std::uint64_t>(ts.tv_sec);
    for (std::size_t i = 0; i < sizeof bits; ++i) bits[i] = static_cast<unsigned char>(mix >> (i % 8 * 8)) ^ static_cast<unsigned char>(i * 37);
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bits) {
    token += kDigits[b >> 4];
    token += kDigits[b & 15];
  }
  return token;
}

std::string vesk_c_lease_own_tokens() {
  const char* given = std::getenv(kLeaseTokenEnv);
  std::string tokens;
  if (given == nullptr) return tokens;
  std::string_view rest = given;
  while (!rest.empty()) {
    std::size_t blank = rest.find(' ');
    std::string_view word = rest.substr(0, blank);
    rest = blank == std::string_view::npos ? std::string_view() : rest.substr(blank + 1);
    bool plain = !word.empty();
    for (char c : word)
      plain = plain && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'));
    if (!plain) continue;
    if (!tokens.empty()) tokens += ' ';
    tokens += word;
  }
  return tokens;
}

std::string vesk_c_lease_default_owner() {
  const char* user = std::getenv("LOGNAME");
  if (user == nullptr || user[0] == '\0') user = std::getenv("USER");
  std::string who;
  if (user != nullptr && user[0] != '\0') {
    who = user;
  } else {
    passwd entry{}, *found = nullptr;
    char buf[1024];
    who = ::getpwuid_r(::getuid(), &entry, buf, sizeof buf, &found) == 0 && found != nullptr
              ? found->pw_name
              : std::to_string(::getuid());
  }
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
  return who + "@" + host + " pid " + std::to_string(::getpid());
}

vesk_c_status vesk_c_lease_call(vesk_c_conn* conn, const char* host, int port,
                                const std::string& command, vesk_c_lease_state* state,
                                std::string* problem) {
  constexpr double kLimitS = 30;
  vesk_c_command cmd;
  cmd.files = vesk_c_command_files_at("/tmp/kolta-lease-" + vesk_c_lease_token());
  vesk_c_reply refused;
  vesk_c_status s = vesk_c_command_start(conn, &cmd, command, -1, 0, kLimitS, &refused);
  if (s != vesk_c_status::ok) return s;
  if (refused.kind == vesk_c_reply_kind::fail) {
    *problem = std::string("the lease script could not be sent: ") + refused.reason;
    return vesk_c_status::local_error;
  }
  s = vesk_c_command_wait(conn, &cmd, now_ms() + static_cast<std::int64_t>(kLimitS * 1000));
  if (s != vesk_c_status::ok) return s;
  vesk_c_command_end end;
  if (!vesk_c_command_decode(cmd.reply, cmd.marker_found, &end)) {
    *problem = std::string("the lease script was refused: ") + cmd.reply.reason;
    vesk_c_command_remove(conn, cmd.files, false);
    return vesk_c_status::local_error;
  }
  int out = ::memfd_create("kolta-lease-out", MFD_CLOEXEC);
  int err = ::memfd_create("kolta-lease-err", MFD_CLOEXEC);
  if (out < 0 || err < 0) {
    if (out >= 0) ::close(out);
    if (err >= 0) ::close(err);
    conn->error = errno;
    vesk_c_command_remove(conn, cmd.files, false);
    return vesk_c_status::local_error;
  }
  s = vesk_c_command_finish(conn, host, port, cmd, &end, out, err);
  std::string out_text = read_all(out, 4096), err_text = read_all(err, 1024);
  ::close(out);
  ::close(err);
  if (s != vesk_c_status::ok) return s;
  while (!out_text.empty() && out_text.back() == '\n') out_text.pop_back();
  std::string_view line = out_text;
  if (std::size_t last = line.rfind('\n'); last != std::string_view::npos) line.remove_prefix(last + 1);
  if ((end.status != 0 && end.status != 1 && end.status != 2) || !vesk_c_lease_parse(line, state)) {
    while (!err_text.empty() && err_text.back() == '\n') err_text.pop_back();
    *problem = "the lease script ended with status " + std::to_string(end.status) +
               (err_text.empty() ? std::string() : ": " + err_text);
    return vesk_c_status::local_error;
  }
  return vesk_c_status::ok;
}

// Request and reply headers: "name: value" lines up to an empty line, read
// into a fixed record of 20 pairs.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

inline constexpr int kHeaderPairs = 20;
inline constexpr int kNameSize = 32;    // 31 characters and the NUL
inline constexpr int kValueSize = 128;  // 127 characters and the NUL
inline constexpr int kLineSize = 512;   // 511 characters and the NUL
inline constexpr int kHeaderTimeoutSeconds = 86400;

// What the reader saw beyond the record's fixed sizes. Nothing is ever
// written past a field; the excess is dropped and reported here.
enum header_excess : unsigned {
  kExcessNone = 0,
  kExcessFirstValue = 1u << 0,  // the first line's value has 128 characters or more
  kExcessLimits = 1u << 1,      // more than 20 lines, or a name, value or line too long
};

struct nv_header {
  char names[kHeaderPairs][kNameSize];
  char values[kHeaderPairs][kValueSize];
  unsigned excess;  // header_excess bits of the last read
};

// Clears `header` and reads one header from the socket's stream. Returns the
// number of lines split into pairs; 0 when no header arrived (the peer
// closed, or no complete header within 24 hours: "TIMEOUT !!").
int RvcHeader(int sock, nv_header* header);

// RvcHeader with its time limit as a parameter, in milliseconds.
int read_header(int sock, nv_header* header, int timeout_ms);

enum class header_end {
  complete,    // the empty line arrived
  closed,      // the peer closed first
  timeout,     // the time limit ran out first
  stalled,     // a line the splitter cannot leave (a colon not followed by a blank)
  read_error,  // the socket read failed (errno tells why)
};

struct header_outcome {
  int count;           // lines split into pairs
  header_end end;      // how the header ended
  long long deadline;  // monotonic milliseconds at which the time limit runs out
};

// The reader itself, for callers that handle every ending themselves (the
// client): prints nothing and never ends the process.
header_outcome read_header_until(int sock, nv_header* header, int timeout_ms);

// Splits one line into name and value. 0 at once for an empty line; else 0,
// or 1 on a syntax error (a byte of 0x80 or above, or a colon in the name
// that is not followed by a blank).
int SplitNVPair(const char* line, char (&name_out)[kNameSize], char (&value_out)[kValueSize]);

enum class split_result {
  ok,
  syntax_error,  // a byte of 0x80 or above; the pair holds what came before it
  stalled,       // a colon in the name not followed by a blank
};

// What did not fit into the name or the value; the copy stops at the field.
struct split_overflow {
  bool name = false;
  bool value = false;
};

// The splitter itself. `line` ends at its end or at its first NUL.
split_result split_nv_line(std::string_view line, std::span<char, kNameSize> name,
                           std::span<char, kValueSize> value, split_overflow* overflow);

// Value of the last pair whose name equals `name` without regard to case;
// the walk stops at the first empty name. Never NULL: "" when absent.
const char* GetNVPair_Value(const nv_header* header, const char* name);

// Empties all 20 names and values.
void DestroyHeader(nv_header* header);

// Removes trailing CR and LF in place; returns the remaining length.
std::size_t chomp(char* string);

// The client's request object and the reply handlers behind its two
// dispatch tables: reply type ("Success", "Fail", "Data", "Control") and, for
// a Data reply, content type.
//
// Both tables match by prefix without regard to case: a looked-up text
// matches an entry when it begins with the entry's name, and the first match
// in table order wins. So "image/exe_md5" is always taken by "image/exe".
#pragma once

#include <cstdint>

#include "lib/flist.h"
#include "protocol/request.h"

inline constexpr int kArgNameSize = 32;
inline constexpr int kArgValueSize = 128;
inline constexpr int kDataArgCount = 8;
inline constexpr int kDataArgSize = 128;

// One argument of a request object, the element of its argument list. Each
// field is copied with a bound equal to its size, so a name of 32 characters
// or more is not terminated.
struct vesk_c_arg {
  char name[kArgNameSize];
  char value[kArgValueSize];
};
static_assert(sizeof(vesk_c_arg) == 160);

// The record the client reads every reply into: the reply fields of the
// server's record, the reply header and the reply's name ("Success", ...).
// Nothing clears it between replies.
struct client_resp_obj : resp_obj {
  nv_header header;
  char reply[kValueSize];
};

struct vesk_c_obj;

// Takes one block of a Data reply's body. Returns `length` when the block
// was taken; anything else marks the transfer as failed.
using vesk_c_data_fn = long (*)(long length, const char* block, vesk_c_obj* obj);

struct vesk_c_obj {
  char command[kCommandSize];  // not terminated when 128 characters or longer
  Flist* arguments_chain;      // vesk_c_arg records, the last added first
  vesk_c_data_fn data_handler;
  char data_args[kDataArgCount][kDataArgSize];
  int data_argc;
};

// A reply or content handler: reports on the reply in `rec`.
using vesk_c_reply_fn = int (*)(int fd, client_resp_obj* rec);

struct resp_type_entry {
  const char* name;
  vesk_c_reply_fn handler;
  int code;  // the client's own reply code; stored, never read
};

struct mime_handler_entry {
  const char* name;
  vesk_c_reply_fn handler;
};

// Ended by an entry with a null name.
extern const resp_type_entry resp_type[];
extern const mime_handler_entry mime_handler[];

// The first entry whose name `text` begins with (without regard to case),
// or null.
const resp_type_entry* find_resp_type(const char* text);
const mime_handler_entry* find_mime_handler(const char* text);

// Sets the command (bound 128) and makes the argument list. 0, or 1 when the
// list could not be made.
int VESK_C_OBJ_new(vesk_c_obj* obj, const char* command);
// Frees the argument list; must not be called twice (the second call fails
// an assertion and ends the process). Returns 1.
int VESK_C_OBJ_destroy(vesk_c_obj* obj);
// Adds an argument (name bound 32, value bound 128) at the front of the
// list. Returns 0, even when memory ran out and the argument was lost.
int VESK_C_OBJ_addArgument(vesk_c_obj* obj, const char* name, const char* value);
// Takes the most recently added argument out of the list into `record`.
// 1 when one was taken, 0 when the list was empty.
int VESK_C_OBJ_getArgument(vesk_c_obj* obj, vesk_c_arg* record);
// Sets the data handler and records the further arguments, text pointers
// ended by a null one (at most 8, each bound 128). Returns 0.
int VESK_C_OBJ_DataHandler(vesk_c_obj* obj, vesk_c_data_fn handler, ...);

// Prints that the table entry `name` has no handler and that the server sent
// an unknown reply (ending with a BEL).
void print_unknown_reply(const char* name);

int reply_success_handler(int fd, client_resp_obj* rec);
int reply_fail_handler(int fd, client_resp_obj* rec);
int reply_data_handler(int fd, client_resp_obj* rec);
int mime_default_handler(int fd, client_resp_obj* rec);
int mime_exe_handler(int fd, client_resp_obj* rec);

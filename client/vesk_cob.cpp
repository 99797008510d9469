#include "client/vesk_cob.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "lib/bounded.h"

namespace {

// Copies with a bound equal to the field's size: the text is cut there and
// not terminated when it fills the field.
template <std::size_t N>
void copy_bounded(char (&dst)[N], const char* src) {
  std::strncpy(dst, src == nullptr ? "" : src, N);
}

bool begins_with_name(const char* text, const char* name) {
  return strncasecmp(text, name, std::strlen(name)) == 0;
}

template <typename Entry>
const Entry* find_entry(const Entry* table, const char* text) {
  if (text == nullptr) return nullptr;
  for (const Entry* e = table; e->name != nullptr; ++e) {
    if (begins_with_name(text, e->name)) return e;
  }
  return nullptr;
}

}  // namespace

void print_unknown_reply(const char* name) {
  std::printf("`%s' not implemented\r\n", name);
  std::printf("\nERROR: Server sent unknown reply !!!!!!\n\a\n");
}

const resp_type_entry resp_type[] = {
    {"Success", reply_success_handler, 0},
    {"Fail", reply_fail_handler, 1},
    {"Data", reply_data_handler, 2},
    {"Control", nullptr, 0},
    {nullptr, nullptr, 0},
};

const mime_handler_entry mime_handler[] = {
    {"text/plain", mime_default_handler},
    {"image/exe", mime_exe_handler},
    {"image/exe_md5", mime_default_handler},  // shadowed by "image/exe", on purpose
    {nullptr, nullptr},
};

const resp_type_entry* find_resp_type(const char* text) { return find_entry(resp_type, text); }

const mime_handler_entry* find_mime_handler(const char* text) {
  return find_entry(mime_handler, text);
}

int VESK_C_OBJ_new(vesk_c_obj* obj, const char* command) {
  copy_bounded(obj->command, command);
  obj->arguments_chain = mkFlist(sizeof(vesk_c_arg), 0);
  obj->data_handler = nullptr;
  obj->data_argc = 0;
  return obj->arguments_chain == nullptr ? 1 : 0;
}

int VESK_C_OBJ_destroy(vesk_c_obj* obj) {
  if (obj->arguments_chain == nullptr) {
    // The assertion holds in every build, with the C library's own message.
    std::fprintf(stderr, "%s: vesk_cob.cpp:37: VESK_C_OBJ_destroy: Assertion `obj->arguments_chain' failed.\n",
                 program_invocation_short_name);
    std::abort();
  }
  return rmFlist(&obj->arguments_chain);
}

int VESK_C_OBJ_addArgument(vesk_c_obj* obj, const char* name, const char* value) {
  vesk_c_arg record;
  copy_bounded(record.name, name);
  copy_bounded(record.value, value);
  pushdptr(obj->arguments_chain, &record);
  return 0;
}

int VESK_C_OBJ_getArgument(vesk_c_obj* obj, vesk_c_arg* record) {
  return popd(obj->arguments_chain, record);
}

int VESK_C_OBJ_DataHandler(vesk_c_obj* obj, vesk_c_data_fn handler, ...) {
  obj->data_handler = handler;
  va_list ap;
  va_start(ap, handler);
  for (const char* arg = va_arg(ap, const char*); arg != nullptr; arg = va_arg(ap, const char*)) {
    if (obj->data_argc >= kDataArgCount) break;
    bounded_copy(obj->data_args[obj->data_argc++], arg);
  }
  va_end(ap);
  return 0;
}

int reply_success_handler(int /*fd*/, client_resp_obj* /*rec*/) {
  std::puts("nice - success !");
  return 0;
}

int reply_fail_handler(int /*fd*/, client_resp_obj* /*rec*/) {
  std::puts("not nice - fail !");
  return 1;
}

int reply_data_handler(int fd, client_resp_obj* rec) {
  std::puts("Data-Handler");
  std::printf("Data-ContentTypeType: [%s]\n", rec->content_type);
  const mime_handler_entry* entry = find_mime_handler(rec->content_type);
  if (entry != nullptr && entry->handler == nullptr) {
    print_unknown_reply(entry->name);
    std::puts("\nconnection closed by server ! (response_dispatcher)");
    return 0;
  }
  if (entry != nullptr) entry->handler(fd, rec);
  std::puts("Data handled.");
  return 1;
}

int mime_default_handler(int /*fd*/, client_resp_obj* rec) {
  std::puts("default mime handler");
  std::printf("resp_obj->data.size = %ld\n", static_cast<long>(rec->data.size));
  return 0;
}

int mime_exe_handler(int /*fd*/, client_resp_obj* rec) {
  std::puts("ContentType-Handler: image/exe");
  std::printf("resp_obj->data.size = %ld\n", static_cast<long>(rec->data.size));
  const char* name = GetNVPair_Value(&rec->header, "file");
  std::printf("Filename: %s\n", name[0] != '\0' ? name : "dummy.$$$");
  return 0;
}

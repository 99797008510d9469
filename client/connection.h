// The client connection: open and close, the file request "getfile" and the
// carrying out of a request object, each reply dispatched by its type.
// Progress is printed on standard output. One exchange at a time per
// process: the connection, the peer address and the reply record are
// process-wide.
#pragma once

#include <netinet/in.h>

#include "client/vesk_cob.h"

// The socket of the connection last opened (negative when socket() failed).
extern int sock;
// The peer address of the last open.
extern sockaddr_in hostaddr;

// The record every reply is read into; kept from one reply to the next.
client_resp_obj& client_reply_record();

// How long getFile and vesk_c_action wait for a reply header, in
// milliseconds; 24 hours unless set.
void vesk_c_set_reply_timeout(int timeout_ms);

// Connects to port `port` of the local host's wildcard address; `host` is
// not consulted. The connected socket, or 0 on failure (a socket that could
// not connect stays open).
int vesk_c_open(const char* host, int port);
// Closes `fd` and prints "socket closed.". Returns 0.
int vesk_c_close(int fd);
// Sends the request object on the socket of the last open (the request
// line, the arguments in the order they come out of the object, the header
// end), dispatches the reply through `resp_type`, and hands a Data reply's
// body to the object's data handler in blocks. The arguments are used up.
// 0 for a Success reply or a Data reply whose body arrived whole and was
// taken; non-zero otherwise.
int vesk_c_action(vesk_c_obj* obj);
// Sends "getfile" for `file_name` on `fd` and dispatches the reply header;
// the body of a Data reply stays unread. 0, or 1 for a reply type that has
// no handler. `extra` is not used.
int getFile(int fd, const char* file_name, const void* extra = nullptr);
// Opens a connection, runs getFile on it and closes it.
int getMimeType(const char* host, int port, const char* file_name, const void* extra);

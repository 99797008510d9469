// Flist: a doubly linked list of fixed-size elements with a cursor.
//
// One list serves as a stack (push, pop and top at the head), as a queue
// (append at the tail, take from the head) and as a positioned sequence (move
// the cursor, insert after it, delete at it, store or recall by position).
// Elements are copied in and out by value, always exactly `size` bytes; the
// node operations move whole nodes between lists without copying.
//
// Positions are 1-based; `ncur` is 0 exactly when there is no current node.
// Every operation given a null list does nothing and returns 0 or null.
#pragma once

#include <cstddef>

struct Flist_node {
  Flist_node* next;  // toward the tail
  Flist_node* prev;  // toward the head
  // `size` data bytes follow
};

struct Flist {
  Flist_node* head;
  Flist_node* cur;
  Flist_node* tail;
  unsigned ncur;
  unsigned count;
  unsigned size;
  unsigned usize;
  // `usize` bytes of user data follow
};

// A new empty list of `size`-byte elements with a user data area of `usize`
// bytes; null when `size` is 0 or memory runs out.
Flist* mkFlist(unsigned size, unsigned usize);
// Frees every node and empties the list. Returns 1.
int clrFlist(Flist* list);
// Clears and frees the list and sets `*list` to null. 1, or 0 when it was null.
int rmFlist(Flist** list);
// Number of elements.
unsigned nempty(const Flist* list);
// The user data area, or null when the list has none.
void* Flistdptr(Flist* list);

// Stack: a new head from `src` (uninitialised when null); its data, or null
// when memory runs out. The cursor stays on its element.
void* pushdptr(Flist* list, const void* src);
// Links a node (laid out for this list) in as the new head. 0 for a null node.
int pushn(Flist* list, Flist_node* node);
// Takes the head, copying its data into `dst` (skipped when null). 0 when empty.
int popd(Flist* list, void* dst);
// Unlinks the head and gives it to the caller; null when empty.
Flist_node* popn(Flist* list);
// The head's data, copied into `dst` too when it is not null; null when empty.
void* topdptr(Flist* list, void* dst);

// Queue: a new tail from `src`; its data, or null when memory runs out.
void* iquedptr(Flist* list, const void* src);
// Links a node in as the new tail. 0 for a null node.
int iquen(Flist* list, Flist_node* node);

// Position of the current node, 0 when there is none.
unsigned ncur(const Flist* list);
// Data of the current node, or null.
void* curdptr(Flist* list);
// Makes node `n` current and returns its data; for 0 or a position past the
// end, clears the cursor and returns null. Walks from the nearest of head,
// cursor and tail; ties go to the walk from the front.
void* mkcdptr(Flist* list, unsigned n);
// A new node from `src` after the current one (at the head when there is
// none), made current. Its data, or null when memory runs out.
void* insdptr(Flist* list, const void* src);
// Links a node in as insdptr would. 0 for a null node.
int insn(Flist* list, Flist_node* node);
// Removes the current node, copying its data into `dst`; the node before it
// becomes current. 0 when there is no current node.
int deld(Flist* list, void* dst);
// Unlinks the current node as deld would and gives it to the caller.
Flist_node* deln(Flist* list);
// Moves the cursor one node toward the tail (to the head when there is no
// current node); past the tail the cursor clears and the result is null.
void* nextdptr(Flist* list, void* dst);
// Moves the cursor one node toward the head (to the tail when there is no
// current node); past the head the cursor clears and the result is null.
void* prevdptr(Flist* list, void* dst);
// Copies the current node's data out (getd) or in (putd). 0 without a
// current node or buffer.
int getd(Flist* list, void* dst);
int putd(Flist* list, const void* src);
// Moves to node `n` as mkcdptr does, then stores into (stod) or recalls from
// (rcld) it. The move happens even when the buffer is null.
int stod(Flist* list, const void* src, unsigned n);
int rcld(Flist* list, void* dst, unsigned n);

// The data bytes of a node.
inline void* Flist_node_data(Flist_node* node) { return node + 1; }

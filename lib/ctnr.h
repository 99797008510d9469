// ctnr: a small ordered container of untyped items (void*) with a cursor.
//
// A container is a circular doubly linked list with a sentinel; the handle
// callers hold is the sentinel node itself, whose `item` points to the
// container's ctnr_head. Position 0 is the node after the sentinel. The
// container never owns or copies its items: it allocates and frees only its
// own nodes. Every positional operation is a linear walk, so keep it short.
//
// Positions are unsigned: a position of -1 (the "not found" of search_ctnr)
// walks past the end and so selects no item.
//
// A null container (or other required null argument) writes the operation's
// message to standard error and yields its failure value.
//
// The process manager walks its registry from a SIGCHLD handler, so get_ctnr
// and search_ctnr neither allocate, lock nor print unless handed a null
// argument, and the operations that change the links publish them in an order
// that keeps every forward walk from the sentinel well-formed.
#pragma once

#include <cstdint>

struct ctnr_node {
  ctnr_node* next;
  ctnr_node* prev;
  void* item;  // in the sentinel: the ctnr_head
};

struct ctnr_head {
  std::int32_t count;   // number of items
  ctnr_node* current;   // the cursor; the sentinel when it is at no item
};

// Comparison: 0 when `item` matches `key`. For bsort_ctnr, positive when the
// first argument must come after the second.
using ctnr_cmp_fn = int (*)(const void* key, const void* item);
// Releases one item; zero_destr_ctnr also hands it null once.
using ctnr_destroy_fn = void (*)(void* item);

// New empty container, or null when memory is short.
ctnr_node* new_ctnr();

// Number of items; -1 for a null container.
int level_ctnr(ctnr_node* c);

// Appends `item` at the end. Returns its node, or null (null argument or no
// memory; nothing added).
ctnr_node* push_ctnr(ctnr_node* c, void* item);

// Links `item` after the node at `pos`, so that it lands at `pos` + 1. Adds
// nothing to an empty container or when `pos` is past the end. Returns the
// new node, or null when nothing was added.
ctnr_node* insert_ctnr(ctnr_node* c, void* item, std::uint32_t pos);

// Takes the item at `pos` out and returns it; null when there is none.
void* remove_at_ctnr(ctnr_node* c, std::uint32_t pos);

// Takes the first item out and returns it; null when empty.
void* pop_ctnr(ctnr_node* c);

// The item at `pos`, left in place; null when there is none.
void* get_ctnr(ctnr_node* c, std::uint32_t pos);

// Position of the first item for which cmp(key, item) is 0; -1 when none.
int search_ctnr(ctnr_node* c, ctnr_cmp_fn cmp, const void* key);

// Exchanges the items at positions `i` and `j` (the nodes stay). Nothing
// changes when they are equal or either is past the end.
void swop_ctnr(ctnr_node* c, std::uint32_t i, std::uint32_t j);

// Ascending bubble sort by cmp(a, b); equal items keep their order.
void bsort_ctnr(ctnr_node* c, ctnr_cmp_fn cmp);

// Sets the cursor to position 0 and returns its item; null (cursor left where
// it was) when empty.
void* first_ctnr(ctnr_node* c);

// Moves the cursor one node on and returns its item; null (cursor left where
// it was) at the end. From the sentinel it moves to position 0.
void* next_ctnr(ctnr_node* c);

// Takes the item under the cursor out and returns it; the cursor moves to the
// node before, so next_ctnr then yields the item that followed. Null when the
// cursor is at no item.
void* remove_ctnr(ctnr_node* c);

// Hands every item to `destroy`, then once more with null (the container is
// empty by then), and frees the container.
void zero_destr_ctnr(ctnr_node* c, ctnr_destroy_fn destroy);

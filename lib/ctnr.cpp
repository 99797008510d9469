#include "lib/ctnr.h"

#include <atomic>
#include <cstdlib>

#include "lib/signal_safe.h"

namespace {

// Null-argument messages go straight to fd 2, so that even a faulty call from
// a signal handler takes no stdio lock.
void complain(const char* text) { signal_safe_print(2, "%s\n", text); }

ctnr_head* head_of(ctnr_node* c) { return static_cast<ctnr_head*>(c->item); }

// Keeps the compiler from reordering link stores that a signal handler
// interrupting this process could observe half done.
void publish() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// The node at `pos`, or null when a step reaches the sentinel.
ctnr_node* walk(ctnr_node* c, std::uint32_t pos) {
  ctnr_node* n = c->next;
  while (n != c && pos > 0) {
    n = n->next;
    --pos;
  }
  return n == c ? nullptr : n;
}

ctnr_node* new_node(void* item) {
  auto* n = static_cast<ctnr_node*>(std::calloc(1, sizeof(ctnr_node)));
  if (n != nullptr) n->item = item;
  return n;
}

// Links the ready-made `n` after `at`. Forward walks see either the old chain
// or the new one, never a dangling link.
void link_after(ctnr_node* c, ctnr_node* at, ctnr_node* n) {
  n->prev = at;
  n->next = at->next;
  publish();
  at->next = n;
  publish();
  n->next->prev = n;
  head_of(c)->count++;
}

// Unlinks and frees `n` (never the sentinel) and returns its item. A cursor
// on `n` steps back to the node before it.
void* unlink_node(ctnr_node* c, ctnr_node* n) {
  ctnr_head* h = head_of(c);
  if (h->current == n) h->current = n->prev;
  n->prev->next = n->next;
  publish();
  n->next->prev = n->prev;
  h->count--;
  void* item = n->item;
  std::free(n);
  return item;
}

}  // namespace

ctnr_node* new_ctnr() {
  auto* c = static_cast<ctnr_node*>(std::calloc(1, sizeof(ctnr_node)));
  auto* h = static_cast<ctnr_head*>(std::calloc(1, sizeof(ctnr_head)));
  if (c == nullptr || h == nullptr) {
    std::free(c);
    std::free(h);
    return nullptr;
  }
  c->next = c;
  c->prev = c;
  c->item = h;
  h->count = 0;
  h->current = c;
  return c;
}

int level_ctnr(ctnr_node* c) {
  if (c == nullptr) {
    complain("level_ctnr: NIL argument");
    return -1;
  }
  return head_of(c)->count;
}

ctnr_node* push_ctnr(ctnr_node* c, void* item) {
  if (c == nullptr || item == nullptr) {
    complain("push_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_node* n = new_node(item);
  if (n == nullptr) return nullptr;
  link_after(c, c->prev, n);
  return n;
}

ctnr_node* insert_ctnr(ctnr_node* c, void* item, std::uint32_t pos) {
  if (c == nullptr || item == nullptr) {
    complain("insert_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_node* at = walk(c, pos);
  if (at == nullptr) return nullptr;
  ctnr_node* n = new_node(item);
  if (n == nullptr) return nullptr;
  link_after(c, at, n);
  return n;
}

void* remove_at_ctnr(ctnr_node* c, std::uint32_t pos) {
  if (c == nullptr) {
    complain("remove_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_node* n = walk(c, pos);
  return n == nullptr ? nullptr : unlink_node(c, n);
}

void* pop_ctnr(ctnr_node* c) {
  if (c == nullptr) {
    complain("pop_ctnr: NIL argument");
    return nullptr;
  }
  return c->next == c ? nullptr : unlink_node(c, c->next);
}

void* get_ctnr(ctnr_node* c, std::uint32_t pos) {
  if (c == nullptr) {
    complain("get_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_node* n = walk(c, pos);
  return n == nullptr ? nullptr : n->item;
}

int search_ctnr(ctnr_node* c, ctnr_cmp_fn cmp, const void* key) {
  if (c == nullptr || cmp == nullptr || key == nullptr) {
    complain("search_ctnr: NIL argument");
    return -1;
  }
  int pos = 0;
  for (ctnr_node* n = c->next; n != c; n = n->next, ++pos) {
    if (cmp(key, n->item) == 0) return pos;
  }
  return -1;
}

void swop_ctnr(ctnr_node* c, std::uint32_t i, std::uint32_t j) {
  if (c == nullptr) {
    complain("swop_ctnr: NIL argument");
    return;
  }
  if (i == j) return;
  ctnr_node* a = nullptr;
  ctnr_node* b = nullptr;
  std::uint32_t pos = 0;
  for (ctnr_node* n = c->next; n != c; n = n->next, ++pos) {
    if (pos == i) a = n;
    if (pos == j) b = n;
    if (a != nullptr && b != nullptr) {
      void* t = a->item;
      a->item = b->item;
      b->item = t;
      return;
    }
  }
}

// Each pass compares neighbours up to the last exchange of the pass before;
// only strictly greater neighbours are exchanged, which keeps the sort stable.
void bsort_ctnr(ctnr_node* c, ctnr_cmp_fn cmp) {
  if (c == nullptr || cmp == nullptr) {
    complain("destr_ctnr: NIL argument");
    return;
  }
  std::int32_t n = head_of(c)->count;
  while (n >= 2) {
    std::int32_t last = 0;
    ctnr_node* a = c->next;
    for (std::int32_t i = 1; i < n; ++i) {
      ctnr_node* b = a->next;
      if (b == c) break;
      if (cmp(a->item, b->item) > 0) {
        void* t = a->item;
        a->item = b->item;
        b->item = t;
        last = i;
      }
      a = b;
    }
    n = last;
  }
}

void* first_ctnr(ctnr_node* c) {
  if (c == nullptr) {
    complain("first_ctnr: NIL argument");
    return nullptr;
  }
  if (c->next == c) return nullptr;
  head_of(c)->current = c->next;
  return c->next->item;
}

void* next_ctnr(ctnr_node* c) {
  if (c == nullptr) {
    complain("next_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_head* h = head_of(c);
  ctnr_node* n = h->current->next;
  if (n == c) return nullptr;
  h->current = n;
  return n->item;
}

void* remove_ctnr(ctnr_node* c) {
  if (c == nullptr) {
    complain("remove_curr_ctnr: NIL argument");
    return nullptr;
  }
  ctnr_node* n = head_of(c)->current;
  if (n == c) {
    complain("remove_curr_ctnr: delete root node");
    return nullptr;
  }
  return unlink_node(c, n);
}

void zero_destr_ctnr(ctnr_node* c, ctnr_destroy_fn destroy) {
  if (c == nullptr || destroy == nullptr) {
    complain("destr_ctnr: NIL argument");
    return;
  }
  ctnr_head* h = head_of(c);
  std::int32_t n = h != nullptr ? h->count : -1;
  if (n >= 0) {
    // The last round pops from an empty container and hands destroy null.
    for (std::int32_t k = 0; k <= n; ++k) destroy(pop_ctnr(c));
  }
  std::free(h);
  std::free(c);
}

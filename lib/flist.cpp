#include "lib/flist.h"

#include <cstdlib>
#include <cstring>

namespace {

Flist_node* new_node(const Flist* list, const void* src) {
  auto* node = static_cast<Flist_node*>(std::malloc(sizeof(Flist_node) + list->size));
  if (node == nullptr) return nullptr;
  if (src != nullptr) std::memcpy(Flist_node_data(node), src, list->size);
  return node;
}

void* data_of(Flist_node* node) { return node == nullptr ? nullptr : Flist_node_data(node); }

void copy_out(const Flist* list, Flist_node* node, void* dst) {
  if (dst != nullptr) std::memcpy(dst, Flist_node_data(node), list->size);
}

void link_head(Flist* list, Flist_node* node) {
  node->next = list->head;
  node->prev = nullptr;
  if (list->head != nullptr) {
    list->head->prev = node;
  } else {
    list->tail = node;
  }
  list->head = node;
  ++list->count;
  if (list->ncur != 0) ++list->ncur;  // the cursor keeps its node
}

Flist_node* unlink_head(Flist* list) {
  Flist_node* node = list->head;
  if (node == nullptr) return nullptr;
  list->head = node->next;
  if (node == list->tail) {
    list->tail = nullptr;
  } else {
    list->head->prev = nullptr;
  }
  --list->count;
  if (list->ncur != 0 && --list->ncur == 0) list->cur = nullptr;
  return node;
}

void link_tail(Flist* list, Flist_node* node) {
  node->next = nullptr;
  node->prev = list->tail;
  if (list->tail != nullptr) {
    list->tail->next = node;
  } else {
    list->head = node;
  }
  list->tail = node;
  ++list->count;
}

void link_after_cursor(Flist* list, Flist_node* node) {
  if (list->cur == nullptr) {
    node->prev = nullptr;
    node->next = list->head;
    if (list->head != nullptr) list->head->prev = node;
    list->head = node;
  } else {
    node->prev = list->cur;
    node->next = list->cur->next;
    if (list->cur->next != nullptr) list->cur->next->prev = node;
    list->cur->next = node;
  }
  if (node->next == nullptr) list->tail = node;
  list->cur = node;
  ++list->ncur;
  ++list->count;
}

Flist_node* unlink_cursor(Flist* list) {
  Flist_node* node = list->cur;
  if (node == nullptr) return nullptr;
  --list->ncur;
  list->cur = node->prev;
  if (node->next != nullptr) {
    node->next->prev = node->prev;
  } else {
    list->tail = node->prev;
  }
  if (node->prev != nullptr) {
    node->prev->next = node->next;
  } else {
    list->head = node->next;
  }
  --list->count;
  return node;
}

Flist_node* walk_forward(Flist_node* from, unsigned steps) {
  while (steps-- > 0 && from != nullptr) from = from->next;
  return from;
}

Flist_node* walk_back(Flist_node* from, unsigned steps) {
  while (steps-- > 0 && from != nullptr) from = from->prev;
  return from;
}

}  // namespace

Flist* mkFlist(unsigned size, unsigned usize) {
  if (size == 0) return nullptr;
  auto* list = static_cast<Flist*>(std::malloc(sizeof(Flist) + usize));
  if (list == nullptr) return nullptr;
  list->head = list->cur = list->tail = nullptr;
  list->ncur = list->count = 0;
  list->size = size;
  list->usize = usize;
  return list;
}

int clrFlist(Flist* list) {
  if (list == nullptr) return 0;
  for (Flist_node* node = list->head; node != nullptr;) {
    Flist_node* next = node->next;
    std::free(node);
    node = next;
  }
  list->head = list->cur = list->tail = nullptr;
  list->ncur = list->count = 0;
  return 1;
}

int rmFlist(Flist** list) {
  if (list == nullptr || *list == nullptr) return 0;
  clrFlist(*list);
  std::free(*list);
  *list = nullptr;
  return 1;
}

unsigned nempty(const Flist* list) { return list == nullptr ? 0 : list->count; }

void* Flistdptr(Flist* list) {
  if (list == nullptr || list->usize == 0) return nullptr;
  return list + 1;
}

void* pushdptr(Flist* list, const void* src) {
  if (list == nullptr) return nullptr;
  Flist_node* node = new_node(list, src);
  if (node == nullptr) return nullptr;
  link_head(list, node);
  return Flist_node_data(node);
}

int pushn(Flist* list, Flist_node* node) {
  if (list == nullptr || node == nullptr) return 0;
  link_head(list, node);
  return 1;
}

int popd(Flist* list, void* dst) {
  if (list == nullptr || list->head == nullptr) return 0;
  copy_out(list, list->head, dst);
  std::free(unlink_head(list));
  return 1;
}

Flist_node* popn(Flist* list) { return list == nullptr ? nullptr : unlink_head(list); }

void* topdptr(Flist* list, void* dst) {
  if (list == nullptr || list->head == nullptr) return nullptr;
  copy_out(list, list->head, dst);
  return Flist_node_data(list->head);
}

void* iquedptr(Flist* list, const void* src) {
  if (list == nullptr) return nullptr;
  Flist_node* node = new_node(list, src);
  if (node == nullptr) return nullptr;
  link_tail(list, node);
  return Flist_node_data(node);
}

int iquen(Flist* list, Flist_node* node) {
  if (list == nullptr || node == nullptr) return 0;
  link_tail(list, node);
  return 1;
}

unsigned ncur(const Flist* list) { return list == nullptr ? 0 : list->ncur; }

void* curdptr(Flist* list) { return list == nullptr ? nullptr : data_of(list->cur); }

void* mkcdptr(Flist* list, unsigned n) {
  if (list == nullptr) return nullptr;
  if (n == 0 || n > list->count) {
    list->cur = nullptr;
    list->ncur = 0;
    return nullptr;
  }
  if (n == list->ncur) return data_of(list->cur);

  Flist_node* node;
  if (list->cur == nullptr) {
    node = n <= list->count / 2 ? walk_forward(list->head, n - 1)
                                : walk_back(list->tail, list->count - n);
  } else if (n < list->ncur) {
    node = n <= list->ncur / 2 ? walk_forward(list->head, n - 1)
                               : walk_back(list->cur, list->ncur - n);
  } else {
    node = n <= list->ncur / 2 + list->count / 2 ? walk_forward(list->cur, n - list->ncur)
                                                 : walk_back(list->tail, list->count - n);
  }
  list->cur = node;
  list->ncur = n;
  return data_of(node);
}

void* insdptr(Flist* list, const void* src) {
  if (list == nullptr) return nullptr;
  Flist_node* node = new_node(list, src);
  if (node == nullptr) return nullptr;
  link_after_cursor(list, node);
  return Flist_node_data(node);
}

int insn(Flist* list, Flist_node* node) {
  if (list == nullptr || node == nullptr) return 0;
  link_after_cursor(list, node);
  return 1;
}

int deld(Flist* list, void* dst) {
  if (list == nullptr || list->cur == nullptr) return 0;
  Flist_node* node = unlink_cursor(list);
  copy_out(list, node, dst);
  std::free(node);
  return 1;
}

Flist_node* deln(Flist* list) { return list == nullptr ? nullptr : unlink_cursor(list); }

void* nextdptr(Flist* list, void* dst) {
  if (list == nullptr) return nullptr;
  list->cur = list->cur == nullptr ? list->head : list->cur->next;
  list->ncur = list->cur == nullptr ? 0 : list->ncur + 1;
  if (list->cur == nullptr) return nullptr;
  copy_out(list, list->cur, dst);
  return Flist_node_data(list->cur);
}

void* prevdptr(Flist* list, void* dst) {
  if (list == nullptr) return nullptr;
  if (list->cur == nullptr) {
    list->cur = list->tail;
    list->ncur = list->count;
  } else {
    list->cur = list->cur->prev;
    --list->ncur;
  }
  if (list->cur == nullptr) return nullptr;
  copy_out(list, list->cur, dst);
  return Flist_node_data(list->cur);
}

int getd(Flist* list, void* dst) {
  if (list == nullptr || list->cur == nullptr || dst == nullptr) return 0;
  copy_out(list, list->cur, dst);
  return 1;
}

int putd(Flist* list, const void* src) {
  if (list == nullptr || list->cur == nullptr || src == nullptr) return 0;
  std::memcpy(Flist_node_data(list->cur), src, list->size);
  return 1;
}

int stod(Flist* list, const void* src, unsigned n) {
  if (mkcdptr(list, n) == nullptr) return 0;
  return putd(list, src);
}

int rcld(Flist* list, void* dst, unsigned n) {
  if (mkcdptr(list, n) == nullptr) return 0;
  return getd(list, dst);
}

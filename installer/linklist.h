#pragma once

// A doubly linked list with a cursor. The cursor designates one element, or the end position behind
// the last one; additions and removals happen there. The list owns its nodes; it owns its elements
// only when it is released with `list_free_dealloc`.

#include <cstdint>
#include <type_traits>

namespace installer {

/// `prev` and `next` are neighbours (`next` of the last is null); `data` is the element.
template <class T> struct node {
  node *prev = nullptr;
  T *data = nullptr;
  node *next = nullptr;
};
template <class T> using Node = node<T> *;

/// `root`: sentinel before the first element, its own `prev`. `current`: the node before the
/// element that the cursor designates. `items`: number of elements.
template <class T> struct linklist {
  Node<T> root = nullptr;
  Node<T> current = nullptr;
  std::int32_t items = 0;
};
template <class T> using Linklist = linklist<T> *;

/// A new empty list with the cursor at the end, for `list_free_dealloc`.
template <class T> [[nodiscard]] Linklist<T> list_init() {
  auto *root = new node<T>;
  root->prev = root;
  return new linklist<T>{root, root, 0};
}

/// Inserts before the element the cursor designates, or at the end; the cursor keeps designating
/// what it did. 1; 0 for a null list or element.
template <class T> int list_add(Linklist<T> l, std::type_identity_t<T> *data) {
  if (l == nullptr || data == nullptr) return 0;
  auto *added = new node<T>{l->current, data, l->current->next};
  if (added->next != nullptr) added->next->prev = added;
  l->current->next = added;
  l->current = added;
  ++l->items;
  return 1;
}

/// Moves the cursor to the first element.
template <class T> void list_start(Linklist<T> l) {
  if (l != nullptr) l->current = l->root;
}

/// Moves the cursor on by one element; at the end it stays.
template <class T> void list_next(Linklist<T> l) {
  if (l != nullptr && l->current->next != nullptr) l->current = l->current->next;
}

/// Moves the cursor back by one element; at the first it stays.
template <class T> void list_prev(Linklist<T> l) {
  if (l != nullptr) l->current = l->current->prev;
}

/// The element the cursor designates; null at the end.
template <class T> [[nodiscard]] T *list_get(Linklist<T> l) {
  return l != nullptr && l->current->next != nullptr ? l->current->next->data : nullptr;
}

/// Removes the element the cursor designates, the last one when it is at the end; the cursor then
/// designates the one behind it, or the end. The element, which is now the caller's; null for an
/// empty list.
template <class T> [[nodiscard]] T *list_del(Linklist<T> l) {
  if (l == nullptr || l->items == 0) return nullptr;
  if (l->current->next == nullptr) list_prev(l);
  Node<T> removed = l->current->next;
  l->current->next = removed->next;
  if (removed->next != nullptr) removed->next->prev = l->current;
  T *data = removed->data;
  delete removed;
  --l->items;
  return data;
}

/// The number of elements; 0 for null.
template <class T> [[nodiscard]] std::int32_t list_items(Linklist<T> l) {
  return l != nullptr ? l->items : 0;
}

/// Releases every element, every node and the list, and sets the variable to null. Nothing for a
/// null address or list.
template <class T> void list_free_dealloc(Linklist<T> *l) {
  if (l == nullptr || *l == nullptr) return;
  while (T *data = list_del(*l)) delete data;
  delete (*l)->root;
  delete *l;
  *l = nullptr;
}

} // namespace installer

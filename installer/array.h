#pragma once

// A growable array of element references. The array never owns its elements unless it is released
// with `array_free_dealloc` or `array_free_fn`; elements are never null, so a null result always
// means that there is no element. Iterate with `array_get_num(a, 0)`, then `array_get(a)` until
// null.

#include <cstdint>
#include <new>
#include <type_traits>
#include <vector>

namespace installer {

/// `size`: capacity in slots; `block`: growth step in slots; `items`: number of elements;
/// `current`: index of the element that `array_get` returns next, -1 for none.
template <class T> struct array {
  std::int32_t size = 0, block = 10, items = 0, current = -1;
  std::vector<T *> data;

  /// Slot `i`, which must exist.
  [[nodiscard]] T *&slot(std::int32_t i) { return data.data()[i]; }
};
template <class T> using Array = array<T> *;

/// Logs that the slots could not grow.
void array_growth_failed();

/// A new empty array, for one of the release operations below.
template <class T> [[nodiscard]] Array<T> array_init() { return new array<T>; }

/// Makes room for `block` more elements; the new slots are null. 1, or 0 (logged) when memory is
/// out, with the array as it was.
template <class T> [[nodiscard]] int alloc(Array<T> a) {
  const std::int32_t size = a->size + a->block;
  try {
    // `size` grows in fixed steps; the memory behind it grows geometrically.
    a->data.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc &) {
    array_growth_failed();
    return 0;
  }
  a->size = size;
  return 1;
}

/// Inserts at `pos` (0 to `items`) and moves the elements from there on up by one; `current` keeps
/// designating the same element. 1; 0 for a null array or element, a `pos` out of range or no
/// memory.
template <class T> int array_add_num(Array<T> a, std::type_identity_t<T> *p, std::int32_t pos) {
  if (a == nullptr || p == nullptr || pos < 0 || pos > a->items) return 0;
  if (a->items == a->size && alloc(a) == 0) return 0;
  for (std::int32_t i = a->items; i > pos; --i) a->slot(i) = a->slot(i - 1);
  a->slot(pos) = p;
  ++a->items;
  if (a->current >= pos) ++a->current;
  return 1;
}

/// Appends. Results as `array_add_num`.
template <class T> int array_add(Array<T> a, std::type_identity_t<T> *p) {
  return a != nullptr ? array_add_num(a, p, a->items) : 0;
}

/// Element `i`, or null when there is none; `current` moves behind it, to -1 behind the last.
template <class T> T *array_get_num(Array<T> a, std::int32_t i) {
  if (a == nullptr || i < 0 || i >= a->items) return nullptr;
  a->current = i + 1 < a->items ? i + 1 : -1;
  return a->slot(i);
}

/// The element at `current`, which moves on; null when `current` is -1.
template <class T> T *array_get(Array<T> a) {
  return a != nullptr ? array_get_num(a, a->current) : nullptr;
}

/// Calls `fn` with the address of each slot in order, so that it can release the element and null
/// the slot; then releases the array and sets the variable to null.
template <class T, class Fn> void array_free_fn(Array<T> *a, Fn fn) {
  if (a == nullptr || *a == nullptr) return;
  for (std::int32_t i = 0; i < (*a)->items; ++i) fn(&(*a)->slot(i));
  delete *a;
  *a = nullptr;
}

/// Releases the slots and the array, not the elements, and sets the variable to null.
template <class T> void array_free(Array<T> *a) {
  array_free_fn(a, [](T **) {});
}

/// Releases every element, then as `array_free`.
template <class T> void array_free_dealloc(Array<T> *a) {
  array_free_fn(a, [](T **slot) { delete *slot; });
}

} // namespace installer
